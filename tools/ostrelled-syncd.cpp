// Hosts the machine's sync manager: the one process that creates and removes
// the shared blocks of named mutexes, semaphores, events and reader/writer
// mutexes. Runs until SIGTERM or SIGINT, then removes every name it manages.

#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <ostrelled/OS_Sync.h>

#include "OS/OS_Private.h"
#include "OS/OS_SyncClient.h"

namespace {

const char kUsage[] =
    "Usage: ostrelled-syncd [--force] [--help]\n"
    "Hosts the sync manager of named Ostrelled objects until SIGTERM or SIGINT,\n"
    "then unlinks every name it manages.\n"
    "\n"
    "  --force  start even when another manager seems to hold the request lock;\n"
    "           if that manager is alive after all, stopping it later removes the\n"
    "           names this one serves\n"
    "  --help   show this text\n"
    "\n"
    "The manager's semaphores are created with mode 0755 less the umask, so only\n"
    "this program's user (or root) can use named objects: run it as their user.\n";

constexpr long kNanosPerMilli = 1000000L;

enum class Existing { None, Live, Stale, Stuck };

// A live manager answers a request that it ignores; names whose manager is
// gone are still there but nobody answers. A lock that stays taken leaves it
// open whether a manager runs.
Existing probeExistingManager() {
  OS::CSyncClient client;
  if (!client.create(true)) return Existing::None;
  // A lock that a dead client held is released within 100 ms, by the next
  // taker or by a live manager; one held longer than that is held by a live
  // client or manager.
  if (!client.lockUntil(OS::Private::deadlineAfter(200 * kNanosPerMilli))) return Existing::Stuck;
  bool answered = client.requestNothing(OS::Private::deadlineAfter(OS::kRequestTimeoutNanos));
  client.unlock();
  return answered ? Existing::Live : Existing::Stale;
}

}  // namespace

int main(int argc, char** argv) {
  bool force = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    if (strcmp(argv[i], "--force") == 0) {
      force = true;
      continue;
    }
    fprintf(stderr, "ostrelled-syncd: unknown argument '%s'\n%s", argv[i], kUsage);
    return 2;
  }

  if (!force) {
    switch (probeExistingManager()) {
      case Existing::Live:
        fprintf(stderr, "ostrelled-syncd: a sync manager is already running on this machine; not starting\n");
        return 1;
      case Existing::Stuck:
        fprintf(stderr,
                "ostrelled-syncd: the sync manager's request lock has stayed taken for 200 ms; another manager may "
                "be running. Start with --force to replace it\n");
        return 1;
      case Existing::Stale:
        printf("ostrelled-syncd: replacing the names left by a sync manager that is gone\n");
        break;
      case Existing::None:
        break;
    }
  }

  // The signals are taken by sigwait below; blocked before the manager's
  // thread starts, so that thread inherits the mask and is never interrupted.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  if (!os_sync_environment_initialize(false)) {
    fprintf(stderr, "ostrelled-syncd: the sync manager could not start\n");
    return 1;
  }
  printf("ostrelled-syncd: serving named objects\n");
  fflush(stdout);

  int received = 0;
  while (sigwait(&stopSignals, &received) != 0) {
  }
  os_sync_environment_uninitialize();
  printf("ostrelled-syncd: stopped on signal %d; every managed name is removed\n", received);
  return 0;
}
