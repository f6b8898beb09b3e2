#include "OS/OS_SyncClient.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "OS/OS_NamedObject.h"
#include "OS/OS_Private.h"
#include "OS/OS_ShareMemoryHandle.h"

namespace OS {

namespace {

// sem_open reports failure as null on this platform (SEM_FAILED is null).
sem_t* openSemaphore(const char* name, unsigned int value, bool quiet) {
  sem_t* sem = sem_open(name, 0, 0755, value);
  if (sem == SEM_FAILED) {
    if (!quiet) printf("Error: Can not open %s, errno = %d!\n", name, errno);
    return nullptr;
  }
  return sem;
}

void closeSemaphore(sem_t*& sem) {
  if (sem != nullptr) {
    sem_close(sem);
    sem = nullptr;
  }
}

}  // namespace

bool CSyncClient::create(bool bQuiet) {
  destroy();
  enable_mutex_manager_sem = openSemaphore(SyncNames::kEnabledSemaphore, 1, bQuiet);
  manage_request_sem = openSemaphore(SyncNames::kRequestSemaphore, 0, bQuiet);
  manage_finish_sem = openSemaphore(SyncNames::kFinishSemaphore, 0, bQuiet);
  manager_memory_handle = os_sharememory_open(SyncNames::kRequestArea, USE_DEFAULT);
  if (manager_memory_handle == nullptr && !bQuiet)
    printf("Error: Can not open %s, errno = %d!\n", SyncNames::kRequestArea, errno);
  if (enable_mutex_manager_sem && manage_request_sem && manage_finish_sem && manager_memory_handle) return true;
  int saved = errno;
  destroy();
  errno = saved;
  return false;
}

void CSyncClient::destroy() {
  closeSemaphore(enable_mutex_manager_sem);
  closeSemaphore(manage_request_sem);
  closeSemaphore(manage_finish_sem);
  if (manager_memory_handle != nullptr) {
    os_sharememory_close(manager_memory_handle, false);
    os_sharememory_destroy(manager_memory_handle);
  }
}

void CSyncClient::lock() {
  Private::retryOnEintr([&] { return sem_wait(enable_mutex_manager_sem); });
}

bool CSyncClient::lockUntil(const timespec& wallDeadline) {
  return Private::retryOnEintr([&] { return sem_timedwait(enable_mutex_manager_sem, &wallDeadline); }) == 0;
}

void CSyncClient::unlock() { sem_post(enable_mutex_manager_sem); }

unsigned char* CSyncClient::area() const {
  return static_cast<unsigned char*>(os_sharememory_get_buffer(manager_memory_handle));
}

bool CSyncClient::postAndWait(const timespec& wallDeadline) {
  // Holding the lock, any post already in the finish semaphore answers an
  // earlier request that timed out; left there it would answer this one.
  while (sem_trywait(manage_finish_sem) == 0) {
  }
  sem_post(manage_request_sem);
  return Private::retryOnEintr([&] { return sem_timedwait(manage_finish_sem, &wallDeadline); }) == 0;
}

// Names are bounded before they get here, so a copy ends at most at byte
// 8 + 1023 + 1 = 1032: past the area's 1029 bytes but inside its mapping,
// which is at least one 4096-byte page.
bool CSyncClient::requestCreate(const char* strName, unsigned int uintSize) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_CREATE_METHOD;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kCreateSizeOffset, &uintSize, sizeof uintSize);
  memcpy(area() + kCreateNameOffset, strName, length + 1);
  return postAndWait(Private::wallDeadlineAfter(kRequestTimeoutNanos));
}

bool CSyncClient::requestDestroy(const char* strName) {
  size_t length = strnlen(strName, kMaxObjectNameLength + 1);
  if (length > kMaxObjectNameLength) return false;
  unsigned int method = MUTEX_DESTROY_METHOD;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  memcpy(area() + kDestroyNameOffset, strName, length + 1);
  return postAndWait(Private::wallDeadlineAfter(kRequestTimeoutNanos));
}

bool CSyncClient::requestNothing(const timespec& wallDeadline) {
  unsigned int method = 0;
  memcpy(area() + kRequestMethodOffset, &method, sizeof method);
  return postAndWait(wallDeadline);
}

sharememory_handle* attachNamedObject(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps) {
  // Every kind refuses longer names first; this keeps the request area safe regardless.
  if (name.size() > kMaxObjectNameLength) return nullptr;
  CSyncClient client;
  if (!client.create()) return nullptr;
  client.lock();
  sharememory_handle* block = nullptr;
  if (client.requestCreate(name.c_str(), blockSize) && steps.beforeOpen()) {
    // The manager answers also requests it ignored (an invalid name, a failed
    // create), so the reply alone proves nothing: the block must open, and be
    // large enough for the object, or the object stays unattached.
    block = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (block != nullptr && block->sharememory_get_size() < blockSize) os_sharememory_destroy(block);
    if (block != nullptr) {
      unsigned char* base = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
      steps.bind(base);
      unsigned int count;
      memcpy(&count, base, sizeof count);
      if (count == 0) steps.initialise();
      count += 1;
      memcpy(base, &count, sizeof count);
    }
  }
  client.unlock();
  return block;
}

void detachNamedObject(const std::string& name, sharememory_handle*& block, NamedObjectSteps& steps) {
  if (block == nullptr) return;
  CSyncClient client;
  if (client.create()) {
    client.lock();
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
      os_sharememory_close(block, client.requestDestroy(name.c_str()));
    } else {
      os_sharememory_close(block, false);
    }
    client.unlock();
  }
  os_sharememory_destroy(block);
}

}  // namespace OS
