// The commands of vxadmin: one row each, in the order --help lists them.
#include "commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <istream>

#include "queue_fields.h"
#include "render.h"
#include "server.h"
#include "vxnames.h"
#include "vxqi.h"

namespace vxadmin {
namespace {

using vxqi::AttributeType;
using vxqi::QueueAttribute;
using vxqi::Setting;

// The attribute's slot in QueueAttributes: its row in the table.
size_t slotOf(const QueueAttribute &attribute) {
  return static_cast<size_t>(&attribute - vxqi::queueAttributes().data());
}

std::string rangeText(int64_t min, int64_t max) {
  if (max == INT32_MAX) return "a number of " + std::to_string(min) + " or more";
  return "a number from " + std::to_string(min) + " to " + std::to_string(max);
}

// A number from `min` to `max`, checked as typed: the message names the
// range rather than the parser's own words.
CLI::Validator integerIn(int32_t min, int32_t max) {
  return CLI::Validator(
      [min, max](std::string &text) -> std::string {
        errno = 0;
        char *end = nullptr;
        long long value = std::strtoll(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno != 0 || value < min || value > max)
          return "'" + text + "' is not " + rangeText(min, max);
        return "";
      },
      "");
}

// The name of an enumerated attribute's value, made its number.
CLI::Validator valueOf(const QueueAttribute &attribute) {
  return CLI::Validator(
      [&attribute](std::string &text) -> std::string {
        for (const vxqi::ValueName &named : attribute.values)
          if (text == named.name) {
            text = std::to_string(named.value);
            return "";
          }
        return "'" + text + "' is not one of " + valueNames(attribute, ", ");
      },
      "");
}

CLI::Validator longest(size_t length) {
  return CLI::Validator(
      [length](std::string &text) -> std::string {
        if (text.size() <= length) return "";
        return "it is " + std::to_string(text.size()) + " characters long, at most " +
               std::to_string(length) + " are allowed";
      },
      "");
}

// The options of the attributes that `setting` allows, from the table of
// queue attributes.
void addQueueOptions(CLI::App *command, Arguments &args, Setting setting) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (!attribute.option || attribute.setting != setting) continue;
    const size_t slot = slotOf(attribute);
    const std::string option = attribute.option;
    const std::string what = attribute.description;
    switch (attribute.type) {
      case AttributeType::Integer:
        command
            ->add_option(option, args.attributes.numbers[slot],
                         what + " (" + std::to_string(attribute.minimum) + " to " +
                             std::to_string(attribute.maximum) + ")")
            ->type_name("N")
            ->check(integerIn(attribute.minimum, attribute.maximum));
        break;
      case AttributeType::Enumerated:
        command
            ->add_option(option, args.attributes.numbers[slot],
                         what + " (" + valueNames(attribute, " or ") + ")")
            ->type_name("WORD")
            ->transform(valueOf(attribute));
        break;
      case AttributeType::String:
        command
            ->add_option(option, args.attributes.texts[slot],
                         what + " (at most " + std::to_string(attribute.length) + " characters)")
            ->type_name("TEXT")
            ->check(longest(static_cast<size_t>(attribute.length)));
        break;
    }
  }
}

// The attributes given as options that create, change and copy all take.
void addQueueAttributes(const Invocation &invocation, Bag &request) {
  const QueueAttributes &values = invocation.args.attributes;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (attribute.setting != Setting::OnCreateAndChange || !invocation.given(attribute.option))
      continue;
    if (attribute.type == AttributeType::String)
      request.add(attribute.selector, values.texts[slotOf(attribute)]);
    else
      request.add(attribute.selector, values.numbers[slotOf(attribute)]);
  }
}

// The attributes given as options, as the administration interface takes
// them.
vxqm::QueueChanges queueChanges(const Invocation &invocation) {
  const QueueAttributes &values = invocation.args.attributes;
  vxqm::QueueChanges changes;
  for (const vxqm::ChangeField &field : vxqm::kChangeFields) {
    const QueueAttribute &attribute = *vxqi::findQueueAttribute(field.selector);
    if (!invocation.given(attribute.option)) continue;
    if (field.text)
      changes.*field.text = values.texts[slotOf(attribute)];
    else
      changes.*field.integer = values.numbers[slotOf(attribute)];
  }
  return changes;
}

