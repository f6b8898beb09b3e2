#ifndef OSTRELLED_SRC_OS_SYNCPRIMITIVES_H
#define OSTRELLED_SRC_OS_SYNCPRIMITIVES_H

// Setup and locking of the pthread objects that the event and the
// reader/writer mutex keep on the heap (one process) or in a named block
// (every process attached to the name).

#include <pthread.h>
#include <time.h>

namespace OS {
namespace Primitives {

// Where an object lives decides its attributes.
enum class Sharing {
  Process,  // heap, threads of this process only
  Machine   // named block: process-shared, and robust for mutexes
};

// A PTHREAD_MUTEX_NORMAL mutex; Machine adds process-shared and robust.
void initMutex(pthread_mutex_t* mutex, Sharing sharing);
// A condition variable counting on CLOCK_MONOTONIC; Machine adds process-shared.
void initCond(pthread_cond_t* cond, Sharing sharing);

// pthread_mutex_lock with repair of a mutex whose owner died: after
// pthread_mutex_consistent the mutex is unlocked and locked again. Prints
// "mutex lock fixed failed!" or "mutex lock error:%d." and returns false when
// the caller does not hold a usable mutex.
bool lockRepairing(pthread_mutex_t* mutex);

// pthread_cond_wait, or pthread_cond_timedwait until the absolute
// CLOCK_MONOTONIC deadline when one is given. A mutex that comes back from a
// dead owner is marked consistent, so the caller holds it usable either way.
// Returns 0, ETIMEDOUT or the call's other error number.
int waitRepairing(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline = nullptr);

}  // namespace Primitives
}  // namespace OS

#endif
