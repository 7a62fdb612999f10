// What the parts of the command server share.  The server is one thread per
// server that waits on the command queue, reads each request into a bag,
// carries the command out through the queue manager's administration
// interface and answers on the request's reply-to queue.  Everything it
// does to queues goes through the bag library's calls; the administration
// interface only defines, changes and lists queues.
//
//   lifecycle.cpp       vxcsStart, vxcsStop and the server's thread
//   requests.cpp        reading a request, its command and its parameters
//   replies.cpp         the replies of a request
//   queue_commands.cpp  create, change, copy, delete and clear queue
//   inquiries.cpp       ping and the inquiries
//
// Threads: the server's thread owns everything of a request (bags,
// descriptors, the reply queue's handle).  Only vxcsStart and vxcsStop
// (lifecycle.cpp) share anything with other threads.
#ifndef VX_SERVER_PARTS_H
#define VX_SERVER_PARTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "command_server.h"
// vxai.h first: it defines VXAI_EXPORT, which vxqi.h only defines when absent.
#include "vxai.h"
#include "vxqi.h"
#include "queue_attributes.h"

namespace vxcs {

// The queue manager, the connection and the bag the replies are built in:
// set up by vxcsStart, then used by the server's thread only.
struct Session {
  std::string qmName;  // as given to vxcsStart; the administration interface resolves it
  int32_t hconn = 0;
  VXHBAG replyBag = BAG_NONE;
};

inline constexpr char kCommandQueue[] = "SYSTEM.ADMIN.COMMAND.QUEUE";

// ----- Errors (thrown inside the server's thread, never beyond it) ------------------------

// The failure of a command: the reason of its error reply and, when the
// failure is about a parameter, that parameter's selector.
struct CommandError {
  int32_t reason;
  std::optional<int32_t> parameter;
};

[[noreturn]] inline void fail(int32_t reason, std::optional<int32_t> parameter = std::nullopt) {
  throw CommandError{reason, parameter};
}

// ----- Replies (replies.cpp) ------------------------------------------------------------------

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
  void addField(int32_t selector, const std::string &value, size_t length);
};

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

  bool wanted() const;
  void add(Reply reply);
  // Sends the held reply as the last one.
  void finish();
  // Replaces what is held back by an error reply: the replies already sent
  // stay, the error is the last.
  void finishWithError(const CommandError &error);

 private:
  void send(const Reply &reply, int32_t control);
  bool openQueue();
  void closeQueue();

  Session &session_;
  const vxMSGDESC &request_;
  const int32_t command_;
  int32_t sequence_ = 0;
  std::optional<Reply> pending_;
  int32_t replyQueue_ = HOBJ_UNUSABLE;
  bool openFailed_ = false;
};

// ----- Requests and their parameters (requests.cpp) --------------------------------------

// A parameter a command takes.  A list parameter may occur any number of
// times (an integer list arrives as one item per value); any other at most
// once.
struct ParameterRule {
  int32_t selector;
  int32_t type;  // ITEM_TYPE_INTEGER or ITEM_TYPE_STRING
  bool required;
  bool list;
};

// The parameters of a request, checked against its command's rules: every
// item has a rule, the type of its rule and occurs no more often than the
// rule allows, and every required parameter is there.  Values are read
// from the request's bag, which outlives the object.
class Parameters {
 public:
  Parameters(VXHBAG bag, const std::vector<ParameterRule> &rules, int32_t attributeList);

  bool has(int32_t selector) const { return count(selector) > 0; }
  std::optional<int32_t> integer(int32_t selector) const;
  // An integer that must lie in [low, high].
  std::optional<int32_t> integer(int32_t selector, int32_t low, int32_t high) const;
  // A string with its trailing blanks and zero bytes (the padding of a list)
  // dropped.
  std::optional<std::string> string(int32_t selector) const;
  // A queue attribute, refused unless the table of queue attributes accepts
  // its value.
  std::optional<int32_t> integer(const vxqi::QueueAttribute &attribute) const;
  std::optional<std::string> string(const vxqi::QueueAttribute &attribute) const;
  // The values of the command's attribute list, under its own selector or
  // as inquiry items of a bag written without list form.
  std::vector<int32_t> attributeList() const;

 private:
  size_t ruleOf(int32_t selector) const;
  int32_t count(int32_t selector) const;

  VXHBAG bag_;
  const std::vector<ParameterRule> &rules_;
  int32_t attributeList_;  // 0 for a command without one
};

// An object name parameter: 1 to 48 characters of A-Z a-z 0-9 . _ / %.
std::string objectName(const Parameters &parameters, int32_t selector);
// A generic name: a name, or a prefix of one followed by '*' ("*" alone
// names every queue).
std::string genericName(const Parameters &parameters);

// Waits for the next request on the command queue and answers it.  Returns
// RC_NONE when a request was taken, else the reason of the get that took
// none: the handle was closed (the server is stopping), the connection
// ended, or gets are inhibited on the command queue.
int32_t serveOne(Session &session, int32_t hobj);

// ----- The commands (queue_commands.cpp, inquiries.cpp) ----------------------------------

struct Request {
  Session &session;
  const Parameters &parameters;
  Replier &replier;
};

void ping(const Request &request);
void inquireQueueManager(const Request &request);
void createQueue(const Request &request);
void changeQueue(const Request &request);
void copyQueue(const Request &request);
void deleteQueue(const Request &request);
void clearQueue(const Request &request);
void inquireQueue(const Request &request);
void inquireQueueNames(const Request &request);
void inquireQueueStatus(const Request &request);

// Turns a failure of the administration interface into the command's
// error: failures about the object name name the parameter that named it.
void check(int32_t reason, int32_t nameParameter);

}  // namespace vxcs

#endif  // VX_SERVER_PARTS_H
