#include <ostrelled/OS_Semaphore.h>

#include <errno.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "Handle.h"
#include "OS/OS_NamedObject.h"
#include "OS/OS_Private.h"
#include "OS/OS_SyncKinds.h"
#include "OS/OS_SyncPrimitives.h"
#include "OS/OS_SysVSemaphore.h"

namespace {

// Named blocks: the attach count, the semaphore at offset 4, the kind flag last.
struct SemaphoreLayout {
  unsigned int size;
  unsigned int kindFlag;
};
constexpr unsigned int kSemaphoreAt = 4;
constexpr SemaphoreLayout kPosixLayout{37, 36};  // sem_t, process-shared
constexpr SemaphoreLayout kSysVLayout{9, 8};     // System V set id

}  // namespace

// A counting semaphore of one of three kinds: a heap sem_t (anonymous), a
// process-shared sem_t in a named block, or a System V set whose id sits in a
// named block. The System V kind is the one the kernel can undo for a process
// that exits; it is reached only through OS::createSemaphore.
class semaphore_handle : private OS::SysVSemaphoreOps<OS::kSemaphoreMessagePrefix> {
 public:
  semaphore_handle(int intInitialCount, RT_MODE mode, const char* strSemaphoreName, bool bManageByOS);
  ~semaphore_handle();
  semaphore_handle(const semaphore_handle&) = delete;
  semaphore_handle& operator=(const semaphore_handle&) = delete;

  void setUndoTrack(bool bUndoTrack) { m_bUndoTrack = bUndoTrack; }
  bool wait();
  bool waitTimeout(const timespec& timeout);
  void release();

 private:
  class NamedSteps;

  // Both views of the union share one pointer, so either tells whether one is held.
  bool attached() const { return m_hSem.m_hAnonymousHandle != nullptr; }
  // Read on every operation: the block's flag, not this opener's wish, decides.
  // An anonymous semaphore's flag is always false, so it is not even loaded.
  bool managedByOS() const { return m_pSemaphoreShareMemory != nullptr && *m_pManageByOS; }
  int semId() const { return *m_hSem.m_hNamedHandle; }
  // The POSIX semaphore of an attached handle. The anonymous one is reached
  // without loading a pointer first: in an uncontended release or wait that
  // load would stand between two atomic operations and cost a third of the call.
  sem_t* posixSem() { return m_pSemaphoreShareMemory == nullptr ? &m_anonymousSem : m_hSem.m_hAnonymousHandle; }

  std::string m_strSemaphoreName;                         // empty for an anonymous semaphore
  sharememory_handle* m_pSemaphoreShareMemory = nullptr;  // the named block, when attached
  sem_handle m_hSem{};                                    // null while unattached
  bool* m_pManageByOS = nullptr;                          // kind flag: in the block, or the false below
  bool m_bUndoTrack = false;                              // SEM_UNDO on System V operations
  RT_MODE m_RtMode;
  // Storage of the anonymous kind, which m_hSem and m_pManageByOS point at.
  sem_t m_anonymousSem{};
  bool m_bAnonymousManageByOS = false;
};

// The semaphore's own part of attaching to and detaching from its block.
class semaphore_handle::NamedSteps final : public OS::NamedObjectSteps {
 public:
  NamedSteps(semaphore_handle& owner, bool bManageByOS, int intInitialCount)
      : m_owner(owner), m_bManageByOS(bManageByOS), m_intInitialCount(intInitialCount) {}

  const SemaphoreLayout& layout() const { return m_bManageByOS ? kSysVLayout : kPosixLayout; }

  // The set is keyed by the block's own file, so it exists once the manager
  // has created the block and before anybody initialises it.
  bool beforeOpen() override { return OS::SysV::keyOfBlock(m_owner.m_strSemaphoreName, "semaphore", m_key); }

  void bind(unsigned char* block) override {
    if (m_bManageByOS)
      m_owner.m_hSem.m_hNamedHandle = reinterpret_cast<int*>(block + kSemaphoreAt);
    else
      m_owner.m_hSem.m_hAnonymousHandle = reinterpret_cast<sem_t*>(block + kSemaphoreAt);
    m_owner.m_pManageByOS = reinterpret_cast<bool*>(block + layout().kindFlag);
  }

  void initialise() override {
    if (m_bManageByOS) {
      int id = OS::SysV::createSet(m_key);
      *m_owner.m_hSem.m_hNamedHandle = id;
      m_owner.setSemVal(id, m_intInitialCount);
    } else {
      sem_init(m_owner.m_hSem.m_hAnonymousHandle, 1, static_cast<unsigned int>(m_intInitialCount));
    }
    // Written here so that every later operation, in every process, honours the kind.
    *m_owner.m_pManageByOS = m_bManageByOS;
  }

  void finalise() override {
    if (m_owner.managedByOS())
      m_owner.destroySem(m_owner.semId());
    else
      sem_destroy(m_owner.m_hSem.m_hAnonymousHandle);
  }

