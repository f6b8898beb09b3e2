#include <fcntl.h>
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

using synctest::HostedManager;
using synctest::NoManager;
using synctest::semaphoreExists;
using synctest::shmExists;
using synctest::shmSize;
using synctest::uniqueName;

namespace {

// Speaks the request protocol byte by byte, without the library's client.
class RawRequester {
 public:
  RawRequester() {
    m_enabled = sem_open("/os_mutex_manage_enabled_semaphore", 0);
    m_request = sem_open("/os_mutex_manage_request_semaphore", 0);
    m_finish = sem_open("/os_mutex_manage_finish_semaphore", 0);
    m_area = os_sharememory_open("os_mutex_manage_enabled_sharemomory", USE_DEFAULT);
  }
  ~RawRequester() {
    for (sem_t* sem : {m_enabled, m_request, m_finish})
      if (sem != SEM_FAILED) sem_close(sem);
    os_sharememory_destroy(m_area);
  }
  bool ready() const {
    return m_enabled != SEM_FAILED && m_request != SEM_FAILED && m_finish != SEM_FAILED && m_area != nullptr;
  }
  unsigned char* area() { return static_cast<unsigned char*>(os_sharememory_get_buffer(m_area)); }

  void writeWord(size_t offset, unsigned int value) { memcpy(area() + offset, &value, 4); }
  void writeText(size_t offset, const std::string& text) { memcpy(area() + offset, text.c_str(), text.size() + 1); }

  // Posts the record now in the area; returns how many finish posts arrived
  // within a generous deadline plus a short grace for a wrong second one.
  int send() {
    sem_wait(m_enabled);
    sem_post(m_request);
    int answers = 0;
    if (waitFinish(2000)) {
      ++answers;
      while (waitFinish(50)) ++answers;
    }
    sem_post(m_enabled);
    return answers;
  }
  int create(const std::string& name, unsigned int size) {
    writeWord(0, 1);
    writeWord(4, size);
    writeText(8, name);
    return send();
  }
  int destroy(const std::string& name) {
    writeWord(0, 2);
    writeText(4, name);
    return send();
  }

 private:
  bool waitFinish(long millis) {
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += millis * 1000000L;
    deadline.tv_sec += deadline.tv_nsec / 1000000000L;
    deadline.tv_nsec %= 1000000000L;
    return sem_timedwait(m_finish, &deadline) == 0;
  }

  sem_t* m_enabled;
  sem_t* m_request;
  sem_t* m_finish;
  sharememory_handle* m_area;
};

unsigned int attachCount(const std::string& name) {
  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_DEFAULT);
  if (block == nullptr) return ~0u;
  unsigned int count;
  memcpy(&count, os_sharememory_get_buffer(block), 4);
  os_sharememory_destroy(block);
  return count;
}

using Clock = std::chrono::steady_clock;

}  // namespace

using SyncProtocol = HostedManager;

TEST_F(SyncProtocol, CreateRequestsMakeABlockOnceAndLeaveItUntouchedAfterwards) {
  RawRequester raw;
  ASSERT_TRUE(raw.ready());
  std::string name = uniqueName("raw");
  EXPECT_EQ(raw.create(name, 64), 1);
  ASSERT_EQ(shmSize(name), 64);

  sharememory_handle* block = os_sharememory_open(name.c_str(), USE_DEFAULT);
  ASSERT_NE(block, nullptr);
  memset(os_sharememory_get_buffer(block), 0x5A, 64);
  EXPECT_EQ(raw.create(name, 128), 1);
  EXPECT_EQ(shmSize(name), 64) << "a second create neither resizes";
  EXPECT_EQ(static_cast<unsigned char*>(os_sharememory_get_buffer(block))[63], 0x5A) << "nor clears";

  EXPECT_EQ(raw.destroy(name), 1);
  EXPECT_FALSE(shmExists(name));
  os_sharememory_destroy(block);
}

TEST_F(SyncProtocol, IgnoredAndGarbageRequestsAreAnsweredOnceWithNoEffect) {
  RawRequester raw;
  ASSERT_TRUE(raw.ready());
  std::string name = uniqueName("ignored");
  std::string survivor = uniqueName("survivor");
  ASSERT_EQ(raw.create(survivor, 16), 1);

  EXPECT_EQ(raw.create(name, 0), 1) << "size 0";
  EXPECT_EQ(raw.create("", 32), 1) << "empty name";
  EXPECT_EQ(raw.create("a/b", 32), 1) << "slash inside the name";
  EXPECT_EQ(raw.create(name, 0xFFFFFFFFu), 1) << "absurd size";
  EXPECT_FALSE(shmExists(name));
  EXPECT_EQ(raw.destroy(""), 1);
  EXPECT_EQ(raw.destroy(uniqueName("unknown")), 1);
  for (unsigned int method : {0u, 3u, 0xFFFFFFFFu}) {
    raw.writeWord(0, method);
    EXPECT_EQ(raw.send(), 1) << "method " << method;
  }
  // A name with no terminator anywhere in the area, for both layouts.
  memset(raw.area() + 4, 'x', 4096 - 4);
  raw.writeWord(0, 1);
  raw.writeWord(4, 32);
  EXPECT_EQ(raw.send(), 1);
  memset(raw.area() + 4, 'x', 4096 - 4);
  raw.writeWord(0, 2);
  EXPECT_EQ(raw.send(), 1);

  EXPECT_EQ(shmSize(survivor), 16) << "no request above touched another block";
  EXPECT_EQ(raw.destroy(survivor), 1);
}

