// vxadmin: the administration tool.  It hosts the queue manager and its
// command server in its own process and drives them only through the
// library's exported calls: every administrative command is a vxExecute to
// the command server, put and get are VXPUT1 and VXGET.
//
// Output is an aligned table for people, or with --json one JSON document
// per command whose keys are the attribute names of vxnames.  Errors go to
// standard error as one line; the exit status is 0 on success, 1 on a
// warning, 2 on a failure.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "command_server.h"
#include "vxai.h"
#include "vxnames.h"
#include "vxqi.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kOk = 0;
constexpr int kWarning = 1;
constexpr int kFailure = 2;

// Edit distance between two words, for "did you mean" suggestions.
size_t editDistance(const std::string &a, const std::string &b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string closest(const std::string &word, const std::vector<std::string> &candidates) {
  std::string best;
  size_t bestDistance = SIZE_MAX;
  for (const std::string &candidate : candidates) {
    size_t distance = editDistance(word, candidate);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best;
}

// A failure of the tool itself (bad arguments, a file that cannot be read),
// reported as one line and exit status 2.
struct UsageError {
  std::string message;
};

int32_t parseNumber(const std::string &option, const std::string &text) {
  errno = 0;
  char *end = nullptr;
  long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX)
    throw UsageError{option + ": '" + text + "' is not a number"};
  return static_cast<int32_t>(value);
}

// A named value of an attribute ("inhibited"), or its number.
int32_t parseValue(const std::string &option, int32_t selector, const std::string &text) {
  int32_t value = 0;
  if (vxnames::valueOf(selector, text, &value)) return value;
  std::string names;
  for (const vxnames::Value &entry : vxnames::values())
    if (entry.selector == selector) names += std::string(names.empty() ? "" : ", ") + entry.name;
  char *end = nullptr;
  errno = 0;
  long long number = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || number < INT32_MIN || number > INT32_MAX)
    throw UsageError{option + ": '" + text + "' is not one of " + names};
  return static_cast<int32_t>(number);
}

std::string trimmed(const char *text, size_t length) {
  std::string value(text, length);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\0')) value.pop_back();
  return value;
}

std::string hex(const char *bytes, size_t length) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < length; ++i) {
    auto byte = static_cast<unsigned char>(bytes[i]);
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
  }
  return out;
}

// A bag that is deleted with its owner.
class Bag {
 public:
  explicit Bag(int32_t options = BAG_OPT_ADMIN_BAG) {
    int32_t compCode, reason;
    vxCreateBag(options, &handle_, &compCode, &reason);
    if (compCode != CC_OK)
      throw UsageError{"a bag cannot be made: " + vxnames::describeReason(reason)};
  }
  ~Bag() {
    int32_t compCode, reason;
    vxDeleteBag(&handle_, &compCode, &reason);
  }
  Bag(const Bag &) = delete;
  Bag &operator=(const Bag &) = delete;
  VXHBAG get() const { return handle_; }
  void add(int32_t selector, int32_t value) {
    int32_t compCode, reason;
    vxAddInteger(handle_, selector, value, &compCode, &reason);
    check(compCode, reason);
  }
  void add(int32_t selector, const std::string &value) {
    int32_t compCode, reason;
    vxAddString(handle_, selector, static_cast<int32_t>(value.size()), value.data(), &compCode,
                &reason);
    check(compCode, reason);
  }

 private:
  static void check(int32_t compCode, int32_t reason) {
    if (compCode != CC_OK)
      throw UsageError{"a request cannot be built: " + vxnames::describeReason(reason)};
  }
  VXHBAG handle_ = BAG_NONE;
};

