// Shared memory: named objects of /dev/shm, mapped whole. Nothing here locks;
// a kill leaves at most a file another process can open or unlink. A create
// that cannot back its size (a full /dev/shm) removes what it made, so a half-
// made object is never left under a name.

#include "OS/internal/ShareMemoryHandle.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "OS/internal/ManagedAccess.h"
#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

using internal::retryOnEintr;

sharememory_handle::sharememory_handle(RT_MODE mode)
    : m_hShareMemoryHandle(-1),
      m_uintMemorySize(0),
      m_pMemoryBuffer(MAP_FAILED),
      m_RtMode(internal::storedMode(mode)) {}

sharememory_handle::~sharememory_handle() { sharememory_close(); }

// Locked mapping first; where the process may not lock memory, the same
// mapping unlocked.
bool sharememory_handle::mapDescriptor(size_t size) {
  m_uintMemorySize = size;
  void* buffer =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED | MAP_POPULATE, m_hShareMemoryHandle, 0);
  if (buffer == MAP_FAILED)
    buffer = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_hShareMemoryHandle, 0);
  if (buffer == MAP_FAILED) {
    m_uintMemorySize = 0;
    return false;
  }
  m_pMemoryBuffer = buffer;
  return true;
}

// No O_EXCL in effect: an existing object is reused, resized and cleared.
// The first, exclusive try only tells whether this call made the object.
// A name of the manager's goes to its group, if it has one, before anything
// is written into it.
bool sharememory_handle::openForCreate(const char* name, bool& created, bool managed) {
  const mode_t mode = managed ? internal::managedCreateMode(0777) : 0777;
  m_hShareMemoryHandle = retryOnEintr([&] { return shm_open(name, O_RDWR | O_CREAT | O_EXCL, mode); });
  created = m_hShareMemoryHandle != -1;
  if (!created && errno == EEXIST)
    m_hShareMemoryHandle = retryOnEintr([&] { return shm_open(name, O_RDWR | O_CREAT, mode); });
  if (m_hShareMemoryHandle == -1) return false;
  if (!managed || internal::applyManagedAccess(m_hShareMemoryHandle)) return true;
  internal::ErrnoGuard keep;
  if (created) shm_unlink(name);
  closeDescriptor();
  return false;
}

// Every page gets its storage before anybody touches it: on a full file
// system touching an unbacked page raises SIGBUS, while this fails with
// ENOSPC. A block this call made and could not back is not left behind.
bool sharememory_handle::backDescriptor(unsigned int size, bool created) {
  // posix_fallocate reports its error by value, so it is repeated here by hand.
  int result = 0;
  if (size != 0) do {
      result = posix_fallocate(m_hShareMemoryHandle, 0, size);
    } while (result == EINTR);
  if (result == 0) return true;
  if (created) shm_unlink(m_strShareMemoryName.c_str());
  errno = result;
  return false;
}

// Opens or makes the object, sizes it and gives every page its storage; the
// descriptor stays open for the caller. On failure everything is closed, and
// the object stays in /dev/shm unless this call made it and could not back it.
bool sharememory_handle::prepareObject(const char* strShmName, unsigned int uintMemorySize, bool& created,
                                       bool managed) {
  // A handle that maps something already lets go of it first: recreating never leaks a mapping.
  sharememory_close();
  const char* name = strShmName != nullptr ? strShmName : "";
  if (!internal::inMode(m_RtMode, [&] { return openForCreate(name, created, managed); })) return false;
  m_strShareMemoryName = name;
  bool ready = retryOnEintr([&] { return ftruncate(m_hShareMemoryHandle, uintMemorySize); }) == 0 &&
               backDescriptor(uintMemorySize, created);
  if (!ready) {
    internal::ErrnoGuard keep;
    sharememory_close();  // only the destroyer unlinks a block made by somebody else
  }
  return ready;
}

void sharememory_handle::closeDescriptor() {
  close(m_hShareMemoryHandle);
  m_hShareMemoryHandle = -1;
}

bool sharememory_handle::sharememory_create(const char* strShmName, unsigned int uintMemorySize, bool bManaged) {
  bool created = false;
  if (!prepareObject(strShmName, uintMemorySize, created, bManaged)) return false;
  if (!mapDescriptor(uintMemorySize)) {
    internal::ErrnoGuard keep;
    sharememory_close();
    return false;
  }
  // Every create clears the whole area, also over a live object: callers rely on it.
  memset(m_pMemoryBuffer, 0, m_uintMemorySize);
  closeDescriptor();
  return true;
}

