// The command server: one thread per server that waits on the command queue,
// reads each request into a bag, carries the command out through the queue
// manager's administration interface and answers on the request's reply-to
// queue.  Everything it does to queues goes through the bag library's calls;
// the administration interface only defines, changes and lists queues.
//
// Threads: the server's thread owns everything of a request (bags,
// descriptors, the reply queue's handle).  The record vxcsSERVER is shared
// with the starting and the stopping thread under its mutex.
#include "command_server.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// vxai.h first: it defines VXAI_EXPORT, which vxqi.h only defines when absent.
#include "vxai.h"
#include "vxqi.h"
#include "qm_admin.h"
#include "svc.h"

namespace vxcs {

// The queue manager, the connection and the bag the replies are built in:
// set up by vxcsStart, then used by the server's thread only.
struct Session {
  std::string qmName;  // as given to vxcsStart; the administration interface resolves it
  int32_t hconn = 0;
  VXHBAG replyBag = BAG_NONE;
};

}  // namespace vxcs

struct vxcsSERVER {
  vxcs::Session session;
  std::thread thread;

  std::mutex mutex;  // guards every member below
  std::condition_variable startedChanged;
  std::condition_variable stopAsked;  // vxcsStop closed the command queue's handle
  bool started = false;               // the thread has connected and opened, or failed to
  int32_t startReason = 0;            // 0, or why the thread could not start serving
  bool queueOpen = false;             // the thread's handle of the command queue is open
  int32_t hconn = 0;
  int32_t hobj = HOBJ_UNUSABLE;
};

namespace vxcs {
namespace {

// What reading one request may cost the server's thread (docs/command-server.md,
// "What a hostile request costs"): no block of the common services above
// kReadLargestBlock, none beyond kReadTotalBytes in all.  A request that
// needs more is refused with RC_STORAGE_NOT_AVAILABLE.
constexpr int32_t kReadLargestBlock = 1024 * 1024;
constexpr int32_t kReadTotalBytes = 4 * 1024 * 1024;
// Parameter values (items) a request may carry: checking them walks the bag
// once per value, so their number is kept small.
constexpr int32_t kLargestParameterCount = 256;

constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";
// The model of the requesters' reply queues: a reply queue has its
// attributes, puts and gets inhibited included.
constexpr char kReplyModelQueue[] = "SYSTEM.DEFAULT.MODEL.QUEUE";
// The queue manager's own queues, which administrators may change but not
// delete or retype.
constexpr char kSystemPrefix[] = "SYSTEM.";
constexpr int32_t kDescriptionLength = Q_DESC_LENGTH;
constexpr int32_t kPcfTypeCommand = 1;
constexpr int32_t kPcfTypeResponse = 2;
constexpr int32_t kFirstStringBuffer = 256;
// How often a server whose command queue has gets inhibited looks whether
// they are allowed again: the queue manager refuses a get of such a queue at
// once, wait or not, and wakes nobody when the attribute changes.
constexpr auto kInhibitedGetRetry = std::chrono::milliseconds(100);

// ----- Errors and replies -------------------------------------------------------------

// The failure of a command: the reason of its error reply and, when the
// failure is about a parameter, that parameter's selector.
struct CommandError {
  int32_t reason;
  std::optional<int32_t> parameter;
};

[[noreturn]] void fail(int32_t reason, std::optional<int32_t> parameter = std::nullopt) {
  throw CommandError{reason, parameter};
}

struct ReplyItem {
  int32_t selector;
  bool isString;
  int32_t integer;
  std::string text;
};

// One reply message: its completion, reason and items, in order.
struct Reply {
  int32_t compCode = CC_OK;
  int32_t reason = RC_NONE;
  std::vector<ReplyItem> items;

