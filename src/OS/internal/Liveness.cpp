// The registry of live processes. Kill rule: a process's liveness is its
// open-file-description lock on its slot's byte, which the kernel drops with
// the process's last descriptor, whatever instruction it was killed at; the
// slot's token is written once, under that lock, and tokens are never reused,
// so a reader may trust "gone" and treat "unknown" as alive.

#include "OS/internal/Liveness.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/ManagedAccess.h"
#include "OS/internal/Private.h"

namespace ostrelled {
namespace internal {

namespace {

// The registry file: a header, then one slot per token residue. A slot's
// byte range is also what its owner locks.
struct Header {
  uint32_t magic;
  uint32_t version;
  uint32_t capacity;
  uint32_t nextToken;  // handed out by atomic increment; 0 and ~0 are skipped
};
struct Slot {
  uint32_t token;  // written by the owner after it took the lock, never before
  uint32_t pid;    // labels for people and the inspection tool only
  uint64_t pidNamespace;
};
constexpr uint32_t kMagic = 0x4f535247;  // "GRSO" in the file
constexpr uint32_t kVersion = 1;
constexpr size_t kRegistrySize = sizeof(Header) + size_t{kRegistryCapacity} * sizeof(Slot);
static_assert(sizeof(Slot) == 16, "slots are 16 bytes");

const std::string& registryPath() {
  static const std::string path = shmPath(kRegistryName);
  return path;
}

off_t slotOffset(ProcessToken token) {
  return static_cast<off_t>(sizeof(Header) + (token % kRegistryCapacity) * sizeof(Slot));
}

// One byte of the slot is the lock; F_OFD_* locks belong to the open file
// description, shared by the threads, dropped when the last descriptor closes.
struct flock slotLock(ProcessToken token, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = slotOffset(token);
  lock.l_len = 1;
  return lock;
}

// Whether the open file is a registry of this layout; st describes it after.
bool validRegistry(int fd, struct stat& st) {
  Header header{};
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) == kRegistrySize &&
         pread(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) && header.magic == kMagic &&
         header.version == kVersion && header.capacity == kRegistryCapacity;
}

bool validRegistryAt(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  struct stat st;
  bool valid = validRegistry(fd, st);
  close(fd);
  return valid;
}

}  // namespace

struct ProcessRegistry::State {
  dev_t device = 0;
  ino_t inode = 0;
  unsigned char* map = nullptr;
  int fd = -1;            // holds this process's lock; -1 after a fork until rejoined
  bool writable = false;  // false: this process may check, not join
  std::atomic<ProcessToken> token{kNoProcess};
  ProcessRegistry face{this};

