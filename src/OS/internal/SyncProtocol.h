#ifndef OSTRELLED_SRC_OS_INTERNAL_SYNCPROTOCOL_H
#define OSTRELLED_SRC_OS_INTERNAL_SYNCPROTOCOL_H

// The machine-wide request protocol between the sync manager and its clients.

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <time.h>

#include <algorithm>

#include <ostrelled/OS_ShareMemory.h>

#include "OS/internal/Deadline.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/NamedObject.h"
#include "OS/internal/Private.h"

namespace ostrelled {
namespace internal {
namespace SyncNames {
// Fixed across the machine: every process finds the manager by these strings.
// The request area has no leading slash and its odd spelling is the contract.
constexpr const char* kEnabledSemaphore = "/os_mutex_manage_enabled_semaphore";
constexpr const char* kRequestSemaphore = "/os_mutex_manage_request_semaphore";
constexpr const char* kFinishSemaphore = "/os_mutex_manage_finish_semaphore";
constexpr const char* kRequestArea = "os_mutex_manage_enabled_sharemomory";
// Who holds the request lock, so that a holder that died can be released.
// Made by the manager at start and unlinked at stop, like the names above.
constexpr const char* kRequestLock = "os_mutex_manage_request_lock";
// What every one of the manager's names begins with (after a slash, if any).
constexpr const char* kPrefix = "os_mutex_manage_";
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
constexpr Span kRequestTimeout = std::chrono::milliseconds(100);
// How long either side tries a semaphore before it sleeps on it: the bound on
// the processor time one request may spend waiting actively.
constexpr Span kRequestSpin = std::chrono::microseconds(50);
// How long the next wait of one side of the protocol spins, learnt from the
// last ones. A spin that ran out means the other side did not run meanwhile:
// it shares this processor, or waits for one, and the spin only kept it off.
// The waits after it then sleep at once, twice as many after each spin that
// runs out again, up to kMaxSleepsBetweenSpins; a spin that is answered ends
// the penalty.
class RequestSpin {
 public:
  static constexpr unsigned int kMaxSleepsBetweenSpins = 16;
  // Takes sem before the deadline as takeSoon does, spinning first as learnt,
  // and learns from how the spin went.
  int take(sem_t* sem, const Deadline& deadline) {
    Span spun = spin();
    bool ranOut = false;
    int taken = takeSoon(sem, deadline, spun, &ranOut);
    learn(spun, ranOut);
    return taken;
  }

 private:
  Span spin() const { return m_sleepsLeft == 0 ? kRequestSpin : Span::zero(); }
  // After a wait that spun spin() (zero: a wait that slept at once).
  void learn(Span spun, bool ranOut) {
    if (spun == Span::zero()) {
      if (m_sleepsLeft > 0) --m_sleepsLeft;
      return;
    }
    m_penalty = !ranOut ? 0 : m_penalty == 0 ? 1 : std::min(2 * m_penalty, kMaxSleepsBetweenSpins);
    m_sleepsLeft = m_penalty;
  }

