#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>

#include "OS/OS_Mutex.h"
#include "OS/internal/RobustMutex.h"
#include "SyncTestSupport.h"

using namespace testsupport;

namespace {

unsigned char* bytesOf(sharememory_handle* b) { return static_cast<unsigned char*>(os_sharememory_get_buffer(b)); }

// Writes a request record by hand (the name, if any, after the words) and
// posts it with bare semaphore calls; the client only opens the names.
// Returns the finish posts seen: the first within 2 s, any further one within 50 ms.
int send(OS::CSyncClient& raw, std::vector<unsigned int> words, const char* name = nullptr) {
  unsigned char* area = bytesOf(raw.manager_memory_handle);
  if (name != nullptr) memcpy(area + 4 * words.size(), name, strlen(name) + 1);
  memcpy(area, words.data(), 4 * words.size());
  sem_wait(raw.enable_mutex_manager_sem);
  sem_post(raw.manage_request_sem);
  int answers = 0;
  for (timespec d = OS::Private::deadlineAfter(2000000000L); sem_clockwait(raw.manage_finish_sem, CLOCK_MONOTONIC, &d) == 0;
       d = OS::Private::deadlineAfter(50000000L))
    ++answers;
  sem_post(raw.enable_mutex_manager_sem);
  return answers;
}

constexpr unsigned int kCreate = 1, kDestroy = 2;

mutex_handle* named(const std::string& n) { return os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, n.c_str()); }

}  // namespace

TEST_F(HostedManager, EveryRequestIsAnsweredOnce) {
  OS::CSyncClient raw;
  ASSERT_TRUE(raw.create());
  std::string name = uniqueName("raw"), other = uniqueName("ignored");
  EXPECT_EQ(send(raw, {kCreate, 64}, name.c_str()), 1);
  ASSERT_EQ(shmSize(name), 64);
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_DEFAULT);
  ASSERT_NE(block, nullptr);
  memset(bytesOf(block), 0x5A, 64);

  std::pair<std::vector<unsigned int>, std::string> ignored[] = {
      {{kCreate, 128}, name}, {{kCreate, 0}, other}, {{kCreate, 0xFFFFFFFFu}, other}, {{kCreate, 32}, ""},
      {{kCreate, 32}, "a/b"}, {{kDestroy}, ""}, {{kDestroy}, other}, {{0}, ""}, {{0xFFFFFFFFu}, ""}};
  for (const auto& [words, target] : ignored)
    EXPECT_EQ(send(raw, words, target.c_str()), 1) << words[0] << " " << target;
  memset(bytesOf(raw.manager_memory_handle) + 4, 'x', 4096 - 4);  // names with no terminator anywhere
  EXPECT_EQ(send(raw, {kDestroy}), 1);
  EXPECT_EQ(send(raw, {kCreate, 32}), 1);
  EXPECT_FALSE(shmExists(other));
  EXPECT_EQ(bytesOf(block)[63], 0x5A) << "a second create left the block alone";
  EXPECT_EQ(send(raw, {kDestroy}, name.c_str()), 1);
  EXPECT_FALSE(shmExists(name));
  os_sharememory_destroy(block);

  // A name of 1023 characters is sent in full (and then refused by /dev/shm); one of 1024 is never sent.
  // Sent by another process: the manager's own process is served without the area.
  std::string longest(1023, 'a');
  for (const std::string& tooLong : {longest, std::string(1024, 'b')}) {
    EXPECT_EQ(runChild([&] {
                mutex_handle* mutex = named(tooLong);
                bool attached = mutex->m_pMutex != nullptr;
                os_mutex_destroy(mutex);
                return attached ? 1 : 0;
              }),
              0);
    EXPECT_EQ(reinterpret_cast<char*>(bytesOf(raw.manager_memory_handle) + 8), longest) << tooLong.size();
  }
}

TEST_F(NoManager, AKilledManagerIsReplaced) {
  pid_t manager = startChild([] {
    if (os_sync_environment_initialize(false)) pause();
    return 1;
  });
  bool serving = waitUntil(liveManagerAnswers, 10.0);
  std::string name = uniqueName("takeover");
  mutex_handle* old = named(name);
  kill(manager, SIGKILL);
  EXPECT_EQ(waitChild(manager), 128 + SIGKILL);
  ASSERT_TRUE(serving && old->m_pMutex != nullptr);

  // Its names remain and nobody answers: each attach gives up after one request period.
  for (int i = 0; i < 3; ++i) {
    auto start = std::chrono::steady_clock::now();
    mutex_handle* orphan = named(uniqueName("orphan"));
    EXPECT_TRUE(orphan->m_pMutex == nullptr && secondsSince(start) < 0.3);
    os_mutex_destroy(orphan);
  }

  // A new manager serves at once and recreates the dead one's block cleared:
  // the newcomer initialises it.
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(os_sync_environment_initialize(false));
  EXPECT_TRUE(os_sync_environment_ping(500));
  EXPECT_LT(secondsSince(start), 0.5);
  mutex_handle* fresh = named(name);
  ASSERT_NE(fresh->m_pMutex, nullptr);
  os_mutex_destroy(fresh);
  EXPECT_FALSE(shmExists(name)) << "its attach count started again from zero";
  os_mutex_destroy(old);  // its count was cleared under it: the name is left alone
  os_sync_environment_uninitialize();
  EXPECT_FALSE(os_sync_environment_initialize(true)) << "the stop removed every name";
}

// A spin that ran out sends the next waits to sleep at once, twice as many
// after each further one up to the cap; a spin that is answered ends it.
TEST(RequestSpin, SleepsLongerAfterEachSpinThatRanOutUntilOneIsAnswered) {
  OS::RequestSpin spin;
  auto sleepsBeforeNextSpin = [&] {
    unsigned int sleeps = 0;
    for (; spin.nanos() == 0 && sleeps <= 2 * OS::RequestSpin::kMaxSleepsBetweenSpins; ++sleeps) spin.learn(0, true);
    return sleeps;
  };
  for (unsigned int expected : {1u, 2u, 4u, 8u, 16u, 16u}) {
    ASSERT_EQ(spin.nanos(), OS::kRequestSpinNanos);
    spin.learn(spin.nanos(), true);
    EXPECT_EQ(sleepsBeforeNextSpin(), expected);
  }
  spin.learn(spin.nanos(), false);
  EXPECT_EQ(sleepsBeforeNextSpin(), 0u);
  spin.learn(spin.nanos(), true);
  EXPECT_EQ(sleepsBeforeNextSpin(), 1u);
}

// An unlock gives way only when somebody sleeps on the request lock.
TEST(RequestLock, TellsWhetherSomebodySleepsOnIt) {
  pthread_mutex_t lock;
  ASSERT_EQ(OS::Private::initMutex(&lock, PTHREAD_MUTEX_NORMAL, false, true), 0);
  pthread_mutex_lock(&lock);
  EXPECT_FALSE(OS::Private::othersWaitFor(&lock));
  std::thread sleeper([&] {
    pthread_mutex_lock(&lock);
    pthread_mutex_unlock(&lock);
  });
  for (int i = 0; i < 2000 && !OS::Private::othersWaitFor(&lock); ++i) usleep(1000);
  EXPECT_TRUE(OS::Private::othersWaitFor(&lock));
  pthread_mutex_unlock(&lock);
  sleeper.join();
  EXPECT_FALSE(OS::Private::othersWaitFor(&lock));
  pthread_mutex_destroy(&lock);
}