  Header* header() const { return reinterpret_cast<Header*>(map); }
  Slot* slot(ProcessToken t) const { return reinterpret_cast<Slot*>(map + slotOffset(t)); }
  bool reopen();
  ProcessToken join();
  // Whether fd still is this registry: a program may close descriptors it
  // did not open, and the number may then name another file.
  bool fdIsOurs() const {
    struct stat st;
    return fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == device && st.st_ino == inode;
  }
};

namespace {

// Registries are kept for the life of the process, also through its exit:
// handles point at them.
std::mutex gRegistriesLock;
std::vector<ProcessRegistry::State*>& gRegistries = *new std::vector<ProcessRegistry::State*>;
std::atomic<ProcessRegistry*> gLatest{nullptr};
std::atomic<uint64_t> gOwnPidNamespace{~uint64_t{0}};

// A forked child is another process: the descriptors it inherited share the
// parent's locks, so each is replaced by a new open of the same file (or
// closed, to be reopened by name), and the child joins anew when it needs to.
void afterForkInChild() {
  gOwnPidNamespace = ~uint64_t{0};
  for (ProcessRegistry::State* state : gRegistries) {
    state->token = kNoProcess;
    if (state->fd < 0 || !state->writable) continue;
    char self[48];
    snprintf(self, sizeof self, "/proc/self/fd/%d", state->fd);
    int fresh = open(self, O_RDWR | O_CLOEXEC);
    if (fresh < 0 || dup3(fresh, state->fd, O_CLOEXEC) < 0) {
      close(state->fd);
      state->fd = -1;
    }
    if (fresh >= 0 && fresh != state->fd) close(fresh);
  }
  gRegistriesLock.unlock();
}

void registerForkHandlers() {
  static const bool registered =
      (pthread_atfork([] { gRegistriesLock.lock(); }, [] { gRegistriesLock.unlock(); }, afterForkInChild), true);
  (void)registered;
}

// Out of the low numbers that programs close or reuse by habit.
int toHighNumber(int fd) {
  int high = fcntl(fd, F_DUPFD_CLOEXEC, 512);
  if (high < 0) return fd;
  close(fd);
  return high;
}

// The file behind a descriptor, mapped, if it is a registry; read-only when
// the caller may not write it (such a process checks, but cannot join).
ProcessRegistry::State* mapRegistry(int fd, bool writable) {
  struct stat st;
  if (!validRegistry(fd, st)) return nullptr;
  void* map = mmap(nullptr, kRegistrySize, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return nullptr;
  auto* state = new ProcessRegistry::State;
  fd = toHighNumber(fd);
  state->device = st.st_dev;
  state->inode = st.st_ino;
  state->map = static_cast<unsigned char*>(map);
  state->fd = fd;
  state->writable = writable;
  return state;
}

int openRegistryFile(bool& writable) {
  int fd = open(registryPath().c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  writable = fd >= 0;
  if (fd < 0 && errno == EACCES) fd = open(registryPath().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  return fd;
}

}  // namespace

// After a fork without /proc: the registry again by name, if it is the same file.
bool ProcessRegistry::State::reopen() {
  if (fd >= 0) return true;
  int again = open(registryPath().c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  struct stat st;
  if (again >= 0 && fstat(again, &st) == 0 && st.st_dev == device && st.st_ino == inode) {
    fd = toHighNumber(again);
    return true;
  }
  if (again >= 0) close(again);
  return false;
}

// Takes the first free slot from the next token on. Every token is tried at
// most once, so a full registry costs one pass and leaves the process untracked.
ProcessToken ProcessRegistry::State::join() {
  if (!writable || !reopen()) return kUntrackedProcess;
  for (uint32_t attempt = 0; attempt < kRegistryCapacity; ++attempt) {
    ProcessToken candidate = __atomic_add_fetch(&header()->nextToken, 1, __ATOMIC_RELAXED);
    if (candidate == kNoProcess || candidate == kUntrackedProcess) continue;
    struct flock lock = slotLock(candidate, F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
      if (errno == EAGAIN || errno == EACCES) continue;
      return kUntrackedProcess;
    }
    Slot* mine = slot(candidate);
    mine->pid = static_cast<uint32_t>(getpid());
    mine->pidNamespace = ownPidNamespace();
    __atomic_store_n(&mine->token, candidate, __ATOMIC_RELEASE);
    return candidate;
  }
  return kUntrackedProcess;
}

void ProcessRegistry::renewIfLost() {
  if (m_state->token.load(std::memory_order_acquire) == kNoProcess || !m_state->writable) return;
  ErrnoGuard keep;
  if (m_state->fdIsOurs()) return;
  // Closed behind the library's back: the lock, and with it the token, are
  // gone; the number may be another file's now, so it is left alone.
  std::lock_guard<std::mutex> hold(gRegistriesLock);
  m_state->fd = -1;
  m_state->token.store(kNoProcess, std::memory_order_release);
}

ProcessToken ProcessRegistry::own() {
  ProcessToken token = m_state->token.load(std::memory_order_acquire);
  if (__builtin_expect(token != kNoProcess, 1)) return token;
  std::lock_guard<std::mutex> hold(gRegistriesLock);
  token = m_state->token.load(std::memory_order_relaxed);
  if (token == kNoProcess) {
    ErrnoGuard keep;
    token = m_state->join();
    m_state->token.store(token, std::memory_order_release);
  }
  return token;
}

// The slot is read before the lock is looked at: a live owner wrote its token
// after it took the lock, so a matching token with a free lock means the
// owner has gone. A new owner between its lock and its write reads as the old
// one alive, for that moment only.
Presence ProcessRegistry::presence(ProcessToken token) {
  ErrnoGuard keep;
  if (token == kNoProcess) return Presence::Gone;
  if (token == kUntrackedProcess) return Presence::Unknown;
  if (token == m_state->token.load(std::memory_order_acquire)) return Presence::Alive;
  if (__atomic_load_n(&m_state->slot(token)->token, __ATOMIC_ACQUIRE) != token) return Presence::Gone;
  int fd = m_state->fd;
  if (fd < 0) {
    std::lock_guard<std::mutex> hold(gRegistriesLock);
    if (!m_state->reopen()) return Presence::Unknown;
    fd = m_state->fd;
  }
  struct flock lock = slotLock(token, F_WRLCK);
  if (fcntl(fd, F_OFD_GETLK, &lock) != 0) return Presence::Unknown;
  if (lock.l_type != F_UNLCK) return Presence::Alive;
  // A free lock is asked of this very file only.
  return m_state->fdIsOurs() ? Presence::Gone : Presence::Unknown;
}

void ProcessRegistry::forEachLive(const std::function<void(ProcessToken, pid_t, uint64_t)>& visit) {
  for (uint32_t i = 0; i < kRegistryCapacity; ++i) {
    const Slot* slot = reinterpret_cast<const Slot*>(m_state->map + sizeof(Header) + i * sizeof(Slot));
    ProcessToken token = __atomic_load_n(&slot->token, __ATOMIC_ACQUIRE);
    if (token == kNoProcess || presence(token) != Presence::Alive) continue;
    visit(token, static_cast<pid_t>(slot->pid), slot->pidNamespace);
  }
}

ProcessRegistry* findOrOpenRegistry() {
  struct stat st;
  if (stat(registryPath().c_str(), &st) != 0) return nullptr;
  std::lock_guard<std::mutex> hold(gRegistriesLock);
  for (ProcessRegistry::State* state : gRegistries)
    if (state->device == st.st_dev && state->inode == st.st_ino) return &state->face;
  bool writable = false;
  int fd = openRegistryFile(writable);
  if (fd < 0) return nullptr;
  ProcessRegistry::State* state = mapRegistry(fd, writable);
  if (state == nullptr) {
    close(fd);
    return nullptr;
  }
  gRegistries.push_back(state);
  return &state->face;
}

// Whatever fails, the registry of an earlier manager is not used further: its
// tokens say nothing of the processes of the names that are there now.
ProcessRegistry* currentRegistry() {
  ErrnoGuard keep;
  registerForkHandlers();
  ProcessRegistry* found = findOrOpenRegistry();
  gLatest = found;
  return found;
}

ProcessRegistry* latestRegistry() { return gLatest.load(std::memory_order_acquire); }

// A registry of a manager that died is kept: its tokens still describe the
// processes that hold objects. A new one is made complete under a name of its
// own and only then linked under the registry's name, so that no process ever
// maps one half-made, and one in use is never truncated.
bool createRegistry(mode_t mode) {
  if (validRegistryAt(registryPath().c_str())) return true;
  char draft[96];
  snprintf(draft, sizeof draft, "%s.%d", kRegistryName, static_cast<int>(getpid()));
  int fd = shm_open(draft, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, managedCreateMode(mode));
  if (fd < 0) return false;
  Header header{kMagic, kVersion, kRegistryCapacity, 0};
  // Every page backed now: on a full /dev/shm a join would otherwise die of SIGBUS.
  bool made = applyManagedAccess(fd) && ftruncate(fd, static_cast<off_t>(kRegistrySize)) == 0 &&
              posix_fallocate(fd, 0, static_cast<off_t>(kRegistrySize)) == 0 &&
              pwrite(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
  close(fd);
  std::string draftPath = shmPath(draft);
  if (made && link(draftPath.c_str(), registryPath().c_str()) != 0) {
    // Another manager was quicker, or an invalid file is in the way.
    if (!validRegistryAt(registryPath().c_str())) made = rename(draftPath.c_str(), registryPath().c_str()) == 0;
  }
  shm_unlink(draft);
  return made;
}

void removeRegistry() { shm_unlink(kRegistryName); }

uint64_t ownPidNamespace() {
  uint64_t known = gOwnPidNamespace.load(std::memory_order_relaxed);
  if (known != ~uint64_t{0}) return known;
  struct stat st;
  uint64_t inode = stat("/proc/self/ns/pid", &st) == 0 ? static_cast<uint64_t>(st.st_ino) : 0;
  gOwnPidNamespace.store(inode, std::memory_order_relaxed);
  return inode;
}

}  // namespace internal
}  // namespace ostrelled
