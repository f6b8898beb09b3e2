// The manager daemon, run as a program of the build tree.
#include <grp.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "SyncKinds.h"

namespace {

std::string daemonPath() { return toolPath("ostrelled-syncd"); }

class SyncDaemon : public NoManager {
 protected:
  void SetUp() override {
    NoManager::SetUp();
    if (!IsSkipped() && access(daemonPath().c_str(), X_OK) != 0) GTEST_SKIP() << "the daemon is not built";
  }
};

// Accounts by numeric ids that no real account uses; the group is "users".
struct Account {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;

  bool become() const {
    return setgroups(groups.size(), groups.data()) == 0 && setresgid(gid, gid, gid) == 0 &&
           setresuid(uid, uid, uid) == 0;
  }
  std::string prefix() const {
    std::string list;
    for (gid_t each : groups) list += (list.empty() ? "" : ",") + std::to_string(each);
    return "setpriv --reuid=" + std::to_string(uid) + " --regid=" + std::to_string(gid) +
           (list.empty() ? " --clear-groups " : " --groups=" + list + " ");
  }
};

// The daemon, output to log, readiness to notifySocket; as an account, as the unit runs it.
pid_t startDaemon(const std::string& log, const std::string& notifySocket = "", const Account* as = nullptr) {
  std::string path = daemonPath();
  return startChild([&] {
    if (!notifySocket.empty()) setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, 1);
    dup2(fd, 2);
    if (as != nullptr) umask(0077);
    if (as != nullptr && !as->become()) return 126;
    execl(path.c_str(), path.c_str(), as != nullptr ? "--group" : nullptr, "users", static_cast<char*>(nullptr));
    return 127;
  });
}

}  // namespace

