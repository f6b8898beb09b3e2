// ostrelled-ctl's commands: status, list and remove.

#include "Commands.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "Access.h"
#include "Inventory.h"
#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Private.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;

namespace ctl {

namespace {

// An account that may not open the manager's names is told so instead of
// being shown a manager that seems absent or a list that seems empty.
bool refuses(const ManagerAccess& access) {
  if (access.refused().empty()) return false;
  fprintf(stderr, "ostrelled-ctl: %s\n", access.refusal().c_str());
  return true;
}

void printAccess(const ManagerAccess& access) {
  std::string summary = access.summary();
  if (!summary.empty()) puts(summary.c_str());
  for (const std::string& line : access.changedByHand()) puts(line.c_str());
}

void printManager(const internal::ManagerProbe& probe, bool anyNamePresent) {
  switch (probe.state) {
    case internal::ManagerState::Serving:
      printf("manager: serving (process %d)\n", static_cast<int>(managerPid()));
      printf("round trip: %.3f ms\n", std::chrono::duration<double, std::milli>(probe.roundTrip).count());
      return;
    case internal::ManagerState::Silent:
      puts("manager: not answering (its names are present, but no answer came within 100 ms)");
      return;
    case internal::ManagerState::LockStuck:
      puts("manager: unknown (a living process has held the request lock for 200 ms)");
      return;
    case internal::ManagerState::NoNames:
      puts(anyNamePresent ? "manager: not answering (only some of its names are present)"
                          : "manager: none (no manager names on this machine)");
      return;
  }
}

void printLock(pid_t holder, bool alive) {
  if (holder == 0)
    puts("request lock: free");
  else if (alive)
    printf("request lock: held by process %d\n", static_cast<int>(holder));
  else
    printf("request lock: held by process %d, which has ended (the next request takes it over)\n",
           static_cast<int>(holder));
}

}  // namespace

int runStatus() {
  ManagerAccess access = ManagerAccess::read();
  if (refuses(access)) {
    printAccess(access);
    return 1;
  }
  bool present = access.anyPresent();
  bool alive = false;
  pid_t holder = present ? requestLockHolder(alive) : 0;
  internal::ManagerProbe probe = internal::probeManager(internal::Deadline::after(internal::kLiveHolderWait));
  printManager(probe, present);
  if (present) printLock(holder, alive);
  printAccess(access);
  return probe.state == internal::ManagerState::Serving ? 0 : 1;
}

int runList(bool json) {
  if (refuses(ManagerAccess::read())) return 1;
  std::vector<std::string> problems;
  std::vector<Block> blocks = listBlocks(problems);
  for (const std::string& problem : problems) fprintf(stderr, "ostrelled-ctl: %s\n", problem.c_str());
  if (!json) puts("NAME\tKIND\tATTACHED\tPIDS\tSTATE");
  if (json) fputs("[", stdout);
  for (size_t i = 0; i < blocks.size(); ++i) {
    const Block& block = blocks[i];
    std::string pids;
    for (pid_t pid : block.pids) pids += (pids.empty() ? "" : json ? ", " : ",") + std::to_string(pid);
    if (json) {
      printf("%s\n  {\"name\": %s, \"kind\": \"%s\", \"attached\": %u, \"pids\": [%s], \"state\": \"%s\"}",
             i == 0 ? "" : ",", jsonString(block.name).c_str(), block.kind.c_str(), block.attached, pids.c_str(),
             block.state());
    } else {
      printf("%s\t%s\t%u\t%s\t%s\n", printable(block.name).c_str(), block.kind.c_str(), block.attached,
             pids.empty() ? "-" : pids.c_str(), block.state());
    }
  }
  if (json) puts(blocks.empty() ? "]" : "\n]");
  return 0;
}

namespace {

// Removes names one at a time. While a manager serves, each removal holds the
// machine's request lock from the look at its users to the removal, so that
// no process can attach in between, and asks the manager to destroy the block
// so that its map forgets it; the name is unlinked directly when the manager
// does not know it, does not answer, or is not there.
class Remover {
 public:
  explicit Remover(bool force) : m_force(force) {
    internal::ManagerProbe probe = internal::probeManager(internal::Deadline::after(internal::kLiveHolderWait));
    m_managed = probe.state == internal::ManagerState::Serving && m_client.create(true);
  }

  bool remove(const std::string& given) {
    std::string name = given.size() > 1 && given[0] == '/' ? given.substr(1) : given;
    if (name.empty() || name.size() > 255 || name.find('/') != std::string::npos)
      return refuse(given, "is not the name of a named object");
    if (isManagerName(name)) return refuse(given, "belongs to the sync manager itself; stop the manager instead");
    if (m_managed && !m_client.lockUntil(internal::Deadline::after(internal::kLiveHolderWait)))
      return refuse(given, "was left alone: another process has held the request lock for 200 ms");
    bool removed = removeLocked(name, given);
    if (m_managed) m_client.unlock();
    return removed;
  }

 private:
  bool removeLocked(const std::string& name, const std::string& given) {
    Block block;
    switch (readBlock(name, block)) {
      case Reading::Unreadable:
        if (access(internal::shmPath(name).c_str(), F_OK) != 0) return refuse(given, "does not exist");
        return refuse(given, "cannot be read by this user");
      case Reading::Foreign:
        return refuse(given, "is not a named object of this library; left alone");
      case Reading::Damaged:
        if (!m_force) return refuse(given, "has damaged content; --force removes it");
        break;
      case Reading::Known:
        break;
    }
    std::vector<Block> one{block};
    Unseen unseen = findMappers(one);
    if (!one[0].pids.empty() && !m_force) return refuse(given, ("is in use by process " + pidList(one[0])).c_str());
    if (unseen.any() && one[0].attached != 0 && !m_force)
      return refuse(given, ("was left alone: " + unseenUsers(unseen) + ", or use --force").c_str());
    return unlinkBlock(name, given);
  }

  bool unlinkBlock(const std::string& name, const std::string& given) {
    if (m_managed) {
      // The manager knows a block by the name it was created with, with or without a slash.
      m_client.requestDestroy(name.c_str());
      m_client.requestDestroy(("/" + name).c_str());
    }
    if (unlink(internal::shmPath(name).c_str()) != 0 && errno != ENOENT)
      return refuse(given, (std::string("could not be removed: ") + strerror(errno)).c_str());
    printf("removed %s\n", printable(given).c_str());
    return true;
  }

  static std::string pidList(const Block& block) {
    std::string list;
    for (pid_t pid : block.pids) list += (list.empty() ? "" : ", ") + std::to_string(pid);
    return list + "; not removed (--force removes it anyway)";
  }

  static bool refuse(const std::string& given, const char* why) {
    fprintf(stderr, "ostrelled-ctl: '%s' %s\n", printable(given).c_str(), why);
    return false;
  }

  bool m_force;
  bool m_managed = false;
  internal::CSyncClient m_client;
};

}  // namespace

int runRemove(const std::vector<std::string>& names, bool force) {
  if (refuses(ManagerAccess::read())) return 1;
  Remover remover(force);
  int status = 0;
  for (const std::string& name : names)
    if (!remover.remove(name)) status = 1;
  return status;
}

}  // namespace ctl
