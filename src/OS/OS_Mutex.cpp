// Mutexes, anonymous and named. Kill rule: a holder killed at any instruction
// leaves a robust mutex that its next locker repairs and takes (EOWNERDEAD),
// so no waiter waits for the dead. A named block's attach count is written only
// under the request lock; the mutex's own bytes only by the C library and the
// kernel. A named recursive mutex's depth lives in this process, never in the block.

#include "OS/internal/MutexHandle.h"

#include <errno.h>
#include <stdio.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;
using internal::Recursion;

namespace {

// Decremented by every destroy and incremented nowhere; nothing reads it. Kept as it is.
std::atomic<long> gMutexCnt{0};

// The steps of a named mutex within the shared attach and detach procedure.
class MutexSteps final : public internal::NamedObjectSteps {
 public:
  MutexSteps(mutex_handle& handle, unsigned int flags) : m_handle(handle), m_flags(flags) {}
  void bind(unsigned char* block) override {
    m_handle.m_pMutex = reinterpret_cast<pthread_mutex_t*>(block + internal::MutexBlock::kMutexAt);
  }
  void initialise() override {
    internal::initMutex(m_handle.m_pMutex, recursiveType(m_flags), (m_flags & MUTEX_PRIO_INHERIT) != 0, true);
  }
  void finalise() override { pthread_mutex_destroy(m_handle.m_pMutex); }
  // Priority inheritance cannot cross PID namespaces: refused, not aborted later.
  bool admit() override {
    if (internal::usableInThisNamespace(m_handle.m_pMutex)) return true;
    errno = ENOTSUP;
    return false;
  }

  static int recursiveType(unsigned int flags) {
    return (flags & MUTEX_RECURSIVE) != 0 ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL;
  }

 private:
  mutex_handle& m_handle;
  unsigned int m_flags;
};

// A named recursive mutex is a normal robust one whose recursion this process
// counts: the C library would take a thread of another PID namespace with the
// owner's thread id for the owner. The count is kept per name, so that every
// handle of the process shares it, and changed only by the thread that holds
// the mutex. A thread counts as the holder when it took the mutex (a key of
// this process's incarnation and the thread) and the mutex still records its
// id, which the kernel clears when a holder dies.
std::atomic<unsigned long> gIncarnation{0};
std::mutex gRecursionsLock;
Recursion* gRecursions = nullptr;  // a list, so that sharing one allocates nothing

unsigned long threadKey() {
  return static_cast<unsigned long>(pthread_self()) ^ (gIncarnation.load(std::memory_order_relaxed) << 48);
}

}  // namespace

namespace ostrelled {
namespace internal {

struct Recursion {
  std::string name;
  Recursion* next = nullptr;
  int handles = 0;
  std::atomic<unsigned long> owner{0};
  unsigned int depth = 0;

  bool heldHere(const pthread_mutex_t* mutex) const {
    return owner.load(std::memory_order_relaxed) == threadKey() && internal::ownerIdIsMine(mutex);
  }
  void took() {
    owner.store(threadKey(), std::memory_order_relaxed);
    depth = 1;
  }
  // False while the holder keeps the mutex (an inner unlock).
  bool release() {
    if (owner.load(std::memory_order_relaxed) != threadKey() || depth == 0) return true;
    if (--depth > 0) return false;
    owner.store(0, std::memory_order_relaxed);
    return true;
  }
};

}  // namespace internal
}  // namespace ostrelled

namespace {

// The count of this name's mutex, shared with the process's other handles of
// it; `spare`, made before the attach, becomes it when there is none yet.
Recursion* shareRecursion(std::unique_ptr<Recursion>& spare) {
  static const bool registered = (pthread_atfork([] { gRecursionsLock.lock(); }, [] { gRecursionsLock.unlock(); },
                                                 [] {
                                                   ++gIncarnation;  // a forked child holds nothing
                                                   gRecursionsLock.unlock();
                                                 }),
                                  true);
  (void)registered;
  std::lock_guard<std::mutex> hold(gRecursionsLock);
  Recursion* shared = gRecursions;
  while (shared != nullptr && shared->name != spare->name) shared = shared->next;
  if (shared == nullptr) {
    shared = spare.release();
    shared->next = gRecursions;
    gRecursions = shared;
  }
  ++shared->handles;
  return shared;
}

void releaseRecursion(Recursion*& recursion) {
  std::lock_guard<std::mutex> hold(gRecursionsLock);
  if (--recursion->handles == 0) {
    Recursion** link = &gRecursions;
    while (*link != recursion) link = &(*link)->next;
    *link = recursion->next;
    delete recursion;
  }
  recursion = nullptr;
}

}  // namespace

