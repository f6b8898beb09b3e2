// What sets the event apart; the rest is in SyncContract_test.cpp.
#include "TestSupport.h"

namespace {

// Every wake-up primitive: anonymous events always use a condition variable.
enum Kind { Anonymous, NamedCondition, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedCondition", "NamedPosix", "NamedSysV"};

class Event : public HostedManager, public ::testing::WithParamInterface<Kind> {
 protected:
  event_handle* make(bool manual, bool initial) {
    const char* name = GetParam() == Anonymous ? nullptr : m_name.c_str();
    return internal::createEvent(manual, initial, USE_STD, name, GetParam() == NamedSysV, GetParam() == NamedCondition);
  }
  std::string m_name = uniqueName("event");
};
using ConditionEvent = HostedManager;

std::string nameOf(const ::testing::TestParamInfo<Kind>& info) { return kKindNames[info.param]; }

}  // namespace

TEST_P(Event, AfterADoubleSetEachSetOfAnAutoResetEventReleasesExactlyOneWaiter) {
  event_handle* event = make(false, false);
  os_event_set_event(event);
  os_event_set_event(event);
  auto waiters = startWaiters(3, [&](int) { return os_event_wait(event); });
  for (int released = 1; released <= 3; ++released) {
    if (released > 1) os_event_set_event(event);
    EXPECT_TRUE(waitUntil([&] { return waiters->finished >= released; }))
        << "set " << released << " woke nobody in 5 s";
    watchNothingHappenFor100ms();
    EXPECT_EQ(waiters->finished, released) << "set " << released << " woke more than one waiter";
  }
  os_event_destroy(event);
}

TEST_P(Event, ManualResetReleasesEveryWaiterUntilReset) {
  event_handle* event = make(true, false);
  auto waiters = startWaiters(
      3, [&](int i) { return i ? os_event_wait(event) : os_event_wait_timeout(event, deadlineIn(10000)); });
  os_event_set_event(event);
  EXPECT_TRUE(waiters->allFinish() && waiters->succeeded == 3) << "a set did not release all three waiters in 5 s";
  EXPECT_TRUE(os_event_wait(event));
  os_event_reset_event(event);
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(50))) << "wake-ups passed on above count no more";
  os_event_destroy(event);
}

INSTANTIATE_TEST_SUITE_P(All, Event, ::testing::Values(Anonymous, NamedCondition, NamedPosix, NamedSysV), nameOf);

TEST_F(ConditionEvent, ADamagedSetFlagIsTakenAsSet) {
  std::string name = uniqueName("event");
  event_handle* event = os_event_create(false, false, USE_STD, name.c_str());
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_STD);
  ASSERT_NE(block, nullptr);
  unsigned char& flag = bytesOf(block)[internal::EventBlock::kCondition.flagsAt + internal::EventBlock::kSetFlag];
  flag = 0x7f;  // a stray byte that another writer left
  EXPECT_TRUE(os_event_wait_timeout(event, deadlineIn(10)));
  EXPECT_EQ(flag, 0) << "not consumed as a set of 1";
  EXPECT_FALSE(os_event_wait_timeout(event, deadlineIn(10)));
  os_sharememory_destroy(block);
  os_event_destroy(event);
}
