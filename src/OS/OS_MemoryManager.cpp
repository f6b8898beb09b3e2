// Memory locking.

#include <ostrelled/OS_MemoryManager.h>

#include <sys/mman.h>

bool os_memory_manager_mlock(void* __address, unsigned int __len) { return mlock(__address, __len) != -1; }

bool os_memory_manager_munlock(void* __address, unsigned int __len) { return munlock(__address, __len) != -1; }

bool os_memory_manager_mlockall(int __flags) {
  int flags = 0;
  if ((__flags & 1) != 0) flags |= MCL_CURRENT;
  if ((__flags & 2) != 0) flags |= MCL_FUTURE;
  return mlockall(flags) != -1;
}

bool os_memory_manager_munlockall() { return munlockall() != -1; }
