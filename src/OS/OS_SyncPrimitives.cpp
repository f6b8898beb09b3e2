#include "OS/OS_SyncPrimitives.h"

#include <errno.h>
#include <stdio.h>

namespace OS {
namespace Primitives {

void initMutex(pthread_mutex_t* mutex, Sharing sharing) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_NORMAL);
  if (sharing == Sharing::Machine) {
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    // A holder that dies must not lock every other process out for good.
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  }
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

void initCond(pthread_cond_t* cond, Sharing sharing) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  // Deadlines are CLOCK_MONOTONIC throughout; wall-clock steps must not move them.
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  if (sharing == Sharing::Machine) pthread_condattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

bool lockRepairing(pthread_mutex_t* mutex) {
  int rc = pthread_mutex_lock(mutex);
  if (rc == 0) return true;
  if (rc == EOWNERDEAD) {
    if (pthread_mutex_consistent(mutex) != 0) {
      puts("mutex lock fixed failed!");
      return false;
    }
    // The repaired mutex is released and taken afresh, blocking: a true result
    // always means the caller holds it, also when another thread slipped in.
    pthread_mutex_unlock(mutex);
    pthread_mutex_lock(mutex);
    return true;
  }
  printf("mutex lock error:%d.\n", rc);
  return false;
}

int waitRepairing(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline) {
  int rc = deadline != nullptr ? pthread_cond_timedwait(cond, mutex, deadline) : pthread_cond_wait(cond, mutex);
  if (rc == EOWNERDEAD) {
    // The wait has reacquired the mutex from a dead holder; the state it
    // guards is plain flags and counts, so it can be used as it stands.
    pthread_mutex_consistent(mutex);
    rc = 0;
  }
  return rc;
}

}  // namespace Primitives
}  // namespace OS
