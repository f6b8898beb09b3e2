#include <gtest/gtest.h>

#include <string>

#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_ShareMemory.h>

#include "OS/internal/EventKinds.h"
#include "SyncTestSupport.h"

namespace internal = ostrelled::internal;

using namespace testsupport;

// Every wake-up primitive: anonymous events always use a condition variable.
enum Kind { Anonymous, NamedCondition, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedCondition", "NamedPosix", "NamedSysV"};

class EventKinds : public HostedManager, public ::testing::WithParamInterface<Kind> {
 protected:
  event_handle* make(bool manual, bool initial) {
    const char* name = GetParam() == Anonymous ? nullptr : m_name.c_str();
    return internal::createEvent(manual, initial, USE_STD, name, GetParam() == NamedSysV, GetParam() == NamedCondition);
  }
  std::string m_name = uniqueName("event");
};

TEST_P(EventKinds, AfterADoubleSetEachSetOfAnAutoResetEventReleasesExactlyOneWaiter) {
  event_handle* event = make(false, false);
  os_event_set_event(event);
  os_event_set_event(event);
  auto waiters = startWaiters(3, [&](int) { return os_event_wait(event); });
  for (int released = 1; released <= 3; ++released) {
    if (released > 1) os_event_set_event(event);
    EXPECT_TRUE(waitUntil([&] { return waiters->finished >= released; }));
    watchNothingHappenFor100ms();
    EXPECT_EQ(waiters->finished, released);
  }
  os_event_destroy(event);
}

TEST_P(EventKinds, ManualResetReleasesEveryWaiter) {
  event_handle* event = make(true, false);
  auto waiters =
      startWaiters(3, [&](int i) { return i ? os_event_wait(event) : os_event_wait_timeout(event, deadlineIn(10000)); });
  os_event_set_event(event);
  EXPECT_TRUE(waiters->allFinish() && waiters->succeeded == 3);
  EXPECT_TRUE(os_event_wait(event));
  os_event_reset_event(event);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(50))) << "wake-ups passed on above count no more";
  os_event_destroy(event);
}

TEST_P(EventKinds, UsableHandleIsAttached) {
  event_handle* event = make(false, false);
  EXPECT_TRUE(os_event_is_attached(event));
  os_event_destroy(event);
}

TEST_P(EventKinds, PastDeadlinesAnswerFromTheInitialState) {
  // manual, initial, then what two waits with past deadlines answer
  const bool rows[][4] = {{false, false, false, false}, {false, true, true, false}, {true, false, false, false},
                          {true, true, true, true}};
  for (const auto& row : rows) {
    m_name = uniqueName("event");
    event_handle* event = make(row[0], row[1]);
    EXPECT_EQ(os_event_wait_timeout(event, deadlineIn(-1000)), row[2]) << row[0] << row[1];
    EXPECT_EQ(os_event_wait_timeout(event, deadlineIn(-1)), row[3]) << row[0] << row[1];
    os_event_destroy(event);
  }
}

TEST_P(EventKinds, SetInOneProcessWakesAWaiterInAnother) {
  if (GetParam() == Anonymous) GTEST_SKIP() << "an anonymous event stays in its process";
  event_handle* event = make(false, false);
  pid_t pid = startChild([&] {
    event_handle* mine = make(true, true);  // its reset kind and state are ignored: the first creator's stand
    bool woken = os_event_wait(mine) && !os_event_wait_timeout(mine, deadlineIn(-1000));
    os_event_destroy(mine);
    return woken ? 0 : 1;
  });
  os_event_set_event(event);  // before or after the child waits: the set stays until consumed
  EXPECT_EQ(waitChild(pid), 0);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(-1000))) << "consumed by the child";
  os_event_destroy(event);
  EXPECT_FALSE(shmExists(m_name)) << "the last detach removes the block";
}

TEST_P(EventKinds, SurvivorsCarryOnWhileProcessesAreKilledInsideIt) {
  if (GetParam() == Anonymous) GTEST_SKIP() << "an anonymous event stays in its process";
  for (bool manual : {false, true}) {
    m_name = uniqueName("event");
    event_handle* event = make(manual, false);
    {
      auto set = [&] {
        os_event_set_event(event);
        usleep(300);
      };
      auto wait = [&] {
        os_event_wait(event);
        if (manual) os_event_reset_event(event);
      };
      KillLoop loop({set, set, wait, wait, wait});
      EXPECT_TRUE(loop.allProgress()) << "manual " << manual;
      EXPECT_TRUE(loop.killRandomly(12, manual ? 7 : 3)) << "manual " << manual;
    }
    // A process that opens the name afterwards finds a working event.
    EXPECT_EQ(runChild([&] {
                event_handle* mine = make(manual, false);
                os_event_set_event(mine);
                bool woken = os_event_wait_timeout(mine, deadlineIn(2000));
                os_event_destroy(mine);
                return woken ? 0 : 1;
              }),
              0);
    os_event_destroy(event);
  }
}

TEST_P(EventKinds, TimedWaitUnderASignalStormWaitsTheFullTime) {
  event_handle* event = make(false, false);
  EXPECT_TRUE(waitsFullTimeUnderSignals([&](timespec deadline) { return os_event_wait_timeout(event, deadline); }));
  os_event_destroy(event);
}

INSTANTIATE_TEST_SUITE_P(All, EventKinds, ::testing::Values(Anonymous, NamedCondition, NamedPosix, NamedSysV),
                         [](const auto& info) { return kKindNames[info.param]; });

TEST_F(HostedManager, UnusableEventsAnswerFalse) {
  // Null, names of 1024 characters, and a System V set asked for in real-time mode.
  std::string tooLong(1024, 'e'), named = uniqueName("event");
  event_handle* unusable[] = {nullptr, os_event_create(true, true, USE_STD, tooLong.c_str()),
                              internal::createEvent(true, true, USE_STD, tooLong.c_str(), true, false),
                              internal::createEvent(true, true, USE_RT, named.c_str(), true, false)};
  for (event_handle*& event : unusable) {
    os_event_set_event(event);
    os_event_reset_event(event);
    EXPECT_FALSE(os_event_wait(event));
    EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(10)));
    EXPECT_FALSE(os_event_is_attached(event));
    os_event_destroy(event);
  }
}

TEST_F(HostedManager, DamagedFlagBytesAreTakenAsSet) {
  std::string name = uniqueName("event");
  event_handle* event = os_event_create(false, false, USE_STD, name.c_str());
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_STD);
  ASSERT_NE(block, nullptr);
  // The condition kind's set flag sits at 93; another writer left a stray byte there.
  static_cast<unsigned char*>(os_sharememory_get_buffer(block))[93] = 0x7f;
  EXPECT_TRUE(os_event_wait_timeout(event, deadlineIn(10)));
  EXPECT_EQ(static_cast<unsigned char*>(os_sharememory_get_buffer(block))[93], 0) << "consumed as a set of 1";
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(10)));
  os_sharememory_close(block, false);
  os_sharememory_destroy(block);
  os_event_destroy(event);
}
