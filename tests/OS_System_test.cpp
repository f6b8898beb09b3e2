#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS_Environment.h>
#include <ostrelled/OS_System.h>

#include "TempDirectory.h"
#include "TestSupport.h"

using testsupport::readFile;

namespace {

void writeScript(const std::string& path, const std::string& body) {
  testsupport::writeFile(path, "#!/bin/sh\n" + body + "\n");
  chmod(path.c_str(), 0755);
}

std::string variable(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? "<unset>" : value;
}

}  // namespace

TEST(OS_System, RunApplicationStatusRulesAndArguments) {
  testsupport::TempDirectory dir, bin;
  testsupport::WorkingDirectory here(dir.path());
  writeScript("exit3", "exit 3");
  writeScript("selfkill", "kill -9 $$");
  writeScript("true", "exit 255");  // a local program wins over the PATH one
  EXPECT_TRUE(os_system_run_application("exit3", "", true));
  EXPECT_FALSE(os_system_run_application("selfkill", "", true));
  EXPECT_FALSE(os_system_run_application("true", "", true));
  EXPECT_TRUE(os_system_run_application("false", "", true));  // exit status 1 counts as success
  EXPECT_FALSE(os_system_run_application("ostrelled-no-such-program", "", true));
  EXPECT_FALSE(os_system_run_application(nullptr, nullptr, true));

  const std::string path = variable("PATH");
  setenv("PATH", (bin.path() + ":" + path).c_str(), 1);
  writeScript(bin / "argecho", "printf '%s|%s' \"$#\" \"$1\" > \"$0.out\"");
  EXPECT_TRUE(os_system_run_application("argecho", "one two  three", true));
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(readFile(bin / "argecho.out"), "1|one two  three");  // one argument, never split
}

TEST(OS_System, RunApplicationWithoutWaitingReturnsWhileTheChildRuns) {
  testsupport::TempDirectory dir;
  testsupport::WorkingDirectory here(dir.path());
  writeScript("sleeper", "echo $$ > pid.tmp && mv pid.tmp pid; exec sleep 30");
  EXPECT_TRUE(os_system_run_application("sleeper", "", false));
  ASSERT_TRUE(testsupport::waitUntil([&] { return !readFile("pid").empty(); }, 10.0));
  const pid_t pid = atoi(readFile("pid").c_str());
  kill(pid, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(pid), 128 + SIGKILL);  // still ours to reap: the library never does
}

TEST(OS_System, InvokeAndKillFollowTheShellStatusRule) {
  EXPECT_TRUE(os_system_invoke_command("exit 0"));
  EXPECT_FALSE(os_system_invoke_command("exit 3") || os_system_invoke_command("kill -9 $$") ||
               os_system_invoke_command(nullptr));
  testsupport::TempDirectory dir;
  const std::string program = dir / "ostk_victim";
  ASSERT_EQ(symlink("/bin/sleep", program.c_str()), 0);
  const pid_t pid = testsupport::startChild([&] { return execl(program.c_str(), "ostk_victim", "30", nullptr); });
  ASSERT_TRUE(testsupport::waitUntil([&] { return readFile("/proc/" + std::to_string(pid) + "/comm") == "ostk_victim\n"; }));
  EXPECT_TRUE(os_system_kill_application("ostk_victim"));
  EXPECT_EQ(testsupport::waitChild(pid), 128 + SIGKILL);
  EXPECT_FALSE(os_system_kill_application("ostk_victim"));
  testsupport::WorkingDirectory here(dir.path());
  EXPECT_FALSE(os_system_kill_application("x\"; touch pwned; \"$(touch pwned2)"));
  EXPECT_FALSE(access("pwned", F_OK) == 0 || access("pwned2", F_OK) == 0);
}

TEST(OS_System, EnvironmentSizeProtocolAndAppendMode) {
  const char* name = "OSTRELLED_TEST_PATH";
  setenv(name, "value", 1);
  DWORD size = 0;
  EXPECT_TRUE(os_system_get_os_environmentVariable(name, nullptr, size));
  EXPECT_EQ(size, 6u);
  char buffer[8] = "#######";
  size = 5;
  EXPECT_FALSE(os_system_get_os_environmentVariable(name, buffer, size));
  EXPECT_EQ(size, 5u);
  size = 6;
  EXPECT_TRUE(os_system_get_os_environmentVariable(name, buffer, size));
  EXPECT_STREQ(buffer, "value");

  unsetenv(name);
  EXPECT_FALSE(os_system_get_os_environmentVariable(name, nullptr, size));
  os_system_set_os_environmentVariable(name, "/usr/bin", false);
  EXPECT_EQ(variable(name), "/usr/bin");
  os_system_set_os_environmentVariable(name, "/opt/bin", false);
  EXPECT_EQ(variable(name), "/usr/bin:/opt/bin");
  os_system_set_os_environmentVariable(name, "/opt/bin", false);
  EXPECT_EQ(variable(name), "");  // already there: emptied, as intended
  EXPECT_TRUE(os_system_get_os_environmentVariable(name, nullptr, size));
  EXPECT_EQ(size, 1u);
  setenv(name, "/opt/bin2", 1);
  os_system_set_os_environmentVariable(name, "/opt/bin", false);
  EXPECT_EQ(variable(name), "");
  os_system_set_os_environmentVariable(name, "/x", true);
  EXPECT_EQ(variable(name), "/x");
  unsetenv(name);
}

TEST(OS_System, BrokenPipesFailInsteadOfKillingAndTheExecutablePathIsRaw) {
  EXPECT_EQ(testsupport::runChild([] {
              os_system_close_exception();
              struct sigaction current {};
              sigaction(SIGPIPE, nullptr, &current);
              int fds[2];
              if (current.sa_handler == SIG_IGN || pipe(fds) != 0) return 2;
              close(fds[0]);
              return write(fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 3;
            }),
            0);
  EXPECT_EQ(os_system_check_root_privileges(), geteuid() == 0);
  char expected[4096], buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", expected, sizeof expected);
  memset(buffer, 'X', sizeof buffer);
  ASSERT_EQ(os_environment_get_application_path(buffer, sizeof buffer), length);
  EXPECT_EQ(std::string(buffer, length), std::string(expected, length));
  EXPECT_EQ(buffer[length], 'X');  // no terminator
  EXPECT_EQ(os_environment_get_application_path(buffer, 4), 4);  // cut off silently
}
