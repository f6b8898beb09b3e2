// Hosts the machine's sync manager: the one process that creates and removes
// the shared blocks of named mutexes, semaphores, events and reader/writer
// mutexes. Runs until SIGTERM, SIGINT, SIGHUP or SIGQUIT, then removes every
// name it manages. Tells systemd when it serves and when it stops.

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ostrelled/OS_Sync.h>
#include <ostrelled/Version.h>

#include "OS/OS_SyncClient.h"
#include "OS/internal/Private.h"
#include "ServiceNotify.h"

namespace {

const char kUsage[] =
    "Usage: ostrelled-syncd [--force] [--version] [--help]\n"
    "Hosts the sync manager of named Ostrelled objects until SIGTERM, SIGINT,\n"
    "SIGHUP or SIGQUIT, then removes every name it manages.\n"
    "\n"
    "  --force    start even when the names belong to a manager that cannot be\n"
    "             judged (one without a liveness token) and its request lock stays\n"
    "             taken; if that manager is alive after all, stopping it later\n"
    "             removes the names this one serves\n"
    "  --version  show the version\n"
    "  --help     show this text\n"
    "\n"
    "The manager's semaphores are created with mode 0755 less the umask, so only\n"
    "this program's user (or root) can use named objects: run it as their user.\n"
    "With NOTIFY_SOCKET set (systemd Type=notify) it reports READY=1 once it\n"
    "answers requests and STOPPING=1 when it stops.\n";

constexpr long kNanosPerMilli = 1000000L;
// How long a start waits for its own manager to answer before it gives up.
constexpr int kReadinessTries = 20;

enum class Start { Serve, Exit0, Usage };

Start parseArguments(int argc, char** argv, bool& force) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return Start::Exit0;
    }
    if (strcmp(argv[i], "--version") == 0) {
      printf("ostrelled-syncd %s\n", OSTRELLED_VERSION_STRING);
      return Start::Exit0;
    }
    if (strcmp(argv[i], "--force") != 0) {
      fprintf(stderr, "ostrelled-syncd: unknown argument '%s'\n%s", argv[i], kUsage);
      return Start::Usage;
    }
    force = true;
  }
  return Start::Serve;
}

// The manager that made the names is judged by its registry token, which the
// kernel keeps true whatever PID namespace it runs in and however busy its
// request lock is: alive (also when stopped) refuses, gone replaces its names.
// Only names without such a token are asked by a request: a live manager
// answers one that it ignores; a lock that stays taken for 200 ms leaves it
// open whether a manager runs. False when this one must not start.
bool mayStart() {
  switch (OS::managerPresence()) {
    case OS::Private::Presence::Alive:
      fprintf(stderr, "ostrelled-syncd: a sync manager is already running on this machine; not starting\n");
      return false;
    case OS::Private::Presence::Gone:
      printf("ostrelled-syncd: replacing the names left by a sync manager that is gone\n");
      return true;
    case OS::Private::Presence::Unknown:
      break;
  }
  switch (OS::probeManager(OS::Private::deadlineAfter(200 * kNanosPerMilli)).state) {
    case OS::ManagerState::Serving:
      fprintf(stderr, "ostrelled-syncd: a sync manager is already running on this machine; not starting\n");
      return false;
    case OS::ManagerState::LockStuck:
      fprintf(stderr,
              "ostrelled-syncd: the sync manager's request lock has stayed taken for 200 ms; another manager may "
              "be running. Start with --force to replace it\n");
      return false;
    case OS::ManagerState::Silent:
      printf("ostrelled-syncd: replacing the names left by a sync manager that is gone\n");
      return true;
    case OS::ManagerState::NoNames:
      return true;
  }
  return true;
}

// Under a supervisor's watchdog (WATCHDOG_USEC set, by systemd WatchdogSec=),
// the serving loop proves that it still serves: WATCHDOG=1 four times per
// period, sent from the loop itself, so a loop that hangs is restarted.
long gWatchdogNanos = 0;
void watchdogBeat() {
  static timespec next{};
  timespec now = OS::Private::monotonicNow();
  if (OS::Private::isEarlier(now, next)) return;
  notifyService("WATCHDOG=1");
  next = OS::Private::deadlineAfter(gWatchdogNanos / 4);
}

void armWatchdog() {
  const char* usec = getenv("WATCHDOG_USEC");
  const char* pid = getenv("WATCHDOG_PID");
  if (usec == nullptr || (pid != nullptr && atol(pid) != static_cast<long>(getpid()))) return;
  long micros = atol(usec);
  if (micros <= 0) return;
  gWatchdogNanos = micros * 1000L;
  OS::setServingHeartbeat(watchdogBeat);
}

// Ready means answering: the manager's own request goes through.
bool answersRequests() {
  for (int i = 0; i < kReadinessTries; ++i)
    if (os_sync_environment_ping(100)) return true;
  return false;
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
  bool force = false;
  switch (parseArguments(argc, argv, force)) {
    case Start::Exit0:
      return 0;
    case Start::Usage:
      return 2;
    case Start::Serve:
      break;
  }
  if (!force && !mayStart()) return 1;
  return serve();
}
