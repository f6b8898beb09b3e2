// The wake-up kinds: a futex condition, a POSIX semaphore, a System V set.
// They hold no state beyond their own word: what they wake for is guarded by
// the caller's robust mutex, never by them. A waiter that must look around (a
// dead holder to sweep) sleeps at most one slice, so one whose waker was
// killed re-checks instead of sleeping on.

#include "OS/internal/SyncPrimitives.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/ShareMemoryHandle.h"
#include "OS/internal/SysVSemaphore.h"

namespace ostrelled {
namespace internal {
namespace {

// Bit 0 of a condition's word: somebody may be asleep on it. The sequence
// counts in steps of 2 above it.
constexpr uint32_t kWaitersBit = 1;

long futex(uint32_t* word, int op, uint32_t value, const timespec* deadline) {
  return syscall(SYS_futex, word, op, value, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

// How a sleep of a flag loop ends once the mutex is back (or not).
Slept afterRelock(Locked locked, Wakeup& wakeup) {
  if (locked == Locked::Failed) return Slept::LockLost;
  // The dead holder may have raised the flag without waking anybody.
  if (locked == Locked::Repaired) wakeup.wakeAll();
  return Slept::Again;
}

}  // namespace

Deadline sliceDeadline(const Deadline& deadline) { return deadline.earlier(Deadline::after(kSweepSlice)); }

FutexCondition::FutexCondition(uint32_t* word, bool processShared)
    : m_pWord(word),
      m_intWaitOp(processShared ? FUTEX_WAIT_BITSET : FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG),
      m_intWakeOp(processShared ? FUTEX_WAKE : FUTEX_WAKE | FUTEX_PRIVATE_FLAG) {}

Locked FutexCondition::wait(pthread_mutex_t* mutex, const Deadline& deadline) {
  // Marked under the mutex: a broadcast after the unlock changes the word, so
  // the sleep below returns at once instead of missing it.
  uint32_t seen = __atomic_or_fetch(m_pWord, kWaitersBit, __ATOMIC_SEQ_CST);
  pthread_mutex_unlock(mutex);
  // EINTR, EAGAIN and ETIMEDOUT all send the caller back to its flag loop.
  futex(m_pWord, m_intWaitOp, seen, deadline.timeOrNull());
  return lockKeepingRepaired(mutex);
}

void FutexCondition::broadcast() {
  uint32_t word = __atomic_load_n(m_pWord, __ATOMIC_RELAXED);
  // Nobody marked the word since the last broadcast: nobody sleeps on it.
  if ((word & kWaitersBit) == 0) return;
  __atomic_store_n(m_pWord, (word + 2) & ~kWaitersBit, __ATOMIC_SEQ_CST);
  futex(m_pWord, m_intWakeOp, INT32_MAX, nullptr);
}

// The spans below a millisecond are not worth a sleep: the wait answers then.
Slept FutexCondition::sleep(pthread_mutex_t* mutex, const Deadline& deadline) {
  Slept slept = afterRelock(wait(mutex, deadline), *this);
  if (slept != Slept::Again) return slept;
  return deadline.left() < std::chrono::milliseconds(1) ? Slept::Leave : Slept::Again;
}

Slept SemaphoreKind::sleep(pthread_mutex_t* mutex, const Deadline& deadline) {
  if (deadline.passed()) return Slept::Leave;
  Deadline slice = sliceDeadline(deadline);
  pthread_mutex_unlock(mutex);
  bool taken = take(slice);
  int error = errno;
  Slept slept = afterRelock(lockKeepingRepaired(mutex), *this);
  // A slice that ran out goes round again; anything else is a broken primitive.
  return taken || error == ETIMEDOUT || error == EAGAIN ? slept : slept == Slept::Again ? Slept::Leave : slept;
}

bool PosixSemaphore::take(const Deadline& deadline) {
  // A unit that is there is taken without sem_wait's cancellation check,
  // which costs as much as the take itself.
  if (sem_trywait(m_pSem) == 0) return true;
  if (deadline.isNever()) return retryOnEintr([&] { return sem_wait(m_pSem); }) == 0;
  // Absolute, so a retry after a signal waits only for what is left.
  return retryOnEintr([&] { return sem_clockwait(m_pSem, CLOCK_MONOTONIC, &deadline.time()); }) == 0;
}

int PosixSemaphore::value() const {
  int value = -1;
  if (sem_getvalue(m_pSem, &value) != 0) return -1;
  // Linux reports no waiters as a negative value, but be sure of ">= 0".
  return value < 0 ? 0 : value;
}

bool SysVSemaphore::take(const Deadline& deadline) {
  if (deadline.isNever()) return SysV::waitSem(m_strPrefix, *m_pId, *m_pUndoTrack);
  return SysV::waitSemUntil(m_strPrefix, *m_pId, deadline, *m_pUndoTrack);
}

void SysVSemaphore::give() { SysV::postSem(m_strPrefix, *m_pId, *m_pUndoTrack); }
int SysVSemaphore::value() const { return SysV::getSemVal(*m_pId); }
void SysVSemaphore::clear() { SysV::setSemVal(*m_pId, 0); }
void SysVSemaphore::destroy() { SysV::destroySem(*m_pId); }

sharememory_handle* attachSameKind(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  sharememory_handle* block = attachNamedObject(name, blockSize, steps);
  // The detach undoes only this attach: a block that another kind holds keeps
  // its count, and one that nobody held goes away again.
  if (block != nullptr && block->sharememory_get_size() != blockSize) detachNamedObject(name, block, steps);
  return block;
}

}  // namespace internal
}  // namespace ostrelled