  unsigned int m_sleepsLeft = 0;
  unsigned int m_penalty = 0;
};
// How many turns in a row a process takes the request lock while others wait
// for it before it gives way (two turns make a named object's life).
constexpr unsigned int kTurnsBeforeGivingWay = 2;
// A client waiting for an answer looks this often whether the manager still
// lives, so that a manager that died fails a request at once, not at its timeout.
constexpr Span kManagerCheck = std::chrono::milliseconds(1);
// A request lock taken this long is held by a live process: one that a dead
// client held is given back within a request timeout.
constexpr Span kLiveHolderWait = std::chrono::milliseconds(200);

// The request-lock record, host byte order. The robust mutex is taken before
// the enabled semaphore, so that the kernel tells the next taker when a holder
// died; the sequence numbers pair each finish post with its own request, so a
// late answer to a dead client's request never answers the next one. Process
// ids are labels for people; whether the holder or the manager lives is told
// by their registry tokens (internal/Liveness.h).
struct RequestLockRecord {
  pthread_mutex_t mutex;      // 0: process-shared, robust
  unsigned int holder;        // 40: pid of the client holding the lock, 0 when free
  unsigned int posted;        // 44: requests posted, counted by the clients
  unsigned int answered;      // 48: the posted number of the request last answered
  unsigned int manager;       // 52: pid of the manager process that made the record
  unsigned int holderToken;   // 56: registry token of the holder, 0 when free
  unsigned int managerToken;  // 60: registry token of the manager, 0 when it has none
};
static_assert(offsetof(RequestLockRecord, holder) == 40 && offsetof(RequestLockRecord, posted) == 44 &&
                  offsetof(RequestLockRecord, answered) == 48 && offsetof(RequestLockRecord, manager) == 52 &&
                  offsetof(RequestLockRecord, holderToken) == 56 && offsetof(RequestLockRecord, managerToken) == 60 &&
                  sizeof(RequestLockRecord) == 64,
              "the request-lock record is read by the inspection tool at these offsets");

// A process's connection to the manager, held for one or more requests.
class CSyncClient {
 public:
  sem_t* enable_mutex_manager_sem = nullptr;
  sem_t* manage_request_sem = nullptr;
  sem_t* manage_finish_sem = nullptr;
  sharememory_handle* manager_memory_handle = nullptr;
  // The request-lock record; without it (an older manager) the enabled
  // semaphore alone is the lock, as before.
  sharememory_handle* request_lock_handle = nullptr;

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
  // A holder that died is released to the caller, who then holds the lock.
  void lock();
  // As lock, giving up at the deadline.
  bool lockUntil(const Deadline& deadline);
  void unlock();

  // Writes a request (the lock held), posts it and waits for the finish post
  // until the deadline. The name must not exceed kMaxObjectNameLength.
  bool requestCreate(const char* strName, unsigned int uintSize);
  bool requestDestroy(const char* strName);
  // A request with method word 0, which a live manager answers and ignores.
  bool requestNothing(const Deadline& deadline);
  // Whether the manager that made the record has ended, by its registry token;
  // false when that cannot be told.
  bool managerGone() const;

 private:
  void openRequestLock();
  unsigned char* area() const;
  RequestLockRecord* record() const;
  bool takeEnabled(const Deadline& deadline);
  void takeOverFromDeadHolder();
  bool postAndWait(const Deadline& deadline);

  RequestSpin m_spin;
  unsigned int m_uintTurnsWhileOthersWait = 0;
};

// What one request that the manager ignores finds: the daemon asks before it
// starts, the inspection tool on demand.
enum class ManagerState {
  NoNames,    // the protocol's objects cannot be opened
  Serving,    // the manager answered
  Silent,     // the names are there, nobody answered in time
  LockStuck,  // the request lock stayed taken by a live process
};
struct ManagerProbe {
  ManagerState state;
  Span roundTrip;  // lock and request together; 0 unless Serving
};
// The lock is waited for until lockDeadline, the reply until replyDeadline
// (null: the request timeout, counted from when the lock was taken).
ManagerProbe probeManager(const Deadline& lockDeadline, const Deadline* replyDeadline = nullptr);

// Whether the manager that made the machine's request-lock record lives, by
// its registry token: Unknown without a record, a token or a registry (an
// older manager), and then only a request can tell. pid gets the manager's
// process id (a label, in its own PID namespace; 0 when unknown).
Presence managerPresence(pid_t* pid = nullptr);

// Serves a create or destroy request itself when the manager that made the
// client's record runs in this process; false otherwise (the request is then
// posted). The caller holds the request lock.
bool serveInProcess(const RequestLockRecord* rec, unsigned int method, const char* name, unsigned int size);

// Called by the manager's serving loop at least once per request period
// (100 ms) while it serves: proof of life for a supervisor. Null: none.
void setServingHeartbeat(void (*beat)());

// Releases a request lock whose holder died, for the manager's idle poll;
// a live holder is left alone. Touches only the record and the semaphore.
void releaseDeadHolder(RequestLockRecord* record, sem_t* enabled);

}  // namespace internal
}  // namespace ostrelled

#endif
