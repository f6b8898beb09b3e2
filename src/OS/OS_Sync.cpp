// The sync manager: creates and destroys the blocks of named objects on request,
// and owns the protocol's names for its lifetime. Kill rule: the request area
// is read only after the client posted it under the request lock; a manager
// killed at any instruction leaves names a successor replaces and clients that
// fail their request within a millisecond (its registry token is checked).

#include <ostrelled/OS_Sync.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include <ostrelled/OS_Thread.h>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/ManagedAccess.h"
#include "OS/internal/MutexHandle.h"
#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/ShareMemoryHandle.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;

using namespace internal::SyncNames;
using internal::retryOnEintr;

namespace {

// Named objects need well under a page; a larger size word is garbage in the
// request area and would have the manager populate (and lock) that much memory.
constexpr unsigned int kMaxManagedBlockSize = 16u * 1024u * 1024u;

// Given to the manager's group, if it has one, before any client can open it.
sem_t* createSemaphore(const char* name, unsigned int value) {
  sem_t* sem = sem_open(name, O_CREAT | O_EXCL, internal::managedCreateMode(0755), value);
  if (sem != SEM_FAILED && !internal::applyManagedAccess(name)) {
    internal::ErrnoGuard keep;
    sem_close(sem);
    sem_unlink(name);
    sem = SEM_FAILED;
  }
  if (sem == SEM_FAILED) {
    printf("Error:can not create %s, errno = %d!\n", name, errno);
    return nullptr;
  }
  return sem;
}

void releaseBlock(sharememory_handle*& block) {
  os_sharememory_close(block, true);
  os_sharememory_destroy(block);
}

// A name read from the request area: at most the longest object name and
// terminated within it, or empty when the area holds anything else.
std::string requestName(const unsigned char* at) {
  const char* text = reinterpret_cast<const char*>(at);
  size_t length = strnlen(text, internal::kMaxObjectNameLength + 1);
  return length > internal::kMaxObjectNameLength ? std::string() : std::string(text, length);
}

}  // namespace

class os_sync_manager_handle {
 public:
  os_sync_manager_handle()
      : m_bRequestExitThread(false),
        m_bThreadActive(false),
        m_hThreadHandle(),
        m_pMutexManagerEnableSemaphore(nullptr),
        m_pMutexManagerShareMemory(nullptr),
        m_pRequestLock(nullptr),
        m_bServing(false) {}
  ~os_sync_manager_handle() = default;

  bool start();
  void stop();
  sharememory_handle* createMemory(const char* strMemoryName, unsigned int uintMemorySize);
  void destroyMemory(const char* strMemoryName);
  static LPVOID manager_thread(void* lpData);
  // Waits, at most `patience`, until the thread has made its two semaphores.
  void waitUntilServing(internal::Span patience) const;
  // Whether a client's record is the one this manager made, for a client of
  // this very process (a forked child has another token).
  bool madeRecord(const internal::RequestLockRecord* rec) const;
  // One create or destroy, as its thread serves it; called under gMapLock.
  void serveRequest(unsigned int method, const std::string& name, unsigned int size);

 private:
  void serve(sem_t* request, sem_t* finish);
  void answer(unsigned char* area);
  void serveOne(unsigned char* area);
  bool createRequestLock();
  internal::RequestLockRecord* record() const;

  std::atomic<bool> m_bRequestExitThread;
  bool m_bThreadActive;
  pthread_t m_hThreadHandle;
  sem_t* m_pMutexManagerEnableSemaphore;
  sharememory_handle* m_pMutexManagerShareMemory;
  std::map<std::string, sharememory_handle*> m_ShareMemoryMap;
  sharememory_handle* m_pRequestLock;  // who holds the request lock; see internal/SyncProtocol.h
  std::atomic<bool> m_bServing;
};

namespace {
os_sync_manager_handle* os_sync_manager = nullptr;
// Guards every manager's map, and the pointer above for the clients of the
// manager's own process, which are served without its thread.
std::mutex gMapLock;

// A forked child has no manager thread, and may have copied the lock taken:
// it gets a free lock and no manager (its copy is left as it is; the parent's
// thread serves the names). Arranged before anybody takes the lock.
void renewMapLockInChildren() {
  static const bool registered = (pthread_atfork(nullptr, nullptr,
                                                 [] {
                                                   new (&gMapLock) std::mutex;
                                                   os_sync_manager = nullptr;
                                                 }),
                                  true);
  (void)registered;
}
std::atomic<void (*)()> gHeartbeat{nullptr};

bool nameStillLinked(const char* strMemoryName) {
  int fd = shm_open(strMemoryName, O_RDONLY, 0);
  if (fd == -1) return errno != ENOENT;
  close(fd);
  return true;
}
}  // namespace

