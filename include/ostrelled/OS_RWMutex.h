#ifndef OSTRELLED_OS_RWMUTEX_H
#define OSTRELLED_OS_RWMUTEX_H

#include <time.h>

#include <ostrelled/OS.h>

/// @file
/// Reader/writer mutexes, anonymous or named (shared between processes).

/// Many readers or one writer, among threads (anonymous) or processes (named).
/// A named one gives back the share of a holder process that died: the next
/// locker finds it free of the dead writer or reader, and a blocked locker
/// notices within about a second. Holders are recorded by process id, so all
/// users of one name must share a pid namespace. Reader processes are recorded
/// up to OS_RW_MUTEX_TRACKED_READERS at once; a reader process beyond that
/// still gets in, but if it dies holding the lock its share is never given
/// back. A process that died but has not yet been reaped by its parent (a
/// zombie) still counts as a holder, as does one whose pid was already reused.
class rw_mutex_handle;

/// How many reader processes a named reader/writer mutex records at once.
constexpr int OS_RW_MUTEX_TRACKED_READERS = 9;

extern "C" {
/// New reader/writer mutex; never null: a named one that could not attach is
/// returned unattached, and its lock and unlock calls do nothing. A null name
/// gives one for the threads of this process.
OSTRELLED_EXPORT rw_mutex_handle* os_rw_mutex_create(RT_MODE mode, const char* strMutexName);
/// Detaches and frees the handle; a null pointer is ignored, the caller's pointer is nulled.
OSTRELLED_EXPORT void os_rw_mutex_destroy(rw_mutex_handle*& handle);
/// Enters as a reader. Readers are preferred: a waiting writer does not hold
/// new readers back, so writers can starve.
OSTRELLED_EXPORT void os_rw_mutex_lock_rd(rw_mutex_handle* handle);
/// Enters as the only writer, once no reader and no writer is inside.
OSTRELLED_EXPORT void os_rw_mutex_lock_wr(rw_mutex_handle* handle);
/// Leaves, as a reader or as the writer (one call serves both). The last reader
/// out may be another thread or process than the first one in.
OSTRELLED_EXPORT void os_rw_mutex_unlock(rw_mutex_handle* handle);
/// Enters as a reader only if no writer is inside (readers are preferred: a
/// waiting writer does not count); false at once otherwise, or for a null or unattached handle.
OSTRELLED_EXPORT bool os_rw_mutex_trylock_rd(rw_mutex_handle* handle);
/// Enters as the writer only if nobody is inside; false at once otherwise. Leaves no trace when it fails.
OSTRELLED_EXPORT bool os_rw_mutex_trylock_wr(rw_mutex_handle* handle);
/// As os_rw_mutex_lock_rd, giving up (false) at the absolute CLOCK_MONOTONIC time `deadline`.
/// A lock obtained is released with os_rw_mutex_unlock.
OSTRELLED_EXPORT bool os_rw_mutex_lock_rd_timeout(rw_mutex_handle* handle, timespec deadline);
/// As os_rw_mutex_lock_wr, giving up (false) at the absolute CLOCK_MONOTONIC
/// time `deadline`; a writer that gives up holds nobody back afterwards.
OSTRELLED_EXPORT bool os_rw_mutex_lock_wr_timeout(rw_mutex_handle* handle, timespec deadline);
/// False for null and for a named handle that could not attach; true for an anonymous or attached one.
OSTRELLED_EXPORT bool os_rw_mutex_is_attached(const rw_mutex_handle* handle);
}

#endif
