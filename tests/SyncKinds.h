#ifndef OSTRELLED_TESTS_SYNCKINDS_H
#define OSTRELLED_TESTS_SYNCKINDS_H

// Every kind as a token one holder takes: a semaphore of one unit; an event set, consumed by a wait.

#include "TestSupport.h"

class SyncObject {
 public:
  virtual ~SyncObject() = default;
  virtual bool attached() const = 0;
  virtual bool take() = 0;                                      // untimed; false only where the kind reports a failure
  virtual bool tryTake() { return takeBy(deadlineIn(-1000)); }  // a try lock, or a wait with a past deadline
  virtual bool takeBy(const timespec& deadline) = 0;
  virtual void give() = 0;
  virtual void hold() { take(); }  // how a holder takes it
  virtual void destroy() = 0;      // leaves a null handle, which later calls meet
};

// One kind's handle: whether it attached, and its destroy, which leaves it null.
template <class Handle, bool (*Attached)(const Handle*), void (*Destroy)(Handle*&)>
class HandleObject : public SyncObject {
 public:
  explicit HandleObject(Handle* handle) : m_h(handle) {}
  ~HandleObject() override { Destroy(m_h); }
  bool attached() const override { return Attached(m_h); }
  void destroy() override { Destroy(m_h); }
  Handle* m_h;
};

class MutexObject : public HandleObject<mutex_handle, os_mutex_is_attached, os_mutex_destroy> {
 public:
  MutexObject(unsigned int flags, const char* name, RT_MODE mode) : HandleObject(os_mutex_create(flags, mode, name)) {}
  bool take() override { return os_mutex_lock(m_h), true; }
  bool tryTake() override { return os_mutex_trylock(m_h); }
  bool takeBy(const timespec& deadline) override { return os_mutex_lock_timeout(m_h, deadline); }
  void give() override { os_mutex_unlock(m_h); }
};

class RWMutexObject : public HandleObject<rw_mutex_handle, os_rw_mutex_is_attached, os_rw_mutex_destroy> {
 public:
  RWMutexObject(bool readerHolds, const char* name, RT_MODE mode)
      : HandleObject(os_rw_mutex_create(mode, name)), m_readerHolds(readerHolds) {}
  bool take() override { return os_rw_mutex_lock_wr(m_h), true; }
  bool tryTake() override { return os_rw_mutex_trylock_wr(m_h); }
  bool takeBy(const timespec& deadline) override { return os_rw_mutex_lock_wr_timeout(m_h, deadline); }
  void give() override { os_rw_mutex_unlock(m_h); }
  void hold() override { m_readerHolds ? os_rw_mutex_lock_rd(m_h) : os_rw_mutex_lock_wr(m_h); }
  bool m_readerHolds;
};

class SemaphoreObject : public HandleObject<semaphore_handle, os_semaphore_is_attached, os_semaphore_destroy> {
 public:
  SemaphoreObject(bool sysV, const char* name, RT_MODE mode)
      : HandleObject(internal::createSemaphore(1, mode, name, sysV)) {}
  bool take() override { return os_semaphore_wait(m_h); }
  bool takeBy(const timespec& deadline) override { return os_semaphore_wait_timeout(m_h, deadline); }
  void give() override { os_semaphore_release(m_h); }
};

enum class Wakeup { Condition, Posix, SysV };

class EventObject : public HandleObject<event_handle, os_event_is_attached, os_event_destroy> {
 public:
  EventObject(bool manual, Wakeup wakeup, const char* name, RT_MODE mode)
      : HandleObject(
            internal::createEvent(manual, true, mode, name, wakeup == Wakeup::SysV, wakeup == Wakeup::Condition)),
        m_manual(manual) {}
  bool take() override { return consumed(os_event_wait(m_h)); }
  bool takeBy(const timespec& deadline) override { return consumed(os_event_wait_timeout(m_h, deadline)); }
  void give() override { os_event_set_event(m_h); }
  bool consumed(bool woken) {
    if (woken && m_manual) os_event_reset_event(m_h);
    return woken;
  }
  bool m_manual;
};

struct SyncKind {
  const char* name;
  bool named;
  bool owned;  // a holder that dies gives it back
  bool sysV;   // a System V set, which real-time mode refuses
  std::function<std::unique_ptr<SyncObject>(const char* name, RT_MODE mode)> make;
  std::unique_ptr<SyncObject> operator()(const std::string& name, RT_MODE mode = USE_STD) const {
    return make(named ? name.c_str() : nullptr, mode);
  }
};

template <class Object, class... Args>
std::function<std::unique_ptr<SyncObject>(const char*, RT_MODE)> maker(Args... args) {
  return [=](const char* name, RT_MODE mode) { return std::make_unique<Object>(args..., name, mode); };
}

inline const std::vector<SyncKind> kAnonymousKinds = {
    {"Mutex", false, true, false, maker<MutexObject>(DEFAULT_MUTEX_ATTRIBUTE)},
    {"PriorityInheritingMutex", false, true, false, maker<MutexObject>(MUTEX_PRIO_INHERIT)},
    {"RWMutex", false, true, false, maker<RWMutexObject>(false)},
    {"Semaphore", false, false, false, maker<SemaphoreObject>(false)},
    {"Event", false, false, false, maker<EventObject>(false, Wakeup::Condition)},
};

inline const std::vector<SyncKind> kNamedKinds = {
    {"Mutex", true, true, false, maker<MutexObject>(DEFAULT_MUTEX_ATTRIBUTE)},
    {"RecursiveMutex", true, true, false, maker<MutexObject>(MUTEX_RECURSIVE)},
    {"PriorityInheritingMutex", true, true, false, maker<MutexObject>(MUTEX_PRIO_INHERIT)},
    {"RecursivePriorityInheritingMutex", true, true, false, maker<MutexObject>(MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT)},
    {"RWMutexHeldByAWriter", true, true, false, maker<RWMutexObject>(false)},
    {"RWMutexHeldByAReader", true, true, false, maker<RWMutexObject>(true)},
    {"PosixSemaphore", true, false, false, maker<SemaphoreObject>(false)},
    {"SysVSemaphore", true, false, true, maker<SemaphoreObject>(true)},
    {"ConditionEvent", true, false, false, maker<EventObject>(false, Wakeup::Condition)},
    {"PosixEvent", true, false, false, maker<EventObject>(false, Wakeup::Posix)},
    {"SysVEvent", true, false, true, maker<EventObject>(false, Wakeup::SysV)},
    {"ManualResetSysVEvent", true, false, true, maker<EventObject>(true, Wakeup::SysV)},
};

#endif
