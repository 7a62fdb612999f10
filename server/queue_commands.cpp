// The commands that define and remove queues: create, change, copy, delete
// and clear queue, carried out through the queue manager's administration
// interface.
#include "qm_admin.h"
#include "queue_fields.h"
#include "server_parts.h"

namespace vxcs {
namespace {

// The model of the requesters' reply queues: a reply queue has its
// attributes, puts and gets inhibited included.
constexpr char kReplyModelQueue[] = "SYSTEM.DEFAULT.MODEL.QUEUE";
// The queue manager's own queues, which administrators may change but not
// delete or retype.
constexpr char kSystemPrefix[] = "SYSTEM.";

// The shortest maximum message length the command queue and the model of
// reply queues may be given: room for any command that changes a queue, and
// for its reply.
constexpr int32_t kSmallestCommandMsgLength = 4096;

// The attributes that create, change and copy set, from their parameters,
// in the order of the table: the first value it refuses is the one named.
vxqm::QueueChanges queueChanges(const Parameters &parameters) {
  vxqm::QueueChanges changes;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    const vxqm::ChangeField *field = vxqm::changeField(attribute.selector);
    if (!field) continue;
    if (field->text)
      changes.*field->text = parameters.string(attribute);
    else
      changes.*field->integer = parameters.integer(attribute);
  }
  return changes;
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

}  // namespace

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

}  // namespace vxcs