bool os_sync_manager_handle::start() {
  // Created, not opened: an area left by a dead manager is reused in place and cleared.
  m_pMutexManagerShareMemory = internal::createManagedShareMemory(kRequestArea, internal::kRequestAreaSize);
  if (m_pMutexManagerShareMemory == nullptr) return false;
  // Without the registry nobody's death is told apart from a live process that
  // is slow: the protocol still works, with its timeouts.
  internal::createRegistry(0777);
  // A manager that died left its names behind; they are replaced, not reused.
  sem_unlink(kEnabledSemaphore);
  m_pMutexManagerEnableSemaphore = createSemaphore(kEnabledSemaphore, 1);
  if (m_pMutexManagerEnableSemaphore != nullptr) {
    m_bRequestExitThread = false;
    OS::Thread::create(&m_hThreadHandle, manager_thread, this, USE_DEFAULT, 0);
    m_bThreadActive = true;
    return true;
  }
  releaseBlock(m_pMutexManagerShareMemory);
  // A semaphore unlink of the area's name: it finds nothing. Kept as it is.
  sem_unlink(kRequestArea);
  return false;
}

// A new object every start, never one cleared in place: clients of a manager
// that died may still hold the old record's mutex.
bool os_sync_manager_handle::createRequestLock() {
  // Made whole under a name of its own, then moved into place in one step: a
  // client never opens a record whose mutex is not yet initialised, nor finds
  // the name missing while the old record is replaced.
  char draft[64];
  snprintf(draft, sizeof draft, "%s.%d", kRequestLock, static_cast<int>(getpid()));
  sharememory_handle* made = internal::createManagedShareMemory(draft, sizeof(internal::RequestLockRecord));
  if (made == nullptr) return false;
  auto* rec = static_cast<internal::RequestLockRecord*>(os_sharememory_get_buffer(made));
  internal::initMutex(&rec->mutex, PTHREAD_MUTEX_NORMAL, false, true);
  rec->manager = static_cast<unsigned int>(internal::ownPid());
  // The manager's identity for its lifetime: clients and a successor judge by it.
  internal::ProcessRegistry* registry = internal::currentRegistry();
  rec->managerToken = registry != nullptr ? registry->own() : internal::kNoProcess;
  bool placed = rename(internal::shmPath(draft).c_str(), internal::shmPath(kRequestLock).c_str()) == 0;
  os_sharememory_close(made, !placed);  // unlinks the draft only when it stayed one
  os_sharememory_destroy(made);
  m_pRequestLock = placed ? os_sharememory_open(kRequestLock, USE_DEFAULT) : nullptr;
  return m_pRequestLock != nullptr;
}

internal::RequestLockRecord* os_sync_manager_handle::record() const {
  if (m_pRequestLock == nullptr) return nullptr;
  return static_cast<internal::RequestLockRecord*>(os_sharememory_get_buffer(m_pRequestLock));
}

void os_sync_manager_handle::stop() {
  m_bRequestExitThread = true;
  if (m_bThreadActive) {
    OS::Thread::join(m_hThreadHandle, USE_DEFAULT);
    m_bThreadActive = false;
  }
  if (m_pMutexManagerEnableSemaphore != nullptr) {
    sem_close(m_pMutexManagerEnableSemaphore);
    m_pMutexManagerEnableSemaphore = nullptr;
    sem_unlink(kEnabledSemaphore);
  }
  if (m_pRequestLock != nullptr) releaseBlock(m_pRequestLock);
  if (m_pMutexManagerShareMemory != nullptr) {
    releaseBlock(m_pMutexManagerShareMemory);
    sem_unlink(kRequestArea);  // as in start: finds nothing, kept
    internal::removeRegistry();
  }
  // Every managed name goes, also while processes use it; they keep their mappings.
  std::lock_guard<std::mutex> hold(gMapLock);
  m_bServing = false;
  for (auto& entry : m_ShareMemoryMap) releaseBlock(entry.second);
  m_ShareMemoryMap.clear();
}

