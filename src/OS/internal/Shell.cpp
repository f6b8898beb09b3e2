// The shell runner: one system() call, its status read one way.

#include "OS/internal/Shell.h"

#include <stdlib.h>

namespace ostrelled {
namespace internal {
namespace Shell {

bool runCommand(const char* command) { return statusSucceeded(system(command)); }

bool run(const Template& command, std::initializer_list<const char*> texts) {
  const std::string text = formatCommand(command, texts);
  return runCommand(text.c_str());
}

}  // namespace Shell
}  // namespace internal
}  // namespace ostrelled
