#ifndef OSTRELLED_TESTS_SYNCTESTSUPPORT_H
#define OSTRELLED_TESTS_SYNCTESTSUPPORT_H

// Helpers for tests that host the sync manager or use its machine-wide names.

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS_Sync.h>

#include "OS/OS_Private.h"
#include "OS/OS_SyncClient.h"

namespace synctest {

// A name no other test process uses: tag, pid and a running number.
inline std::string uniqueName(const char* tag) {
  static int next = 0;
  return "ostrelled_test_" + std::string(tag) + "_" + std::to_string(getpid()) + "_" + std::to_string(next++);
}

// Whether the named shared-memory object is present in /dev/shm.
inline bool shmExists(const std::string& name) {
  std::string path = "/dev/shm/" + name.substr(name.find_first_not_of('/'));
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

inline off_t shmSize(const std::string& name) {
  std::string path = "/dev/shm/" + name.substr(name.find_first_not_of('/'));
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

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

// Removes what a dead manager left behind, so that "no manager" really means no names.
inline void unlinkManagerNames() {
  sem_unlink(OS::SyncNames::kEnabledSemaphore);
  sem_unlink(OS::SyncNames::kRequestSemaphore);
  sem_unlink(OS::SyncNames::kFinishSemaphore);
  shm_unlink(OS::SyncNames::kRequestArea);
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
    unlinkManagerNames();
  }
};

}  // namespace synctest

#endif
