#ifndef OSTRELLED_TESTS_TESTSUPPORT_H
#define OSTRELLED_TESTS_TESTSUPPORT_H

// Process and timing helpers shared by the tests.

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace testsupport {

// Whether this build runs under ThreadSanitizer, whose own stacks and
// interceptors some tests have to allow for.
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

inline double secondsSince(const std::chrono::steady_clock::time_point& start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Polls pred until it holds or the time runs out; returns its last answer.
inline bool waitUntil(const std::function<bool()>& pred, double seconds = 5.0) {
  auto start = std::chrono::steady_clock::now();
  for (; !pred(); std::this_thread::sleep_for(std::chrono::milliseconds(2)))
    if (secondsSince(start) > seconds) return pred();
  return true;
}

// Forks a child that runs body and _exits with its result.
inline pid_t startChild(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// Waits for a child with a deadline; a child that overstays is killed with
// SIGKILL. Returns its exit code, 128 + signal when killed, or -1 on error.
inline int waitChild(pid_t pid, double seconds = 10.0) {
  int status = -1;  // neither exited nor signalled: what an error leaves
  if (!waitUntil([&] { return waitpid(pid, &status, WNOHANG) != 0; }, seconds)) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

inline int runChild(const std::function<int()>& body, double seconds = 10.0) {
  return waitChild(startChild(body), seconds);
}

// Runs wait() while another thread sends the waiting thread SIGUSR1 every
// period (handled without SA_RESTART, so a call in progress sees EINTR),
// for 20 s at most. Returns how long wait() took; *signals gets how many came.
inline double secondsUnderSignals(const std::function<void()>& wait, std::chrono::milliseconds period,
                                  int* signals = nullptr) {
  static std::atomic<int> seen{0};
  struct sigaction action {}, previous{};
  action.sa_handler = [](int) { seen.fetch_add(1); };
  sigaction(SIGUSR1, &action, &previous);
  seen = 0;
  std::atomic<bool> done{false};
  std::thread sender([&, waiter = pthread_self()] {
    for (auto start = std::chrono::steady_clock::now(); !done && secondsSince(start) < 20.0;) {
      std::this_thread::sleep_for(period);
      if (!done) pthread_kill(waiter, SIGUSR1);
    }
  });
  auto start = std::chrono::steady_clock::now();
  wait();
  double seconds = secondsSince(start);
  done = true;
  sender.join();
  sigaction(SIGUSR1, &previous, nullptr);
  if (signals != nullptr) *signals = seen;
  return seconds;
}

}  // namespace testsupport

#endif
