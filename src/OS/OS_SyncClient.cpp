// A process's side of the request protocol. Kill rule: the request lock is a
// robust mutex in the request-lock record plus the enabled semaphore; a holder
// killed at any instruction is found by the next taker (EOWNERDEAD), who waits
// out or discards its request and then holds the lock. The record's holder
// fields and the request area are written only by the lock's holder.

#include "OS/internal/SyncProtocol.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "OS/internal/Liveness.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/ShareMemoryHandle.h"

namespace ostrelled {
namespace internal {

namespace {

// sem_open reports failure as null on this platform (SEM_FAILED is null).
sem_t* openSemaphore(const char* name, unsigned int value, bool quiet) {
  sem_t* sem = sem_open(name, 0, 0755, value);
  if (sem == SEM_FAILED) {
    if (!quiet) printf("Error: Can not open %s, errno = %d!\n", name, errno);
    return nullptr;
  }
  return sem;
}

// Who holds the lock, for people (the pid) and for liveness (the token).
void noteHolder(RequestLockRecord* rec) {
  ProcessRegistry* registry = latestRegistry();
  rec->holder = static_cast<unsigned int>(ownPid());
  rec->holderToken = registry != nullptr ? registry->own() : kUntrackedProcess;
}

void clearHolder(RequestLockRecord* rec) {
  rec->holder = 0;
  rec->holderToken = 0;
}

void closeSemaphore(sem_t*& sem) {
  if (sem != nullptr) {
    sem_close(sem);
    sem = nullptr;
  }
}

}  // namespace

bool CSyncClient::create(bool bQuiet) {
  destroy();
  // The record first: a manager makes it after its other names, so when it
  // is a new manager's record, the names opened next are that manager's too;
  // an old record names a manager that is gone, which fails a request at once.
  openRequestLock();
  enable_mutex_manager_sem = openSemaphore(SyncNames::kEnabledSemaphore, 1, bQuiet);
  manage_request_sem = openSemaphore(SyncNames::kRequestSemaphore, 0, bQuiet);
  manage_finish_sem = openSemaphore(SyncNames::kFinishSemaphore, 0, bQuiet);
  manager_memory_handle = os_sharememory_open(SyncNames::kRequestArea, USE_DEFAULT);
  if (manager_memory_handle == nullptr && !bQuiet)
    printf("Error: Can not open %s, errno = %d!\n", SyncNames::kRequestArea, errno);
  if (enable_mutex_manager_sem && manage_request_sem && manage_finish_sem && manager_memory_handle) {
    // The registry of this manager's names: the one its token is in.
    currentRegistry();
    return true;
  }
  ErrnoGuard keep;
  destroy();
  return false;
}

// Opened quietly: the four objects above are the ones a user is told about.
void CSyncClient::openRequestLock() {
  request_lock_handle = os_sharememory_open(SyncNames::kRequestLock, USE_DEFAULT);
  if (request_lock_handle != nullptr && request_lock_handle->sharememory_get_size() < sizeof(RequestLockRecord))
    os_sharememory_destroy(request_lock_handle);
}

void CSyncClient::destroy() {
  closeSemaphore(enable_mutex_manager_sem);
  closeSemaphore(manage_request_sem);
  closeSemaphore(manage_finish_sem);
  for (sharememory_handle** handle : {&manager_memory_handle, &request_lock_handle}) {
    if (*handle == nullptr) continue;
    os_sharememory_close(*handle, false);
    os_sharememory_destroy(*handle);
  }
}

RequestLockRecord* CSyncClient::record() const {
  if (request_lock_handle == nullptr) return nullptr;
  return static_cast<RequestLockRecord*>(os_sharememory_get_buffer(request_lock_handle));
}

// The enabled semaphore, without a deadline (never()) or until one.
bool CSyncClient::takeEnabled(const Deadline& deadline) {
  sem_t* sem = enable_mutex_manager_sem;
  if (deadline.isNever()) return retryOnEintr([&] { return sem_wait(sem); }) == 0;
  return retryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, &deadline.time()); }) == 0;
}

