#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <string>
#include <thread>

#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Semaphore.h>

#include "OS/internal/MutexHandle.h"
#include "SyncTestSupport.h"

using namespace testsupport;

static mutex_handle* named(const std::string& name, unsigned int flags = DEFAULT_MUTEX_ATTRIBUTE) {
  return os_mutex_create(flags, USE_DEFAULT, name.c_str());
}

TEST_F(HostedManager, NamedMutexKilledWhileHeldIsRecoveredByTheNextLocker) {
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

TEST_F(HostedManager, NamedMutexKeepsTheFirstCreatorsFlags) {
  for (unsigned int flags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE, MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT}) {
    std::string name = uniqueName("attributes");
    mutex_handle* first = named(name, flags);
    mutex_handle* second = named(name, flags ^ MUTEX_RECURSIVE);
    ASSERT_TRUE(os_mutex_is_attached(second));
    os_mutex_lock(second);
    bool relocked = os_mutex_trylock(second);
    EXPECT_EQ(relocked, flags != DEFAULT_MUTEX_ATTRIBUTE) << "recursive only when the first creator asked";
    bool otherThread = true;
    std::thread([&] { otherThread = os_mutex_trylock(second); }).join();
    EXPECT_FALSE(otherThread) << "another thread of the holder's process got in (flags " << flags << ")";
    for (int held = relocked ? 2 : 1; held > 0; --held) os_mutex_unlock(second);
    os_mutex_destroy(first);
    EXPECT_TRUE(shmExists(name)) << "a handle remains";
    os_mutex_destroy(second);
    EXPECT_FALSE(shmExists(name)) << "the last detach removes the block";
  }
}

// A named mutex held by a child process until it lets go (exiting while it
// holds the mutex, so that the next locker repairs it) or is killed.
class MutexHolder : public HostedManager, public ::testing::WithParamInterface<unsigned int> {
 protected:
  void SetUp() override {
    HostedManager::SetUp();
    m_mutex = named(m_name, GetParam());
    m_holder = std::make_unique<HeldInChild>([&] { os_mutex_lock(named(m_name)); }, [] {});
    ASSERT_TRUE(m_holder->held()) << "the holder never locked";
  }
  void TearDown() override {
    m_holder.reset();
    os_mutex_destroy(m_mutex);
    HostedManager::TearDown();
  }

  std::string m_name = uniqueName("held");
  mutex_handle* m_mutex = nullptr;
  std::unique_ptr<HeldInChild> m_holder;
};

// The try lock at once, the timed lock at its deadline.
TEST_P(MutexHolder, LocksGiveUpWhileAnotherProcessHoldsIt) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_mutex_trylock(m_mutex));
  EXPECT_LT(secondsSince(start), 0.1);
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_mutex_lock_timeout(m_mutex, deadlineIn(100)));
  EXPECT_GE(secondsSince(start), 0.095);
  EXPECT_LT(secondsSince(start), 2.0);
}

TEST_P(MutexHolder, TimedLockSucceedsWhenTheHolderLetsGoBeforeTheDeadline) {
  m_holder->letGo();
  EXPECT_TRUE(os_mutex_lock_timeout(m_mutex, deadlineIn(5000)));
  os_mutex_unlock(m_mutex);
}

// Whichever lock comes first repairs it; the other then finds it consistent.
TEST_P(MutexHolder, TryAndTimedLocksRepairAMutexWhoseOwnerWasKilled) {
  for (bool tryFirst : {true, false}) {
    m_holder = std::make_unique<HeldInChild>([&] { os_mutex_lock(named(m_name)); }, [] {});
    ASSERT_TRUE(m_holder->held());
    m_holder->kill();
    EXPECT_TRUE(tryFirst ? os_mutex_trylock(m_mutex) : os_mutex_lock_timeout(m_mutex, deadlineIn(2000)));
    os_mutex_unlock(m_mutex);
    EXPECT_TRUE(tryFirst ? os_mutex_lock_timeout(m_mutex, deadlineIn(-1)) : os_mutex_trylock(m_mutex))
        << "consistent after the repair";
    os_mutex_unlock(m_mutex);
  }
}

TEST_P(MutexHolder, TimedLockUnderASignalStormWaitsTheFullTime) {
  EXPECT_TRUE(waitsFullTimeUnderSignals([&](timespec deadline) { return os_mutex_lock_timeout(m_mutex, deadline); }));
}

INSTANTIATE_TEST_SUITE_P(Attributes, MutexHolder,
                         ::testing::Values(DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE, MUTEX_PRIO_INHERIT,
                                           MUTEX_RECURSIVE | MUTEX_PRIO_INHERIT));

TEST(Mutex, AnonymousMutexGivesUpWhenHeld) {
  for (unsigned int flags : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_PRIO_INHERIT}) {
    mutex_handle* mutex = os_mutex_create(flags, USE_STD, nullptr);
    EXPECT_TRUE(os_mutex_is_attached(mutex));
    EXPECT_TRUE(os_mutex_trylock(mutex));
    std::thread other([&] {
      EXPECT_FALSE(os_mutex_trylock(mutex));
      EXPECT_FALSE(os_mutex_lock_timeout(mutex, deadlineIn(20)));
    });
    other.join();
    os_mutex_unlock(mutex);
    EXPECT_TRUE(os_mutex_lock_timeout(mutex, deadlineIn(-1))) << "a past deadline still takes a free mutex";
    os_mutex_unlock(mutex);
    os_mutex_destroy(mutex);
  }
}

TEST(Mutex, HandlesWithoutAMutexRefuseEveryLock) {
  mutex_handle* unusable[] = {nullptr, os_mutex_create(0, USE_STD, std::string(1024, 'm').c_str())};
  for (mutex_handle*& mutex : unusable) {
    EXPECT_FALSE(os_mutex_is_attached(mutex));
    EXPECT_FALSE(os_mutex_trylock(mutex));
    EXPECT_FALSE(os_mutex_lock_timeout(mutex, deadlineIn(10)));
    os_mutex_destroy(mutex);
  }
}

TEST_F(NoManager, NoNamedHandleIsAttachedWithoutAManager) {
  std::string name = uniqueName("alone");
  mutex_handle* mutex = named(name);
  rw_mutex_handle* rw = os_rw_mutex_create(USE_STD, name.c_str());
  semaphore_handle* sem = os_semaphore_create(1, USE_STD, name.c_str());
  event_handle* event = os_event_create(true, true, USE_STD, name.c_str());
  EXPECT_FALSE(os_mutex_is_attached(mutex));
  EXPECT_FALSE(os_rw_mutex_is_attached(rw));
  EXPECT_FALSE(os_semaphore_is_attached(sem));
  EXPECT_FALSE(os_event_is_attached(event));
  os_event_destroy(event);
  os_semaphore_destroy(sem);
  os_rw_mutex_destroy(rw);
  os_mutex_destroy(mutex);
}

TEST(Condition, WaitEndsOnNotifyOrAtItsDeadline) {
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