// An attribute's value as the command server's replies show it: the name
// of an enumeration's value, else the number.
Json attributeValue(const QueueAttribute &attribute, int32_t value) {
  for (const vxqi::ValueName &named : attribute.values)
    if (named.value == value) return named.name;
  return value;
}

// Fails with the reason of an administration call (--direct).
void checkDirect(const Session &session, const std::string &what, int32_t reason) {
  if (reason != RC_NONE) throw failure(session.qmgr(), what, reason);
}

bool isPattern(const std::string &name) { return name.find('*') != std::string::npos; }

// list and status when nothing matches: the same status and words for both.
Outcome noMatch(const std::string &what, const std::string &pattern, Json document) {
  return {kNotFound,
          what + ": " +
              (isPattern(pattern) ? "no queue matches " + pattern
                                  : vxnames::describeReason(RC_UNKNOWN_OBJECT_NAME)),
          std::move(document)};
}

// The queues whose names match `pattern`, without the reply queues of
// commands unless `all` (--direct).
std::vector<std::string> directQueues(Session &session, const std::string &what,
                                      const std::string &pattern, bool all) {
  std::vector<std::string> names;
  int32_t reason = vxqm::admin::listQueues(session.qmgr(), pattern, 0, &names);
  if (reason != RC_UNKNOWN_OBJECT_NAME) checkDirect(session, what, reason);
  if (!all) std::erase_if(names, [](const std::string &name) { return isReplyQueue(name); });
  return names;
}

Json done(const std::string &name, const char *result) {
  Json document;
  document["q_name"] = name;
  document["result"] = result;
  return document;
}

std::string renderDone(const Json &document) {
  return "queue " + document["q_name"].get<std::string>() + " " +
         document["result"].get<std::string>() + "\n";
}

std::string renderObject(const Json &document) { return objectTable(document); }

// ----- ping, show qmgr -------------------------------------------------------

Outcome runPing(Invocation &invocation) {
  Bag request;
  execute(invocation.session, "ping", CMD_PING, request);
  Json document;
  document["q_mgr_name"] = invocation.session.qmgr();
  document["command_server"] = "available";
  return Outcome(document);
}

std::string renderPing(const Json &document) {
  return "queue manager " + document["q_mgr_name"].get<std::string>() +
         ": the command server answers\n";
}

// The queue manager's attributes, inquired through the queue interface.
Json directQueueManager(Session &session) {
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  od.objectType = OBJTYPE_Q_MGR;
  VXHOBJ hobj = 0;
  int32_t compCode, reason;
  VXOPEN(hconn, &od, OPEN_INQUIRE, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) checkDirect(session, "show qmgr", reason);
  int32_t selectors[] = {ATTR_CODED_CHAR_SET_ID, ATTR_Q_MGR_NAME};
  int32_t ccsid = 0;
  char name[QM_NAME_LENGTH];
  VXINQ(hconn, hobj, 2, selectors, 1, &ccsid, QM_NAME_LENGTH, name, &compCode, &reason);
  int32_t cc, rc;
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  if (compCode == CC_FAILED) checkDirect(session, "show qmgr", reason);
  Json document;
  document[vxnames::selectorKey(ATTR_Q_MGR_NAME)] = trimmed(name, QM_NAME_LENGTH);
  document[vxnames::selectorKey(ATTR_CODED_CHAR_SET_ID)] = ccsid;
  return document;
}

Outcome runShowQmgr(Invocation &invocation) {
  Session &session = invocation.session;
  Json document;
  if (session.direct()) {
    session.openDirect();
    document = directQueueManager(session);
    document["command_server"] = "not used (--direct)";
  } else {
    Bag request;
    std::vector<Json> replies = execute(session, "show qmgr", CMD_INQUIRE_Q_MGR, request);
    if (!replies.empty()) document = replies[0];
    // Which command server answered, and where the data lives.
    document["command_server"] = session.hostsServer() ? "hosted" : "running";
    if (!session.hostsServer() && session.serverPid() > 0)
      document["command_server_pid"] = session.serverPid();
  }
  DataFiles files = session.files();
  document["data_directory"] = files.directory;
  document["database"] = files.database;
  return Outcome(document);
}

