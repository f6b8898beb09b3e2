// The attach/detach procedure of every named object. Kill rule: all of it runs
// under the machine-wide request lock, so a process killed at any instruction
// leaves either its whole attach or none; what it held is released by the
// robust lock, and a count it kept is left as "stale" for ostrelled-ctl. The
// attach count (the block's first 4 bytes) is read and written only here, under that lock.

#include "OS/internal/NamedObject.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/Private.h"
#include "OS/internal/ShareMemoryHandle.h"
#include "OS/internal/SyncProtocol.h"

namespace ostrelled {
namespace internal {

namespace {

// Which manager the protocol names belong to right now: every start makes a
// new request-lock record (a new inode and creation time under /dev/shm) along
// with new semaphores, so that one name tells a manager from its successor.
struct ProtocolIdentity {
  dev_t device;
  ino_t inode;
  timespec changed;

  bool read() {
    struct stat st;
    static const std::string path = shmPath(SyncNames::kRequestLock);
    if (stat(path.c_str(), &st) != 0) return false;
    device = st.st_dev;
    inode = st.st_ino;
    changed = st.st_ctim;
    return true;
  }
  bool operator==(const ProtocolIdentity& other) const {
    return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
  }
};

// Opening the three semaphores and the (locked) request area costs several
// times a whole request, so the process keeps its client open between
// requests. What travels between processes is unchanged. The names are
// looked at before every request and the client reopened when they denote
// other objects (a new manager); the look comes before the open, so a
// replacement in between shows up as a mismatch next time.
class CachedClient {
 public:
  // reopened: set when the client had to be opened anew.
  CSyncClient* acquire(bool* reopened = nullptr) {
    ProtocolIdentity now;
    bool present = now.read();
    if (m_bOpen && present && now == m_identity) return &m_client;
    if (reopened != nullptr) *reopened = true;
    m_bOpen = false;
    // Also when the names are missing: create() then prints what it could not open.
    if (!m_client.create()) return nullptr;
    m_identity = now;
    m_bOpen = present;  // without a valid identity it is reopened next time
    return &m_client;
  }
  // After a request went unanswered, trust nothing that is open.
  void invalidate() {
    m_client.destroy();
    m_bOpen = false;
  }

 private:
  CSyncClient m_client;
  ProtocolIdentity m_identity{};
  bool m_bOpen = false;
};

// One client for the whole process, taken for one attach or detach at a time:
// the machine's request lock lets one request through at a time anyway. It is
// made at load time and never destroyed, so that no first use allocates (a
// thread-local object would register a destructor there, which the C library
// cannot report as a failure) and no handle outlives it at exit. A forked
// child starts with the lock free: whatever another thread of the parent was
// doing, the child's copy of the client is consistent or reopened.
std::mutex gClientLock;
CachedClient* gClient = new CachedClient;
std::atomic<bool> gClientBusy{false};

// A child forked while another thread used the client may have copied it half
// changed: it gets a fresh one (the copy is left as it is, never closed twice).
void renewClientInChild() {
  new (&gClientLock) std::mutex;
  if (!gClientBusy.exchange(false)) return;
  if (CachedClient* fresh = new (std::nothrow) CachedClient) gClient = fresh;
}

class ClientLease {
 public:
  ClientLease() {
    static const bool registered = (pthread_atfork(nullptr, nullptr, renewClientInChild), true);
    (void)registered;
    gClientLock.lock();
    gClientBusy = true;
  }
  ~ClientLease() {
    gClientBusy = false;
    gClientLock.unlock();
  }
  ClientLease(const ClientLease&) = delete;
  ClientLease& operator=(const ClientLease&) = delete;
  CachedClient* operator->() const { return gClient; }
};

// The block is open: the first attach initialises the object, a later one may
// be refused. The count changes only for an object this process takes.
bool joinBlock(sharememory_handle& block, NamedObjectSteps& steps) {
  unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(&block));
  steps.bind(base);
  unsigned int count;
  memcpy(&count, base, sizeof count);
  if (count == 0) {
    steps.initialise();
  } else if (!steps.admit()) {
    return false;
  }
  count += 1;
  memcpy(base, &count, sizeof count);
  return true;
}

// One attach, holding the request lock from the request to the count. Every
// allocation of the procedure itself comes before the request; should a
// kind's own step fail to allocate after it, the block is given back (and
// removed when nobody else has taken it), so that a failed create leaves
// nothing behind.
class Attach {
 public:
  Attach(CachedClient& cache, const std::string& name, unsigned int blockSize, NamedObjectSteps& steps)
      : m_cache(cache), m_name(name), m_blockSize(blockSize), m_steps(steps) {}

