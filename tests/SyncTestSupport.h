#ifndef OSTRELLED_TESTS_SYNCTESTSUPPORT_H
#define OSTRELLED_TESTS_SYNCTESTSUPPORT_H

// Helpers for tests that host the sync manager or use its machine-wide names.

#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Sync.h>

#include "OS/internal/Private.h"
#include "OS/internal/SyncProtocol.h"
#include "TestSupport.h"

namespace internal = ostrelled::internal;

namespace testsupport {

// A name no other test process uses: tag, pid and a running number.
inline std::string uniqueName(const char* tag) {
  static int next = 0;
  return "ostrelled_test_" + std::string(tag) + "_" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

// The CLOCK_MONOTONIC time millis from now (negative: in the past).
inline timespec deadlineIn(long millis) { return internal::Deadline::after(std::chrono::milliseconds(millis)).time(); }

inline void watchNothingHappenFor100ms() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

// The size of a shared-memory object in /dev/shm; -1 when it is not there.
inline off_t shmSize(const std::string& name) {
  struct stat st;
  return stat(("/dev/shm/" + name.substr(name.find_first_not_of('/'))).c_str(), &st) == 0 ? st.st_size : -1;
}
inline bool shmExists(const std::string& name) { return shmSize(name) >= 0; }

// How many of the manager's four machine-wide names exist.
inline int managerNamesLeft() {
  using namespace internal::SyncNames;
  int left = shmExists(kRequestArea);
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    left += shmExists(std::string("sem.") + (sem + 1));
  return left;
}

// A program of the build tree's tools/ folder.
inline std::string toolPath(const char* tool) {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, static_cast<size_t>(length > 0 ? length : 0));
  return dir.substr(0, dir.rfind('/')) + "/../tools/" + tool;
}

struct ToolRun {
  int status;
  std::string out;
};

// Runs a shell command line and collects its standard output.
inline ToolRun runTool(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  ToolRun run{-1, ""};
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, got);
  int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// True when a manager somewhere answers a request within half a second.
inline bool liveManagerAnswers() { return os_sync_environment_ping(500); }

// Whether the request lock is free: the enabled semaphore given back and no holder recorded.
inline bool requestLockFree() {
  internal::CSyncClient client;
  sharememory_handle* block = os_sharememory_open(internal::SyncNames::kRequestLock, USE_STD);
  int value = 0;
  bool free = client.create(true) && block != nullptr && sem_getvalue(client.enable_mutex_manager_sem, &value) == 0 &&
              value == 1 && static_cast<internal::RequestLockRecord*>(os_sharememory_get_buffer(block))->holder == 0;
  os_sharememory_destroy(block);
  return free;
}

// A manager in a child process, so that it can be stopped or killed.
inline pid_t startManagerChild() {
  pid_t manager = startChild([] {
    if (os_sync_environment_initialize(false)) pause();
    return 1;
  });
  EXPECT_TRUE(waitUntil(liveManagerAnswers, 10.0));
  return manager;
}

// No manager serving the machine; a live one run by somebody else skips the test.
class NoManager : public ::testing::Test {
 protected:
  void SetUp() override {
    if (liveManagerAnswers()) GTEST_SKIP() << "a sync manager is already running on this machine";
  }
};

// Hosts the manager in the test process for the length of one test; forked
// children are plain clients.
class HostedManager : public NoManager {
 protected:
  void SetUp() override {
    NoManager::SetUp();
    ASSERT_TRUE(IsSkipped() || os_sync_environment_initialize(false));
  }
  void TearDown() override { os_sync_environment_uninitialize(); }
};

// Threads that each run one wait(i), counted when it returns. They are
// detached, so that a wait that never returns fails its test instead of hanging it.
struct Waiters {
  std::atomic<int> finished{0}, succeeded{0};
  int count = 0;
  bool allFinish(double seconds = 5.0) const { return waitUntil([&] { return finished == count; }, seconds); }
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

// A child process that takes an object with lock() and holds it until it is
// told to let go (then it runs unlock() and exits) or is killed.
class HeldInChild {
 public:
  HeldInChild(const std::function<void()>& lock, const std::function<void()>& unlock)
      : m_step(static_cast<int*>(mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    m_pid = startChild([&] {
      lock();
      *m_step = 1;
      while (*m_step != 2) sched_yield();  // bounded by the parent, which kills an overstaying child
      unlock();
      return 0;
    });
  }
  ~HeldInChild() {
    letGo();
    waitChild(m_pid);
    munmap(const_cast<int*>(m_step), 4);
  }
  bool held() const { return waitUntil([&] { return *m_step == 1; }); }
  void letGo() { *m_step = 2; }
  // Killed and reaped: a zombie would still count as a holder.
  void kill() {
    ::kill(m_pid, SIGKILL);
    waitChild(m_pid);
  }

 private:
  volatile int* m_step;
  pid_t m_pid;
};

// Processes that keep using one object while some of them are killed with
// SIGKILL at random moments. Each child runs its role's round in a loop and
// counts the rounds on a shared page; a killed child is replaced by a new one
// of the same role. The children use the handles the parent made before it
// forked, so no attach is ever cut short.
class KillLoop {
 public:
  explicit KillLoop(std::vector<std::function<void()>> roles) : m_roles(std::move(roles)) {
    m_rounds = static_cast<long*>(
        mmap(nullptr, sizeof(long) * m_roles.size(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (size_t slot = 0; slot < m_roles.size(); ++slot) m_pids.push_back(start(slot));
  }
  ~KillLoop() {
    for (pid_t pid : m_pids) waitChild(pid, 0.0);  // kills each child, which never ends by itself
    munmap(m_rounds, sizeof(long) * m_roles.size());
  }

  // Every child completes a round within `seconds` from now. The request lock
  // is not fair: a child just started may wait behind the others' tight loops,
  // the longer the busier the machine.
  ::testing::AssertionResult allProgress(double seconds = 10.0) const {
    std::vector<long> before(m_rounds, m_rounds + m_roles.size());
    for (size_t slot = 0; slot < m_roles.size(); ++slot)
      if (!waitUntil([&] { return __atomic_load_n(&m_rounds[slot], __ATOMIC_SEQ_CST) > before[slot]; }, seconds))
        return ::testing::AssertionFailure() << "role " << slot << " made no progress in " << seconds << " s";
    return ::testing::AssertionSuccess();
  }

  // Kills a random child at a random moment, `kills` times, replacing it and
  // checking after each kill that every child, old and new, makes progress.
  ::testing::AssertionResult killRandomly(int kills, unsigned int seed = 1) {
    std::mt19937 random(seed);
    for (int kill = 0; kill < kills; ++kill) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
      size_t slot = random() % m_roles.size();
      ::kill(m_pids[slot], SIGKILL);
      waitChild(m_pids[slot]);  // reaped at once: a zombie would still count as a holder
      m_pids[slot] = start(slot);
      ::testing::AssertionResult progress = allProgress();
      if (!progress) return progress << " after kill " << kill + 1 << " (role " << slot << ")";
    }
    return ::testing::AssertionSuccess();
  }

 private:
  pid_t start(size_t slot) {
    return startChild([this, slot] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a test that failed
      for (;;) {
        m_roles[slot]();
        __atomic_add_fetch(&m_rounds[slot], 1, __ATOMIC_SEQ_CST);
      }
      return 0;
    });
  }

  std::vector<std::function<void()>> m_roles;
  std::vector<pid_t> m_pids;
  long* m_rounds;
};

// A process in a PID namespace of its own, as in a container that shares
// /dev/shm and the IPC namespace with the host: body runs there as pid 1. With
// ownProc it also gets a mount namespace with its own /proc, which then shows
// only its namespace. Killing it ends the whole namespace.
class Container {
 public:
  static constexpr int kRefused = 77;  // unshare was not permitted

