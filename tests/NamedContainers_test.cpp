// Named objects between PID namespaces that share /dev/shm and IPC, and reused process ids.
#include "SyncKinds.h"

namespace {

class Containers : public HostedManager {
 protected:
  void SetUp() override {
    HostedManager::SetUp();
    if (!IsSkipped() && !Container::permitted()) GTEST_SKIP() << "PID namespaces are not permitted here";
  }
};

bool priorityInheriting(const SyncKind& kind) {
  return std::string(kind.name).find("PriorityInheriting") != std::string::npos;
}

}  // namespace

// Also between two pid 1s; a priority-inheriting mutex is refused in another namespace, never aborted.
TEST_F(Containers, OwnedKindsExcludeBetweenPidNamespacesAndComeBackFromAKilledOne) {
  for (const SyncKind& kind : kNamedKinds) {
    if (!kind.owned) continue;
    std::string name = uniqueName("ns");
    SharedFlags flags;
    Container holder([&] {
      auto object = kind(name);
      object->hold();
      flags[0] = 1;
      return flags.reaches(1, 1, 30.0) ? (object->give(), 0) : 2;
    });
    ASSERT_TRUE(flags.reaches(0, 1)) << kind.name << ": the holder in a container did not take it within 10 s";
    int other = Container([&] {
                  errno = 0;
                  auto object = kind(name);
                  if (priorityInheriting(kind)) return !object->attached() && errno == ENOTSUP ? 0 : 3;
                  return object->takeBy(deadlineIn(300)) ? 1 : 0;
                }).wait();
    EXPECT_EQ(other, 0) << kind.name << " in another namespace: 1 in beside the holder, 3 not refused cleanly";
    if (priorityInheriting(kind)) continue;
    auto mine = kind(name);
    holder.kill();
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(mine->takeBy(deadlineIn(3000)))
        << kind.name << ": the killed namespace's hold was not given back in 3 s";
    EXPECT_LT(secondsSince(start), 1.0 + kLateSlack) << kind.name << ": given back late";
    mine->give();
  }
}

// The dead writer's process id goes at once to a process that never used the mutex.
TEST_F(Containers, ADeadWritersReusedProcessIdNeverBlocksTheNextReader) {
  std::string name = uniqueName("rw_reused");
  SharedFlags flags;
  pid_t writer = startChild([&] {
    os_rw_mutex_lock_wr(os_rw_mutex_create(USE_DEFAULT, name.c_str()));
    flags[0] = 1;
    return pause();
  });
  ASSERT_TRUE(flags.reaches(0, 1)) << "the writer did not take the lock within 10 s";
  kill(writer, SIGKILL);
  waitChild(writer);
  pid_t heir = -1;
  for (int attempt = 0; attempt < 20 && heir != writer; ++attempt) {
    if (heir > 0) waitChild(heir, 0.0);
    int fd = open("/proc/sys/kernel/ns_last_pid", O_WRONLY);
    std::string last = std::to_string(writer - 1);
    if (fd < 0 || write(fd, last.data(), last.size()) < 0) GTEST_SKIP() << "ns_last_pid cannot be written";
    close(fd);
    heir = startChild([] { return pause(); });
  }
  if (heir != writer) GTEST_SKIP() << "the process id was not handed on in 20 tries";
  rw_mutex_handle* handle = os_rw_mutex_create(USE_DEFAULT, name.c_str());
  EXPECT_TRUE(os_rw_mutex_lock_rd_timeout(handle, deadlineIn(3000)))
      << "a reader waited 3 s behind a dead writer whose pid lives on";
  os_rw_mutex_unlock(handle);
  os_rw_mutex_destroy(handle);
  waitChild(heir, 0.0);
}
