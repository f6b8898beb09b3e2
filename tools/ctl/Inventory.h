#ifndef OSTRELLED_TOOLS_CTL_INVENTORY_H
#define OSTRELLED_TOOLS_CTL_INVENTORY_H

// What the inspection tool sees of named objects: the blocks in /dev/shm whose
// size and content match a known layout, and the processes that map them.

#include <sys/types.h>

#include <string>
#include <vector>

namespace ctl {

struct Block {
  std::string name;  // as under /dev/shm, without a slash
  std::string kind;  // "mutex", "rw-mutex", "semaphore/posix", ...
  unsigned int attached = 0;
  dev_t device = 0;
  ino_t inode = 0;
  std::vector<pid_t> pids;  // live mappers other than the manager and this tool
  bool unseen = false;      // some live user of named objects could not be inspected

  // idle: nobody attached; in-use: a live process maps it; stale: attached by
  // nobody alive; unknown: attached, no mapper seen, but not every process was.
  const char* state() const { return attached == 0 ? "idle" : !pids.empty() ? "in-use" : unseen ? "unknown" : "stale"; }
};

// How a block of this name and content reads: known (kind and count filled),
// not one of the library's blocks, damaged (a known size, impossible content)
// or unreadable (vanished, or no permission).
enum class Reading { Known, Foreign, Damaged, Unreadable };

// Reads one block by its /dev/shm name; block.name is set in every case.
Reading readBlock(const std::string& name, Block& block);

// The manager's names, which are never listed nor removed.
bool isManagerName(const std::string& name);
// Whether a file of this size may be a named object's block.
bool isBlockSize(off_t size);

// Every named-object block under /dev/shm, sorted by name, with its mappers.
// Damaged blocks, and processes whose use is unknown, are reported in
// `problems`, one line each.
std::vector<Block> listBlocks(std::vector<std::string>& problems);

// The processes whose use of a block the tool cannot see: those whose memory
// map it may not read (other users', when not run as root; -1: /proc cannot
// be read at all), and the live users of named objects in other PID
// namespaces (containers), which its /proc does not show.
struct Unseen {
  int unreadable = 0;
  int elsewhere = 0;
  bool any() const { return unreadable != 0 || elsewhere != 0; }
};

// Fills block.pids from the processes' memory maps and block.unseen. A process
// that ends while it is read is skipped.
Unseen findMappers(std::vector<Block>& blocks);

// Says what findMappers could not inspect.
std::string unseenUsers(const Unseen& unseen);

// The manager's pid when it lives (0: none, or gone), judged by its registry token.
pid_t managerPid();
// Who holds the request lock now (pid 0: free) and whether that holder lives.
pid_t requestLockHolder(bool& alive);

// The name as it is printed: backslash, tab, newline and other control
// characters escaped, so one block is one line.
std::string printable(const std::string& name);
// The same as a JSON string literal, quotes included.
std::string jsonString(const std::string& text);

}  // namespace ctl

#endif
