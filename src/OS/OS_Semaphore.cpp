// Semaphores: anonymous sem_t, a process-shared sem_t in a named block, or a
// System V set whose id the block holds. Kill rule: the count is the kernel's
// or the C library's atomic word, never half-written; a process killed while
// it holds units keeps them (only the System V kind with undo returns them).
// The block's kind flag is written once, by the first attach, under the request lock.

#include <ostrelled/OS_Semaphore.h>

#include <semaphore.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <variant>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"
#include "OS/internal/SemaphoreKinds.h"
#include "OS/internal/SyncPrimitives.h"
#include "OS/internal/SysVSemaphore.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

namespace {

// Named blocks: internal::SemaphoreBlock (internal/BlockLayouts.h).
struct SemaphoreLayout {
  unsigned int size;
  unsigned int kindFlag;
};
using Block = internal::SemaphoreBlock;
constexpr SemaphoreLayout kPosixLayout{Block::kPosixSize, Block::kPosixKindFlagAt};  // sem_t, process-shared
constexpr SemaphoreLayout kSysVLayout{Block::kSysVSize, Block::kSysVKindFlagAt};     // System V set id

}  // namespace

// A counting semaphore of one of three kinds: a sem_t of the handle's own
// (anonymous), a process-shared sem_t in a named block, or a System V set whose
// id sits in a named block. The System V kind is the one the kernel can undo
// for a process that exits; it is reached only through internal::createSemaphore.
// The kind object is chosen once; every operation goes through it.
class semaphore_handle {
 public:
  semaphore_handle(int intInitialCount, RT_MODE mode, const char* strSemaphoreName, bool bManageByOS);
  ~semaphore_handle();
  semaphore_handle(const semaphore_handle&) = delete;
  semaphore_handle& operator=(const semaphore_handle&) = delete;

  void setUndoTrack(bool bUndoTrack) { m_bUndoTrack = bUndoTrack; }
  bool attached() const { return m_pKind != nullptr; }
  // A POSIX semaphore's unit that is there, and every release, go straight to
  // the sem_t: the uncontended path stays one call deep.
  bool wait(const internal::Deadline& deadline) {
    if (m_pPosix != nullptr && sem_trywait(m_pPosix) == 0) return true;
    return attached() && m_pKind->take(deadline);
  }
  void release() {
    if (m_pPosix != nullptr)
      sem_post(m_pPosix);
    else if (attached())
      m_pKind->give();
  }
  int value() const { return attached() ? m_pKind->value() : -1; }

 private:
  class NamedSteps;

  // Points m_pKind at a kind built in place.
  template <class Kind, class... Args>
  void choose(Args... args) {
    m_pKind = &m_kindStore.emplace<Kind>(args...);
  }
  void choosePosix(sem_t* sem) {
    choose<internal::PosixSemaphore>(sem);
    m_pPosix = sem;
  }
  void unattach() {
    m_pKind = nullptr;
    m_pPosix = nullptr;
  }

  std::string m_strSemaphoreName;                         // empty for an anonymous semaphore
  sharememory_handle* m_pSemaphoreShareMemory = nullptr;  // the named block, when attached
  internal::SemaphoreKind* m_pKind = nullptr;             // null while unattached
  sem_t* m_pPosix = nullptr;                              // the POSIX kind's sem_t, else null
  bool m_bUndoTrack = false;                              // SEM_UNDO on System V operations
  RT_MODE m_RtMode;
  std::variant<std::monostate, internal::PosixSemaphore, internal::SysVSemaphore> m_kindStore;
  // The anonymous kind's storage, which the wake-up aims at.
  struct {
    sem_t sem;
  } m_anonymous{};
};

// The semaphore's own part of attaching to and detaching from its block.
class semaphore_handle::NamedSteps final : public internal::NamedObjectSteps {
 public:
  NamedSteps(semaphore_handle& owner, bool bManageByOS, int intInitialCount)
      : m_owner(owner), m_bManageByOS(bManageByOS), m_intInitialCount(intInitialCount) {}

  const SemaphoreLayout& layout() const { return m_bManageByOS ? kSysVLayout : kPosixLayout; }

  // The set is keyed by the block's own file, so it exists once the manager
  // has created the block and before anybody initialises it.
  bool beforeOpen() override { return internal::SysV::keyOfBlock(m_owner.m_strSemaphoreName, "semaphore", m_key); }

