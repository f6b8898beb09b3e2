#ifndef OSTRELLED_SRC_OS_INTERNAL_PRIVATE_H
#define OSTRELLED_SRC_OS_INTERNAL_PRIVATE_H

// Small helpers of every operating-system source: modes, EINTR, errno, pid (a
// label, never evidence of life) and deadlines; header-only. Also the index of the private layer:
//
//   internal/Private.h         real-time mode resolution, retryOnEintr, ErrnoGuard,
//                              ownPid, deadlines (deadlineAfter, timeLeftUntil,
//                              hasPassed), lockBefore, takeSoon, text delivery
//   internal/RobustMutex.h     pthread mutex set-up and locking that repairs a dead owner
//   internal/NamedObject.h     attach/detach of named objects through the manager
//   internal/Liveness.h        whether a process lives: the registry of tokens the
//                              kernel keeps true across PID namespaces (never a pid)
//   internal/ManagedAccess.h   the group and mode of every name the manager creates
//   internal/SyncPrimitives.h  one wake-up class per kind: futex condition, POSIX, System V
//   internal/SysVSemaphore.h   System V semaphore operations and keys
//   internal/Paths.h           path tests shared by files, folders and walks
//   internal/Shell.h           command templates, quoting and the shell runner
//   internal/Wait.h            readiness waits on a descriptor
//
// Beside the area sources, OS_Mutex.h, OS_ShareMemory.h, OS_Semaphore.h,
// OS_Event.h and OS_SyncClient.h hold what those sources offer the rest of the
// library beyond their exported functions.

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>
#include <ostrelled/StringAssistant.h>
#include <ostrelled/Types.h>

#include "Handle.h"

namespace OS {
namespace Private {

// Resolution of a real-time mode, evaluated on every call: USE_RT, or
// USE_DEFAULT while the process default is USE_RT. Everything else is standard.
inline bool isRealTime(RT_MODE mode) {
  return mode == USE_RT || (mode == USE_DEFAULT && get_default_rt_mode() == USE_RT);
}

// The mode a handle stores at construction: USE_DEFAULT becomes the default.
inline RT_MODE storedMode(RT_MODE mode) { return mode == USE_DEFAULT ? get_default_rt_mode() : mode; }

// Repeats call() while it returns failValue with errno EINTR; errno is left as
// the last call set it. Calls that report errors by value (clock_nanosleep,
// the pthread family) never match -1, so they are never repeated.
template <class Call>
inline auto retryOnEintr(Call call, decltype(call()) failValue = -1) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == failValue && errno == EINTR);
  return result;
}

// This process's id without a system call: getpid is one, so the id is
// cached and renewed in a forked child.
inline pid_t gOwnPid = 0;
inline void refreshOwnPid() { gOwnPid = getpid(); }
inline pid_t ownPid() {
  static const bool registered = (pthread_atfork(nullptr, nullptr, refreshOwnPid), refreshOwnPid(), true);
  (void)registered;
  return gOwnPid;
}

// The file under /dev/shm of a shared-memory object's name (given without
// its leading slash), as the system keeps it.
inline std::string shmPath(const char* name) { return std::string("/dev/shm/") + name; }
inline std::string shmPath(const std::string& name) { return shmPath(name.c_str()); }

