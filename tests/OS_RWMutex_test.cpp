#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <ostrelled/OS_RWMutex.h>

#include "NamedObjectTestSupport.h"

using namespace testsupport;

namespace {

::testing::Environment* const kManager = ::testing::AddGlobalTestEnvironment(new SyncManagerEnvironment);

// Entering threads: readers stay inside, a writer counts itself in and leaves.
Waiters readers(rw_mutex_handle* mutex, int count) {
  return Waiters(count, [mutex](int) {
    os_rw_mutex_lock_rd(mutex);
    return true;
  });
}

Waiters writer(rw_mutex_handle* mutex, std::atomic<int>& written) {
  return Waiters(1, [mutex, &written](int) {
    os_rw_mutex_lock_wr(mutex);
    ++written;
    os_rw_mutex_unlock(mutex);
    return true;
  });
}

// Every case runs on the thread variant (no name) and on the process variant.
class RWMutexVariants : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { m_mutex = os_rw_mutex_create(USE_STD, GetParam() ? m_name.c_str() : nullptr); }
  void TearDown() override {
    os_rw_mutex_destroy(m_mutex);
    EXPECT_FALSE(synctest::shmExists(m_name));
  }
  std::string m_name = uniqueName("rw");
  rw_mutex_handle* m_mutex = nullptr;
  std::atomic<int> m_written{0};
};

}  // namespace

TEST_P(RWMutexVariants, ReadersShareAndAWriterWaitsForTheLastOfThem) {
  os_rw_mutex_lock_rd(m_mutex);
  ASSERT_TRUE(readers(m_mutex, 1).joinWithin(5)) << "a second reader was kept out";
  Waiters w = writer(m_mutex, m_written);
  os_rw_mutex_unlock(m_mutex);
  settle();
  EXPECT_EQ(m_written, 0) << "the writer entered with a reader inside";
  os_rw_mutex_unlock(m_mutex);  // the last reader out, another thread than the first in
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(m_written, 1);
}

TEST_P(RWMutexVariants, AWriterIsAloneAndItsUnlockLetsEveryoneIn) {
  os_rw_mutex_lock_wr(m_mutex);
  Waiters r = readers(m_mutex, 2);
  Waiters w = writer(m_mutex, m_written);
  settle();
  EXPECT_EQ(r.finished() + m_written, 0);
  os_rw_mutex_unlock(m_mutex);
  // All are woken; the writer goes before or after the readers, who stay inside.
  ASSERT_TRUE(r.joinWithin(5));
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(m_written, 1);
}

TEST_P(RWMutexVariants, ReadersGoAheadOfAWaitingWriter) {
  os_rw_mutex_lock_rd(m_mutex);
  Waiters w = writer(m_mutex, m_written);
  settle();
  ASSERT_TRUE(readers(m_mutex, 1).joinWithin(5)) << "a waiting writer held a new reader back";
  EXPECT_EQ(m_written, 0);
  os_rw_mutex_unlock(m_mutex);
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(w.joinWithin(5));
  // An unlock with nobody inside changes nothing.
  os_rw_mutex_unlock(m_mutex);
  ASSERT_TRUE(writer(m_mutex, m_written).joinWithin(5));
  EXPECT_EQ(m_written, 2);
}

INSTANTIATE_TEST_SUITE_P(Both, RWMutexVariants, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Process" : "Thread"; });

TEST(RWMutex, LastReaderLeavingInAnotherProcessLetsTheWriterIn) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, name.c_str());
  os_rw_mutex_lock_rd(mutex);  // the first reader in is this process
  int toChild[2], toParent[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(toParent), 0);
  pid_t pid = startChild([&] {
    rw_mutex_handle* mine = os_rw_mutex_create(USE_STD, name.c_str());
    os_rw_mutex_lock_rd(mine);
    char byte = 1;
    if (write(toParent[1], &byte, 1) != 1 || read(toChild[0], &byte, 1) != 1) return 1;
    os_rw_mutex_unlock(mine);  // the last reader out
    os_rw_mutex_destroy(mine);
    return 0;
  });
  char byte = 0;
  ASSERT_EQ(read(toParent[0], &byte, 1), 1);
  std::atomic<int> written{0};
  Waiters w = writer(mutex, written);
  os_rw_mutex_unlock(mutex);
  settle();
  EXPECT_EQ(written, 0) << "the writer entered while the child read";
  EXPECT_EQ(write(toChild[1], &byte, 1), 1);
  EXPECT_EQ(waitChild(pid), 0);
  ASSERT_TRUE(w.joinWithin(5));
  EXPECT_EQ(written, 1);
  for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
  os_rw_mutex_destroy(mutex);
  EXPECT_FALSE(synctest::shmExists(name));
}

TEST(RWMutex, UnusableHandlesDoNothing) {
  std::string tooLong(1024, 'r');
  for (rw_mutex_handle* mutex : {static_cast<rw_mutex_handle*>(nullptr), os_rw_mutex_create(USE_STD, tooLong.c_str())}) {
    // Two writers in a row would block if either lock did anything.
    os_rw_mutex_lock_wr(mutex);
    os_rw_mutex_lock_wr(mutex);
    os_rw_mutex_lock_rd(mutex);
    os_rw_mutex_unlock(mutex);
    os_rw_mutex_destroy(mutex);
    EXPECT_EQ(mutex, nullptr);
  }
}
