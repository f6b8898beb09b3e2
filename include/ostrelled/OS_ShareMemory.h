#ifndef OSTRELLED_OS_SHAREMEMORY_H
#define OSTRELLED_OS_SHAREMEMORY_H

#include <ostrelled/OS.h>

/// @file
/// Named POSIX shared-memory blocks.

/// A named POSIX shared-memory object mapped read/write and shared.
class sharememory_handle;

extern "C" {
/// Creates or reuses (without O_EXCL) the named object and maps it zero-filled, clearing an
/// existing object for everybody. Sized to uintMemorySize; null on failure.
OSTRELLED_EXPORT sharememory_handle* os_sharememory_create(const char* strShmName, unsigned int uintMemorySize,
                                                           RT_MODE mode);
/// Maps an existing object at its current size; null when it does not exist or cannot be mapped.
OSTRELLED_EXPORT sharememory_handle* os_sharememory_open(const char* strShmName, RT_MODE mode);
/// Unmaps, and with bNeedDestroy unlinks the name, but leaves the handle allocated:
/// os_sharememory_destroy it afterwards.
OSTRELLED_EXPORT void os_sharememory_close(sharememory_handle* handle, bool bNeedDestroy);
/// Unmaps (never unlinks), frees the handle and nulls the caller's pointer; null is ignored.
OSTRELLED_EXPORT void os_sharememory_destroy(sharememory_handle*& handle);
/// The mapping's start; null for a null handle, MAP_FAILED (not null) for a closed one.
OSTRELLED_EXPORT void* os_sharememory_get_buffer(sharememory_handle* handle);
}

#endif
