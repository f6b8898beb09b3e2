#ifndef OSTRELLED_OS_MEMORYMANAGER_H
#define OSTRELLED_OS_MEMORYMANAGER_H

#include <ostrelled/Export.h>

// Each result is true when the system call did not return -1 (errno as it set it).
extern "C" {
// Locks or unlocks __len bytes from __address in memory.
OSTRELLED_EXPORT bool os_memory_manager_mlock(void* __address, unsigned int __len);
OSTRELLED_EXPORT bool os_memory_manager_munlock(void* __address, unsigned int __len);
// Bit 1 selects MCL_CURRENT, bit 2 MCL_FUTURE; other bits are dropped, so 4
// asks mlockall(0), which the system refuses.
OSTRELLED_EXPORT bool os_memory_manager_mlockall(int __flags);
// Unlocks every page of the process.
OSTRELLED_EXPORT bool os_memory_manager_munlockall();
}

#endif