  void bind(unsigned char* block) override {
    m_block = block;
    if (m_bManageByOS)
      m_owner.choose<internal::SysVSemaphore>(setId(), internal::kSemaphoreMessagePrefix, &m_owner.m_bUndoTrack);
    else
      m_owner.choosePosix(reinterpret_cast<sem_t*>(block + Block::kSemaphoreAt));
  }

  void initialise() override {
    if (m_bManageByOS) {
      *setId() = internal::SysV::createSet(m_key, m_owner.m_strSemaphoreName);
      internal::SysV::setSemVal(*setId(), m_intInitialCount);
    } else {
      sem_init(reinterpret_cast<sem_t*>(m_block + Block::kSemaphoreAt), 1,
               static_cast<unsigned int>(m_intInitialCount));
    }
    // Written here so that every process can tell the kind from the block.
    *reinterpret_cast<bool*>(m_block + layout().kindFlag) = m_bManageByOS;
  }

  void finalise() override { m_owner.m_pKind->destroy(); }

 private:
  int* setId() const { return reinterpret_cast<int*>(m_block + Block::kSemaphoreAt); }

  semaphore_handle& m_owner;
  bool m_bManageByOS;
  int m_intInitialCount;
  key_t m_key = -1;
  unsigned char* m_block = nullptr;
};

semaphore_handle::semaphore_handle(int intInitialCount, RT_MODE mode, const char* strSemaphoreName, bool bManageByOS)
    : m_RtMode(internal::storedMode(mode)) {
  // Every refusal leaves the kind unset: an unattached handle whose waits fail.
  if (strSemaphoreName != nullptr && strlen(strSemaphoreName) > internal::kMaxObjectNameLength) return;
  if (strSemaphoreName != nullptr && bManageByOS && internal::isRealTime(mode)) {
    puts("semaphore_handle can not work in rt mode while named semaphore is managed by os.");
    return;
  }

  if (strSemaphoreName != nullptr) {
    m_strSemaphoreName = strSemaphoreName;
    NamedSteps steps(*this, bManageByOS, intInitialCount);
    m_pSemaphoreShareMemory = internal::attachSameKind(m_strSemaphoreName, steps.layout().size, steps);
    // bind() may have run before a later step refused the block.
    if (m_pSemaphoreShareMemory == nullptr) unattach();
    return;
  }

  // A count the system refuses (negative or above SEM_VALUE_MAX) leaves the
  // handle unattached rather than holding an uninitialised semaphore.
  if (sem_init(&m_anonymous.sem, 0, static_cast<unsigned int>(intInitialCount)) != 0) return;
  choosePosix(&m_anonymous.sem);
}

// The last detach on the machine removes the semaphore (see NamedSteps::finalise).
semaphore_handle::~semaphore_handle() {
  if (m_pSemaphoreShareMemory != nullptr) {
    NamedSteps steps(*this, false, 0);
    internal::detachNamedObject(m_strSemaphoreName, m_pSemaphoreShareMemory, steps);
  } else if (attached()) {
    m_pKind->destroy();
  }
  unattach();
}

semaphore_handle* internal::createSemaphore(int intInitialCount, RT_MODE mode, const char* strSemaphoreName,
                                            bool bManageByOS) {
  return new semaphore_handle(intInitialCount, mode, strSemaphoreName, bManageByOS);
}

semaphore_handle* os_semaphore_create(int intInitialCount, RT_MODE mode, const char* strSemaphoreName) {
  return internal::createSemaphore(intInitialCount, mode, strSemaphoreName, false);
}

void os_semaphore_destroy(semaphore_handle*& handle) { internal::destroyHandle(handle); }

bool os_semaphore_set_undo_track(semaphore_handle* handle, bool bUndoTrack) {
  if (handle == nullptr) return false;
  handle->setUndoTrack(bUndoTrack);
  return true;
}

bool os_semaphore_wait(semaphore_handle* handle) {
  return handle != nullptr && handle->wait(internal::Deadline::never());
}

bool os_semaphore_wait_timeout(semaphore_handle* handle, timespec timeout) {
  return handle != nullptr && handle->wait(internal::Deadline::at(timeout));
}

void os_semaphore_release(semaphore_handle* handle) {
  if (handle != nullptr) handle->release();
}

int os_semaphore_get_value(semaphore_handle* handle) { return handle != nullptr ? handle->value() : -1; }

bool os_semaphore_is_attached(const semaphore_handle* handle) { return handle != nullptr && handle->attached(); }