  sharememory_handle* run(CSyncClient& client) {
    std::unique_ptr<sharememory_handle> block(new sharememory_handle(USE_DEFAULT));
    block->sharememory_reserve_name(m_name.size());
    client.lock();
    bool answered = client.requestCreate(m_name.c_str(), m_blockSize);
    sharememory_handle* joined = nullptr;
    try {
      if (answered) joined = openAndJoin(client, block);
    } catch (...) {
      // A block that nobody has taken (count 0) was made for this attach alone.
      if (unusedBlock()) client.requestDestroy(m_name.c_str());
      client.unlock();
      throw;
    }
    client.unlock();
    if (!answered) m_cache.invalidate();
    return joined;
  }

 private:
  // The manager answers also requests it ignored (an invalid name, a failed
  // create), so the reply alone proves nothing: the block must open, and be
  // large enough for the object, or the object stays unattached.
  sharememory_handle* openAndJoin(CSyncClient& client, std::unique_ptr<sharememory_handle>& block) {
    if (!m_steps.beforeOpen()) return nullptr;
    if (!block->sharememory_open(m_name.c_str())) {
      // No mapping left in this process (vm.max_map_count): a block made for
      // this attach alone is not left behind.
      ErrnoGuard keep;
      if (unusedBlock()) client.requestDestroy(m_name.c_str());
      return nullptr;
    }
    if (block->sharememory_get_size() < m_blockSize) return nullptr;
    if (!joinBlock(*block, m_steps)) {
      ErrnoGuard keep;  // the refusal's reason
      block.reset();
      return nullptr;
    }
    return block.release();
  }

  // Whether the block under the name has an attach count of 0, read without
  // a mapping and without allocating.
  bool unusedBlock() const {
    char path[sizeof kShmFolder + kMaxObjectNameLength];
    snprintf(path, sizeof path, "%s%s", kShmFolder, withoutSlash(m_name.c_str()));
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    struct stat st;
    unsigned int count = 1;
    // A block the manager could not even size counts as unused.
    if (fstat(fd, &st) == 0 && st.st_size == 0)
      count = 0;
    else if (pread(fd, &count, sizeof count, 0) != static_cast<ssize_t>(sizeof count))
      count = 1;
    close(fd);
    return count == 0;
  }

  CachedClient& m_cache;
  const std::string& m_name;
  unsigned int m_blockSize;
  NamedObjectSteps& m_steps;
};

}  // namespace

sharememory_handle* attachNamedObject(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  // Every kind refuses longer names first; this keeps the request area safe regardless.
  if (name.size() > kMaxObjectNameLength) return nullptr;
  ClientLease lease;
  bool reopened = false;
  CSyncClient* client = lease->acquire(&reopened);
  if (client == nullptr) return nullptr;
  // After a request went unanswered the client is reopened, and a manager
  // that has ended fails the attach at once (a detach needs no manager unless
  // it is the last one, and then fails within one slice of its wait).
  if (reopened && client->managerGone()) {
    lease->invalidate();
    return nullptr;
  }
  // A process that uses named objects is registered, so that others (and the
  // inspection tool) can tell whether it lives; once per process.
  if (ProcessRegistry* registry = latestRegistry()) {
    registry->renewIfLost();
    registry->own();
  }
  return Attach(*lease.operator->(), name, blockSize, steps).run(*client);
}

void detachNamedObject(const std::string& name, sharememory_handle*& block, NamedObjectSteps& steps) {
  if (block == nullptr) return;
  ClientLease lease;
  if (CSyncClient* client = lease->acquire()) {
    bool answered = true;
    client->lock();
    unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
    unsigned int count;
    memcpy(&count, base, sizeof count);
    // A count already at 0 means the block was cleared under us (a new manager
    // recreated it): its state is somebody else's now, so it is left alone.
    bool last = count == 1;
    if (count != 0) {
      count -= 1;
      memcpy(base, &count, sizeof count);
    }
    if (last) {
      steps.finalise();
      // Without a reply the name stays until the manager stops; with one the
      // manager has unlinked it already and this second unlink finds nothing.
      answered = client->requestDestroy(name.c_str());
      if (answered) block->sharememory_unlink();
    }
    // The mapping is nobody else's business: it goes after the lock (below).
    client->unlock();
    if (!answered) lease->invalidate();
  }
  os_sharememory_destroy(block);
}

}  // namespace internal
}  // namespace ostrelled
