#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <ostrelled/OS_Event.h>

#include "NamedObjectTestSupport.h"
#include "OS/OS_SyncKinds.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

enum class Kind { Anonymous, NamedCondition, NamedPosix, NamedSysV };

std::string kindName(const ::testing::TestParamInfo<Kind>& info) {
  const char* names[] = {"Anonymous", "NamedCondition", "NamedPosix", "NamedSysV"};
  return names[static_cast<int>(info.param)];
}

event_handle* openEvent(Kind kind, bool manual, bool initial, const std::string& name) {
  if (kind == Kind::Anonymous) return os_event_create(manual, initial, USE_STD, nullptr);
  return OS::createEvent(manual, initial, USE_STD, name.c_str(), kind == Kind::NamedSysV,
                         kind == Kind::NamedCondition);
}

void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

class EventKinds : public ::testing::TestWithParam<Kind> {
 protected:
  event_handle* make(bool manual, bool initial) { return openEvent(GetParam(), manual, initial, m_name); }
  std::string m_name = uniqueName("event");
};

class NamedEventKinds : public EventKinds {};

}  // namespace

TEST_P(EventKinds, AutoResetReleasesExactlyOneOfThreeWaitersPerSet) {
  event_handle* event = make(false, false);
  Waiters waiters(3, [&](int) { return os_event_wait(event); });
  settle();
  EXPECT_EQ(waiters.finished(), 0);
  for (int released = 1; released <= 3; ++released) {
    os_event_set_event(event);
    EXPECT_TRUE(waitUntil([&] { return waiters.finished() >= released; }));
    settle();
    EXPECT_EQ(waiters.finished(), released);
  }
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 3);
  // The last waiter consumed the last set.
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000)));
  os_event_destroy(event);
  EXPECT_EQ(event, nullptr);
}

TEST_P(EventKinds, ManualResetReleasesAllAndStaysSetUntilReset) {
  event_handle* event = make(true, false);
  Waiters waiters(3, [&](int i) { return i == 0 ? os_event_wait_timeout(event, deadlineIn(10000)) : os_event_wait(event); });
  settle();
  os_event_set_event(event);
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 3);
  EXPECT_TRUE(os_event_wait_timeout(event, deadlineIn(-1000)));
  EXPECT_TRUE(os_event_wait(event));

  os_event_reset_event(event);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000)));
  // Wake-ups left over from the waiters above must not count once reset.
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(50)));
  EXPECT_GE(secondsSince(start), 0.045);
  os_event_destroy(event);
}

TEST_P(EventKinds, DoubleSetReleasesOneAutoResetWaiter) {
  event_handle* event = make(false, false);
  os_event_set_event(event);
  os_event_set_event(event);
  Waiters waiters(2, [&](int) { return os_event_wait_timeout(event, deadlineIn(300)); });
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 1);
  os_event_destroy(event);
}

TEST_P(EventKinds, InitialStateAndPastDeadlines) {
  struct Row {
    bool manual, initial, first, second;
  };
  const Row rows[] = {
      {false, false, false, false},
      {false, true, true, false},  // auto reset: the first waiter takes it
      {true, false, false, false},
      {true, true, true, true},  // manual reset: stays set
  };
  for (const Row& row : rows) {
    m_name = uniqueName("event");
    event_handle* event = make(row.manual, row.initial);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(os_event_wait_timeout(event, deadlineIn(-1000)), row.first) << row.manual << row.initial;
    EXPECT_EQ(os_event_wait_timeout(event, deadlineIn(-1)), row.second) << row.manual << row.initial;
    EXPECT_LT(secondsSince(start), 0.5);
    os_event_destroy(event);
  }
}