TEST_F(SyncProtocol, StopUnlinksTheProtocolNamesAndEveryBlock) {
  std::string name = uniqueName("stop");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mutex->m_pMutexShareMemory, nullptr);
  EXPECT_TRUE(shmExists(name));
  EXPECT_TRUE(os_sync_environment_initialize(true));

  auto start = Clock::now();
  os_sync_environment_uninitialize();
  EXPECT_LT(testsupport::secondsSince(start), 1.0);
  EXPECT_FALSE(shmExists(name));
  EXPECT_FALSE(shmExists("os_mutex_manage_enabled_sharemomory"));
  for (const char* sem : {OS::SyncNames::kEnabledSemaphore, OS::SyncNames::kRequestSemaphore,
                          OS::SyncNames::kFinishSemaphore})
    EXPECT_FALSE(semaphoreExists(sem)) << sem;
  EXPECT_FALSE(os_sync_environment_initialize(true));
  os_sync_environment_uninitialize();  // twice is harmless

  // The handle keeps its mapping: it still locks and destroys without a manager.
  os_mutex_lock(mutex);
  os_mutex_unlock(mutex);
  os_mutex_destroy(mutex);
}

TEST_F(SyncProtocol, ObjectsCreatedRightAfterStartingAttach) {
  for (int round = 0; round < 3; ++round) {
    if (round > 0) {
      ASSERT_TRUE(os_sync_environment_initialize(false));
    }
    mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("early").c_str());
    EXPECT_NE(mutex->m_pMutex, nullptr) << "round " << round;
    os_mutex_destroy(mutex);
    os_sync_environment_uninitialize();
  }
}

TEST_F(SyncProtocol, OddNamesLeaveTheHandleUnattachedAndHarmless) {
  for (const char* name : {"", "/", "a/b", "."}) {
    mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name);
    EXPECT_EQ(mutex->m_pMutex, nullptr) << "'" << name << "'";
    EXPECT_EQ(mutex->m_pMutexShareMemory, nullptr);
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
    os_mutex_destroy(mutex);
  }
  // A leading slash is an ordinary name: it lands in /dev/shm without it.
  std::string slashed = "/" + uniqueName("slashed");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, slashed.c_str());
  EXPECT_NE(mutex->m_pMutex, nullptr);
  EXPECT_TRUE(shmExists(slashed));
  os_mutex_destroy(mutex);
  EXPECT_FALSE(shmExists(slashed));
}

TEST_F(SyncProtocol, NamesUpTo1023CharactersReachTheManagerAndLongerOnesNever) {
  RawRequester raw;
  ASSERT_TRUE(raw.ready());
  auto nameAt = [&](size_t offset) { return std::string(reinterpret_cast<char*>(raw.area() + offset)); };

  // /dev/shm takes names up to 255 characters.
  std::string longest = uniqueName("n");
  longest.resize(255, 'n');
  mutex_handle* attached = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, longest.c_str());
  EXPECT_NE(attached->m_pMutex, nullptr);
  os_mutex_destroy(attached);

  // 1023 characters are sent in full (the manager cannot create such a file).
  std::string accepted(1023, 'a');
  mutex_handle* sent = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, accepted.c_str());
  EXPECT_EQ(sent->m_pMutex, nullptr);
  EXPECT_EQ(nameAt(8), accepted);
  unsigned int size;
  memcpy(&size, raw.area() + 4, 4);
  EXPECT_EQ(size, 44u);

  std::string refused(1024, 'b');
  mutex_handle* kept = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, refused.c_str());
  EXPECT_EQ(kept->m_pMutex, nullptr);
  EXPECT_EQ(nameAt(8), accepted) << "the request area never saw the longer name";
  os_mutex_lock(kept);
  os_mutex_unlock(kept);
  os_mutex_destroy(kept);
  os_mutex_destroy(sent);
}

TEST_F(NoManager, NamedObjectsWithoutAManagerStayUnattached) {
  EXPECT_FALSE(os_sync_environment_initialize(true));
  auto start = Clock::now();
  mutex_handle* mutex = os_mutex_create(MUTEX_RECURSIVE, USE_DEFAULT, uniqueName("alone").c_str());
  EXPECT_EQ(mutex->m_pMutex, nullptr);
  EXPECT_EQ(mutex->m_pMutexShareMemory, nullptr);
  os_mutex_lock(mutex);
  os_mutex_unlock(mutex);
  os_mutex_destroy(mutex);
  EXPECT_EQ(mutex, nullptr);
  EXPECT_LT(testsupport::secondsSince(start), 1.0);
  os_sync_environment_uninitialize();
}

TEST_F(NoManager, AKilledManagerIsReplacedByANewOne) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t manager = testsupport::startChild([&] {
    if (!os_sync_environment_initialize(false)) return 1;
    char byte = 1;
    if (write(ready[1], &byte, 1) != 1) return 2;
    pause();
    return 0;
  });
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  close(ready[1]);

  std::string name = uniqueName("takeover");
  mutex_handle* old = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(old->m_pMutex, nullptr);
  kill(manager, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(manager), 128 + SIGKILL);

  // Its names remain, nobody answers: an attach gives up after one request period.
  auto start = Clock::now();
  mutex_handle* orphan = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("orphan").c_str());
  EXPECT_EQ(orphan->m_pMutex, nullptr);
  EXPECT_LT(testsupport::secondsSince(start), 1.0);
  os_mutex_destroy(orphan);

  ASSERT_TRUE(os_sync_environment_initialize(false));
  // The dead manager's block is recreated cleared: the newcomer initialises it afresh.
  mutex_handle* fresh = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(fresh->m_pMutex, nullptr);
  EXPECT_EQ(attachCount(name), 1u);
  os_mutex_lock(fresh);
  os_mutex_unlock(fresh);
  os_mutex_destroy(fresh);
  EXPECT_FALSE(shmExists(name));
  os_mutex_destroy(old);  // its count was cleared under it: nothing is done to the name
  os_sync_environment_uninitialize();
}