sharememory_handle* os_sync_manager_handle::createMemory(const char* strMemoryName, unsigned int uintMemorySize) {
  auto found = m_ShareMemoryMap.find(strMemoryName);
  if (found != m_ShareMemoryMap.end()) {
    // An existing block is handed out as it is: never resized, never cleared.
    if (nameStillLinked(strMemoryName)) return found->second;
    // Its name was unlinked behind the manager's back (a client that took a
    // late reply as its own): forget the stale block so the name works again.
    os_sharememory_close(found->second, false);
    os_sharememory_destroy(found->second);
    m_ShareMemoryMap.erase(found);
  }
  // The manager never reads a block: it makes, sizes and clears it without
  // mapping it, which spares every attach a mapping and its removal.
  sharememory_handle* block = internal::createUnmappedShareMemory(strMemoryName, uintMemorySize, USE_DEFAULT);
  if (block == nullptr) return nullptr;
  try {
    m_ShareMemoryMap.emplace(strMemoryName, block);
  } catch (...) {
    releaseBlock(block);  // a block the map cannot hold would never be removed
    throw;
  }
  return block;
}

// Processes still attached keep their mappings; only the name goes.
void os_sync_manager_handle::destroyMemory(const char* strMemoryName) {
  auto found = m_ShareMemoryMap.find(strMemoryName);
  if (found == m_ShareMemoryMap.end()) return;
  releaseBlock(found->second);
  m_ShareMemoryMap.erase(found);
}

LPVOID os_sync_manager_handle::manager_thread(void* lpData) {
  auto* self = static_cast<os_sync_manager_handle*>(lpData);
  sem_unlink(kFinishSemaphore);
  sem_unlink(kRequestSemaphore);
  sem_t* request = createSemaphore(kRequestSemaphore, 0);
  sem_t* finish = createSemaphore(kFinishSemaphore, 0);
  // The record comes last: clients take a new record for a new manager and
  // reopen every name, which by then are all this manager's. Without the
  // record clients still work, with the enabled semaphore alone.
  self->createRequestLock();
  self->m_bServing = true;
  // A failed semaphore does not stop the thread: it idles until asked to leave.
  self->serve(request, finish);
  if (request != nullptr) sem_close(request);
  if (finish != nullptr) sem_close(finish);
  sem_unlink(kFinishSemaphore);
  sem_unlink(kRequestSemaphore);
  return nullptr;
}

void os_sync_manager_handle::serve(sem_t* request, sem_t* finish) {
  auto* area = static_cast<unsigned char*>(os_sharememory_get_buffer(m_pMutexManagerShareMemory));
  if (area == nullptr) return;
  bool busy = false;
  internal::RequestSpin learnt;
  while (!m_bRequestExitThread) {
    if (request == nullptr || finish == nullptr) {
      // Nothing can arrive; still leave within one request period when asked.
      internal::sleepUntil(internal::Deadline::after(internal::kRequestTimeout));
      continue;
    }
    // Proof of life only from a loop that can serve.
    if (void (*beat)() = gHeartbeat.load(std::memory_order_relaxed)) beat();
    const internal::Deadline deadline = internal::Deadline::after(internal::kRequestTimeout);
    // Requests come in runs (an attach, then soon the next one): right after
    // serving one, the next is tried for a moment before the thread sleeps,
    // unless such tries have lately run out (see RequestSpin).
    int taken = busy ? learnt.take(request, deadline) : internal::takeSoon(request, deadline, internal::Span::zero());
    if (taken != 0) {
      busy = false;
      // Idle: a client that died holding the request lock is released here
      // even when nobody else waits for it.
      if (record() != nullptr) internal::releaseDeadHolder(record(), m_pMutexManagerEnableSemaphore);
      continue;
    }
    answer(area);
    // Exactly one answer per request, also for the ones ignored.
    sem_post(finish);
    busy = true;
  }
}

// The client wrote the record before its post; the semaphore orders the bytes
// for us. The request's number is read first and stored as answered last, so
// that its client can tell this answer from a late one to an earlier request.
void os_sync_manager_handle::answer(unsigned char* area) {
  internal::RequestLockRecord* rec = record();
  unsigned int number = rec != nullptr ? __atomic_load_n(&rec->posted, __ATOMIC_ACQUIRE) : 0;
  {
    std::lock_guard<std::mutex> hold(gMapLock);
    serveOne(area);
  }
  if (rec != nullptr) __atomic_store_n(&rec->answered, number, __ATOMIC_RELEASE);
}

