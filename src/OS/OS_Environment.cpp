// The path of the running executable.

#include <ostrelled/OS_Environment.h>

#include <unistd.h>

// No terminator is written and truncation is silent: callers terminate the text.
SSIZE_T os_environment_get_application_path(char* __buf, size_t __len) {
  return readlink("/proc/self/exe", __buf, __len);
}
