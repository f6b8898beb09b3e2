#ifndef OSTRELLED_SRC_OS_INTERNAL_ROBUSTMUTEX_H
#define OSTRELLED_SRC_OS_INTERNAL_ROBUSTMUTEX_H

// Initialising and locking pthread mutexes, repairing one whose owner died; used
// by every source that keeps a mutex, in the process or in a named block.

#include <pthread.h>

namespace ostrelled {
namespace internal {

// Initialises *mutex of the given pthread type; a process-shared one is also robust.
// A process-shared one with priority inheritance is also tagged with the
// creator's PID namespace (see usableInThisNamespace).
int initMutex(pthread_mutex_t* mutex, int type, bool prioInherit, bool processShared);

// A shared recursive mutex without priority inheritance counts its recursion
// in the library, not in the C library: that one takes any thread whose id
// equals the owner's for the owner, and thread ids repeat across PID
// namespaces (each container's first process is 1). It is a normal robust
// mutex marked as such; see OS_Mutex.cpp.
bool countsOwnRecursion(const pthread_mutex_t* mutex);
// Whether the calling thread's id is the one the mutex records as its owner
// (the kernel clears it when the owner dies).
bool ownerIdIsMine(const pthread_mutex_t* mutex);
// Whether another thread sleeps on the mutex, which the owner's unlock then
// wakes; read by its owner just before the unlock.
bool othersWaitFor(const pthread_mutex_t* mutex);

// Whether this process may use a shared mutex: false only for a priority-
// inheriting one made in another PID namespace. The kernel finds the owner of
// such a mutex by thread id in the waiter's namespace; from another namespace
// it finds nobody, and the C library then aborts the process.
bool usableInThisNamespace(const pthread_mutex_t* mutex);

// After pthread_mutex_lock returned `result`, not 0: a mutex whose owner died
// is marked consistent ("mutex lock fixed failed!" when it cannot be),
// released and taken again with a blocking lock, so that a waiter queued
// behind the dead owner sees a healthy mutex; an owner found dead by that
// lock is repaired the same way. Other errors print
// "mutex lock error:%d.\n". True when held.
bool repairThenRelock(pthread_mutex_t* mutex, int result);

// How a lock of a mutex that guards shared state went. Repaired: the previous
// holder died inside, so the state it guards may be half-written.
enum class Locked { Failed, Held, Repaired };
// Locks, marking a dead owner's mutex consistent and keeping it held (not
// retaken), so that nobody sees the state it guards before the caller has
// mended it; tells such a repair apart.
Locked lockKeepingRepaired(pthread_mutex_t* mutex);

// The answer of pthread_mutex_trylock or pthread_mutex_clocklock as a bool:
// true when held, also after marking a dead owner's mutex consistent (kept
// held, not retaken: a second try could lose it).
bool heldKeepingRepaired(pthread_mutex_t* mutex, int result);

}  // namespace internal
}  // namespace ostrelled

#endif
