// The replies of a request: built as Reply records by the commands, sent by
// the Replier with their header, on the request's reply-to queue.
#include <cstring>

#include "server_parts.h"

namespace vxcs {
namespace {

constexpr int32_t kPcfTypeResponse = 2;

Reply errorReply(const CommandError &error) {
  Reply reply;
  reply.compCode = CC_FAILED;
  reply.reason = error.reason;
  if (error.parameter) reply.addInteger(PARM_ERROR_PARAMETER, *error.parameter);
  return reply;
}

// A fixed-length name field up to its first zero byte, trailing blanks
// dropped.
std::string fieldText(const char *field, size_t length) {
  size_t end = 0;
  while (end < length && field[end] != 0) ++end;
  while (end > 0 && field[end - 1] == ' ') --end;
  return std::string(field, end);
}

}  // namespace

void Reply::addField(int32_t selector, const std::string &value, size_t length) {
  std::string field = value.substr(0, length);
  field.resize(length, ' ');
  items.push_back({selector, true, 0, std::move(field)});
}

bool Replier::wanted() const { return !fieldText(request_.replyToQ, Q_NAME_LENGTH).empty(); }

void Replier::add(Reply reply) {
  if (!wanted()) return;
  if (pending_) send(*pending_, 0);
  pending_ = std::move(reply);
}

void Replier::finish() {
  if (pending_) send(*pending_, PCF_CONTROL_LAST);
  pending_.reset();
}

void Replier::finishWithError(const CommandError &error) {
  if (!wanted()) return;
  if (pending_) send(*pending_, 0);
  pending_ = errorReply(error);
  finish();
}

void Replier::send(const Reply &reply, int32_t control) {
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
      vxAddString(bag, item.selector, static_cast<int32_t>(item.text.size()), item.text.data(), &cc,
                  &rc);
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

bool Replier::openQueue() {
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

void Replier::closeQueue() {
  if (replyQueue_ == HOBJ_UNUSABLE) return;
  int32_t cc = CC_OK, rc = RC_NONE;
  VXCLOSE(session_.hconn, &replyQueue_, CLOSE_NONE, &cc, &rc);
  replyQueue_ = HOBJ_UNUSABLE;
}

}  // namespace vxcs