  void addInteger(int32_t selector, int32_t value) {
    items.push_back({selector, false, value, {}});
  }
  // A character attribute travels blank padded to its field length.
  void addField(int32_t selector, const std::string &value, size_t length) {
    std::string field = value.substr(0, length);
    field.resize(length, ' ');
    items.push_back({selector, true, 0, std::move(field)});
  }
};

Reply errorReply(const CommandError &error) {
  Reply reply;
  reply.compCode = CC_FAILED;
  reply.reason = error.reason;
  if (error.parameter) reply.addInteger(PARM_ERROR_PARAMETER, *error.parameter);
  return reply;
}

bool allZero(const char *bytes, size_t length) {
  for (size_t i = 0; i < length; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

// A fixed-length name field up to its first zero byte, trailing blanks
// dropped.
std::string fieldText(const char *field, size_t length) {
  size_t end = 0;
  while (end < length && field[end] != 0) ++end;
  while (end > 0 && field[end - 1] == ' ') --end;
  return std::string(field, end);
}

// Sends the replies of one request.  A reply is held back until the next
// one is known, so that the last reply sent carries control 1 whatever ends
// the command.  A request without a reply-to queue gets no reply; replies
// that cannot be put (the requester's queue is gone or full) are dropped.
class Replier {
 public:
  Replier(Session &session, const vxMSGDESC &request, int32_t command)
      : session_(session), request_(request), command_(command) {}
  Replier(const Replier &) = delete;
  Replier &operator=(const Replier &) = delete;
  ~Replier() { closeQueue(); }

  bool wanted() const { return !fieldText(request_.replyToQ, Q_NAME_LENGTH).empty(); }

  void add(Reply reply) {
    if (!wanted()) return;
    if (pending_) send(*pending_, 0);
    pending_ = std::move(reply);
  }

  // Sends the held reply as the last one.
  void finish() {
    if (pending_) send(*pending_, PCF_CONTROL_LAST);
    pending_.reset();
  }

  // Replaces what is held back by an error reply: the replies already sent
  // stay, the error is the last.
  void finishWithError(const CommandError &error) {
    if (!wanted()) return;
    if (pending_) send(*pending_, 0);
    pending_ = errorReply(error);
    finish();
  }

 private:
  void send(const Reply &reply, int32_t control) {
    if (!openQueue()) return;
    int32_t cc = CC_OK, rc = RC_NONE;
    const VXHBAG bag = session_.replyBag;
    // Every header item is set below: only the user items of the last
    // reply need to go, and the system items are left in place.
    vxTruncateBag(bag, 0, &cc, &rc);
    const int32_t header[][2] = {
        {SEL_PCF_TYPE, kPcfTypeResponse},  {SEL_COMMAND, command_},
        {SEL_MSG_SEQ_NUMBER, ++sequence_}, {SEL_CONTROL, control},
        {SEL_COMP_CODE, reply.compCode},   {SEL_REASON, reply.reason},
    };
    for (const auto &[selector, value] : header)
      if (cc == CC_OK) vxSetInteger(bag, selector, ITEM_INDEX_NONE, value, &cc, &rc);
    for (const ReplyItem &item : reply.items) {
      if (cc != CC_OK) break;
      if (item.isString)
        vxAddString(bag, item.selector, static_cast<int32_t>(item.text.size()), item.text.data(),
                    &cc, &rc);
      else
        vxAddInteger(bag, item.selector, item.integer, &cc, &rc);
    }
    if (cc != CC_OK) return;
    vxMSGDESC md = MD_DEFAULT;
    md.msgType = MSGTYPE_REPLY;
    std::memcpy(md.format, VX_FORMAT_ADMIN, FORMAT_LENGTH);
    std::memcpy(md.correlId, request_.msgId, CORREL_ID_LENGTH);
    // A reply expires as its request would have: a requester that gave up
    // waiting does not leave replies behind on a queue of its own for long.
    md.expiry = request_.expiry;
    vxPUTOPTS pmo = PMO_DEFAULT;
    pmo.options = PUT_NO_SYNCPOINT;
    vxPutBag(session_.hconn, replyQueue_, &md, &pmo, bag, &cc, &rc);
  }

  bool openQueue() {
    if (replyQueue_ != HOBJ_UNUSABLE) return true;
    if (openFailed_) return false;
    vxOBJDESC od = OD_DEFAULT;
    std::memcpy(od.objectName, request_.replyToQ, Q_NAME_LENGTH);
    std::memcpy(od.objectQMgrName, request_.replyToQMgr, QM_NAME_LENGTH);
    int32_t cc = CC_OK, rc = RC_NONE, hobj = HOBJ_UNUSABLE;
    VXOPEN(session_.hconn, &od, OPEN_OUTPUT, &hobj, &cc, &rc);
    if (cc == CC_FAILED) {
      openFailed_ = true;
      return false;
    }
    replyQueue_ = hobj;
    return true;
  }

  void closeQueue() {
    if (replyQueue_ == HOBJ_UNUSABLE) return;
    int32_t cc = CC_OK, rc = RC_NONE;
    VXCLOSE(session_.hconn, &replyQueue_, CLOSE_NONE, &cc, &rc);
    replyQueue_ = HOBJ_UNUSABLE;
  }

  Session &session_;
  const vxMSGDESC &request_;
  const int32_t command_;
  int32_t sequence_ = 0;
  std::optional<Reply> pending_;
  int32_t replyQueue_ = HOBJ_UNUSABLE;
  bool openFailed_ = false;
};

// ----- Parameters -----------------------------------------------------------------------

// A parameter a command takes.  A list parameter may occur any number of
// times (an integer list arrives as one item per value); any other at most
// once.
struct ParameterRule {
  int32_t selector;
  int32_t type;  // ITEM_TYPE_INTEGER or ITEM_TYPE_STRING
  bool required;
  bool list;
};

constexpr ParameterRule required(int32_t selector, int32_t type) {
  return {selector, type, true, false};
}
constexpr ParameterRule optional(int32_t selector, int32_t type) {
  return {selector, type, false, false};
}
constexpr ParameterRule list(int32_t selector) {
  return {selector, ITEM_TYPE_INTEGER, false, true};
}

constexpr int32_t kInt = ITEM_TYPE_INTEGER;
constexpr int32_t kStr = ITEM_TYPE_STRING;

// The queue attributes that create, change and copy set.
#define VXCS_QUEUE_ATTRIBUTE_RULES                                           \
  optional(ATTR_Q_DESC, kStr), optional(ATTR_DEF_PERSISTENCE, kInt),         \
      optional(ATTR_DEF_PRIORITY, kInt), optional(ATTR_INHIBIT_GET, kInt),   \
      optional(ATTR_INHIBIT_PUT, kInt), optional(ATTR_MAX_MSG_LENGTH, kInt), \
      optional(ATTR_MAX_Q_DEPTH, kInt)

// The parameters of a request, checked against its command's rules: every
// item has a rule, the type of its rule and occurs no more often than the
// rule allows, and every required parameter is there.
class Parameters {
 public:
  Parameters(VXHBAG bag, const std::vector<ParameterRule> &rules, int32_t attributeList)
      : bag_(bag), rules_(rules), attributeList_(attributeList) {
    int32_t cc = CC_OK, rc = RC_NONE, count = 0;
    vxCountItems(bag_, SEL_ANY_USER_SELECTOR, &count, &cc, &rc);
    if (cc != CC_OK) fail(rc);
    if (count > kLargestParameterCount) fail(RC_PARAMETER_ERROR);
    std::vector<int32_t> seen(rules_.size(), 0);
    for (int32_t index = 0; index < count; ++index) {
      int32_t selector = 0, type = 0;
      vxInquireItemInfo(bag_, SEL_ANY_USER_SELECTOR, index, &selector, &type, &cc, &rc);
      if (cc != CC_OK) fail(rc);
      const size_t rule = ruleOf(selector);
      if (rule == rules_.size()) fail(RC_PARAMETER_ERROR, selector);
      if (type != rules_[rule].type) fail(RC_PARAMETER_ERROR, selector);
      if (++seen[rule] > 1 && !rules_[rule].list) fail(RC_PARAMETER_ERROR, selector);
    }
    for (size_t rule = 0; rule < rules_.size(); ++rule)
      if (rules_[rule].required && seen[rule] == 0)
        fail(RC_PARAMETER_MISSING, rules_[rule].selector);
  }

  bool has(int32_t selector) const { return count(selector) > 0; }

  std::optional<int32_t> integer(int32_t selector) const {
    if (!has(selector)) return std::nullopt;
    int32_t cc = CC_OK, rc = RC_NONE, value = 0;
    vxInquireInteger(bag_, selector, ITEM_INDEX_NONE, &value, &cc, &rc);
    if (cc != CC_OK) fail(rc, selector);
    return value;
  }

  // An integer that must lie in [low, high].
  std::optional<int32_t> integer(int32_t selector, int32_t low, int32_t high) const {
    std::optional<int32_t> value = integer(selector);
    if (value && (*value < low || *value > high)) fail(RC_PARAMETER_ERROR, selector);
    return value;
  }

  // A string with its trailing blanks and zero bytes (the padding of a list)
  // dropped.
  std::optional<std::string> string(int32_t selector) const {
    if (!has(selector)) return std::nullopt;
    std::string value(kFirstStringBuffer, '\0');
    int32_t length = 0;
    for (;;) {
      int32_t cc = CC_OK, rc = RC_NONE, ccsid = 0;
      vxInquireString(bag_, selector, ITEM_INDEX_NONE, static_cast<int32_t>(value.size()),
                      value.data(), &length, &ccsid, &cc, &rc);
      if (cc == CC_FAILED) fail(rc, selector);
      if (static_cast<size_t>(length) <= value.size()) break;
      value.assign(static_cast<size_t>(length), '\0');
    }
    value.resize(static_cast<size_t>(length));
    while (!value.empty() && (value.back() == ' ' || value.back() == '\0')) value.pop_back();
    return value;
  }

  // The values of the command's attribute list, under its own selector or
  // as inquiry items of a bag written without list form.
  std::vector<int32_t> attributeList() const {
    std::vector<int32_t> values;
    for (int32_t selector : {attributeList_, SEL_INQUIRY_ITEM}) {
      const int32_t occurrences = count(selector);
      for (int32_t index = 0; index < occurrences; ++index) {
        int32_t cc = CC_OK, rc = RC_NONE, value = 0;
        vxInquireInteger(bag_, selector, index, &value, &cc, &rc);
        if (cc != CC_OK) fail(rc, attributeList_);
        values.push_back(value);
      }
    }
    return values;
  }

 private:
  size_t ruleOf(int32_t selector) const {
    if (selector == SEL_INQUIRY_ITEM && attributeList_ != 0) selector = attributeList_;
    size_t rule = 0;
    while (rule < rules_.size() && rules_[rule].selector != selector) ++rule;
    return rule;
  }

  int32_t count(int32_t selector) const {
    int32_t cc = CC_OK, rc = RC_NONE, count = 0;
    vxCountItems(bag_, selector, &count, &cc, &rc);
    return cc == CC_OK ? count : 0;
  }

  VXHBAG bag_;
  const std::vector<ParameterRule> &rules_;
  int32_t attributeList_;  // 0 for a command without one
};

// ----- Names ---------------------------------------------------------------------------

bool isNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '/' || c == '%';
}

bool isValidName(const std::string &name) {
  if (name.empty() || name.size() > Q_NAME_LENGTH) return false;
  for (char c : name)
    if (!isNameCharacter(c)) return false;
  return true;
}

// An object name parameter: 1 to 48 characters of A-Z a-z 0-9 . _ / %.
std::string objectName(const Parameters &parameters, int32_t selector) {
  std::string name = parameters.string(selector).value_or(std::string());
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR, selector);
  return name;
}

// A generic name: a name, or a prefix of one followed by '*' ("*" alone
// names every queue).
std::string genericName(const Parameters &parameters) {
  std::string pattern = parameters.string(ATTR_Q_NAME).value_or(std::string());
  const bool generic = !pattern.empty() && pattern.back() == '*';
  const std::string prefix = generic ? pattern.substr(0, pattern.size() - 1) : pattern;
  const bool valid = generic ? prefix.empty() || isValidName(prefix) : isValidName(prefix);
  if (!valid || pattern.size() > Q_NAME_LENGTH) fail(RC_OBJECT_NAME_ERROR, ATTR_Q_NAME);
  return pattern;
}

std::optional<int32_t> queueTypeFilter(const Parameters &parameters) {
  return parameters.integer(ATTR_Q_TYPE, QTYPE_LOCAL, QTYPE_MODEL);
}

// ----- Queue attributes -------------------------------------------------------------------

// What an inquiry can report of a queue.
struct QueueFacts {
  vxqm::QueueDefinition definition;
  vxqm::QueueStatus status;
};

// The attributes of a queue that the inquiries report, in the order of
// their replies; the queue's name comes first and always.
struct QueueAttribute {
  int32_t selector;
  bool status;  // reported by inquire queue status (command 41)
  void (*add)(Reply &reply, const QueueFacts &facts);
};

const QueueAttribute kQueueAttributes[] = {
    {ATTR_Q_TYPE, false,
     [](Reply &r, const QueueFacts &f) { r.addInteger(ATTR_Q_TYPE, f.definition.queueType); }},
    {ATTR_Q_DESC, false,
     [](Reply &r, const QueueFacts &f) {
       r.addField(ATTR_Q_DESC, f.definition.description, kDescriptionLength);
     }},
    {ATTR_DEF_PERSISTENCE, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_DEF_PERSISTENCE, f.definition.defaultPersistence);
     }},
    {ATTR_DEF_PRIORITY, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_DEF_PRIORITY, f.definition.defaultPriority);
     }},
    {ATTR_DEFINITION_TYPE, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_DEFINITION_TYPE, f.definition.definitionType);
     }},
    {ATTR_INHIBIT_GET, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_INHIBIT_GET, f.definition.inhibitGet);
     }},
    {ATTR_INHIBIT_PUT, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_INHIBIT_PUT, f.definition.inhibitPut);
     }},
    {ATTR_MAX_MSG_LENGTH, false,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_MAX_MSG_LENGTH, f.definition.maxMsgLength);
     }},
    {ATTR_MAX_Q_DEPTH, false,
     [](Reply &r, const QueueFacts &f) { r.addInteger(ATTR_MAX_Q_DEPTH, f.definition.maxDepth); }},
    {ATTR_CURRENT_DEPTH, true,
     [](Reply &r, const QueueFacts &f) { r.addInteger(ATTR_CURRENT_DEPTH, f.status.depth); }},
    {ATTR_OPEN_INPUT_COUNT, true,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_OPEN_INPUT_COUNT, f.status.openInputCount);
     }},
    {ATTR_OPEN_OUTPUT_COUNT, true,
     [](Reply &r, const QueueFacts &f) {
       r.addInteger(ATTR_OPEN_OUTPUT_COUNT, f.status.openOutputCount);
     }},
};

