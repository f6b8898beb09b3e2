#ifndef OSTRELLED_TESTS_TESTSUPPORT_H
#define OSTRELLED_TESTS_TESTSUPPORT_H

// What the tests share: the public interface, deadlines, children, holders, kill loops, containers, the manager.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/Ostrelled.h>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/EventKinds.h"
#include "OS/internal/SemaphoreKinds.h"
#include "OS/internal/SyncProtocol.h"

namespace internal = ostrelled::internal;

// How much later than its deadline a wait may end on a loaded 2-core machine.
constexpr double kLateSlack = 1.5;

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

// The CLOCK_MONOTONIC time millis from now (negative: in the past).
inline timespec deadlineIn(long millis) {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_nsec += millis * 1000000L;
  os_clock_adjust_clock_time(&t);
  return t;
}

inline void watchNothingHappenFor100ms() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

inline pid_t startChild(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// Its exit code, or 128 + signal; a child that overstays is killed.
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

// How long wait() took while its thread got SIGUSR1 (no SA_RESTART) every period.
inline double secondsUnderSignals(const std::function<void()>& wait, std::chrono::milliseconds period,
                                  int* signals = nullptr) {
  static std::atomic<int> seen{0};
  struct sigaction action = {}, previous = {};
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

// Flags that a test and its children (in any namespace) share: one page.
struct SharedFlags {
  SharedFlags() = default;
  SharedFlags(const SharedFlags&) = delete;
  std::atomic<int>* at =
      static_cast<std::atomic<int>*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ~SharedFlags() { munmap(at, 4096); }
  std::atomic<int>& operator[](int i) { return at[i]; }
  bool reaches(int i, int value, double seconds = 10.0) {
    return waitUntil([&] { return at[i] >= value; }, seconds);
  }
};

// Detached threads running wait(i): one that never returns fails its test, not hangs it.
struct Waiters {
  std::atomic<int> finished{0}, succeeded{0};
  int count = 0;
  bool allFinish(double seconds = 5.0) const {
    return waitUntil([&] { return finished == count; }, seconds);
  }
};
inline std::shared_ptr<Waiters> startWaiters(int count, const std::function<bool(int)>& wait) {
  auto waiters = std::make_shared<Waiters>();
  waiters->count = count;
  for (int i = 0; i < count; ++i)
    std::thread([waiters, wait, i] {
      waiters->succeeded += wait(i);
      ++waiters->finished;
    }).detach();
  return waiters;
}

// Holds an object (lock()) in a child or thread until told to let go (unlock()) or killed.
class Holder {
 public:
  Holder(const std::function<void()>& lock, const std::function<void()>& unlock, bool inChild = true) {
    auto body = [this, lock, unlock] {
      lock();
      int before = 0;  // 2 already: told to let go before it held
      if (m_flags[0].compare_exchange_strong(before, 1))
        while (m_flags[0] != 2) sched_yield();  // bounded by the test, which kills an overstaying child
      unlock();
      return 0;
    };
    if (inChild)
      m_pid = startChild(body);
    else
      m_thread = std::thread(body);
  }
  ~Holder() {
    letGo();
    if (m_thread.joinable()) m_thread.join();
    if (m_pid > 0) waitChild(m_pid);
  }
  bool held() { return m_flags.reaches(0, 1, 5.0); }
  void letGo() { m_flags[0] = 2; }
  // Killed and reaped: a zombie would still count as a holder.
  void kill() {
    ::kill(m_pid, SIGKILL);
    waitChild(m_pid);
    m_pid = -1;
  }

 private:
  SharedFlags m_flags;
  pid_t m_pid = -1;
  std::thread m_thread;
};

// Children running their roles in loops, counting rounds, killed at random and replaced: whether
// every role progressed before the first kill and after each, within 10 s (the request lock is not
// fair: a new child may wait long behind the others).
class KillLoop {
 public:
  static ::testing::AssertionResult run(std::vector<std::function<void()>> roles, int kills, unsigned int seed = 1) {
    return KillLoop(std::move(roles)).killRandomly(kills, seed);
  }

 private:
  explicit KillLoop(std::vector<std::function<void()>> roles) : m_roles(std::move(roles)) {
    for (size_t slot = 0; slot < m_roles.size(); ++slot) m_pids.push_back(start(slot));
  }
  ~KillLoop() {
    for (pid_t pid : m_pids) waitChild(pid, 0.0);  // kills each child, which never ends by itself
  }

  ::testing::AssertionResult killRandomly(int kills, unsigned int seed) {
    std::mt19937 random(seed);
    for (int kill = 0;; ++kill) {
      for (size_t slot = 0; slot < m_roles.size(); ++slot)
        if (!m_rounds.reaches(int(slot), m_rounds[int(slot)] + 1, 10.0))
          return ::testing::AssertionFailure() << "role " << slot << " made no progress in 10 s after " << kill
                                               << " kills, the last of role " << m_killed;
      if (kill == kills) return ::testing::AssertionSuccess();
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
      m_killed = random() % m_roles.size();
      ::kill(m_pids[m_killed], SIGKILL);
      waitChild(m_pids[m_killed]);  // reaped at once: a zombie would still count as a holder
      m_pids[m_killed] = start(m_killed);
    }
  }

  pid_t start(size_t slot) {
    return startChild([this, slot] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a test that failed
      for (;;) {
        m_roles[slot]();
        ++m_rounds[int(slot)];
      }
      return 0;
    });
  }

  std::vector<std::function<void()>> m_roles;
  std::vector<pid_t> m_pids;
  size_t m_killed = 0;
  SharedFlags m_rounds;
};

// body as pid 1 of its own PID namespace (sharing /dev/shm and IPC), with ownProc its own /proc.
class Container {
 public:
  static constexpr int kRefused = 77;  // unshare was not permitted

  explicit Container(const std::function<int()>& body, bool ownProc = false) {
    m_launcher = startChild([&] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (unshare(CLONE_NEWPID | (ownProc ? CLONE_NEWNS : 0)) != 0) return kRefused;
      auto inner = [&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // the launcher's death ends the namespace
        if (ownProc && (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                        mount("proc", "/proc", "proc", 0, nullptr) != 0))
          return kRefused;
        return body();
      };
      return waitChild(startChild(inner), 60.0);
    });
  }
  ~Container() { kill(); }
  int wait(double seconds = 20.0) {
    if (m_status == -2) m_status = waitChild(m_launcher, seconds);
    return m_status;
  }
  // Killed with its whole namespace, unless it has already ended.
  void kill() {
    if (m_status == -2) ::kill(m_launcher, SIGKILL);
    wait();
  }

  static bool permitted() {
    return Container([] { return 0; }).wait() == 0;
  }

 private:
  pid_t m_launcher;
  int m_status = -2;
};

