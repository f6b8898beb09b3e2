#ifndef OSTRELLED_OS_DYNAMICLIBRARYLOADER_H
#define OSTRELLED_OS_DYNAMICLIBRARYLOADER_H

#include <ostrelled/Export.h>

/// @file
/// Dynamic libraries: load, look up, free.

/// Load hints, or-ed together; other bits are ignored.
enum os_load_hint {
  resolve_all_symbols_hint = 1,      ///< RTLD_NOW instead of RTLD_LAZY.
  export_external_symbols_hint = 2,  ///< RTLD_GLOBAL.
  prevent_unload_hint = 4,           ///< RTLD_NODELETE.
  deep_bind_hint = 8                 ///< RTLD_DEEPBIND.
};

extern "C" {
/// os_dynamic_library_loader_load_ex(path, resolve_all_symbols_hint).
OSTRELLED_EXPORT void* os_dynamic_library_loader_load(const char* strLibraryPath);
/// dlopen with the mode built from hints; on failure prints
/// "Load library '&lt;path&gt;' failed:&lt;message&gt;" and returns null. A null path
/// gives the main program, as dlopen does.
OSTRELLED_EXPORT void* os_dynamic_library_loader_load_ex(const char* strLibraryPath, int hints);
/// dlsym; null for a null handle. The dlerror state is left unread on purpose.
OSTRELLED_EXPORT void* os_dynamic_library_loader_get_proc(void* hModuleHandle, const char* strProcName);
/// dlclose unless the handle is null.
OSTRELLED_EXPORT void os_dynamic_library_loader_free(void* hModuleHandle);
}

#endif