std::string renderShowQmgr(const Json &document) {
  Json shown = document;
  shown.erase("command_server_pid");
  if (document["command_server"] == "hosted")
    shown["command_server"] = "hosted by this vxadmin process";
  else if (document.contains("command_server_pid"))
    shown["command_server"] = "running (pid " + document["command_server_pid"].dump() + ")";
  else if (document["command_server"] == "running")
    shown["command_server"] = "running in another process";
  return objectTable(shown);
}

// ----- queues ---------------------------------------------------------------

void defineName(CLI::App *command, Arguments &args) {
  command->add_option("NAME", args.name, "queue name")->required();
}

void defineShowQueue(CLI::App *command, Arguments &args) { defineName(command, args); }

// The attributes of a queue and its status, with the administration
// interface (--direct).
Json directQueue(Session &session, const std::string &what, const std::string &name, bool show) {
  const std::string &qm = session.qmgr();
  vxqm::QueueDefinition definition;
  vxqm::QueueStatus status;
  int32_t reason = vxqm::admin::queueAttributes(qm, name, &definition);
  if (reason == RC_NONE) reason = vxqm::admin::queueStatus(qm, name, &status);
  if (reason == RC_UNKNOWN_OBJECT_NAME) return Json();  // deleted meanwhile
  checkDirect(session, what, reason);
  // The keys and their order are those of the command server's replies.
  Json object;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (!show && attribute.shown == vxqi::Shown::InShow) continue;
    const vxqm::QueueField &field = *vxqm::queueField(attribute.selector);
    if (field.text)
      object[attribute.key] = definition.*field.text;
    else if (field.integer)
      object[attribute.key] = attributeValue(attribute, definition.*field.integer);
    else
      object[attribute.key] = status.*field.status;
  }
  return object;
}

Outcome runShowQueue(Invocation &invocation) {
  const std::string &name = invocation.args.name;
  const std::string what = "show queue " + name;
  if (isPattern(name))
    return {kUsage, what + ": " + vxnames::describeReason(RC_OBJECT_NAME_ERROR) +
                        " (a pattern: use list queues or status)"};
  Session &session = invocation.session;
  if (session.direct()) {
    session.openDirect();
    Json object = directQueue(session, what, name, true);
    if (object.is_null()) checkDirect(session, what, RC_UNKNOWN_OBJECT_NAME);
    return Outcome(object);
  }
  Bag request;
  request.add(ATTR_Q_NAME, name);
  request.add(PARM_Q_ATTRS, PARM_ALL);
  std::vector<Json> replies = execute(session, what, CMD_INQUIRE_Q, request);
  return Outcome(replies.empty() ? Json::object() : replies[0]);
}

void defineCreateQueue(CLI::App *command, Arguments &args) {
  defineName(command, args);
  // A queue's type is given once, when it is made: copy makes one of the
  // type of the queue it copies.
  addQueueOptions(command, args, Setting::OnCreate);
  addQueueOptions(command, args, Setting::OnCreateAndChange);
}

void defineChangeQueue(CLI::App *command, Arguments &args) {
  defineName(command, args);
  addQueueOptions(command, args, Setting::OnCreateAndChange);
}

void defineCopyQueue(CLI::App *command, Arguments &args) {
  command->add_option("FROM", args.name, "queue copied")->required();
  command->add_option("TO", args.toName, "queue made")->required();
  addQueueOptions(command, args, Setting::OnCreateAndChange);
}

// The type of an existing queue, which change and copy must name.
int32_t queueType(Session &session, const std::string &what, const std::string &name) {
  Bag request;
  request.add(ATTR_Q_NAME, name);
  request.add(PARM_Q_ATTRS, ATTR_Q_TYPE);
  std::vector<Json> replies = execute(session, what, CMD_INQUIRE_Q, request);
  int32_t type = QTYPE_LOCAL;
  if (!replies.empty() && replies[0].contains("q_type"))
    vxnames::valueOf(ATTR_Q_TYPE, replies[0]["q_type"].get<std::string>(), &type);
  return type;
}

