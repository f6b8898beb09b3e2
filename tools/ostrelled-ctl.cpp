// Inspects and cleans up the machine's named Ostrelled objects: whether the
// sync manager answers, which objects exist and who uses them, and removal of
// objects that no living process uses any more.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <ostrelled/Version.h>

#include "ctl/Commands.h"
#include "ctl/Inventory.h"

namespace {

const char kUsage[] =
    "Usage: ostrelled-ctl COMMAND [OPTIONS]\n"
    "Inspects the named objects (mutexes, reader/writer mutexes, semaphores,\n"
    "events) of this machine and the sync manager that serves them.\n"
    "\n"
    "Commands:\n"
    "  status                     whether a manager serves, and the request lock\n"
    "  list [--json]              every named object, its users and its state\n"
    "  remove [--force] NAME...   remove objects that no living process uses\n"
    "\n"
    "  --version                  show the version\n"
    "  --help                     show this text; COMMAND --help shows one command\n"
    "\n"
    "Exit status: 0 on success, 1 when the command could not do what was asked\n"
    "(status: no manager serves; any command: this account may not use named\n"
    "objects), 2 on bad usage.\n";

const char kStatusUsage[] =
    "Usage: ostrelled-ctl status\n"
    "Sends the manager one request that it answers and ignores, and reports\n"
    "whether it answered within 100 ms, how long the answer took, who holds\n"
    "the machine's request lock, who may use named objects, and every name or\n"
    "block whose mode or group was changed by hand. Exit status 0 when a manager\n"
    "serves, else 1.\n";

const char kListUsage[] =
    "Usage: ostrelled-ctl list [--json]\n"
    "One line per named object, tab-separated: NAME, KIND, ATTACHED (handles\n"
    "attached, in all processes), PIDS (the living processes other than the\n"
    "manager that use it, or -) and STATE: in-use, idle (nothing attached) or\n"
    "stale (attached, but by no living process: left by processes that died).\n"
    "Control characters in names are shown escaped (\\n, \\t, \\xNN).\n"
    "  --json  print a JSON array of objects with the keys name, kind,\n"
    "          attached, pids and state\n";

const char kRemoveUsage[] =
    "Usage: ostrelled-ctl remove [--force] NAME...\n"
    "Removes each named object that no living process other than the manager\n"
    "uses: through the manager when one serves, so that it forgets the object,\n"
    "else directly. An object in use is left alone with a message, and the exit\n"
    "status is then 1.\n"
    "  --force  remove objects in use (their users keep their own copy, but\n"
    "           new users get a new object), objects whose content is damaged, and\n"
    "           objects whose users cannot all be seen (run as root or as the\n"
    "           objects' user to see them all)\n";

int usageError(const char* message, const char* usage) {
  fprintf(stderr, "ostrelled-ctl: %s\n%s", message, usage);
  return 2;
}

// True when the arguments after the command ask for help.
bool wantsHelp(int argc, char** argv) {
  for (int i = 2; i < argc; ++i)
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return true;
  return false;
}

int statusCommand(int argc, char** /*argv*/) {
  if (argc > 2) return usageError("status takes no arguments", kStatusUsage);
  return ctl::runStatus();
}

int listCommand(int argc, char** argv) {
  bool json = false;
  for (int i = 2; i < argc; ++i) {
    if (strcmp(argv[i], "--json") != 0) return usageError("unknown option for list", kListUsage);
    json = true;
  }
  return ctl::runList(json);
}

int removeCommand(int argc, char** argv) {
  bool force = false, optionsEnded = false;
  std::vector<std::string> names;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (!optionsEnded && arg == "--force") {
      force = true;
    } else if (!optionsEnded && arg == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
      return usageError("unknown option for remove", kRemoveUsage);
    } else {
      names.push_back(arg);
    }
  }
  if (names.empty()) return usageError("remove needs at least one NAME", kRemoveUsage);
  return ctl::runRemove(names, force);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usageError("a command is needed", kUsage);
  std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") return fputs(kUsage, stdout), 0;
  if (command == "--version") return printf("ostrelled-ctl %s\n", OSTRELLED_VERSION_STRING), 0;
  struct Command {
    const char* name;
    const char* usage;
    int (*run)(int, char**);
  };
  const Command commands[] = {
      {"status", kStatusUsage, statusCommand},
      {"list", kListUsage, listCommand},
      {"remove", kRemoveUsage, removeCommand},
  };
  for (const Command& each : commands) {
    if (command != each.name) continue;
    if (wantsHelp(argc, argv)) return fputs(each.usage, stdout), 0;
    return each.run(argc, argv);
  }
  return usageError(("unknown command '" + ctl::printable(command) + "'").c_str(), kUsage);
}