// Keeps errno across clean-up after a failure: the caller sees the error of
// the call that failed, not of what was undone after it.
class ErrnoGuard {
 public:
  ErrnoGuard() : m_saved(errno) {}
  ~ErrnoGuard() { errno = m_saved; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  int m_saved;
};

constexpr long kNanosPerSecond = 1000000000L;

// Now on CLOCK_MONOTONIC.
inline timespec monotonicNow(RT_MODE mode = USE_STD) {
  timespec now{};
  os_clock_get_time(CLOCK_MONOTONIC, &now, mode);
  return now;
}

// Time left until an absolute CLOCK_MONOTONIC deadline, normalised; negative
// or zero once it has passed. semtimedop takes such a relative span.
inline timespec timeLeftUntil(const timespec& deadline, RT_MODE mode = USE_STD) {
  timespec now = monotonicNow(mode);
  timespec left{};
  os_clock_get_clock_span(&now, &deadline, &left);
  os_clock_adjust_clock_time(&left);
  return left;
}

// A count of 1/perSecond units as a timespec, split as select() callers do:
// whole seconds, then the rest. A negative count gives negative fields, which
// a readiness wait rejects with EINVAL just as select() does.
template <class Count>
inline timespec spanOf(Count count, Count perSecond) {
  timespec span{};
  span.tv_sec = static_cast<time_t>(count / perSecond);
  span.tv_nsec = static_cast<long>(count % perSecond) * (1000000000L / static_cast<long>(perSecond));
  return span;
}

// An absolute CLOCK_MONOTONIC deadline a span from now.
inline timespec deadlineAfter(const timespec& span, RT_MODE mode = USE_STD) {
  timespec deadline = monotonicNow(mode);
  deadline.tv_sec += span.tv_sec;
  deadline.tv_nsec += span.tv_nsec;
  os_clock_adjust_clock_time(&deadline);
  return deadline;
}

// An absolute CLOCK_MONOTONIC deadline nanos from now.
inline timespec deadlineAfter(long nanos, RT_MODE mode = USE_STD) { return deadlineAfter(timespec{0, nanos}, mode); }

// Whether normalised time a comes before b.
inline bool isEarlier(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// A caller's deadline (null: none) in normal form, kept in `storage`: an
// out-of-range tv_nsec would make every timed call fail at once.
inline const timespec* normalisedDeadline(const timespec* deadline, timespec& storage) {
  if (deadline == nullptr) return nullptr;
  storage = *deadline;
  os_clock_adjust_clock_time(&storage);
  return &storage;
}

// Whether an absolute CLOCK_MONOTONIC deadline has been reached.
inline bool hasPassed(const timespec& deadline, RT_MODE mode = USE_STD) {
  timespec left = timeLeftUntil(deadline, mode);
  return left.tv_sec < 0 || (left.tv_sec == 0 && left.tv_nsec == 0);
}

// Takes a semaphore before the absolute CLOCK_MONOTONIC deadline, trying for
// up to spinNanos first: where the other side runs on another processor its
// post usually comes within microseconds, sooner than a sleeper is woken.
// Returns 0 or -1 with errno as sem_clockwait leaves it; signals do not
// shorten the wait. spunOut, if given, tells whether the spin ran out.
inline int takeSoon(sem_t* sem, const timespec& deadline, long spinNanos, bool* spunOut = nullptr) {
  timespec spinEnd = deadlineAfter(spinNanos);
  if (spunOut != nullptr) *spunOut = false;
  do {
    if (sem_trywait(sem) == 0) return 0;
    __builtin_ia32_pause();
  } while (!hasPassed(spinEnd));
  if (spunOut != nullptr) *spunOut = true;
  return retryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, &deadline); });
}

#if defined(__SANITIZE_THREAD__)
#define OSTRELLED_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OSTRELLED_THREAD_SANITIZER 1
#endif
#endif

// Takes a mutex before the absolute CLOCK_MONOTONIC deadline: 0, ETIMEDOUT,
// EOWNERDEAD or the call's other error. A free mutex is taken with a try, as
// cheap as a lock; only a busy one waits on the deadline.
inline int lockBefore(pthread_mutex_t* mutex, const timespec& deadline) {
  int result = pthread_mutex_trylock(mutex);
  if (__builtin_expect(result != EBUSY, 1)) return result;
#ifdef OSTRELLED_THREAD_SANITIZER
  // The thread sanitizer cannot see pthread_mutex_clocklock take a mutex, so
  // in its builds a timed lock polls with tries instead.
  for (; result == EBUSY; result = pthread_mutex_trylock(mutex)) {
    if (hasPassed(deadline)) return ETIMEDOUT;
    timespec pause{0, 100000L};
    nanosleep(&pause, nullptr);
  }
  return result;
#else
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
#endif
}

// The text buffer convention: the length is declared const in the interface,
// yet the needed (or written) length is written back through it.
inline DWORD& writableLength(const DWORD& length) { return const_cast<DWORD&>(length); }

// Delivers text by the buffer convention: a size query without a buffer, a
// copy when it fits, the needed length written back either way.
inline bool deliverText(const std::string& text, char* buffer, const DWORD& length) {
  return CStringAssistant::getBaseStringFromSTLString(text, buffer, writableLength(length));
}

// A wait status decoded: the exit status of a process that exited, -1 for one
// ended by a signal or a failed wait (-1). The low 7 bits hold a signal, bits
// 8 to 15 the exit status.
inline int exitStatusOf(int status) { return status != -1 && (status & 0x7f) == 0 ? (status >> 8) & 0xff : -1; }

// The process's file-mode mask cleared for one scope, so that a new file or
// folder gets exactly the mode asked for; the caller's mask comes back after.
class UmaskCleared {
 public:
  UmaskCleared() : m_saved(umask(0)) {}
  ~UmaskCleared() { umask(m_saved); }
  UmaskCleared(const UmaskCleared&) = delete;
  UmaskCleared& operator=(const UmaskCleared&) = delete;

 private:
  mode_t m_saved;
};

}  // namespace Private
}  // namespace OS

#endif