Outcome runCreateQueue(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string what = "create queue " + args.name;
  const QueueAttribute &typeRow = *vxqi::findQueueAttribute(ATTR_Q_TYPE);
  const int32_t type =
      invocation.given(typeRow.option) ? args.attributes.numbers[slotOf(typeRow)] : QTYPE_LOCAL;
  if (session.direct()) {
    session.openDirect();
    vxqm::QueueChanges changes = queueChanges(invocation);
    changes.queueType = type;
    checkDirect(session, what, vxqm::admin::createQueue(session.qmgr(), args.name, changes));
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, args.name);
    request.add(ATTR_Q_TYPE, type);
    addQueueAttributes(invocation, request);
    execute(session, what, CMD_CREATE_Q, request);
  }
  return Outcome(done(args.name, "created"));
}

Outcome runChangeQueue(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string what = "change queue " + args.name;
  if (session.direct()) {
    session.openDirect();
    checkDirect(session, what,
                vxqm::admin::changeQueue(session.qmgr(), args.name, queueChanges(invocation)));
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, args.name);
    request.add(ATTR_Q_TYPE, queueType(session, what, args.name));
    addQueueAttributes(invocation, request);
    execute(session, what, CMD_CHANGE_Q, request);
  }
  return Outcome(done(args.name, "changed"));
}

Outcome runCopyQueue(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string what = "copy queue " + args.name + " " + args.toName;
  if (session.direct()) {
    session.openDirect();
    checkDirect(
        session, what,
        vxqm::admin::copyQueue(session.qmgr(), args.name, args.toName, queueChanges(invocation)));
  } else {
    Bag request;
    request.add(PARM_FROM_Q_NAME, args.name);
    request.add(PARM_TO_Q_NAME, args.toName);
    request.add(ATTR_Q_TYPE, queueType(session, what, args.name));
    addQueueAttributes(invocation, request);
    execute(session, what, CMD_COPY_Q, request);
  }
  return Outcome(done(args.toName, "copied"));
}

void defineDeleteQueue(CLI::App *command, Arguments &args) {
  defineName(command, args);
  command->add_flag("--purge", args.purge, "delete the queue's messages too");
}

Outcome runDeleteQueue(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string what = "delete queue " + args.name;
  if (session.direct()) {
    session.openDirect();
    checkDirect(session, what, vxqm::admin::deleteQueue(session.qmgr(), args.name, args.purge));
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, args.name);
    if (args.purge) request.add(PARM_PURGE, 1);
    execute(session, what, CMD_DELETE_Q, request);
  }
  return Outcome(done(args.name, "deleted"));
}

void defineClearQueue(CLI::App *command, Arguments &args) { defineName(command, args); }

Outcome runClearQueue(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string what = "clear queue " + args.name;
  if (session.direct()) {
    session.openDirect();
    checkDirect(session, what, vxqm::admin::clearQueue(session.qmgr(), args.name));
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, args.name);
    execute(session, what, CMD_CLEAR_Q, request);
  }
  return Outcome(done(args.name, "cleared"));
}

void definePattern(CLI::App *command, Arguments &args) {
  command->add_option("PATTERN", args.pattern, "name or prefix followed by * (default *)");
  command->add_flag("--all", args.all,
                    "include the temporary reply queues of commands (VXAI.REPLY.*)");
}

Outcome runListQueues(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string pattern = args.pattern.empty() ? "*" : args.pattern;
  const std::string what = "list queues " + pattern;
  Json names = Json::array();
  if (session.direct()) {
    session.openDirect();
    for (const std::string &name : directQueues(session, what, pattern, args.all))
      names.push_back(name);
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, pattern);
    std::vector<Json> replies = execute(session, what, CMD_INQUIRE_Q_NAMES, request);
    if (!replies.empty() && replies[0].contains("q_names"))
      for (const Json &name : replies[0]["q_names"])
        if (args.all || !isReplyQueue(name.get<std::string>())) names.push_back(name);
  }
  Json document;
  document["q_names"] = names;
  if (names.empty()) return noMatch(what, pattern, document);
  return Outcome(document);
}

