#include "OS/OS_SyncPrimitives.h"

#include <errno.h>

#include "OS/OS_ShareMemoryHandle.h"

namespace OS {
namespace Private {

void initCond(pthread_cond_t* cond, bool processShared) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  // Deadlines are CLOCK_MONOTONIC throughout; wall-clock steps must not move them.
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  if (processShared) pthread_condattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

int waitRecovering(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline) {
  int rc = deadline != nullptr ? pthread_cond_timedwait(cond, mutex, deadline) : pthread_cond_wait(cond, mutex);
  if (rc == EOWNERDEAD) {
    // The wait took the mutex back from a holder that died; what it guards is
    // plain flags and counts, usable as they stand.
    pthread_mutex_consistent(mutex);
    rc = 0;
  }
  return rc;
}

sharememory_handle* attachSameKind(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  sharememory_handle* block = attachNamedObject(name, blockSize, steps);
  // The detach undoes only this attach: a block that another kind holds keeps
  // its count, and one that nobody held goes away again.
  if (block != nullptr && block->sharememory_get_size() != blockSize) detachNamedObject(name, block, steps);
  return block;
}

}  // namespace Private
}  // namespace OS
