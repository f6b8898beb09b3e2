// The manager daemon, run as a program of the build tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <fstream>
#include <sstream>
#include <string>

#include <ostrelled/OS_Mutex.h>

#include "OS/OS_Mutex.h"
#include "SyncTestSupport.h"

using namespace testsupport;

namespace {

std::string daemonPath() {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, static_cast<size_t>(length > 0 ? length : 0));
  return dir.substr(0, dir.rfind('/')) + "/../tools/ostrelled-syncd";
}

// Starts the daemon with its output appended to the file log; with a notify
// socket path, it reports its state there.
pid_t startDaemon(const std::string& log, const std::string& notifySocket = "") {
  std::string path = daemonPath();
  return startChild([&] {
    if (!notifySocket.empty()) setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, 1);
    dup2(fd, 2);
    execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
    return 127;
  });
}

}  // namespace

TEST_F(NoManager, ASecondDaemonRefusesToStartBesideALiveOne) {
  if (access(daemonPath().c_str(), X_OK) != 0) GTEST_SKIP() << "the daemon is not built";
  std::string log = "/tmp/" + uniqueName("syncd");
  pid_t daemon = startDaemon(log);
  bool serving = waitUntil(liveManagerAnswers, 10.0);
  int second = waitChild(startDaemon(log));
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, uniqueName("daemon").c_str());
  kill(daemon, SIGTERM);  // always stopped, whatever failed above
  EXPECT_EQ(waitChild(daemon), 0);
  EXPECT_TRUE(serving);
  EXPECT_NE(mutex->m_pMutex, nullptr);
  EXPECT_EQ(second, 1);
  std::stringstream output;
  output << std::ifstream(log).rdbuf();
  EXPECT_NE(output.str().find("already running"), std::string::npos) << output.str();

  EXPECT_EQ(managerNamesLeft(), 0);
  EXPECT_FALSE(shmExists(mutex->m_strMutexName));
  os_mutex_destroy(mutex);  // with no manager left to ask
  unlink(log.c_str());
}

// The service manager's side of the readiness protocol: a datagram socket
// that the daemon reports to, read with a 5 s bound.
class NotifySocket {
 public:
  NotifySocket() : m_path("/tmp/" + uniqueName("notify")), m_fd(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", m_path.c_str());
    bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    timeval bound{5, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  }
  ~NotifySocket() {
    close(m_fd);
    unlink(m_path.c_str());
  }
  const std::string& path() const { return m_path; }
  std::string next() {
    char message[256];
    ssize_t got = recv(m_fd, message, sizeof message, 0);
    return got > 0 ? std::string(message, static_cast<size_t>(got)) : "";
  }

 private:
  std::string m_path;
  int m_fd;
};

TEST_F(NoManager, EveryStopSignalEndsTheServingTimeThatReadinessBegan) {
  if (access(daemonPath().c_str(), X_OK) != 0) GTEST_SKIP() << "the daemon is not built";
  for (int sig : {SIGINT, SIGHUP, SIGQUIT}) {
    NotifySocket notify;
    pid_t daemon = startDaemon("/dev/null", notify.path());
    EXPECT_EQ(notify.next().rfind("READY=1\n", 0), 0u) << sig;
    EXPECT_TRUE(liveManagerAnswers()) << sig;  // ready means answering, at once
    kill(daemon, sig);
    EXPECT_EQ(notify.next(), "STOPPING=1") << sig;
    EXPECT_EQ(waitChild(daemon), 0) << sig;
    EXPECT_EQ(managerNamesLeft(), 0) << sig;
  }
}

// While three clients keep creating named mutexes: a stopped manager still
// gets its full 100 ms and keeps a second daemon out; a killed one fails every
// call at once, and a new daemon starts without --force while the calls go on.
TEST_F(NoManager, AKilledManagerFailsCallsAtOnceAndIsReplacedWhileClientsCall) {
  if (access(daemonPath().c_str(), X_OK) != 0) GTEST_SKIP() << "the daemon is not built";
  std::string log = "/tmp/" + uniqueName("syncd"), name = uniqueName("outage");
  NotifySocket notify;
  pid_t first = startDaemon(log, notify.path());
  // Ready: its own start-up requests are done, so no request lock is stopped with it.
  ASSERT_EQ(notify.next().rfind("READY=1\n", 0), 0u);
  kill(first, SIGSTOP);
  int status = 0;
  waitpid(first, &status, WUNTRACED);
  auto start = std::chrono::steady_clock::now();
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
  EXPECT_GE(secondsSince(start), 0.099) << "a stopped manager did not get its full time";
  EXPECT_FALSE(os_mutex_is_attached(mutex));
  os_mutex_destroy(mutex);
  EXPECT_EQ(waitChild(startDaemon(log)), 1) << "a second daemon started beside a stopped one";
  kill(first, SIGCONT);

  SharedFlags flags;  // 0: manager killed, 1: stop; 2..4: calls failed since, 5..7: longest, in us
  std::vector<pid_t> clients;
  for (int c = 0; c < 3; ++c)
    clients.push_back(startChild([&, c] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (std::string mine = name + std::to_string(c); flags[1] == 0;) {
        bool killed = flags[0] != 0;
        auto call = std::chrono::steady_clock::now();
        mutex_handle* handle = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, mine.c_str());
        bool attached = os_mutex_is_attached(handle);
        os_mutex_destroy(handle);
        int micros = static_cast<int>(secondsSince(call) * 1e6);
        if (killed && !attached) {
          ++flags[2 + c];
          if (micros > flags[5 + c]) flags[5 + c] = micros;
        }
      }
      return 0;
    }));
  kill(first, SIGKILL);
  waitChild(first);
  flags[0] = 1;
  for (int c = 0; c < 3; ++c) EXPECT_TRUE(flags.reaches(2 + c, 20, 5.0)) << "client " << c << " stalled";
  auto launch = std::chrono::steady_clock::now();
  pid_t second = startDaemon(log);
  EXPECT_TRUE(waitUntil(liveManagerAnswers, 5.0)) << "no new manager while clients call";
  EXPECT_LT(secondsSince(launch), 1.5) << "the new manager took long to serve";
  flags[1] = 1;
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(waitChild(clients[c]), 0);
    EXPECT_LT(flags[5 + c], 25000) << "client " << c << ": a call to a dead manager took " << flags[5 + c] << " us";
  }
  kill(second, SIGTERM);
  EXPECT_EQ(waitChild(second), 0);
  unlink(log.c_str());
}
