#ifndef OSTRELLED_TESTS_NAMEDOBJECTTESTSUPPORT_H
#define OSTRELLED_TESTS_NAMEDOBJECTTESTSUPPORT_H

// Shared by the tests of semaphores, events and reader/writer mutexes: a sync
// manager for the whole run, deadlines, and waiting threads.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/OS_Sync.h>

#include "SyncTestSupport.h"
#include "TestSupport.h"

namespace testsupport {

// Hosts the manager from before the first test to after the last, so that
// none outlives the run; a manager already serving the machine is used as it
// is. Forked children are plain clients.
class SyncManagerEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    if (synctest::liveManagerAnswers()) return;
    ASSERT_TRUE(os_sync_environment_initialize(false));
  }
  void TearDown() override { os_sync_environment_uninitialize(); }
};

using synctest::uniqueName;

// The absolute CLOCK_MONOTONIC time `millis` from now (negative: past).
inline timespec deadlineIn(long millis) { return synctest::clockAfter(CLOCK_MONOTONIC, millis); }

inline void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

// Threads that each run one wait and are counted when they return. A thread
// that never returns is detached (its counts kept alive), so that a broken
// object fails its test instead of hanging it.
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
    for (auto& t : m_threads)
      if (t.joinable()) all ? t.join() : t.detach();
    return all;
  }

 private:
  struct Counts {
    std::atomic<int> finished{0}, succeeded{0};
  };
  std::shared_ptr<Counts> m_counts;
  std::vector<std::thread> m_threads;
};

}  // namespace testsupport

#endif
