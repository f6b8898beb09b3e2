#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::HostedManager;
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

timespec monotonicAfter(long millis) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_nsec += millis * 1000000L;
  t.tv_sec += t.tv_nsec / 1000000000L;
  t.tv_nsec %= 1000000000L;
  return t;
}

}  // namespace

using NamedMutex = HostedManager;

TEST_F(NamedMutex, ProcessesSerialiseOnOneName) {
  std::string name = uniqueName("counter");
  std::string counterName = uniqueName("counter_value");
  sharememory_handle* counter = os_sharememory_create(counterName.c_str(), sizeof(long), USE_DEFAULT);
  ASSERT_NE(counter, nullptr);
  constexpr int kChildren = 4;
  constexpr int kRounds = 2000;

  std::vector<pid_t> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(testsupport::startChild([&] {
      mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
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
  EXPECT_FALSE(shmExists(name)) << "the last detach removed the block";
  os_sharememory_close(counter, true);
  os_sharememory_destroy(counter);
}

TEST_F(NamedMutex, TheFirstCreatorsAttributesStand) {
  for (unsigned int firstFlags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE}) {
    std::string name = uniqueName("attributes");
    mutex_handle* first = os_mutex_create(firstFlags, USE_DEFAULT, name.c_str());
    mutex_handle* second = os_mutex_create(firstFlags ^ MUTEX_RECURSIVE, USE_RT, name.c_str());
    ASSERT_NE(first->m_pMutex, nullptr);
    ASSERT_NE(second->m_pMutex, nullptr);
    EXPECT_EQ(relocksFromTheSameThread(second), firstFlags == MUTEX_RECURSIVE);
    os_mutex_destroy(second);
    os_mutex_destroy(first);
  }
  // Priority inheritance combines with the robust shared mutex.
  mutex_handle* inheriting = os_mutex_create(MUTEX_PRIO_INHERIT | MUTEX_RECURSIVE, USE_DEFAULT, uniqueName("pi").c_str());
  ASSERT_NE(inheriting->m_pMutex, nullptr);
  EXPECT_TRUE(relocksFromTheSameThread(inheriting));
  os_mutex_destroy(inheriting);
}

TEST_F(NamedMutex, TheBlockLivesWhileAnyHandleRemains) {
  std::string name = uniqueName("lifetime");
  mutex_handle* mine = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mine->m_pMutex, nullptr);
  int code = testsupport::runChild([&] {
    mutex_handle* theirs = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
    if (theirs->m_pMutex == nullptr) return 1;
    os_mutex_lock(theirs);
    os_mutex_unlock(theirs);
    os_mutex_destroy(theirs);
    return shmExists(name) ? 0 : 2;
  });
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(shmExists(name));
  os_mutex_destroy(mine);
  EXPECT_FALSE(shmExists(name));
}

TEST_F(NamedMutex, TheNextLockerRecoversFromAnOwnerKilledWhileHoldingIt) {
  std::string name = uniqueName("robust");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mutex->m_pMutex, nullptr);
  int locked[2];
  ASSERT_EQ(pipe(locked), 0);
  pid_t holder = testsupport::startChild([&] {
    mutex_handle* own = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
    os_mutex_lock(own);
    char byte = 1;
    if (write(locked[1], &byte, 1) != 1) return 1;
    pause();
    return 0;
  });
  char byte;
  ASSERT_EQ(read(locked[0], &byte, 1), 1);
  close(locked[0]);
  close(locked[1]);
  kill(holder, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(holder), 128 + SIGKILL);

  // Another process recovers it, and after that it works for everyone.
  int code = testsupport::runChild([&] {
    mutex_handle* next = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
    os_mutex_lock(next);
    os_mutex_unlock(next);
    os_mutex_lock(next);
    os_mutex_unlock(next);
    os_mutex_destroy(next);
    return 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(pthread_mutex_trylock(mutex->m_pMutex), 0) << "the mutex is healthy and free";
  pthread_mutex_unlock(mutex->m_pMutex);
  os_mutex_destroy(mutex);  // the dead holder's attach stays counted; the manager's stop removes the name
}

TEST(AnonymousMutex, RecursiveRelocksAndNormalRefusesTheSameThread) {
  mutex_handle* recursive = os_mutex_create(MUTEX_RECURSIVE, USE_DEFAULT, nullptr);
  mutex_handle* normal = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_STD, nullptr);
  EXPECT_EQ(recursive->m_pMutexShareMemory, nullptr);
  EXPECT_TRUE(relocksFromTheSameThread(recursive));
  EXPECT_FALSE(relocksFromTheSameThread(normal));
  os_mutex_lock(recursive);
  os_mutex_lock(recursive);
  os_mutex_unlock(recursive);
  os_mutex_unlock(recursive);
  os_mutex_destroy(recursive);
  os_mutex_destroy(normal);
  EXPECT_EQ(normal, nullptr);
  os_mutex_destroy(normal);
  os_mutex_lock(nullptr);
  os_mutex_unlock(nullptr);
}

TEST(AnonymousMutex, ThreadsSerialise) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  long value = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        os_mutex_lock(mutex);
        ++value;
        os_mutex_unlock(mutex);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(value, 80000);
  os_mutex_destroy(mutex);
}

