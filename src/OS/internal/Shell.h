#ifndef OSTRELLED_SRC_OS_INTERNAL_SHELL_H
#define OSTRELLED_SRC_OS_INTERNAL_SHELL_H

// The one way the library runs shell commands: templates, quoting and status;
// used by the folder and process sources.

#include <stdio.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "OS/internal/Private.h"

namespace ostrelled {
namespace internal {
namespace Shell {

// Where a template puts each %s, which decides how a text is protected.
enum class Quoting {
  // "%s": the shell's double quotes.
  DoubleQuotes,
  // '\''%s'\'' in an awk program that is itself in single quotes: a string of
  // that program handed to a second shell, which reads it in single quotes.
  AwkCommandInSingleQuotes
};

// A text as it must appear in the template so that every shell layer gives
// back exactly that text. Texts without " $ ` \ ' (and, for awk, newline)
// come back unchanged, so ordinary commands stay byte-identical to the template.
inline std::string quote(const char* text, Quoting quoting) {
  std::string out;
  if (text == nullptr) return out;
  for (const char* p = text; *p != '\0'; ++p) {
    const char c = *p;
    if (quoting == Quoting::DoubleQuotes) {
      // Inside double quotes these four keep a meaning; a backslash makes them plain.
      if (c == '"' || c == '$' || c == '`' || c == '\\') out += '\\';
      out += c;
      continue;
    }
    // Inner shell, single quotes: ' becomes '\'' ; awk string: \ and " are
    // escaped and a newline must be written \n ; outer shell, single quotes:
    // every ' (ours included) becomes '\'' again.
    switch (c) {
      case '\'':
        out += "'\\''\\\\'\\'''\\''";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// A relative path that begins with '-' as the tools must see it: behind "./",
// so that it names a file rather than an option. Other paths are kept as given.
inline std::string asOperand(const char* path) {
  std::string operand(path == nullptr ? "" : path);
  if (!operand.empty() && operand[0] == '-') operand.insert(0, "./");
  return operand;
}

// A command template: printf text with at most two %s, how it quotes them, and
// whether they are paths handed to a tool as operands.
struct Template {
  const char* format;
  Quoting quoting;
  bool paths;
};

// The library's commands.
constexpr Template kRemoveTree = {"rm \"%s\" -rf", Quoting::DoubleQuotes, true};
constexpr Template kMove = {"mv \"%s\" \"%s\"", Quoting::DoubleQuotes, true};  // source, destination
constexpr Template kCopyOverwriting = {"cp -arf \"%s\"/* \"%s\"", Quoting::DoubleQuotes, true};
// Answers "n" to cp's first question, so existing files are kept; the status
// that counts is awk's. When cp asks nothing and is gone before awk has written
// its answer, awk's write meets a broken pipe and the command fails: a race
// that belongs to this command as given.
constexpr Template kCopyKeeping = {"awk 'BEGIN { cmd=\"cp -ari '\\''%s'\\''/* '\\''%s'\\''/\";print \"n\"|cmd;}'",
                                   Quoting::AwkCommandInSingleQuotes, true};
// A process name, not a path: killall takes it as it is.
constexpr Template kKill = {"killall -9 \"%s\"", Quoting::DoubleQuotes, false};

// The command of a template whose %s are filled, in order, with the quoted
// texts (a null text counts as empty; paths are made operands first). The
// buffer is sized from the template and the quoted texts, so nothing is cut.
inline std::string formatCommand(const Template& command, std::initializer_list<const char*> texts) {
  std::vector<std::string> quoted;
  size_t size = std::string(command.format).size() + 1;
  for (const char* text : texts) {
    const std::string operand = command.paths ? asOperand(text) : std::string(text == nullptr ? "" : text);
    quoted.push_back(quote(operand.c_str(), command.quoting));
    size += quoted.back().size();
  }
  quoted.resize(2);  // unused slots are ignored by the format
  std::vector<char> buffer(size, '\0');
  snprintf(buffer.data(), buffer.size(), command.format, quoted[0].c_str(), quoted[1].c_str());
  return std::string(buffer.data());
}

// The status rule: system() ran, the command was not ended by a signal and
// exited with status 0.
inline bool statusSucceeded(int status) { return exitStatusOf(status) == 0; }

// system(command) judged by the status rule.
bool runCommand(const char* command);

// formatCommand, then runCommand.
bool run(const Template& command, std::initializer_list<const char*> texts);

}  // namespace Shell
}  // namespace internal
}  // namespace ostrelled

#endif
