#ifndef OSTRELLED_SRC_OS_INTERNAL_PRIVATE_H
#define OSTRELLED_SRC_OS_INTERNAL_PRIVATE_H

// Small helpers of every operating-system source: modes, EINTR, errno, pid (a
// label, never evidence of life), timed locks and takes; header-only.
//
// The index of the library's private layer. Everything here lives in the
// namespace ostrelled::internal (sources call it internal::); nothing of it is
// exported. Area sources (src/DataType/*.cpp, src/OS/OS_*.cpp, Serial/, Socket/)
// hold the exported functions; these headers hold what they share:
//
//   internal/Handle.h               destroyHandle: the one way a handle is deleted
//   DataType/internal/BStrBlock.h   counted-string blocks and the bstr handle
//   DataType/internal/NumberText.h  integer text both ways, as printf and strtol
//   DataType/internal/ScalarDispatch.h  the scalar list and the tag-to-type switch
//   DataType/internal/SafeArrayHeader.h the safe array's header (SafeArray.cpp)
//   OS/internal/Private.h         real-time mode (inMode), retryOnEintr, ErrnoGuard,
//                                 ownPid, lockBefore, takeSoon, text delivery
//   OS/internal/Deadline.h        Deadline, the one time type, and pollUntil
//   OS/internal/RobustMutex.h     pthread mutex set-up, and locking that repairs a
//                                 dead owner's mutex (each name says what it then does)
//   OS/internal/BlockLayouts.h    every named kind's block layout, and the /dev/shm
//                                 file names of blocks and semaphores
//   OS/internal/NamedObject.h     attach/detach of named objects through the manager
//   OS/internal/SyncProtocol.h    the request protocol: names, request layout, the
//                                 request-lock record, the client (OS_SyncClient.cpp)
//                                 and the manager's hooks (OS_Sync.cpp)
//   OS/internal/Liveness.h        whether a process lives: the registry of tokens the
//                                 kernel keeps true across PID namespaces (never a pid)
//   OS/internal/ManagedAccess.h   the group and mode of every name the manager creates
//   OS/internal/SyncPrimitives.h  one wake-up class per kind: futex condition, POSIX, System V
//   OS/internal/SysVSemaphore.h   System V semaphore operations and keys
//   OS/internal/MutexHandle.h     the mutex handle, for conditions, events and the
//                                 manager (OS_Mutex.cpp)
//   OS/internal/ShareMemoryHandle.h  the shared-memory handle and the manager's
//                                 blocks (OS_ShareMemory.cpp)
//   OS/internal/SemaphoreKinds.h  every semaphore kind's constructor (OS_Semaphore.cpp)
//   OS/internal/EventKinds.h      every event kind's constructor (OS_Event.cpp)
//   OS/internal/Paths.h           path tests shared by files, folders and walks
//   OS/internal/Shell.h           command templates, quoting and the shell runner
//   OS/internal/Wait.h            readiness waits on a descriptor

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>
#include <ostrelled/StringAssistant.h>
#include <ostrelled/Types.h>

#include "OS/internal/Deadline.h"
#include "internal/Handle.h"

namespace ostrelled {
namespace internal {

// Real-time mode. A function that takes a mode resolves it on every call
// (USE_RT, or USE_DEFAULT while the process default is USE_RT; anything else is
// standard); a handle resolves USE_DEFAULT once, when it is made (storedMode).
// Both modes make the same system calls, so the resolution is the whole branch
// point: a real-time variant of a call would be chosen in inMode and nowhere else.
inline bool isRealTime(RT_MODE mode) {
  return mode == USE_RT || (mode == USE_DEFAULT && get_default_rt_mode() == USE_RT);
}
inline RT_MODE storedMode(RT_MODE mode) { return mode == USE_DEFAULT ? get_default_rt_mode() : mode; }
template <class Call>
inline auto inMode(RT_MODE mode, Call call) -> decltype(call()) {
  (void)isRealTime(mode);
  return call();
}

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

// Takes a semaphore before the deadline, trying for up to spin first: where
// the other side runs on another processor its post usually comes within
// microseconds, sooner than a sleeper is woken. Returns 0 or -1 with errno as
// sem_clockwait leaves it; signals do not shorten the wait. spunOut, if given,
// tells whether the spin ran out.
inline int takeSoon(sem_t* sem, const Deadline& deadline, Span spin, bool* spunOut = nullptr) {
  if (spunOut != nullptr) *spunOut = false;
  if (pollUntil(Deadline::after(spin), Span::zero(), [sem] { return sem_trywait(sem) == 0; })) return 0;
  if (spunOut != nullptr) *spunOut = true;
  return retryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, &deadline.time()); });
}

#if defined(__SANITIZE_THREAD__)
#define OSTRELLED_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OSTRELLED_THREAD_SANITIZER 1
#endif
#endif

// Takes a mutex before the deadline: 0, ETIMEDOUT, EOWNERDEAD or the call's
// other error. A free mutex is taken with a try, as cheap as a lock; only a
// busy one waits on the deadline.
inline int lockBefore(pthread_mutex_t* mutex, const Deadline& deadline) {
  int result = pthread_mutex_trylock(mutex);
  if (__builtin_expect(result != EBUSY, 1)) return result;
#ifdef OSTRELLED_THREAD_SANITIZER
  // The thread sanitizer cannot see pthread_mutex_clocklock take a mutex, so
  // in its builds a timed lock polls with tries instead.
  auto taken = [&] { return (result = pthread_mutex_trylock(mutex)) != EBUSY; };
  return pollUntil(deadline, std::chrono::microseconds(100), taken) ? result : ETIMEDOUT;
#else
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline.time());
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

}  // namespace internal
}  // namespace ostrelled

#endif
