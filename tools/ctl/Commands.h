#ifndef OSTRELLED_TOOLS_CTL_COMMANDS_H
#define OSTRELLED_TOOLS_CTL_COMMANDS_H

// The inspection tool's three commands, once their arguments are parsed; each
// returns the process's exit status.

#include <string>
#include <vector>

namespace ctl {

// 0 when a manager answers, 1 otherwise.
int runStatus();
// 0, also when there is nothing to list.
int runList(bool json);
// 0 when every name was removed, 1 when one was refused or not found.
int runRemove(const std::vector<std::string>& names, bool force);

}  // namespace ctl

#endif
