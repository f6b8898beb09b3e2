#ifndef OSTRELLED_SRC_OS_SYNCCLIENT_H
#define OSTRELLED_SRC_OS_SYNCCLIENT_H

// The machine-wide request protocol between the sync manager and its clients.

#include <semaphore.h>
#include <stddef.h>
#include <time.h>

#include <ostrelled/OS_ShareMemory.h>

#include "OS/OS_NamedObject.h"

namespace OS {
namespace SyncNames {
// Fixed across the machine: every process finds the manager by these strings.
// The request area has no leading slash and its odd spelling is the contract.
constexpr const char* kEnabledSemaphore = "/os_mutex_manage_enabled_semaphore";
constexpr const char* kRequestSemaphore = "/os_mutex_manage_request_semaphore";
constexpr const char* kFinishSemaphore = "/os_mutex_manage_finish_semaphore";
constexpr const char* kRequestArea = "os_mutex_manage_enabled_sharemomory";
}  // namespace SyncNames

enum MUTEX_MANAGE_TYPE : unsigned int { MUTEX_CREATE_METHOD = 1, MUTEX_DESTROY_METHOD = 2 };

// Request record, host byte order: method word at 0; a create carries the block
// size at 4 and the name at 8, a destroy carries the name at 4.
constexpr size_t kRequestAreaSize = 1029;
constexpr size_t kRequestMethodOffset = 0;
constexpr size_t kCreateSizeOffset = 4;
constexpr size_t kCreateNameOffset = 8;
constexpr size_t kDestroyNameOffset = 4;
// A create request for a name of kMaxObjectNameLength ends at byte 1032,
// past the area's 1029 bytes but inside the same (page-sized) mapping.
// The manager's request wait and every client's reply wait.
constexpr long kRequestTimeoutNanos = 100000000L;

// A process's connection to the manager, held for one or more requests.
class OSTRELLED_EXPORT CSyncClient {
 public:
  sem_t* enable_mutex_manager_sem = nullptr;
  sem_t* manage_request_sem = nullptr;
  sem_t* manage_finish_sem = nullptr;
  sharememory_handle* manager_memory_handle = nullptr;

  CSyncClient() = default;
  ~CSyncClient() { destroy(); }
  CSyncClient(const CSyncClient&) = delete;
  CSyncClient& operator=(const CSyncClient&) = delete;

  // Opens the three semaphores and the request area; true when all four are
  // open. Prints one line per object that cannot be opened unless bQuiet.
  bool create(bool bQuiet = false);
  // Closes what create opened; unlinks nothing.
  void destroy();

  // The machine-wide request lock; the wait on it is unbounded (EINTR retried).
  void lock();
  // As lock, giving up at the absolute wall-clock deadline.
  bool lockUntil(const timespec& wallDeadline);
  void unlock();

  // Writes a request (the lock held), posts it and waits for the finish post
  // until the deadline. The name must not exceed kMaxObjectNameLength.
  bool requestCreate(const char* strName, unsigned int uintSize);
  bool requestDestroy(const char* strName);
  // A request with method word 0, which a live manager answers and ignores.
  bool requestNothing(const timespec& wallDeadline);

 private:
  unsigned char* area() const;
  bool postAndWait(const timespec& wallDeadline);
};

}  // namespace OS

#endif