// The attributes an inquiry reports: those of its attribute list, or all
// when the list is absent or holds PARM_ALL.  The queue's name is always
// reported and may be listed.
std::vector<const QueueAttribute *> selectedAttributes(const Parameters &parameters,
                                                       int32_t listSelector, bool statusOnly) {
  const std::vector<int32_t> wanted = parameters.attributeList();
  bool all = wanted.empty();
  for (int32_t selector : wanted) {
    bool known = selector == PARM_ALL || selector == ATTR_Q_NAME;
    for (const QueueAttribute &attribute : kQueueAttributes)
      known = known || (attribute.selector == selector && (attribute.status || !statusOnly));
    if (!known) fail(RC_PARAMETER_ERROR, listSelector);
    all = all || selector == PARM_ALL;
  }
  std::vector<const QueueAttribute *> selected;
  for (const QueueAttribute &attribute : kQueueAttributes) {
    if (statusOnly && !attribute.status) continue;
    bool listed = all;
    for (int32_t selector : wanted) listed = listed || selector == attribute.selector;
    if (listed) selected.push_back(&attribute);
  }
  return selected;
}

// The attributes that create, change and copy set, from their parameters.
vxqm::QueueChanges queueChanges(const Parameters &parameters) {
  vxqm::QueueChanges changes;
  changes.queueType = queueTypeFilter(parameters);
  changes.description = parameters.string(ATTR_Q_DESC);
  if (changes.description && changes.description->size() > kDescriptionLength)
    fail(RC_PARAMETER_ERROR, ATTR_Q_DESC);
  changes.defaultPersistence =
      parameters.integer(ATTR_DEF_PERSISTENCE, PERSISTENCE_NOT_PERSISTENT, PERSISTENCE_PERSISTENT);
  changes.defaultPriority = parameters.integer(ATTR_DEF_PRIORITY, 0, vxqm::kLargestPriority);
  changes.inhibitGet = parameters.integer(ATTR_INHIBIT_GET, INHIBIT_ALLOWED, INHIBIT_INHIBITED);
  changes.inhibitPut = parameters.integer(ATTR_INHIBIT_PUT, INHIBIT_ALLOWED, INHIBIT_INHIBITED);
  changes.maxMsgLength = parameters.integer(ATTR_MAX_MSG_LENGTH, 0, vxqm::kLargestMaxMsgLength);
  changes.maxDepth = parameters.integer(ATTR_MAX_Q_DEPTH, 0, vxqm::kLargestMaxDepth);
  return changes;
}

