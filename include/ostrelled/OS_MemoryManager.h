#ifndef OSTRELLED_OS_MEMORYMANAGER_H
#define OSTRELLED_OS_MEMORYMANAGER_H

#include <ostrelled/Export.h>

/// @file
/// Memory locking. Each result is true when the system call did not return -1 (errno as
/// it set it).

extern "C" {
/// Locks __len bytes from __address in memory.
OSTRELLED_EXPORT bool os_memory_manager_mlock(void* __address, unsigned int __len);
/// Unlocks __len bytes from __address.
OSTRELLED_EXPORT bool os_memory_manager_munlock(void* __address, unsigned int __len);
/// Locks the whole process, where other bits than MCL_CURRENT (1) and MCL_FUTURE (2) are
/// dropped, so 4 asks mlockall(0), which the system refuses.
OSTRELLED_EXPORT bool os_memory_manager_mlockall(int __flags);
/// Unlocks every page of the process.
OSTRELLED_EXPORT bool os_memory_manager_munlockall();
}

#endif
