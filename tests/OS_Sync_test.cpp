#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <string.h>

#include <chrono>
#include <string>
#include <vector>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Sync.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::NoManager;
using synctest::shmExists;
using synctest::shmSize;
using synctest::uniqueName;
using namespace OS::SyncNames;

namespace {

// Speaks the request protocol byte by byte, without the library's client.
class RawRequester {
 public:
  RawRequester()
      : m_enabled(sem_open(kEnabledSemaphore, 0)),
        m_request(sem_open(kRequestSemaphore, 0)),
        m_finish(sem_open(kFinishSemaphore, 0)),
        m_area(os_sharememory_open(kRequestArea, USE_DEFAULT)) {}
  ~RawRequester() {
    for (sem_t* sem : {m_enabled, m_request, m_finish})
      if (sem != SEM_FAILED) sem_close(sem);
    os_sharememory_destroy(m_area);
  }
  bool ready() const { return m_enabled && m_request && m_finish && m_area; }
  unsigned char* area() { return static_cast<unsigned char*>(os_sharememory_get_buffer(m_area)); }

  // Writes a record (the name, if any, after the words) and posts it; returns
  // the number of finish posts: the first within 2 s, any further one within 50 ms.
  int send(std::vector<unsigned int> words, const char* name = nullptr) {
    if (name != nullptr) memcpy(area() + 4 * words.size(), name, strlen(name) + 1);
    memcpy(area(), words.data(), 4 * words.size());
    sem_wait(m_enabled);
    sem_post(m_request);
    int answers = 0;
    for (long wait = 2000;; wait = 50) {
      timespec deadline = synctest::clockAfter(CLOCK_REALTIME, wait);
      if (sem_timedwait(m_finish, &deadline) != 0) break;
      ++answers;
    }
    sem_post(m_enabled);
    return answers;
  }

 private:
  sem_t* m_enabled;
  sem_t* m_request;
  sem_t* m_finish;
  sharememory_handle* m_area;
};

constexpr unsigned int kCreate = 1;
constexpr unsigned int kDestroy = 2;

}  // namespace

using SyncProtocol = synctest::HostedManager;

TEST_F(SyncProtocol, EveryRequestIsAnsweredOnceAndABlockIsCreatedOnlyOnce) {
  RawRequester raw;
  ASSERT_TRUE(raw.ready());
  std::string name = uniqueName("raw");
  EXPECT_EQ(raw.send({kCreate, 64}, name.c_str()), 1);
  ASSERT_EQ(shmSize(name), 64);
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_DEFAULT);
  ASSERT_NE(block, nullptr);
  memset(os_sharememory_get_buffer(block), 0x5A, 64);

  // Ignored requests: each answered exactly once, none touching the block.
  std::string other = uniqueName("ignored");
  EXPECT_EQ(raw.send({kCreate, 128}, name.c_str()), 1) << "second create of a held name";
  EXPECT_EQ(raw.send({kCreate, 0}, other.c_str()), 1) << "size 0";
  EXPECT_EQ(raw.send({kCreate, 0xFFFFFFFFu}, other.c_str()), 1) << "absurd size";
  EXPECT_EQ(raw.send({kCreate, 32}, ""), 1) << "empty name";
  EXPECT_EQ(raw.send({kCreate, 32}, "a/b"), 1) << "slash inside the name";
  EXPECT_EQ(raw.send({kDestroy}, ""), 1);
  EXPECT_EQ(raw.send({kDestroy}, other.c_str()), 1) << "unknown name";
  EXPECT_EQ(raw.send({0}), 1);
  EXPECT_EQ(raw.send({0xFFFFFFFFu}), 1);
  memset(raw.area() + 4, 'x', 4096 - 4);  // names with no terminator anywhere
  EXPECT_EQ(raw.send({kDestroy}), 1);
  EXPECT_EQ(raw.send({kCreate, 32}), 1);
  EXPECT_FALSE(shmExists(other));
  EXPECT_EQ(shmSize(name), 64);
  EXPECT_EQ(static_cast<unsigned char*>(os_sharememory_get_buffer(block))[63], 0x5A);

  EXPECT_EQ(raw.send({kDestroy}, name.c_str()), 1);
  EXPECT_FALSE(shmExists(name));
  os_sharememory_destroy(block);
}

