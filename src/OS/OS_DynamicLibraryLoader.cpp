// Dynamic libraries: load, look up, free.

#include <ostrelled/OS_DynamicLibraryLoader.h>

#include <dlfcn.h>
#include <stdio.h>

void* os_dynamic_library_loader_load(const char* strLibraryPath) {
  return os_dynamic_library_loader_load_ex(strLibraryPath, resolve_all_symbols_hint);
}

void* os_dynamic_library_loader_load_ex(const char* strLibraryPath, int hints) {
  int mode = (hints & resolve_all_symbols_hint) != 0 ? RTLD_NOW : RTLD_LAZY;
  if ((hints & export_external_symbols_hint) != 0) mode |= RTLD_GLOBAL;
  if ((hints & prevent_unload_hint) != 0) mode |= RTLD_NODELETE;
  if ((hints & deep_bind_hint) != 0) mode |= RTLD_DEEPBIND;
  void* handle = dlopen(strLibraryPath, mode);
  // Any pending message counts as failure; a handle dlopen may still have
  // returned is then dropped without dlclose, as the interface promises.
  if (const char* message = dlerror()) {
    printf("Load library '%s' failed:%s\n", strLibraryPath, message);
    return nullptr;
  }
  return handle;
}

void* os_dynamic_library_loader_get_proc(void* hModuleHandle, const char* strProcName) {
  // dlerror is deliberately left unread here.
  return hModuleHandle == nullptr ? nullptr : dlsym(hModuleHandle, strProcName);
}

void os_dynamic_library_loader_free(void* hModuleHandle) {
  if (hModuleHandle != nullptr) dlclose(hModuleHandle);
}
