#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <string>
#include <cstring>
#include <vector>
#include <thread>

#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_ShareMemory.h>

#include "SyncTestSupport.h"

using namespace testsupport;

// Threads that enter as readers and stay inside, or as writers that leave at once.
static std::shared_ptr<Waiters> enter(rw_mutex_handle* mutex, int count, bool asWriter) {
  return startWaiters(count, [=](int) {
    asWriter ? os_rw_mutex_lock_wr(mutex) : os_rw_mutex_lock_rd(mutex);
    if (asWriter) os_rw_mutex_unlock(mutex);
    return true;
  });
}

// Runs on the variant for threads (no name) and on the one for processes.
class RWMutexVariants : public HostedManager, public ::testing::WithParamInterface<bool> {};

TEST_P(RWMutexVariants, AWriterWaitsForTheLastReader) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, GetParam() ? name.c_str() : nullptr);
  os_rw_mutex_lock_rd(mutex);
  auto writer = enter(mutex, 1, true);
  watchNothingHappenFor100ms();  // the writer queues up behind the reader
  EXPECT_EQ(writer->finished, 0) << "the writer entered with a reader inside";
  // The second reader is a thread, or a child process for the variant for processes. The
  // page holds 1 once the child reads and 2 when it may leave; it goes with this process.
  volatile int* step = static_cast<int*>(mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t child = !GetParam() ? -1 : startChild([&] {
    rw_mutex_handle* mine = os_rw_mutex_create(USE_STD, name.c_str());
    os_rw_mutex_lock_rd(mine);
    *step = 1;
    while (*step != 2) sched_yield();  // bounded by the parent, which kills an overstaying child
    os_rw_mutex_unlock(mine);
    os_rw_mutex_destroy(mine);
    return 0;
  });
  EXPECT_TRUE(GetParam() ? waitUntil([&] { return *step == 1; }) : enter(mutex, 1, false)->allFinish()) << "held back";
  os_rw_mutex_unlock(mutex);
  watchNothingHappenFor100ms();
  EXPECT_EQ(writer->finished, 0) << "the writer entered with a reader inside";
  *step = 2;  // the last reader leaves: the child, or this thread for the reader thread
  GetParam() ? static_cast<void>(waitChild(child)) : os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(writer->allFinish());

  os_rw_mutex_lock_wr(mutex);
  auto reader = enter(mutex, 1, false);
  writer = enter(mutex, 1, true);
  watchNothingHappenFor100ms();
  EXPECT_EQ(reader->finished + writer->finished, 0) << "a writer is alone";
  os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(reader->allFinish());  // the writer goes before or after the reader, who stays inside
  os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(writer->allFinish());
  os_rw_mutex_destroy(mutex);
  EXPECT_FALSE(shmExists(name));
}

INSTANTIATE_TEST_SUITE_P(Both, RWMutexVariants, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Process" : "Thread"; });

TEST_P(RWMutexVariants, TimedLockUnderASignalStormWaitsTheFullTime) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, GetParam() ? name.c_str() : nullptr);
  EXPECT_TRUE(os_rw_mutex_is_attached(mutex));
  os_rw_mutex_lock_wr(mutex);
  EXPECT_TRUE(waitsFullTimeUnderSignals([&](timespec deadline) { return os_rw_mutex_lock_rd_timeout(mutex, deadline); }));
  os_rw_mutex_unlock(mutex);
  os_rw_mutex_destroy(mutex);
}

