#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <ostrelled/OS_RWMutex.h>

#include "NamedObjectTestSupport.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

// Every case runs on the thread variant (no name) and the process variant.
class RWMutexVariants : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    m_name = uniqueName("rw");
    m_mutex = os_rw_mutex_create(USE_STD, GetParam() ? m_name.c_str() : nullptr);
  }
  void TearDown() override {
    os_rw_mutex_destroy(m_mutex);
    if (GetParam()) {
      EXPECT_FALSE(blockExists(m_name));
    }
  }

  // A thread that enters as a writer, counts itself inside, and leaves again.
  Waiters writer(std::atomic<int>& inside) {
    return Waiters(1, [this, &inside](int) {
      os_rw_mutex_lock_wr(m_mutex);
      ++inside;
      os_rw_mutex_unlock(m_mutex);
      return true;
    });
  }

  // Threads that enter as readers and stay inside; finished() counts them in.
  Waiters readers(int count) {
    return Waiters(count, [this](int) {
      os_rw_mutex_lock_rd(m_mutex);
      return true;
    });
  }

  std::string m_name;
  rw_mutex_handle* m_mutex = nullptr;
};

std::string variantName(const ::testing::TestParamInfo<bool>& info) { return info.param ? "Process" : "Thread"; }

}  // namespace

TEST_P(RWMutexVariants, ReadersShareAndAWriterWaitsForTheLastOfThem) {
  os_rw_mutex_lock_rd(m_mutex);
  Waiters second = readers(1);
  ASSERT_TRUE(second.joinWithin(5)) << "a second reader was kept out";

  std::atomic<int> written{0};
  Waiters w = writer(written);
  settle();
  EXPECT_EQ(written, 0);
  os_rw_mutex_unlock(m_mutex);
  settle();
  EXPECT_EQ(written, 0) << "the writer entered with a reader inside";
  // The last reader out is not the thread that took the resource in.
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
}

TEST_P(RWMutexVariants, AWriterIsAloneAndItsUnlockLetsEveryoneIn) {
  os_rw_mutex_lock_wr(m_mutex);
  Waiters r = readers(2);
  std::atomic<int> written{0};
  Waiters w = writer(written);
  settle();
  EXPECT_EQ(r.finished(), 0);
  EXPECT_EQ(written, 0);
  os_rw_mutex_unlock(m_mutex);
  // The unlock wakes all of them; the other writer may go first or after the
  // readers, who stay inside until the main thread lets them out.
  ASSERT_TRUE(r.joinWithin(5));
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
}

TEST_P(RWMutexVariants, ReadersGoAheadOfAWaitingWriter) {
  os_rw_mutex_lock_rd(m_mutex);
  std::atomic<int> written{0};
  Waiters w = writer(written);
  settle();
  Waiters late = readers(1);
  ASSERT_TRUE(late.joinWithin(5)) << "a waiting writer held a new reader back";
  EXPECT_EQ(written, 0);
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
}

TEST_P(RWMutexVariants, UnlockWithNobodyInsideChangesNothing) {
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_lock_rd(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  std::atomic<int> written{0};
  Waiters w = writer(written);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
}

INSTANTIATE_TEST_SUITE_P(Both, RWMutexVariants, ::testing::Bool(), variantName);

TEST(RWMutex, LastReaderLeavingInAnotherProcessLetsTheWriterIn) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, name.c_str());
  os_rw_mutex_lock_rd(mutex);  // this process takes the resource in
  int toChild[2], toParent[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(toParent), 0);
  pid_t pid = startChild([&] {
    rw_mutex_handle* mine = os_rw_mutex_create(USE_STD, name.c_str());
    os_rw_mutex_lock_rd(mine);
    char byte = 1;
    if (write(toParent[1], &byte, 1) != 1 || read(toChild[0], &byte, 1) != 1) return 1;
    os_rw_mutex_unlock(mine);  // the last reader, in another process
    os_rw_mutex_destroy(mine);
    return 0;
  });
  char byte = 0;
  ASSERT_EQ(read(toParent[0], &byte, 1), 1);
  std::atomic<int> written{0};
  Waiters w(1, [&](int) {
    os_rw_mutex_lock_wr(mutex);
    ++written;
    os_rw_mutex_unlock(mutex);
    return true;
  });
  os_rw_mutex_unlock(mutex);
  settle();
  EXPECT_EQ(written, 0) << "the writer entered while the child read";
  EXPECT_EQ(write(toChild[1], &byte, 1), 1);
  EXPECT_EQ(waitChild(pid), 0);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
  for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
  os_rw_mutex_destroy(mutex);
  EXPECT_FALSE(blockExists(name));
}

TEST(RWMutex, UnusableHandlesDoNothing) {
  rw_mutex_handle* none = nullptr;
  os_rw_mutex_lock_rd(none);
  os_rw_mutex_lock_wr(none);
  os_rw_mutex_unlock(none);
  os_rw_mutex_destroy(none);

  std::string tooLong(1024, 'r');
  rw_mutex_handle* unattached = os_rw_mutex_create(USE_STD, tooLong.c_str());
  ASSERT_NE(unattached, nullptr);
  // Two writers in a row would block if either lock did anything.
  os_rw_mutex_lock_wr(unattached);
  os_rw_mutex_lock_wr(unattached);
  os_rw_mutex_lock_rd(unattached);
  os_rw_mutex_unlock(unattached);
  os_rw_mutex_destroy(unattached);
  EXPECT_EQ(unattached, nullptr);
}
