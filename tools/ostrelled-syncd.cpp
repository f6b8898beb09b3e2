// Hosts the machine's sync manager: the one process that creates and removes
// the shared blocks of named mutexes, semaphores, events and reader/writer
// mutexes. Runs until SIGTERM, SIGINT, SIGHUP or SIGQUIT, then removes every
// name it manages. Tells systemd when it serves and when it stops.

#include <errno.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include <ostrelled/OS_Sync.h>
#include <ostrelled/Version.h>

#include "OS/internal/ManagedAccess.h"
#include "OS/internal/Private.h"
#include "OS/internal/SyncProtocol.h"
#include "ServiceNotify.h"

namespace internal = ostrelled::internal;

namespace {

const char kUsage[] =
    "Usage: ostrelled-syncd [--group NAME] [--force] [--version] [--help]\n"
    "Hosts the sync manager of named Ostrelled objects until SIGTERM, SIGINT,\n"
    "SIGHUP or SIGQUIT, then removes every name it manages.\n"
    "\n"
    "  --group NAME  give every name of the manager and every named object to\n"
    "             the group NAME, mode 0660: its members may use named objects,\n"
    "             nobody else may see or change them\n"
    "  --force    start even when the names belong to a manager that cannot be\n"
    "             judged (one without a liveness token) and its request lock stays\n"
    "             taken; if that manager is alive after all, stopping it later\n"
    "             removes the names this one serves\n"
    "  --version  show the version\n"
    "  --help     show this text\n"
    "\n"
    "Without --group the manager's semaphores are created with mode 0755 less the\n"
    "umask, so only this program's user (or root) can use named objects.\n"
    "With NOTIFY_SOCKET set (systemd Type=notify) it reports READY=1 once it\n"
    "answers requests and STOPPING=1 when it stops.\n";

// How long a start waits for its own manager to answer before it gives up,
// and how often it asks meanwhile.
constexpr internal::Span kReadinessWait = std::chrono::seconds(2);
constexpr internal::Span kReadinessStep = std::chrono::milliseconds(10);

enum class Start { Serve, Exit0, Usage };

struct Options {
  bool force = false;
  const char* group = nullptr;
};

Start usage(const char* what, const char* arg) {
  fprintf(stderr, "ostrelled-syncd: %s '%s'\n%s", what, arg, kUsage);
  return Start::Usage;
}

Start parseArguments(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return Start::Exit0;
    }
    if (strcmp(argv[i], "--version") == 0) {
      printf("ostrelled-syncd %s\n", OSTRELLED_VERSION_STRING);
      return Start::Exit0;
    }
    if (strcmp(argv[i], "--force") == 0) {
      options.force = true;
    } else if (strcmp(argv[i], "--group") == 0) {
      if (i + 1 == argc) return usage("a group name must follow", argv[i]);
      options.group = argv[++i];
    } else if (strncmp(argv[i], "--group=", 8) == 0) {
      options.group = argv[i] + 8;
    } else {
      return usage("unknown argument", argv[i]);
    }
  }
  return Start::Serve;
}

bool isMemberOf(gid_t group) {
  if (geteuid() == 0 || getegid() == group) return true;
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr) + 1));
  int count = getgroups(static_cast<int>(groups.size()), groups.data());
  for (int i = 0; i < count; ++i)
    if (groups[static_cast<size_t>(i)] == group) return true;
  return false;
}

// The group that every managed name is given to; 0 when it is set, else the
// exit status: 2 for a group that does not exist, 1 for one this account
// cannot give its names to.
int configureGroup(const char* name) {
  errno = 0;
  const group* entry = getgrnam(name);
  if (entry == nullptr) {
    fprintf(stderr, "ostrelled-syncd: unknown group '%s'%s%s\n", name, errno != 0 ? ": " : "",
            errno != 0 ? strerror(errno) : "");
    return 2;
  }
  if (!isMemberOf(entry->gr_gid)) {
    fprintf(stderr, "ostrelled-syncd: this account is not in group '%s', so it cannot give its names to it\n", name);
    return 1;
  }
  internal::setManagedGroup(entry->gr_gid);
  return 0;
}

