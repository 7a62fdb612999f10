// The commands that only read: ping, inquire queue manager, and the queue
// inquiries, whose replies carry the attributes the table of queue
// attributes lists, in its order.
#include "qm_admin.h"
#include "queue_fields.h"
#include "server_parts.h"

namespace vxcs {
namespace {

// What an inquiry can report of a queue.
struct QueueFacts {
  vxqm::QueueDefinition definition;
  vxqm::QueueStatus status;
};

void addAttribute(Reply &reply, const vxqi::QueueAttribute &attribute, const QueueFacts &facts) {
  const vxqm::QueueField &field = *vxqm::queueField(attribute.selector);
  if (field.text)
    reply.addField(attribute.selector, facts.definition.*field.text,
                   static_cast<size_t>(attribute.length));
  else if (field.status)
    reply.addInteger(attribute.selector, facts.status.*field.status);
  else
    reply.addInteger(attribute.selector, facts.definition.*field.integer);
}

bool reportedBy(const vxqi::QueueAttribute &attribute, bool statusOnly) {
  return !statusOnly || attribute.shown != vxqi::Shown::InShow;
}

// The attributes an inquiry reports: those of its attribute list, or all
// when the list is absent or holds PARM_ALL.  The queue's name is always
// reported, first, and may be listed.
std::vector<const vxqi::QueueAttribute *> selectedAttributes(const Parameters &parameters,
                                                             int32_t listSelector,
                                                             bool statusOnly) {
  const std::vector<int32_t> wanted = parameters.attributeList();
  bool all = wanted.empty();
  for (int32_t selector : wanted) {
    const vxqi::QueueAttribute *attribute = vxqi::findQueueAttribute(selector);
    const bool known = selector == PARM_ALL || (attribute && reportedBy(*attribute, statusOnly));
    if (!known) fail(RC_PARAMETER_ERROR, listSelector);
    all = all || selector == PARM_ALL;
  }
  std::vector<const vxqi::QueueAttribute *> selected;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    if (attribute.shown == vxqi::Shown::Always || !reportedBy(attribute, statusOnly)) continue;
    bool listed = all;
    for (int32_t selector : wanted) listed = listed || selector == attribute.selector;
    if (listed) selected.push_back(&attribute);
  }
  return selected;
}

std::optional<int32_t> queueTypeFilter(const Parameters &parameters) {
  return parameters.integer(*vxqi::findQueueAttribute(ATTR_Q_TYPE));
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
  const std::vector<const vxqi::QueueAttribute *> selected =
      selectedAttributes(request.parameters, listSelector, statusOnly);
  bool needDefinition = false, needStatus = false;
  for (const vxqi::QueueAttribute *attribute : selected)
    (attribute->shown == vxqi::Shown::InStatus ? needStatus : needDefinition) = true;
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
    for (const vxqi::QueueAttribute *attribute : selected) addAttribute(reply, *attribute, facts);
    request.replier.add(std::move(reply));
    ++replies;
  }
  if (replies == 0) fail(RC_UNKNOWN_OBJECT_NAME, ATTR_Q_NAME);
}

}  // namespace

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

}  // namespace vxcs
