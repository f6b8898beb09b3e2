#ifndef OSTRELLED_SRC_OS_INTERNAL_SYSVSEMAPHORE_H
#define OSTRELLED_SRC_OS_INTERNAL_SYSVSEMAPHORE_H

// System V operations on a set of one semaphore, and its key from a block's file;
// used by SysVSemaphore in SyncPrimitives.h, for the semaphore and the event.

#include <sys/types.h>
#include <time.h>

#include <string>

#include "OS/internal/Deadline.h"

namespace ostrelled {
namespace internal {
namespace SysV {

// semctl(IPC_RMID) of the whole set.
void destroySem(int intSemId);
// semctl(GETVAL) of semaphore 0: its value, or -1 with errno set.
int getSemVal(int intSemId);
// semctl(SETVAL) of semaphore 0.
void setSemVal(int intSemId, int intValue);
// semop +1; prints "<prefix>:semop[post] failed,errno=%d!!" on failure.
void postSem(const char* prefix, int intSemId, bool bUndoTrack);
// semop -1, going on after signals; true when a unit was taken. Failures
// other than EAGAIN are printed.
bool waitSem(const char* prefix, int intSemId, bool bUndoTrack);
// semtimedop -1 until the deadline (a passed one tries once); the span is
// recomputed after a signal. True when a unit was
// taken in time. EAGAIN (the time-out) is silent, other failures are printed.
bool waitSemUntil(const char* prefix, int intSemId, const Deadline& deadline, bool bUndoTrack);

// semget(key, 1, IPC_CREAT | 0755) for a new named object: the set id, or -1.
// When the block "/dev/shm/<name>" gives nothing to others (the manager has a
// group), the set gets the block's group and its mode 0660 instead.
int createSet(key_t key, const std::string& name);

// ftok of the block's file "/dev/shm/<name>" with project id 0, so that every
// process attached to one name reaches one set. False when the file cannot be
// seen; then prints "can't access memory file[(null)], create <what> failed".
bool keyOfBlock(const std::string& name, const char* what, key_t& key);

}  // namespace SysV

inline constexpr char kSemaphoreMessagePrefix[] = "semaphore";
inline constexpr char kEventMessagePrefix[] = "event";

}  // namespace internal
}  // namespace ostrelled

#endif