TEST(Condition, WaitsTimeOutAndWakeOnNotify) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  condition_handle* cond = os_condition_create(mutex, USE_DEFAULT);
  ASSERT_NE(cond, nullptr);

  os_mutex_lock(mutex);
  timespec past = monotonicAfter(-10);
  EXPECT_EQ(os_condition_wait_timeout(cond, past), WAIT_CONDITION_TIMEOUT);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(os_condition_wait_timeout(cond, monotonicAfter(50)), WAIT_CONDITION_TIMEOUT);
  EXPECT_GE(testsupport::secondsSince(start), 0.045) << "the deadline counts on CLOCK_MONOTONIC";
  os_mutex_unlock(mutex);

  for (bool all : {false, true}) {
    bool ready = false;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i)
      waiters.emplace_back([&] {
        os_mutex_lock(mutex);
        while (!ready)
          if (os_condition_wait_timeout(cond, monotonicAfter(10000)) != WAIT_CONDITION_OK) break;
        ++woken;
        os_mutex_unlock(mutex);
      });
    os_mutex_lock(mutex);
    ready = true;
    os_mutex_unlock(mutex);
    if (all) {
      os_condition_notify_all(cond);
    } else {
      os_condition_notify(cond);
      os_condition_notify(cond);
    }
    // A waiter that had not slept yet sees `ready` at once; either way both finish.
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(woken, 2);
  }
  os_condition_destroy(cond);
  EXPECT_EQ(cond, nullptr);
  os_mutex_destroy(mutex);
}

TEST(Condition, RefusesNamedAndNullMutexesAndNullHandles) {
  EXPECT_EQ(os_condition_wait(nullptr), -1);
  EXPECT_EQ(os_condition_wait_timeout(nullptr, monotonicAfter(0)), -1);
  os_condition_notify(nullptr);
  os_condition_notify_all(nullptr);
  condition_handle* none = nullptr;
  os_condition_destroy(none);
  EXPECT_EQ(os_condition_create(nullptr, USE_DEFAULT), nullptr);

  // A named mutex that never attached has no block, so it may carry a
  // condition, but there is no mutex to wait with.
  std::string tooLong(1024, 'x');
  mutex_handle* unattached = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, tooLong.c_str());
  condition_handle* cond = os_condition_create(unattached, USE_DEFAULT);
  ASSERT_NE(cond, nullptr);
  EXPECT_EQ(os_condition_wait(cond), WAIT_CONDITION_FAILED);
  EXPECT_EQ(os_condition_wait_timeout(cond, monotonicAfter(10)), WAIT_CONDITION_FAILED);
  os_condition_destroy(cond);
  os_mutex_destroy(unattached);
}

TEST_F(NamedMutex, ConditionsRefuseAnAttachedNamedMutex) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("cond").c_str());
  ASSERT_NE(mutex->m_pMutexShareMemory, nullptr);
  EXPECT_EQ(os_condition_create(mutex, USE_DEFAULT), nullptr);
  os_mutex_destroy(mutex);
}
