// Named objects between containers: processes in PID namespaces of their own
// that share /dev/shm and the IPC namespace with the manager's, and process
// ids that are reused at once.

#include "TestSupport.h"

using namespace testsupport;

namespace {

class Containers : public HostedManager {
 protected:
  void SetUp() override {
    HostedManager::SetUp();
    if (!IsSkipped() && !Container::permitted()) GTEST_SKIP() << "PID namespaces are not permitted here";
  }
};

rw_mutex_handle* rw(const std::string& name) { return os_rw_mutex_create(USE_DEFAULT, name.c_str()); }

bool lockWithin(rw_mutex_handle* handle, bool asWriter, long millis) {
  return asWriter ? os_rw_mutex_lock_wr_timeout(handle, deadlineIn(millis))
                  : os_rw_mutex_lock_rd_timeout(handle, deadlineIn(millis));
}

// Holds the reader/writer mutex (as writer or reader) in a container until
// flag 1 reaches 1; flag 0 tells that it holds.
Container holdInContainer(const std::string& name, bool asWriter, SharedFlags& flags) {
  return Container([&, name, asWriter] {
    rw_mutex_handle* handle = rw(name);
    if (!lockWithin(handle, asWriter, 5000)) return 1;
    flags[0] = 1;
    if (!flags.reaches(1, 1, 30.0)) return 2;
    os_rw_mutex_unlock(handle);
    os_rw_mutex_destroy(handle);
    return 0;
  });
}

}  // namespace

TEST_F(Containers, ReaderWriterExclusionHoldsBetweenPidNamespacesBothWays) {
  for (bool writerHolds : {true, false}) {
    std::string name = uniqueName("rw_ns");
    SharedFlags flags;
    Container holder = holdInContainer(name, writerHolds, flags);
    ASSERT_TRUE(flags.reaches(0, 1)) << "the holder never took the lock (writer " << writerHolds << ")";
    Container other([&] {
      rw_mutex_handle* handle = rw(name);
      if (lockWithin(handle, !writerHolds, 300)) return 1;  // in beside the holder
      flags[2] = 1;
      bool in = lockWithin(handle, !writerHolds, 10000);
      if (in) os_rw_mutex_unlock(handle);
      os_rw_mutex_destroy(handle);
      return in ? 0 : 2;
    });
    EXPECT_TRUE(flags.reaches(2, 1)) << "a " << (writerHolds ? "reader" : "writer")
                                     << " of another namespace got in while the holder held the lock";
    flags[1] = 1;
    EXPECT_EQ(other.wait(), 0) << "1: in beside the holder, 2: not in after it let go (writer " << writerHolds << ")";
    EXPECT_EQ(holder.wait(), 0);
  }
}

TEST_F(Containers, AHolderKilledWithItsNamespaceIsGivenBackWithinASecond) {
  for (bool writerHolds : {true, false}) {
    std::string name = uniqueName("rw_ns_killed");
    SharedFlags flags;
    Container holder = holdInContainer(name, writerHolds, flags);
    ASSERT_TRUE(flags.reaches(0, 1));
    rw_mutex_handle* handle = rw(name);
    holder.kill();
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(lockWithin(handle, true, 3000)) << "the dead " << (writerHolds ? "writer's" : "reader's")
                                                << " share was not given back in 3 s";
    EXPECT_LT(secondsSince(start), 1.5) << "given back late";
    os_rw_mutex_unlock(handle);
    os_rw_mutex_destroy(handle);
  }
}

// The dead writer's process id goes at once to a process that never used the mutex.
TEST_F(Containers, ADeadWritersReusedProcessIdNeverBlocksTheNextReader) {
  std::string name = uniqueName("rw_reused");
  SharedFlags flags;
  pid_t writer = startChild([&] {
    rw_mutex_handle* handle = rw(name);
    os_rw_mutex_lock_wr(handle);
    flags[0] = 1;
    pause();
    return 0;
  });
  ASSERT_TRUE(flags.reaches(0, 1));
  kill(writer, SIGKILL);
  waitChild(writer);
  pid_t heir = -1;
  for (int attempt = 0; attempt < 20 && heir != writer; ++attempt) {
    if (heir > 0) waitChild(heir, 0.0);
    int fd = open("/proc/sys/kernel/ns_last_pid", O_WRONLY);
    std::string last = std::to_string(writer - 1);
    if (fd < 0 || write(fd, last.data(), last.size()) < 0) GTEST_SKIP() << "ns_last_pid cannot be written";
    close(fd);
    heir = startChild([] { pause(); return 0; });
  }
  if (heir != writer) GTEST_SKIP() << "the process id was not handed on in 20 tries";
  rw_mutex_handle* handle = rw(name);
  EXPECT_TRUE(lockWithin(handle, false, 3000)) << "a reader waited 3 s behind a dead writer whose pid lives on";
  os_rw_mutex_unlock(handle);
  os_rw_mutex_destroy(handle);
  waitChild(heir, 0.0);
}

// Plain and recursive mutexes exclude across namespaces, also between two
// holders that are both pid 1 in theirs; a priority-inheriting one is refused
// there, never aborted.
TEST_F(Containers, MutexesExcludeAcrossNamespacesAndPriorityInheritanceIsRefused) {
  for (unsigned int flag : {DEFAULT_MUTEX_ATTRIBUTE, MUTEX_RECURSIVE, MUTEX_PRIO_INHERIT}) {
    std::string name = uniqueName("mutex_ns");
    SharedFlags flags;
    Container holder([&] {
      mutex_handle* mutex = os_mutex_create(flag, USE_DEFAULT, name.c_str());
      os_mutex_lock(mutex);
      flags[0] = 1;
      if (!flags.reaches(1, 1, 30.0)) return 2;
      os_mutex_unlock(mutex);
      os_mutex_destroy(mutex);
      return 0;
    });
    ASSERT_TRUE(flags.reaches(0, 1));
    auto otherSide = [&] {
      errno = 0;
      mutex_handle* mutex = os_mutex_create(flag, USE_DEFAULT, name.c_str());
      int result = 0;
      if (flag == MUTEX_PRIO_INHERIT)
        result = os_mutex_is_attached(mutex) || errno != ENOTSUP || os_mutex_lock_timeout(mutex, deadlineIn(100)) ? 3 : 0;
      else if (os_mutex_lock_timeout(mutex, deadlineIn(300)))
        result = 1;  // in beside the holder
      os_mutex_destroy(mutex);
      return result;
    };
    int other = Container(otherSide).wait();
    EXPECT_EQ(other, 0) << "flag " << std::hex << flag << ": 1 in beside the holder, 3 not refused cleanly";
    flags[1] = 1;
    EXPECT_EQ(holder.wait(), 0) << "flag " << std::hex << flag;
  }
}
