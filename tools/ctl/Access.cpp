// ostrelled-ctl's view of who may use the manager's names and the blocks.

#include "Access.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Inventory.h"
#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/ManagedAccess.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;

namespace ctl {

namespace {

using internal::kManagedMode;

bool statFile(const std::string& name, FileMode& file) {
  struct stat st;
  if (lstat(internal::shmPath(name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  file.name = name;
  file.owner = st.st_uid;
  file.group = st.st_gid;
  file.mode = st.st_mode & 07777;
  file.size = st.st_size;
  file.semaphore = name.rfind(internal::kSemaphoreFilePrefix, 0) == 0;
  return true;
}

std::string groupName(gid_t gid) {
  const group* entry = getgrgid(gid);
  return entry != nullptr ? entry->gr_name : std::to_string(gid);
}

std::string userName(uid_t uid) {
  const passwd* entry = getpwuid(uid);
  return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::string octal(mode_t mode) {
  char text[16];
  snprintf(text, sizeof text, "%04o", static_cast<unsigned int>(mode & 07777));
  return text;
}

bool inGroup(gid_t gid) {
  if (getegid() == gid) return true;
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr) + 1));
  int count = getgroups(static_cast<int>(groups.size()), groups.data());
  for (int i = 0; i < count; ++i)
    if (groups[static_cast<size_t>(i)] == gid) return true;
  return false;
}

}  // namespace

ManagerAccess ManagerAccess::read() {
  using namespace internal::SyncNames;
  ManagerAccess access;
  const std::string files[] = {internal::semaphoreFileName(kEnabledSemaphore),
                               internal::semaphoreFileName(kRequestSemaphore),
                               internal::semaphoreFileName(kFinishSemaphore),
                               kRequestArea,
                               kRequestLock,
                               internal::kRegistryName};
  for (const std::string& name : files) {
    FileMode file;
    if (!statFile(name, file)) continue;
    access.m_names.push_back(file);
    if (faccessat(AT_FDCWD, internal::shmPath(name).c_str(), R_OK | W_OK, AT_EACCESS) != 0)
      access.m_refused.push_back(name);
  }
  if (!access.m_names.empty() && access.m_names[0].name == files[0]) {
    access.m_hasReference = true;
    access.m_reference = access.m_names[0];
  }
  return access;
}

// Without a group the enabled semaphore is 0755 less the umask: never
// writable by the group. With one it is 0660.
bool ManagerAccess::grouped() const { return (m_reference.mode & S_IWGRP) != 0; }

// Without a group the umask the manager ran with is unknown, so a write bit
// for group or others on a shared-memory object cannot be told from one that
// the umask left; every other bit must match the semaphore's.
bool ManagerAccess::fits(const FileMode& file) const {
  if (file.group != m_reference.group) return false;
  if (grouped()) return file.mode == kManagedMode;
  return file.semaphore ? file.mode == m_reference.mode : (file.mode & ~mode_t(022)) == m_reference.mode;
}

std::string ManagerAccess::expected(const FileMode& file) const {
  std::string group = ", group " + groupName(m_reference.group);
  if (grouped()) return "mode " + octal(kManagedMode) + group;
  if (file.semaphore) return "mode " + octal(m_reference.mode) + group;
  return "mode " + octal(m_reference.mode) + " with any write bits its umask left" + group;
}

std::string ManagerAccess::summary() const {
  if (!m_hasReference) return "";
  if (grouped())
    return "access: members of group " + groupName(m_reference.group) + " (names and objects have mode 0660)";
  std::string who = m_reference.owner == 0 ? "root" : "the account " + userName(m_reference.owner) + " and root";
  return "access: " + who + " only (the manager runs without --group; its semaphores have mode " +
         octal(m_reference.mode) + ")";
}

std::vector<std::string> ManagerAccess::changedByHand() const {
  std::vector<std::string> lines;
  if (!m_hasReference) return lines;
  std::vector<FileMode> files = m_names;
  if (DIR* folder = opendir(internal::kShmFolder)) {
    // Only blocks of the manager's account: a chmod or chgrp keeps the owner.
    while (dirent* entry = readdir(folder)) {
      FileMode file;
      std::string name = entry->d_name;
      if (name.rfind(internal::kSemaphoreFilePrefix, 0) == 0 || isManagerName(name) || !statFile(name, file)) continue;
      if (file.owner == m_reference.owner && isBlockSize(file.size)) files.push_back(file);
    }
    closedir(folder);
  }
  for (const FileMode& file : files) {
    bool reference = &file == &files[0];
    bool odd = reference ? grouped() && file.mode != kManagedMode : !fits(file);
    if (odd)
      lines.push_back("changed by hand: " + printable(file.name) + " has mode " + octal(file.mode) + ", group " +
                      groupName(file.group) + "; the manager gives " + expected(file));
  }
  return lines;
}

std::string ManagerAccess::refusal() const {
  std::string head = "this account (" + userName(geteuid()) + ") may not use named objects: ";
  if (!m_hasReference || (grouped() && inGroup(m_reference.group)) || (!grouped() && geteuid() == m_reference.owner)) {
    std::string names;
    for (const std::string& name : m_refused) names += (names.empty() ? "" : ", ") + printable(name);
    return head + "it may not open " + names +
           ", whose mode or group was changed by hand; 'ostrelled-ctl status' run as root shows which";
  }
  if (grouped()) {
    std::string group = groupName(m_reference.group);
    const passwd* self = getpwuid(geteuid());
    return head + "they belong to group " + group + ". Join it (usermod -aG " + group + " " +
           (self != nullptr ? self->pw_name : "NAME") + ", then log in again) or run as root";
  }
  return head + "the sync manager runs without --group, so they belong to the account " + userName(m_reference.owner) +
         " alone. Run as that account or as root, or start the manager with --group";
}

}  // namespace ctl
