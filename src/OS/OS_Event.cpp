// Events: a flag (set, manual reset) guarded by a robust mutex, and a wake-up
// primitive to sleep on until it is raised. Kill rule: the flags are written
// only under that mutex; a setter killed inside leaves the mutex to be repaired
// by the next taker, who then wakes every sleeper, so a waiter may assume it
// sees the flag's last whole value and is woken after any repair.

#include <ostrelled/OS_Event.h>

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <variant>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/EventKinds.h"
#include "OS/internal/MutexHandle.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/SyncPrimitives.h"
#include "OS/internal/SysVSemaphore.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

namespace {

// What a waiter sleeps on between looks at the flag.
enum class WakeKind { Condition, SysV, Posix };

// Named blocks: internal::EventBlock (internal/BlockLayouts.h), whose size and
// flags' place depend on the wake-up kind.
using Block = internal::EventBlock;
constexpr Block::Kind layoutOf(WakeKind kind) {
  return kind == WakeKind::SysV ? Block::kSysV : kind == WakeKind::Condition ? Block::kCondition : Block::kPosix;
}

}  // namespace

// A flag guarded by a mutex, and a wake-up primitive to sleep on until it is
// raised, chosen once per handle. Every field is a pointer so that one code
// path serves the handle's own storage (anonymous) and the shared block
// (named), where the flags are the machine-wide state.
class event_handle {
 public:
  event_handle(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName, bool bManageByOS,
               bool bUseConditionInsteadOfSem);
  ~event_handle();
  event_handle(const event_handle&) = delete;
  event_handle& operator=(const event_handle&) = delete;

  bool usable() const { return m_pWakeup != nullptr; }
  void setEvent();
  void resetEvent();
  // Both waits: no deadline waits as long as needed.
  bool wait(const internal::Deadline& deadline);

 private:
  class NamedSteps;

  void init_event_handle(RT_MODE mode);
  void bindFlags(bool* flags);
  bool lockMutex();
  void repairFlags();
  void unlockMutex() { pthread_mutex_unlock(m_pMutex); }
  template <class Kind, class... Args>
  void choose(Args... args) {
    m_pWakeup = &m_wakeupStore.emplace<Kind>(args...);
  }

  sharememory_handle* m_pEventShareMemory;  // the named block, when attached
  std::string m_strEventName;
  pthread_mutex_t* m_pMutex;    // guards the flags; robust in a block
  internal::Wakeup* m_pWakeup;  // null while unusable
  bool* m_pManualReset;
  bool* m_pIsSetEvent;  // the event's state; the wake-up primitive only carries news of it
  bool* m_pManageByOS;
  bool* m_pUseConditionInsteadOfSem;
  RT_MODE m_RtMode;
  std::variant<std::monostate, internal::FutexCondition, internal::PosixSemaphore, internal::SysVSemaphore>
      m_wakeupStore;
  // The anonymous kind's storage, which the pointers above aim at.
  struct {
    pthread_mutex_t mutex;
    uint32_t word;
    bool flags[4];
  } m_anonymous{};
  static constexpr bool kNoUndo = false;  // the event's System V operations are never undone
};

// The event's own part of attaching to and detaching from its block.
class event_handle::NamedSteps final : public internal::NamedObjectSteps {
 public:
  NamedSteps(event_handle& owner, WakeKind kind, bool bManualReset = false, bool bInitial = false,
             bool bUseConditionInsteadOfSem = false)
      : m_owner(owner),
        m_kind(kind),
        m_bManualReset(bManualReset),
        m_bInitial(bInitial),
        m_bUseCondition(bUseConditionInsteadOfSem) {}

  // Every named kind needs the block's file to be visible, as the System V kind does.
  bool beforeOpen() override { return internal::SysV::keyOfBlock(m_owner.m_strEventName, "event", m_key); }