// The service manager's end of the readiness reports, read with a 5 s bound.
class NotifySocket {
 public:
  NotifySocket() : m_path("/tmp/" + uniqueName("notify")), m_fd(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{AF_UNIX, {}};
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

TEST_F(SyncDaemon, EveryStopSignalEndsTheServingTimeThatReadinessBegan) {
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

// A stopped manager keeps a second daemon out; a killed one fails calls at once and is replaced.
TEST_F(SyncDaemon, OnlyADeadManagerIsReplacedAndItFailsCallsAtOnceMeanwhile) {
  std::string log = "/tmp/" + uniqueName("syncd"), name = uniqueName("outage");
  NotifySocket notify;
  pid_t first = startDaemon(log, notify.path());
  // Ready: its own start-up requests are done, so no request lock is stopped with it.
  ASSERT_EQ(notify.next().rfind("READY=1\n", 0), 0u);
  kill(first, SIGSTOP);
  waitpid(first, nullptr, WUNTRACED);
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(attaches(name)) << "attached with the manager stopped";
  EXPECT_GE(secondsSince(start), 0.099) << "a stopped manager did not get its full time";
  EXPECT_EQ(waitChild(startDaemon(log)), 1) << "a second daemon started beside a stopped one";
  EXPECT_TRUE(contains(readFile(log), "already running")) << readFile(log);
  kill(first, SIGCONT);

  SharedFlags flags;  // 0: manager killed, 1: stop; 2..4: calls failed since, 5..7: of them within 50 ms
  std::vector<pid_t> clients;
  for (int c = 0; c < 3; ++c)
    clients.push_back(startChild([&, c] {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (std::string mine = name + std::to_string(c); flags[1] == 0;) {
        bool killed = flags[0] != 0;
        auto call = std::chrono::steady_clock::now();
        bool attached = attaches(mine);
        if (killed && !attached) {
          flags[5 + c] += secondsSince(call) < 0.05;
          ++flags[2 + c];
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
    // Waiting out the request timeout, every call would take 100 ms; a loaded machine delays only some.
    EXPECT_GE(2 * flags[5 + c], flags[2 + c])
        << "client " << c << ": of " << flags[2 + c] << " calls to a dead manager, only " << flags[5 + c]
        << " failed within 50 ms";
  }
  kill(second, SIGTERM);
  EXPECT_EQ(waitChild(second), 0);
  EXPECT_EQ(managerNamesLeft(), 0) << "names left after SIGTERM";
  unlink(log.c_str());
}

namespace {

// One named object of every kind under one prefix.
struct EveryKind {
  explicit EveryKind(const std::string& prefix) {
    for (const SyncKind& kind : kNamedKinds) objects.push_back(kind(prefix + "_" + kind.name));
  }
  int attached() const {
    return std::count_if(objects.begin(), objects.end(), [](const auto& object) { return object->attached(); });
  }
  std::vector<std::unique_ptr<SyncObject>> objects;
};

// How many ways in to a member's objects or the manager's names worked for an outsider.
int outsiderGetsIn(const std::string& prefix) {
  using namespace internal::SyncNames;
  int got = EveryKind(prefix).attached();
  mutex_handle* fresh = namedMutex(prefix + "_new");
  got += os_mutex_is_attached(fresh) + (shmSize(prefix + "_new") >= 0);
  os_mutex_destroy(fresh);
  for (const SyncKind& kind : kNamedKinds) {
    std::string name = prefix + "_" + kind.name;
    got += (shm_open(name.c_str(), O_RDONLY, 0) != -1) + (shm_unlink(name.c_str()) == 0);
    // Finding a set asks for no permission; reading and posting do.
    int set = semget(ftok(internal::shmPath(name).c_str(), 0), 1, 0);
    sembuf post{0, 1, 0};
    if (kind.sysV) got += (semctl(set, 0, GETVAL) != -1) + (semop(set, &post, 1) == 0);
  }
  for (const char* sem : {kEnabledSemaphore, kRequestSemaphore, kFinishSemaphore})
    got += (sem_open(sem, 0) != SEM_FAILED) + (sem_unlink(sem) == 0);
  for (const char* area : {kRequestArea, kRequestLock})
    got += (shm_open(area, O_RDONLY, 0) != -1) + (shm_unlink(area) == 0);
  return got;
}

}  // namespace

class SyncDaemonWithAGroup : public SyncDaemon {
 protected:
  void SetUp() override {
    SyncDaemon::SetUp();
    if (IsSkipped()) return;
    const group* users = getgrnam("users");
    if (users == nullptr) GTEST_SKIP() << "no group 'users' on this machine";
    gid_t g = users->gr_gid;
    service = {61001, g, {}}, member = {61002, 61002, {g}}, other = {61004, 61004, {g}}, outsider = {61003, 61003, {}};
    if (runChild([&] { return outsider.become() ? 0 : 1; }) != 0 || system("setpriv --version >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "accounts cannot be switched here (needs root and setpriv)";
    m_daemon = startDaemon("/dev/null", "", &service);
    ASSERT_TRUE(waitUntil(liveManagerAnswers, 10.0));
  }
  void TearDown() override {
    if (m_daemon <= 0) return;
    kill(m_daemon, SIGTERM);
    EXPECT_EQ(waitChild(m_daemon), 0);
    EXPECT_EQ(managerNamesLeft(), 0);
  }

  Account service{}, member{}, other{}, outsider{};

 private:
  pid_t m_daemon = 0;
};

// Outsiders reach nothing, other members reach the holder; every name is the group's, mode 0660.
TEST_F(SyncDaemonWithAGroup, MembersShareEveryKindAndAnOutsiderReachesNothing) {
  std::string prefix = uniqueName("group");
  const int kinds = static_cast<int>(kNamedKinds.size());
  SharedFlags step;  // 1: the holder took everything (-1: not all attached), 2: the other member is done
  pid_t holder = startChild([&] {
    if (!member.become()) return 100;
    EveryKind mine(prefix);
    for (auto& object : mine.objects) object->take();
    step[0] = mine.attached() == kinds ? 1 : -1;
    if (!step.reaches(0, 2, 8.0)) return 101;
    int wrong = 0;  // a lock still ours, or a unit or set that the other member did not give
    for (size_t i = 0; i < mine.objects.size(); ++i)
      kNamedKinds[i].owned ? mine.objects[i]->give()
                           : static_cast<void>(wrong += !mine.objects[i]->takeBy(deadlineIn(1000)));
    return wrong;
  });
  ASSERT_TRUE(waitUntil([&] { return step[0] != 0; })) << "the holder did not take every kind within 5 s";
  ASSERT_EQ(step[0], 1) << "the holder could not attach every kind";
  for (const SyncKind& kind : kNamedKinds) {
    struct stat st {};
    std::string name = prefix + "_" + kind.name;
    EXPECT_EQ(stat(internal::shmPath(name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 07777, 0660u) << name;
    EXPECT_EQ(st.st_gid, service.gid) << name;
    EXPECT_EQ(st.st_uid, service.uid) << name;
  }
  EXPECT_EQ(runChild([&] { return outsider.become() ? outsiderGetsIn(prefix) : 100; }), 0)
      << "ways in that worked for an outsider";
  const int unshared = runChild([&] {
    if (!other.become()) return 100;
    EveryKind theirs(prefix);
    int shared = 0;  // attached, and finds what the holder took gone
    for (size_t i = 0; i < theirs.objects.size(); ++i) {
      shared += theirs.objects[i]->attached() && !theirs.objects[i]->tryTake();
      if (!kNamedKinds[i].owned) theirs.objects[i]->give();
    }
    return kinds - shared;
  });
  EXPECT_EQ(unshared, 0) << "kinds that the other member did not share with the holder";
  step[0] = 2;
  EXPECT_EQ(waitChild(holder), 0) << "kinds whose give by the other member the holder did not find";
  EXPECT_TRUE(liveManagerAnswers());
}

// The tool tells an outsider which group to join and shows root access changed by hand.
TEST_F(SyncDaemonWithAGroup, TheToolRefusesOutsidersPlainlyAndReportsAccessChangedByHand) {
  std::string ctl = toolPath("ostrelled-ctl"), name = uniqueName("group_ctl");
  Holder holder(
      [&] {
        if (member.become()) os_mutex_lock(namedMutex(name));
      },
      [] {});
  ASSERT_TRUE(holder.held());
  for (const std::string& command : {std::string("status"), std::string("list"), "remove --force " + name}) {
    EXPECT_TRUE(says(runTool(outsider.prefix() + ctl + " " + command + " 2>&1"), 1,
                     "may not use named objects: they belong to group users. Join it (usermod -aG users"))
        << command;
  }
  EXPECT_TRUE(shmExists(name));
  ToolRun listed = runTool(member.prefix() + ctl + " list 2>&1");
  EXPECT_TRUE(says(listed, 0, name + "\tmutex\t1\t"));
  EXPECT_TRUE(contains(listed.out, "could not be inspected"));

  chmod(internal::shmPath(name).c_str(), 0666);
  chown(internal::shmPath(internal::SyncNames::kRequestLock).c_str(), static_cast<uid_t>(-1), 0);
  ToolRun status = runTool(ctl + " status");
  EXPECT_TRUE(says(status, 0, "access: members of group users"));
  EXPECT_TRUE(contains(status.out, "changed by hand: " + name +
                                       " has mode 0666, group users; the manager gives mode 0660, group users"));
  EXPECT_TRUE(contains(status.out, "changed by hand: os_mutex_manage_request_lock has mode 0660, group root"));
  EXPECT_TRUE(says(runTool(member.prefix() + ctl + " status 2>&1"), 1,
                   "may not open os_mutex_manage_request_lock, whose mode or group was changed by hand"));
}