std::string renderListQueues(const Json &document) {
  if (document["q_names"].empty()) return "";
  std::vector<std::vector<std::string>> rows{{"Q_NAME"}};
  for (const Json &name : document["q_names"]) rows.push_back({name.get<std::string>()});
  return table(rows);
}

Outcome runStatus(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  const std::string pattern = args.pattern.empty() ? "*" : args.pattern;
  const std::string what = "status " + pattern;
  Json queues = Json::array();
  if (session.direct()) {
    session.openDirect();
    for (const std::string &name : directQueues(session, what, pattern, args.all)) {
      Json object = directQueue(session, what, name, false);
      if (!object.is_null()) queues.push_back(object);
    }
  } else {
    Bag request;
    request.add(ATTR_Q_NAME, pattern);
    try {
      for (const Json &object : execute(session, what, CMD_INQUIRE_Q_STATUS, request))
        if (args.all || !isReplyQueue(object.value("q_name", ""))) queues.push_back(object);
    } catch (const Outcome &outcome) {
      // No queue matches: said as list queues says it.
      if (outcome.status != kNotFound) throw;
    }
  }
  Json document;
  document["queues"] = queues;
  if (queues.empty()) return noMatch(what, pattern, document);
  return Outcome(document);
}

std::string renderStatus(const Json &document) { return rowsTable(document["queues"]); }

// ----- put and get ----------------------------------------------------------

void definePut(CLI::App *command, Arguments &args) {
  command->add_option("QUEUE", args.name, "queue name")->required();
  command->add_option("TEXT", args.text, "message text (default: standard input)");
  command->add_option("--file", args.file, "read the message from a file")->type_name("FILE");
  command->add_flag("--base64", args.base64,
                    "the message (TEXT, file or standard input) is base64: put the bytes it "
                    "stands for");
  command->add_flag("--persistent", args.persistent, "put a persistent message");
  command->add_flag("--non-persistent", args.nonPersistent,
                    "put a non-persistent message (default: the queue's default persistence)");
  command->add_option("--priority", args.priority, "priority (0 to 9; default: the queue's)")
      ->type_name("N")
      ->check(integerIn(0, vxqi::kLargestPriority));
}

// The whole of a file, or why it cannot be read.
std::string readFile(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw UsageError{path + ": " + std::strerror(errno)};
  std::string data;
  char buffer[65536];
  for (;;) {
    ssize_t length = read(fd, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) {
      std::string error = std::strerror(errno);
      close(fd);
      throw UsageError{path + ": " + error};
    }
    if (length == 0) break;
    data.append(buffer, static_cast<size_t>(length));
  }
  close(fd);
  return data;
}

// A queue's default persistence, as the queue manager applies it to a put
// that leaves it to the queue; -1 when it cannot be inquired.
int32_t defaultPersistence(VXHCONN hconn, const std::string &name) {
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, name.data(), name.size());
  VXHOBJ hobj = 0;
  int32_t compCode, reason;
  VXOPEN(hconn, &od, OPEN_INQUIRE, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) return -1;
  int32_t selector = ATTR_DEF_PERSISTENCE, persistence = -1;
  VXINQ(hconn, hobj, 1, &selector, 1, &persistence, 0, nullptr, &compCode, &reason);
  int32_t cc, rc;
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &cc, &rc);
  return compCode == CC_FAILED ? -1 : persistence;
}

