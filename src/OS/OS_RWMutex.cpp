// Reader/writer mutexes, anonymous and named. Kill rule: every byte after the
// attach count (counts, holder table, allow word) is written only under the
// robust ref mutex, so a holder killed at any instruction leaves a table that
// the next taker repairs; its share is given back at the next sweep of dead
// holders (registry tokens), and a waiter never waits longer than one sweep slice.

#include <ostrelled/OS_RWMutex.h>

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/MutexHandle.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"
#include "OS/internal/RobustMutex.h"
#include "OS/internal/SyncPrimitives.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

namespace {

// Named block: laid out as internal::RWMutexBlock (internal/BlockLayouts.h);
// the requested size is kept and nothing is stored past it.
// Resource access, a semaphore once, is implied by the counts under the ref
// mutex; its slot now records who holds the lock, so that the share of a
// holder that died can be given back. Holders are recorded by their process's
// registry token (internal/Liveness.h), which the kernel vouches for across
// PID namespaces and which is never reused; a process id would be neither.
// A holder without a token (a full registry) is recorded as untracked and is
// never judged gone.
using Block = internal::RWMutexBlock;

using internal::ProcessToken;

struct ReaderEntry {
  ProcessToken token;  // 0: free
  uint32_t count;
};
constexpr int kReadersBeforeWord = (Block::kUntrackedAt - Block::kReadersAt) / sizeof(ReaderEntry);
constexpr int kTrackedReaders = kReadersBeforeWord + (Block::kSize - Block::kMoreReadersAt) / sizeof(ReaderEntry);
static_assert(Block::kWriteFlagAt == Block::kReadCountAt + sizeof(unsigned int), "bind takes the two counts as a pair");
static_assert(kTrackedReaders == OS_RW_MUTEX_TRACKED_READERS, "the header states the table's size");

// The holders recorded in a named block: the writer's token and the readers by
// process. All of it is read and written under the ref mutex.
class Holders {
 public:
  explicit Holders(unsigned char* block) : m_block(block) {}

  ProcessToken& writer() const { return field<ProcessToken>(Block::kWriterAt); }
  uint32_t& untracked() const { return field<uint32_t>(Block::kUntrackedAt); }
  ReaderEntry& reader(int i) const {
    unsigned int at = i < kReadersBeforeWord ? Block::kReadersAt + i * sizeof(ReaderEntry)
                                             : Block::kMoreReadersAt + (i - kReadersBeforeWord) * sizeof(ReaderEntry);
    return field<ReaderEntry>(at);
  }

  // The entry of token, or a free one when `claim`; -1 when there is none.
  int find(ProcessToken token, bool claim, int hint) const {
    if (hint >= 0 && reader(hint).token == token) return hint;
    int free = -1;
    for (int i = 0; i < kTrackedReaders; ++i) {
      if (reader(i).token == token) return i;
      if (free < 0 && reader(i).token == internal::kNoProcess) free = i;
    }
    return claim ? free : -1;
  }

 private:
  template <class T>
  T& field(unsigned int at) const {
    return *reinterpret_cast<T*>(m_block + at);
  }
  unsigned char* m_block;
};

}  // namespace

// One pointer to a counter, in the block or in the handle.
union ref_handle {
  unsigned int* m_pCount;
};

// Two counters under a ref mutex and a condition on which blocked lockers
// wait. In the handle for one process's threads, or in a named block for
// several processes, where the holders are recorded beside the counts.
class rw_mutex_handle {
 public:
  rw_mutex_handle(RT_MODE mode, const char* strMutexName);
  ~rw_mutex_handle();
  rw_mutex_handle(const rw_mutex_handle&) = delete;
  rw_mutex_handle& operator=(const rw_mutex_handle&) = delete;

  bool attached() const { return m_pRefMutex != nullptr; }
  // deadline: never() to wait as long as needed, a passed one to try once. A
  // locker that gives up has changed nothing.
  bool lock(bool asWriter, const internal::Deadline& deadline);
  void unlockOnPosix();