// Turns a failure of the administration interface into the command's
// error: failures about the object name the parameter that named it.
void check(int32_t reason, int32_t nameParameter) {
  switch (reason) {
    case RC_NONE:
      return;
    case RC_UNKNOWN_OBJECT_NAME:
    case RC_OBJECT_ALREADY_EXISTS:
    case RC_OBJECT_NAME_ERROR:
      fail(reason, nameParameter);
    case RC_OBJECT_TYPE_ERROR:
      fail(reason, ATTR_Q_TYPE);
    case RC_SELECTOR_ERROR:
      // A value the checks above let through and the queue manager refused.
      fail(RC_PARAMETER_ERROR);
    default:
      fail(reason);
  }
}

bool isSystemQueue(const std::string &name) {
  return name.compare(0, sizeof kSystemPrefix - 1, kSystemPrefix) == 0;
}

// A queue's type must be the one the request names.  Retyping a SYSTEM.
// queue has a reason of its own: the queue manager and every requester rely
// on the type of theirs.
void checkQueueType(const Session &session, const std::string &name, int32_t nameParameter,
                    int32_t queueType) {
  vxqm::QueueDefinition definition;
  check(vxqm::admin::queueAttributes(session.qmName, name, &definition), nameParameter);
  if (definition.queueType == queueType) return;
  fail(isSystemQueue(name) ? RC_SYSTEM_Q_TYPE_REFUSED : RC_OBJECT_TYPE_ERROR, ATTR_Q_TYPE);
}

