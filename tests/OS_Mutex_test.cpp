#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::shmExists;
using synctest::uniqueName;

namespace {

// Whether the handle's mutex lets the same thread in twice.
bool relocksFromTheSameThread(mutex_handle* mutex) {
  if (pthread_mutex_trylock(mutex->m_pMutex) != 0) return false;
  bool again = pthread_mutex_trylock(mutex->m_pMutex) == 0;
  if (again) pthread_mutex_unlock(mutex->m_pMutex);
  pthread_mutex_unlock(mutex->m_pMutex);
  return again;
}

timespec monotonicAfter(long millis) { return synctest::clockAfter(CLOCK_MONOTONIC, millis); }

mutex_handle* named(const std::string& name, unsigned int flags = DEFAULT_MUTEX_ATTRIBUTE) {
  return os_mutex_create(flags, USE_DEFAULT, name.c_str());
}

}  // namespace

using NamedMutex = synctest::HostedManager;

TEST_F(NamedMutex, ProcessesSerialiseOnOneNameWhoseBlockLivesWhileAHandleDoes) {
  std::string name = uniqueName("counter");
  std::string counterName = uniqueName("counter_value");
  sharememory_handle* counter = os_sharememory_create(counterName.c_str(), sizeof(long), USE_DEFAULT);
  ASSERT_NE(counter, nullptr);
  mutex_handle* mine = named(name);
  ASSERT_NE(mine->m_pMutex, nullptr);
  constexpr int kChildren = 4;
  constexpr int kRounds = 2000;
  std::vector<pid_t> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(testsupport::startChild([&] {
      mutex_handle* mutex = named(name);
      if (mutex->m_pMutex == nullptr) return 1;
      volatile long* value = static_cast<long*>(os_sharememory_get_buffer(counter));
      for (int round = 0; round < kRounds; ++round) {
        os_mutex_lock(mutex);
        long seen = *value;  // a lost update shows up as a short total
        if (round % 64 == 0) sched_yield();
        *value = seen + 1;
        os_mutex_unlock(mutex);
      }
      os_mutex_destroy(mutex);
      return 0;
    }));
  }
  for (pid_t child : children) EXPECT_EQ(testsupport::waitChild(child, 60.0), 0);
  EXPECT_EQ(*static_cast<long*>(os_sharememory_get_buffer(counter)), long{kChildren} * kRounds);
  EXPECT_TRUE(shmExists(name)) << "this process still holds a handle";
  os_mutex_destroy(mine);
  EXPECT_FALSE(shmExists(name)) << "the last detach removes the block";
  os_sharememory_close(counter, true);
  os_sharememory_destroy(counter);
}

TEST_F(NamedMutex, TheFirstCreatorsAttributesStand) {
  for (unsigned int firstFlags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT}) {
    std::string name = uniqueName("attributes");
    mutex_handle* first = named(name, firstFlags);
    mutex_handle* second = named(name, firstFlags ^ MUTEX_RECURSIVE);
    ASSERT_NE(second->m_pMutex, nullptr);
    EXPECT_EQ(relocksFromTheSameThread(second), firstFlags != DEFAULT_MUTEX_ATTRIBUTE);
    os_mutex_destroy(second);
    os_mutex_destroy(first);
  }
  // Conditions stay within one process: a named mutex takes none.
  mutex_handle* mutex = named(uniqueName("cond"));
  EXPECT_EQ(os_condition_create(mutex, USE_DEFAULT), nullptr);
  os_mutex_destroy(mutex);
}

