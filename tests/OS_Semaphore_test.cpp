#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <string>

#include <ostrelled/OS_Semaphore.h>

#include "NamedObjectTestSupport.h"
#include "OS/OS_SyncKinds.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

enum Kind { Anonymous, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedPosix", "NamedSysV"};

semaphore_handle* openSemaphore(Kind kind, int count, const std::string& name) {
  return OS::createSemaphore(count, USE_STD, kind == Anonymous ? nullptr : name.c_str(), kind == NamedSysV);
}

// The kernel's System V set behind a named block, or -1.
int sysVSetOf(const std::string& name) { return semget(ftok(("/dev/shm/" + name).c_str(), 0), 0, 0); }

class SemaphoreKinds : public ::testing::TestWithParam<Kind> {
 protected:
  std::string m_name = uniqueName("sem");
};
using NamedSemaphoreKinds = SemaphoreKinds;

}  // namespace

TEST_P(SemaphoreKinds, CountsUnitsAndTimesOutWithinBounds) {
  semaphore_handle* sem = openSemaphore(GetParam(), 2, m_name);
  EXPECT_TRUE(os_semaphore_wait(sem));
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(-1000)));  // a unit is there: a past deadline is no matter
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
  EXPECT_EQ(sem, nullptr);
}

TEST_P(NamedSemaphoreKinds, CountIsSharedAcrossProcessesAndLaterInitialCountsIgnored) {
  semaphore_handle* sem = openSemaphore(GetParam(), 1, m_name);
  Kind kind = GetParam();
  std::string name = m_name;
  EXPECT_EQ(runChild([&] {
              semaphore_handle* mine = openSemaphore(kind, 7, name);
              bool ok = os_semaphore_wait_timeout(mine, deadlineIn(2000)) &&
                        !os_semaphore_wait_timeout(mine, deadlineIn(50));
              os_semaphore_release(mine);
              os_semaphore_release(mine);
              os_semaphore_destroy(mine);
              return ok ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(1000)));
  EXPECT_TRUE(os_semaphore_wait_timeout(sem, deadlineIn(1000)));
  EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(20)));

  pid_t pid = startChild([&] {
    semaphore_handle* mine = openSemaphore(kind, 0, name);
    bool taken = os_semaphore_wait(mine);
    os_semaphore_destroy(mine);
    return taken ? 0 : 1;
  });
  settle();
  os_semaphore_release(sem);  // wakes the waiter in the other process
  EXPECT_EQ(waitChild(pid), 0);
  os_semaphore_destroy(sem);
}

TEST_P(NamedSemaphoreKinds, KindIsHonouredAndLastDetachRemovesBlockAndSet) {
  semaphore_handle* first = openSemaphore(GetParam(), 3, m_name);
  semaphore_handle* second = openSemaphore(GetParam(), 0, m_name);
  int set = sysVSetOf(m_name);
  EXPECT_EQ(set != -1, GetParam() == NamedSysV);
  EXPECT_TRUE(os_semaphore_wait(second));
  EXPECT_TRUE(set == -1 || semctl(set, 0, GETVAL) == 2);  // the count lives in the kernel set
  semaphore_handle* otherKind = openSemaphore(GetParam() == NamedSysV ? NamedPosix : NamedSysV, 0, m_name);
  EXPECT_FALSE(os_semaphore_wait_timeout(otherKind, deadlineIn(-1)));  // a block of another kind is left alone
  os_semaphore_destroy(otherKind);
  os_semaphore_destroy(first);
  EXPECT_TRUE(synctest::shmExists(m_name));
  os_semaphore_destroy(second);
  EXPECT_FALSE(synctest::shmExists(m_name));
  EXPECT_EQ(semctl(set, 0, GETVAL), -1);
}

INSTANTIATE_TEST_SUITE_P(All, SemaphoreKinds, ::testing::Values(Anonymous, NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });
INSTANTIATE_TEST_SUITE_P(Named, NamedSemaphoreKinds, ::testing::Values(NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });

TEST(Semaphore, UndoTrackingReversesTheReleasesOfAnExitedProcess) {
  std::string name = uniqueName("sem");
  semaphore_handle* sem = openSemaphore(NamedSysV, 0, name);
  for (bool undo : {true, false}) {
    EXPECT_EQ(runChild([&] {
                semaphore_handle* mine = openSemaphore(NamedSysV, 0, name);
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

  std::string tooLong(1024, 'n'), named = uniqueName("sem");
  ::testing::internal::CaptureStdout();
  semaphore_handle* unattached[] = {
      os_semaphore_create(1, USE_STD, tooLong.c_str()),
      OS::createSemaphore(1, USE_STD, tooLong.c_str(), true),
      OS::createSemaphore(1, USE_RT, named.c_str(), true),  // no System V set in real-time mode
      os_semaphore_create(-1, USE_STD, nullptr),            // a count the system refuses
  };
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "semaphore_handle can not work in rt mode while named semaphore is managed by os.\n");
  for (semaphore_handle*& sem : unattached) {
    EXPECT_TRUE(os_semaphore_set_undo_track(sem, true));
    os_semaphore_release(sem);
    EXPECT_FALSE(os_semaphore_wait(sem));
    EXPECT_FALSE(os_semaphore_wait_timeout(sem, deadlineIn(10)));
    os_semaphore_destroy(sem);
  }
  EXPECT_FALSE(synctest::shmExists(named));
}