Outcome runPut(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  if (invocation.given("TEXT") && invocation.given("--file"))
    throw UsageError{"give either TEXT or --file"};
  if (args.persistent && args.nonPersistent)
    throw UsageError{"give either --persistent or --non-persistent"};
  std::string data;
  if (invocation.given("TEXT")) {
    data = args.text;
  } else if (invocation.given("--file")) {
    data = readFile(args.file);
  } else {
    if (invocation.commandInput == &std::cin)
      throw UsageError{"give TEXT or --file (standard input holds the commands)"};
    data.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  if (args.base64) {
    std::string bytes;
    if (!base64Decode(data, &bytes)) throw UsageError{"--base64: the message is not base64"};
    data = std::move(bytes);
  }
  const std::string what = "put " + args.name;
  if (args.name.size() > Q_NAME_LENGTH) throw failure(session.qmgr(), what, RC_OBJECT_NAME_ERROR);
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  vxMSGDESC md = MD_DEFAULT;
  md.persistence = args.persistent      ? PERSISTENCE_PERSISTENT
                   : args.nonPersistent ? PERSISTENCE_NOT_PERSISTENT
                                        : PERSISTENCE_AS_Q_DEF;
  if (invocation.given("--priority")) md.priority = args.priority;
  vxPUTOPTS pmo = PMO_DEFAULT;
  pmo.options = PUT_NO_SYNCPOINT;
  int32_t compCode, reason;
  VXPUT1(hconn, &od, &md, &pmo, static_cast<int32_t>(data.size()), data.data(), &compCode, &reason);
  if (compCode == CC_FAILED) throw failure(session.qmgr(), what, reason);
  // The put succeeded, so the queue is a local one (a model's is refused):
  // inquiring it opens no dynamic queue.
  int32_t persistence = md.persistence == PERSISTENCE_AS_Q_DEF
                            ? defaultPersistence(hconn, args.name)
                            : md.persistence;
  const char *persistenceName = vxnames::valueName(ATTR_DEF_PERSISTENCE, persistence);
  Json document;
  document["q_name"] = args.name;
  document["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
  document["length"] = data.size();
  document["persistence"] = persistenceName ? persistenceName : "as_q_def";
  if (compCode == CC_WARNING)
    return {kPartial, what + ": " + vxnames::describeReason(reason), document};
  return Outcome(document);
}

std::string bytesText(const Json &length) {
  return length.dump() + (length == 1 ? " byte" : " bytes");
}

std::string renderPut(const Json &document) {
  return "put " + bytesText(document["length"]) + " on " + document["q_name"].get<std::string>() +
         " (" + document["persistence"].get<std::string>() + "), message id " +
         document["msg_id"].get<std::string>() + "\n";
}

void defineGet(CLI::App *command, Arguments &args) {
  command->add_option("QUEUE", args.name, "queue name")->required();
  command->add_flag("--browse", args.browse, "leave the messages on the queue");
  command->add_option("--count", args.count, "get up to this many messages (default 1)")
      ->type_name("N")
      ->check(integerIn(1, INT32_MAX));
  command->add_flag("--raw", args.raw,
                    "write the message's bytes only, exactly as they are (one message)");
}

Outcome runGet(Invocation &invocation) {
  const Arguments &args = invocation.args;
  Session &session = invocation.session;
  if (args.raw && args.count != 1) throw UsageError{"--raw writes one message: --count must be 1"};
  if (args.raw && args.global.json) throw UsageError{"give either --raw or --json"};
  const std::string what = (args.browse ? "browse " : "get ") + args.name;
  const int32_t wait = args.global.waitOr(0);
  if (args.name.size() > Q_NAME_LENGTH) throw failure(session.qmgr(), what, RC_OBJECT_NAME_ERROR);
  VXHCONN hconn = session.connection();
  vxOBJDESC od = OD_DEFAULT;
  std::memcpy(od.objectName, args.name.data(), args.name.size());
  int32_t compCode, reason;
  VXHOBJ hobj = 0;
  VXOPEN(hconn, &od, args.browse ? OPEN_BROWSE : OPEN_INPUT_SHARED, &hobj, &compCode, &reason);
  if (compCode == CC_FAILED) throw failure(session.qmgr(), what, reason);
  Json messages = Json::array();
  std::string bytes;
  std::vector<char> buffer(65536);
  Outcome outcome;
  for (int32_t got = 0; got < args.count;) {
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
      if (got == 0) {
        outcome = failure(
            session.qmgr(), what, reason,
            reason == RC_NO_MSG_AVAILABLE && wait == 0 ? " (give --wait MS to wait for one)" : "");
      } else {
        outcome.status = kPartial;
        outcome.message = what + ": " + std::to_string(got) + " of " + std::to_string(args.count) +
                          " messages: " + vxnames::describeReason(reason);
      }
      break;
    }
    ++got;
    std::string data(buffer.data(), static_cast<size_t>(length));
    Json message;
    message["msg_id"] = hex(md.msgId, MSG_ID_LENGTH);
    message["length"] = length;
    message["persistence"] =
        attributeValue(*vxqi::findQueueAttribute(ATTR_DEF_PERSISTENCE), md.persistence);
    message["priority"] = md.priority;
    // JSON holds text: bytes that are not UTF-8 go as base64.
    if (isUtf8(data)) {
      message["encoding"] = "text";
      message["data"] = data;
    } else {
      message["encoding"] = "base64";
      message["data"] = base64Encode(data);
    }
    messages.push_back(message);
    bytes = std::move(data);
  }
  VXCLOSE(hconn, &hobj, CLOSE_NONE, &compCode, &reason);
  // An empty queue is a document too, with no messages: a script reads the
  // same keys either way.
  Json document;
  document["q_name"] = args.name;
  document["messages"] = messages;
  outcome.document = document;
  if (args.raw && !messages.empty()) outcome.bytes = bytes;
  return outcome;
}

// Each message after a header line that gives its length: the data follows
// as it is, ended by a newline where it has none of its own.
std::string renderGet(const Json &document) {
  std::string text;
  int number = 0;
  for (const Json &message : document["messages"]) {
    std::string data = message["data"].get<std::string>();
    if (message["encoding"] == "base64") base64Decode(message["data"].get<std::string>(), &data);
    text += "--- message " + std::to_string(++number) + ": " + bytesText(message["length"]) + ", " +
            message["persistence"].get<std::string>() + ", priority " + message["priority"].dump() +
            ", message id " + message["msg_id"].get<std::string>() + "\n" + data;
    if (!data.empty() && data.back() != '\n') text += "\n";
  }
  return text;
}

// ----- shell, serve, start, stop ---------------------------------------------

void defineShell(CLI::App *command, Arguments &args) {
  command->add_option("FILE", args.shellFile, "file of commands (default: standard input)");
  command->add_flag("--keep-going", args.keepGoing, "go on after a failure");
  command->add_flag("--echo", args.echo, "print each command before its output");
}

void defineNothing(CLI::App *, Arguments &) {}

Outcome runServe(Invocation &invocation) { return {serve(invocation.args.global, -1), ""}; }

Outcome runStart(Invocation &invocation) { return startServer(invocation.args.global); }

std::string renderStart(const Json &document) {
  return "command server of queue manager " + document["q_mgr_name"].get<std::string>() +
         " started (pid " + document["pid"].dump() + ", log " +
         document["log_file"].get<std::string>() + ")\n";
}

Outcome runStop(Invocation &invocation) { return stopServer(invocation.args.global); }

std::string renderStop(const Json &document) {
  return "command server of queue manager " + document["q_mgr_name"].get<std::string>() +
         " stopped (pid " + document["pid"].dump() + ")\n";
}

// ----- help, completion -----------------------------------------------------

void defineHelp(CLI::App *command, Arguments &args) {
  command->add_option("COMMAND", args.topic, "the command to describe (default: every command)");
  command->add_flag("--man", args.man, "write the manual page (roff) instead");
}

Outcome runHelp(Invocation &invocation) {
  const Arguments &args = invocation.args;
  if (args.man) return Outcome::ofText(manualPage(invocation.root));
  return Outcome::ofText(helpText(invocation.root, args.topic));
}

void defineCompletion(CLI::App *command, Arguments &args) {
  command->add_option("SHELL", args.shellName, "bash or zsh")
      ->required()
      ->check(CLI::Validator(
          [](std::string &text) -> std::string {
            return text == "bash" || text == "zsh" ? "" : "'" + text + "' is not bash or zsh";
          },
          ""));
}

Outcome runCompletion(Invocation &invocation) {
  return Outcome::ofText(completionScript(invocation.root, invocation.args.shellName));
}

constexpr Command kCommands[] = {
    {"ping", "check that the command server answers", defineNothing, runPing, renderPing,
     kNeedsServer},
    {"show qmgr", "show the queue manager's attributes", defineNothing, runShowQmgr, renderShowQmgr,
     0},
    {"show queue", "show every attribute of a queue", defineShowQueue, runShowQueue, renderObject,
     0},
    {"create queue", "create a queue (a local one unless --type model)", defineCreateQueue,
     runCreateQueue, renderDone, kConfirms},
    {"change queue", "change a queue's attributes", defineChangeQueue, runChangeQueue, renderDone,
     kConfirms},
    {"copy queue", "make a queue with the attributes of another", defineCopyQueue, runCopyQueue,
     renderDone, kConfirms},
    {"delete queue", "delete a queue", defineDeleteQueue, runDeleteQueue, renderDone, kConfirms},
    {"clear queue", "remove every message of a queue", defineClearQueue, runClearQueue, renderDone,
     kConfirms},
    {"list queues", "list the names of queues", definePattern, runListQueues, renderListQueues, 0},
    {"status", "show the depth and open counts of queues", definePattern, runStatus, renderStatus,
     0},
    {"put", "put a message on a queue", definePut, runPut, renderPut, kConfirms},
    {"get", "get messages from a queue", defineGet, runGet, renderGet, 0},
    {"shell", "run commands from standard input or a file, one per line", defineShell, runShell,
     nullptr, kNotInShell},
    // Not commands of a shell: start forks, which a process whose command
    // server's thread already runs must not do.
    {"serve", "run the command server in the foreground until SIGTERM or SIGINT", defineNothing,
     runServe, nullptr, kNotInShell | kNeedsServer},
    {"start", "run the command server in the background", defineNothing, runStart, renderStart,
     kNotInShell | kNeedsServer | kConfirms},
    {"stop", "stop the command server that serve or start runs", defineNothing, runStop, renderStop,
     kNotInShell | kNeedsServer | kConfirms},
    {"help", "describe a command, or write the manual page", defineHelp, runHelp, nullptr, 0},
    {"completion", "write the completion script of bash or zsh", defineCompletion, runCompletion,
     nullptr, kNotInShell},
};

constexpr Group kGroups[] = {
    {"show", "show the queue manager or a queue"},
    {"create", "create an object"},
    {"change", "change an object"},
    {"copy", "copy an object"},
    {"delete", "delete an object"},
    {"clear", "remove messages"},
    {"list", "list objects"},
};

}  // namespace

