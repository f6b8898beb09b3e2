#ifndef OSTRELLED_TOOLS_CTL_INVENTORY_H
#define OSTRELLED_TOOLS_CTL_INVENTORY_H

// What the inspection tool sees of named objects: the blocks in /dev/shm whose
// size and content match a known layout, and the processes that map them.

#include <sys/types.h>

#include <string>
#include <vector>

namespace ctl {

constexpr const char* kShmFolder = "/dev/shm/";

struct Block {
  std::string name;    // as under /dev/shm, without a slash
  std::string kind;    // "mutex", "rw-mutex", "semaphore/posix", ...
  unsigned int attached = 0;
  dev_t device = 0;
  ino_t inode = 0;
  std::vector<pid_t> pids;  // live mappers other than the manager and this tool

  // idle: nobody attached; in-use: a live process maps it; stale: attached by nobody alive.
  const char* state() const { return attached == 0 ? "idle" : pids.empty() ? "stale" : "in-use"; }
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

// Fills block.pids from the processes' memory maps. A process that ends while
// it is read is skipped. Returns how many processes' maps could not be read
// (other users' processes, when not run as root), -1 when /proc cannot be
// read at all: their use of a block is unknown.
int findMappers(std::vector<Block>& blocks);

// Says that findMappers could not inspect `unknown` processes (-1: none).
std::string unknownUsers(int unknown);

// The pid of the manager that made the request-lock record (0: none or gone),
// and who holds the request lock now (0: free).
pid_t managerPid();
pid_t requestLockHolder();
bool isAlive(pid_t pid);

// The name as it is printed: backslash, tab, newline and other control
// characters escaped, so one block is one line.
std::string printable(const std::string& name);
// The same as a JSON string literal, quotes included.
std::string jsonString(const std::string& text);

}  // namespace ctl

#endif
