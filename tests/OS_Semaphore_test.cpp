#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <chrono>
#include <string>
#include <thread>

#include <ostrelled/OS_Semaphore.h>

#include "NamedObjectTestSupport.h"
#include "OS/OS_SyncKinds.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

enum class Kind { Anonymous, NamedPosix, NamedSysV };

std::string kindName(const ::testing::TestParamInfo<Kind>& info) {
  switch (info.param) {
    case Kind::Anonymous:
      return "Anonymous";
    case Kind::NamedPosix:
      return "NamedPosix";
    case Kind::NamedSysV:
      return "NamedSysV";
  }
  return "";
}

semaphore_handle* openSemaphore(Kind kind, int count, const std::string& name) {
  if (kind == Kind::Anonymous) return OS::createSemaphore(count, USE_STD, nullptr, false);
  return OS::createSemaphore(count, USE_STD, name.c_str(), kind == Kind::NamedSysV);
}

// The System V set that the kernel holds for a named block, or -1.
int sysVSetOf(const std::string& name) {
  key_t key = ftok(("/dev/shm/" + name).c_str(), 0);
  return key == -1 ? -1 : semget(key, 0, 0);
}

class SemaphoreKinds : public ::testing::TestWithParam<Kind> {
 protected:
  std::string m_name = uniqueName("sem");
};

class NamedSemaphoreKinds : public SemaphoreKinds {};

}  // namespace

TEST_P(SemaphoreKinds, CountsUnitsAndTimesOutWithinBounds) {
  semaphore_handle* sem = openSemaphore(GetParam(), 2, m_name);
  EXPECT_TRUE(os_semaphore_wait(sem));
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(-1000)));  // a unit is there: the past deadline does not matter

  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(-1000)));
  EXPECT_LT(secondsSince(start), 0.5);

  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(50)));
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_LT(secondsSince(start), 2.0);

  os_semaphore_release(sem);
  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(5000)));
  EXPECT_LT(secondsSince(start), 0.5);
  os_semaphore_destroy(sem);
  EXPECT_EQ(sem, nullptr);
}

TEST_P(SemaphoreKinds, ReleaseWakesAWaitingThread) {
  semaphore_handle* sem = openSemaphore(GetParam(), 0, m_name);
  Waiters waiters(2, [&](int i) { return i == 0 ? os_semaphore_wait(sem) : os_semaphore_wait_timeout(sem, deadlineIn(10000)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(waiters.finished(), 0);
  os_semaphore_release(sem);
  EXPECT_TRUE(waitUntil([&] { return waiters.finished() == 1; }));
  os_semaphore_release(sem);
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 2);
  os_semaphore_destroy(sem);
}

TEST_P(NamedSemaphoreKinds, CountIsSharedAcrossProcessesAndLaterInitialCountsIgnored) {
  semaphore_handle* sem = openSemaphore(GetParam(), 1, m_name);
  Kind kind = GetParam();
  std::string name = m_name;
  int child = runChild([kind, name] {
    semaphore_handle* mine = openSemaphore(kind, 7, name);  // the 7 must be ignored
    int result = 0;
    if (!os_semaphore_wait_timeout(mine, deadlineIn(2000))) result = 1;
    if (os_semaphore_wait_timeout(mine, deadlineIn(50))) result = 2;
    os_semaphore_release(mine);
    os_semaphore_release(mine);
    os_semaphore_destroy(mine);
    return result;
  });
  EXPECT_EQ(child, 0);
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(1000)));
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(1000)));
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(20)));

  // And a waiter in another process is woken by a release here.
  pid_t pid = startChild([kind, name] {
    semaphore_handle* mine = openSemaphore(kind, 0, name);
    bool taken = os_semaphore_wait(mine);
    os_semaphore_destroy(mine);
    return taken ? 0 : 1;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  os_semaphore_release(sem);
  EXPECT_EQ(waitChild(pid), 0);
  os_semaphore_destroy(sem);
}

TEST_P(NamedSemaphoreKinds, LastDetachRemovesTheBlockAndTheKernelSet) {
  semaphore_handle* first = openSemaphore(GetParam(), 3, m_name);
  semaphore_handle* second = openSemaphore(GetParam(), 0, m_name);
  ASSERT_TRUE(blockExists(m_name));
  int set = sysVSetOf(m_name);
  if (GetParam() == Kind::NamedSysV) {
    // The kind is honoured: the count lives in a kernel set, not in a sem_t.
    ASSERT_NE(set, -1);
    EXPECT_EQ(semctl(set, 0, GETVAL), 3);
    EXPECT_TRUE(os_semaphore_wait(second));
    EXPECT_EQ(semctl(set, 0, GETVAL), 2);
  } else {
    EXPECT_EQ(set, -1);
  }
  os_semaphore_destroy(first);
  EXPECT_TRUE(blockExists(m_name));
  EXPECT_TRUE(os_semaphore_wait(second));
  os_semaphore_destroy(second);
  EXPECT_FALSE(blockExists(m_name));
  if (set != -1) {
    EXPECT_EQ(semctl(set, 0, GETVAL), -1);
  }
}

INSTANTIATE_TEST_SUITE_P(All, SemaphoreKinds, ::testing::Values(Kind::Anonymous, Kind::NamedPosix, Kind::NamedSysV),
                         kindName);
INSTANTIATE_TEST_SUITE_P(Named, NamedSemaphoreKinds, ::testing::Values(Kind::NamedPosix, Kind::NamedSysV), kindName);

TEST(Semaphore, UndoTrackingReversesAnExitedProcessesReleases) {
  std::string name = uniqueName("sem");
  semaphore_handle* sem = OS::createSemaphore(0, USE_STD, name.c_str(), true);
  for (bool undo : {true, false}) {
    EXPECT_EQ(runChild([&] {
                semaphore_handle* mine = OS::createSemaphore(0, USE_STD, name.c_str(), true);
                os_semaphore_set_undo_track(mine, undo);
                os_semaphore_release(mine);
                os_semaphore_destroy(mine);
                return 0;
              }),
              0);
    EXPECT_EQ(os_semaphore_wait_timeout(sem, deadlineIn(50)), !undo) << "undo " << undo;
  }
  os_semaphore_destroy(sem);
}

TEST(Semaphore, UnusableHandlesAnswerFalseAndIgnoreTheRest) {
  semaphore_handle* none = nullptr;
  EXPECT_FALSE(os_semaphore_wait(none));
  EXPECT_FALSE(os_semaphore_wait_timeout(none, deadlineIn(10)));
  EXPECT_FALSE(os_semaphore_set_undo_track(none, true));
  os_semaphore_release(none);
  os_semaphore_destroy(none);
  EXPECT_EQ(none, nullptr);

  std::string tooLong(1024, 'n');
  std::string named = uniqueName("sem");
  semaphore_handle* unattached[] = {
      os_semaphore_create(1, USE_STD, tooLong.c_str()),
      OS::createSemaphore(1, USE_STD, tooLong.c_str(), true),
      // System V sets are refused in real-time mode.
      OS::createSemaphore(1, USE_RT, named.c_str(), true),
      // A count the system refuses.
      os_semaphore_create(-1, USE_STD, nullptr),
  };
  for (semaphore_handle*& sem : unattached) {
    ASSERT_NE(sem, nullptr);
    EXPECT_TRUE(os_semaphore_set_undo_track(sem, true));
    os_semaphore_release(sem);
    EXPECT_FALSE(os_semaphore_wait(sem));
    EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(10)));
    os_semaphore_destroy(sem);
  }
  EXPECT_FALSE(blockExists(named));
}
