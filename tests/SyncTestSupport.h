#ifndef OSTRELLED_TESTS_SYNCTESTSUPPORT_H
#define OSTRELLED_TESTS_SYNCTESTSUPPORT_H

// Helpers for tests that host the sync manager or use its machine-wide names.

#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <ostrelled/OS_Sync.h>

#include "OS/OS_Private.h"
#include "OS/OS_SyncClient.h"
#include "TestSupport.h"

namespace synctest {

// A name no other test process uses: tag, pid and a running number.
inline std::string uniqueName(const char* tag) {
  static int next = 0;
  return "ostrelled_test_" + std::string(tag) + "_" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

// Now plus millis (negative: in the past) on the given clock.
inline timespec clockAfter(clockid_t clock, long millis) {
  timespec t;
  clock_gettime(clock, &t);
  t.tv_nsec += millis * 1000000L;
  os_clock_adjust_clock_time(&t);
  return t;
}

// The size of a shared-memory object in /dev/shm; -1 when it is not there.
inline off_t shmSize(const std::string& name) {
  struct stat st;
  return stat(("/dev/shm/" + name.substr(name.find_first_not_of('/'))).c_str(), &st) == 0 ? st.st_size : -1;
}
inline bool shmExists(const std::string& name) { return shmSize(name) >= 0; }

inline bool semaphoreExists(const char* name) {
  return access(("/dev/shm/sem." + std::string(name + 1)).c_str(), F_OK) == 0;
}

// True when a manager somewhere answers a request within half a second.
inline bool liveManagerAnswers() {
  OS::CSyncClient client;
  if (!client.create(true)) return false;
  if (!client.lockUntil(OS::Private::wallDeadlineAfter(500000000L))) return false;
  bool answered = client.requestNothing(OS::Private::wallDeadlineAfter(500000000L));
  client.unlock();
  return answered;
}

// Forks a child that runs setup and then waits to be killed. Returns its pid
// once setup succeeded, or -1 (the child reaped) when it failed or took over 10 s.
inline pid_t startParkedChild(const std::function<bool()>& setup) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t pid = testsupport::startChild([&] {
    if (!setup()) return 1;
    char byte = 1;
    if (write(ready[1], &byte, 1) != 1) return 2;
    for (;;) pause();
  });
  pollfd wait{ready[0], POLLIN, 0};
  char byte;
  bool ok = pid > 0 && poll(&wait, 1, 10000) == 1 && read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  close(ready[1]);
  if (!ok && pid > 0) {
    kill(pid, SIGKILL);
    testsupport::waitChild(pid);
  }
  return ok ? pid : -1;
}

// Hosts the manager in the test process for the length of one test. A manager
// run by somebody else on the machine is left alone and the test is skipped.
class HostedManager : public ::testing::Test {
 protected:
  void SetUp() override {
    if (liveManagerAnswers()) GTEST_SKIP() << "a sync manager is already running on this machine";
    ASSERT_TRUE(os_sync_environment_initialize(false));
  }
  void TearDown() override { os_sync_environment_uninitialize(); }
};

// No manager anywhere, and none of its names.
class NoManager : public ::testing::Test {
 protected:
  void SetUp() override {
    if (liveManagerAnswers()) GTEST_SKIP() << "a sync manager is already running on this machine";
    // What a dead manager left behind goes too: "no manager" means no names.
    for (const char* sem : {OS::SyncNames::kEnabledSemaphore, OS::SyncNames::kRequestSemaphore,
                            OS::SyncNames::kFinishSemaphore})
      sem_unlink(sem);
    shm_unlink(OS::SyncNames::kRequestArea);
  }
};

}  // namespace synctest

#endif
