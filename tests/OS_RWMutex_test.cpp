// What sets the reader/writer mutex apart; the rest is in SyncContract_test.cpp.

#include "TestSupport.h"

namespace {

// Threads that enter as readers and stay inside, or as writers that leave at once.
std::shared_ptr<Waiters> enter(rw_mutex_handle* mutex, int count, bool asWriter) {
  return startWaiters(count, [=](int) {
    asWriter ? os_rw_mutex_lock_wr(mutex) : os_rw_mutex_lock_rd(mutex);
    if (asWriter) os_rw_mutex_unlock(mutex);
    return true;
  });
}

// Run on the mutex for threads (no name) and on the one for processes.
class RWMutex : public HostedManager, public ::testing::WithParamInterface<bool> {};
using NamedRWMutex = HostedManager;

}  // namespace

TEST_P(RWMutex, AWriterWaitsForTheLastReaderAndIsAloneInside) {
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, GetParam() ? name.c_str() : nullptr);
  os_rw_mutex_lock_rd(mutex);
  auto writer = enter(mutex, 1, true);
  watchNothingHappenFor100ms();  // the writer queues up behind the reader
  EXPECT_EQ(writer->finished, 0) << "the writer entered with a reader inside";
  {
    // A second reader: a thread, or another process for the mutex for processes.
    rw_mutex_handle* mine = GetParam() ? os_rw_mutex_create(USE_STD, name.c_str()) : mutex;
    Holder second([=] { os_rw_mutex_lock_rd(mine); }, [=] { os_rw_mutex_unlock(mine); }, GetParam());
    EXPECT_TRUE(second.held()) << "a second reader was held back by the first";
    os_rw_mutex_unlock(mutex);
    watchNothingHappenFor100ms();
    EXPECT_EQ(writer->finished, 0) << "the writer entered with the second reader inside";
    if (GetParam()) os_rw_mutex_destroy(mine);  // this process's handle: the child has its copy
  }
  EXPECT_TRUE(writer->allFinish()) << "the writer did not enter within 5 s of the last reader leaving";

  os_rw_mutex_lock_wr(mutex);
  auto reader = enter(mutex, 1, false);
  writer = enter(mutex, 1, true);
  watchNothingHappenFor100ms();
  EXPECT_EQ(reader->finished + writer->finished, 0) << "somebody entered beside a writer";
  os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(reader->allFinish());  // the writer goes before or after the reader, who stays inside
  os_rw_mutex_unlock(mutex);
  EXPECT_TRUE(writer->allFinish());
  os_rw_mutex_destroy(mutex);
  EXPECT_FALSE(shmExists(name)) << "the last detach left the block";
}

INSTANTIATE_TEST_SUITE_P(Both, RWMutex, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Process" : "Thread"; });

// Dead or impossible readers, untracked readers beyond the count, a writer flag without a writer.
TEST_F(NamedRWMutex, ADamagedBlockIsRepairedNotFollowedIntoAHang) {
  using Block = internal::RWMutexBlock;
  std::string name = uniqueName("rw");
  rw_mutex_handle* mutex = os_rw_mutex_create(USE_STD, name.c_str());
  pid_t gone = startChild([] { return 0; });
  waitChild(gone);  // reaped: its pid names nobody now
  const std::vector<std::pair<unsigned int, int32_t>> damage[] = {
      {{Block::kReadCountAt, 3}, {Block::kReadersAt, gone}, {Block::kReadersAt + 4, 3}},
      {{Block::kReadCountAt, 2}, {Block::kReadersAt + 8, -5}, {Block::kReadersAt + 12, 2}},
      {{Block::kReadCountAt, 0}, {Block::kUntrackedAt, 1000}},
      {{Block::kWriteFlagAt, 1}},
      {{Block::kWriteFlagAt, 0}, {Block::kWriterAt, gone}},
  };
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_STD);
  ASSERT_NE(block, nullptr);
  unsigned char* bytes = bytesOf(block);
  for (const auto& fields : damage) {
    for (const auto& field : fields) memcpy(bytes + field.first, &field.second, sizeof(field.second));
    EXPECT_TRUE(os_rw_mutex_lock_wr_timeout(mutex, deadlineIn(2000)))
        << "damage " << &fields - damage << ": no writer got in within 2 s";
    os_rw_mutex_unlock(mutex);
    EXPECT_TRUE(os_rw_mutex_trylock_rd(mutex)) << "damage " << &fields - damage << ": no reader got in";
    os_rw_mutex_unlock(mutex);
  }
  os_sharememory_destroy(block);
  os_rw_mutex_destroy(mutex);
}