// The shortest maximum message length the command queue and the model of
// reply queues may be given: room for any command that changes a queue, and
// for its reply.
constexpr int32_t kSmallestCommandMsgLength = 4096;

// Commands reach the server on the command queue and its replies come back
// on queues made from the model: with puts or gets inhibited on either, no
// command, not even the one that would allow them again, could be carried
// out and answered.  The server refuses to set them (allowing is always
// accepted); the queue manager's administration interface does not
// (docs/decisions.md).
// Nor a depth of 0, nor a maximum message length shorter than a command
// that would undo it, or its reply, may need.
void checkKeepsCommandsFlowing(const std::string &name, const vxqm::QueueChanges &changes) {
  if (name != kCommandQueue && name != kReplyModelQueue) return;
  if (changes.inhibitPut == INHIBIT_INHIBITED) fail(RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_PUT);
  if (changes.inhibitGet == INHIBIT_INHIBITED) fail(RC_SYSTEM_Q_INHIBIT_REFUSED, ATTR_INHIBIT_GET);
  if (changes.maxDepth && *changes.maxDepth < 1) fail(RC_SYSTEM_Q_LIMIT_REFUSED, ATTR_MAX_Q_DEPTH);
  if (changes.maxMsgLength && *changes.maxMsgLength < kSmallestCommandMsgLength) {
    fail(RC_SYSTEM_Q_LIMIT_REFUSED, ATTR_MAX_MSG_LENGTH);
  }
}

// ----- The commands -------------------------------------------------------------------------

struct Request {
  Session &session;
  const Parameters &parameters;
  Replier &replier;
};

void ping(const Request &request) { request.replier.add(Reply()); }

void inquireQueueManager(const Request &request) {
  const std::vector<int32_t> wanted = request.parameters.attributeList();
  bool all = wanted.empty(), codedCharSetId = false;
  for (int32_t selector : wanted) {
    if (selector != PARM_ALL && selector != ATTR_Q_MGR_NAME && selector != ATTR_CODED_CHAR_SET_ID)
      fail(RC_PARAMETER_ERROR, PARM_Q_MGR_ATTRS);
    all = all || selector == PARM_ALL;
    codedCharSetId = codedCharSetId || selector == ATTR_CODED_CHAR_SET_ID;
  }
  vxOBJDESC od = OD_DEFAULT;
  od.objectType = OBJTYPE_Q_MGR;
  int32_t cc = CC_OK, rc = RC_NONE, hobj = HOBJ_UNUSABLE;
  VXOPEN(request.session.hconn, &od, OPEN_INQUIRE, &hobj, &cc, &rc);
  if (cc == CC_FAILED) fail(rc);
  int32_t selectors[] = {ATTR_CODED_CHAR_SET_ID, ATTR_Q_MGR_NAME};
  int32_t ccsid = 0;
  char name[QM_NAME_LENGTH];
  VXINQ(request.session.hconn, hobj, 2, selectors, 1, &ccsid, QM_NAME_LENGTH, name, &cc, &rc);
  int32_t closeCc = CC_OK, closeRc = RC_NONE;
  VXCLOSE(request.session.hconn, &hobj, CLOSE_NONE, &closeCc, &closeRc);
  if (cc != CC_OK) fail(rc);
  Reply reply;
  reply.addField(ATTR_Q_MGR_NAME, std::string(name, QM_NAME_LENGTH), QM_NAME_LENGTH);
  if (all || codedCharSetId) reply.addInteger(ATTR_CODED_CHAR_SET_ID, ccsid);
  request.replier.add(std::move(reply));
}

