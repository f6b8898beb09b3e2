#ifndef OSTRELLED_TOOLS_CTL_ACCESS_H
#define OSTRELLED_TOOLS_CTL_ACCESS_H

// Who may use the machine's named objects, as the modes of the sync manager's
// names tell it: whether this account may, and which names and blocks have a
// group or mode other than the manager gives them.

#include <sys/types.h>

#include <string>
#include <vector>

namespace ctl {

// One file under /dev/shm, as stat shows it.
struct FileMode {
  std::string name;  // under /dev/shm
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;  // permission bits only
  off_t size = 0;
  bool semaphore = false;
};

class ManagerAccess {
 public:
  // Looks at the manager's names present under /dev/shm.
  static ManagerAccess read();

  // Whether any of the manager's names is present.
  bool anyPresent() const { return !m_names.empty(); }
  // The manager's names that this account may not open for reading and writing.
  const std::vector<std::string>& refused() const { return m_refused; }
  // Says plainly why this account may not use named objects and what to do.
  std::string refusal() const;
  // "access: ..." telling who may use named objects; empty without the enabled semaphore.
  std::string summary() const;
  // One line per manager name, and per block of the manager's account, whose
  // group or mode is not what the manager gives: changed by hand.
  std::vector<std::string> changedByHand() const;

 private:
  bool grouped() const;
  bool fits(const FileMode& file) const;
  std::string expected(const FileMode& file) const;

  std::vector<FileMode> m_names;
  std::vector<std::string> m_refused;
  bool m_hasReference = false;
  FileMode m_reference;  // the enabled semaphore: the manager makes it first, nobody else makes it
};

}  // namespace ctl

#endif