TEST_F(NamedMutex, TheNextLockerRecoversFromAnOwnerKilledWhileHoldingIt) {
  std::string name = uniqueName("robust");
  mutex_handle* mutex = named(name);
  ASSERT_NE(mutex->m_pMutex, nullptr);
  pid_t holder = synctest::startParkedChild([&] {
    mutex_handle* own = named(name);
    os_mutex_lock(own);
    return own->m_pMutex != nullptr;
  });
  ASSERT_GT(holder, 0);
  kill(holder, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(holder), 128 + SIGKILL);

  // Another process recovers it (a broken recovery hangs and is killed), and
  // after that it works for everyone.
  int code = testsupport::runChild([&] {
    mutex_handle* next = named(name);
    for (int i = 0; i < 2; ++i) {
      os_mutex_lock(next);
      os_mutex_unlock(next);
    }
    return 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(pthread_mutex_trylock(mutex->m_pMutex), 0) << "healthy and free";
  pthread_mutex_unlock(mutex->m_pMutex);
  os_mutex_destroy(mutex);  // the dead holders' attaches stay counted; the manager's stop removes the name
}

TEST(AnonymousMutex, RecursiveRelocksNormalRefusesAndNullIsIgnored) {
  mutex_handle* recursive = os_mutex_create(MUTEX_RECURSIVE, USE_DEFAULT, nullptr);
  mutex_handle* normal = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_STD, nullptr);
  EXPECT_EQ(recursive->m_pMutexShareMemory, nullptr);
  EXPECT_TRUE(relocksFromTheSameThread(recursive));
  EXPECT_FALSE(relocksFromTheSameThread(normal));
  os_mutex_destroy(recursive);
  os_mutex_destroy(normal);
  EXPECT_EQ(normal, nullptr);
  os_mutex_destroy(normal);
  os_mutex_lock(nullptr);
  os_mutex_unlock(nullptr);
}

TEST(Condition, WaitsTimeOutOnTheMonotonicClockAndWakeOnNotify) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  condition_handle* cond = os_condition_create(mutex, USE_DEFAULT);
  ASSERT_NE(cond, nullptr);
  os_mutex_lock(mutex);
  EXPECT_EQ(os_condition_wait_timeout(cond, monotonicAfter(-10)), WAIT_CONDITION_TIMEOUT);
  int asleep = 0;
  std::thread waiter([&] {
    os_mutex_lock(mutex);
    ++asleep;  // counted under the mutex, which only the wait gives up
    EXPECT_EQ(os_condition_wait_timeout(cond, monotonicAfter(10000)), WAIT_CONDITION_OK);
    os_mutex_unlock(mutex);
  });
  os_mutex_unlock(mutex);
  ASSERT_TRUE(testsupport::waitUntil([&] {
    os_mutex_lock(mutex);
    bool sleeping = asleep == 1;
    os_mutex_unlock(mutex);
    return sleeping;
  }));
  auto start = std::chrono::steady_clock::now();
  os_condition_notify(cond);
  waiter.join();
  EXPECT_LT(testsupport::secondsSince(start), 5.0) << "woken, not timed out";
  os_condition_destroy(cond);
  EXPECT_EQ(cond, nullptr);
  os_mutex_destroy(mutex);
}

TEST(Condition, NullHandlesAndUnattachedMutexesFailSafely) {
  EXPECT_EQ(os_condition_wait(nullptr), -1);
  EXPECT_EQ(os_condition_wait_timeout(nullptr, monotonicAfter(0)), -1);
  os_condition_notify(nullptr);
  os_condition_notify_all(nullptr);
  EXPECT_EQ(os_condition_create(nullptr, USE_DEFAULT), nullptr);
  // A named mutex that never attached has no block, so it may carry a
  // condition, but there is no mutex to wait with.
  mutex_handle* unattached = named(std::string(1024, 'x'));
  condition_handle* cond = os_condition_create(unattached, USE_DEFAULT);
  ASSERT_NE(cond, nullptr);
  EXPECT_EQ(os_condition_wait(cond), WAIT_CONDITION_FAILED);
  EXPECT_EQ(os_condition_wait_timeout(cond, monotonicAfter(10)), WAIT_CONDITION_FAILED);
  os_condition_destroy(cond);
  os_mutex_destroy(unattached);
}
