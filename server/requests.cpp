// Requests: the next message of the command queue read into a bag under a
// cap of memory, its command found in the table of commands, its
// parameters checked against the command's rules, and the command carried
// out and answered.
#include <cstring>
#include <new>

#include "server_parts.h"
#include "svc.h"

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
constexpr int32_t kPcfTypeCommand = 1;
constexpr int32_t kFirstStringBuffer = 256;

constexpr int32_t kInt = ITEM_TYPE_INTEGER;
constexpr int32_t kStr = ITEM_TYPE_STRING;

constexpr ParameterRule required(int32_t selector, int32_t type) {
  return {selector, type, true, false};
}
constexpr ParameterRule optional(int32_t selector, int32_t type) {
  return {selector, type, false, false};
}
constexpr ParameterRule list(int32_t selector) {
  return {selector, ITEM_TYPE_INTEGER, false, true};
}

// The rules of create, change and copy: their own, then every attribute
// that a change may set, as the table of queue attributes lists them.
std::vector<ParameterRule> withQueueAttributes(std::vector<ParameterRule> rules) {
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes())
    if (attribute.setting == vxqi::Setting::OnCreateAndChange)
      rules.push_back(optional(attribute.selector,
                               attribute.type == vxqi::AttributeType::String ? kStr : kInt));
  return rules;
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
      {CMD_CREATE_Q, createQueue, 0,
       withQueueAttributes({required(ATTR_Q_NAME, kStr), required(ATTR_Q_TYPE, kInt)})},
      {CMD_CHANGE_Q, changeQueue, 0,
       withQueueAttributes({required(ATTR_Q_NAME, kStr), required(ATTR_Q_TYPE, kInt)})},
      {CMD_COPY_Q, copyQueue, 0,
       withQueueAttributes({required(PARM_FROM_Q_NAME, kStr), required(PARM_TO_Q_NAME, kStr),
                            required(ATTR_Q_TYPE, kInt)})},
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

bool allZero(const char *bytes, size_t length) {
  for (size_t i = 0; i < length; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

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

}  // namespace

// ----- Parameters -----------------------------------------------------------------------

Parameters::Parameters(VXHBAG bag, const std::vector<ParameterRule> &rules, int32_t attributeList)
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
    if (rules_[rule].required && seen[rule] == 0) fail(RC_PARAMETER_MISSING, rules_[rule].selector);
}

std::optional<int32_t> Parameters::integer(int32_t selector) const {
  if (!has(selector)) return std::nullopt;
  int32_t cc = CC_OK, rc = RC_NONE, value = 0;
  vxInquireInteger(bag_, selector, ITEM_INDEX_NONE, &value, &cc, &rc);
  if (cc != CC_OK) fail(rc, selector);
  return value;
}

std::optional<int32_t> Parameters::integer(int32_t selector, int32_t low, int32_t high) const {
  std::optional<int32_t> value = integer(selector);
  if (value && (*value < low || *value > high)) fail(RC_PARAMETER_ERROR, selector);
  return value;
}

std::optional<std::string> Parameters::string(int32_t selector) const {
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

std::optional<int32_t> Parameters::integer(const vxqi::QueueAttribute &attribute) const {
  std::optional<int32_t> value = integer(attribute.selector);
  if (value && !attribute.accepts(*value)) fail(RC_PARAMETER_ERROR, attribute.selector);
  return value;
}

std::optional<std::string> Parameters::string(const vxqi::QueueAttribute &attribute) const {
  std::optional<std::string> value = string(attribute.selector);
  if (value && !attribute.accepts(*value)) fail(RC_PARAMETER_ERROR, attribute.selector);
  return value;
}

std::vector<int32_t> Parameters::attributeList() const {
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

size_t Parameters::ruleOf(int32_t selector) const {
  if (selector == SEL_INQUIRY_ITEM && attributeList_ != 0) selector = attributeList_;
  size_t rule = 0;
  while (rule < rules_.size() && rules_[rule].selector != selector) ++rule;
  return rule;
}

int32_t Parameters::count(int32_t selector) const {
  int32_t cc = CC_OK, rc = RC_NONE, count = 0;
  vxCountItems(bag_, selector, &count, &cc, &rc);
  return cc == CC_OK ? count : 0;
}

std::string objectName(const Parameters &parameters, int32_t selector) {
  std::string name = parameters.string(selector).value_or(std::string());
  if (!isValidName(name)) fail(RC_OBJECT_NAME_ERROR, selector);
  return name;
}

std::string genericName(const Parameters &parameters) {
  std::string pattern = parameters.string(ATTR_Q_NAME).value_or(std::string());
  const bool generic = !pattern.empty() && pattern.back() == '*';
  const std::string prefix = generic ? pattern.substr(0, pattern.size() - 1) : pattern;
  const bool valid = generic ? prefix.empty() || isValidName(prefix) : isValidName(prefix);
  if (!valid || pattern.size() > Q_NAME_LENGTH) fail(RC_OBJECT_NAME_ERROR, ATTR_Q_NAME);
  return pattern;
}

// ----- Reading and answering --------------------------------------------------------------

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

}  // namespace vxcs