// The user items of a reply as a JSON object keyed by attribute name, in
// the reply's order; a string list becomes an array.
Json bagToJson(VXHBAG bag) {
  Json object = Json::object();
  int32_t count = 0, compCode, reason;
  vxCountItems(bag, SEL_ANY_USER_SELECTOR, &count, &compCode, &reason);
  for (int32_t i = 0; i < count; ++i) {
    int32_t selector = 0, type = 0;
    vxInquireItemInfo(bag, SEL_ANY_USER_SELECTOR, i, &selector, &type, &compCode, &reason);
    if (selector == PARM_ERROR_PARAMETER) continue;
    std::string key = vxnames::selectorKey(selector);
    const vxnames::Selector *entry = vxnames::findSelector(selector);
    Json value;
    if (type == ITEM_TYPE_INTEGER) {
      int32_t number = 0;
      vxInquireInteger(bag, SEL_ANY_USER_SELECTOR, i, &number, &compCode, &reason);
      const char *name = vxnames::valueName(selector, number);
      value = name ? Json(name) : Json(number);
    } else if (type == ITEM_TYPE_STRING) {
      int32_t length = 0;
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, 0, nullptr, &length, nullptr, &compCode,
                      &reason);
      std::string text(static_cast<size_t>(length), '\0');
      vxInquireString(bag, SEL_ANY_USER_SELECTOR, i, length, text.data(), &length, nullptr,
                      &compCode, &reason);
      value = trimmed(text.data(), text.size());
    } else {
      continue;
    }
    if (entry && entry->type == vxnames::ValueType::StringList) {
      if (!object.contains(key)) object[key] = Json::array();
      object[key].push_back(value);
    } else {
      object[key] = value;
    }
  }
  return object;
}

// Prints rows as columns separated by two blanks; the last column is not
// padded.
void printTable(std::ostream &out, const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows)
    for (size_t c = 0; c < row.size(); ++c) {
      if (widths.size() <= c) widths.push_back(0);
      widths[c] = std::max(widths[c], row[c].size());
    }
  for (const auto &row : rows) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
}

