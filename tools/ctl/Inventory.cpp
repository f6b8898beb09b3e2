// What ostrelled-ctl sees of named objects: blocks in /dev/shm and their mappers.

#include "Inventory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Liveness.h"
#include "OS/internal/Private.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;

namespace ctl {

namespace {

using Layout = internal::BlockKind;

const Layout* layoutOfSize(off_t size) {
  for (const Layout& layout : internal::kBlockKinds)
    if (layout.size == size) return &layout;
  return nullptr;
}

bool contentFits(const Layout& layout, const unsigned char* bytes, unsigned int attached) {
  if (attached == 0) return true;  // created, not yet initialised: all zero
  for (int at : layout.flagsAt)
    if (at >= 0 && bytes[at] > 1) return false;
  return layout.kindFlagAt < 0 || bytes[layout.kindFlagAt] == layout.kindFlag;
}

// The whole block, read with one pread: a block truncated meanwhile reads short.
Reading readBytes(const std::string& name, struct stat& st, unsigned char* bytes, size_t capacity) {
  int fd = open(internal::shmPath(name).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return Reading::Unreadable;
  Reading result = Reading::Known;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    result = Reading::Foreign;
  } else if (layoutOfSize(st.st_size) == nullptr) {
    result = Reading::Foreign;
  } else if (pread(fd, bytes, capacity, 0) != st.st_size) {
    result = Reading::Unreadable;
  }
  close(fd);
  return result;
}

}  // namespace

bool isBlockSize(off_t size) { return layoutOfSize(size) != nullptr; }

bool isManagerName(const std::string& name) { return name.rfind(internal::SyncNames::kPrefix, 0) == 0; }

Reading readBlock(const std::string& name, Block& block) {
  block = Block{};
  block.name = name;
  if (name.empty() || name.find('/') != std::string::npos || isManagerName(name)) return Reading::Foreign;
  struct stat st;
  unsigned char bytes[256] = {};
  Reading reading = readBytes(name, st, bytes, sizeof bytes);
  if (reading != Reading::Known) return reading;
  const Layout& layout = *layoutOfSize(st.st_size);
  memcpy(&block.attached, bytes + internal::kAttachCountAt, sizeof block.attached);
  block.kind = layout.name;
  block.device = st.st_dev;
  block.inode = st.st_ino;
  return contentFits(layout, bytes, block.attached) ? Reading::Known : Reading::Damaged;
}

std::string unseenUsers(const Unseen& unseen) {
  std::string who;
  if (unseen.unreadable < 0) who = "no process could be inspected";
  if (unseen.unreadable > 0)
    who = "the memory of " + std::to_string(unseen.unreadable) + " processes of other users could not be inspected";
  if (unseen.elsewhere > 0)
    who += (who.empty() ? "" : "; ") + std::to_string(unseen.elsewhere) +
           " processes in other PID namespaces (containers) use named objects, and this one cannot see which";
  std::string how = unseen.unreadable != 0 ? "run as root or as the objects' user" : "";
  if (unseen.elsewhere > 0)
    how += (how.empty() ? "" : ", and ") + std::string("run in the PID namespace of those processes");
  return who + "; " + how + " to see every user of an object";
}

std::vector<Block> listBlocks(std::vector<std::string>& problems) {
  std::vector<Block> blocks;
  DIR* folder = opendir(internal::kShmFolder);
  if (folder == nullptr) {
    problems.push_back(std::string("cannot read ") + internal::kShmFolder + ": " + strerror(errno));
    return blocks;
  }
  while (dirent* entry = readdir(folder)) {
    std::string name = entry->d_name;
    if (name == "." || name == ".." || name.rfind(internal::kSemaphoreFilePrefix, 0) == 0) continue;
    Block block;
    Reading reading = readBlock(name, block);
    if (reading == Reading::Known) blocks.push_back(block);
    if (reading == Reading::Damaged)
      problems.push_back(printable(name) + ": the size of a " + block.kind + " but not its content; left out");
  }
  closedir(folder);
  std::sort(blocks.begin(), blocks.end(), [](const Block& a, const Block& b) { return a.name < b.name; });
  if (Unseen unseen = findMappers(blocks); unseen.any()) problems.push_back(unseenUsers(unseen));
  return blocks;
}

namespace {

using FileId = std::pair<dev_t, ino_t>;

// Adds pid to every block whose file one line of its memory map names.
// Lines read "start-end perms offset major:minor inode path"; the numbers
// identify the file whatever characters its name holds.
void noteMapLine(const std::string& line, pid_t pid, std::map<FileId, Block*>& byFile) {
  unsigned int major = 0, minor = 0;
  unsigned long inode = 0;
  if (sscanf(line.c_str(), "%*s %*s %*s %x:%x %lu", &major, &minor, &inode) != 3 || inode == 0) return;
  auto found = byFile.find(FileId(makedev(major, minor), static_cast<ino_t>(inode)));
  if (found == byFile.end()) return;
  std::vector<pid_t>& pids = found->second->pids;
  if (pids.empty() || pids.back() != pid) pids.push_back(pid);
}

unsigned int recordWord(size_t offset) {
  unsigned int word = 0;
  int fd = open(internal::shmPath(internal::SyncNames::kRequestLock).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  if (pread(fd, &word, sizeof word, static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof word)) word = 0;
  close(fd);
  return word;
}

// What one walk of the registry tells: the manager's pid as this tool's /proc
// numbers it (0 when the manager runs in another PID namespace, where its
// number names some other process here), and how many live registered
// processes this /proc does not show: those of other PID namespaces, or of one
// it cannot tell. The manager maps no block, so it is not counted.
struct RegistryView {
  pid_t managerHere = 0;
  int elsewhere = 0;
};

RegistryView viewRegistry() {
  internal::ProcessRegistry* registry = internal::currentRegistry();
  auto manager = static_cast<internal::ProcessToken>(recordWord(offsetof(internal::RequestLockRecord, managerToken)));
  if (registry == nullptr) return {managerPid(), 0};
  uint64_t here = internal::ownPidNamespace();
  RegistryView view;
  if (manager == internal::kNoProcess) view.managerHere = managerPid();
  registry->forEachLive([&](internal::ProcessToken token, pid_t pid, uint64_t pidNamespace) {
    bool local = here != 0 && pidNamespace == here;
    if (token == manager && local) view.managerHere = pid;
    if (token != manager && !local) ++view.elsewhere;
  });
  return view;
}

// Notes every block the process maps. False when its map may not be read by
// a caller other than root (a process of another user); one that has ended
// meanwhile counts as read. Root reads every process but those that shield
// themselves from inspection on purpose (such as a sandbox's init), which
// are taken to use no named object.
bool readMaps(pid_t pid, std::map<FileId, Block*>& byFile) {
  FILE* maps = fopen(("/proc/" + std::to_string(pid) + "/maps").c_str(), "re");
  if (maps == nullptr) return errno == ENOENT || errno == ESRCH || geteuid() == 0;
  char* line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, maps) != -1) noteMapLine(line, pid, byFile);
  free(line);
  fclose(maps);
  return true;
}

}  // namespace

