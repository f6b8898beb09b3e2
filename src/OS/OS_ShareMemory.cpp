#include "OS/OS_ShareMemoryHandle.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "OS/OS_Private.h"

using OS::Private::retryOnEintr;

sharememory_handle::sharememory_handle(RT_MODE mode)
    : m_hShareMemoryHandle(-1),
      m_uintMemorySize(0),
      m_pMemoryBuffer(MAP_FAILED),
      m_RtMode(OS::Private::storedMode(mode)) {}

sharememory_handle::~sharememory_handle() { sharememory_close(); }

// Locked mapping first; where the process may not lock memory, the same
// mapping unlocked. Both modes take this path.
bool sharememory_handle::mapDescriptor(size_t size) {
  m_uintMemorySize = size;
  void* buffer = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED | MAP_POPULATE,
                      m_hShareMemoryHandle, 0);
  if (buffer == MAP_FAILED)
    buffer = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_hShareMemoryHandle, 0);
  if (buffer == MAP_FAILED) {
    m_uintMemorySize = 0;
    return false;
  }
  m_pMemoryBuffer = buffer;
  return true;
}

bool sharememory_handle::sharememory_create(const char* strShmName, unsigned int uintMemorySize) {
  (void)OS::Private::isRealTime(m_RtMode);  // both modes map alike
  sharememory_close();
  const char* name = strShmName != nullptr ? strShmName : "";
  // No O_EXCL: an existing object is reused, resized and cleared below.
  m_hShareMemoryHandle = retryOnEintr([&] { return shm_open(name, O_RDWR | O_CREAT, 0777); });
  if (m_hShareMemoryHandle == -1) return false;
  m_strShareMemoryName = name;
  if (retryOnEintr([&] { return ftruncate(m_hShareMemoryHandle, uintMemorySize); }) != 0 ||
      !mapDescriptor(uintMemorySize)) {
    int saved = errno;
    sharememory_close();  // the object stays in /dev/shm; only the destroyer unlinks
    errno = saved;
    return false;
  }
  // Every create clears the whole area, also over a live object: callers rely on it.
  memset(m_pMemoryBuffer, 0, m_uintMemorySize);
  close(m_hShareMemoryHandle);
  m_hShareMemoryHandle = -1;
  return true;
}

bool sharememory_handle::sharememory_open(const char* strShmName) {
  (void)OS::Private::isRealTime(m_RtMode);
  sharememory_close();
  const char* name = strShmName != nullptr ? strShmName : "";
  m_hShareMemoryHandle = retryOnEintr([&] { return shm_open(name, O_RDWR, 0777); });
  if (m_hShareMemoryHandle == -1) return false;
  m_strShareMemoryName = name;
  struct stat st;
  // The size travels as an unsigned 32-bit count, so only its low bits are kept.
  if (fstat(m_hShareMemoryHandle, &st) != 0 || !mapDescriptor(static_cast<unsigned int>(st.st_size))) {
    int saved = errno;
    sharememory_close();
    errno = saved;
    return false;
  }
  close(m_hShareMemoryHandle);
  m_hShareMemoryHandle = -1;
  return true;
}

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

void sharememory_handle::sharememory_destroy() {
  sharememory_close();
  shm_unlink(m_strShareMemoryName.c_str());
}

namespace {

// Builds a handle and runs one member operation on it; a failure frees the handle.
template <class Setup>
sharememory_handle* makeShareMemory(RT_MODE mode, Setup setup) {
  sharememory_handle* handle = new sharememory_handle(mode);
  if (!setup(*handle)) {
    int saved = errno;
    destroyHandle(handle);
    errno = saved;
  }
  return handle;
}

}  // namespace

sharememory_handle* os_sharememory_create(const char* strShmName, unsigned int uintMemorySize, RT_MODE mode) {
  return makeShareMemory(mode, [&](sharememory_handle& h) { return h.sharememory_create(strShmName, uintMemorySize); });
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

void os_sharememory_destroy(sharememory_handle*& handle) { destroyHandle(handle); }

void* os_sharememory_get_buffer(sharememory_handle* handle) {
  return handle != nullptr ? handle->sharememory_get_buffer() : nullptr;
}