void createQueue(const Request &request) {
  const std::string name = objectName(request.parameters, ATTR_Q_NAME);
  const vxqm::QueueChanges attributes = queueChanges(request.parameters);
  checkKeepsCommandsFlowing(name, attributes);
  check(vxqm::admin::createQueue(request.session.qmName, name, attributes), ATTR_Q_NAME);
  request.replier.add(Reply());
}

void changeQueue(const Request &request) {
  const std::string name = objectName(request.parameters, ATTR_Q_NAME);
  const vxqm::QueueChanges changes = queueChanges(request.parameters);
  checkKeepsCommandsFlowing(name, changes);
  checkQueueType(request.session, name, ATTR_Q_NAME, *changes.queueType);
  check(vxqm::admin::changeQueue(request.session.qmName, name, changes), ATTR_Q_NAME);
  request.replier.add(Reply());
}

void copyQueue(const Request &request) {
  const std::string from = objectName(request.parameters, PARM_FROM_Q_NAME);
  const std::string to = objectName(request.parameters, PARM_TO_Q_NAME);
  const vxqm::QueueChanges changes = queueChanges(request.parameters);
  checkKeepsCommandsFlowing(to, changes);
  checkQueueType(request.session, from, PARM_FROM_Q_NAME, *changes.queueType);
  const int32_t reason = vxqm::admin::copyQueue(request.session.qmName, from, to, changes);
  check(reason, reason == RC_UNKNOWN_OBJECT_NAME ? PARM_FROM_Q_NAME : PARM_TO_Q_NAME);
  request.replier.add(Reply());
}

void deleteQueue(const Request &request) {
  const std::string name = objectName(request.parameters, ATTR_Q_NAME);
  const bool purge = request.parameters.integer(PARM_PURGE, 0, 1).value_or(0) == 1;
  // Without its SYSTEM. queues the queue manager has no command queue, no
  // model for reply queues, no default queue; each process would define
  // them again anyway, so that the delete's reply would not be true either.
  if (isSystemQueue(name)) fail(RC_SYSTEM_Q_DELETE_REFUSED, ATTR_Q_NAME);
  check(vxqm::admin::deleteQueue(request.session.qmName, name, purge), ATTR_Q_NAME);
  request.replier.add(Reply());
}

void clearQueue(const Request &request) {
  const std::string name = objectName(request.parameters, ATTR_Q_NAME);
  check(vxqm::admin::clearQueue(request.session.qmName, name), ATTR_Q_NAME);
  request.replier.add(Reply());
}

std::vector<std::string> matchingQueues(const Request &request, int32_t queueType) {
  const std::string pattern = genericName(request.parameters);
  std::vector<std::string> names;
  check(vxqm::admin::listQueues(request.session.qmName, pattern, queueType, &names), ATTR_Q_NAME);
  return names;
}