// One request, as the area holds it.
void os_sync_manager_handle::serveOne(unsigned char* area) {
  unsigned int method;
  memcpy(&method, area + internal::kRequestMethodOffset, sizeof method);
  unsigned int size = 0;
  if (method == internal::MUTEX_CREATE_METHOD) memcpy(&size, area + internal::kCreateSizeOffset, sizeof size);
  size_t nameAt = method == internal::MUTEX_CREATE_METHOD ? internal::kCreateNameOffset : internal::kDestroyNameOffset;
  try {
    serveRequest(method, requestName(area + nameAt), size);
  } catch (const std::bad_alloc&) {
    // The request is left undone (the client finds no block) and answered
    // all the same: the manager serves on.
  }
}

void os_sync_manager_handle::serveRequest(unsigned int method, const std::string& name, unsigned int size) {
  if (method == internal::MUTEX_CREATE_METHOD && size != 0 && size <= kMaxManagedBlockSize && !name.empty())
    createMemory(name.c_str(), size);
  else if (method == internal::MUTEX_DESTROY_METHOD && !name.empty())
    destroyMemory(name.c_str());
}

bool os_sync_manager_handle::madeRecord(const internal::RequestLockRecord* rec) const {
  const internal::RequestLockRecord* mine = m_bServing ? record() : nullptr;
  internal::ProcessRegistry* registry = internal::latestRegistry();
  return mine != nullptr && rec != nullptr && registry != nullptr && rec->managerToken != internal::kNoProcess &&
         rec->managerToken == mine->managerToken && rec->manager == mine->manager &&
         rec->managerToken == registry->own();
}

void os_sync_manager_handle::waitUntilServing(internal::Span patience) const {
  internal::pollUntil(internal::Deadline::after(patience), std::chrono::milliseconds(1),
                      [this] { return m_bServing.load(); });
}

namespace ostrelled {
namespace internal {
void setServingHeartbeat(void (*beat)()) { gHeartbeat = beat; }

// A client of the manager's own process is served by the calling thread: a
// hand-over to the manager's thread and back costs more than the request,
// and while that thread waits for the next one, every unmapping in the
// process would have to interrupt its processor. The caller holds the
// machine's request lock, as for any request.
bool serveInProcess(const RequestLockRecord* rec, unsigned int method, const char* name, unsigned int size) {
  renewMapLockInChildren();
  std::lock_guard<std::mutex> hold(gMapLock);
  if (os_sync_manager == nullptr || !os_sync_manager->madeRecord(rec)) return false;
  try {
    os_sync_manager->serveRequest(method, name, size);
  } catch (const std::bad_alloc&) {
    // Left undone, as the thread leaves it: the client finds no block.
  }
  return true;
}
}  // namespace internal
}  // namespace ostrelled

bool os_sync_environment_initialize(bool bAsClient) {
  if (bAsClient) {
    internal::CSyncClient client;
    bool reachable = client.create();
    client.destroy();
    return reachable;
  }
  // Any earlier manager of this process is left running on purpose: called once.
  renewMapLockInChildren();
  auto* manager = new os_sync_manager_handle();
  if (!manager->start()) {
    internal::destroyHandle(manager);
    std::lock_guard<std::mutex> hold(gMapLock);
    os_sync_manager = nullptr;
    return false;
  }
  {
    std::lock_guard<std::mutex> hold(gMapLock);
    os_sync_manager = manager;
  }
  // Named objects created right after this call must find the request and
  // finish semaphores, which the thread makes once it runs.
  manager->waitUntilServing(std::chrono::seconds(1));
  return true;
}

bool os_sync_environment_ping(unsigned int uintMilliseconds) {
  const internal::Deadline deadline = internal::Deadline::after(std::chrono::milliseconds(uintMilliseconds));
  return internal::probeManager(deadline, &deadline).state == internal::ManagerState::Serving;
}

void os_sync_environment_uninitialize() {
  os_sync_manager_handle* manager = nullptr;
  {
    std::lock_guard<std::mutex> hold(gMapLock);
    std::swap(manager, os_sync_manager);
  }
  if (manager == nullptr) return;
  manager->stop();
  internal::destroyHandle(manager);
}
