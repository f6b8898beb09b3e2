#ifndef OSTRELLED_SRC_OS_INTERNAL_BLOCKLAYOUTS_H
#define OSTRELLED_SRC_OS_INTERNAL_BLOCKLAYOUTS_H

// The bytes of every named kind's block under /dev/shm, and the file names the
// system gives blocks and named semaphores; header-only. The library, the
// inspection tool and the tests read offsets and names from here and nowhere
// else: a block is shared by every process and every version that maps it, so
// its layout is a contract, held by the static_asserts below.

#include <pthread.h>
#include <semaphore.h>

#include <string>

namespace ostrelled {
namespace internal {

// Every block opens with the machine-wide attach count (unsigned int),
// changed only by the manager's requests under the request lock.
constexpr unsigned int kAttachCountAt = 0;

// A named mutex: the count, then one robust pthread mutex, unpadded.
struct MutexBlock {
  static constexpr unsigned int kMutexAt = 4;
  static constexpr unsigned int kSize = kMutexAt + sizeof(pthread_mutex_t);
};
static_assert(MutexBlock::kSize == 44, "a named mutex block is the count and one pthread mutex");

// A named reader/writer mutex; everything after the count is guarded by the
// ref mutex: 4 read count, 8 write flag, 12..52 ref mutex (robust), 52 the
// writer's registry token (0: none), 56..88 four reader entries (token,
// count), 88 readers beyond the table (untracked), 92 the allow condition's
// futex word, 96..136 five more reader entries.
struct RWMutexBlock {
  static constexpr unsigned int kReadCountAt = 4;
  static constexpr unsigned int kWriteFlagAt = 8;
  static constexpr unsigned int kRefMutexAt = 12;
  static constexpr unsigned int kWriterAt = 52;
  static constexpr unsigned int kReadersAt = 56;
  static constexpr unsigned int kUntrackedAt = 88;
  static constexpr unsigned int kAllowWordAt = 92;
  static constexpr unsigned int kMoreReadersAt = 96;
  static constexpr unsigned int kSize = 136;
};
static_assert(RWMutexBlock::kRefMutexAt + sizeof(pthread_mutex_t) == RWMutexBlock::kWriterAt,
              "the ref mutex ends where the holders begin");

// A named semaphore: the count, the semaphore at 4 (a process-shared sem_t,
// or the System V set's id), the kind flag last (1: System V).
struct SemaphoreBlock {
  static constexpr unsigned int kSemaphoreAt = 4;
  static constexpr unsigned int kPosixSize = 37;
  static constexpr unsigned int kPosixKindFlagAt = 36;
  static constexpr unsigned int kSysVSize = 9;
  static constexpr unsigned int kSysVKindFlagAt = 8;
};
static_assert(SemaphoreBlock::kSemaphoreAt + sizeof(sem_t) == SemaphoreBlock::kPosixKindFlagAt,
              "the kind flag follows the sem_t");

// A named event: the count, the mutex at 4, the wake-up primitive at 44 (the
// condition kind's 48 bytes begin with its futex word), then four one-byte
// flags in this order: manual reset, set, managed by the system, use the
// condition. The size and the flags' place depend on the wake-up kind.
struct EventBlock {
  static constexpr unsigned int kMutexAt = 4;
  static constexpr unsigned int kWakeupAt = 44;
  struct Kind {
    unsigned int size;
    unsigned int flagsAt;
  };
  static constexpr Kind kCondition{96, 92};
  static constexpr Kind kPosix{80, 76};
  static constexpr Kind kSysV{52, 48};
  static constexpr unsigned int kManualResetFlag = 0, kSetFlag = 1, kManagedFlag = 2, kConditionFlag = 3;
};
static_assert(EventBlock::kMutexAt + sizeof(pthread_mutex_t) == EventBlock::kWakeupAt,
              "the wake-up primitive follows the mutex");

// Each kind as an outsider tells it from the file alone: by its size, then,
// once the block is in use, by one-byte flags that read 0 or 1 and a kind flag
// (at -1: none) that must read `kindFlag`.
struct BlockKind {
  const char* name;
  unsigned int size;
  int flagsAt[3];
  int kindFlagAt;
  unsigned char kindFlag;
};
constexpr int at(unsigned int offset) { return static_cast<int>(offset); }
constexpr int eventFlag(EventBlock::Kind kind, unsigned int flag) { return at(kind.flagsAt + flag); }
constexpr BlockKind eventKind(const char* name, EventBlock::Kind kind, unsigned int kindFlag, bool value) {
  return {name,
          kind.size,
          {eventFlag(kind, EventBlock::kManualResetFlag), eventFlag(kind, EventBlock::kManagedFlag),
           eventFlag(kind, EventBlock::kConditionFlag)},
          eventFlag(kind, kindFlag),
          static_cast<unsigned char>(value)};
}
constexpr BlockKind kBlockKinds[] = {
    {"mutex", MutexBlock::kSize, {-1, -1, -1}, -1, 0},
    {"rw-mutex", RWMutexBlock::kSize, {at(RWMutexBlock::kWriteFlagAt), -1, -1}, -1, 0},
    {"semaphore/posix",
     SemaphoreBlock::kPosixSize,
     {at(SemaphoreBlock::kPosixKindFlagAt), -1, -1},
     at(SemaphoreBlock::kPosixKindFlagAt),
     0},
    {"semaphore/system-v",
     SemaphoreBlock::kSysVSize,
     {at(SemaphoreBlock::kSysVKindFlagAt), -1, -1},
     at(SemaphoreBlock::kSysVKindFlagAt),
     1},
    eventKind("event/condition", EventBlock::kCondition, EventBlock::kConditionFlag, true),
    eventKind("event/posix", EventBlock::kPosix, EventBlock::kManagedFlag, false),
    eventKind("event/system-v", EventBlock::kSysV, EventBlock::kManagedFlag, true),
};

// Where the system keeps shared-memory objects and named semaphores.
constexpr char kShmFolder[] = "/dev/shm/";
// A name as shm_open and sem_open take it may start with one slash; the file
// goes without it.
inline const char* withoutSlash(const char* name) { return name[0] == '/' ? name + 1 : name; }
// The file under /dev/shm of a shared-memory object's name.
inline std::string shmPath(const char* name) { return kShmFolder + std::string(withoutSlash(name)); }
inline std::string shmPath(const std::string& name) { return shmPath(name.c_str()); }
// The file name a named semaphore "/x" has under /dev/shm: "sem.x".
constexpr const char* kSemaphoreFilePrefix = "sem.";
inline std::string semaphoreFileName(const char* name) {
  return kSemaphoreFilePrefix + std::string(withoutSlash(name));
}
inline std::string semaphorePath(const char* name) { return kShmFolder + semaphoreFileName(name); }

}  // namespace internal
}  // namespace ostrelled

#endif