mutex_handle::mutex_handle(unsigned int uintFlag, RT_MODE mode, const char* strMutexName)
    : m_pMutexShareMemory(nullptr), m_pMutex(nullptr), m_RtMode(internal::storedMode(mode)) {
  if (strMutexName != nullptr) {
    // An empty name is still a name: the manager ignores it and the handle stays unattached.
    m_strMutexName = strMutexName;
    // Too long for the request area: the handle stays unattached.
    if (m_strMutexName.size() > internal::kMaxObjectNameLength) return;
    // Made before the attach: once attached, nothing may fail to allocate.
    auto recursion = std::make_unique<Recursion>();
    recursion->name = m_strMutexName;
    MutexSteps steps(*this, uintFlag);
    m_pMutexShareMemory = internal::attachNamedObject(m_strMutexName, internal::MutexBlock::kSize, steps);
    // bind ran only for a block that opened; without one nothing may point anywhere.
    if (m_pMutexShareMemory == nullptr) m_pMutex = nullptr;
    if (m_pMutex != nullptr && internal::countsOwnRecursion(m_pMutex)) {
      m_pRecursion = shareRecursion(recursion);
      std::swap(m_pCounted, m_pMutex);
    }
    return;
  }
  internal::initMutex(&m_anonymous.mutex, MutexSteps::recursiveType(uintFlag), (uintFlag & MUTEX_PRIO_INHERIT) != 0,
                      false);
  m_pMutex = &m_anonymous.mutex;
}

mutex_handle::~mutex_handle() {
  if (m_pRecursion != nullptr) {
    releaseRecursion(m_pRecursion);
    std::swap(m_pCounted, m_pMutex);
  }
  if (m_pMutexShareMemory != nullptr) {
    // Only the machine's last handle destroys the mutex; others just let go of the block.
    MutexSteps steps(*this, 0);
    internal::detachNamedObject(m_strMutexName, m_pMutexShareMemory, steps);
  } else if (m_pMutex != nullptr) {
    pthread_mutex_destroy(m_pMutex);
  }
  m_pMutex = nullptr;
}

mutex_handle* os_mutex_create(unsigned int uintFlag, RT_MODE mode, const char* strMutexName) {
  return new mutex_handle(uintFlag, mode, strMutexName);
}

void os_mutex_destroy(mutex_handle*& handle) {
  if (handle != nullptr) --gMutexCnt;
  internal::destroyHandle(handle);
}

namespace {

// A named recursive mutex, out of line: the other kinds' paths stay as they were.
__attribute__((noinline)) void lockCounting(mutex_handle* handle) {
  Recursion* recursion = handle->m_pRecursion;
  if (recursion->heldHere(handle->m_pCounted)) {
    ++recursion->depth;
    return;
  }
  int result = pthread_mutex_lock(handle->m_pCounted);
  if (result == 0 || internal::repairThenRelock(handle->m_pCounted, result)) recursion->took();
}

__attribute__((noinline)) void unlockCounting(mutex_handle* handle) {
  if (handle->m_pRecursion->release()) pthread_mutex_unlock(handle->m_pCounted);
}

// A try or a timed lock of mutex, `take` its system call. An inner one of a
// recursion-counted mutex only counts.
template <class Take>
bool takeMutex(mutex_handle* handle, Take take) {
  if (__builtin_expect(handle->m_pMutex != nullptr, 1))
    return internal::heldKeepingRepaired(handle->m_pMutex, take(handle->m_pMutex));
  Recursion* recursion = handle->m_pRecursion;
  if (recursion == nullptr) return false;  // unattached
  if (recursion->heldHere(handle->m_pCounted)) {
    ++recursion->depth;
    return true;
  }
  bool held = internal::heldKeepingRepaired(handle->m_pCounted, take(handle->m_pCounted));
  if (held) recursion->took();
  return held;
}

}  // namespace

void os_mutex_lock(mutex_handle* handle) {
  if (handle == nullptr) return;
  if (__builtin_expect(handle->m_pMutex == nullptr, 0)) {
    if (handle->m_pRecursion != nullptr) lockCounting(handle);
    return;
  }
  // The uncontended path stays one call deep; recovery and errors go out of line.
  int result = internal::inMode(handle->m_RtMode, [handle] { return pthread_mutex_lock(handle->m_pMutex); });
  if (__builtin_expect(result != 0, 0)) internal::repairThenRelock(handle->m_pMutex, result);
}

// The result is ignored: unlocking a mutex this thread does not hold is the caller's error.
void os_mutex_unlock(mutex_handle* handle) {
  if (handle == nullptr) return;
  if (__builtin_expect(handle->m_pMutex == nullptr, 0)) {
    if (handle->m_pRecursion != nullptr) unlockCounting(handle);
    return;
  }
  pthread_mutex_unlock(handle->m_pMutex);
}

bool os_mutex_trylock(mutex_handle* handle) {
  return handle != nullptr && takeMutex(handle, [](pthread_mutex_t* mutex) { return pthread_mutex_trylock(mutex); });
}

// CLOCK_MONOTONIC also for priority inheritance: the C library passes the
// clock to the kernel's FUTEX_LOCK_PI2 (Linux 5.14 on).
bool os_mutex_lock_timeout(mutex_handle* handle, timespec deadline) {
  if (handle == nullptr) return false;
  // Made a Deadline, so normalised: out of range, the time would be refused
  // as EINVAL instead of meaning its time.
  const internal::Deadline until = internal::Deadline::at(deadline);
  return takeMutex(handle, [&](pthread_mutex_t* mutex) { return internal::lockBefore(mutex, until); });
}

bool os_mutex_is_attached(const mutex_handle* handle) {
  return handle != nullptr && (handle->m_pMutex != nullptr || handle->m_pCounted != nullptr);
}