 private:
  class NamedSteps;

  void createThreadRWMutexOnPosix();
  void createProcessRWMutexOnPosix(const char* strMutexName);
  void bind(unsigned char* counts, pthread_mutex_t* refMutex, uint32_t* word, bool processShared);
  void nullPointers();

  unsigned int& readCount() { return *m_RefRead.m_pCount; }
  unsigned int& writeFlag() { return *m_RefWrite.m_pCount; }
  bool blocked(bool asWriter) { return writeFlag() != 0 || (asWriter && readCount() != 0); }
  bool lockRef();
  bool waitAllowed(const internal::Deadline& deadline);
  void enter(bool asWriter);
  void leaveAsReader();
  bool sweepDead();
  void repair();

  ref_handle m_RefRead;   // readers inside
  ref_handle m_RefWrite;  // 1 while the writer is inside
  std::string m_strMutexName;
  sharememory_handle* m_pMutexShareMemory = nullptr;
  pthread_mutex_t* m_pRefMutex = nullptr;            // guards everything else; robust in a block
  internal::FutexCondition m_allow{nullptr, false};  // broadcast whenever the lock becomes free
  unsigned char* m_pHolders = nullptr;               // the named block, where holders are recorded; null for threads
  internal::ProcessRegistry* m_pRegistry = nullptr;  // judges the holders' tokens; null: none
  ProcessToken ownToken() { return m_pRegistry != nullptr ? m_pRegistry->own() : internal::kUntrackedProcess; }
  bool gone(ProcessToken token) { return m_pRegistry != nullptr && m_pRegistry->gone(token); }
  int m_intReaderHint = -1;  // this process's reader entry, last seen
  RT_MODE m_RtMode;
  // The thread variant's storage, which the pointers above aim at.
  struct {
    unsigned int counts[2];
    pthread_mutex_t refMutex;
    uint32_t word;
  } m_anonymous{};
};

// The reader/writer mutex's own part of attaching to and detaching from its block.
class rw_mutex_handle::NamedSteps final : public internal::NamedObjectSteps {
 public:
  explicit NamedSteps(rw_mutex_handle& owner) : m_owner(owner) {}

  void bind(unsigned char* block) override {
    m_owner.bind(block + Block::kReadCountAt, reinterpret_cast<pthread_mutex_t*>(block + Block::kRefMutexAt),
                 reinterpret_cast<uint32_t*>(block + Block::kAllowWordAt), true);
    m_owner.m_pHolders = block;
    m_owner.m_pRegistry = internal::latestRegistry();
  }

  // The holders and the futex word start as the manager's zero fill left them.
  void initialise() override {
    m_owner.readCount() = 0;
    m_owner.writeFlag() = 0;
    internal::initMutex(m_owner.m_pRefMutex, PTHREAD_MUTEX_NORMAL, false, true);
  }

  void finalise() override {
    pthread_mutex_destroy(m_owner.m_pRefMutex);
    m_owner.readCount() = 0;
    m_owner.writeFlag() = 0;
  }

 private:
  rw_mutex_handle& m_owner;
};

rw_mutex_handle::rw_mutex_handle(RT_MODE mode, const char* strMutexName) : m_RtMode(internal::storedMode(mode)) {
  nullPointers();
  if (strMutexName != nullptr && strlen(strMutexName) > internal::kMaxObjectNameLength) return;
  if (strMutexName != nullptr)
    createProcessRWMutexOnPosix(strMutexName);
  else
    createThreadRWMutexOnPosix();
}

rw_mutex_handle::~rw_mutex_handle() {
  if (m_pMutexShareMemory != nullptr) {
    NamedSteps steps(*this);
    internal::detachNamedObject(m_strMutexName, m_pMutexShareMemory, steps);
  } else if (attached()) {
    pthread_mutex_destroy(m_pRefMutex);
  }
  nullPointers();
}

