// The inspection tool of the build tree.

#include "TestSupport.h"

namespace {

using Ctl = HostedManager;
using CtlWithoutManager = NoManager;

ToolRun ctl(const std::string& args) { return runTool(toolPath("ostrelled-ctl") + " " + args); }

void writeBlock(const std::string& name, size_t size, unsigned char flags) {
  std::string bytes(size, static_cast<char>(flags));
  bytes[0] = 1, bytes[1] = bytes[2] = bytes[3] = 0;  // attach count 1
  writeFile(internal::shmPath(name), bytes);
}

}  // namespace

// A block in use is kept; once its holder is killed it is stale and goes.
TEST_F(Ctl, OnlyAStaleBlockIsRemovedAndThroughTheManager) {
  std::string name = uniqueName("ctl_held");
  Holder holder([&] { os_mutex_lock(namedMutex(name)); }, [] {});
  ASSERT_TRUE(holder.held());
  EXPECT_TRUE(says(ctl("status"), 0, "manager: serving (process " + std::to_string(getpid()) + ")"));
  ToolRun listed = ctl("list");
  EXPECT_TRUE(says(listed, 0, "NAME\tKIND\tATTACHED\tPIDS\tSTATE\n"));
  EXPECT_TRUE(contains(listed.out, name + "\tmutex\t1\t"));
  EXPECT_TRUE(contains(listed.out, "\tin-use\n"));
  EXPECT_EQ(ctl("remove " + name + " 2>/dev/null").status, 1);
  EXPECT_TRUE(shmExists(name));
  holder.kill();
  EXPECT_TRUE(contains(ctl("list").out, name + "\tmutex\t1\t-\tstale\n"));
  EXPECT_TRUE(contains(ctl("list --json").out, "{\"name\": \"" + name +
                                                   "\", \"kind\": \"mutex\", \"attached\": 1, \"pids\": [], "
                                                   "\"state\": \"stale\"}"));
  EXPECT_TRUE(says(ctl("remove /" + name), 0, ""));
  EXPECT_FALSE(shmExists(name));
  // The manager forgot the block: a new attach starts from a fresh one.
  mutex_handle* again = namedMutex(name);
  EXPECT_TRUE(shmExists(name));
  EXPECT_TRUE(contains(ctl("list").out, name + "\tmutex\t1\t"));
  os_mutex_destroy(again);
}

TEST_F(Ctl, ListEscapesNamesThatWouldBreakItsLines) {
  std::string pid = std::to_string(getpid());
  mutex_handle* mutex = namedMutex("ctl a\"b\\c\nd\te" + pid);
  EXPECT_TRUE(contains(ctl("list").out, "ctl a\"b\\\\c\\nd\\te" + pid + "\tmutex\t1\t-\tstale\n"));
  EXPECT_TRUE(contains(ctl("list --json").out, "\"ctl a\\\"b\\\\c\\u000ad\\u0009e" + pid + "\""));
  os_mutex_destroy(mutex);
}

TEST_F(CtlWithoutManager, BlocksOfUnknownContentAreNeitherListedNorRemoved) {
  std::string damaged = uniqueName("ctl_damaged"), foreign = uniqueName("ctl_foreign");
  writeBlock(damaged, internal::EventBlock::kCondition.size, 7);  // an event's size with impossible flags
  writeBlock(foreign, 1000, 0);
  ToolRun listed = ctl("list 2>&1");
  EXPECT_TRUE(contains(listed.out, damaged + ": the size of a event/condition but not its content"));
  EXPECT_FALSE(contains(listed.out, foreign));
  EXPECT_EQ(ctl("remove " + damaged + " 2>/dev/null").status, 1);
  EXPECT_EQ(ctl("remove --force " + foreign + " 2>/dev/null").status, 1);
  EXPECT_TRUE(shmExists(damaged) && shmExists(foreign));
  EXPECT_EQ(ctl("remove --force " + damaged).status, 0);
  EXPECT_FALSE(shmExists(damaged));
  unlink(internal::shmPath(foreign).c_str());
}

TEST_F(CtlWithoutManager, StatusTellsMissingNamesFromASilentManager) {
  EXPECT_TRUE(says(ctl("status"), 1, "no manager names on this machine"));
  writeBlock(internal::SyncNames::kRequestArea, internal::kRequestAreaSize, 0);
  EXPECT_TRUE(says(ctl("status"), 1, "manager: not answering"));
  unlink(internal::shmPath(internal::SyncNames::kRequestArea).c_str());
}

TEST_F(CtlWithoutManager, BadUsageExitsWithTwo) {
  for (const char* args : {"", "bogus", "list --bogus", "remove", "status extra", "remove --bogus x"})
    EXPECT_EQ(ctl(std::string(args) + " 2>/dev/null").status, 2) << args;
  for (const char* args : {"--help", "status --help", "list --help", "remove --help", "--version"})
    EXPECT_EQ(ctl(args).status, 0) << args;
}

// A user in another PID namespace is invisible: the object is unknown, not stale, and stays.
TEST_F(Ctl, InAContainerAnObjectUsedElsewhereIsNeitherStaleNorRemoved) {
  if (!Container::permitted()) GTEST_SKIP() << "PID namespaces are not permitted here";
  std::string name = uniqueName("ctl_ns");
  Holder holder([&] { os_mutex_lock(namedMutex(name)); }, [] {});
  ASSERT_TRUE(holder.held());
  Container tool(
      [&] {  // its failures print from inside
        EXPECT_TRUE(says(ctl("list 2>&1"), 0, name + "\tmutex\t1\t-\tunknown\n"));
        EXPECT_EQ(ctl("remove " + name + " 2>&1").status, 1) << "removed from inside the container";
        return ::testing::Test::HasFailure() ? 1 : 0;
      },
      true);
  EXPECT_EQ(tool.wait(), 0) << "the tool in the container failed the checks above; listed from here:\n"
                            << ctl("list").out;
  EXPECT_TRUE(shmExists(name)) << "the object used elsewhere was removed";
}
