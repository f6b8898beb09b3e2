#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS_Environment.h>
#include <ostrelled/OS_System.h>

#include "TempDirectory.h"
#include "TestSupport.h"

using testsupport::readFile;
using testsupport::writeFile;

namespace {

void writeScript(const std::string& path, const std::string& body) {
  writeFile(path, "#!/bin/sh\n" + body + "\n");
  chmod(path.c_str(), 0755);
}

// Sets a variable for one test and puts the old state back afterwards.
class ScopedVariable {
 public:
  explicit ScopedVariable(const char* name) : m_name(name), m_had(getenv(name) != nullptr) {
    if (m_had) m_old = getenv(name);
  }
  ~ScopedVariable() { m_had ? setenv(m_name, m_old.c_str(), 1) : unsetenv(m_name); }

 private:
  const char* m_name;
  bool m_had;
  std::string m_old;
};

std::string variable(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? "<unset>" : value;
}

}  // namespace

TEST(OS_System, RunApplicationStatusRules) {
  testsupport::TempDirectory dir;
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
}

TEST(OS_System, RunApplicationPassesTheCommandLineAsOneArgument) {
  testsupport::TempDirectory dir;
  ScopedVariable path("PATH");
  setenv("PATH", (dir.path() + ":" + variable("PATH")).c_str(), 1);
  writeScript(dir / "argecho", "printf '%s|%s' \"$#\" \"$1\" > \"$0.out\"");
  EXPECT_TRUE(os_system_run_application("argecho", "one two  three", true));
  EXPECT_EQ(readFile(dir / "argecho.out"), "1|one two  three");
}

TEST(OS_System, RunApplicationWithoutWaitingReturnsWhileTheChildRuns) {
  testsupport::TempDirectory dir;
  testsupport::WorkingDirectory here(dir.path());
  writeScript("sleeper", "echo $$ > pid.tmp && mv pid.tmp pid; exec sleep 30");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(os_system_run_application("sleeper", "", false));
  EXPECT_LT(testsupport::secondsSince(start), 10.0);
  ASSERT_TRUE(testsupport::waitUntil([&] { return !readFile("pid").empty(); }, 10.0));
  const pid_t pid = std::stoi(readFile("pid"));
  kill(pid, SIGKILL);
  EXPECT_EQ(testsupport::waitChild(pid), 128 + SIGKILL);  // the library never reaps it
}

TEST(OS_System, InvokeAndKillFollowTheShellStatusRule) {
  EXPECT_TRUE(os_system_invoke_command("exit 0"));
  EXPECT_FALSE(os_system_invoke_command("exit 3"));
  EXPECT_FALSE(os_system_invoke_command("kill -9 $$"));
  EXPECT_FALSE(os_system_invoke_command(nullptr));

  testsupport::TempDirectory dir;
  const std::string program = dir / "ostk_victim";
  ASSERT_EQ(symlink("/bin/sleep", program.c_str()), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    execl(program.c_str(), "ostk_victim", "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_TRUE(testsupport::waitUntil([&] { return readFile("/proc/" + std::to_string(pid) + "/comm") == "ostk_victim\n"; }));
  EXPECT_TRUE(os_system_kill_application("ostk_victim"));
  EXPECT_EQ(testsupport::waitChild(pid), 128 + SIGKILL);
  EXPECT_FALSE(os_system_kill_application("ostk_victim"));
  testsupport::WorkingDirectory here(dir.path());
  EXPECT_FALSE(os_system_kill_application("x\"; touch pwned; \"$(touch pwned2)"));
  EXPECT_NE(access("pwned", F_OK), 0);
  EXPECT_NE(access("pwned2", F_OK), 0);
}

TEST(OS_System, EnvironmentReadUsesTheSizeProtocol) {
  ScopedVariable guard("OSTRELLED_TEST_VAR");
  setenv("OSTRELLED_TEST_VAR", "value", 1);
  DWORD size = 0;
  EXPECT_TRUE(os_system_get_os_environmentVariable("OSTRELLED_TEST_VAR", nullptr, size));
  EXPECT_EQ(size, 6u);
  char buffer[8] = "#######";
  size = 5;
  EXPECT_FALSE(os_system_get_os_environmentVariable("OSTRELLED_TEST_VAR", buffer, size));
  EXPECT_EQ(size, 5u);
  size = 6;
  EXPECT_TRUE(os_system_get_os_environmentVariable("OSTRELLED_TEST_VAR", buffer, size));
  EXPECT_STREQ(buffer, "value");
  setenv("OSTRELLED_TEST_VAR", "", 1);
  EXPECT_TRUE(os_system_get_os_environmentVariable("OSTRELLED_TEST_VAR", nullptr, size));
  EXPECT_EQ(size, 1u);
  unsetenv("OSTRELLED_TEST_VAR");
  EXPECT_FALSE(os_system_get_os_environmentVariable("OSTRELLED_TEST_VAR", nullptr, size));
}

TEST(OS_System, EnvironmentAppendModeAddsOnlyMissingValuesAndEmptiesOtherwise) {
  ScopedVariable guard("OSTRELLED_TEST_PATH");
  unsetenv("OSTRELLED_TEST_PATH");
  os_system_set_os_environmentVariable("OSTRELLED_TEST_PATH", "/usr/bin", false);
  EXPECT_EQ(variable("OSTRELLED_TEST_PATH"), "/usr/bin");
  os_system_set_os_environmentVariable("OSTRELLED_TEST_PATH", "/opt/bin", false);
  EXPECT_EQ(variable("OSTRELLED_TEST_PATH"), "/usr/bin:/opt/bin");
  os_system_set_os_environmentVariable("OSTRELLED_TEST_PATH", "/opt/bin", false);
  EXPECT_EQ(variable("OSTRELLED_TEST_PATH"), "");  // already there: emptied, as intended
  setenv("OSTRELLED_TEST_PATH", "/opt/bin2", 1);
  os_system_set_os_environmentVariable("OSTRELLED_TEST_PATH", "/opt/bin", false);
  EXPECT_EQ(variable("OSTRELLED_TEST_PATH"), "");
  os_system_set_os_environmentVariable("OSTRELLED_TEST_PATH", "/x", true);
  EXPECT_EQ(variable("OSTRELLED_TEST_PATH"), "/x");
  os_system_set_os_environmentVariable(nullptr, "/x", true);  // ignored
}

TEST(OS_System, BrokenPipeWritesFailInsteadOfKillingTheProcess) {
  const int code = testsupport::runChild([] {
    os_system_close_exception();
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    if (current.sa_handler == SIG_IGN || current.sa_handler == SIG_DFL) return 2;
    int fds[2];
    if (pipe(fds) != 0) return 3;
    close(fds[0]);
    return write(fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 4;
  });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(os_system_check_root_privileges(), geteuid() == 0);
}

TEST(OS_System, ApplicationPathIsTheExecutableAndIsNeverTerminated) {
  char expected[4096];
  const ssize_t length = readlink("/proc/self/exe", expected, sizeof expected);
  ASSERT_GT(length, 4);
  char buffer[4096];
  memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(os_environment_get_application_path(buffer, sizeof buffer), length);
  EXPECT_EQ(std::string(buffer, length), std::string(expected, length));
  EXPECT_EQ(buffer[length], 'X');
  EXPECT_EQ(os_environment_get_application_path(buffer, 4), 4);  // cut off silently
}
