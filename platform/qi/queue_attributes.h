// The attributes of a queue, one row each: selector, JSON key, constant
// name, type and range, vxadmin's option, which inquiries report it and
// which commands set it.  The queue manager's change rules, the command
// server's parameters and replies, the table of names (tools/names) and
// vxadmin's options, output and manual page all read this one table; a new
// attribute is a new row here, and the field that holds it in the queue
// manager's definition.
//
// The rows are in the order in which a queue's attributes are shown: the
// order of the command server's replies to inquire queue.
#ifndef VX_QUEUE_ATTRIBUTES_H
#define VX_QUEUE_ATTRIBUTES_H

#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

#include "vxqi_records.h"

namespace vxqi {

// Upper limits of the attributes an administrator sets.
inline constexpr int32_t kLargestMaxMsgLength = 100 * 1024 * 1024;
inline constexpr int32_t kLargestMaxDepth = 999999999;
inline constexpr int32_t kLargestPriority = 9;

enum class AttributeType {
  Integer,     // a number from minimum to maximum
  Enumerated,  // one of its named values
  String,      // at most `length` characters; replies pad it with blanks to that length
};

// Which queue inquiries report an attribute, and so which vxadmin commands
// show it.
enum class Shown {
  Always,    // the queue's name: first in every reply about a queue
  InStatus,  // inquire queue status (vxadmin status) and inquire queue (show queue)
  InShow,    // inquire queue only (show queue)
};

// Which commands set an attribute.
enum class Setting {
  // The queue's name: given to create and copy, it names the queue in every
  // command.
  Key,
  ReadOnly,           // the queue manager keeps it
  OnCreate,           // given when the queue is made (create, copy), never changed
  OnCreateAndChange,  // create, copy and change
};

// A named value of an enumerated attribute.
struct ValueName {
  int32_t value;
  const char *name;  // "inhibited": the JSON value and vxadmin's option value
};

inline constexpr ValueName kQueueTypes[] = {{QTYPE_LOCAL, "local"}, {QTYPE_MODEL, "model"}};
inline constexpr ValueName kPersistences[] = {{PERSISTENCE_NOT_PERSISTENT, "not_persistent"},
                                              {PERSISTENCE_PERSISTENT, "persistent"}};
inline constexpr ValueName kDefinitionTypes[] = {{DEFTYPE_PREDEFINED, "predefined"},
                                                 {DEFTYPE_PERMANENT_DYNAMIC, "permanent_dynamic"},
                                                 {DEFTYPE_TEMPORARY_DYNAMIC, "temporary_dynamic"}};
inline constexpr ValueName kInhibitStates[] = {{INHIBIT_ALLOWED, "allowed"},
                                               {INHIBIT_INHIBITED, "inhibited"}};

struct QueueAttribute {
  int32_t selector;
  const char *key;   // "max_q_depth": JSON key and table label
  const char *name;  // "ATTR_MAX_Q_DEPTH"
  AttributeType type;
  int32_t minimum = 0;                     // of an integer
  int32_t maximum = 0;                     // of an integer
  int32_t length = 0;                      // of a string
  std::span<const ValueName> values = {};  // of an enumerated one, in increasing value
  const char *option = nullptr;            // vxadmin's option ("--max-depth"), or null
  Shown shown = Shown::InShow;
  Setting setting = Setting::ReadOnly;
  const char *description = "";  // one line, for help and the manual page