// A named reader/writer mutex held in a child process as a reader or a writer.
class RWMutexHolder : public HostedManager {
 protected:
  void SetUp() override {
    HostedManager::SetUp();
    m_mutex = os_rw_mutex_create(USE_STD, m_name.c_str());
  }
  void TearDown() override {
    m_holder.reset();
    os_rw_mutex_destroy(m_mutex);
    HostedManager::TearDown();
  }
  void holdInChild(bool asWriter) {
    m_holder.reset();
    rw_mutex_handle* mine = m_mutex;  // the child's copy of the handle, attached before the fork
    m_holder = std::make_unique<HeldInChild>([=] { asWriter ? os_rw_mutex_lock_wr(mine) : os_rw_mutex_lock_rd(mine); },
                                             [=] { os_rw_mutex_unlock(mine); });
    ASSERT_TRUE(m_holder->held()) << "the holder never locked";
  }
  // Time a writer blocked on the lock takes to get it once the holder is killed.
  double secondsForBlockedWriterAfterKill() {
    std::atomic<bool> in{false};
    std::thread writer([&] { in = os_rw_mutex_lock_wr_timeout(m_mutex, deadlineIn(5000)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets the writer block first
    auto start = std::chrono::steady_clock::now();
    m_holder->kill();
    writer.join();
    double seconds = secondsSince(start);
    EXPECT_TRUE(in);
    os_rw_mutex_unlock(m_mutex);
    return seconds;
  }

  std::string m_name = uniqueName("rw");
  rw_mutex_handle* m_mutex = nullptr;
  std::unique_ptr<HeldInChild> m_holder;
};

// A blocked writer gets in within a second; a try lock finds the dead at once.
TEST_F(RWMutexHolder, AHolderThatDiesGivesItsShareBack) {
  for (bool asWriter : {true, false}) {
    holdInChild(asWriter);
    EXPECT_LT(secondsForBlockedWriterAfterKill(), 1.2) << "writer " << asWriter;
    EXPECT_TRUE(os_rw_mutex_trylock_wr(m_mutex)) << "nothing of the dead is left, writer " << asWriter;
    os_rw_mutex_unlock(m_mutex);
    holdInChild(asWriter);
    m_holder->kill();
    EXPECT_TRUE(os_rw_mutex_trylock_wr(m_mutex)) << "writer " << asWriter;
    os_rw_mutex_unlock(m_mutex);
  }
}

TEST_F(RWMutexHolder, AReaderInAnotherProcessKeepsWritersOut) {
  holdInChild(false);
  EXPECT_TRUE(os_rw_mutex_trylock_rd(m_mutex));
  os_rw_mutex_unlock(m_mutex);
  EXPECT_FALSE(os_rw_mutex_trylock_wr(m_mutex));
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_rw_mutex_lock_wr_timeout(m_mutex, deadlineIn(100)));
  EXPECT_GE(secondsSince(start), 0.095);
  EXPECT_TRUE(os_rw_mutex_lock_rd_timeout(m_mutex, deadlineIn(-1))) << "the writer that gave up holds nobody back";
  os_rw_mutex_unlock(m_mutex);
}

TEST_F(RWMutexHolder, AWriterInAnotherProcessKeepsEverybodyOutUntilItLetsGo) {
  holdInChild(true);
  EXPECT_FALSE(os_rw_mutex_trylock_rd(m_mutex));
  EXPECT_FALSE(os_rw_mutex_trylock_wr(m_mutex));
  EXPECT_FALSE(os_rw_mutex_lock_rd_timeout(m_mutex, deadlineIn(50)));
  std::thread letGo([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    m_holder->letGo();
  });
  EXPECT_TRUE(os_rw_mutex_lock_wr_timeout(m_mutex, deadlineIn(5000)));
  letGo.join();
  os_rw_mutex_unlock(m_mutex);
}

TEST_F(RWMutexHolder, SurvivorsCarryOnWhileHoldersAreKilledAtRandom) {
  auto use = [&](bool asWriter) {
    return [&, asWriter] {
      asWriter ? os_rw_mutex_lock_wr(m_mutex) : os_rw_mutex_lock_rd(m_mutex);
      usleep(100);
      os_rw_mutex_unlock(m_mutex);
      usleep(400);
    };
  };
  {
    KillLoop loop({use(false), use(false), use(true), use(true)});
    EXPECT_TRUE(loop.allProgress());
    EXPECT_TRUE(loop.killRandomly(15));
  }
  EXPECT_TRUE(os_rw_mutex_trylock_wr(m_mutex)) << "every share of the dead is given back";
  os_rw_mutex_unlock(m_mutex);
}

TEST_F(RWMutexHolder, ADamagedBlockIsRepairedNotFollowedIntoAHang) {
  pid_t gone = startChild([] { return 0; });
  waitChild(gone);  // reaped: its pid names nobody now
  // Counts that no live holder accounts for: a reader entry of the dead, one
  // with a negative pid, untracked readers beyond the count, a writer flag
  // without a writer, and the other way round.
  const std::vector<std::pair<unsigned int, int32_t>> damage[] = {
      {{4, 3}, {56, gone}, {60, 3}},
      {{4, 2}, {64, -5}, {68, 2}},
      {{4, 0}, {88, 1000}},
      {{8, 1}},
      {{8, 0}, {52, gone}},
  };
  sharememory_handle* block = os_sharememory_open(m_name.c_str(), USE_STD);
  ASSERT_NE(block, nullptr);
  auto* bytes = static_cast<unsigned char*>(os_sharememory_get_buffer(block));
  for (const auto& fields : damage) {
    for (const auto& field : fields) memcpy(bytes + field.first, &field.second, sizeof(field.second));
    EXPECT_TRUE(os_rw_mutex_lock_wr_timeout(m_mutex, deadlineIn(2000))) << "damage " << &fields - damage;
    os_rw_mutex_unlock(m_mutex);
    EXPECT_TRUE(os_rw_mutex_trylock_rd(m_mutex));
    os_rw_mutex_unlock(m_mutex);
  }
  os_sharememory_close(block, false);
  os_sharememory_destroy(block);
}

TEST(RWMutex, UnusableHandlesDoNothing) {
  rw_mutex_handle* unusable[] = {nullptr, os_rw_mutex_create(USE_STD, std::string(1024, 'r').c_str())};
  EXPECT_TRUE(startWaiters(2, [&](int i) {
                os_rw_mutex_lock_wr(unusable[i]);  // a second writer blocks if either lock did anything
                os_rw_mutex_lock_wr(unusable[i]);
                os_rw_mutex_lock_rd(unusable[i]);
                os_rw_mutex_unlock(unusable[i]);
                return true;
              })->allFinish());
  for (rw_mutex_handle*& mutex : unusable) {
    EXPECT_FALSE(os_rw_mutex_is_attached(mutex));
    EXPECT_FALSE(os_rw_mutex_trylock_rd(mutex));
    EXPECT_FALSE(os_rw_mutex_lock_wr_timeout(mutex, deadlineIn(10)));
    os_rw_mutex_destroy(mutex);
  }
}
