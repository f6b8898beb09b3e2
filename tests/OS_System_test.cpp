#include "TestSupport.h"

TEST(OS_System, RunCountsEveryExitButSignalsAnd255WhileInvokeWantsZero) {
  TempDirectory dir(true);
  const struct {
    const char *program, *body;
    bool run, invoke;
  } rows[] = {{"zero", "exit 0", true, true},
              {"exit3", "exit 3", true, false},
              {"selfkill", "kill -9 $$", false, false},
              {"true", "exit 255", false, false}};  // a local program wins over the PATH one
  for (const auto& row : rows) {
    writeFile(row.program, std::string("#!/bin/sh\n") + row.body);
    chmod(row.program, 0755);
    EXPECT_EQ(os_system_run_application(row.program, "", true), row.run) << row.program;
    EXPECT_EQ(os_system_invoke_command((std::string("./") + row.program).c_str()), row.invoke) << row.program;
  }
  EXPECT_FALSE(os_system_run_application("ostk-missing", "", true) || os_system_run_application(nullptr, "", true));
  // Found locally the line is argv[0] only, elsewhere it is argv[1]: intended. Never split.
  writeFile("argecho", "#!/bin/sh\nprintf '%s|%s' \"$#\" \"$1\" > args");
  chmod("argecho", 0755);
  EXPECT_TRUE(os_system_run_application("argecho", "one two  three", true));
  EXPECT_EQ(readFile("args"), "0|");
  EXPECT_TRUE(os_system_run_application((dir / "argecho").c_str(), "one two  three", true));
  EXPECT_EQ(readFile("args"), "1|one two  three");
}

TEST(OS_System, StartWithoutWaitingAnswersTrueWheneverTheChildStarted) {
  // A missing program's child exits at once: seen before the answer or not, the answer is the same.
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(os_system_run_application("ostk-missing", "", false)) << i;
  while (waitpid(-1, nullptr, 0) > 0) continue;  // every child reaped
}

TEST(OS_System, EnvironmentAppendModeEmptiesAVariableHoldingTheValue) {
  const char* name = "OSTRELLED_TEST_PATH";
  DWORD size = 0;
  EXPECT_FALSE(os_system_get_os_environmentVariable(name, nullptr, size));
  // A value already there, even inside another, empties the variable: intended.
  const struct {
    const char* value;
    bool replace;
    const char* expected;
  } steps[] = {{"/usr/bin", false, "/usr/bin"}, {"/opt/bin", false, "/usr/bin:/opt/bin"},
               {"/opt/bin", false, ""},         {"/opt/bin2", false, "/opt/bin2"},
               {"/opt/bin", false, ""},         {"/x", true, "/x"}};
  for (const auto& step : steps) {
    os_system_set_os_environmentVariable(name, step.value, step.replace);
    EXPECT_STREQ(getenv(name), step.expected) << step.value;
  }
  EXPECT_TRUE(os_system_get_os_environmentVariable(name, nullptr, size) && size == 3);
  unsetenv(name);
}

TEST(OS_System, BrokenPipesFailWithEpipe) {
  EXPECT_EQ(runChild([] {
              os_system_close_exception();
              struct sigaction current {};
              int fds[2];
              if (sigaction(SIGPIPE, nullptr, &current) != 0 || pipe(fds) != 0) return 2;
              close(fds[0]);
              // A handler rather than SIG_IGN, so that exec'd programs get the default back.
              return current.sa_handler != SIG_IGN && write(fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 3;
            }),
            0);
}