std::string valueNames(const QueueAttribute &attribute, const std::string &separator) {
  std::string names;
  for (const vxqi::ValueName &named : attribute.values)
    names += (names.empty() ? "" : separator) + named.name;
  return names;
}

bool optionGiven(const CLI::App *leaf, const std::string &option) {
  for (const CLI::App *app = leaf; app; app = app->get_parent())
    if (app->get_option_no_throw(option) && app->count(option) > 0) return true;
  return false;
}

std::span<const Command> commands() { return kCommands; }
std::span<const Group> groups() { return kGroups; }

void addGlobalOptions(CLI::App *command, GlobalOptions &options, bool inShell) {
  const std::string group = "Global options";
  if (!inShell) {
    command->add_option("--qmgr", options.qmgr, "queue manager name (default QM1)")
        ->type_name("NAME")
        ->group(group);
    command
        ->add_option("--data", options.data,
                     "data directory (default $VXQM_DATA, $XDG_STATE_HOME/vxai or "
                     "~/.local/state/vxai)")
        ->type_name("DIR")
        ->group(group);
    command
        ->add_flag("--direct", options.direct,
                   "carry out queue commands in this process through the queue manager's "
                   "administration interface, without the command server (for recovery)")
        ->group(group);
  }
  command->add_flag("--json", options.json, "write JSON for scripts (a shell: one line a command)")
      ->group(group);
  command->add_flag("-q,--quiet", options.quiet, "say nothing on success but the data asked for")
      ->group(group);
  command
      ->add_option("--wait", options.wait,
                   "longest wait in ms for the command server's reply (default 30000), a "
                   "message (get; default 0) or a started server; -1: no limit")
      ->type_name("MS")
      ->check(integerIn(-1, INT32_MAX))
      ->group(group);
}

}  // namespace vxadmin
