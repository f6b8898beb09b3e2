#ifndef OSTRELLED_SRC_OS_INTERNAL_SYNCPRIMITIVES_H
#define OSTRELLED_SRC_OS_INTERNAL_SYNCPRIMITIVES_H

// The wake-up classes (futex condition, POSIX and System V semaphore), one per kind;
// used by the event, semaphore and reader/writer mutex sources.

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <time.h>

#include <string>

#include "OS/internal/Deadline.h"
#include "OS/internal/MutexHandle.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/RobustMutex.h"

namespace ostrelled {
namespace internal {

// How one sleep of a flag loop ended.
enum class Slept {
  Again,    // look at the flag again
  Leave,    // time is up or the primitive failed: answer with the flag as it is
  LockLost  // the mutex could not be retaken: the flags must not be touched
};

// A blocked waiter that must look around now and then (to sweep dead holders,
// or to notice a wake-up that a dying process swallowed) sleeps at most this long.
constexpr Span kSweepSlice = std::chrono::milliseconds(250);

// The earlier of the caller's deadline and one sweep slice from now.
Deadline sliceDeadline(const Deadline& deadline);

// What an event sleeps on between looks at its flag, which its mutex guards.
class Wakeup {
 public:
  virtual ~Wakeup() = default;
  // Called holding `mutex` and returns holding it again, unless LockLost.
  // deadline: never() to sleep until woken.
  virtual Slept sleep(pthread_mutex_t* mutex, const Deadline& deadline) = 0;
  // The flag was raised, or a holder of the mutex died: wake the sleepers.
  virtual void wakeAll() = 0;
  // A waiter of a manual-reset event hands its wake-up on to the next sleeper.
  virtual void passOn() {}
  // The flag was lowered: drop wake-ups that no longer mean anything.
  virtual void clear() {}
  // Last user on the machine (or of the process): release the primitive.
  virtual void destroy() {}
};

// A condition variable of the library's own making: a 32-bit sequence word
// that waiters sleep on with FUTEX_WAIT_BITSET on an absolute CLOCK_MONOTONIC
// deadline. All-zero is a valid state, so a manager-zeroed block needs no
// initialisation; a waiter that dies leaves nothing behind (at worst the
// waiters bit, which costs the next broadcast one needless system call).
class FutexCondition final : public Wakeup {
 public:
  FutexCondition(uint32_t* word, bool processShared);
  // Unlocks, sleeps until a broadcast or the deadline, and relocks, repairing a
  // robust mutex whose holder died. Tells how the relock went.
  Locked wait(pthread_mutex_t* mutex, const Deadline& deadline);
  // Wakes every waiter. Called with the mutex held, so that a waiter that has
  // not yet marked the word cannot be between its look at the flag and its sleep.
  void broadcast();

  Slept sleep(pthread_mutex_t* mutex, const Deadline& deadline) override;
  void wakeAll() override { broadcast(); }

 private:
  uint32_t* m_pWord;
  int m_intWaitOp, m_intWakeOp;  // private futex operations for an anonymous object
};

// A counting semaphore of either kind, also usable as an event's wake-up
// (then it sleeps outside the event's mutex, in slices, so that a wake-up
// taken by a process that died before it passed it on is not waited for forever).
class SemaphoreKind : public Wakeup {
 public:
  // Takes one unit; deadline never(): until one comes; a deadline in the
  // past tries once. Signals never shorten the wait.
  virtual bool take(const Deadline& deadline) = 0;
  virtual void give() = 0;
  // Units available now, or -1 with errno set.
  virtual int value() const = 0;

  Slept sleep(pthread_mutex_t* mutex, const Deadline& deadline) final;
  void wakeAll() final { give(); }
  void passOn() final { give(); }
};

// A sem_t, on the heap side of a handle or in a named block. Timed waits count
// on CLOCK_MONOTONIC (sem_clockwait), so wall-clock steps move no deadline.
class PosixSemaphore final : public SemaphoreKind {
 public:
  explicit PosixSemaphore(sem_t* sem) : m_pSem(sem) {}
  bool take(const Deadline& deadline) override;
  void give() override { sem_post(m_pSem); }
  int value() const override;
  // A reset takes one pending unit without blocking; a waiter woken by
  // another one finds the flag clear and sleeps again.
  void clear() override { sem_trywait(m_pSem); }
  void destroy() override { sem_destroy(m_pSem); }

 private:
  sem_t* m_pSem;
};

// A System V set of one semaphore whose id sits in a named block. Its failure
// lines carry the owner's prefix ("semaphore" or "event").
class SysVSemaphore final : public SemaphoreKind {
 public:
  SysVSemaphore(const int* id, const char* prefix, const bool* undoTrack)
      : m_pId(id), m_strPrefix(prefix), m_pUndoTrack(undoTrack) {}
  bool take(const Deadline& deadline) override;
  void give() override;
  int value() const override;
  void clear() override;
  void destroy() override;

 private:
  const int* m_pId;
  const char* m_strPrefix;
  const bool* m_pUndoTrack;  // the owner's SEM_UNDO choice, read at every operation
};

// attachNamedObject for objects whose block size tells their kind apart (the
// semaphore and the event): a block of another size was made by another kind
// under the same name, and reading it with this kind's layout would act on
// foreign state (even another program's System V set), so the handle detaches
// again at once and stays unattached.
sharememory_handle* attachSameKind(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps);

}  // namespace internal
}  // namespace ostrelled

#endif
