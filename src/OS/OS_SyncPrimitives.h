#ifndef OSTRELLED_SRC_OS_SYNCPRIMITIVES_H
#define OSTRELLED_SRC_OS_SYNCPRIMITIVES_H

// Helpers of the event, the semaphore and the reader/writer mutex: condition
// variables kept on the heap (one process) or in a named block (every process
// attached to the name), and the attach of objects that come in several kinds.
// Their mutexes use the helpers of OS_MutexHandle.h.

#include <pthread.h>
#include <time.h>

#include <string>

#include "OS/OS_NamedObject.h"

namespace OS {
namespace Private {

// A condition variable counting on CLOCK_MONOTONIC, process-shared on request.
void initCond(pthread_cond_t* cond, bool processShared);

// pthread_cond_wait, or pthread_cond_timedwait until the absolute
// CLOCK_MONOTONIC deadline when one is given. A robust mutex that comes back
// from a dead holder is marked consistent, so the caller holds it usable
// either way. Returns 0, ETIMEDOUT or the call's other error number.
int waitRecovering(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline = nullptr);

// attachNamedObject for objects whose block size tells their kind apart (the
// semaphore and the event): a block of another size was made by another kind
// under the same name, and reading it with this kind's layout would act on
// foreign state (even another program's System V set), so the handle detaches
// again at once and stays unattached.
sharememory_handle* attachSameKind(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps);

}  // namespace Private
}  // namespace OS

#endif
