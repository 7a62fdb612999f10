// vxadmin: the administration tool.  It hosts the queue manager in its own
// process and drives it only through the library's exported calls: every
// administrative command is a vxExecute to the command server, put and get
// are VXPUT1 and VXGET.  The command server is one that already reads the
// command queue (serve and start run one of their own, with a pid file and
// a log in the data directory), else one hosted in the process.
//
// The commands are the rows of one table (commands.cpp); this file makes
// the parser from it, reads command lines (the program's, or a shell's) and
// hands each outcome to the renderer.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <new>
#include <optional>

#include "commands.h"
#include "render.h"

namespace vxadmin {
namespace {

constexpr StatusRow kStatuses[] = {
    {kOk, "success"},
    {kFailure, "failure: the command failed, and standard error says why"},
    {kUsage, "usage error: an unknown command or option, or a bad or missing value"},
    {kNotFound,
     "not found: no such queue, no queue matches the pattern, or (stop) no command "
     "server runs"},
    {kNoMessage, "no message: get found the queue empty"},
    {kPartial, "partial result: get --count N got fewer than N messages, or a put warned"},
};

// Edit distance between two words, a swap of neighbours counting one, for
// "did you mean" suggestions.
size_t editDistance(const std::string &a, const std::string &b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i)
    for (size_t j = 1; j <= b.size(); ++j) {
      d[i][j] = std::min(
          {d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  return d[a.size()][b.size()];
}

// The candidate nearest `word`, or "" when none is near enough to be what
// was meant: one edit in a short word, two in a longer one, three in a
// long one.
std::string nearest(const std::string &word, const std::vector<std::string> &candidates) {
  const size_t length = word.size() - std::min(word.find_first_not_of('-'), word.size());
  const size_t allowed = length <= 4 ? 1 : length <= 8 ? 2 : 3;
  std::string best;
  size_t bestDistance = allowed + 1;
  for (const std::string &candidate : candidates) {
    size_t distance = editDistance(word, candidate);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best;
}

// The chain of parsed commands ("create queue") and the last of them.
CLI::App *leafOf(CLI::App &app, std::string *path) {
  CLI::App *leaf = &app;
  for (;;) {
    std::vector<CLI::App *> parsed = leaf->get_subcommands();
    if (parsed.empty()) return leaf;
    leaf = parsed[0];
    *path += (path->empty() ? "" : " ") + leaf->get_name();
  }
}

std::vector<std::string> optionNames(CLI::App *leaf) {
  std::vector<std::string> names;
  for (CLI::App *app = leaf; app; app = app->get_parent())
    for (const CLI::Option *option : app->get_options())
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::vector<std::string> commandNames(CLI::App *app) {
  std::vector<std::string> names;
  for (CLI::App *sub : app->get_subcommands({})) names.push_back(sub->get_name());
  return names;
}

// "(did you mean 'create'?)" when a word is near, else where to look.
std::string suggestion(const std::string &word, const std::vector<std::string> &candidates,
                       const std::string &path) {
  std::string near = nearest(word, candidates);
  if (!near.empty()) return " (did you mean '" + near + "'?)";
  return " (see vxadmin " + (path.empty() ? "" : path + " ") + "--help)";
}

// The parser of one command line, made from the command table.
struct Parser {
  CLI::App app{"vxadmin: administers the queue manager of this machine", "vxadmin"};
  Arguments args;
  const bool inShell;
  std::map<const CLI::App *, const Command *> commandOf;

  explicit Parser(bool inShell) : inShell(inShell) {
    app.set_help_flag("-h,--help", "print this help and exit");
    configure(&app);
    addGlobalOptions(&app, args.global, inShell);
    if (!inShell) app.add_flag("--version", args.version, "print vxadmin's version and exit");
    for (const Command &command : commands()) {
      if (inShell && (command.flags & kNotInShell)) continue;
      CLI::App *node = &app;
      std::string path = command.path;
      for (size_t start = 0; start < path.size();) {
        size_t end = std::min(path.find(' ', start), path.size());
        std::string word = path.substr(start, end - start);
        start = end + 1;
        const bool last = end == path.size();
        CLI::App *sub = nullptr;
        for (CLI::App *existing : node->get_subcommands({}))
          if (existing->get_name() == word) sub = existing;
        if (!sub) {
          sub = node->add_subcommand(word, last ? command.summary : groupSummary(word));
          configure(sub);
          addGlobalOptions(sub, args.global, inShell);
        }
        node = sub;
      }
      command.define(node, args);
      commandOf[node] = &command;
    }
    // Set last: the commands would inherit it.
    std::string footer = "Exit status:\n";
    for (const StatusRow &row : kStatuses)
      footer += "  " + std::to_string(row.status) + "  " + row.meaning + "\n";
    app.footer(footer);
  }

  // Makes the parser ready for another line of a shell: nothing given yet,
  // every value back to its default but the shell's own global options.
  void reset(const GlobalOptions &shell) {
    app.clear();
    args = Arguments{};
    args.global = shell;
  }

  static void configure(CLI::App *node) {
    node->allow_extras();
    node->fallthrough();
  }

  static std::string groupSummary(const std::string &word) {
    for (const Group &group : groups())
      if (word == group.name) return group.summary;
    return "";
  }
};

// A parse error in vxadmin's words rather than the parser's.  The messages
// of vxadmin's own checks (a range, a value name) pass as they are.
std::string parseMessage(const CLI::ParseError &error) {
  const std::string message = error.what();
  const size_t colon = message.find(": ");
  const std::string name = colon == std::string::npos ? "" : message.substr(0, colon);
  auto endsWith = [&](const std::string &tail) {
    return message.size() >= tail.size() &&
           message.compare(message.size() - tail.size(), tail.size(), tail) == 0;
  };
  if (dynamic_cast<const CLI::ValidationError *>(&error)) return message;
  if (dynamic_cast<const CLI::RequiredError *>(&error) && endsWith(" is required"))
    return "missing argument " + message.substr(0, message.size() - 12);
  if (dynamic_cast<const CLI::ArgumentMismatch *>(&error)) {
    if (message.find(": At Most ") != std::string::npos) return name + ": given more than once";
    if (endsWith(" missing")) return name + ": missing value";
  }
  // "Could not convert: --purge = maybe", and the like of a flag.
  const std::string convert = "Could not convert: ";
  if (dynamic_cast<const CLI::ConversionError *>(&error) && message.rfind(convert, 0) == 0) {
    const std::string rest = message.substr(convert.size());
    const size_t equals = rest.find(" = ");
    if (equals != std::string::npos)
      return rest.substr(0, equals) + ": takes no value (not '" + rest.substr(equals + 3) + "')";
  }
  return "the words cannot be read as a command";
}

// The words after "help" that name a command: the parser would take them
// for the command itself, so they are taken out first.
std::vector<std::string> takeTopic(const CLI::App &app, std::vector<std::string> *words) {
  std::vector<std::string> topic;
  for (size_t i = 0; i < words->size(); ++i) {
    const std::string &word = (*words)[i];
    if (word.size() > 1 && word[0] == '-') {
      const CLI::Option *option = app.get_option_no_throw(word);
      if (option && option->get_expected_min() > 0) ++i;  // the option's value
      continue;
    }
    if (word != "help") break;
    for (auto next = words->begin() + static_cast<std::ptrdiff_t>(i) + 1; next != words->end();)
      if (next->empty() || (*next)[0] != '-') {
        topic.push_back(*next);
        next = words->erase(next);
      } else {
        ++next;
      }
    break;
  }
  return topic;
}

// Parses one command line (the words after "vxadmin") and carries it out;
// the outcome holds its text for people.
Outcome runCommand(Parser &parser, std::vector<std::string> words, Session *session,
                   std::istream *commandInput) {
  std::vector<std::string> topic = takeTopic(parser.app, &words);
  std::reverse(words.begin(), words.end());
  std::string path;
  try {
    parser.app.parse(words);
  } catch (const CLI::CallForHelp &) {
    return Outcome::ofText(parser.app.help());
  } catch (const CLI::ParseError &error) {
    leafOf(parser.app, &path);
    return {kUsage, (path.empty() ? "" : path + ": ") + parseMessage(error)};
  }
  CLI::App *leaf = leafOf(parser.app, &path);
  const std::string prefix = path.empty() ? "" : path + ": ";
  std::vector<std::string> extra = parser.app.remaining(true);
  if (!extra.empty()) {
    const std::string &word = extra[0];
    if (word.size() > 1 && word[0] == '-') {
      std::string option = word.substr(0, word.find('='));
      return {kUsage, prefix + "unknown option '" + option + "'" +
                          suggestion(option, optionNames(leaf), path)};
    }
    if (parser.inShell && leaf == &parser.app)
      for (const Command &command : commands())
        if ((command.flags & kNotInShell) && word == command.path)
          return {kUsage, "'" + word + "' is not a command of a shell: run vxadmin " + word};
    if (!leaf->get_subcommands({}).empty())
      return {kUsage, prefix + "unknown command '" + word + "'" +
                          suggestion(word, commandNames(leaf), path)};
    return {kUsage, prefix + "unexpected argument '" + word + "'"};
  }
  Arguments &args = parser.args;
  args.topic = topic;
  if (args.version) return Outcome::ofText(std::string("vxadmin ") + VX_VERSION + "\n");
  auto found = parser.commandOf.find(leaf);
  if (found == parser.commandOf.end()) {
    std::string list;
    for (const std::string &name : commandNames(leaf)) list += (list.empty() ? "" : ", ") + name;
    return {kUsage, prefix + "missing command: one of " + list + " (see vxadmin " + path +
                        (path.empty() ? "" : " ") + "--help)"};
  }
  const Command &command = *found->second;
  args.global.waitGiven = args.global.waitGiven || optionGiven(leaf, "--wait");
  if (!parser.inShell) args.global.dataGiven = optionGiven(leaf, "--data");
  // The program's own line makes the session; a shell's lines share the
  // shell's.
  std::optional<Session> own;
  if (!session) session = &own.emplace(args.global);
  Invocation invocation{args, parser.app, leaf, *session, commandInput};
  Outcome outcome;
  try {
    if (session->direct() && (command.flags & kNeedsServer))
      return {kUsage, path + ": --direct works without the command server; this command needs it"};
    session->setLineOptions(args.global);
    outcome = command.run(invocation);
  } catch (const Outcome &thrown) {
    outcome = thrown;
  } catch (const UsageError &error) {
    outcome = {kUsage, prefix + error.message};
  }
  if (outcome.document && command.render) outcome.text = command.render(*outcome.document);
  outcome.confirmation = (command.flags & kConfirms) != 0;
  return outcome;
}

// Splits a line into words: blanks separate them, single and double quotes
// group, a backslash takes the next character as it is, and a '#' that
// begins a word begins a comment.
std::vector<std::string> splitLine(const std::string &line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (quote) {
      if (c == quote)
        quote = 0;
      else if (c == '\\' && quote == '"' && i + 1 < line.size())
        word += line[++i];
      else
        word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == '\\' && i + 1 < line.size()) {
      word += line[++i];
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\r') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else if (c == '#' && !inWord) {
      break;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (quote) throw UsageError{"unterminated quote"};
  if (inWord) words.push_back(word);
  return words;
}

// The line without its blanks at either end, as a JSON line names it.
std::string stripped(const std::string &line) {
  size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::span<const StatusRow> statuses() { return kStatuses; }

Outcome runShell(Invocation &invocation) {
  const Arguments &args = invocation.args;
  std::ifstream file;
  std::istream *in = &std::cin;
  std::string source = "line ";
  if (invocation.given("FILE")) {
    file.open(args.shellFile);
    if (!file) throw UsageError{args.shellFile + ": " + std::strerror(errno)};
    in = &file;
    source = args.shellFile + ":";
  }
  // A person types the commands: each gets a prompt, on standard error so
  // that standard output holds only what the commands write.
  const bool prompt = in == &std::cin && isatty(STDIN_FILENO);
  int status = kOk;
  std::string line;
  Parser lineParser(true);
  for (int number = 1;; ++number) {
    if (prompt) std::cerr << "vxadmin> " << std::flush;
    if (!std::getline(*in, line)) break;
    Outcome outcome;
    try {
      std::vector<std::string> words = splitLine(line);
      if (words.empty()) continue;
      if (args.echo) std::cout << "vxadmin> " << line << std::endl;
      lineParser.reset(args.global);
      outcome = runCommand(lineParser, words, &invocation.session, in);
    } catch (const UsageError &error) {
      outcome = {kUsage, error.message};
    }
    GlobalOptions lineOptions = lineParser.args.global;
    render(
        outcome, lineOptions,
        Origin{source + std::to_string(number) + ": ", number, stripped(line), args.global.json});
    if (status == kOk) status = outcome.status;
    if (outcome.status != kOk && !args.keepGoing) break;
  }
  if (prompt) std::cerr << "\n";
  return {status, ""};
}

}  // namespace vxadmin

int main(int argc, char **argv) {
  using namespace vxadmin;
  std::vector<std::string> words(argv + 1, argv + argc);
  Outcome outcome;
  GlobalOptions options;
  try {
    Parser parser(false);
    outcome = runCommand(parser, words, nullptr, nullptr);
    options = parser.args.global;
  } catch (const Outcome &thrown) {
    outcome = thrown;
  } catch (const UsageError &error) {
    outcome = {kUsage, error.message};
  } catch (const std::bad_alloc &) {
    outcome = {kFailure, "not enough memory"};
  }
  render(outcome, options, Origin{});
  return outcome.status;
}
