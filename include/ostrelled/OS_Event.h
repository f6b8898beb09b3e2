#ifndef OSTRELLED_OS_EVENT_H
#define OSTRELLED_OS_EVENT_H

#include <time.h>

#include <ostrelled/OS.h>

/// @file
/// Manual- and auto-reset events, anonymous or named (shared between processes).

/// A manual- or auto-reset event, private to the process or shared by name.
/// A named event keeps working for the others when a process using it dies
/// at any moment, inside a wait, a set or a reset.
class event_handle;

extern "C" {
/// New event, set when bInitial. A null name gives an anonymous event. Never
/// null: a named event that could not attach is returned unusable. A later
/// opener of a name gets the first creator's reset kind and state; its own
/// arguments are ignored.
OSTRELLED_EXPORT event_handle* os_event_create(bool bManualReset, bool bInitial, RT_MODE mode,
                                               const char* strEventName);
/// Detaches and frees the handle; a null pointer is ignored, the caller's pointer is nulled.
OSTRELLED_EXPORT void os_event_destroy(event_handle*& handle);
/// Sets the event and wakes its waiters; setting a set event wakes nobody.
OSTRELLED_EXPORT void os_event_set_event(event_handle* handle);
/// Clears the event.
OSTRELLED_EXPORT void os_event_reset_event(event_handle* handle);
/// Waits until the event is set. An auto-reset event is cleared by the one
/// waiter that returns. False for a null or unusable handle.
OSTRELLED_EXPORT bool os_event_wait(event_handle* handle);
/// As os_event_wait, giving up at the absolute CLOCK_MONOTONIC time `timeout`
/// (false then). A set event is taken even when the deadline has passed.
OSTRELLED_EXPORT bool os_event_wait_timeout(event_handle* handle, timespec timeout);
/// False for null and for a named handle that could not attach; true for an anonymous or attached one.
OSTRELLED_EXPORT bool os_event_is_attached(const event_handle* handle);
}

#endif