  explicit Container(const std::function<int()>& body, bool ownProc = false)
      : m_inner(static_cast<pid_t*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    m_launcher = startChild([&] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (unshare(CLONE_NEWPID | (ownProc ? CLONE_NEWNS : 0)) != 0) return kRefused;
      pid_t inner = startChild([&] {
        if (ownProc && (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                        mount("proc", "/proc", "proc", 0, nullptr) != 0))
          return kRefused;
        return body();
      });
      *m_inner = inner;
      return waitChild(inner, 60.0);
    });
  }
  ~Container() {
    kill();
    munmap(m_inner, 4096);
  }
  // Its exit status (kRefused when namespaces are refused), 128 + signal when killed.
  int wait(double seconds = 20.0) {
    if (m_status == -2) m_status = waitChild(m_launcher, seconds);
    return m_status;
  }
  // Ends everything in the namespace and reaps it.
  void kill() {
    if (m_status != -2) return;
    int status = 0;
    if (waitpid(m_launcher, &status, WNOHANG) == m_launcher) {
      m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return;
    }
    if (waitUntil([&] { return *m_inner != 0; }, 5.0)) ::kill(*m_inner, SIGKILL);
    wait();
  }

  // Whether this machine gives a process a PID namespace of its own.
  static bool permitted() { return Container([] { return 0; }).wait() == 0; }

 private:
  pid_t* m_inner;
  pid_t m_launcher;
  int m_status = -2;
};

// Flags that a test and its children (in any namespace) share: one page.
struct SharedFlags {
  std::atomic<int>* at = static_cast<std::atomic<int>*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ~SharedFlags() { munmap(at, 4096); }
  std::atomic<int>& operator[](int i) { return at[i]; }
  bool reaches(int i, int value, double seconds = 10.0) { return waitUntil([&] { return at[i] >= value; }, seconds); }
};

// A timed wait of 500 ms that nothing ends early: it answers false after the whole time.
inline ::testing::AssertionResult waitsFullTimeUnderSignals(const std::function<bool(timespec)>& wait) {
  bool result = true;
  double seconds = secondsUnderSignals([&] { result = wait(deadlineIn(500)); }, std::chrono::milliseconds(1));
  if (result) return ::testing::AssertionFailure() << "the wait succeeded";
  if (seconds < 0.49 || seconds > 3.0) return ::testing::AssertionFailure() << "the wait took " << seconds << " s";
  return ::testing::AssertionSuccess();
}

}  // namespace testsupport

#endif
