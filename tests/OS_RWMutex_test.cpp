#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>

#include <ostrelled/OS_RWMutex.h>

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

TEST_P(RWMutexVariants, ReadersShareAndGoFirstAWriterIsAloneAndTheLastReaderOutLetsItIn) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, GetParam() ? name.c_str() : nullptr);
  os_rw_mutex_lock_rd(mutex);
  auto writer = enter(mutex, 1, true);
  settle();
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
  settle();
  EXPECT_EQ(writer->finished, 0) << "the writer entered with a reader inside";
  *step = 2;  // the last reader leaves: the child, or this thread for the reader thread
  GetParam() ? static_cast<void>(waitChild(child)) : os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(writer->allFinish());

  os_rw_mutex_lock_wr(mutex);
  auto reader = enter(mutex, 1, false);
  writer = enter(mutex, 1, true);
  settle();
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

TEST(RWMutex, UnusableHandlesDoNothing) {
  rw_mutex_handle* unusable[] = {nullptr, os_rw_mutex_create(USE_STD, std::string(1024, 'r').c_str())};
  EXPECT_TRUE(startWaiters(2, [&](int i) {
                os_rw_mutex_lock_wr(unusable[i]);  // a second writer blocks if either lock did anything
                os_rw_mutex_lock_wr(unusable[i]);
                os_rw_mutex_lock_rd(unusable[i]);
                os_rw_mutex_unlock(unusable[i]);
                return true;
              })->allFinish());
  for (rw_mutex_handle*& mutex : unusable) os_rw_mutex_destroy(mutex);
}
