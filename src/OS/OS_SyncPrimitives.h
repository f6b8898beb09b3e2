#ifndef OSTRELLED_SRC_OS_SYNCPRIMITIVES_H
#define OSTRELLED_SRC_OS_SYNCPRIMITIVES_H

// Condition variables of the event and the reader/writer mutex, kept on the
// heap (one process) or in a named block (every process attached to the name).
// Their mutexes use the helpers of OS_MutexHandle.h.

#include <pthread.h>
#include <time.h>

namespace OS {
namespace Private {

// A condition variable counting on CLOCK_MONOTONIC, process-shared on request.
void initCond(pthread_cond_t* cond, bool processShared);

// pthread_cond_wait, or pthread_cond_timedwait until the absolute
// CLOCK_MONOTONIC deadline when one is given. A robust mutex that comes back
// from a dead holder is marked consistent, so the caller holds it usable
// either way. Returns 0, ETIMEDOUT or the call's other error number.
int waitRecovering(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline = nullptr);

}  // namespace Private
}  // namespace OS

#endif
