#include <ostrelled/OS_RWMutex.h>

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "Handle.h"
#include "OS/OS_MutexHandle.h"
#include "OS/OS_NamedObject.h"
#include "OS/OS_Private.h"
#include "OS/OS_SyncPrimitives.h"

namespace {

// Named block: attach count, read count, write flag, ref mutex, resource
// access, allow condition. Resource access is a semaphore of one unit in the
// slot of a mutex (a sem_t is smaller), because the last reader out releases
// what the first reader in took, and a robust mutex refuses an unlock by
// anybody but its owner. The requested size stops four bytes short of the
// condition's end; the rest of the page is mapped all the same.
constexpr unsigned int kBlockSize = 136;
constexpr unsigned int kReadCountAt = 4;
constexpr unsigned int kWriteFlagAt = 8;
constexpr unsigned int kRefMutexAt = 12;
constexpr unsigned int kResourceAccessAt = 52;
constexpr unsigned int kAllowCondAt = 92;

}  // namespace

// One pointer to a counter, in the block or on the heap.
union ref_handle {
  unsigned int* m_pCount;
};

// Two counters under a ref mutex, a condition on which blocked lockers wait,
// and the resource access held for as long as anybody is inside. On the heap
// for one process's threads, or in a named block for several processes.
class rw_mutex_handle {
 public:
  rw_mutex_handle(RT_MODE mode, const char* strMutexName);
  ~rw_mutex_handle();
  rw_mutex_handle(const rw_mutex_handle&) = delete;
  rw_mutex_handle& operator=(const rw_mutex_handle&) = delete;

  void lockRdOnPosix();
  void lockWrOnPosix();
  void unlockOnPosix();

 private:
  class NamedSteps;

  // The thread variant owns its heap objects; the process variant points into its block.
  void createThreadRWMutexOnPosix();
  void createProcessRWMutexOnPosix(const char* strMutexName);
  void destroyThreadRWMutexOnPosix();
  void destroyProcessRWMutexOnPosix();
  // Part of the handle's operations, though no lock path uses it.
  bool tryLockMutex(pthread_mutex_t* pMutex);
  // A mutex repaired after its owner died is taken back with a blocking lock:
  // a trylock could lose it to another locker and leave the counters unguarded.
  bool lockMutex(pthread_mutex_t* pMutex) { return OS::Private::lockRecovering(pMutex); }
  void unlockMutex(pthread_mutex_t* pMutex) { pthread_mutex_unlock(pMutex); }

  bool attached() const {
    return m_pRefMutex != nullptr && m_pResourceAccess != nullptr && m_pAllowCond != nullptr;
  }
  unsigned int& readCount() { return *m_RefRead.m_pCount; }
  unsigned int& writeFlag() { return *m_RefWrite.m_pCount; }
  void waitAllowed() { OS::Private::waitRecovering(m_pAllowCond, m_pRefMutex); }
  // Never blocks: it is taken under the ref mutex only once the counts say
  // nobody is inside, and given back under it before anybody may enter.
  void takeResource() { OS::Private::retryOnEintr([&] { return sem_wait(m_pResourceAccess); }); }
  void nullPointers();

  ref_handle m_RefRead;   // readers inside
  ref_handle m_RefWrite;  // 1 while the writer is inside
  std::string m_strMutexName;
  sharememory_handle* m_pMutexShareMemory = nullptr;
  pthread_mutex_t* m_pRefMutex = nullptr;  // guards both counters; robust in a block
  sem_t* m_pResourceAccess = nullptr;      // one unit, taken by whoever lets the first one in
  pthread_cond_t* m_pAllowCond = nullptr;  // broadcast whenever the lock becomes free
  RT_MODE m_RtMode;
};

// The reader/writer mutex's own part of attaching to and detaching from its block.
class rw_mutex_handle::NamedSteps final : public OS::NamedObjectSteps {
 public:
  explicit NamedSteps(rw_mutex_handle& owner) : m_owner(owner) {}

  void bind(unsigned char* block) override {
    m_owner.m_RefRead.m_pCount = reinterpret_cast<unsigned int*>(block + kReadCountAt);
    m_owner.m_RefWrite.m_pCount = reinterpret_cast<unsigned int*>(block + kWriteFlagAt);
    m_owner.m_pRefMutex = reinterpret_cast<pthread_mutex_t*>(block + kRefMutexAt);
    m_owner.m_pResourceAccess = reinterpret_cast<sem_t*>(block + kResourceAccessAt);
    m_owner.m_pAllowCond = reinterpret_cast<pthread_cond_t*>(block + kAllowCondAt);
  }

  void initialise() override {
    m_owner.readCount() = 0;
    m_owner.writeFlag() = 0;
    OS::Private::initMutex(m_owner.m_pRefMutex, PTHREAD_MUTEX_NORMAL, false, true);
    sem_init(m_owner.m_pResourceAccess, 1, 1);
    OS::Private::initCond(m_owner.m_pAllowCond, true);
  }

  void finalise() override {
    pthread_cond_destroy(m_owner.m_pAllowCond);
    sem_destroy(m_owner.m_pResourceAccess);
    pthread_mutex_destroy(m_owner.m_pRefMutex);
    m_owner.readCount() = 0;
    m_owner.writeFlag() = 0;
  }

