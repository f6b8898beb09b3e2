#ifndef OSTRELLED_TESTS_SYNCTESTSUPPORT_H
#define OSTRELLED_TESTS_SYNCTESTSUPPORT_H

// Helpers for tests that host the sync manager or use its machine-wide names.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <string>

#include <ostrelled/OS_Sync.h>

#include "OS/OS_Private.h"
#include "OS/OS_SyncClient.h"
#include "TestSupport.h"

namespace testsupport {

// A name no other test process uses: tag, pid and a running number.
inline std::string uniqueName(const char* tag) {
  static int next = 0;
  return "ostrelled_test_" + std::string(tag) + "_" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

// The CLOCK_MONOTONIC time millis from now (negative: in the past).
inline timespec deadlineIn(long millis) {
  timespec t = OS::Private::monotonicNow();
  t.tv_nsec += millis * 1000000L;
  os_clock_adjust_clock_time(&t);
  return t;
}

inline void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

// The size of a shared-memory object in /dev/shm; -1 when it is not there.
inline off_t shmSize(const std::string& name) {
  struct stat st;
  return stat(("/dev/shm/" + name.substr(name.find_first_not_of('/'))).c_str(), &st) == 0 ? st.st_size : -1;
}
inline bool shmExists(const std::string& name) { return shmSize(name) >= 0; }

// How many of the manager's four machine-wide names exist.
inline int managerNamesLeft() {
  using namespace OS::SyncNames;
  int left = shmExists(kRequestArea);
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    left += shmExists(std::string("sem.") + (sem + 1));
  return left;
}

// True when a manager somewhere answers a request within half a second.
inline bool liveManagerAnswers() {
  OS::CSyncClient client;
  if (!client.create(true) || !client.lockUntil(OS::Private::wallDeadlineAfter(500000000L))) return false;
  bool answered = client.requestNothing(OS::Private::wallDeadlineAfter(500000000L));
  client.unlock();
  return answered;
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

}  // namespace testsupport

#endif
