// The request protocol when something dies: a client holding the machine's
// request lock, a manager, or clients at random moments.

#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>

#include <chrono>
#include <string>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Sync.h>

#include "SyncTestSupport.h"

namespace internal = ostrelled::internal;

using namespace testsupport;

namespace {

mutex_handle* named(const std::string& n) { return os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_STD, n.c_str()); }

}  // namespace

TEST_F(HostedManager, AClientKilledHoldingTheRequestLockIsReleasedWithinASecondWithNobodyWaiting) {
  internal::CSyncClient client;
  ASSERT_TRUE(client.create(true));
  HeldInChild holder([&] { client.lock(); }, [&] { client.unlock(); });
  ASSERT_TRUE(holder.held());
  EXPECT_FALSE(requestLockFree());
  holder.kill();
  EXPECT_TRUE(waitUntil(requestLockFree, 1.0)) << "the manager gives back what the dead holder took";
  mutex_handle* mutex = named(uniqueName("after"));
  EXPECT_TRUE(os_mutex_is_attached(mutex));
  os_mutex_destroy(mutex);
}

TEST_F(HostedManager, AWaitingClientTakesOverFromAHolderThatDied) {
  internal::CSyncClient client;
  ASSERT_TRUE(client.create(true));
  HeldInChild holder([&] { client.lock(); }, [&] { client.unlock(); });
  ASSERT_TRUE(holder.held());
  auto waiter = startWaiters(1, [&](int) {
    mutex_handle* mutex = named(uniqueName("waiter"));
    bool attached = os_mutex_is_attached(mutex);
    os_mutex_destroy(mutex);
    return attached;
  });
  holder.kill();
  EXPECT_TRUE(waiter->allFinish(2.0) && waiter->succeeded == 1);
}

TEST_F(HostedManager, ClientsKilledAtRandomNeverStopTheOthers) {
  auto lifeOf = [](std::string name) {
    return [name] {
      mutex_handle* mutex = named(name);
      os_mutex_destroy(mutex);
    };
  };
  KillLoop loop({lifeOf(uniqueName("a")), lifeOf(uniqueName("b")), lifeOf(uniqueName("c"))});
  ASSERT_TRUE(loop.allProgress());
  EXPECT_TRUE(loop.killRandomly(12, 7));
}

TEST_F(NoManager, PingAnswersOnlyForAManagerThatServes) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_sync_environment_ping(100)) << "no manager names";
  pid_t manager = startManagerChild();
  EXPECT_TRUE(os_sync_environment_ping(100));
  kill(manager, SIGSTOP);
  int status = 0;
  waitpid(manager, &status, WUNTRACED);  // stopped for sure before the ping
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_sync_environment_ping(100)) << "a stopped manager does not answer";
  EXPECT_LT(secondsSince(start), 0.5);
  kill(manager, SIGCONT);
  EXPECT_TRUE(waitUntil([] { return os_sync_environment_ping(100); }, 2.0));
  kill(manager, SIGKILL);
  waitChild(manager);
  EXPECT_FALSE(os_sync_environment_ping(100)) << "names left behind, nobody answers";
}
