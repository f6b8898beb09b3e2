#ifndef OSTRELLED_OS_SEMAPHORE_H
#define OSTRELLED_OS_SEMAPHORE_H

#include <time.h>

#include <ostrelled/OS.h>

/// @file
/// Counting semaphores, anonymous or named (shared between processes).

/// A counting semaphore, private to the process or shared by name.
class semaphore_handle;

extern "C" {
/// New semaphore holding intInitialCount units; a null name gives an anonymous
/// one. Never null: a named semaphore that could not attach (no sync manager,
/// name over 1023 characters) is returned unattached, and its waits fail. A
/// later opener of a name gets the existing count; its own count is ignored.
OSTRELLED_EXPORT semaphore_handle* os_semaphore_create(int intInitialCount, RT_MODE mode, const char* strSemaphoreName);
/// Detaches and frees the handle; a null pointer is ignored, the caller's pointer is nulled.
OSTRELLED_EXPORT void os_semaphore_destroy(semaphore_handle*& handle);
/// Whether System V operations are undone by the kernel when this process
/// exits. False only for a null handle.
OSTRELLED_EXPORT bool os_semaphore_set_undo_track(semaphore_handle* handle, bool bUndoTrack);
/// Takes one unit, waiting until one comes: signals do not end the wait.
/// False for a null or unattached handle.
OSTRELLED_EXPORT bool os_semaphore_wait(semaphore_handle* handle);
/// Takes one unit before the absolute CLOCK_MONOTONIC time `timeout` (a past one
/// tries once); signals do not shorten the wait. False on time-out and for a null or unattached handle.
OSTRELLED_EXPORT bool os_semaphore_wait_timeout(semaphore_handle* handle, timespec timeout);
/// Adds one unit; nothing for a null or unattached handle.
OSTRELLED_EXPORT void os_semaphore_release(semaphore_handle* handle);
/// The units available now (0 or more); -1 for a null or unattached handle.
OSTRELLED_EXPORT int os_semaphore_get_value(semaphore_handle* handle);
/// False for null and for a named handle that could not attach; true for an anonymous or attached one.
OSTRELLED_EXPORT bool os_semaphore_is_attached(const semaphore_handle* handle);
}

#endif