 private:
  semaphore_handle& m_owner;
  bool m_bManageByOS;
  int m_intInitialCount;
  key_t m_key = -1;
};

semaphore_handle::semaphore_handle(int intInitialCount, RT_MODE mode, const char* strSemaphoreName,
                                   bool bManageByOS)
    : m_RtMode(OS::Private::storedMode(mode)) {
  // Every refusal leaves all pointers null: an unattached handle whose waits fail.
  if (strSemaphoreName != nullptr && strlen(strSemaphoreName) > OS::kMaxObjectNameLength) return;
  if (strSemaphoreName != nullptr && bManageByOS && OS::Private::isRealTime(mode)) {
    puts("semaphore_handle can not work in rt mode while named semaphore is managed by os.");
    return;
  }

  if (strSemaphoreName != nullptr) {
    m_strSemaphoreName = strSemaphoreName;
    NamedSteps steps(*this, bManageByOS, intInitialCount);
    m_pSemaphoreShareMemory = OS::Private::attachSameKind(m_strSemaphoreName, steps.layout().size, steps);
    // bind() may have run before a later step refused the block.
    if (m_pSemaphoreShareMemory == nullptr) {
      m_hSem.m_hAnonymousHandle = nullptr;
      m_pManageByOS = nullptr;
    }
    return;
  }

  // A count the system refuses (negative or above SEM_VALUE_MAX) leaves the
  // handle unattached rather than holding an uninitialised semaphore.
  if (sem_init(&m_anonymousSem, 0, static_cast<unsigned int>(intInitialCount)) != 0) return;
  m_hSem.m_hAnonymousHandle = &m_anonymousSem;
  m_pManageByOS = &m_bAnonymousManageByOS;
}

// The last detach on the machine removes the semaphore (see NamedSteps::finalise).
semaphore_handle::~semaphore_handle() {
  if (m_pSemaphoreShareMemory != nullptr) {
    NamedSteps steps(*this, false, 0);
    OS::detachNamedObject(m_strSemaphoreName, m_pSemaphoreShareMemory, steps);
  } else if (attached()) {
    sem_destroy(&m_anonymousSem);
  }
  m_hSem.m_hAnonymousHandle = nullptr;
  m_pManageByOS = nullptr;
}

inline bool semaphore_handle::wait() {
  if (!attached()) return false;
  if (managedByOS()) return waitSem(semId(), m_bUndoTrack);
  // A unit that is there is taken without sem_wait's cancellation check,
  // which costs as much as the take itself.
  sem_t* sem = posixSem();
  if (sem_trywait(sem) == 0) return true;
  // A signal ends the wait with false, as any failed wait does.
  return sem_wait(sem) == 0;
}

// The deadline is on CLOCK_MONOTONIC: semtimedop wants the span left, and
// sem_timedwait counts on the wall clock, so each gets its own conversion.
bool semaphore_handle::waitTimeout(const timespec& timeout) {
  if (!attached()) return false;
  if (managedByOS()) {
    timespec left = OS::Private::timeLeftUntil(timeout, m_RtMode);
    // semtimedop refuses a negative span; a passed deadline still takes a
    // unit that is there, like sem_timedwait does.
    if (left.tv_sec < 0) left = timespec{0, 0};
    return waitSemTimeout(semId(), &left, m_bUndoTrack);
  }
  timespec wall = OS::Private::monotonicDeadlineToWall(timeout, m_RtMode);
  return sem_timedwait(posixSem(), &wall) == 0;
}

inline void semaphore_handle::release() {
  if (!attached()) return;
  if (managedByOS())
    postSem(semId(), m_bUndoTrack);
  else
    sem_post(posixSem());
}

semaphore_handle* OS::createSemaphore(int intInitialCount, RT_MODE mode, const char* strSemaphoreName,
                                      bool bManageByOS) {
  return new semaphore_handle(intInitialCount, mode, strSemaphoreName, bManageByOS);
}

semaphore_handle* os_semaphore_create(int intInitialCount, RT_MODE mode, const char* strSemaphoreName) {
  return OS::createSemaphore(intInitialCount, mode, strSemaphoreName, false);
}

void os_semaphore_destroy(semaphore_handle*& handle) { destroyHandle(handle); }

bool os_semaphore_set_undo_track(semaphore_handle* handle, bool bUndoTrack) {
  if (handle == nullptr) return false;
  handle->setUndoTrack(bUndoTrack);
  return true;
}

bool os_semaphore_wait(semaphore_handle* handle) { return handle != nullptr && handle->wait(); }

bool os_semaphore_wait_timeout(semaphore_handle* handle, timespec timeout) {
  return handle != nullptr && handle->waitTimeout(timeout);
}

void os_semaphore_release(semaphore_handle* handle) {
  if (handle != nullptr) handle->release();
}
