// Set-up and locking of pthread mutexes. Every process-shared mutex is robust:
// when its holder is killed at any instruction, the kernel hands the next
// locker EOWNERDEAD, and the helpers here mark it consistent, then either
// retake it or keep it held so the caller can mend what it guards.

#include "OS/internal/RobustMutex.h"

#include <errno.h>
#include <linux/futex.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "OS/internal/Liveness.h"

namespace ostrelled {
namespace internal {

namespace {

// The tag lives in the mutex's spin and elision words, which the C library
// uses only for adaptive and elided mutexes, never for a robust one (every
// shared mutex here is robust); it zeroes them at initialisation. So the block
// keeps its size and layout, and an untagged mutex (0) is usable everywhere.
static_assert(offsetof(pthread_mutex_t, __data.__spins) + 2 == offsetof(pthread_mutex_t, __data.__elision),
              "the tag spans the spin and elision words");
// A named mutex sits at offset 4 of its block, so the structure is addressed
// by bytes: its words are 4-byte aligned, the structure itself is not 8.
constexpr size_t kTagAt = offsetof(pthread_mutex_t, __data.__spins);
constexpr size_t kOwnerWordAt = offsetof(pthread_mutex_t, __data.__lock);
static_assert(kTagAt % 4 == 0 && kOwnerWordAt % 4 == 0, "both words stay 4-byte aligned");
uint32_t* namespaceTag(pthread_mutex_t* mutex) {
  return reinterpret_cast<uint32_t*>(reinterpret_cast<unsigned char*>(mutex) + kTagAt);
}
// The futex word: the owner's thread id and the kernel's bits.
unsigned int futexWord(const pthread_mutex_t* mutex) {
  const auto* word =
      reinterpret_cast<const unsigned int*>(reinterpret_cast<const unsigned char*>(mutex) + kOwnerWordAt);
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}
uint32_t tagOf(const pthread_mutex_t* mutex) {
  return __atomic_load_n(namespaceTag(const_cast<pthread_mutex_t*>(mutex)), __ATOMIC_RELAXED);
}
// The same word marks a recursive mutex of the library's own counting;
// namespace inodes are far above it.
constexpr uint32_t kOwnRecursionTag = 1;
// A priority-inheriting mutex whose creator could not tell its namespace (no
// /proc): usable only where the namespace cannot be told either.
constexpr uint32_t kUnknownNamespaceTag = 2;

uint32_t namespaceTagOfThisProcess() {
  uint32_t mine = static_cast<uint32_t>(ownPidNamespace());
  return mine != 0 ? mine : kUnknownNamespaceTag;
}

}  // namespace

bool usableInThisNamespace(const pthread_mutex_t* mutex) {
  uint32_t tag = tagOf(mutex);
  return tag == 0 || tag == kOwnRecursionTag || tag == namespaceTagOfThisProcess();
}

bool countsOwnRecursion(const pthread_mutex_t* mutex) { return tagOf(mutex) == kOwnRecursionTag; }

bool ownerIdIsMine(const pthread_mutex_t* mutex) {
  return (futexWord(mutex) & FUTEX_TID_MASK) == static_cast<unsigned int>(gettid());
}

bool othersWaitFor(const pthread_mutex_t* mutex) { return (futexWord(mutex) & FUTEX_WAITERS) != 0; }

int initMutex(pthread_mutex_t* mutex, int type, bool prioInherit, bool processShared) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  bool ownRecursion = processShared && type == PTHREAD_MUTEX_RECURSIVE && !prioInherit;
  pthread_mutexattr_settype(&attr, ownRecursion ? PTHREAD_MUTEX_NORMAL : type);
  if (prioInherit) pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
  if (processShared) {
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  }
  int result = pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (result == 0 && prioInherit && processShared) *namespaceTag(mutex) = namespaceTagOfThisProcess();
  if (result == 0 && ownRecursion) *namespaceTag(mutex) = kOwnRecursionTag;
  return result;
}

namespace {

// Marks a mutex whose owner died consistent; false (with its line) when it cannot be.
bool markConsistent(pthread_mutex_t* mutex) {
  if (pthread_mutex_consistent(mutex) == 0) return true;
  puts("mutex lock fixed failed!");
  return false;  // held, but in its inconsistent state
}

}  // namespace

bool repairThenRelock(pthread_mutex_t* mutex, int result) {
  // The relock may find another owner dead (one that took the mutex in
  // between): that one is repaired too, never left inconsistent, since an
  // inconsistent mutex unlocked is unrecoverable for every process.
  while (result == EOWNERDEAD) {
    if (!markConsistent(mutex)) return false;
    // Let a waiter that queued behind the dead owner see a healthy mutex.
    pthread_mutex_unlock(mutex);
    result = pthread_mutex_lock(mutex);
    if (result == 0) return true;
  }
  printf("mutex lock error:%d.\n", result);
  return false;
}

// Unlike repairThenRelock, a repaired mutex stays held: its caller mends what the
// dead holder left before anybody else may look at it.
Locked lockKeepingRepaired(pthread_mutex_t* mutex) {
  int result = pthread_mutex_lock(mutex);
  if (__builtin_expect(result == 0, 1)) return Locked::Held;
  if (result == EOWNERDEAD) return markConsistent(mutex) ? Locked::Repaired : Locked::Failed;
  repairThenRelock(mutex, result);
  return Locked::Failed;
}

// Busy and timed out are the ordinary "no"; anything else is worth the lock's error line.
bool heldKeepingRepaired(pthread_mutex_t* mutex, int result) {
  if (__builtin_expect(result == 0, 1)) return true;
  if (result == EOWNERDEAD) return markConsistent(mutex);
  if (result != EBUSY && result != ETIMEDOUT) printf("mutex lock error:%d.\n", result);
  return false;
}

}  // namespace internal
}  // namespace ostrelled
