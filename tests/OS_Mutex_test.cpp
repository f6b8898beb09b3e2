// What sets the mutex apart; what it shares with every kind is in SyncContract_test.cpp.
#include "TestSupport.h"

using Mutex = HostedManager;

TEST_F(Mutex, ANamedMutexKeepsItsFirstCreatorsFlags) {
  for (unsigned int flags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE, MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT}) {
    std::string name = uniqueName("attributes");
    mutex_handle* first = namedMutex(name, flags);
    mutex_handle* second = namedMutex(name, flags ^ MUTEX_RECURSIVE);
    ASSERT_TRUE(os_mutex_is_attached(second)) << "flags " << flags;
    os_mutex_lock(second);
    bool relocked = os_mutex_trylock(second);
    EXPECT_EQ(relocked, flags != DEFAULT_MUTEX_ATTRIBUTE)
        << "flags " << flags << ": recursive only when the first creator asked";
    bool otherThread = true;
    std::thread([&] { otherThread = os_mutex_trylock(second); }).join();
    EXPECT_FALSE(otherThread) << "flags " << flags << ": another thread of the holder's process got in";
    for (int held = relocked ? 2 : 1; held > 0; --held) os_mutex_unlock(second);
    os_mutex_destroy(first);  // one detach for every kind: its last is checked in OS_Semaphore_test.cpp
    os_mutex_destroy(second);
  }
}

TEST(Condition, WaitEndsOnNotifyOrAtItsDeadline) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  condition_handle* cond = os_condition_create(mutex, USE_DEFAULT);
  os_mutex_lock(mutex);
  EXPECT_EQ(os_condition_wait_timeout(cond, deadlineIn(-10)), WAIT_CONDITION_TIMEOUT) << "a past deadline";
  std::thread notifier([&] {
    os_mutex_lock(mutex);  // free only once the wait below has given it up
    os_condition_notify(cond);
    os_mutex_unlock(mutex);
  });
  EXPECT_EQ(os_condition_wait_timeout(cond, deadlineIn(10000)), WAIT_CONDITION_OK) << "not notified within 10 s";
  os_mutex_unlock(mutex);
  notifier.join();
  os_condition_destroy(cond);
  os_mutex_destroy(mutex);
  EXPECT_EQ(os_condition_wait(nullptr), -1);
  EXPECT_EQ(os_condition_wait_timeout(nullptr, deadlineIn(0)), -1);
  EXPECT_EQ(os_condition_create(nullptr, USE_DEFAULT), nullptr);
}