// The manager that made the names is judged by its registry token, which the
// kernel keeps true whatever PID namespace it runs in and however busy its
// request lock is: alive (also when stopped) refuses, gone replaces its names.
// Only names without such a token are asked by a request: a live manager
// answers one that it ignores; a lock that stays taken for 200 ms leaves it
// open whether a manager runs. False when this one must not start.
// What the names' manager is: by its token when it has one (alive counts as
// serving, gone as silent), else by a request.
internal::ManagerState judgeManager() {
  switch (internal::managerPresence()) {
    case internal::Presence::Alive:
      return internal::ManagerState::Serving;
    case internal::Presence::Gone:
      return internal::ManagerState::Silent;
    case internal::Presence::Unknown:
      break;
  }
  return internal::probeManager(internal::Deadline::after(internal::kLiveHolderWait)).state;
}

bool mayStart() {
  switch (judgeManager()) {
    case internal::ManagerState::Serving:
      fprintf(stderr, "ostrelled-syncd: a sync manager is already running on this machine; not starting\n");
      return false;
    case internal::ManagerState::LockStuck:
      fprintf(stderr,
              "ostrelled-syncd: the sync manager's request lock has stayed taken for 200 ms; another manager may "
              "be running. Start with --force to replace it\n");
      return false;
    case internal::ManagerState::Silent:
      printf("ostrelled-syncd: replacing the names left by a sync manager that is gone\n");
      return true;
    case internal::ManagerState::NoNames:
      return true;
  }
  return true;
}

// Under a supervisor's watchdog (WATCHDOG_USEC set, by systemd WatchdogSec=),
// the serving loop proves that it still serves: WATCHDOG=1 four times per
// period, sent from the loop itself, so a loop that hangs is restarted.
internal::Span gWatchdogPeriod{};
void watchdogBeat() {
  static internal::Deadline next = internal::Deadline::at(timespec{0, 0});
  if (!next.passed()) return;
  notifyService("WATCHDOG=1");
  next = internal::Deadline::after(gWatchdogPeriod / 4);
}

void armWatchdog() {
  const char* usec = getenv("WATCHDOG_USEC");
  const char* pid = getenv("WATCHDOG_PID");
  if (usec == nullptr || (pid != nullptr && atol(pid) != static_cast<long>(getpid()))) return;
  long micros = atol(usec);
  if (micros <= 0) return;
  gWatchdogPeriod = std::chrono::microseconds(micros);
  internal::setServingHeartbeat(watchdogBeat);
}

// Ready means answering: the manager's own request goes through.
bool answersRequests() {
  return internal::pollUntil(internal::Deadline::after(kReadinessWait), kReadinessStep,
                             [] { return os_sync_environment_ping(100); });
}

// The stop signals are taken by sigwait; blocked before the manager's thread
// starts, so that the thread inherits the mask and is never interrupted.
sigset_t blockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) sigaddset(&stopSignals, sig);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  return stopSignals;
}

int serve() {
  sigset_t stopSignals = blockStopSignals();
  armWatchdog();
  if (!os_sync_environment_initialize(false) || !answersRequests()) {
    os_sync_environment_uninitialize();
    fprintf(stderr, "ostrelled-syncd: the sync manager could not start\n");
    return 1;
  }
  printf("ostrelled-syncd: serving named objects\n");
  fflush(stdout);
  notifyService("READY=1\nSTATUS=serving named objects");

  int received = 0;
  while (sigwait(&stopSignals, &received) != 0) {
  }
  notifyService("STOPPING=1");
  os_sync_environment_uninitialize();
  printf("ostrelled-syncd: stopped on signal %d; every managed name is removed\n", received);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  switch (parseArguments(argc, argv, options)) {
    case Start::Exit0:
      return 0;
    case Start::Usage:
      return 2;
    case Start::Serve:
      break;
  }
  if (options.group != nullptr)
    if (int status = configureGroup(options.group); status != 0) return status;
  if (!options.force && !mayStart()) return 1;
  return serve();
}
