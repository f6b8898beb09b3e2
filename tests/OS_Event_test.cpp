#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS_Event.h>

#include "NamedObjectTestSupport.h"
#include "OS/OS_SyncKinds.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

// Every wake-up primitive: anonymous events always use a condition variable.
enum Kind { Anonymous, NamedCondition, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedCondition", "NamedPosix", "NamedSysV"};

event_handle* openEvent(Kind kind, bool manual, bool initial, const std::string& name) {
  return OS::createEvent(manual, initial, USE_STD, kind == Anonymous ? nullptr : name.c_str(), kind == NamedSysV,
                         kind == NamedCondition);
}

class EventKinds : public ::testing::TestWithParam<Kind> {
 protected:
  event_handle* make(bool manual, bool initial) { return openEvent(GetParam(), manual, initial, m_name); }
  std::string m_name = uniqueName("event");
};
using NamedEventKinds = EventKinds;

}  // namespace

TEST_P(EventKinds, AutoResetReleasesExactlyOneOfThreeWaitersPerSet) {
  event_handle* event = make(false, false);
  Waiters waiters(3, [&](int) { return os_event_wait(event); });
  settle();
  for (int released = 1; released <= 3; ++released) {
    EXPECT_EQ(waiters.finished(), released - 1);
    os_event_set_event(event);
    EXPECT_TRUE(waitUntil([&] { return waiters.finished() >= released; }));
    settle();
  }
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 3);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000)));  // the last set was consumed
  os_event_destroy(event);
  EXPECT_EQ(event, nullptr);
}

TEST_P(EventKinds, ManualResetReleasesAllAndStaysSetUntilReset) {
  event_handle* event = make(true, false);
  Waiters waiters(3, [&](int i) { return i ? os_event_wait(event) : os_event_wait_timeout(event, deadlineIn(10000)); });
  settle();
  os_event_set_event(event);
  ASSERT_TRUE(waiters.joinWithin(5));
  EXPECT_EQ(waiters.succeeded(), 3);
  EXPECT_TRUE(os_event_wait(event));
  os_event_reset_event(event);
  // Wake-ups passed on by the waiters above must not count once it is reset.
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(50)));
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_LT(secondsSince(start), 2.0);
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
  } rows[] = {{false, false, false, false}, {false, true, true, false}, {true, false, false, false},
              {true, true, true, true}};
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

TEST_P(EventKinds, TimedWaitOnAClearEventEndsAtItsDeadline) {
  event_handle* event = make(false, false);
  for (bool unnormalised : {false, true}) {
    timespec deadline = deadlineIn(50);
    if (unnormalised) {  // the same time, with a second carried into the nanoseconds
      deadline.tv_sec -= 1;
      deadline.tv_nsec += 1000000000L;
    }
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(os_event_wait_timeout(event, deadline));
    EXPECT_GE(secondsSince(start), 0.04);
    EXPECT_LT(secondsSince(start), 2.0);
  }
  os_event_destroy(event);
}

TEST_P(NamedEventKinds, SetInOneProcessWakesAWaiterInAnother) {
  event_handle* event = make(false, false);
  Kind kind = GetParam();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = startChild([&] {
    event_handle* mine = openEvent(kind, true, true, m_name);  // its reset kind and state are ignored
    char byte = 1;
    bool ok = !os_event_wait_timeout(mine, deadlineIn(-1000)) && write(ready[1], &byte, 1) == 1 && os_event_wait(mine);
    os_event_destroy(mine);
    return ok ? 0 : 1;
  });
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  settle();
  os_event_set_event(event);
  EXPECT_EQ(waitChild(pid), 0);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000)));  // consumed by the child
  close(ready[0]);
  close(ready[1]);
  os_event_destroy(event);
  EXPECT_FALSE(synctest::shmExists(m_name));
}

INSTANTIATE_TEST_SUITE_P(All, EventKinds, ::testing::Values(Anonymous, NamedCondition, NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });
INSTANTIATE_TEST_SUITE_P(Named, NamedEventKinds, ::testing::Values(NamedCondition, NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });

TEST(Event, SystemVKindOverridesTheConditionWithAWarning) {
  std::string name = uniqueName("event");
  ::testing::internal::CaptureStdout();
  event_handle* event = OS::createEvent(false, false, USE_STD, name.c_str(), true, true);
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "warning: can not use condition because semaphore is managed by OS, it should be system V semaphore.\n");
  int set = semget(ftok(("/dev/shm/" + name).c_str(), 0), 0, 0);
  os_event_set_event(event);
  EXPECT_EQ(semctl(set, 0, GETVAL), 1);
  os_event_destroy(event);
  EXPECT_EQ(semctl(set, 0, GETVAL), -1);
}

TEST(Event, UnusableHandlesAnswerFalseAndIgnoreTheRest) {
  std::string tooLong(1024, 'e'), named = uniqueName("event");
  ::testing::internal::CaptureStdout();
  event_handle* unusable[] = {
      nullptr,
      os_event_create(true, true, USE_STD, tooLong.c_str()),
      OS::createEvent(true, true, USE_STD, tooLong.c_str(), true, false),
      OS::createEvent(true, true, USE_RT, named.c_str(), true, false),  // no System V set in real-time mode
  };
  fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "event_handle can not work in rt mode while named semaphore is managed by os.\n");
  for (event_handle*& event : unusable) {
    os_event_set_event(event);
    os_event_reset_event(event);
    EXPECT_FALSE(os_event_wait(event));
    EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(10)));
    os_event_destroy(event);
  }
  EXPECT_FALSE(synctest::shmExists(named));
}