void rw_mutex_handle::nullPointers() {
  m_RefRead.m_pCount = nullptr;
  m_RefWrite.m_pCount = nullptr;
  m_pRefMutex = nullptr;
  m_pHolders = nullptr;
  m_pRegistry = nullptr;
}

void rw_mutex_handle::bind(unsigned char* counts, pthread_mutex_t* refMutex, uint32_t* word, bool processShared) {
  m_RefRead.m_pCount = reinterpret_cast<unsigned int*>(counts);
  m_RefWrite.m_pCount = reinterpret_cast<unsigned int*>(counts) + 1;
  m_pRefMutex = refMutex;
  m_allow = internal::FutexCondition(word, processShared);
}

void rw_mutex_handle::createThreadRWMutexOnPosix() {
  bind(reinterpret_cast<unsigned char*>(m_anonymous.counts), &m_anonymous.refMutex, &m_anonymous.word, false);
  internal::initMutex(m_pRefMutex, PTHREAD_MUTEX_NORMAL, false, false);
}

// A refused attach leaves every pointer null, and each operation then does nothing.
void rw_mutex_handle::createProcessRWMutexOnPosix(const char* strMutexName) {
  m_strMutexName = strMutexName;
  NamedSteps steps(*this);
  m_pMutexShareMemory = internal::attachNamedObject(m_strMutexName, Block::kSize, steps);
  if (m_pMutexShareMemory == nullptr) nullPointers();
}

// A holder that died inside the ref mutex may have left a record half-written.
bool rw_mutex_handle::lockRef() {
  internal::Locked locked = internal::lockKeepingRepaired(m_pRefMutex);
  if (locked == internal::Locked::Repaired) repair();
  return locked != internal::Locked::Failed;
}

// After a holder died inside the ref mutex: its record may be half-written.
void rw_mutex_handle::repair() {
  sweepDead();
  m_allow.broadcast();
}

// Makes the counts agree with the recorded holders (every change keeps them
// agreed under the ref mutex, so a difference is damage), then gives back the
// shares of the dead. True when that freed something (the others are woken then).
bool rw_mutex_handle::sweepDead() {
  if (m_pHolders == nullptr) return false;
  Holders holders(m_pHolders);
  // Readers beyond the table cannot be checked; at most the count can be believed.
  if (holders.untracked() > readCount()) holders.untracked() = readCount();
  unsigned int readers = holders.untracked(), writer = writeFlag();
  if (holders.writer() != internal::kNoProcess && gone(holders.writer())) holders.writer() = internal::kNoProcess;
  writeFlag() = holders.writer() != internal::kNoProcess ? 1 : 0;
  for (int i = 0; i < kTrackedReaders; ++i) {
    ReaderEntry& entry = holders.reader(i);
    if (entry.token == internal::kNoProcess || entry.count == 0 || gone(entry.token)) entry = ReaderEntry{0, 0};
    readers += entry.count;
  }
  bool freed = readers < readCount() || writeFlag() < writer;
  readCount() = readers;
  if (freed) m_allow.broadcast();
  return freed;
}

// Sleeps until a broadcast, the deadline or (named) the next sweep. False
// when the ref mutex could not be retaken.
bool rw_mutex_handle::waitAllowed(const internal::Deadline& deadline) {
  internal::Locked locked =
      m_allow.wait(m_pRefMutex, m_pHolders != nullptr ? internal::sliceDeadline(deadline) : deadline);
  if (locked == internal::Locked::Repaired) repair();
  return locked != internal::Locked::Failed;
}

bool rw_mutex_handle::lock(bool asWriter, const internal::Deadline& deadline) {
  if (!attached() || !lockRef()) return false;
  // A waiting writer is recorded nowhere, so it never holds readers back,
  // and one that gives up leaves nothing to undo.
  while (blocked(asWriter)) {
    if (sweepDead()) continue;
    if (deadline.passed()) {
      pthread_mutex_unlock(m_pRefMutex);
      return false;
    }
    if (!waitAllowed(deadline)) return false;  // the ref mutex is not ours to unlock
  }
  enter(asWriter);
  pthread_mutex_unlock(m_pRefMutex);
  return true;
}