void CSyncClient::lock() {
  RequestLockRecord* rec = record();
  if (rec == nullptr) {
    takeEnabled(Deadline::never());
    return;
  }
  if (pthread_mutex_lock(&rec->mutex) == EOWNERDEAD) return takeOverFromDeadHolder();
  takeEnabled(Deadline::never());
  noteHolder(rec);
}

bool CSyncClient::lockUntil(const Deadline& deadline) {
  RequestLockRecord* rec = record();
  if (rec == nullptr) return takeEnabled(deadline);
  int result = lockBefore(&rec->mutex, deadline);
  if (result == EOWNERDEAD) {
    takeOverFromDeadHolder();
    return true;
  }
  if (result != 0) return false;
  if (!takeEnabled(deadline)) {
    pthread_mutex_unlock(&rec->mutex);
    return false;
  }
  noteHolder(rec);
  return true;
}

namespace {

// The share of a request-lock holder that died, given back to whoever holds
// the record's mutex now. Only that holder touches the enabled semaphore, so
// a value of 0 means the dead holder had taken it: the caller keeps it
// (takeIt) or gives it back. The dead holder's request, if one was posted,
// is left to the manager: it is waited for (100 ms at most) before the
// request area may be written again.
void repairAfterDeadHolder(RequestLockRecord* rec, sem_t* enabled, bool takeIt) {
  pthread_mutex_consistent(&rec->mutex);
  int value = 1;
  sem_getvalue(enabled, &value);
  if (value == 0 && !takeIt) sem_post(enabled);
  if (value != 0 && takeIt) retryOnEintr([&] { return sem_wait(enabled); });
  takeIt ? noteHolder(rec) : clearHolder(rec);
}

}  // namespace

void CSyncClient::takeOverFromDeadHolder() {
  RequestLockRecord* rec = record();
  repairAfterDeadHolder(rec, enable_mutex_manager_sem, true);
  pollUntil(Deadline::after(kRequestTimeout), std::chrono::milliseconds(1), [&] {
    return __atomic_load_n(&rec->answered, __ATOMIC_ACQUIRE) == __atomic_load_n(&rec->posted, __ATOMIC_ACQUIRE) ||
           managerGone();
  });
}

void releaseDeadHolder(RequestLockRecord* rec, sem_t* enabled) {
  int result = pthread_mutex_trylock(&rec->mutex);
  if (result != 0 && result != EOWNERDEAD) return;  // free of dead holders, or a live one holds it
  if (result == EOWNERDEAD) repairAfterDeadHolder(rec, enabled, false);
  pthread_mutex_unlock(&rec->mutex);
}

void CSyncClient::unlock() {
  RequestLockRecord* rec = record();
  if (rec != nullptr) clearHolder(rec);
  sem_post(enable_mutex_manager_sem);
  if (rec == nullptr) return;
  bool othersWait = othersWaitFor(&rec->mutex);
  pthread_mutex_unlock(&rec->mutex);
  // A process that takes the lock again at once wins it from whoever the
  // unlock woke, until the scheduler takes its processor away, mostly in
  // the middle of a request. Every few turns taken while others waited, it
  // lets the one woken run first, at a moment when the lock is free.
  if (!othersWait) {
    m_uintTurnsWhileOthersWait = 0;
  } else if (++m_uintTurnsWhileOthersWait >= kTurnsBeforeGivingWay) {
    m_uintTurnsWhileOthersWait = 0;
    sched_yield();
  }
}

unsigned char* CSyncClient::area() const {
  return static_cast<unsigned char*>(os_sharememory_get_buffer(manager_memory_handle));
}

