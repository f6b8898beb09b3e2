// Conditions private to one process, bound to an anonymous mutex. Nothing is
// shared with other processes, so a kill ends every waiter with its process;
// the bound mutex guards the waiters' predicate, the condition no bytes of its
// own. A waiter may assume a wake-up only as a hint: it re-checks its predicate.

#include <errno.h>
#include <pthread.h>

#include "OS/internal/MutexHandle.h"
#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

// A condition private to the process, bound to (not owning) an anonymous mutex.
// Its clock is CLOCK_MONOTONIC, so deadlines do not move with the wall clock.
class condition_handle {
 public:
  condition_handle(mutex_handle* mutex, RT_MODE mode) : m_pMutexHandle(mutex), m_RtMode(internal::storedMode(mode)) {
    pthread_condattr_init(&m_Cattr);
    pthread_condattr_setclock(&m_Cattr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Cond, &m_Cattr);
  }
  ~condition_handle() {
    pthread_cond_destroy(&m_Cond);
    pthread_condattr_destroy(&m_Cattr);
  }
  condition_handle(const condition_handle&) = delete;
  condition_handle& operator=(const condition_handle&) = delete;

  // The bound mutex's pthread mutex; null when that mutex never attached.
  pthread_mutex_t* mutex() const { return m_pMutexHandle->m_pMutex; }

  mutex_handle* m_pMutexHandle;  // not owned
  RT_MODE m_RtMode;
  pthread_condattr_t m_Cattr;
  pthread_cond_t m_Cond;
};

namespace {

// Every error but a timeout counts as a failed wait.
int waitResult(int result) {
  if (result == 0) return WAIT_CONDITION_OK;
  return result == ETIMEDOUT ? WAIT_CONDITION_TIMEOUT : WAIT_CONDITION_FAILED;
}

}  // namespace

condition_handle* os_condition_create(mutex_handle* lck_handle, RT_MODE mode) {
  // A named mutex lives in other processes too, where this condition does not exist.
  if (lck_handle == nullptr || lck_handle->m_pMutexShareMemory != nullptr) return nullptr;
  return new condition_handle(lck_handle, mode);
}

void os_condition_destroy(condition_handle*& handle) { internal::destroyHandle(handle); }

void os_condition_notify(condition_handle* handle) {
  if (handle != nullptr) pthread_cond_signal(&handle->m_Cond);
}

void os_condition_notify_all(condition_handle* handle) {
  if (handle != nullptr) pthread_cond_broadcast(&handle->m_Cond);
}

int os_condition_wait(condition_handle* handle) {
  if (handle == nullptr) return -1;
  // Bound to an unattached mutex there is nothing to release and retake.
  if (handle->mutex() == nullptr) return WAIT_CONDITION_FAILED;
  return waitResult(pthread_cond_wait(&handle->m_Cond, handle->mutex()));
}

int os_condition_wait_timeout(condition_handle* handle, timespec timeout) {
  if (handle == nullptr) return -1;
  if (handle->mutex() == nullptr) return WAIT_CONDITION_FAILED;
  // The condition counts on CLOCK_MONOTONIC, the clock of the deadline. The
  // time goes to the call as given, not through a Deadline: intended, an
  // out-of-range tv_nsec fails this wait (EINVAL) as it always has.
  return waitResult(pthread_cond_timedwait(&handle->m_Cond, handle->mutex(), &timeout));
}
