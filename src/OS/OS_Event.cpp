#include <ostrelled/OS_Event.h>

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
#include "OS/OS_SyncKinds.h"
#include "OS/OS_SyncPrimitives.h"
#include "OS/OS_SysVSemaphore.h"

namespace {

// What a waiter sleeps on between looks at the flag.
enum class Wakeup { Condition, SysV, Posix };

// Named blocks: attach count, mutex at 4, the wake-up primitive at 44, then
// the four one-byte flags (manual reset, set, managed by OS, use condition).
struct EventLayout {
  unsigned int size;
  unsigned int flags;
};
constexpr unsigned int kMutexAt = 4;
constexpr unsigned int kWakeupAt = 44;
constexpr EventLayout layoutOf(Wakeup kind) {
  return kind == Wakeup::SysV ? EventLayout{52, 48} : kind == Wakeup::Condition ? EventLayout{96, 92} : EventLayout{80, 76};
}

// How one sleep of a wait loop ended.
enum class Slept {
  Again,    // look at the flag again
  Leave,    // time is up or the primitive failed: answer with the flag as it is
  LockLost  // the mutex could not be retaken: the flags must not be touched
};

}  // namespace

// A flag guarded by a mutex, and a primitive to sleep on until it is raised.
// Every field is a pointer so that one code path serves the heap (anonymous)
// and the shared block (named), where the flags are the machine-wide state.
class event_handle : private OS::SysVSemaphoreOps<OS::kEventMessagePrefix> {
 public:
  event_handle(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName, bool bManageByOS,
               bool bUseConditionInsteadOfSem);
  ~event_handle();
  event_handle(const event_handle&) = delete;
  event_handle& operator=(const event_handle&) = delete;

  void setEvent();
  void resetEvent();
  // Both waits: no deadline waits as long as needed.
  bool wait(const timespec* deadline);

 private:
  class NamedSteps;

  void init_event_handle(RT_MODE mode);
  bool usable() const;
  Wakeup wakeup() const;
  int semId() const { return *m_hSem.m_hNamedHandle; }
  bool lockMutex() { return OS::Private::lockRecovering(m_pMutex); }
  void unlockMutex() { pthread_mutex_unlock(m_pMutex); }
  void wake(bool bPassingOn);
  Slept sleepOnce(const timespec* deadline);
  Slept sleepOnSemaphore(const timespec* deadline);

  sharememory_handle* m_pEventShareMemory;  // the named block, when attached
  std::string m_strEventName;
  pthread_mutex_t* m_pMutex;  // guards the flags; robust in a block
  pthread_cond_t* m_pCond;    // the condition kind's wake-up
  sem_handle m_hSem;          // the semaphore kinds' wake-up
  bool* m_pManualReset;
  bool* m_pIsSetEvent;  // the event's state; the wake-up primitives only carry news of it
  bool* m_pManageByOS;
  bool* m_pUseConditionInsteadOfSem;
  RT_MODE m_RtMode;
};

// The event's own part of attaching to and detaching from its block.
class event_handle::NamedSteps final : public OS::NamedObjectSteps {
 public:
  NamedSteps(event_handle& owner, Wakeup kind, bool bManualReset = false, bool bInitial = false,
             bool bUseConditionInsteadOfSem = false)
      : m_owner(owner),
        m_kind(kind),
        m_bManualReset(bManualReset),
        m_bInitial(bInitial),
        m_bUseCondition(bUseConditionInsteadOfSem) {}

  // Every named kind needs the block's file to be visible, as the System V kind does.
  bool beforeOpen() override { return OS::SysV::keyOfBlock(m_owner.m_strEventName, "event", m_key); }

  void bind(unsigned char* block) override {
    m_owner.m_pMutex = reinterpret_cast<pthread_mutex_t*>(block + kMutexAt);
    unsigned char* wakeup = block + kWakeupAt;
    if (m_kind == Wakeup::Condition)
      m_owner.m_pCond = reinterpret_cast<pthread_cond_t*>(wakeup);
    else if (m_kind == Wakeup::SysV)
      m_owner.m_hSem.m_hNamedHandle = reinterpret_cast<int*>(wakeup);
    else
      m_owner.m_hSem.m_hAnonymousHandle = reinterpret_cast<sem_t*>(wakeup);
    bool* flags = reinterpret_cast<bool*>(block + layoutOf(m_kind).flags);
    m_owner.m_pManualReset = flags;
    m_owner.m_pIsSetEvent = flags + 1;
    m_owner.m_pManageByOS = flags + 2;
    m_owner.m_pUseConditionInsteadOfSem = flags + 3;
  }

