// The manager daemon, run as a separate program from the build tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_Sync.h>

#include "OS/OS_MutexHandle.h"
#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::semaphoreExists;
using synctest::shmExists;
using synctest::uniqueName;

namespace {

std::string daemonPath() {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return "";
  std::string dir(self, static_cast<size_t>(length));
  dir.resize(dir.rfind('/'));
  return dir + "/../tools/ostrelled-syncd";
}

// Runs the daemon with its output in a file; killed (SIGKILL) if still running at scope end.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& args = {}) : m_log("/tmp/" + uniqueName("syncd") + ".log") {
    std::string path = daemonPath();
    m_pid = fork();
    if (m_pid == 0) {
      int fd = open(m_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      dup2(fd, 2);
      std::vector<char*> argv{const_cast<char*>(path.c_str())};
      for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(path.c_str(), argv.data());
      _exit(127);
    }
  }
  ~Daemon() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      testsupport::waitChild(m_pid);
    }
    unlink(m_log.c_str());
  }
  // Sends a signal and returns the exit code (bounded wait).
  int stop(int signal) {
    kill(m_pid, signal);
    int code = testsupport::waitChild(m_pid);
    m_pid = -1;
    return code;
  }
  int exitCode() {
    int code = testsupport::waitChild(m_pid);
    m_pid = -1;
    return code;
  }
  std::string output() const {
    std::string text;
    if (FILE* f = fopen(m_log.c_str(), "r")) {
      char buffer[512];
      size_t n;
      while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
      fclose(f);
    }
    return text;
  }
  bool serving() const { return output().find("serving") != std::string::npos; }

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

TEST_F(SyncDaemon, HelpDescribesItAndUnknownArgumentsAreRefused) {
  Daemon help({"--help"});
  EXPECT_EQ(help.exitCode(), 0);
  EXPECT_NE(help.output().find("SIGTERM"), std::string::npos);
  Daemon wrong({"--bogus"});
  EXPECT_EQ(wrong.exitCode(), 2);
  EXPECT_NE(wrong.output().find("unknown argument"), std::string::npos);
}

TEST_F(SyncDaemon, ServesUntilSigtermThenRemovesEveryName) {
  Daemon daemon;
  ASSERT_TRUE(testsupport::waitUntil([&] { return daemon.serving(); }, 10.0)) << daemon.output();

  Daemon second;
  EXPECT_EQ(second.exitCode(), 1) << "a live manager is never replaced";
  EXPECT_NE(second.output().find("already running"), std::string::npos) << second.output();

  std::string name = uniqueName("daemon");
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  ASSERT_NE(mutex->m_pMutex, nullptr);
  EXPECT_TRUE(shmExists(name));

  EXPECT_EQ(daemon.stop(SIGTERM), 0) << daemon.output();
  EXPECT_FALSE(shmExists(name));
  EXPECT_FALSE(shmExists(OS::SyncNames::kRequestArea));
  EXPECT_FALSE(semaphoreExists(OS::SyncNames::kEnabledSemaphore));
  EXPECT_FALSE(semaphoreExists(OS::SyncNames::kRequestSemaphore));
  EXPECT_FALSE(semaphoreExists(OS::SyncNames::kFinishSemaphore));
  os_mutex_destroy(mutex);
}

TEST_F(SyncDaemon, NamesOfAKilledDaemonDoNotStopANewOne) {
  {
    Daemon killed;
    ASSERT_TRUE(testsupport::waitUntil([&] { return killed.serving(); }, 10.0)) << killed.output();
    EXPECT_EQ(killed.stop(SIGKILL), 128 + SIGKILL);
  }
  ASSERT_TRUE(semaphoreExists(OS::SyncNames::kEnabledSemaphore)) << "a killed daemon leaves its names";
  Daemon next;
  ASSERT_TRUE(testsupport::waitUntil([&] { return next.serving(); }, 10.0)) << next.output();
  EXPECT_NE(next.output().find("replacing"), std::string::npos);
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("next").c_str());
  EXPECT_NE(mutex->m_pMutex, nullptr);
  os_mutex_destroy(mutex);
  EXPECT_EQ(next.stop(SIGINT), 0);
}