// A fresh directory under /tmp, removed with its contents; entered, the working directory.
struct TempDirectory {
  explicit TempDirectory(bool enter = false) : previous(enter ? std::filesystem::current_path() : "") {
    char pattern[] = "/tmp/ostrelled_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    path = pattern;
    if (enter) std::filesystem::current_path(path);
  }
  ~TempDirectory() {
    if (!previous.empty()) std::filesystem::current_path(previous);
    std::filesystem::remove_all(path, error);
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }

  std::filesystem::path previous;
  std::string path;
  std::error_code error;
};

inline void writeFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }
inline std::string readFile(const std::string& path) {
  return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

inline std::string uniqueName(const char* tag) {
  static int next = 0;
  return "ostrelled_test_" + std::string(tag) + "_" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

inline unsigned char* bytesOf(sharememory_handle* block) {
  return static_cast<unsigned char*>(os_sharememory_get_buffer(block));
}

inline off_t shmSize(const std::string& name) {
  struct stat st;
  return stat(internal::shmPath(name).c_str(), &st) == 0 ? st.st_size : -1;
}
// Whether /dev/shm holds the name; either way the result names the file.
inline ::testing::AssertionResult shmExists(const std::string& name) {
  bool there = shmSize(name) >= 0;
  return (there ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
         << internal::shmPath(name) << (there ? " exists" : " does not exist");
}

// How many of the manager's four machine-wide names exist.
inline int managerNamesLeft() {
  using namespace internal::SyncNames;
  int left = shmSize(kRequestArea) >= 0;
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    left += shmSize(internal::semaphoreFileName(sem)) >= 0;
  return left;
}

// Beside the test's own program, found by the library (whose answer has no terminator).
inline std::string toolPath(const char* tool) {
  char self[PATH_MAX];
  SSIZE_T length = os_environment_get_application_path(self, sizeof self);
  return std::filesystem::path(std::string(self, length > 0 ? length : 0)).parent_path().string() + "/../tools/" + tool;
}

// A shell command line's exit code and standard output.
struct ToolRun {
  int status;
  std::string out;
};
inline ToolRun runTool(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  ToolRun run{-1, ""};
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, got);
  int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// Whether part is in text; a failure shows the text.
inline ::testing::AssertionResult contains(const std::string& text, const std::string& part) {
  bool in = text.find(part) != std::string::npos;
  return in ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// Whether a command exited with status and printed part; a failure shows what it printed.
inline ::testing::AssertionResult says(const ToolRun& run, int status, const std::string& part) {
  if (run.status == status) return contains(run.out, part);
  return ::testing::AssertionFailure() << "exit status " << run.status << ", not " << status << ":\n" << run.out;
}

inline mutex_handle* namedMutex(const std::string& name, unsigned int flags = DEFAULT_MUTEX_ATTRIBUTE) {
  return os_mutex_create(flags, USE_STD, name.c_str());
}

// Whether a named mutex of that name attaches (it is destroyed again).
inline bool attaches(const std::string& name) {
  mutex_handle* mutex = namedMutex(name);
  bool attached = os_mutex_is_attached(mutex);
  os_mutex_destroy(mutex);
  return attached;
}

inline bool liveManagerAnswers() { return os_sync_environment_ping(500); }

// Whether the request lock is free: the enabled semaphore given back and no holder recorded.
inline bool requestLockFree() {
  internal::CSyncClient client;
  sharememory_handle* block = os_sharememory_open(internal::SyncNames::kRequestLock, USE_STD);
  int value = 0;
  bool free = client.create(true) && block != nullptr && sem_getvalue(client.enable_mutex_manager_sem, &value) == 0 &&
              value == 1 && reinterpret_cast<internal::RequestLockRecord*>(bytesOf(block))->holder == 0;
  os_sharememory_destroy(block);
  return free;
}

// A manager in a child; SIGTERM stops it as a manager stops, removing its names.
inline pid_t startManagerChild() {
  pid_t manager = startChild([] {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);  // before the manager's thread, which inherits it
    if (!os_sync_environment_initialize(false)) return 1;
    int signal = 0;
    sigwait(&term, &signal);
    os_sync_environment_uninitialize();
    return 0;
  });
  EXPECT_TRUE(waitUntil(liveManagerAnswers, 10.0)) << "the manager in a child did not answer within 10 s";
  return manager;
}

// No manager serving the machine; a live one run by somebody else skips the test.
class NoManager : public ::testing::Test {
 protected:
  void SetUp() override {
    if (liveManagerAnswers()) GTEST_SKIP() << "a sync manager is already running on this machine";
  }
};

// The manager hosted in the test process for one test.
class HostedManager : public NoManager {
 protected:
  void SetUp() override {
    NoManager::SetUp();
    ASSERT_TRUE(IsSkipped() || os_sync_environment_initialize(false));
  }
  void TearDown() override { os_sync_environment_uninitialize(); }
};

#endif
