#ifndef OSTRELLED_OS_MUTEX_H
#define OSTRELLED_OS_MUTEX_H

#include <time.h>

#include <ostrelled/OS.h>

/// @file
/// Mutexes, anonymous or named (shared between processes), and conditions bound to an
/// anonymous mutex.

/// A mutex private to the process, or shared by name between processes (robust:
/// the next locker recovers it when its owner dies).
class mutex_handle;
/// A condition variable bound to an anonymous mutex; never shared between processes.
class condition_handle;

/// No flag for os_mutex_create: a plain, non-recursive mutex; bits other than the two below
/// are ignored.
constexpr unsigned int DEFAULT_MUTEX_ATTRIBUTE = 0x00000000u;
/// Flag of os_mutex_create: the owner may lock again and must unlock as often.
constexpr unsigned int MUTEX_RECURSIVE = 0x00000001u;
/// Flag of os_mutex_create: an owner inherits the priority of a higher-priority waiter.
/// A named one works only within the PID namespace that created it (the kernel finds
/// owners by thread id): a process of another namespace gets an unattached handle, errno ENOTSUP.
constexpr unsigned int MUTEX_PRIO_INHERIT = 0x80000000u;

/// Results of os_condition_wait and os_condition_wait_timeout, returned as int.
enum CONDITION_WAIT_RESULT { WAIT_CONDITION_OK = 0, WAIT_CONDITION_TIMEOUT = 1, WAIT_CONDITION_FAILED = 2 };
/// @var WAIT_CONDITION_OK
/// Woken (possibly spuriously), holding the mutex again.
//
/// @var WAIT_CONDITION_TIMEOUT
/// The deadline passed; the mutex is held again.
//
/// @var WAIT_CONDITION_FAILED
/// The wait failed, or the condition has no usable mutex.

extern "C" {
/// Never null. A name (also an empty one) asks the sync manager for a shared
/// mutex; the first creator's flags stand. A handle that could not attach (name
/// over 1023 characters, no manager, no reply, a priority-inheriting mutex of another
/// PID namespace) makes lock and unlock do nothing.
OSTRELLED_EXPORT mutex_handle* os_mutex_create(unsigned int uintFlag, RT_MODE mode, const char* strMutexName);
/// Detaches (the last handle on the machine removes the shared block), frees, nulls the pointer.
OSTRELLED_EXPORT void os_mutex_destroy(mutex_handle*& handle);
/// Locks; when the previous owner died holding it, repairs it and returns holding it.
OSTRELLED_EXPORT void os_mutex_lock(mutex_handle* handle);
/// Unlocks; the result of the unlock is ignored. Does nothing for an unattached handle.
OSTRELLED_EXPORT void os_mutex_unlock(mutex_handle* handle);
/// Takes the mutex only if it is free: false, at once, when another holder has it.
/// A named mutex whose owner died is repaired and taken (true). False for a null or unattached handle.
OSTRELLED_EXPORT bool os_mutex_trylock(mutex_handle* handle);
/// As os_mutex_lock, giving up (false) at the absolute CLOCK_MONOTONIC time `deadline`; a past one tries once.
/// Works for every attribute set, priority inheritance included. False for a null or unattached handle.
OSTRELLED_EXPORT bool os_mutex_lock_timeout(mutex_handle* handle, timespec deadline);
/// False for null and for a named handle that could not attach; true for an anonymous or attached one.
OSTRELLED_EXPORT bool os_mutex_is_attached(const mutex_handle* handle);

/// Null for a named, attached mutex (conditions stay within one process) and for a null mutex.
OSTRELLED_EXPORT condition_handle* os_condition_create(mutex_handle* lck_handle, RT_MODE mode);
/// Destroy before the bound mutex.
OSTRELLED_EXPORT void os_condition_destroy(condition_handle*& handle);
/// Wakes one waiter; nothing for a null handle.
OSTRELLED_EXPORT void os_condition_notify(condition_handle* handle);
/// Wakes every waiter; nothing for a null handle.
OSTRELLED_EXPORT void os_condition_notify_all(condition_handle* handle);
/// CONDITION_WAIT_RESULT as int, -1 for a null handle. The caller holds the bound mutex.
OSTRELLED_EXPORT int os_condition_wait(condition_handle* handle);
/// As os_condition_wait; timeout is an absolute CLOCK_MONOTONIC time, not a duration.
OSTRELLED_EXPORT int os_condition_wait_timeout(condition_handle* handle, timespec timeout);
}

#endif
