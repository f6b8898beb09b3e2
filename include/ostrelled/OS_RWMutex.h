#ifndef OSTRELLED_OS_RWMUTEX_H
#define OSTRELLED_OS_RWMUTEX_H

#include <ostrelled/OS.h>

/// @file
/// Reader/writer mutexes, anonymous or named (shared between processes).

/// Many readers or one writer, among threads (anonymous) or processes (named).
class rw_mutex_handle;

extern "C" {
/// New reader/writer mutex; a null name gives one for the threads of this
/// process. Never null: a named one that could not attach is returned
/// unattached, and its lock and unlock calls do nothing.
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
}

#endif