TEST_F(SyncProtocol, StopUnlinksTheProtocolNamesAndEveryBlock) {
  std::string name = uniqueName("stop");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mutex->m_pMutexShareMemory, nullptr) << "created right after the manager started";
  EXPECT_TRUE(os_sync_environment_initialize(true));

  auto start = std::chrono::steady_clock::now();
  os_sync_environment_uninitialize();
  EXPECT_LT(testsupport::secondsSince(start), 1.0);
  EXPECT_FALSE(shmExists(name));
  EXPECT_FALSE(shmExists(kRequestArea));
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    EXPECT_FALSE(synctest::semaphoreExists(sem)) << sem;
  EXPECT_FALSE(os_sync_environment_initialize(true));
  os_sync_environment_uninitialize();  // twice is harmless

  // The handle keeps its mapping: it still locks, and destroys without a manager.
  os_mutex_lock(mutex);
  os_mutex_unlock(mutex);
  os_mutex_destroy(mutex);
}

TEST_F(SyncProtocol, OnlyNamesUpTo1023CharactersReachTheRequestArea) {
  RawRequester raw;
  ASSERT_TRUE(raw.ready());
  auto areaName = [&] { return std::string(reinterpret_cast<char*>(raw.area() + 8)); };
  std::string accepted(1023, 'a');  // sent in full, though /dev/shm refuses such a file
  std::string refused(1024, 'b');
  std::string slashed = "/" + uniqueName("slashed");  // a leading slash is an ordinary name
  struct Case {
    std::string name;
    bool attaches;
    std::string inArea;
  } cases[] = {{slashed, true, slashed}, {accepted, false, accepted}, {refused, false, accepted},
               {"", false, ""},          {"a/b", false, "a/b"},         {"/", false, "/"}};
  for (const Case& c : cases) {
    mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, c.name.c_str());
    EXPECT_EQ(mutex->m_pMutex != nullptr, c.attaches) << c.name.size() << " " << c.name.substr(0, 20);
    EXPECT_EQ(mutex->m_pMutexShareMemory != nullptr, c.attaches);
    EXPECT_EQ(areaName(), c.inArea);
    os_mutex_lock(mutex);  // no-ops when unattached
    os_mutex_unlock(mutex);
    os_mutex_destroy(mutex);
  }
  EXPECT_FALSE(shmExists(slashed));
}

TEST_F(NoManager, WithoutAManagerObjectsStayUnattachedAndAKilledOneIsReplaced) {
  // No manager: not reachable, and a named mutex is a harmless unattached handle.
  EXPECT_FALSE(os_sync_environment_initialize(true));
  mutex_handle* alone = os_mutex_create(MUTEX_RECURSIVE, USE_DEFAULT, uniqueName("alone").c_str());
  EXPECT_EQ(alone->m_pMutex, nullptr);
  os_mutex_lock(alone);
  os_mutex_unlock(alone);
  os_mutex_destroy(alone);

  pid_t manager = synctest::startParkedChild([] { return os_sync_environment_initialize(false); });
  ASSERT_GT(manager, 0);
  std::string name = uniqueName("takeover");
  mutex_handle* old = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(old->m_pMutex, nullptr);
  kill(manager, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(manager), 128 + SIGKILL);

  // Its names remain and nobody answers: an attach gives up after one request period.
  auto start = std::chrono::steady_clock::now();
  mutex_handle* orphan = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("orphan").c_str());
  EXPECT_EQ(orphan->m_pMutex, nullptr);
  EXPECT_LT(testsupport::secondsSince(start), 1.0);
  os_mutex_destroy(orphan);

  // A new manager recreates the dead one's block cleared: the newcomer initialises it.
  ASSERT_TRUE(os_sync_environment_initialize(false));
  mutex_handle* fresh = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(fresh->m_pMutex, nullptr);
  EXPECT_EQ(*static_cast<unsigned int*>(os_sharememory_get_buffer(fresh->m_pMutexShareMemory)), 1u);
  os_mutex_destroy(fresh);
  EXPECT_FALSE(shmExists(name));
  os_mutex_destroy(old);  // its count was cleared under it: the name is left alone
  os_sync_environment_uninitialize();
}
