#ifndef OSTRELLED_SRC_OS_SYSVSEMAPHORE_H
#define OSTRELLED_SRC_OS_SYSVSEMAPHORE_H

// The semaphore primitives shared by semaphore_handle and event_handle: the
// handle union, the System V operations on a set of one semaphore (written
// once; the owner's message prefix is their only difference) and the System V
// key derived from a named block's file.

#include <semaphore.h>
#include <sys/types.h>
#include <time.h>

#include <string>

// One pointer, two views: a POSIX semaphore, or the System V set id kept in a
// named block. Which view is live is recorded beside it by the owner.
union sem_handle {
  sem_t* m_hAnonymousHandle;
  int* m_hNamedHandle;
};

namespace OS {
namespace SysV {

// semctl(IPC_RMID) of the whole set.
void destroySem(int intSemId);
// semctl(GETVAL) of semaphore 0: its value, or -1 with errno set.
int getSemVal(int intSemId);
// semctl(SETVAL) of semaphore 0.
void setSemVal(int intSemId, int intValue);
// semop +1; prints "<prefix>:semop[post] failed,errno=%d!!" on failure.
void postSem(const char* prefix, int intSemId, bool bUndoTrack);
// semop -1; true when a unit was taken. Failures other than EAGAIN are printed.
bool waitSem(const char* prefix, int intSemId, bool bUndoTrack);
// semtimedop -1 with the relative span; true when a unit was taken in time.
// EAGAIN (the time-out) is silent, other failures are printed.
bool waitSemTimeout(const char* prefix, int intSemId, timespec* timeSpan, bool bUndoTrack);

// semget(key, 1, IPC_CREAT | 0755) for a new named object: the set id, or -1.
int createSet(key_t key);

// ftok of the block's file "/dev/shm/<name>" with project id 0, so that every
// process attached to one name reaches one set. False when the file cannot be
// seen; then prints "can't access memory file[(null)], create <what> failed".
bool keyOfBlock(const std::string& name, const char* what, key_t& key);

}  // namespace SysV

// The System V operations as members of their owner, with its message prefix.
template <const char* Prefix>
class SysVSemaphoreOps {
 protected:
  static void destroySem(int intSemId) { SysV::destroySem(intSemId); }
  static int getSemVal(int intSemId) { return SysV::getSemVal(intSemId); }
  static void setSemVal(int intSemId, int intValue) { SysV::setSemVal(intSemId, intValue); }
  static void postSem(int intSemId, bool bUndoTrack) { SysV::postSem(Prefix, intSemId, bUndoTrack); }
  static bool waitSem(int intSemId, bool bUndoTrack) { return SysV::waitSem(Prefix, intSemId, bUndoTrack); }
  static bool waitSemTimeout(int intSemId, timespec* timeSpan, bool bUndoTrack) {
    return SysV::waitSemTimeout(Prefix, intSemId, timeSpan, bUndoTrack);
  }

  ~SysVSemaphoreOps() = default;
};

inline constexpr char kSemaphoreMessagePrefix[] = "semaphore";
inline constexpr char kEventMessagePrefix[] = "event";

}  // namespace OS

#endif