TEST_P(EventKinds, TimedWaitEndsAtTheDeadlineOrAtTheSet) {
  event_handle* event = make(false, false);
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(50)));
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_LT(secondsSince(start), 2.0);

  // A deadline whose nanoseconds are out of range is still a deadline.
  timespec odd = deadlineIn(0);
  odd.tv_sec -= 1;
  odd.tv_nsec += 1050000000L;
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_event_wait_timeout(event, odd));
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_LT(secondsSince(start), 2.0);

  Waiters waiter(1, [&](int) { return os_event_wait_timeout(event, deadlineIn(10000)); });
  settle();
  start = std::chrono::steady_clock::now();
  os_event_set_event(event);
  ASSERT_TRUE(waiter.joinWithin(5));
  EXPECT_EQ(waiter.succeeded(), 1);
  EXPECT_LT(secondsSince(start), 2.0);
  os_event_destroy(event);
}

TEST_P(NamedEventKinds, SetInOneProcessWakesAWaiterInAnother) {
  event_handle* event = make(false, false);
  Kind kind = GetParam();
  std::string name = m_name;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = startChild([&] {
    // A later opener's reset kind and initial state are ignored.
    event_handle* mine = openEvent(kind, true, true, name);
    if (os_event_wait_timeout(mine, deadlineIn(-1000))) return 1;
    char byte = 1;
    if (write(ready[1], &byte, 1) != 1) return 2;
    bool woken = os_event_wait(mine);
    os_event_destroy(mine);
    return woken ? 0 : 3;
  });
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  settle();
  os_event_set_event(event);
  EXPECT_EQ(waitChild(pid), 0);
  // The child's wait consumed the auto-reset event.
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000)));
  close(ready[0]);
  close(ready[1]);
  os_event_destroy(event);
  EXPECT_FALSE(blockExists(m_name));
}

INSTANTIATE_TEST_SUITE_P(All, EventKinds,
                         ::testing::Values(Kind::Anonymous, Kind::NamedCondition, Kind::NamedPosix, Kind::NamedSysV),
                         kindName);
INSTANTIATE_TEST_SUITE_P(Named, NamedEventKinds,
                         ::testing::Values(Kind::NamedCondition, Kind::NamedPosix, Kind::NamedSysV), kindName);

TEST(Event, SystemVKindOverridesTheConditionWithAWarning) {
  std::string name = uniqueName("event");
  ::testing::internal::CaptureStdout();
  event_handle* event = OS::createEvent(false, false, USE_STD, name.c_str(), true, true);
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "warning: can not use condition because semaphore is managed by OS, it should be system V semaphore.\n");
  key_t key = ftok(("/dev/shm/" + name).c_str(), 0);
  int set = semget(key, 0, 0);
  EXPECT_NE(set, -1);
  os_event_set_event(event);
  EXPECT_EQ(semctl(set, 0, GETVAL), 1);
  EXPECT_TRUE(os_event_wait_timeout(event, deadlineIn(1000)));
  os_event_destroy(event);
  EXPECT_EQ(semctl(set, 0, GETVAL), -1);
}

TEST(Event, UnusableHandlesAnswerFalseAndIgnoreTheRest) {
  event_handle* none = nullptr;
  os_event_set_event(none);
  os_event_reset_event(none);
  EXPECT_FALSE(os_event_wait(none));
  EXPECT_FALSE(os_event_wait_timeout(none, deadlineIn(10)));
  os_event_destroy(none);

  std::string tooLong(1024, 'e');
  std::string named = uniqueName("event");
  ::testing::internal::CaptureStdout();
  event_handle* unusable[] = {
      os_event_create(true, true, USE_STD, tooLong.c_str()),
      OS::createEvent(true, true, USE_STD, tooLong.c_str(), true, false),
      // System V sets are refused in real-time mode.
      OS::createEvent(true, true, USE_RT, named.c_str(), true, false),
  };
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "event_handle can not work in rt mode while named semaphore is managed by os.\n");
  for (event_handle*& event : unusable) {
    ASSERT_NE(event, nullptr);
    os_event_set_event(event);
    os_event_reset_event(event);
    EXPECT_FALSE(os_event_wait(event));
    EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(10)));
    os_event_destroy(event);
  }
  EXPECT_FALSE(blockExists(named));
}
