// Processes, shell commands, environment variables, SIGPIPE and the root check.

#include <ostrelled/OS_System.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostrelled/StringAssistant.h>

#include "OS/internal/Private.h"
#include "OS/internal/Shell.h"

namespace internal = ostrelled::internal;

namespace {

constexpr int kCouldNotStart = 255;  // what _exit(-1) shows the parent

void ignorePipeException(int /*sig*/) {}

inline std::string textOrEmpty(const char* text) { return text == nullptr ? std::string() : std::string(text); }

}  // namespace

bool os_system_run_application(const char* strApplicationName, const char* strCommandLine, bool bBlockParent) {
  // Everything the child needs is built before vfork: the child shares our
  // memory and may only exec or _exit.
  const std::string name = textOrEmpty(strApplicationName);
  const std::string commandLine = textOrEmpty(strCommandLine);
  const std::string local = "./" + name;
  const pid_t pid = vfork();
  if (pid == -1) return false;
  if (pid == 0) {
    // The two argument vectors differ on purpose: the local program sees the
    // command line as argv[0], the PATH one as argv[1] after its name.
    execl(local.c_str(), commandLine.c_str(), static_cast<char*>(nullptr));
    execlp(name.c_str(), name.c_str(), commandLine.c_str(), static_cast<char*>(nullptr));
    _exit(-1);
  }
  int status = 0;
  internal::retryOnEintr([&] { return waitpid(pid, &status, bBlockParent ? 0 : WNOHANG); });
  // A start that does not wait has one answer, the child was started: whether
  // its exit is already visible here is a matter of timing, not of the start.
  if (!bBlockParent) return true;
  int exitStatus = internal::exitStatusOf(status);
  return exitStatus != -1 && exitStatus != kCouldNotStart;
}

bool os_system_kill_application(const char* strApplicationName) {
  return internal::Shell::run(internal::Shell::kKill, {strApplicationName});
}

bool os_system_invoke_command(const char* strCommand) { return internal::Shell::runCommand(strCommand); }

bool os_system_get_os_environmentVariable(const char* strEnvironmentVariableName, char* strEnvironmentVariableValue,
                                          const DWORD& dwLen) {
  if (strEnvironmentVariableName == nullptr) return false;
  const char* value = getenv(strEnvironmentVariableName);
  if (value == nullptr) return false;
  // The interface declares dwLen const, yet the length is written back through it.
  return internal::deliverText(value, strEnvironmentVariableValue, dwLen);
}

void os_system_set_os_environmentVariable(const char* strEnvironmentVariableName,
                                          const char* strEnvironmentVariableValue, bool bReplace) {
  if (strEnvironmentVariableName == nullptr) return;
  const std::string given = textOrEmpty(strEnvironmentVariableValue);
  std::string current;
  OS::System::getOSEnvironmentVariable(strEnvironmentVariableName, current);
  std::string value;
  if (bReplace || current.empty()) {
    value = given;
  } else if (current.find(given) == std::string::npos) {
    value = current + ":" + given;
  }
  // A value already contained in the current text leaves the variable empty:
  // that is the append mode's defined result and it is kept.
  setenv(strEnvironmentVariableName, value.c_str(), 1);
}

void os_system_close_exception() {
  // A handler rather than SIG_IGN, so that exec'd programs get the default back;
  // no SA_RESTART.
  struct sigaction action {};
  action.sa_handler = ignorePipeException;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGPIPE, &action, nullptr);
}

bool os_system_check_root_privileges() { return geteuid() == 0; }