  void bind(unsigned char* block) override {
    m_owner.m_pMutex = reinterpret_cast<pthread_mutex_t*>(block + Block::kMutexAt);
    m_wakeup = block + Block::kWakeupAt;
    if (m_kind == WakeKind::Condition)
      m_owner.choose<internal::FutexCondition>(reinterpret_cast<uint32_t*>(m_wakeup), true);
    else if (m_kind == WakeKind::SysV)
      m_owner.choose<internal::SysVSemaphore>(reinterpret_cast<int*>(m_wakeup), internal::kEventMessagePrefix,
                                              &kNoUndo);
    else
      m_owner.choose<internal::PosixSemaphore>(reinterpret_cast<sem_t*>(m_wakeup));
    m_owner.bindFlags(reinterpret_cast<bool*>(block + layoutOf(m_kind).flagsAt));
  }

  // The condition kind's word starts as the manager's zero fill left it.
  void initialise() override {
    internal::initMutex(m_owner.m_pMutex, PTHREAD_MUTEX_NORMAL, false, true);
    if (m_kind == WakeKind::SysV) {
      if (m_bUseCondition) {
        puts("warning: can not use condition because semaphore is managed by OS, it should be system V semaphore.");
        m_bUseCondition = false;
      }
      *reinterpret_cast<int*>(m_wakeup) = internal::SysV::createSet(m_key, m_owner.m_strEventName);
      m_owner.m_pWakeup->clear();
    } else if (m_kind == WakeKind::Posix) {
      // Starts empty even for an event created set: waiters look at the flag first.
      sem_init(reinterpret_cast<sem_t*>(m_wakeup), 1, 0);
    }
    *m_owner.m_pManualReset = m_bManualReset;
    *m_owner.m_pIsSetEvent = m_bInitial;
    *m_owner.m_pManageByOS = m_kind == WakeKind::SysV;
    *m_owner.m_pUseConditionInsteadOfSem = m_bUseCondition;
  }

  void finalise() override {
    m_owner.m_pWakeup->destroy();
    pthread_mutex_destroy(m_owner.m_pMutex);
  }

 private:
  event_handle& m_owner;
  WakeKind m_kind;
  bool m_bManualReset;
  bool m_bInitial;
  bool m_bUseCondition;
  key_t m_key = -1;
  unsigned char* m_wakeup = nullptr;
};

void event_handle::init_event_handle(RT_MODE mode) {
  m_pEventShareMemory = nullptr;
  m_pMutex = nullptr;
  m_pWakeup = nullptr;
  bindFlags(nullptr);
  m_RtMode = internal::storedMode(mode);
}

void event_handle::bindFlags(bool* flags) {
  m_pManualReset = flags;
  m_pIsSetEvent = flags != nullptr ? flags + 1 : nullptr;
  m_pManageByOS = flags != nullptr ? flags + 2 : nullptr;
  m_pUseConditionInsteadOfSem = flags != nullptr ? flags + 3 : nullptr;
}

event_handle::event_handle(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName, bool bManageByOS,
                           bool bUseConditionInsteadOfSem) {
  init_event_handle(mode);
  if (strEventName != nullptr && strlen(strEventName) > internal::kMaxObjectNameLength) return;
  // Tested on the mode as passed, not as resolved: USE_DEFAULT is never refused.
  if (strEventName != nullptr && mode == USE_RT && bManageByOS) {
    puts("event_handle can not work in rt mode while named semaphore is managed by os.");
    return;
  }

  if (strEventName != nullptr) {
    m_strEventName = strEventName;
    WakeKind kind = bManageByOS ? WakeKind::SysV : bUseConditionInsteadOfSem ? WakeKind::Condition : WakeKind::Posix;
    NamedSteps steps(*this, kind, bManualReset, bInitial, bUseConditionInsteadOfSem);
    m_pEventShareMemory = internal::attachSameKind(m_strEventName, layoutOf(kind).size, steps);
    // bind() may have pointed fields into a block that was then refused.
    if (m_pEventShareMemory == nullptr) init_event_handle(mode);
    return;
  }

  // An anonymous event always sleeps on a condition, whatever the arguments.
  m_pMutex = &m_anonymous.mutex;
  internal::initMutex(m_pMutex, PTHREAD_MUTEX_NORMAL, false, false);
  choose<internal::FutexCondition>(&m_anonymous.word, false);
  bindFlags(m_anonymous.flags);
  *m_pManualReset = bManualReset;
  *m_pIsSetEvent = bInitial;
  *m_pManageByOS = false;
  *m_pUseConditionInsteadOfSem = true;
}

