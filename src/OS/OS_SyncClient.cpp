#include "OS/OS_SyncClient.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "OS/OS_NamedObject.h"
#include "OS/OS_Private.h"
#include "OS/OS_ShareMemoryHandle.h"

namespace OS {

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

void closeSemaphore(sem_t*& sem) {
  if (sem != nullptr) {
    sem_close(sem);
    sem = nullptr;
  }
}

}  // namespace

bool CSyncClient::create(bool bQuiet) {
  destroy();
  enable_mutex_manager_sem = openSemaphore(SyncNames::kEnabledSemaphore, 1, bQuiet);
  manage_request_sem = openSemaphore(SyncNames::kRequestSemaphore, 0, bQuiet);
  manage_finish_sem = openSemaphore(SyncNames::kFinishSemaphore, 0, bQuiet);
  manager_memory_handle = os_sharememory_open(SyncNames::kRequestArea, USE_DEFAULT);
  if (manager_memory_handle == nullptr && !bQuiet)
    printf("Error: Can not open %s, errno = %d!\n", SyncNames::kRequestArea, errno);
  if (enable_mutex_manager_sem && manage_request_sem && manage_finish_sem && manager_memory_handle) {
    openRequestLock();
    return true;
  }
  Private::ErrnoGuard keep;
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

// The enabled semaphore, without a deadline or until one (CLOCK_MONOTONIC).
bool CSyncClient::takeEnabled(const timespec* deadline) {
  sem_t* sem = enable_mutex_manager_sem;
  if (deadline == nullptr) return Private::retryOnEintr([&] { return sem_wait(sem); }) == 0;
  return Private::retryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, deadline); }) == 0;
}

void CSyncClient::lock() {
  RequestLockRecord* rec = record();
  if (rec == nullptr) {
    takeEnabled(nullptr);
    return;
  }
  if (pthread_mutex_lock(&rec->mutex) == EOWNERDEAD) return takeOverFromDeadHolder();
  takeEnabled(nullptr);
  rec->holder = static_cast<unsigned int>(Private::ownPid());
}

bool CSyncClient::lockUntil(const timespec& deadline) {
  RequestLockRecord* rec = record();
  if (rec == nullptr) return takeEnabled(&deadline);
  int result = Private::lockBefore(&rec->mutex, deadline);
  if (result == EOWNERDEAD) {
    takeOverFromDeadHolder();
    return true;
  }
  if (result != 0) return false;
  if (!takeEnabled(&deadline)) {
    pthread_mutex_unlock(&rec->mutex);
    return false;
  }
  rec->holder = static_cast<unsigned int>(Private::ownPid());
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
  if (value != 0 && takeIt) Private::retryOnEintr([&] { return sem_wait(enabled); });
  rec->holder = takeIt ? static_cast<unsigned int>(Private::ownPid()) : 0;
}

}  // namespace

void CSyncClient::takeOverFromDeadHolder() {
  RequestLockRecord* rec = record();
  repairAfterDeadHolder(rec, enable_mutex_manager_sem, true);
  timespec deadline = Private::deadlineAfter(kRequestTimeoutNanos);
  while (__atomic_load_n(&rec->answered, __ATOMIC_ACQUIRE) != __atomic_load_n(&rec->posted, __ATOMIC_ACQUIRE) &&
         !Private::hasPassed(deadline)) {
    timespec pause{0, 1000000L};
    nanosleep(&pause, nullptr);
  }
}

void releaseDeadHolder(RequestLockRecord* rec, sem_t* enabled) {
  int result = pthread_mutex_trylock(&rec->mutex);
  if (result != 0 && result != EOWNERDEAD) return;  // free of dead holders, or a live one holds it
  if (result == EOWNERDEAD) repairAfterDeadHolder(rec, enabled, false);
  pthread_mutex_unlock(&rec->mutex);
}

void CSyncClient::unlock() {
  RequestLockRecord* rec = record();
  if (rec != nullptr) rec->holder = 0;
  sem_post(enable_mutex_manager_sem);
  if (rec != nullptr) pthread_mutex_unlock(&rec->mutex);
}

unsigned char* CSyncClient::area() const {
  return static_cast<unsigned char*>(os_sharememory_get_buffer(manager_memory_handle));
}

// Holding the lock, any post already in the finish semaphore answers an
// earlier request that timed out; left there it would answer this one. With
// the record, a finish counts only when the manager says it answered this
// request's number.
bool CSyncClient::postAndWait(const timespec& deadline) {
  while (sem_trywait(manage_finish_sem) == 0) {
  }
  RequestLockRecord* rec = record();
  unsigned int number = rec != nullptr ? __atomic_add_fetch(&rec->posted, 1, __ATOMIC_RELEASE) : 0;
  sem_post(manage_request_sem);
  for (;;) {
    if (Private::takeSoon(manage_finish_sem, deadline, kRequestSpinNanos) != 0) return false;
    if (rec == nullptr || __atomic_load_n(&rec->answered, __ATOMIC_ACQUIRE) == number) return true;
  }
}

