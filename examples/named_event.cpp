// Two processes play ping-pong through two named auto-reset events, each set
// releasing exactly one wait; then a manual-reset event, set once, releases
// every waiting process and stays set. Waits take an absolute CLOCK_MONOTONIC
// deadline. Needs a running sync manager (ostrelled-syncd).

#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_Sync.h>

#include "ShowObjects.h"

namespace {

constexpr int kRounds = 1000;
constexpr int kListeners = 3;

timespec secondsFromNow(int seconds) {
  timespec deadline;
  os_clock_get_time(CLOCK_MONOTONIC, &deadline, USE_DEFAULT);
  deadline.tv_sec += seconds;
  return deadline;
}

// One player: the server sets its ball and waits for the return, the other
// waits and returns it, kRounds times. Returns the waits that timed out. The
// server shows the objects halfway, both players attached.
int play(bool serveFirst, int argc = 0, char** argv = nullptr) {
  event_handle* ping = os_event_create(false, false, USE_DEFAULT, "example_ping");
  event_handle* pong = os_event_create(false, false, USE_DEFAULT, "example_pong");
  event_handle* wait = serveFirst ? pong : ping;
  event_handle* answer = serveFirst ? ping : pong;
  int missed = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (serveFirst) os_event_set_event(answer);
    if (!os_event_wait_timeout(wait, secondsFromNow(5))) ++missed;
    if (!serveFirst) os_event_set_event(answer);
    if (serveFirst && round == kRounds / 2) showObjects(argc, argv);
  }
  os_event_destroy(ping);
  os_event_destroy(pong);
  return missed;
}

}  // namespace

int main(int argc, char** argv) {
  if (!os_sync_environment_ping(1000)) {
    puts("no sync manager answers: start ostrelled-syncd first");
    return 1;
  }
  // Both events exist before either player starts, so no set is lost.
  event_handle* ping = os_event_create(false, false, USE_DEFAULT, "example_ping");
  event_handle* pong = os_event_create(false, false, USE_DEFAULT, "example_pong");
  pid_t partner = fork();
  if (partner == 0) _exit(play(false));
  int missed = play(true, argc, argv);
  int status = 0;
  waitpid(partner, &status, 0);
  printf("ping-pong: %d rounds, %d missed\n", kRounds, missed + WEXITSTATUS(status));

  // Manual reset: one set releases every listener.
  event_handle* go = os_event_create(true, false, USE_DEFAULT, "example_go");
  pid_t listeners[kListeners];
  for (pid_t& pid : listeners)
    if ((pid = fork()) == 0) _exit(os_event_wait_timeout(go, secondsFromNow(5)) ? 0 : 1);
  os_event_set_event(go);
  int released = 0;
  for (pid_t pid : listeners) released += waitpid(pid, &status, 0) == pid && WEXITSTATUS(status) == 0;
  printf("broadcast: %d of %d listeners released by one set\n", released, kListeners);
  os_event_destroy(go);
  os_event_destroy(ping);
  os_event_destroy(pong);
  return missed == 0 && released == kListeners ? 0 : 1;
}