event_handle::~event_handle() {
  if (m_pEventShareMemory != nullptr) {
    NamedSteps steps(*this, WakeKind::Condition);
    internal::detachNamedObject(m_strEventName, m_pEventShareMemory, steps);
  } else if (usable()) {
    pthread_mutex_destroy(m_pMutex);
  }
  init_event_handle(m_RtMode);
}

// A holder that died may have raised the flag without waking anybody: wake
// everybody to look again.
bool event_handle::lockMutex() {
  internal::Locked locked = internal::lockKeepingRepaired(m_pMutex);
  if (locked == internal::Locked::Repaired) m_pWakeup->wakeAll();
  if (locked != internal::Locked::Failed && m_pEventShareMemory != nullptr) repairFlags();
  return locked != internal::Locked::Failed;
}

// A flag byte in a shared block that holds neither 0 nor 1 (damaged by some
// other writer) is not a valid bool: it is read as bytes and taken as set.
void event_handle::repairFlags() {
  for (bool* flag : {m_pManualReset, m_pIsSetEvent}) {
    auto* byte = reinterpret_cast<unsigned char*>(flag);
    if (*byte > 1) *byte = 1;
  }
}

void event_handle::setEvent() {
  if (!usable() || !lockMutex()) return;
  // Only the change from clear to set wakes anybody: a second set is absorbed.
  // The sleepers are woken first: they need the mutex to look at the flag, so
  // a setter that dies in between leaves either no set or a set they will see.
  if (!*m_pIsSetEvent) {
    m_pWakeup->wakeAll();
    *m_pIsSetEvent = true;
  }
  unlockMutex();
}

void event_handle::resetEvent() {
  if (!usable() || !lockMutex()) return;
  if (*m_pIsSetEvent) {
    *m_pIsSetEvent = false;
    m_pWakeup->clear();
  }
  unlockMutex();
}

// One loop for both waits; the wake-up's sleep tells whether to look at the flag again.
bool event_handle::wait(const internal::Deadline& deadline) {
  if (!usable() || !lockMutex()) return false;
  while (!*m_pIsSetEvent) {
    internal::Slept slept = m_pWakeup->sleep(m_pMutex, deadline);
    if (slept == internal::Slept::LockLost) return false;
    if (slept == internal::Slept::Leave) break;
  }
  // A flag raised just as the deadline passed still counts.
  bool result = *m_pIsSetEvent;
  if (!*m_pManualReset)
    *m_pIsSetEvent = false;  // this waiter consumes the event
  else if (result)
    m_pWakeup->passOn();
  unlockMutex();
  return result;
}

event_handle* internal::createEvent(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName,
                                    bool bManageByOS, bool bUseConditionInsteadOfSem) {
  return new event_handle(bManualReset, bInitial, mode, strEventName, bManageByOS, bUseConditionInsteadOfSem);
}

event_handle* os_event_create(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName) {
  return internal::createEvent(bManualReset, bInitial, mode, strEventName, false, true);
}

void os_event_destroy(event_handle*& handle) { internal::destroyHandle(handle); }

void os_event_set_event(event_handle* handle) {
  if (handle != nullptr) handle->setEvent();
}

void os_event_reset_event(event_handle* handle) {
  if (handle != nullptr) handle->resetEvent();
}

bool os_event_wait(event_handle* handle) { return handle != nullptr && handle->wait(internal::Deadline::never()); }

bool os_event_wait_timeout(event_handle* handle, timespec timeout) {
  return handle != nullptr && handle->wait(internal::Deadline::at(timeout));
}

bool os_event_is_attached(const event_handle* handle) { return handle != nullptr && handle->usable(); }