void rw_mutex_handle::enter(bool asWriter) {
  if (asWriter) {
    writeFlag() = 1;
    if (m_pHolders != nullptr) Holders(m_pHolders).writer() = ownToken();
    return;
  }
  ++readCount();
  if (m_pHolders == nullptr) return;
  Holders holders(m_pHolders);
  ProcessToken me = ownToken();
  int entry = me == internal::kUntrackedProcess ? -1 : holders.find(me, true, m_intReaderHint);
  // Beyond the table a reader still gets in, but its death cannot be repaired.
  if (entry < 0) {
    ++holders.untracked();
    return;
  }
  m_intReaderHint = entry;
  holders.reader(entry).token = me;
  ++holders.reader(entry).count;
}

// The last reader out may be another process than the first one in: then a
// share of some other record goes, so that the records keep adding up to the count.
void rw_mutex_handle::leaveAsReader() {
  --readCount();
  if (m_pHolders == nullptr) return;
  Holders holders(m_pHolders);
  int entry = holders.find(ownToken(), false, m_intReaderHint);
  if (entry < 0 && holders.untracked() > 0) {
    --holders.untracked();
    return;
  }
  for (int i = 0; entry < 0 && i < kTrackedReaders; ++i)
    if (holders.reader(i).count != 0) entry = i;
  if (entry < 0) return;
  if (--holders.reader(entry).count == 0) holders.reader(entry).token = internal::kNoProcess;
}

// One call serves a reader and the writer: the counts tell which one leaves.
// An unattached handle, or one that holds nothing, has nothing to release.
void rw_mutex_handle::unlockOnPosix() {
  if (!attached() || !lockRef()) return;
  bool readerLeft = readCount() != 0;
  if (readerLeft) leaveAsReader();
  // The lock is free once the last reader or the writer leaves: everyone
  // waiting looks at the counts again.
  if (readerLeft ? readCount() == 0 : writeFlag() == 1) {
    writeFlag() = 0;
    if (m_pHolders != nullptr) Holders(m_pHolders).writer() = internal::kNoProcess;
    m_allow.broadcast();
  }
  pthread_mutex_unlock(m_pRefMutex);
}

rw_mutex_handle* os_rw_mutex_create(RT_MODE mode, const char* strMutexName) {
  return new rw_mutex_handle(mode, strMutexName);
}

void os_rw_mutex_destroy(rw_mutex_handle*& handle) { internal::destroyHandle(handle); }

void os_rw_mutex_lock_rd(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->lock(false, internal::Deadline::never());
}

void os_rw_mutex_lock_wr(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->lock(true, internal::Deadline::never());
}

void os_rw_mutex_unlock(rw_mutex_handle* handle) {
  if (handle != nullptr) handle->unlockOnPosix();
}

namespace {
// A try is a lock until a deadline long past.
internal::Deadline tryOnce() { return internal::Deadline::at(timespec{0, 0}); }
}  // namespace

bool os_rw_mutex_trylock_rd(rw_mutex_handle* handle) { return handle != nullptr && handle->lock(false, tryOnce()); }

bool os_rw_mutex_trylock_wr(rw_mutex_handle* handle) { return handle != nullptr && handle->lock(true, tryOnce()); }

bool os_rw_mutex_lock_rd_timeout(rw_mutex_handle* handle, timespec deadline) {
  return handle != nullptr && handle->lock(false, internal::Deadline::at(deadline));
}

bool os_rw_mutex_lock_wr_timeout(rw_mutex_handle* handle, timespec deadline) {
  return handle != nullptr && handle->lock(true, internal::Deadline::at(deadline));
}

bool os_rw_mutex_is_attached(const rw_mutex_handle* handle) { return handle != nullptr && handle->attached(); }
