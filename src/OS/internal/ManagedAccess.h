#ifndef OSTRELLED_SRC_OS_INTERNAL_MANAGEDACCESS_H
#define OSTRELLED_SRC_OS_INTERNAL_MANAGEDACCESS_H

// Who may use the names the sync manager creates. By default a name gets the
// mode it is created with, less the umask. With a group set (the daemon's
// --group), every name belongs to that group with mode 0660: the owner and the
// group read and write, nothing for anybody else. Every place where the manager
// creates a name creates it with managedCreateMode and then hands it over with
// applyManagedAccess, so a name is never visible with wider permissions than
// those it ends with.

#include <sys/types.h>

namespace ostrelled {
namespace internal {

// The mode of every managed name while a group is set.
constexpr mode_t kManagedMode = 0660;

// Gives every name created afterwards to `group`. Set once, before the manager
// starts (the manager's thread reads it without a lock).
void setManagedGroup(gid_t group);

// The mode to create a managed name with: `usual` without a group; with one,
// 0600, so that nobody but the owner sees the name until applyManagedAccess.
mode_t managedCreateMode(mode_t usual);

// Hands the object open as fd to the group: group first, then mode 0660, and
// only when this process owns it (an object that another account put under
// the name first is refused, not adopted). True at once without a group; false
// with errno set (EPERM for another account's object) when the object keeps
// other access.
bool applyManagedAccess(int fd);
// The same for a named semaphore, by its name ("/x" is the file /dev/shm/sem.x).
bool applyManagedAccess(const char* semaphoreName);

}  // namespace internal
}  // namespace ostrelled

#endif