// The same object as sharememory_create, cleared the same way for everybody
// who maps it, but not mapped here: written through the descriptor when it
// existed before, and new objects read as zeros anyway.
bool sharememory_handle::sharememory_create_unmapped(const char* strShmName, unsigned int uintMemorySize) {
  bool created = false;
  if (!prepareObject(strShmName, uintMemorySize, created, true)) return false;
  static const char kZeros[4096] = {};
  for (off_t at = 0; !created && at < static_cast<off_t>(uintMemorySize);) {
    size_t chunk = std::min(sizeof kZeros, static_cast<size_t>(uintMemorySize - at));
    ssize_t wrote = retryOnEintr([&] { return pwrite(m_hShareMemoryHandle, kZeros, chunk, at); });
    if (wrote <= 0) {
      internal::ErrnoGuard keep;
      sharememory_close();
      return false;
    }
    at += wrote;
  }
  closeDescriptor();
  return true;
}

bool sharememory_handle::sharememory_open(const char* strShmName) {
  sharememory_close();
  const char* name = strShmName != nullptr ? strShmName : "";
  m_hShareMemoryHandle =
      internal::inMode(m_RtMode, [&] { return retryOnEintr([&] { return shm_open(name, O_RDWR, 0777); }); });
  if (m_hShareMemoryHandle == -1) return false;
  m_strShareMemoryName = name;
  // No zero fill here: an opener joins whatever state the object holds.
  struct stat st;
  // The size travels as an unsigned 32-bit count, so only its low bits are kept.
  if (fstat(m_hShareMemoryHandle, &st) != 0 || !mapDescriptor(static_cast<unsigned int>(st.st_size))) {
    internal::ErrnoGuard keep;
    sharememory_close();
    return false;
  }
  closeDescriptor();
  return true;
}

// The name survives the close, so that a later destroy can still unlink it.
void sharememory_handle::sharememory_close() {
  if (m_hShareMemoryHandle != -1) {
    close(m_hShareMemoryHandle);
    m_hShareMemoryHandle = -1;
  }
  if (m_pMemoryBuffer != MAP_FAILED) {
    munmap(m_pMemoryBuffer, m_uintMemorySize);
    m_uintMemorySize = 0;
    m_pMemoryBuffer = MAP_FAILED;
  }
}

// Unlinking removes the name only: every mapping of the object stays valid until unmapped.
void sharememory_handle::sharememory_destroy() {
  sharememory_close();
  shm_unlink(m_strShareMemoryName.c_str());
}

namespace {

// Builds a handle and runs one member operation on it; a failure frees the
// handle, leaving errno as the failing system call set it.
template <class Setup>
sharememory_handle* makeShareMemory(RT_MODE mode, Setup setup) {
  std::unique_ptr<sharememory_handle> handle(new sharememory_handle(mode));
  if (setup(*handle)) return handle.release();
  internal::ErrnoGuard keep;
  handle.reset();
  return nullptr;
}

}  // namespace

sharememory_handle* os_sharememory_create(const char* strShmName, unsigned int uintMemorySize, RT_MODE mode) {
  return makeShareMemory(mode, [&](sharememory_handle& h) { return h.sharememory_create(strShmName, uintMemorySize); });
}

sharememory_handle* internal::createManagedShareMemory(const char* strShmName, unsigned int uintMemorySize) {
  return makeShareMemory(USE_DEFAULT,
                         [&](sharememory_handle& h) { return h.sharememory_create(strShmName, uintMemorySize, true); });
}

sharememory_handle* internal::createUnmappedShareMemory(const char* strShmName, unsigned int uintMemorySize,
                                                        RT_MODE mode) {
  return makeShareMemory(
      mode, [&](sharememory_handle& h) { return h.sharememory_create_unmapped(strShmName, uintMemorySize); });
}

sharememory_handle* os_sharememory_open(const char* strShmName, RT_MODE mode) {
  return makeShareMemory(mode, [&](sharememory_handle& h) { return h.sharememory_open(strShmName); });
}

void os_sharememory_close(sharememory_handle* handle, bool bNeedDestroy) {
  if (handle == nullptr) return;
  if (bNeedDestroy)
    handle->sharememory_destroy();
  else
    handle->sharememory_close();
}

void os_sharememory_destroy(sharememory_handle*& handle) { internal::destroyHandle(handle); }

void* os_sharememory_get_buffer(sharememory_handle* handle) {
  return handle != nullptr ? handle->sharememory_get_buffer() : nullptr;
}
