// The manager daemon, run as a program of the build tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <ostrelled/OS_Mutex.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::semaphoreExists;
using synctest::shmExists;
using namespace OS::SyncNames;

namespace {

std::string daemonPath() {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, static_cast<size_t>(length > 0 ? length : 0));
  return dir.substr(0, dir.rfind('/')) + "/../tools/ostrelled-syncd";
}

// The daemon with its output in a file; killed with SIGKILL if still running at scope end.
class Daemon {
 public:
  explicit Daemon(const char* arg = nullptr) : m_log("/tmp/" + synctest::uniqueName("syncd")) {
    std::string path = daemonPath();
    m_pid = testsupport::startChild([&] {
      int fd = open(m_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      dup2(fd, 2);
      execl(path.c_str(), path.c_str(), arg, static_cast<char*>(nullptr));
      return 127;
    });
  }
  ~Daemon() {
    if (m_pid > 0) stop(SIGKILL);
    unlink(m_log.c_str());
  }
  // Signals it (0: none) and returns its exit code, waiting at most 10 s.
  int stop(int signal = 0) {
    if (signal != 0) kill(m_pid, signal);
    int code = testsupport::waitChild(m_pid);
    m_pid = -1;
    return code;
  }
  std::string output() const {
    std::stringstream text;
    text << std::ifstream(m_log).rdbuf();
    return text.str();
  }
  bool says(const char* words) const { return output().find(words) != std::string::npos; }
  bool startsServing() const { return testsupport::waitUntil([&] { return says("serving"); }, 10.0); }

 private:
  std::string m_log;
  pid_t m_pid;
};

class SyncDaemon : public synctest::NoManager {
 protected:
  void SetUp() override {
    if (access(daemonPath().c_str(), X_OK) != 0) GTEST_SKIP() << "the daemon is not built";
    synctest::NoManager::SetUp();
  }
};

}  // namespace

TEST_F(SyncDaemon, ServesUntilSigtermThenRemovesEveryNameAndNeverRunsTwice) {
  Daemon help("--help");
  EXPECT_EQ(help.stop(), 0);
  EXPECT_TRUE(help.says("SIGTERM"));
  Daemon daemon;
  ASSERT_TRUE(daemon.startsServing()) << daemon.output();
  Daemon second;
  EXPECT_EQ(second.stop(), 1) << "a live manager is never replaced";
  EXPECT_TRUE(second.says("already running")) << second.output();

  std::string name = synctest::uniqueName("daemon");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mutex->m_pMutex, nullptr);
  EXPECT_EQ(daemon.stop(SIGTERM), 0) << daemon.output();
  for (const std::string& block : {name, std::string(kRequestArea)}) EXPECT_FALSE(shmExists(block)) << block;
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    EXPECT_FALSE(semaphoreExists(sem)) << sem;
  os_mutex_destroy(mutex);
}

TEST_F(SyncDaemon, NamesOfAKilledDaemonDoNotStopANewOne) {
  {
    Daemon killed;
    ASSERT_TRUE(killed.startsServing()) << killed.output();
  }
  ASSERT_TRUE(semaphoreExists(kEnabledSemaphore)) << "a killed daemon leaves its names";
  Daemon next;
  ASSERT_TRUE(next.startsServing()) << next.output();
  EXPECT_TRUE(next.says("replacing"));
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, synctest::uniqueName("next").c_str());
  EXPECT_NE(mutex->m_pMutex, nullptr);
  os_mutex_destroy(mutex);
  EXPECT_EQ(next.stop(SIGINT), 0);
}