// One reply per matching queue, in name order; a queue deleted between the
// listing and its reply is left out.  No queue at all is an error.
void inquireQueues(const Request &request, int32_t listSelector, bool statusOnly) {
  const int32_t queueType = statusOnly ? 0 : queueTypeFilter(request.parameters).value_or(0);
  const std::vector<const QueueAttribute *> selected =
      selectedAttributes(request.parameters, listSelector, statusOnly);
  bool needDefinition = false, needStatus = false;
  for (const QueueAttribute *attribute : selected)
    (attribute->status ? needStatus : needDefinition) = true;
  int32_t replies = 0;
  for (const std::string &name : matchingQueues(request, queueType)) {
    QueueFacts facts;
    int32_t reason = RC_NONE;
    if (needDefinition)
      reason = vxqm::admin::queueAttributes(request.session.qmName, name, &facts.definition);
    if (reason == RC_NONE && needStatus)
      reason = vxqm::admin::queueStatus(request.session.qmName, name, &facts.status);
    if (reason == RC_UNKNOWN_OBJECT_NAME) continue;
    check(reason, ATTR_Q_NAME);
    Reply reply;
    reply.addField(ATTR_Q_NAME, name, Q_NAME_LENGTH);
    for (const QueueAttribute *attribute : selected) attribute->add(reply, facts);
    request.replier.add(std::move(reply));
    ++replies;
  }
  if (replies == 0) fail(RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

void inquireQueue(const Request &request) { inquireQueues(request, PARM_Q_ATTRS, false); }

void inquireQueueStatus(const Request &request) {
  inquireQueues(request, PARM_Q_STATUS_ATTRS, true);
}

// One reply whatever matches: the names, in name order, none for no match.
void inquireQueueNames(const Request &request) {
  const int32_t queueType = queueTypeFilter(request.parameters).value_or(0);
  Reply reply;
  for (const std::string &name : matchingQueues(request, queueType))
    reply.addField(PARM_Q_NAMES, name, Q_NAME_LENGTH);
  request.replier.add(std::move(reply));
}

struct Command {
  int32_t code;
  void (*run)(const Request &request);
  int32_t attributeList;  // selector of its attribute list, or 0
  std::vector<ParameterRule> rules;
};

const std::vector<Command> &commands() {
  static const std::vector<Command> table = {
      {CMD_PING, ping, 0, {}},
      {CMD_INQUIRE_Q_MGR, inquireQueueManager, PARM_Q_MGR_ATTRS, {list(PARM_Q_MGR_ATTRS)}},
      {CMD_CREATE_Q,
       createQueue,
       0,
       {required(ATTR_Q_NAME, kStr), required(ATTR_Q_TYPE, kInt), VXCS_QUEUE_ATTRIBUTE_RULES}},
      {CMD_CHANGE_Q,
       changeQueue,
       0,
       {required(ATTR_Q_NAME, kStr), required(ATTR_Q_TYPE, kInt), VXCS_QUEUE_ATTRIBUTE_RULES}},
      {CMD_COPY_Q,
       copyQueue,
       0,
       {required(PARM_FROM_Q_NAME, kStr), required(PARM_TO_Q_NAME, kStr),
        required(ATTR_Q_TYPE, kInt), VXCS_QUEUE_ATTRIBUTE_RULES}},
      {CMD_DELETE_Q, deleteQueue, 0, {required(ATTR_Q_NAME, kStr), optional(PARM_PURGE, kInt)}},
      {CMD_CLEAR_Q, clearQueue, 0, {required(ATTR_Q_NAME, kStr)}},
      {CMD_INQUIRE_Q,
       inquireQueue,
       PARM_Q_ATTRS,
       {required(ATTR_Q_NAME, kStr), optional(ATTR_Q_TYPE, kInt), list(PARM_Q_ATTRS)}},
      {CMD_INQUIRE_Q_NAMES,
       inquireQueueNames,
       0,
       {required(ATTR_Q_NAME, kStr), optional(ATTR_Q_TYPE, kInt)}},
      {CMD_INQUIRE_Q_STATUS,
       inquireQueueStatus,
       PARM_Q_STATUS_ATTRS,
       {required(ATTR_Q_NAME, kStr), list(PARM_Q_STATUS_ATTRS)}},
  };
  return table;
}

// ----- Reading and answering --------------------------------------------------------------

// Carries out a request read without fault: a command message whose
// command the server knows.
void carryOut(Session &session, VXHBAG bag, Replier &replier) {
  int32_t cc = CC_OK, rc = RC_NONE, pcfType = 0;
  vxInquireInteger(bag, SEL_PCF_TYPE, ITEM_INDEX_NONE, &pcfType, &cc, &rc);
  if (cc != CC_OK) fail(rc);
  if (pcfType != kPcfTypeCommand) fail(RC_COMMAND_TYPE_ERROR);
  int32_t code = 0;
  vxInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, &code, &cc, &rc);
  if (cc != CC_OK) fail(rc);
  const Command *command = nullptr;
  for (const Command &candidate : commands())
    if (candidate.code == code) command = &candidate;
  if (!command) fail(RC_COMMAND_NOT_SUPPORTED);
  const Parameters parameters(bag, command->rules, command->attributeList);
  command->run(Request{session, parameters, replier});
}

// The command code a request names, as far as the reader got: 0 when the
// header could not be read.
int32_t commandOf(VXHBAG bag) {
  int32_t cc = CC_OK, rc = RC_NONE, code = 0;
  if (bag != BAG_NONE) vxInquireInteger(bag, SEL_COMMAND, ITEM_INDEX_NONE, &code, &cc, &rc);
  return cc == CC_OK ? code : 0;
}

// Answers one request that was taken off the queue; readReason is the
// reader's failure, or 0.
void answer(Session &session, const vxMSGDESC &md, VXHBAG bag, int32_t readReason) {
  Replier replier(session, md, commandOf(bag));
  std::optional<CommandError> failure;
  try {
    if (readReason != RC_NONE) fail(readReason);
    carryOut(session, bag, replier);
    replier.finish();
  } catch (const CommandError &error) {
    failure = error;
  } catch (const std::bad_alloc &) {
    failure = CommandError{RC_STORAGE_NOT_AVAILABLE, std::nullopt};
  } catch (...) {
    failure = CommandError{RC_UNEXPECTED_ERROR, std::nullopt};
  }
  if (!failure) return;
  try {
    replier.finishWithError(*failure);
  } catch (...) {
    // Without memory even for the error reply the requester's wait runs out.
  }
}

// Takes off the queue the message that a get left there because the server
// could not afford a buffer for it (the descriptor holds its ids).
void discard(const Session &session, int32_t hobj, const vxMSGDESC &md) {
  vxMSGDESC selector = MD_DEFAULT;
  std::memcpy(selector.msgId, md.msgId, MSG_ID_LENGTH);
  std::memcpy(selector.correlId, md.correlId, CORREL_ID_LENGTH);
  vxGETOPTS gmo = GMO_DEFAULT;
  gmo.options = GET_NO_SYNCPOINT;
  int32_t cc = CC_OK, rc = RC_NONE;
  vxGetBag(session.hconn, hobj, &selector, &gmo, BAG_NONE, &cc, &rc);
}

// Waits for the next request and answers it.  Returns RC_NONE when a
// request was taken, else the reason of the get that took none: the handle
// was closed (the server is stopping), the connection ended, or gets are
// inhibited on the command queue.
int32_t serveOne(Session &session, int32_t hobj) {
  vxMSGDESC md = MD_DEFAULT;
  vxGETOPTS gmo = GMO_DEFAULT;
  gmo.options = GET_WAIT | GET_NO_SYNCPOINT;
  gmo.waitInterval = WAIT_UNLIMITED;
  int32_t cc = CC_OK, rc = RC_NONE;
  // A bag without selector checks takes any request, to be judged after.
  VXHBAG bag = BAG_NONE;
  vxCreateBag(0, &bag, &cc, &rc);
  const int32_t createReason = cc == CC_OK ? RC_NONE : rc;
  // Without a bag the get still takes the request off the queue, to refuse it.
  if (createReason != RC_NONE) bag = BAG_NONE;
  // What anyone may put is read under a cap, so that a request costs no
  // more than its size warrants; a request that needs more gets 2071.
  svcSetThreadMemLimit(kReadLargestBlock, kReadTotalBytes);
  vxGetBag(session.hconn, hobj, &md, &gmo, bag, &cc, &rc);
  svcSetThreadMemLimit(0, 0);
  const bool taken = !allZero(md.msgId, MSG_ID_LENGTH);
  if (taken) {
    if (cc == CC_FAILED && rc == RC_STORAGE_NOT_AVAILABLE) discard(session, hobj, md);
    const int32_t readReason = createReason != RC_NONE ? createReason
                               : cc == CC_FAILED       ? rc
                                                       : RC_NONE;
    answer(session, md, bag, readReason);
  }
  const int32_t getReason = rc;
  if (bag != BAG_NONE) vxDeleteBag(&bag, &cc, &rc);
  return taken ? RC_NONE : getReason;
}

void serve(vxcsSERVER *server, Session &session) {
  char qmName[QM_NAME_LENGTH + 1] = {};
  std::strncpy(qmName, session.qmName.c_str(), QM_NAME_LENGTH);
  int32_t cc = CC_OK, rc = RC_NONE, hobj = HOBJ_UNUSABLE;
  VXCONN(qmName, &session.hconn, &cc, &rc);
  if (cc != CC_FAILED) {
    vxOBJDESC od = OD_DEFAULT;
    std::memcpy(od.objectName, kCommandQueue, sizeof kCommandQueue - 1);
    VXOPEN(session.hconn, &od, OPEN_INPUT_SHARED, &hobj, &cc, &rc);
    if (cc == CC_FAILED) {
      int32_t discCc = CC_OK, discRc = RC_NONE;
      VXDISC(&session.hconn, &discCc, &discRc);
    }
  }
  if (cc != CC_FAILED) {
    vxCreateBag(BAG_OPT_LIST_FORM_ALLOWED, &session.replyBag, &cc, &rc);
    if (cc != CC_OK) {
      int32_t closeCc = CC_OK, closeRc = RC_NONE;
      VXCLOSE(session.hconn, &hobj, CLOSE_NONE, &closeCc, &closeRc);
      VXDISC(&session.hconn, &closeCc, &closeRc);
      cc = CC_FAILED;
    }
  }
  {
    std::lock_guard lock(server->mutex);
    server->started = true;
    server->startReason = cc == CC_FAILED ? rc : RC_NONE;
    server->queueOpen = cc != CC_FAILED;
    server->hconn = session.hconn;
    server->hobj = hobj;
    server->startedChanged.notify_all();
  }
  if (cc == CC_FAILED) return;

  for (;;) {
    const int32_t reason = serveOne(session, hobj);
    if (reason == RC_NONE) continue;
    if (reason != RC_GET_INHIBITED) break;
    // Gets inhibited on the command queue (a change queue that anyone may
    // send does it) pause the server until they are allowed again; only
    // vxcsStop, or the end of the connection, ends it.
    std::unique_lock lock(server->mutex);
    server->stopAsked.wait_for(lock, kInhibitedGetRetry, [server] { return !server->queueOpen; });
  }

  {
    std::lock_guard lock(server->mutex);
    if (server->queueOpen) VXCLOSE(session.hconn, &hobj, CLOSE_NONE, &cc, &rc);
    server->queueOpen = false;
  }
  vxDeleteBag(&session.replyBag, &cc, &rc);
  VXDISC(&session.hconn, &cc, &rc);
}

}  // namespace
}  // namespace vxcs