  void initialise() override {
    OS::Private::initMutex(m_owner.m_pMutex, PTHREAD_MUTEX_NORMAL, false, true);
    if (m_kind == Wakeup::SysV) {
      if (m_bUseCondition) {
        puts("warning: can not use condition because semaphore is managed by OS, it should be system V semaphore.");
        m_bUseCondition = false;
      }
      int id = OS::SysV::createSet(m_key);
      *m_owner.m_hSem.m_hNamedHandle = id;
      m_owner.setSemVal(id, 0);
    } else if (m_kind == Wakeup::Condition) {
      OS::Private::initCond(m_owner.m_pCond, true);
    } else {
      // Starts empty even for an event created set: waiters look at the flag first.
      sem_init(m_owner.m_hSem.m_hAnonymousHandle, 1, 0);
    }
    *m_owner.m_pManualReset = m_bManualReset;
    *m_owner.m_pIsSetEvent = m_bInitial;
    *m_owner.m_pManageByOS = m_kind == Wakeup::SysV;
    *m_owner.m_pUseConditionInsteadOfSem = m_bUseCondition;
  }

  // The kind is read back from the block: this handle may not be the creator.
  void finalise() override {
    switch (m_owner.wakeup()) {
      case Wakeup::SysV:
        m_owner.destroySem(m_owner.semId());
        break;
      case Wakeup::Condition:
        pthread_cond_destroy(m_owner.m_pCond);
        break;
      case Wakeup::Posix:
        sem_destroy(m_owner.m_hSem.m_hAnonymousHandle);
        break;
    }
    pthread_mutex_destroy(m_owner.m_pMutex);
  }

 private:
  event_handle& m_owner;
  Wakeup m_kind;
  bool m_bManualReset;
  bool m_bInitial;
  bool m_bUseCondition;
  key_t m_key = -1;
};

void event_handle::init_event_handle(RT_MODE mode) {
  m_pEventShareMemory = nullptr;
  m_pMutex = nullptr;
  m_pCond = nullptr;
  m_hSem.m_hAnonymousHandle = nullptr;
  m_pManualReset = nullptr;
  m_pIsSetEvent = nullptr;
  m_pManageByOS = nullptr;
  m_pUseConditionInsteadOfSem = nullptr;
  m_RtMode = OS::Private::storedMode(mode);
}

event_handle::event_handle(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName,
                           bool bManageByOS, bool bUseConditionInsteadOfSem) {
  init_event_handle(mode);
  if (strEventName != nullptr && strlen(strEventName) > OS::kMaxObjectNameLength) return;
  // Tested on the mode as passed, not as resolved: USE_DEFAULT is never refused.
  if (strEventName != nullptr && mode == USE_RT && bManageByOS) {
    puts("event_handle can not work in rt mode while named semaphore is managed by os.");
    return;
  }

  if (strEventName != nullptr) {
    m_strEventName = strEventName;
    Wakeup kind = bManageByOS ? Wakeup::SysV : bUseConditionInsteadOfSem ? Wakeup::Condition : Wakeup::Posix;
    NamedSteps steps(*this, kind, bManualReset, bInitial, bUseConditionInsteadOfSem);
    m_pEventShareMemory = OS::Private::attachSameKind(m_strEventName, layoutOf(kind).size, steps);
    // bind() may have pointed fields into a block that was then refused.
    if (m_pEventShareMemory == nullptr) init_event_handle(mode);
    return;
  }

  // An anonymous event always sleeps on a condition variable, whatever the arguments.
  m_pMutex = new pthread_mutex_t();
  OS::Private::initMutex(m_pMutex, PTHREAD_MUTEX_NORMAL, false, false);
  m_pCond = new pthread_cond_t();
  OS::Private::initCond(m_pCond, false);
  m_pManualReset = new bool(bManualReset);
  m_pIsSetEvent = new bool(bInitial);
  m_pManageByOS = new bool(false);
  m_pUseConditionInsteadOfSem = new bool(true);
}

event_handle::~event_handle() {
  if (m_pEventShareMemory != nullptr) {
    NamedSteps steps(*this, wakeup());
    OS::detachNamedObject(m_strEventName, m_pEventShareMemory, steps);
  } else if (usable()) {
    delete m_pManualReset;
    delete m_pIsSetEvent;
    delete m_pManageByOS;
    delete m_pUseConditionInsteadOfSem;
    pthread_cond_destroy(m_pCond);
    delete m_pCond;
    pthread_mutex_destroy(m_pMutex);
    delete m_pMutex;
  }
  init_event_handle(m_RtMode);
}

bool event_handle::usable() const {
  return m_pMutex != nullptr && (m_pCond != nullptr || m_hSem.m_hAnonymousHandle != nullptr) &&
         m_pManualReset != nullptr && m_pIsSetEvent != nullptr;
}

// The bound primitive decides, so that a handle never reaches for one it lacks.
Wakeup event_handle::wakeup() const {
  if (m_pCond != nullptr) return Wakeup::Condition;
  return *m_pManageByOS ? Wakeup::SysV : Wakeup::Posix;
}

// Wakes the sleepers after a set. bPassingOn: a waiter of a manual-reset event
// hands the wake-up to the next sleeper; a broadcast has already woken them all.
void event_handle::wake(bool bPassingOn) {
  switch (wakeup()) {
    case Wakeup::Condition:
      if (!bPassingOn) pthread_cond_broadcast(m_pCond);
      break;
    case Wakeup::SysV:
      postSem(semId(), false);
      break;
    case Wakeup::Posix:
      sem_post(m_hSem.m_hAnonymousHandle);
      break;
  }
}

