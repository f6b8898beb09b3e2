#ifndef OSTRELLED_OS_SYSTEM_H
#define OSTRELLED_OS_SYSTEM_H

#include <string>

#include <ostrelled/Types.h>

/// @file
/// Processes, shell commands, environment variables, SIGPIPE and the root check.

extern "C" {
/// Starts ./strApplicationName with argv {strCommandLine}, else the PATH lookup
/// with argv {name, strCommandLine} (the line is one argument, never split).
/// bBlockParent waits for the end. False for a signal or exit status 255 (also
/// "could not start"); true for every other status, and true for a child still
/// running without bBlockParent. A child started without waiting is never reaped.
OSTRELLED_EXPORT bool os_system_run_application(const char* strApplicationName, const char* strCommandLine,
                                                bool bBlockParent);
/// killall -9 on the name; false when no process of that name was found.
OSTRELLED_EXPORT bool os_system_kill_application(const char* strApplicationName);
/// system(strCommand); true exactly when it exited normally with status 0.
/// Output is not captured. A null command gives false while a shell exists.
OSTRELLED_EXPORT bool os_system_invoke_command(const char* strCommand);
/// Value of an environment variable by the text-buffer convention, dwLen written
/// back despite the const. False when the variable is unset or the name null.
OSTRELLED_EXPORT bool os_system_get_os_environmentVariable(const char* strEnvironmentVariableName,
                                                           char* strEnvironmentVariableValue, const DWORD& dwLen);
/// Sets or extends a variable, emptying it when the value to append already occurs in its
/// text (intended). bReplace true, or an unset/empty variable: sets the value. Otherwise
/// appends ":" + value. A null name does nothing; a null
/// value counts as empty.
OSTRELLED_EXPORT void os_system_set_os_environmentVariable(const char* strEnvironmentVariableName,
                                                           const char* strEnvironmentVariableValue, bool bReplace);
/// Installs a do-nothing SIGPIPE handler: writes to broken pipes fail with EPIPE
/// instead of ending the process; programs exec'd later get the default back.
OSTRELLED_EXPORT void os_system_close_exception();
/// True exactly when the effective user is root.
OSTRELLED_EXPORT bool os_system_check_root_privileges();
}

namespace OS {
/// C++ helpers over the os_system_* functions.
namespace System {
/// The variable's value into a string; false when unset.
inline bool getOSEnvironmentVariable(const std::string& strEnvironmentVariableName,
                                     std::string& strEnvironmentVariableValue) {
  DWORD dwLen = 0;
  if (!os_system_get_os_environmentVariable(strEnvironmentVariableName.c_str(), nullptr, dwLen) || dwLen == 0)
    return false;
  char* buffer = new char[dwLen];
  os_system_get_os_environmentVariable(strEnvironmentVariableName.c_str(), buffer, dwLen);
  strEnvironmentVariableValue = buffer;
  delete[] buffer;
  return true;
}
}  // namespace System
}  // namespace OS

#endif
