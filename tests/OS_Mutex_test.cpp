#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <string>
#include <thread>

#include <ostrelled/OS_Mutex.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"

using namespace testsupport;

static mutex_handle* named(const std::string& name, unsigned int flags = DEFAULT_MUTEX_ATTRIBUTE) {
  return os_mutex_create(flags, USE_DEFAULT, name.c_str());
}

TEST_F(HostedManager, NamedMutexKilledWhileHeldIsRecoveredByTheNextLockerAndSerialisesProcesses) {
  std::string name = uniqueName("shared");
  // [0] the count, [1] 1 once the holder holds, then 1 more for every counter ready; it goes with this process.
  void* shared = mmap(nullptr, 2 * sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  volatile long* counter = static_cast<long*>(shared);
  pid_t holder = startChild([&] {
    os_mutex_lock(named(name));
    counter[1] = 1;
    return pause();
  });
  EXPECT_TRUE(waitUntil([&] { return counter[1] == 1; })) << "the holder never locked";
  kill(holder, SIGKILL);
  EXPECT_EQ(waitChild(holder), 128 + SIGKILL);

  // Two processes find the mutex by its name and start together; the first to
  // lock repairs it (a broken repair hangs and is killed), and no update is lost after that.
  auto count = [&] {
    mutex_handle* mutex = named(name);
    __atomic_add_fetch(&counter[1], 1, __ATOMIC_SEQ_CST);
    while (counter[1] < 3) sched_yield();  // bounded by the parent, which kills an overstaying child
    for (int round = 0; round < 20000 && mutex->m_pMutex != nullptr; ++round) {
      os_mutex_lock(mutex);
      long seen = counter[0];
      if (round % 64 == 0) sched_yield();
      counter[0] = seen + 1;
      os_mutex_unlock(mutex);
    }
    return 0;
  };
  for (pid_t child : {startChild(count), startChild(count)}) EXPECT_EQ(waitChild(child, 30.0), 0);
  EXPECT_EQ(counter[0], 2 * 20000);
  mutex_handle* mutex = named(name);
  ASSERT_NE(mutex->m_pMutex, nullptr);
  EXPECT_EQ(pthread_mutex_trylock(mutex->m_pMutex), 0) << "free and consistent";
  pthread_mutex_unlock(mutex->m_pMutex);
  os_mutex_destroy(mutex);  // the children's attaches stay counted; the manager's stop removes the name
}

TEST_F(HostedManager, NamedMutexKeepsTheFirstCreatorsFlagsAndItsBlockWhileAHandleRemains) {
  for (unsigned int flags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT}) {
    std::string name = uniqueName("attributes");
    mutex_handle* first = named(name, flags);
    mutex_handle* second = named(name, flags ^ MUTEX_RECURSIVE);
    ASSERT_NE(second->m_pMutex, nullptr);
    os_mutex_lock(second);
    bool relocked = pthread_mutex_trylock(second->m_pMutex) == 0;
    EXPECT_EQ(relocked, flags != DEFAULT_MUTEX_ATTRIBUTE) << "recursive only when the first creator asked";
    for (int held = relocked ? 2 : 1; held > 0; --held) os_mutex_unlock(second);
    os_mutex_destroy(first);
    EXPECT_TRUE(shmExists(name)) << "a handle remains";
    os_mutex_destroy(second);
    EXPECT_FALSE(shmExists(name)) << "the last detach removes the block";
  }
}

TEST(Condition, WaitEndsOnNotifyOrAtItsDeadlineAndNullHandlesFail) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  condition_handle* cond = os_condition_create(mutex, USE_DEFAULT);
  os_mutex_lock(mutex);
  EXPECT_EQ(os_condition_wait_timeout(cond, deadlineIn(-10)), WAIT_CONDITION_TIMEOUT);
  std::thread notifier([&] {
    os_mutex_lock(mutex);  // free only once the wait below has given it up
    os_condition_notify(cond);
    os_mutex_unlock(mutex);
  });
  EXPECT_EQ(os_condition_wait_timeout(cond, deadlineIn(10000)), WAIT_CONDITION_OK);
  os_mutex_unlock(mutex);
  notifier.join();
  os_condition_destroy(cond);
  os_mutex_destroy(mutex);

  EXPECT_EQ(os_condition_wait(nullptr), -1);
  EXPECT_EQ(os_condition_wait_timeout(nullptr, deadlineIn(0)), -1);
  EXPECT_EQ(os_condition_create(nullptr, USE_DEFAULT), nullptr);
}