// Holding the lock, any post already in the finish semaphore answers an
// earlier request that timed out; left there it would answer this one. With
// the record, a finish counts only when the manager says it answered this
// request's number.
bool CSyncClient::postAndWait(const Deadline& deadline) {
  while (sem_trywait(manage_finish_sem) == 0) {
  }
  RequestLockRecord* rec = record();
  unsigned int number = rec != nullptr ? __atomic_add_fetch(&rec->posted, 1, __ATOMIC_RELEASE) : 0;
  sem_post(manage_request_sem);
  for (bool first = true;; first = false) {
    // In slices, so that a manager that died is noticed within one; a live
    // one, however slow, has until the deadline. A request answered within
    // the first slice, as nearly all are, never asks.
    Deadline slice = Deadline::after(kManagerCheck);
    bool last = !(slice < deadline);
    const Deadline& until = last ? deadline : slice;
    int taken = first ? m_spin.take(manage_finish_sem, until) : takeSoon(manage_finish_sem, until, Span::zero());
    if (taken == 0) {
      if (rec == nullptr || __atomic_load_n(&rec->answered, __ATOMIC_ACQUIRE) == number) return true;
      continue;
    }
    if (last || managerGone()) return false;
  }
}

bool CSyncClient::managerGone() const {
  RequestLockRecord* rec = record();
  if (rec == nullptr) return false;
  ProcessToken manager = __atomic_load_n(&rec->managerToken, __ATOMIC_ACQUIRE);
  if (manager == kNoProcess) return false;
  ProcessRegistry* registry = latestRegistry();
  return registry != nullptr && registry->gone(manager);
}

// Names are bounded before they get here, so a copy ends at most at byte
// 8 + 1023 + 1 = 1032: past the area's 1029 bytes but inside its mapping,
// which is at least one 4096-byte page.
bool CSyncClient::requestCreate(const char* strName, unsigned int uintSize) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_CREATE_METHOD;
  if (serveInProcess(record(), method, strName, uintSize)) return true;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kCreateSizeOffset, &uintSize, sizeof uintSize);
  memcpy(area() + kCreateNameOffset, strName, length + 1);
  return postAndWait(Deadline::after(kRequestTimeout));
}

bool CSyncClient::requestDestroy(const char* strName) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_DESTROY_METHOD;
  if (serveInProcess(record(), method, strName, 0)) return true;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kDestroyNameOffset, strName, length + 1);
  return postAndWait(Deadline::after(kRequestTimeout));
}

bool CSyncClient::requestNothing(const Deadline& deadline) {
  unsigned int method = 0;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  return postAndWait(deadline);
}

Presence managerPresence(pid_t* pid) {
  if (pid != nullptr) *pid = 0;
  sharememory_handle* block = os_sharememory_open(SyncNames::kRequestLock, USE_STD);
  if (block == nullptr) return Presence::Unknown;
  Presence presence = Presence::Unknown;
  const auto* rec = static_cast<const RequestLockRecord*>(os_sharememory_get_buffer(block));
  ProcessToken token = block->sharememory_get_size() >= sizeof(RequestLockRecord)
                           ? __atomic_load_n(&rec->managerToken, __ATOMIC_ACQUIRE)
                           : kNoProcess;
  ProcessRegistry* registry = token != kNoProcess ? currentRegistry() : nullptr;
  if (registry != nullptr) presence = registry->presence(token);
  if (pid != nullptr && token != kNoProcess) *pid = static_cast<pid_t>(rec->manager);
  os_sharememory_destroy(block);
  return presence;
}

// A lock held past its deadline is held by a live client or manager: one
// that a dead client held is released by the next taker or the manager.
ManagerProbe probeManager(const Deadline& lockDeadline, const Deadline* replyDeadline) {
  CSyncClient client;
  if (!client.create(true)) return {ManagerState::NoNames, Span::zero()};
  const Deadline start = Deadline::after(Span::zero());  // how far it has passed is the round trip
  if (!client.lockUntil(lockDeadline)) return {ManagerState::LockStuck, Span::zero()};
  bool answered = client.requestNothing(replyDeadline != nullptr ? *replyDeadline : Deadline::after(kRequestTimeout));
  client.unlock();
  if (!answered) return {ManagerState::Silent, Span::zero()};
  return {ManagerState::Serving, -start.left()};
}

}  // namespace internal
}  // namespace ostrelled