 private:
  rw_mutex_handle& m_owner;
};

rw_mutex_handle::rw_mutex_handle(RT_MODE mode, const char* strMutexName)
    : m_RtMode(OS::Private::storedMode(mode)) {
  nullPointers();
  if (strMutexName != nullptr && strlen(strMutexName) > OS::kMaxObjectNameLength) return;
  if (strMutexName != nullptr)
    createProcessRWMutexOnPosix(strMutexName);
  else
    createThreadRWMutexOnPosix();
}

rw_mutex_handle::~rw_mutex_handle() {
  if (m_pMutexShareMemory != nullptr)
    destroyProcessRWMutexOnPosix();
  else
    destroyThreadRWMutexOnPosix();
}

void rw_mutex_handle::nullPointers() {
  m_RefRead.m_pCount = nullptr;
  m_RefWrite.m_pCount = nullptr;
  m_pRefMutex = nullptr;
  m_pResourceAccess = nullptr;
  m_pAllowCond = nullptr;
}

void rw_mutex_handle::createThreadRWMutexOnPosix() {
  m_RefRead.m_pCount = new unsigned int(0);
  m_RefWrite.m_pCount = new unsigned int(0);
  m_pRefMutex = new pthread_mutex_t();
  OS::Private::initMutex(m_pRefMutex, PTHREAD_MUTEX_NORMAL, false, false);
  m_pResourceAccess = new sem_t();
  sem_init(m_pResourceAccess, 0, 1);
  m_pAllowCond = new pthread_cond_t();
  OS::Private::initCond(m_pAllowCond, false);
}

// A refused attach leaves every pointer null, and each operation then does nothing.
void rw_mutex_handle::createProcessRWMutexOnPosix(const char* strMutexName) {
  m_strMutexName = strMutexName;
  NamedSteps steps(*this);
  m_pMutexShareMemory = OS::attachNamedObject(m_strMutexName, kBlockSize, steps);
  if (m_pMutexShareMemory == nullptr) nullPointers();
}

void rw_mutex_handle::destroyThreadRWMutexOnPosix() {
  if (m_pAllowCond != nullptr) {
    pthread_cond_destroy(m_pAllowCond);
    delete m_pAllowCond;
  }
  if (m_pResourceAccess != nullptr) {
    sem_destroy(m_pResourceAccess);
    delete m_pResourceAccess;
  }
  if (m_pRefMutex != nullptr) {
    pthread_mutex_destroy(m_pRefMutex);
    delete m_pRefMutex;
  }
  delete m_RefRead.m_pCount;
  delete m_RefWrite.m_pCount;
  nullPointers();
}

void rw_mutex_handle::destroyProcessRWMutexOnPosix() {
  NamedSteps steps(*this);
  OS::detachNamedObject(m_strMutexName, m_pMutexShareMemory, steps);
  nullPointers();
}

bool rw_mutex_handle::tryLockMutex(pthread_mutex_t* pMutex) {
  int rc = pthread_mutex_trylock(pMutex);
  if (rc == 0) return true;
  if (rc != EBUSY) printf("[CRITICAL]: unexpected mutex trylock error:%d\n", rc);
  return false;
}

void rw_mutex_handle::lockRdOnPosix() {
  if (!attached()) return;
  lockMutex(m_pRefMutex);
  while (writeFlag() == 1) waitAllowed();
  // A waiting writer is not counted anywhere, so it never holds readers back.
  if (++readCount() == 1) takeResource();
  unlockMutex(m_pRefMutex);
}

// A writer waits until nobody at all is inside; readers that arrive meanwhile
// still get in, which is the intended preference.
void rw_mutex_handle::lockWrOnPosix() {
  if (!attached()) return;
  lockMutex(m_pRefMutex);
  while (readCount() != 0 || writeFlag() != 0) waitAllowed();
  writeFlag() = 1;
  takeResource();
  unlockMutex(m_pRefMutex);
}

// One call serves a reader and the writer: the counts tell which one leaves.
// An unattached handle has nothing to release.
void rw_mutex_handle::unlockOnPosix() {
  if (!attached()) return;
  lockMutex(m_pRefMutex);
  bool readerLeft = false;
  if (readCount() != 0) {
    --readCount();
    readerLeft = true;
  }
  // Other readers are still inside, or this caller held nothing.
  if ((readerLeft && readCount() > 0) || (!readerLeft && writeFlag() != 1)) {
    unlockMutex(m_pRefMutex);
    return;
  }
  // The lock is free: everyone waiting re-checks the counts under the ref mutex.
  readCount() = 0;
  writeFlag() = 0;
  pthread_cond_broadcast(m_pAllowCond);
  sem_post(m_pResourceAccess);
  unlockMutex(m_pRefMutex);
}

rw_mutex_handle* os_rw_mutex_create(RT_MODE mode, const char* strMutexName) {
  return new rw_mutex_handle(mode, strMutexName);
}

void os_rw_mutex_destroy(rw_mutex_handle*& handle) { destroyHandle(handle); }

void os_rw_mutex_lock_rd(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->lockRdOnPosix();
}

void os_rw_mutex_lock_wr(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->lockWrOnPosix();
}

void os_rw_mutex_unlock(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->unlockOnPosix();
}