Unseen findMappers(std::vector<Block>& blocks) {
  std::map<FileId, Block*> byFile;
  for (Block& block : blocks) byFile[FileId(block.device, block.inode)] = &block;
  RegistryView view = viewRegistry();
  pid_t manager = view.managerHere, self = getpid();
  Unseen unseen;
  unseen.elsewhere = view.elsewhere;
  if (DIR* proc = opendir("/proc")) {
    while (dirent* entry = readdir(proc)) {
      char* end = nullptr;
      long pid = strtol(entry->d_name, &end, 10);
      if (pid <= 0 || *end != '\0' || pid == manager || pid == self) continue;
      if (!readMaps(static_cast<pid_t>(pid), byFile)) ++unseen.unreadable;
    }
    closedir(proc);
  } else {
    unseen.unreadable = -1;
  }
  for (Block& block : blocks) {
    std::sort(block.pids.begin(), block.pids.end());
    block.unseen = unseen.any();
  }
  return unseen;
}

pid_t managerPid() {
  pid_t pid = 0;
  return internal::managerPresence(&pid) == internal::Presence::Alive ? pid : 0;
}

pid_t requestLockHolder(bool& alive) {
  auto token = static_cast<internal::ProcessToken>(recordWord(offsetof(internal::RequestLockRecord, holderToken)));
  internal::ProcessRegistry* registry = internal::currentRegistry();
  alive = registry == nullptr || !registry->gone(token);
  return static_cast<pid_t>(recordWord(offsetof(internal::RequestLockRecord, holder)));
}

namespace {

// Backslash escapes: tab and newline by name where the format has them, other
// control characters by code (\xNN for a line, \u00NN for JSON).
std::string escaped(const std::string& text, bool json) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '\\' || (json && c == '"')) {
      out += '\\';
      out += static_cast<char>(c);
    } else if (!json && (c == '\t' || c == '\n')) {
      out += c == '\t' ? "\\t" : "\\n";
    } else if (c < 0x20 || c == 0x7f) {
      char code[8];
      snprintf(code, sizeof code, json ? "\\u%04x" : "\\x%02x", c);
      out += code;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace

std::string printable(const std::string& name) { return escaped(name, false); }

std::string jsonString(const std::string& text) { return "\"" + escaped(text, true) + "\""; }

}  // namespace ctl