void event_handle::setEvent() {
  if (!usable() || !lockMutex()) return;
  // Only the change from clear to set wakes anybody: a second set is absorbed.
  if (!*m_pIsSetEvent) {
    *m_pIsSetEvent = true;
    wake(false);
  }
  unlockMutex();
}

void event_handle::resetEvent() {
  if (!usable() || !lockMutex()) return;
  if (*m_pIsSetEvent) {
    *m_pIsSetEvent = false;
    if (wakeup() == Wakeup::SysV) {
      setSemVal(semId(), 0);
    } else if (wakeup() == Wakeup::Posix) {
      // One pending wake-up is taken without blocking; a waiter woken by
      // another one finds the flag clear and sleeps again.
      sem_trywait(m_hSem.m_hAnonymousHandle);
    }
  }
  unlockMutex();
}

// One loop for both waits; sleepOnce tells whether to look at the flag again.
bool event_handle::wait(const timespec* deadline) {
  if (!usable() || !lockMutex()) return false;
  timespec normalised{};
  if (deadline != nullptr) {
    // An out-of-range tv_nsec would make every timed call fail at once and the
    // loop spin until the deadline.
    normalised = *deadline;
    os_clock_adjust_clock_time(&normalised);
    deadline = &normalised;
  }
  while (!*m_pIsSetEvent) {
    Slept slept = sleepOnce(deadline);
    if (slept == Slept::LockLost) return false;
    if (slept == Slept::Leave) break;
  }
  // A flag raised just as the deadline passed still counts.
  bool result = *m_pIsSetEvent;
  if (!*m_pManualReset)
    *m_pIsSetEvent = false;  // this waiter consumes the event
  else if (result)
    wake(true);
  unlockMutex();
  return result;
}

// The condition kind sleeps inside the mutex; a timed sleep ends the loop once
// less than a millisecond is left, so no waiter spins out the last instant.
Slept event_handle::sleepOnce(const timespec* deadline) {
  if (wakeup() != Wakeup::Condition) return sleepOnSemaphore(deadline);
  int rc = OS::Private::waitRecovering(m_pCond, m_pMutex, deadline);
  if (deadline == nullptr) return rc == 0 ? Slept::Again : Slept::Leave;
  if (rc != 0 && rc != ETIMEDOUT) return Slept::Leave;
  timespec left = OS::Private::timeLeftUntil(*deadline, m_RtMode);
  long millisLeft = left.tv_sec * 1000 + left.tv_nsec / 1000000;
  return millisLeft < 1 ? Slept::Leave : Slept::Again;
}

// The semaphore kinds sleep outside the mutex and take it back afterwards.
Slept event_handle::sleepOnSemaphore(const timespec* deadline) {
  timespec left{};
  if (deadline != nullptr) {
    left = OS::Private::timeLeftUntil(*deadline, m_RtMode);
    if (left.tv_sec < 0 || (left.tv_sec == 0 && left.tv_nsec == 0)) return Slept::Leave;
  }
  bool taken;
  unlockMutex();
  if (wakeup() == Wakeup::SysV) {
    taken = deadline != nullptr ? waitSemTimeout(semId(), &left, false) : waitSem(semId(), false);
  } else if (deadline != nullptr) {
    timespec wall = OS::Private::monotonicDeadlineToWall(*deadline, m_RtMode);
    taken = OS::Private::retryOnEintr([&] { return sem_timedwait(m_hSem.m_hAnonymousHandle, &wall); }) == 0;
  } else {
    taken = OS::Private::retryOnEintr([&] { return sem_wait(m_hSem.m_hAnonymousHandle); }) == 0;
  }
  // A timed wait that ran out (or was interrupted) goes round again: the
  // time-left check above ends the loop. Anything else is a broken primitive.
  int error = errno;
  bool sleepAgain = taken || error == EINTR || (deadline != nullptr && (error == EAGAIN || error == ETIMEDOUT));
  if (!lockMutex()) return Slept::LockLost;
  return sleepAgain ? Slept::Again : Slept::Leave;
}

event_handle* OS::createEvent(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName,
                              bool bManageByOS, bool bUseConditionInsteadOfSem) {
  return new event_handle(bManualReset, bInitial, mode, strEventName, bManageByOS, bUseConditionInsteadOfSem);
}

event_handle* os_event_create(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName) {
  return OS::createEvent(bManualReset, bInitial, mode, strEventName, false, true);
}

void os_event_destroy(event_handle*& handle) { destroyHandle(handle); }

void os_event_set_event(event_handle* handle) {
  if (handle != nullptr) handle->setEvent();
}

void os_event_reset_event(event_handle* handle) {
  if (handle != nullptr) handle->resetEvent();
}

bool os_event_wait(event_handle* handle) { return handle != nullptr && handle->wait(nullptr); }

bool os_event_wait_timeout(event_handle* handle, timespec timeout) {
  return handle != nullptr && handle->wait(&timeout);
}