  // Whether an administrator may give the attribute this value.
  constexpr bool accepts(int32_t value) const {
    if (type == AttributeType::Integer) return value >= minimum && value <= maximum;
    if (type != AttributeType::Enumerated) return false;
    for (const ValueName &named : values)
      if (named.value == value) return true;
    return false;
  }
  // A string's trailing blanks are not part of it: callers trim first.
  constexpr bool accepts(std::string_view value) const {
    return type == AttributeType::String && value.size() <= static_cast<size_t>(length);
  }
};

inline constexpr QueueAttribute kQueueAttributes[] = {
    {.selector = ATTR_Q_NAME,
     .key = "q_name",
     .name = "ATTR_Q_NAME",
     .type = AttributeType::String,
     .length = Q_NAME_LENGTH,
     .shown = Shown::Always,
     .setting = Setting::Key,
     .description = "name of the queue"},
    {.selector = ATTR_Q_TYPE,
     .key = "q_type",
     .name = "ATTR_Q_TYPE",
     .type = AttributeType::Enumerated,
     .values = kQueueTypes,
     .option = "--type",
     .setting = Setting::OnCreate,
     .description = "type of queue: a local queue holds messages, a model makes queues"},
    {.selector = ATTR_Q_DESC,
     .key = "q_desc",
     .name = "ATTR_Q_DESC",
     .type = AttributeType::String,
     .length = Q_DESC_LENGTH,
     .option = "--description",
     .setting = Setting::OnCreateAndChange,
     .description = "description"},
    {.selector = ATTR_DEF_PERSISTENCE,
     .key = "def_persistence",
     .name = "ATTR_DEF_PERSISTENCE",
     .type = AttributeType::Enumerated,
     .values = kPersistences,
     .option = "--def-persistence",
     .setting = Setting::OnCreateAndChange,
     .description = "persistence of messages put without one of their own"},
    {.selector = ATTR_DEF_PRIORITY,
     .key = "def_priority",
     .name = "ATTR_DEF_PRIORITY",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = kLargestPriority,
     .option = "--def-priority",
     .setting = Setting::OnCreateAndChange,
     .description = "priority of messages put without one of their own"},
    {.selector = ATTR_DEFINITION_TYPE,
     .key = "definition_type",
     .name = "ATTR_DEFINITION_TYPE",
     .type = AttributeType::Enumerated,
     .values = kDefinitionTypes,
     .description = "how the queue was made; of a model, the kind of queue it makes"},
    {.selector = ATTR_INHIBIT_GET,
     .key = "inhibit_get",
     .name = "ATTR_INHIBIT_GET",
     .type = AttributeType::Enumerated,
     .values = kInhibitStates,
     .option = "--get",
     .setting = Setting::OnCreateAndChange,
     .description = "whether gets are allowed"},
    {.selector = ATTR_INHIBIT_PUT,
     .key = "inhibit_put",
     .name = "ATTR_INHIBIT_PUT",
     .type = AttributeType::Enumerated,
     .values = kInhibitStates,
     .option = "--put",
     .setting = Setting::OnCreateAndChange,
     .description = "whether puts are allowed"},
    {.selector = ATTR_MAX_MSG_LENGTH,
     .key = "max_msg_length",
     .name = "ATTR_MAX_MSG_LENGTH",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = kLargestMaxMsgLength,
     .option = "--max-msg-length",
     .setting = Setting::OnCreateAndChange,
     .description = "maximum message length in bytes"},
    {.selector = ATTR_MAX_Q_DEPTH,
     .key = "max_q_depth",
     .name = "ATTR_MAX_Q_DEPTH",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = kLargestMaxDepth,
     .option = "--max-depth",
     .setting = Setting::OnCreateAndChange,
     .description = "maximum number of messages on the queue"},
    {.selector = ATTR_CURRENT_DEPTH,
     .key = "current_depth",
     .name = "ATTR_CURRENT_DEPTH",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = kLargestMaxDepth,
     .shown = Shown::InStatus,
     .description = "number of messages on the queue, committed or not"},
    {.selector = ATTR_OPEN_INPUT_COUNT,
     .key = "open_input_count",
     .name = "ATTR_OPEN_INPUT_COUNT",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = std::numeric_limits<int32_t>::max(),
     .shown = Shown::InStatus,
     .description = "handles open to get messages, of every process"},
    {.selector = ATTR_OPEN_OUTPUT_COUNT,
     .key = "open_output_count",
     .name = "ATTR_OPEN_OUTPUT_COUNT",
     .type = AttributeType::Integer,
     .minimum = 0,
     .maximum = std::numeric_limits<int32_t>::max(),
     .shown = Shown::InStatus,
     .description = "handles open to put messages, of every process"},
};

constexpr std::span<const QueueAttribute> queueAttributes() { return kQueueAttributes; }

// The row of a selector, or null when it is not a queue attribute.
constexpr const QueueAttribute *findQueueAttribute(int32_t selector) {
  for (const QueueAttribute &attribute : kQueueAttributes)
    if (attribute.selector == selector) return &attribute;
  return nullptr;
}

// The row of a vxadmin option ("--max-depth"), or null.
constexpr const QueueAttribute *findQueueAttributeByOption(std::string_view option) {
  for (const QueueAttribute &attribute : kQueueAttributes)
    if (attribute.option && option == attribute.option) return &attribute;
  return nullptr;
}

// Whether an administrator may give the attribute of `selector` this value;
// false for a selector that is no queue attribute.
constexpr bool accepts(int32_t selector, int32_t value) {
  const QueueAttribute *attribute = findQueueAttribute(selector);
  return attribute && attribute->accepts(value);
}
constexpr bool accepts(int32_t selector, std::string_view value) {
  const QueueAttribute *attribute = findQueueAttribute(selector);
  return attribute && attribute->accepts(value);
}

}  // namespace vxqi

#endif  // VX_QUEUE_ATTRIBUTES_H
