#include <gtest/gtest.h>
#include <sys/sem.h>

#include <string>
#include <thread>

#include <ostrelled/OS_Semaphore.h>

#include "OS/internal/SemaphoreKinds.h"
#include "SyncTestSupport.h"

namespace internal = ostrelled::internal;

using namespace testsupport;

enum Kind { Anonymous, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedPosix", "NamedSysV"};

class SemaphoreKinds : public HostedManager, public ::testing::WithParamInterface<Kind> {
 protected:
  semaphore_handle* make(int count) {
    const char* name = GetParam() == Anonymous ? nullptr : m_name.c_str();
    return internal::createSemaphore(count, USE_STD, name, GetParam() == NamedSysV);
  }
  std::string m_name = uniqueName("sem");
};

TEST_P(SemaphoreKinds, WaitsTakeOneUnitEach) {
  semaphore_handle* sem = make(2);
  EXPECT_TRUE(os_semaphore_wait(sem));
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(-1000))) << "a unit is there: a past deadline is no matter";
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(-1000)));
  EXPECT_LT(secondsSince(start), 0.5);
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(50)));
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_LT(secondsSince(start), 2.0);
  os_semaphore_release(sem);
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(-1)));
  os_semaphore_destroy(sem);
}

TEST_P(SemaphoreKinds, CountIsSharedAcrossProcesses) {
  if (GetParam() == Anonymous) GTEST_SKIP() << "an anonymous semaphore stays in its process";
  semaphore_handle* sem = make(1);
  EXPECT_EQ(runChild([&] {
              semaphore_handle* mine = make(7);
              bool ok = os_semaphore_wait_timeout(mine, deadlineIn(2000)) &&
                        !os_semaphore_wait_timeout(mine, deadlineIn(50));
              os_semaphore_release(mine);
              os_semaphore_release(mine);
              os_semaphore_destroy(mine);
              return ok ? 0 : 1;
            }),
            0);
  for (bool unitLeft : {true, true, false}) EXPECT_EQ(os_semaphore_wait_timeout(sem, deadlineIn(20)), unitLeft);
  int set = semget(ftok(("/dev/shm/" + m_name).c_str(), 0), 0, 0);  // the kernel's System V set, if any
  EXPECT_EQ(set != -1, GetParam() == NamedSysV);
  os_semaphore_destroy(sem);
  EXPECT_FALSE(shmExists(m_name));
  EXPECT_EQ(semctl(set, 0, GETVAL), -1) << "the last detach removes the block and the set";
}

TEST_P(SemaphoreKinds, ValueCountsTheUnitsAvailable) {
  semaphore_handle* sem = make(3);
  EXPECT_TRUE(os_semaphore_is_attached(sem));
  EXPECT_EQ(os_semaphore_get_value(sem), 3);
  EXPECT_TRUE(os_semaphore_wait(sem));
  EXPECT_EQ(os_semaphore_get_value(sem), 2);
  os_semaphore_release(sem);
  os_semaphore_release(sem);
  EXPECT_EQ(os_semaphore_get_value(sem), 4);
  os_semaphore_destroy(sem);
}

TEST_P(SemaphoreKinds, TimedWaitUnderASignalStormWaitsTheFullTime) {
  semaphore_handle* sem = make(0);
  EXPECT_TRUE(waitsFullTimeUnderSignals([&](timespec deadline) { return os_semaphore_wait_timeout(sem, deadline); }));
  os_semaphore_destroy(sem);
}

TEST_P(SemaphoreKinds, UntimedWaitUnderASignalStormGoesOnUntilAUnitComes) {
  semaphore_handle* sem = make(0);
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    os_semaphore_release(sem);
  });
  bool taken = false;
  EXPECT_GE(secondsUnderSignals([&] { taken = os_semaphore_wait(sem); }, std::chrono::milliseconds(1)), 0.19);
  EXPECT_TRUE(taken);
  releaser.join();
  os_semaphore_destroy(sem);
}

TEST_P(SemaphoreKinds, SurvivorsCarryOnWhileProcessesAreKilledInsideIt) {
  if (GetParam() == Anonymous) GTEST_SKIP() << "an anonymous semaphore stays in its process";
  semaphore_handle* sem = make(0);
  {
    auto release = [&] {
      os_semaphore_release(sem);
      usleep(300);
    };
    auto wait = [&] { os_semaphore_wait(sem); };
    KillLoop loop({release, release, wait, wait, wait});
    EXPECT_TRUE(loop.allProgress());
    EXPECT_TRUE(loop.killRandomly(12));
  }
  os_semaphore_destroy(sem);
}

INSTANTIATE_TEST_SUITE_P(All, SemaphoreKinds, ::testing::Values(Anonymous, NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });

TEST_F(HostedManager, UnusableSemaphoresAnswerFalse) {
  // Null, names of 1024 characters, a System V set asked for in real-time mode, a count the system refuses.
  std::string tooLong(1024, 'n'), named = uniqueName("sem");
  semaphore_handle* unusable[] = {nullptr, os_semaphore_create(1, USE_STD, tooLong.c_str()),
                                  internal::createSemaphore(1, USE_STD, tooLong.c_str(), true),
                                  internal::createSemaphore(1, USE_RT, named.c_str(), true),
                                  os_semaphore_create(-1, USE_STD, nullptr)};
  for (semaphore_handle*& sem : unusable) {
    EXPECT_EQ(os_semaphore_set_undo_track(sem, true), sem != nullptr) << "false only for null";
    os_semaphore_release(sem);
    EXPECT_FALSE(os_semaphore_wait(sem));
    EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(10)));
    EXPECT_EQ(os_semaphore_get_value(sem), -1);
    EXPECT_FALSE(os_semaphore_is_attached(sem));
    os_semaphore_destroy(sem);
  }
}
