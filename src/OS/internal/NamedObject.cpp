#include "OS/internal/NamedObject.h"

#include <string.h>
#include <sys/stat.h>

#include "OS/OS_ShareMemory.h"
#include "OS/OS_SyncClient.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/Private.h"

namespace OS {

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
    if (stat("/dev/shm/os_mutex_manage_request_lock", &st) != 0) return false;
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
// times a whole request, so each thread keeps its client open between
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

thread_local CachedClient tCachedClient;

// The block is open: the first attach initialises the object, a later one may
// be refused. The count changes only for an object this process takes.
sharememory_handle* joinBlock(sharememory_handle* block, NamedObjectSteps& steps) {
  unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
  steps.bind(base);
  unsigned int count;
  memcpy(&count, base, sizeof count);
  if (count == 0) {
    steps.initialise();
  } else if (!steps.admit()) {
    Private::ErrnoGuard keep;
    os_sharememory_destroy(block);
    return nullptr;
  }
  count += 1;
  memcpy(base, &count, sizeof count);
  return block;
}

}  // namespace

sharememory_handle* attachNamedObject(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  // Every kind refuses longer names first; this keeps the request area safe regardless.
  if (name.size() > kMaxObjectNameLength) return nullptr;
  bool reopened = false;
  CSyncClient* client = tCachedClient.acquire(&reopened);
  if (client == nullptr) return nullptr;
  // After a request went unanswered the client is reopened, and a manager
  // that has ended fails the attach at once (a detach needs no manager unless
  // it is the last one, and then fails within one slice of its wait).
  if (reopened && client->managerGone()) {
    tCachedClient.invalidate();
    return nullptr;
  }
  // A process that uses named objects is registered, so that others (and the
  // inspection tool) can tell whether it lives; once per process.
  if (Private::ProcessRegistry* registry = Private::latestRegistry()) registry->own();
  client->lock();
  sharememory_handle* block = nullptr;
  bool answered = client->requestCreate(name.c_str(), blockSize);
  if (answered && steps.beforeOpen()) {
    // The manager answers also requests it ignored (an invalid name, a failed
    // create), so the reply alone proves nothing: the block must open, and be
    // large enough for the object, or the object stays unattached.
    block = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (block != nullptr && block->sharememory_get_size() < blockSize) os_sharememory_destroy(block);
    if (block != nullptr) block = joinBlock(block, steps);
  }
  client->unlock();
  if (!answered) tCachedClient.invalidate();
  return block;
}

void detachNamedObject(const std::string& name, sharememory_handle*& block, NamedObjectSteps& steps) {
  if (block == nullptr) return;
  if (CSyncClient* client = tCachedClient.acquire()) {
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
      os_sharememory_close(block, answered);
    } else {
      os_sharememory_close(block, false);
    }
    client->unlock();
    if (!answered) tCachedClient.invalidate();
  }
  os_sharememory_destroy(block);
}

}  // namespace OS
