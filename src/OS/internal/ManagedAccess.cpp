// The group and mode of the manager's names: set once before the manager starts.

#include "OS/internal/ManagedAccess.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Private.h"

namespace ostrelled {
namespace internal {

namespace {
bool gHasGroup = false;
gid_t gGroup = 0;
}  // namespace

void setManagedGroup(gid_t group) {
  gGroup = group;
  gHasGroup = true;
}

mode_t managedCreateMode(mode_t usual) { return gHasGroup ? 0600 : usual; }

bool applyManagedAccess(int fd) {
  if (!gHasGroup) return true;
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  // Root could change another account's object too: it would stay that account's.
  if (st.st_uid != geteuid()) {
    errno = EPERM;
    return false;
  }
  // The group while the mode still shuts it out, then the mode: never wider in between.
  if (st.st_gid != gGroup && fchown(fd, static_cast<uid_t>(-1), gGroup) != 0) return false;
  return fchmod(fd, kManagedMode) == 0;
}

bool applyManagedAccess(const char* semaphoreName) {
  if (!gHasGroup) return true;
  std::string path = semaphorePath(semaphoreName);
  int fd = retryOnEintr([&] { return open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC); });
  if (fd == -1) return false;
  bool applied = applyManagedAccess(fd);
  ErrnoGuard keep;
  close(fd);
  return applied;
}

}  // namespace internal
}  // namespace ostrelled
