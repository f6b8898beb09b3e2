// The sync manager and its request protocol, also when a client or the manager dies.

#include "TestSupport.h"

namespace {

using SyncManager = HostedManager;
using ManagerProcess = NoManager;

constexpr unsigned int kCreate = internal::MUTEX_CREATE_METHOD, kDestroy = internal::MUTEX_DESTROY_METHOD;

struct Request {
  unsigned int method, size;  // the size only in a create
  const char* name;           // null: the area's bytes are left as they are
};

// Posts a request record written by hand; the finish posts seen (the first within 2 s).
int send(internal::CSyncClient& raw, const Request& request) {
  unsigned char* area = bytesOf(raw.manager_memory_handle);
  const bool create = request.method == kCreate;
  const size_t nameAt = create ? internal::kCreateNameOffset : internal::kDestroyNameOffset;
  if (request.name != nullptr) strcpy(reinterpret_cast<char*>(area + nameAt), request.name);
  memcpy(area + internal::kRequestMethodOffset, &request.method, 4);
  if (create) memcpy(area + internal::kCreateSizeOffset, &request.size, 4);
  sem_wait(raw.enable_mutex_manager_sem);
  sem_post(raw.manage_request_sem);
  int answers = 0;
  for (timespec d = deadlineIn(2000); sem_clockwait(raw.manage_finish_sem, CLOCK_MONOTONIC, &d) == 0;
       d = deadlineIn(50))
    ++answers;
  sem_post(raw.enable_mutex_manager_sem);
  return answers;
}

}  // namespace

TEST_F(SyncManager, EveryRequestIsAnsweredOnce) {
  internal::CSyncClient raw;
  ASSERT_TRUE(raw.create());
  const std::string names[] = {uniqueName("raw"), uniqueName("ignored")};
  const char *name = names[0].c_str(), *other = names[1].c_str();
  EXPECT_EQ(send(raw, {kCreate, 64, name}), 1);
  ASSERT_EQ(shmSize(name), 64);
  sharememory_handle* block = os_sharememory_open(name, USE_DEFAULT);
  ASSERT_NE(block, nullptr);
  memset(bytesOf(block), 0x5A, 64);

  const Request ignored[] = {{kCreate, 128, name}, {kCreate, 0, other},  {kCreate, 0xFFFFFFFFu, other},
                             {kCreate, 32, ""},    {kCreate, 32, "a/b"}, {kDestroy, 0, ""},
                             {kDestroy, 0, other}, {0, 0, ""},           {0xFFFFFFFFu, 0, ""}};
  for (const Request& request : ignored)
    EXPECT_EQ(send(raw, request), 1) << "request " << request.method << " for \"" << request.name << "\"";
  memset(bytesOf(raw.manager_memory_handle) + 4, 'x', 4096 - 4);  // names with no terminator anywhere
  EXPECT_EQ(send(raw, {kDestroy, 0, nullptr}), 1) << "a destroy without a terminated name";
  EXPECT_EQ(send(raw, {kCreate, 32, nullptr}), 1) << "a create without a terminated name";
  EXPECT_FALSE(shmExists(other));
  EXPECT_EQ(bytesOf(block)[63], 0x5A) << "a second create did not leave the block alone";
  EXPECT_EQ(send(raw, {kDestroy, 0, name}), 1);
  EXPECT_FALSE(shmExists(name));
  os_sharememory_destroy(block);

  // 1023 characters are sent in full (/dev/shm refuses them), 1024 never; from another process.
  std::string longest(1023, 'a');
  for (const std::string& tooLong : {longest, std::string(1024, 'b')}) {
    EXPECT_EQ(runChild([&] { return int(attaches(tooLong)); }), 0)
        << "a name of " << tooLong.size() << " characters was attached";
    EXPECT_EQ(reinterpret_cast<char*>(bytesOf(raw.manager_memory_handle) + internal::kCreateNameOffset), longest)
        << tooLong.size();
  }
}

// Given back by the manager with nobody waiting, and taken over by a client that waits.
TEST_F(SyncManager, AClientKilledHoldingTheRequestLockIsReleasedWithinASecond) {
  internal::CSyncClient client;
  ASSERT_TRUE(client.create(true));
  for (bool waiting : {false, true}) {
    const char* who = waiting ? "with a client waiting" : "with nobody waiting";
    Holder holder([&] { client.lock(); }, [&] { client.unlock(); });
    ASSERT_TRUE(holder.held()) << who << ": the holder did not take the request lock in 5 s";
    EXPECT_FALSE(requestLockFree()) << who;
    auto waiter = startWaiters(waiting, [&](int) { return attaches(uniqueName("waiter")); });
    holder.kill();
    EXPECT_TRUE(waiter->allFinish(2.0 + kLateSlack) && waiter->succeeded == waiting)
        << who << ": the client was not served";
    EXPECT_TRUE(waitUntil(requestLockFree, 1.0 + kLateSlack))
        << who << ": what the dead holder took was not given back";
  }
}

// The manager runs in a child: a client forked while a manager thread of its parent held the
// allocator's lock would hang. Attaches failing at once meanwhile: NamedSyncDaemon_test.cpp.
TEST_F(ManagerProcess, KilledClientsNeverStopTheOthersAndAKilledManagerIsReplaced) {
  pid_t manager = startManagerChild();
  std::string name = uniqueName("takeover");
  mutex_handle* old = namedMutex(name);
  auto lifeOf = [](std::string name) { return [name] { attaches(name); }; };
  EXPECT_TRUE(KillLoop::run({lifeOf(uniqueName("a")), lifeOf(uniqueName("b")), lifeOf(uniqueName("c"))}, 12, 7));
  kill(manager, SIGKILL);
  EXPECT_EQ(waitChild(manager), 128 + SIGKILL);
  ASSERT_TRUE(os_mutex_is_attached(old));
  EXPECT_FALSE(os_sync_environment_ping(100)) << "the dead manager's names answered a ping";
  // A new manager serves at once and recreates the dead one's block cleared.
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(os_sync_environment_initialize(false));
  EXPECT_TRUE(os_sync_environment_ping(500));
  EXPECT_LT(secondsSince(start), 0.5 + kLateSlack) << "the new manager took long to serve";
  ASSERT_TRUE(attaches(name));
  EXPECT_FALSE(shmExists(name)) << "its attach count did not start again from zero";
  os_mutex_destroy(old);  // its count was cleared under it: the name is left alone
  os_sync_environment_uninitialize();
  EXPECT_FALSE(os_sync_environment_initialize(true)) << "the stop did not remove every name";
}