// Names are bounded before they get here, so a copy ends at most at byte
// 8 + 1023 + 1 = 1032: past the area's 1029 bytes but inside its mapping,
// which is at least one 4096-byte page.
bool CSyncClient::requestCreate(const char* strName, unsigned int uintSize) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_CREATE_METHOD;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kCreateSizeOffset, &uintSize, sizeof uintSize);
  memcpy(area() + kCreateNameOffset, strName, length + 1);
  return postAndWait(Private::deadlineAfter(kRequestTimeoutNanos));
}

bool CSyncClient::requestDestroy(const char* strName) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_DESTROY_METHOD;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kDestroyNameOffset, strName, length + 1);
  return postAndWait(Private::deadlineAfter(kRequestTimeoutNanos));
}

bool CSyncClient::requestNothing(const timespec& deadline) {
  unsigned int method = 0;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  return postAndWait(deadline);
}

namespace {

// Which manager the protocol names belong to right now: every start makes a
// new request-lock record (a new inode and creation time under /dev/shm) along
// with new semaphores, so that one name tells a manager from its successor.
struct ProtocolIdentity {
  dev_t device;
  ino_t inode;
  timespec changed;

  bool read() {
    struct stat st;
    if (stat("/dev/shm/os_mutex_manage_request_lock", &st) != 0) return false;
    device = st.st_dev;
    inode = st.st_ino;
    changed = st.st_ctim;
    return true;
  }
  bool operator==(const ProtocolIdentity& other) const {
    return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
  }
};

// Opening the three semaphores and the (locked) request area costs several
// times a whole request, so each thread keeps its client open between
// requests. What travels between processes is unchanged. The names are
// looked at before every request and the client reopened when they denote
// other objects (a new manager); the look comes before the open, so a
// replacement in between shows up as a mismatch next time.
class CachedClient {
 public:
  CSyncClient* acquire() {
    ProtocolIdentity now;
    bool present = now.read();
    if (m_bOpen && present && now == m_identity) return &m_client;
    m_bOpen = false;
    // Also when the names are missing: create() then prints what it could not open.
    if (!m_client.create()) return nullptr;
    m_identity = now;
    m_bOpen = present;  // without a valid identity it is reopened next time
    return &m_client;
  }
  // After a request went unanswered, trust nothing that is open.
  void invalidate() {
    m_client.destroy();
    m_bOpen = false;
  }

 private:
  CSyncClient m_client;
  ProtocolIdentity m_identity{};
  bool m_bOpen = false;
};

thread_local CachedClient tCachedClient;

}  // namespace

sharememory_handle* attachNamedObject(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  // Every kind refuses longer names first; this keeps the request area safe regardless.
  if (name.size() > kMaxObjectNameLength) return nullptr;
  CSyncClient* client = tCachedClient.acquire();
  if (client == nullptr) return nullptr;
  client->lock();
  sharememory_handle* block = nullptr;
  bool answered = client->requestCreate(name.c_str(), blockSize);
  if (answered && steps.beforeOpen()) {
    // The manager answers also requests it ignored (an invalid name, a failed
    // create), so the reply alone proves nothing: the block must open, and be
    // large enough for the object, or the object stays unattached.
    block = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (block != nullptr && block->sharememory_get_size() < blockSize) os_sharememory_destroy(block);
    if (block != nullptr) {
      unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
      steps.bind(base);
      unsigned int count;
      memcpy(&count, base, sizeof count);
      if (count == 0) steps.initialise();
      count += 1;
      memcpy(base, &count, sizeof count);
    }
  }
  client->unlock();
  if (!answered) tCachedClient.invalidate();
  return block;
}

void detachNamedObject(const std::string& name, sharememory_handle*& block, NamedObjectSteps& steps) {
  if (block == nullptr) return;
  if (CSyncClient* client = tCachedClient.acquire()) {
    bool answered = true;
    client->lock();
    unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
    unsigned int count;
    memcpy(&count, base, sizeof count);
    // A count already at 0 means the block was cleared under us (a new manager
    // recreated it): its state is somebody else's now, so it is left alone.
    bool last = count == 1;
    if (count != 0) {
      count -= 1;
      memcpy(base, &count, sizeof count);
    }
    if (last) {
      steps.finalise();
      // Without a reply the name stays until the manager stops; with one the
      // manager has unlinked it already and this second unlink finds nothing.
      answered = client->requestDestroy(name.c_str());
      os_sharememory_close(block, answered);
    } else {
      os_sharememory_close(block, false);
    }
    client->unlock();
    if (!answered) tCachedClient.invalidate();
  }
  os_sharememory_destroy(block);
}

// A lock held longer than lockNanos is held by a live client or manager: one
// that a dead client held is released by the next taker or the manager.
ManagerProbe probeManager(long lockNanos, long replyNanos) {
  CSyncClient client;
  if (!client.create(true)) return {ManagerState::NoNames, 0};
  timespec start = Private::monotonicNow();
  if (!client.lockUntil(Private::deadlineAfter(lockNanos))) return {ManagerState::LockStuck, 0};
  bool answered = client.requestNothing(Private::deadlineAfter(replyNanos));
  client.unlock();
  if (!answered) return {ManagerState::Silent, 0};
  timespec took = Private::timeLeftUntil(start);
  return {ManagerState::Serving, -(took.tv_sec * Private::kNanosPerSecond + took.tv_nsec)};
}

}  // namespace OS
