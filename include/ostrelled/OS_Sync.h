#ifndef OSTRELLED_OS_SYNC_H
#define OSTRELLED_OS_SYNC_H

#include <ostrelled/OS.h>

/// @file
/// The sync manager that every named object needs: start one per machine, or ask
/// whether one is reachable.

/// The sync manager: one per machine, it alone creates and unlinks the blocks
/// of named synchronisation objects, on request from every process.
class os_sync_manager_handle;

extern "C" {
/// bAsClient true: true when the manager's semaphores and request area can all be
/// opened (nothing is kept open), which names left by a manager that died also
/// satisfy: os_sync_environment_ping tells whether a manager answers. false: starts a manager in this process and
/// waits up to about a second for it to take requests; false when it cannot start.
/// A second manager call replaces the first without stopping it: call it once.
OSTRELLED_EXPORT bool os_sync_environment_initialize(bool bAsClient);
/// Stops this process's manager, unlinking every name it manages; nothing without one.
OSTRELLED_EXPORT void os_sync_environment_uninitialize();
/// Whether a manager answers now: false without manager names, when nobody
/// answers, or when the machine's request lock cannot be had, all within
/// uintMilliseconds. Sends one request that the manager answers and ignores;
/// prints nothing.
OSTRELLED_EXPORT bool os_sync_environment_ping(unsigned int uintMilliseconds);
}

#endif