extern "C" {

int32_t vxcsStart(const char *qmName, vxcsSERVER **server) {
  if (!server) return RC_OPTIONS_ERROR;
  *server = nullptr;
  if (qmName && std::strlen(qmName) > QM_NAME_LENGTH) return RC_Q_MGR_NAME_ERROR;
  vxcsSERVER *created = nullptr;
  try {
    created = new vxcsSERVER;
    created->session.qmName = qmName ? qmName : "";
    created->thread = std::thread(vxcs::serve, created, std::ref(created->session));
  } catch (...) {
    delete created;
    return RC_STORAGE_NOT_AVAILABLE;
  }
  int32_t reason = RC_NONE;
  {
    std::unique_lock lock(created->mutex);
    created->startedChanged.wait(lock, [created] { return created->started; });
    reason = created->startReason;
  }
  if (reason != RC_NONE) {
    created->thread.join();
    delete created;
    return reason;
  }
  *server = created;
  return RC_NONE;
}

void vxcsStop(vxcsSERVER *server) {
  if (!server) return;
  {
    // Closing the handle ends the get the server's thread waits in; a
    // request being carried out is finished, and the next get fails.
    std::lock_guard lock(server->mutex);
    if (server->queueOpen) {
      int32_t hobj = server->hobj, cc = CC_OK, rc = RC_NONE;
      VXCLOSE(server->hconn, &hobj, CLOSE_NONE, &cc, &rc);
      server->queueOpen = false;
    }
    server->stopAsked.notify_all();
  }
  server->thread.join();
  delete server;
}

}  // extern "C"
