// The commands of vxadmin as one table: each has its path ("create queue"),
// a summary, its own options, what it does and how its result reads in a
// table.  The parser, --help, `help`, the completion scripts and the manual
// page are all made from it.
#ifndef VXADMIN_COMMANDS_H
#define VXADMIN_COMMANDS_H

#include <CLI/CLI.hpp>
#include <array>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "common.h"
#include "queue_attributes.h"
#include "session.h"

namespace vxadmin {

// The names of an enumerated attribute's values, separated by `separator`.
std::string valueNames(const vxqi::QueueAttribute &attribute, const std::string &separator);

// The values of the queue attributes' options given on one command line:
// one slot per row of the table of queue attributes.
struct QueueAttributes {
  static constexpr size_t kSlots = std::size(vxqi::kQueueAttributes);
  std::array<int32_t, kSlots> numbers{};
  std::array<std::string, kSlots> texts;
};

// Everything one command line may hold, bound to the options of the parser.
struct Arguments {
  GlobalOptions global;
  std::string name, toName, pattern, text, file, shellFile, shellName;
  int32_t priority = 0, count = 1;
  bool purge = false, browse = false, persistent = false, nonPersistent = false;
  bool keepGoing = false, echo = false, all = false, raw = false, base64 = false, man = false;
  bool version = false;
  std::vector<std::string> topic;
  QueueAttributes attributes;
};

// Whether the option was given to the command `leaf` or to a parent of it:
// before or after the command's words.
bool optionGiven(const CLI::App *leaf, const std::string &option);

// One parsed command line on its way to being carried out.
struct Invocation {
  Arguments &args;
  CLI::App &root;
  CLI::App *leaf;
  Session &session;
  std::istream *commandInput;  // a shell's commands, which put must not read as its data
  bool given(const std::string &option) const { return optionGiven(leaf, option); }
};

struct Command {
  const char *path;
  const char *summary;
  void (*define)(CLI::App *command, Arguments &args);
  Outcome (*run)(Invocation &invocation);
  // The document of run for people; null when run writes text itself.
  std::string (*render)(const Json &document);
  unsigned flags;
};

// Command flags.
constexpr unsigned kNotInShell = 1;   // not a command of a shell
constexpr unsigned kNeedsServer = 2;  // refused with --direct
constexpr unsigned kConfirms = 4;     // its text confirms what was done: -q drops it

std::span<const Command> commands();

// The words that group commands ("create") and what they do.
struct Group {
  const char *name;
  const char *summary;
};
std::span<const Group> groups();

// The options every command takes, on `command` under the heading "Global
// options"; `inShell` leaves out those a shell's lines cannot change.
void addGlobalOptions(CLI::App *command, GlobalOptions &options, bool inShell);

// shell: runs the lines of standard input or a file.
Outcome runShell(Invocation &invocation);
// help, completion: the help of a command, the manual page, the completion
// scripts; all from the parser `root` that the table made.
std::string helpText(CLI::App &root, const std::vector<std::string> &topic);
std::string manualPage(CLI::App &root);
std::string completionScript(CLI::App &root, const std::string &shell);

}  // namespace vxadmin

#endif  // VXADMIN_COMMANDS_H