std::string cell(const Json &value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string upper(std::string text) {
  for (char &c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// An attribute-and-value table of one object.
void printObject(std::ostream &out, const Json &object) {
  std::vector<std::vector<std::string>> rows{{"ATTRIBUTE", "VALUE"}};
  for (const auto &[key, value] : object.items()) rows.push_back({key, cell(value)});
  printTable(out, rows);
}

// One row per object, the keys of the first as the heading.
void printRows(std::ostream &out, const Json &objects) {
  if (objects.empty()) return;
  std::vector<std::vector<std::string>> rows(1);
  for (const auto &[key, value] : objects[0].items()) rows[0].push_back(upper(key));
  for (const Json &object : objects) {
    rows.emplace_back();
    for (const auto &[key, value] : object.items()) rows.back().push_back(cell(value));
  }
  printTable(out, rows);
}

// The outcome of one command: its exit status, and the error or warning
// line (without the "vxadmin: " prefix) when there is one.
struct Outcome {
  int status = kOk;
  std::string message;
};

struct GlobalOptions {
  std::string qmgr = "QM1";
  std::string data;
  bool json = false;
  std::string wait;
};

// The queue manager and its command server in this process, and the
// connection the commands use; made on the first command that needs them.
class Session {
 public:
  explicit Session(const GlobalOptions &options) : options_(options) {}
  ~Session() {
    if (hconn_ != 0) {
      int32_t compCode, reason;
      VXDISC(&hconn_, &compCode, &reason);
    }
    vxcsStop(server_);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  VXHCONN connection() {
    if (hconn_ != 0) return hconn_;
    prepareDataDirectory();
    int32_t reason = vxcsStart(options_.qmgr.c_str(), &server_);
    if (reason != 0)
      throw Outcome{kFailure,
                    "queue manager " + options_.qmgr +
                        ": the command server does not start: " + vxnames::describeReason(reason)};
    char name[QM_NAME_LENGTH + 1] = {};
    std::strncpy(name, options_.qmgr.c_str(), QM_NAME_LENGTH);
    int32_t compCode;
    VXCONN(name, &hconn_, &compCode, &reason);
    if (compCode == CC_FAILED) {
      hconn_ = 0;
      throw Outcome{kFailure,
                    "queue manager " + options_.qmgr + ": " + vxnames::describeReason(reason)};
    }
    return hconn_;
  }

  const std::string &qmgr() const { return options_.qmgr; }
  const std::string &waitOption() const { return options_.wait; }
  // A command of a shell may give its own --wait.
  void setWait(const std::string &wait) { options_.wait = wait; }

 private:
  // The queue manager keeps its state in VXQM_DATA: --data, else the
  // variable, else the user's state directory.  Made with mode 0700.
  void prepareDataDirectory() {
    std::string dir = options_.data;
    if (dir.empty() && std::getenv("VXQM_DATA")) dir = std::getenv("VXQM_DATA");
    if (dir.empty()) {
      const char *state = std::getenv("XDG_STATE_HOME");
      const char *home = std::getenv("HOME");
      if (state && state[0] == '/')
        dir = std::string(state) + "/vxai";
      else if (home && home[0] == '/')
        dir = std::string(home) + "/.local/state/vxai";
      else
        throw Outcome{kFailure, "no data directory: give --data DIR or set VXQM_DATA"};
    }
    for (size_t slash = 1; slash <= dir.size(); ++slash) {
      if (slash != dir.size() && dir[slash] != '/') continue;
      std::string part = dir.substr(0, slash);
      if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
        throw Outcome{kFailure, "data directory " + dir + ": " + std::strerror(errno)};
    }
    struct stat info;
    if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
      throw Outcome{kFailure, "data directory " + dir + ": not a directory"};
    char *absolute = realpath(dir.c_str(), nullptr);
    if (absolute) {
      dir = absolute;
      std::free(absolute);
    }
    setenv("VXQM_DATA", dir.c_str(), 1);
  }

  GlobalOptions options_;
  vxcsSERVER *server_ = nullptr;
  VXHCONN hconn_ = 0;
};

// The replies of one command, each as a JSON object.
struct Replies {
  std::vector<Json> objects;
};

// Sends a command to the command server.  A failure (of the command or of
// vxExecute itself) becomes an Outcome that names the reason and, when the
// server names one, the parameter.
Replies execute(Session &session, const std::string &what, int32_t command, Bag &request) {
  VXHCONN hconn = session.connection();
  Bag reply;
  std::optional<Bag> options;
  if (!session.waitOption().empty()) {
    options.emplace();
    options->add(PARM_WAIT_INTERVAL, parseNumber("--wait", session.waitOption()));
  }
  int32_t compCode, reason;
  vxExecute(hconn, command, options ? options->get() : BAG_NONE, request.get(), reply.get(),
            HOBJ_NONE, HOBJ_NONE, &compCode, &reason);
  Replies replies;
  int32_t count = 0, cc, rc;
  vxCountItems(reply.get(), SEL_NESTED_REPLY_BAG, &count, &cc, &rc);
  std::string failure;
  for (int32_t i = 0; i < count; ++i) {
    VXHBAG nested = BAG_NONE;
    vxInquireBag(reply.get(), SEL_NESTED_REPLY_BAG, i, &nested, &cc, &rc);
    int32_t replyCompCode = CC_OK, replyReason = RC_NONE, parameter = 0;
    vxInquireInteger(nested, SEL_COMP_CODE, ITEM_INDEX_NONE, &replyCompCode, &cc, &rc);
    vxInquireInteger(nested, SEL_REASON, ITEM_INDEX_NONE, &replyReason, &cc, &rc);
    if (replyCompCode == CC_OK) {
      replies.objects.push_back(bagToJson(nested));
    } else if (failure.empty()) {
      failure = what + ": " + vxnames::describeReason(replyReason);
      vxInquireInteger(nested, PARM_ERROR_PARAMETER, ITEM_INDEX_NONE, &parameter, &cc, &rc);
      if (cc == CC_OK) failure += " (parameter " + vxnames::selectorKey(parameter) + ")";
    }
  }
  if (compCode == CC_OK) return replies;
  if (failure.empty()) failure = what + ": " + vxnames::describeReason(reason);
  throw Outcome{kFailure, failure};
}

// The attributes that create, change and copy take, as options.
struct QueueAttributes {
  std::string description;
  std::string maxDepth, maxMsgLength, defPriority, defPersistence, getState, putState;
  bool descriptionGiven = false;

  void addOptions(CLI::App *command) {
    command->add_option("--description", description, "description (at most 64 characters)");
    command->add_option("--max-depth", maxDepth, "maximum number of messages (0..999999999)")
        ->type_name("N");
    command
        ->add_option("--max-msg-length", maxMsgLength,
                     "maximum message length in bytes (0..104857600)")
        ->type_name("N");
    command->add_option("--def-priority", defPriority, "default priority (0..9)")->type_name("N");
    command->add_option("--def-persistence", defPersistence,
                        "default persistence: persistent or not_persistent");
    command->add_option("--get", getState, "gets: allowed or inhibited");
    command->add_option("--put", putState, "puts: allowed or inhibited");
  }

  void addTo(Bag &request, CLI::App *command) const {
    if (command->count("--description")) request.add(ATTR_Q_DESC, description);
    if (!maxDepth.empty()) request.add(ATTR_MAX_Q_DEPTH, parseNumber("--max-depth", maxDepth));
    if (!maxMsgLength.empty())
      request.add(ATTR_MAX_MSG_LENGTH, parseNumber("--max-msg-length", maxMsgLength));
    if (!defPriority.empty())
      request.add(ATTR_DEF_PRIORITY, parseNumber("--def-priority", defPriority));
    if (!defPersistence.empty())
      request.add(ATTR_DEF_PERSISTENCE,
                  parseValue("--def-persistence", ATTR_DEF_PERSISTENCE, defPersistence));
    if (!getState.empty())
      request.add(ATTR_INHIBIT_GET, parseValue("--get", ATTR_INHIBIT_GET, getState));
    if (!putState.empty())
      request.add(ATTR_INHIBIT_PUT, parseValue("--put", ATTR_INHIBIT_PUT, putState));
  }
};

// The type of an existing queue, which change and copy must name.
int32_t queueType(Session &session, const std::string &what, const std::string &name) {
  Bag request;
  request.add(ATTR_Q_NAME, name);
  request.add(PARM_Q_ATTRS, ATTR_Q_TYPE);
  Replies replies = execute(session, what, CMD_INQUIRE_Q, request);
  int32_t type = QTYPE_LOCAL;
  if (!replies.objects.empty() && replies.objects[0].contains("q_type"))
    vxnames::valueOf(ATTR_Q_TYPE, replies.objects[0]["q_type"].get<std::string>(), &type);
  return type;
}

// Everything one command line may hold, bound to the options of the parser.
struct Arguments {
  GlobalOptions global;
  std::string name, toName, pattern, text, file, type = "local", wait, count;
  std::string priority;
  bool purge = false, browse = false, nonPersistent = false, keepGoing = false, echo = false;
  QueueAttributes attributes;
  std::string shellFile;
};

struct Parser {
  CLI::App app{"vxadmin: administers the queue manager of this machine", "vxadmin"};
  Arguments args;
  CLI::App *ping, *show, *showQmgr, *showQueue, *create, *createQueue, *change, *changeQueue, *copy,
      *copyQueue, *del, *deleteQueue, *clear, *clearQueue, *list, *listQueues, *status, *put, *get,
      *shell;

  explicit Parser(bool inShell) {
    app.allow_extras();
    app.set_help_flag("-h,--help", "print this help and exit");
    if (!inShell) {
      app.add_option("--qmgr", args.global.qmgr, "queue manager name (default QM1)")
          ->type_name("NAME");
      app.add_option("--data", args.global.data,
                     "data directory (default $VXQM_DATA, $XDG_STATE_HOME/vxai or "
                     "~/.local/state/vxai)")
          ->type_name("DIR");
    }
    app.add_flag("--json", args.global.json, "write one JSON document per command");
    app.add_option("--wait", args.global.wait,
                   "milliseconds to wait for the command server's replies (default 30000)")
        ->type_name("MS");

    ping = command(&app, "ping", "check that the command server answers");
    show = command(&app, "show", "show the queue manager or a queue");
    showQmgr = command(show, "qmgr", "show the queue manager's attributes");
    showQueue = command(show, "queue", "show every attribute of a queue");
    showQueue->add_option("NAME", args.name, "queue name")->required();
    create = command(&app, "create", "create an object");
    createQueue = command(create, "queue", "create a queue");
    createQueue->add_option("NAME", args.name, "queue name")->required();
    createQueue->add_option("--type", args.type, "local or model (default local)");
    args.attributes.addOptions(createQueue);
    change = command(&app, "change", "change an object");
    changeQueue = command(change, "queue", "change a queue's attributes");
    changeQueue->add_option("NAME", args.name, "queue name")->required();
    args.attributes.addOptions(changeQueue);
    copy = command(&app, "copy", "copy an object");
    copyQueue = command(copy, "queue", "make a queue with the attributes of another");
    copyQueue->add_option("FROM", args.name, "queue copied")->required();
    copyQueue->add_option("TO", args.toName, "queue made")->required();
    args.attributes.addOptions(copyQueue);
    del = command(&app, "delete", "delete an object");
    deleteQueue = command(del, "queue", "delete a queue");
    deleteQueue->add_option("NAME", args.name, "queue name")->required();
    deleteQueue->add_flag("--purge", args.purge, "delete the queue's messages too");
    clear = command(&app, "clear", "remove messages");
    clearQueue = command(clear, "queue", "remove every message of a queue");
    clearQueue->add_option("NAME", args.name, "queue name")->required();
    list = command(&app, "list", "list objects");
    listQueues = command(list, "queues", "list the names of queues");
    listQueues->add_option("PATTERN", args.pattern, "name or prefix followed by * (default *)");
    status = command(&app, "status", "show the depth and open counts of queues");
    status->add_option("PATTERN", args.pattern, "name or prefix followed by * (default *)");
    put = command(&app, "put", "put a message on a queue");
    put->add_option("QUEUE", args.name, "queue name")->required();
    put->add_option("TEXT", args.text, "message text (default: standard input)");
    put->add_option("--file", args.file, "read the message from a file");
    put->add_flag("--non-persistent", args.nonPersistent, "put a non-persistent message");
    put->add_option("--priority", args.priority, "priority 0..9 (default: the queue's)")
        ->type_name("N");
    get = command(&app, "get", "get messages from a queue");
    get->add_option("QUEUE", args.name, "queue name")->required();
    get->add_option("--wait", args.wait, "milliseconds to wait for a message (default 0)")
        ->type_name("MS");
    get->add_flag("--browse", args.browse, "leave the messages on the queue");
    get->add_option("--count", args.count, "get up to this many messages (default 1)")
        ->type_name("N");
    if (!inShell) {
      shell = command(&app, "shell", "run commands from standard input or a file, one per line");
      shell->add_option("FILE", args.shellFile, "file of commands (default: standard input)");
      shell->add_flag("--keep-going", args.keepGoing, "go on after a failure");
      shell->add_flag("--echo", args.echo, "print each command before its output");
    } else {
      shell = nullptr;
    }
  }

  // Makes the parser ready for another command line: nothing given yet,
  // every value back to its default.  A shell parses each of its lines with
  // one parser: building the parser costs more than most commands do.
  void reset() {
    app.clear();
    args = Arguments{};
  }

  static CLI::App *command(CLI::App *parent, const std::string &name, const std::string &what) {
    CLI::App *sub = parent->add_subcommand(name, what);
    sub->allow_extras();
    sub->fallthrough();
    return sub;
  }
};

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

Outcome runParsed(Parser &parser, Session &session, std::istream *commandInput);

// Parses one command line (the words after "vxadmin") and carries it out.
Outcome runCommand(Parser &parser, std::vector<std::string> words, Session *session,
                   std::istream *commandInput) {
  std::reverse(words.begin(), words.end());
  try {
    parser.app.parse(words);
  } catch (const CLI::CallForHelp &) {
    std::cout << parser.app.help();
    return {};
  } catch (const CLI::ParseError &error) {
    std::string path;
    leafOf(parser.app, &path);
    std::string message = error.what();
    const std::string required = " is required";
    if (message.size() > required.size() &&
        message.compare(message.size() - required.size(), required.size(), required) == 0)
      message = "missing argument " + message.substr(0, message.size() - required.size());
    const std::string valueMissing = " missing";
    size_t colon = message.find(": 1 required ");
    if (colon != std::string::npos && message.size() > valueMissing.size() &&
        message.compare(message.size() - valueMissing.size(), valueMissing.size(), valueMissing) ==
            0)
      message = message.substr(0, colon) + ": missing value";
    return {kFailure, (path.empty() ? "" : path + ": ") + message};
  }
  std::string path;
  CLI::App *leaf = leafOf(parser.app, &path);
  std::vector<std::string> extra = parser.app.remaining(true);
  std::string prefix = path.empty() ? "" : path + ": ";
  if (!extra.empty()) {
    const std::string &word = extra[0];
    if (word.size() > 1 && word[0] == '-') {
      std::string option = word.substr(0, word.find('='));
      return {kFailure, prefix + "unknown option '" + option + "' (did you mean '" +
                            closest(option, optionNames(leaf)) + "'?)"};
    }
    if (!leaf->get_subcommands({}).empty()) {
      std::vector<std::string> names;
      for (CLI::App *sub : leaf->get_subcommands({})) names.push_back(sub->get_name());
      return {kFailure, prefix + "unknown command '" + word + "' (did you mean '" +
                            closest(word, names) + "'?)"};
    }
    return {kFailure, prefix + "unexpected argument '" + word + "'"};
  }
  if (!leaf->get_subcommands({}).empty()) {
    std::vector<std::string> names;
    for (CLI::App *sub : leaf->get_subcommands({})) names.push_back(sub->get_name());
    std::string list;
    for (const std::string &name : names) list += (list.empty() ? "" : ", ") + name;
    return {kFailure, prefix + "missing command: one of " + list + " (see --help)"};
  }
  if (!session) {
    Session own(parser.args.global);
    return runParsed(parser, own, commandInput);
  }
  return runParsed(parser, *session, commandInput);
}

void emit(const Parser &parser, const Json &document, const std::string &text) {
  if (parser.args.global.json)
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  else
    std::cout << text;
}

std::string readAll(std::istream &in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Outcome runShell(Parser &parser, Session &session);

Outcome putMessage(Parser &parser, Session &session, std::istream *commandInput) {
  const Arguments &args = parser.args;
  std::string data;
  if (parser.put->count("TEXT")) {
    data = args.text;
    if (parser.put->count("--file")) throw UsageError{"give either TEXT or --file"};
  } else if (parser.put->count("--file")) {
    std::ifstream file(args.file, std::ios::binary);
    if (!file) throw UsageError{args.file + ": " + std::strerror(errno)};
    data = readAll(file);
  } else {
    if (commandInput == &std::cin)
      throw UsageError{"give TEXT or --file (standard input holds the commands)"};
    data = readAll(std::cin);
  }
  std::string what = "put " + args.name;
  if (args.name.size() > Q_NAME_LENGTH)
    return {kFailure, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR)};
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = args.nonPersistent ? PERSISTENCE_NOT_PERSISTENT : PERSISTENCE_PERSISTENT;
  if (!args.priority.empty()) md.priority = parseNumber("--priority", args.priority);
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = PUT_NO_SYNCPOINT;
  int32_t compCode, reason;
  VXPUT1(hconn, &od, &md, &pmo, static_cast<int32_t>(data.size()), data.data(), &compCode, &reason);
  if (compCode == CC_FAILED) return {kFailure, what + ": " + vxnames::describeReason(reason)};
  Json document;
  document["q_name"] = args.name;
  document["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
  document["length"] = data.size();
  document["persistence"] = vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence);
  emit(parser, document,
       "put " + std::to_string(data.size()) + " bytes on " + args.name + " (" +
           document["persistence"].get<std::string>() + "), message id " +
           document["msg_id"].get<std::string>() + "\n");
  if (compCode == CC_WARNING) return {kWarning, what + ": " + vxnames::describeReason(reason)};
  return {};
}

Outcome getMessages(Parser &parser, Session &session) {
  const Arguments &args = parser.args;
  std::string what = (args.browse ? "browse " : "get ") + args.name;
  int32_t wait = args.wait.empty() ? 0 : parseNumber("--wait", args.wait);
  int32_t count = args.count.empty() ? 1 : parseNumber("--count", args.count);
  if (count < 1) throw UsageError{"--count: '" + args.count + "' is not a number of 1 or more"};
  if (wait < -1) throw UsageError{"--wait: '" + args.wait + "' is not -1 or more"};
  if (args.name.size() > Q_NAME_LENGTH)
    return {kFailure, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR)};
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  int32_t compCode, reason;
  VXHOBJ hobj = 0;
  VXOPEN(hconn, &od, args.browse ? OPEN_BROWSE : OPEN_INPUT_SHARED, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) return {kFailure, what + ": " + vxnames::describeReason(reason)};
  Json messages = Json::array();
  std::string text;
  std::vector<char> buffer(65536);
  Outcome outcome;
  for (int32_t got = 0; got < count;) {
    vxMSGDESC md = MD_DEFAULT;
    vxGETOPTS gmo = GMO_DEFAULT;
    gmo.options = GET_NO_SYNCPOINT | (wait != 0 ? GET_WAIT : 0);
    if (args.browse) gmo.options |= got == 0 ? GET_BROWSE_FIRST : GET_BROWSE_NEXT;
    gmo.waitInterval = wait;
    int32_t length = 0;
    VXGET(hconn, hobj, &md, &gmo, static_cast<int32_t>(buffer.size()), buffer.data(), &length,
          &compCode, &reason);
    if (reason == RC_MSG_TRUNCATED) {  // the message stays: get it again, whole
      buffer.resize(static_cast<size_t>(length));
      continue;
    }
    if (compCode == CC_FAILED) {
      if (got == 0)
        outcome = {kFailure, what + ": " + vxnames::describeReason(reason)};
      else if (parser.get->count("--count"))
        outcome = {kWarning, what + ": " + std::to_string(got) + " of " + std::to_string(count) +
                                 " messages: " + vxnames::describeReason(reason)};
      break;
    }
    ++got;
    std::string data(buffer.data(), static_cast<size_t>(length));
    Json message;
    message["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
    message["length"] = length;
    message["persistence"] = vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence)
                                 ? vxnames::valueName(ATTR_DEF_PERSISTENCE, md.persistence)
                                 : std::to_string(md.persistence);
    message["priority"] = md.priority;
    message["data"] = data;
    messages.push_back(message);
    text += data;
    if (data.empty() || data.back() != '\n') text += "\n";
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &compCode, &reason);
  if (!messages.empty()) {
    Json document;
    document["q_name"] = args.name;
    document["messages"] = messages;
    emit(parser, document, text);
  }
  return outcome;
}

Outcome runParsed(Parser &parser, Session &session, std::istream *commandInput) {
  const Arguments &args = parser.args;
  try {
    if (!args.global.wait.empty()) session.setWait(args.global.wait);
    if (parser.ping->parsed()) {
      Bag request;
      execute(session, "ping", CMD_PING, request);
      Json document;
      document["q_mgr_name"] = session.qmgr();
      document["command_server"] = "available";
      emit(parser, document, "queue manager " + session.qmgr() + ": the command server answers\n");
    } else if (parser.showQmgr->parsed()) {
      Bag request;
      Replies replies = execute(session, "show qmgr", CMD_INQUIRE_Q_MGR, request);
      Json document = replies.objects.empty() ? Json::object() : replies.objects[0];
      std::ostringstream text;
      printObject(text, document);
      emit(parser, document, text.str());
    } else if (parser.showQueue->parsed()) {
      Bag request;
      request.add(ATTR_Q_NAME, args.name);
      request.add(PARM_Q_ATTRS, PARM_ALL);
      if (args.name.find('*') != std::string::npos)
        throw Outcome{kFailure, "show queue " + args.name + ": " +
                                    vxnames::describeReason(RC_OBJECT_NAME_ERROR) +
                                    " (a pattern: use list queues or status)"};
      Replies replies = execute(session, "show queue " + args.name, CMD_INQUIRE_Q, request);
      Json document = replies.objects.empty() ? Json::object() : replies.objects[0];
      std::ostringstream text;
      printObject(text, document);
      emit(parser, document, text.str());
    } else if (parser.createQueue->parsed() || parser.changeQueue->parsed() ||
               parser.copyQueue->parsed()) {
      CLI::App *sub = parser.createQueue->parsed()   ? parser.createQueue
                      : parser.changeQueue->parsed() ? parser.changeQueue
                                                     : parser.copyQueue;
      std::string verb = sub->get_parent()->get_name();
      std::string what = verb + " queue " + args.name;
      Bag request;
      int32_t command = CMD_CREATE_Q;
      if (sub == parser.createQueue) {
        int32_t type = parseValue("--type", ATTR_Q_TYPE, args.type);
        request.add(ATTR_Q_NAME, args.name);
        request.add(ATTR_Q_TYPE, type);
      } else if (sub == parser.changeQueue) {
        command = CMD_CHANGE_Q;
        int32_t type = queueType(session, what, args.name);
        request.add(ATTR_Q_NAME, args.name);
        request.add(ATTR_Q_TYPE, type);
      } else {
        command = CMD_COPY_Q;
        what += " " + args.toName;
        int32_t type = queueType(session, what, args.name);
        request.add(PARM_FROM_Q_NAME, args.name);
        request.add(PARM_TO_Q_NAME, args.toName);
        request.add(ATTR_Q_TYPE, type);
      }
      args.attributes.addTo(request, sub);
      execute(session, what, command, request);
      std::string done = verb == "create" ? "created" : verb == "change" ? "changed" : "copied";
      const std::string &name = sub == parser.copyQueue ? args.toName : args.name;
      Json document;
      document["q_name"] = name;
      document["result"] = done;
      emit(parser, document, "queue " + name + " " + done + "\n");
    } else if (parser.deleteQueue->parsed() || parser.clearQueue->parsed()) {
      bool isDelete = parser.deleteQueue->parsed();
      std::string verb = isDelete ? "delete" : "clear";
      Bag request;
      request.add(ATTR_Q_NAME, args.name);
      if (isDelete && args.purge) request.add(PARM_PURGE, 1);
      execute(session, verb + " queue " + args.name, isDelete ? CMD_DELETE_Q : CMD_CLEAR_Q,
              request);
      Json document;
      document["q_name"] = args.name;
      document["result"] = isDelete ? "deleted" : "cleared";
      emit(parser, document,
           "queue " + args.name + " " + document["result"].get<std::string>() + "\n");
    } else if (parser.listQueues->parsed()) {
      std::string pattern = args.pattern.empty() ? "*" : args.pattern;
      Bag request;
      request.add(ATTR_Q_NAME, pattern);
      Replies replies = execute(session, "list queues " + pattern, CMD_INQUIRE_Q_NAMES, request);
      Json names = Json::array();
      if (!replies.objects.empty() && replies.objects[0].contains("q_names"))
        names = replies.objects[0]["q_names"];
      Json document;
      document["q_names"] = names;
      std::vector<std::vector<std::string>> rows{{"Q_NAME"}};
      for (const Json &name : names) rows.push_back({name.get<std::string>()});
      std::ostringstream text;
      printTable(text, rows);
      emit(parser, document, text.str());
    } else if (parser.status->parsed()) {
      std::string pattern = args.pattern.empty() ? "*" : args.pattern;
      Bag request;
      request.add(ATTR_Q_NAME, pattern);
      Replies replies = execute(session, "status " + pattern, CMD_INQUIRE_Q_STATUS, request);
      Json queues = Json::array();
      for (const Json &object : replies.objects) queues.push_back(object);
      Json document;
      document["queues"] = queues;
      std::ostringstream text;
      printRows(text, queues);
      emit(parser, document, text.str());
    } else if (parser.put->parsed()) {
      return putMessage(parser, session, commandInput);
    } else if (parser.get->parsed()) {
      return getMessages(parser, session);
    } else if (parser.shell && parser.shell->parsed()) {
      return runShell(parser, session);
    } else {
      std::cerr << parser.app.help();
      return {kFailure, ""};
    }
  } catch (const Outcome &outcome) {
    return outcome;
  } catch (const UsageError &error) {
    std::string path;
    leafOf(parser.app, &path);
    return {kFailure, path + ": " + error.message};
  }
  return {};
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

Outcome runShell(Parser &parser, Session &session) {
  std::ifstream file;
  std::istream *in = &std::cin;
  std::string source = "line ";
  if (parser.shell->count("FILE")) {
    file.open(parser.args.shellFile);
    if (!file) return {kFailure, "shell: " + parser.args.shellFile + ": " + std::strerror(errno)};
    in = &file;
    source = parser.args.shellFile + ":";
  }
  int worst = kOk;
  std::string line;
  Parser lineParser(true);
  for (int number = 1; std::getline(*in, line); ++number) {
    Outcome outcome;
    try {
      std::vector<std::string> words = splitLine(line);
      if (words.empty()) continue;
      if (parser.args.echo) std::cout << "vxadmin> " << line << std::endl;
      if (parser.args.global.json) words.insert(words.begin(), "--json");
      lineParser.reset();
      outcome = runCommand(lineParser, words, &session, in);
    } catch (const UsageError &error) {
      outcome = {kFailure, error.message};
    }
    // Each command's output leaves as the command ends: whoever reads it (a
    // person at a terminal, a script at the other end of a pipe) sees what
    // is done even while later lines are still running.
    std::cout.flush();
    if (!outcome.message.empty())
      std::cerr << "vxadmin: " << source << number << ": " << outcome.message << "\n";
    worst = std::max(worst, outcome.status);
    if (outcome.status == kFailure && !parser.args.keepGoing) break;
  }
  return {worst, ""};
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  Outcome outcome;
  try {
    Parser parser(false);
    outcome = runCommand(parser, words, nullptr, nullptr);
  } catch (const Outcome &thrown) {
    outcome = thrown;
  } catch (const UsageError &error) {
    outcome = {kFailure, error.message};
  } catch (const std::exception &error) {
    outcome = {kFailure, error.what()};
  }
  if (!outcome.message.empty()) std::cerr << "vxadmin: " << outcome.message << "\n";
  return outcome.status;
}
