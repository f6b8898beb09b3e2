#ifndef OSTRELLED_TESTS_NAMEDOBJECTTESTSUPPORT_H
#define OSTRELLED_TESTS_NAMEDOBJECTTESTSUPPORT_H

// Shared by the tests of named synchronisation objects: a sync manager hosted
// by the test process for the whole run, unique object names, and deadlines.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/OS_Sync.h>

#include "TestSupport.h"

namespace testsupport {

// Starts the manager before the first test and stops it after the last, so
// that no manager outlives the run. Forked children are plain clients.
class SyncManagerEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_TRUE(os_sync_environment_initialize(false));
    ASSERT_TRUE(waitUntil([] { return os_sync_environment_initialize(true); }));
  }
  void TearDown() override { os_sync_environment_uninitialize(); }
};

// A name no other run or test uses: the pid keeps runs apart, the counter tests.
inline std::string uniqueName(const char* what) {
  static int counter = 0;
  return std::string("ostrelled_test_") + what + "_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

inline bool blockExists(const std::string& name) {
  struct stat st;
  return stat(("/dev/shm/" + name).c_str(), &st) == 0;
}

// An absolute CLOCK_MONOTONIC time `millis` from now (negative: in the past).
inline timespec deadlineIn(long millis) {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  long nanos = t.tv_nsec + (millis % 1000) * 1000000L;
  t.tv_sec += millis / 1000 + nanos / 1000000000L;
  t.tv_nsec = nanos % 1000000000L;
  if (t.tv_nsec < 0) {
    t.tv_nsec += 1000000000L;
    t.tv_sec -= 1;
  }
  return t;
}

// Threads that each wait once and are counted when they return. A waiter that
// never returns is abandoned (detached, its counters kept alive), so that a
// broken object fails the test instead of hanging it.
class Waiters {
 public:
  Waiters(int count, const std::function<bool(int)>& wait) : m_counts(std::make_shared<Counts>()) {
    for (int i = 0; i < count; ++i)
      m_threads.emplace_back([counts = m_counts, wait, i] {
        if (wait(i)) ++counts->succeeded;
        ++counts->finished;
      });
  }
  ~Waiters() { joinWithin(5); }
  int finished() const { return m_counts->finished; }
  int succeeded() const { return m_counts->succeeded; }
  bool joinWithin(double seconds) {
    bool all = waitUntil([&] { return finished() == static_cast<int>(m_threads.size()); }, seconds);
    for (auto& t : m_threads) {
      if (!t.joinable()) continue;
      all ? t.join() : t.detach();
    }
    return all;
  }

 private:
  struct Counts {
    std::atomic<int> finished{0};
    std::atomic<int> succeeded{0};
  };
  std::shared_ptr<Counts> m_counts;
  std::vector<std::thread> m_threads;
};

}  // namespace testsupport

#endif
