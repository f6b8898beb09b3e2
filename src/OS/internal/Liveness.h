#ifndef OSTRELLED_SRC_OS_INTERNAL_LIVENESS_H
#define OSTRELLED_SRC_OS_INTERNAL_LIVENESS_H

// Whether a process is still there, answered by the kernel, never by a process
// id: an id means nothing in another PID namespace and names somebody else once
// it is reused. Every judgement of a holder, a client or the manager comes here.
//
// The sync manager keeps one registry under /dev/shm. A process joins it once
// (again after a fork) with a 32-bit token that is never handed out twice: it
// takes an open-file-description lock on the byte of the token's slot and
// writes the token into the slot. The kernel drops that lock when the process's
// last descriptor of it closes, that is when the process ends, in whatever PID
// namespace it lives; every thread shares it. So a token whose slot holds
// another token, or whose slot byte nobody locks, belongs to a process that is
// gone. A robust mutex would not do: it dies with the thread that took it.

#include <stdint.h>
#include <sys/types.h>

#include <functional>

namespace ostrelled {
namespace internal {

using ProcessToken = uint32_t;
// No process (a free holder slot).
constexpr ProcessToken kNoProcess = 0;
// A process that could not join the registry (it was full, or unreadable):
// recorded as a holder, it is never judged gone.
constexpr ProcessToken kUntrackedProcess = 0xffffffffu;

// The registry's machine-wide name (under /dev/shm) and its capacity: the
// processes that may be registered at once. A process beyond it is untracked.
constexpr const char* kRegistryName = "os_mutex_manage_process_registry";
constexpr uint32_t kRegistryCapacity = 16384;

enum class Presence { Alive, Gone, Unknown };

// One registry as this process sees it. Handles keep the registry that was
// current when they attached: their block and the registry live and die with
// the same manager's names.
class ProcessRegistry {
 public:
  // This process's token, joining on first use; kUntrackedProcess when it cannot join.
  ProcessToken own();
  // Forgets this process's token when its descriptor was closed behind the
  // library's back (a program that closes every descriptor), so that the
  // next own() joins again. Once per attach: one fstat.
  void renewIfLost();
  // Gone only when the kernel says so; Unknown when the registry cannot be read.
  Presence presence(ProcessToken token);
  bool gone(ProcessToken token) { return presence(token) == Presence::Gone; }
  // Every live registered process: its pid (in its own namespace, a label only)
  // and the inode of its PID namespace (0: unknown).
  void forEachLive(const std::function<void(ProcessToken, pid_t, uint64_t)>& visit);

  // Internal state, one per registry file; see Liveness.cpp.
  struct State;
  explicit ProcessRegistry(State* state) : m_state(state) {}

 private:
  State* m_state;
};

// The registry the manager's names denote now, joined lazily; null when there
// is none (no manager, or one that keeps none). The pointer stays valid for
// the life of the process. Looks at the name each call: call it per attach,
// not per lock.
ProcessRegistry* currentRegistry();
// The registry currentRegistry last found, without looking at the name.
ProcessRegistry* latestRegistry();

// For the manager: makes the registry, or keeps a valid one that a manager
// that died left (its tokens still describe live processes). False when it
// cannot be made; the library then works without liveness judgements.
bool createRegistry(mode_t mode);
void removeRegistry();

// The inode of this process's PID namespace, 0 when /proc cannot tell.
uint64_t ownPidNamespace();

}  // namespace internal
}  // namespace ostrelled

#endif
