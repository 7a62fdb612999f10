#include "vxnames.h"

#include <array>

#include "command_server.h"
#include "queue_attributes.h"
#include "vxai.h"
#include "vxqi.h"

namespace vxnames {

namespace {

constexpr Reason kReasons[] = {
    {RC_NONE, "RC_NONE", "no reason to report"},
    {RC_BUFFER_ERROR, "RC_BUFFER_ERROR", "buffer not accessible"},
    {RC_BUFFER_LENGTH_ERROR, "RC_BUFFER_LENGTH_ERROR", "buffer length not valid"},
    {RC_CHAR_ATTR_LENGTH_ERROR, "RC_CHAR_ATTR_LENGTH_ERROR",
     "character attribute length not valid"},
    {RC_CHAR_ATTRS_ERROR, "RC_CHAR_ATTRS_ERROR", "character attributes not accessible"},
    {RC_CHAR_ATTRS_TOO_SHORT, "RC_CHAR_ATTRS_TOO_SHORT", "character attributes too short"},
    {RC_CONNECTION_BROKEN, "RC_CONNECTION_BROKEN", "connection to the queue manager's store lost"},
    {RC_DATA_LENGTH_ERROR, "RC_DATA_LENGTH_ERROR", "data length not accessible"},
    {RC_EXPIRY_ERROR, "RC_EXPIRY_ERROR", "expiry not valid"},
    {RC_GET_INHIBITED, "RC_GET_INHIBITED", "gets inhibited for the queue"},
    {RC_HCONN_ERROR, "RC_HCONN_ERROR", "connection handle not valid"},
    {RC_HOBJ_ERROR, "RC_HOBJ_ERROR", "object handle not valid"},
    {RC_INT_ATTR_COUNT_ERROR, "RC_INT_ATTR_COUNT_ERROR", "integer attribute count not valid"},
    {RC_INT_ATTR_COUNT_TOO_SMALL, "RC_INT_ATTR_COUNT_TOO_SMALL",
     "integer attribute count too small"},
    {RC_INT_ATTRS_ARRAY_ERROR, "RC_INT_ATTRS_ARRAY_ERROR", "integer attributes not accessible"},
    {RC_MSG_DESCRIPTOR_ERROR, "RC_MSG_DESCRIPTOR_ERROR", "message descriptor not valid"},
    {RC_MSG_TOO_BIG_FOR_Q, "RC_MSG_TOO_BIG_FOR_Q", "message longer than the queue allows"},
    {RC_NO_MSG_AVAILABLE, "RC_NO_MSG_AVAILABLE", "no message available"},
    {RC_NOT_OPEN_FOR_BROWSE, "RC_NOT_OPEN_FOR_BROWSE", "queue not open for browse"},
    {RC_NOT_OPEN_FOR_INPUT, "RC_NOT_OPEN_FOR_INPUT", "queue not open for input"},
    {RC_NOT_OPEN_FOR_INQUIRE, "RC_NOT_OPEN_FOR_INQUIRE", "object not open for inquire"},
    {RC_NOT_OPEN_FOR_OUTPUT, "RC_NOT_OPEN_FOR_OUTPUT", "queue not open for output"},
    {RC_NOT_OPEN_FOR_SET, "RC_NOT_OPEN_FOR_SET", "object not open for set"},
    {RC_OBJECT_IN_USE, "RC_OBJECT_IN_USE", "object in use"},
    {RC_OBJECT_TYPE_ERROR, "RC_OBJECT_TYPE_ERROR", "wrong object type"},
    {RC_OBJECT_DESCRIPTOR_ERROR, "RC_OBJECT_DESCRIPTOR_ERROR", "object descriptor not valid"},
    {RC_OPTIONS_ERROR, "RC_OPTIONS_ERROR", "options not valid"},
    {RC_PERSISTENCE_ERROR, "RC_PERSISTENCE_ERROR", "persistence not valid"},
    {RC_PRIORITY_ERROR, "RC_PRIORITY_ERROR", "priority not valid"},
    {RC_PUT_INHIBITED, "RC_PUT_INHIBITED", "puts inhibited for the queue"},
    {RC_Q_DELETED, "RC_Q_DELETED", "queue deleted"},
    {RC_Q_FULL, "RC_Q_FULL", "queue full"},
    {RC_Q_NOT_EMPTY, "RC_Q_NOT_EMPTY", "queue not empty"},
    {RC_Q_MGR_NAME_ERROR, "RC_Q_MGR_NAME_ERROR", "queue manager name not valid"},
    {RC_Q_MGR_NOT_AVAILABLE, "RC_Q_MGR_NOT_AVAILABLE", "queue manager's store cannot be reached"},
    {RC_SELECTOR_COUNT_ERROR, "RC_SELECTOR_COUNT_ERROR", "selector count not valid"},
    {RC_SELECTOR_ERROR, "RC_SELECTOR_ERROR", "selector or attribute value not valid"},
    {RC_STORAGE_NOT_AVAILABLE, "RC_STORAGE_NOT_AVAILABLE", "not enough memory"},
    {RC_MSG_TRUNCATED_ACCEPTED, "RC_MSG_TRUNCATED_ACCEPTED", "message truncated and accepted"},
    {RC_MSG_TRUNCATED, "RC_MSG_TRUNCATED", "message longer than the buffer"},
    {RC_UNKNOWN_OBJECT_NAME, "RC_UNKNOWN_OBJECT_NAME", "unknown object name"},
    {RC_UNKNOWN_OBJECT_Q_MGR, "RC_UNKNOWN_OBJECT_Q_MGR", "unknown object queue manager"},
    {RC_WAIT_INTERVAL_ERROR, "RC_WAIT_INTERVAL_ERROR", "wait interval not valid"},
    {RC_OBJECT_ALREADY_EXISTS, "RC_OBJECT_ALREADY_EXISTS", "object already exists"},
    {RC_NOT_CONVERTED, "RC_NOT_CONVERTED", "message not converted"},
    {RC_UOW_IN_PROGRESS, "RC_UOW_IN_PROGRESS", "unit of work in progress"},
    {RC_BEGIN_OPTIONS_ERROR, "RC_BEGIN_OPTIONS_ERROR", "begin options not valid"},
    {RC_CONNECT_OPTIONS_ERROR, "RC_CONNECT_OPTIONS_ERROR", "connect options not valid"},
    {RC_OBJECT_NAME_ERROR, "RC_OBJECT_NAME_ERROR", "object name not valid"},
    {RC_PUT_OPTIONS_ERROR, "RC_PUT_OPTIONS_ERROR", "put options not valid"},
    {RC_GET_OPTIONS_ERROR, "RC_GET_OPTIONS_ERROR", "get options not valid"},
    {RC_UNEXPECTED_ERROR, "RC_UNEXPECTED_ERROR", "unexpected error"},
    {RC_STORE_ERROR, "RC_STORE_ERROR", "the queue manager's database failed"},
    {RC_STORE_FULL, "RC_STORE_FULL", "the queue manager's storage is full"},
    {RC_STORE_READ_ONLY, "RC_STORE_READ_ONLY", "the queue manager's database cannot be written"},
    {RC_COMMAND_TYPE_ERROR, "RC_COMMAND_TYPE_ERROR", "command type not valid"},
    {RC_SELECTOR_SET_NOT_ALLOWED, "RC_SELECTOR_SET_NOT_ALLOWED", "selector cannot be set"},
    {RC_PCF_FORMAT_ERROR, "RC_PCF_FORMAT_ERROR", "message not a valid bag message"},
    {RC_SELECTOR_OUT_OF_RANGE, "RC_SELECTOR_OUT_OF_RANGE", "selector out of range"},
    {RC_SELECTOR_NOT_UNIQUE, "RC_SELECTOR_NOT_UNIQUE", "selector not unique"},
    {RC_INDEX_NOT_PRESENT, "RC_INDEX_NOT_PRESENT", "index not present"},
    {RC_STRING_ERROR, "RC_STRING_ERROR", "string not valid"},
    {RC_ENCODING_NOT_SUPPORTED, "RC_ENCODING_NOT_SUPPORTED", "encoding not supported"},
    {RC_SELECTOR_NOT_PRESENT, "RC_SELECTOR_NOT_PRESENT", "selector not present"},
    {RC_OUT_SELECTOR_ERROR, "RC_OUT_SELECTOR_ERROR", "output selector not accessible"},
    {RC_STRING_TRUNCATED, "RC_STRING_TRUNCATED", "string truncated"},
    {RC_SELECTOR_WRONG_TYPE, "RC_SELECTOR_WRONG_TYPE", "selector of the wrong type"},
    {RC_INCONSISTENT_ITEM_TYPE, "RC_INCONSISTENT_ITEM_TYPE", "item type inconsistent"},
    {RC_INDEX_ERROR, "RC_INDEX_ERROR", "index not valid"},
    {RC_SYSTEM_BAG_NOT_ALTERABLE, "RC_SYSTEM_BAG_NOT_ALTERABLE", "system bag cannot be altered"},
    {RC_ITEM_COUNT_ERROR, "RC_ITEM_COUNT_ERROR", "item count not accessible"},
    {RC_FORMAT_NOT_SUPPORTED, "RC_FORMAT_NOT_SUPPORTED", "format not supported"},
    {RC_SYSTEM_ITEM_NOT_ALTERABLE, "RC_SYSTEM_ITEM_NOT_ALTERABLE", "system item cannot be altered"},
    {RC_ITEM_VALUE_ERROR, "RC_ITEM_VALUE_ERROR", "item value not valid"},
    {RC_BAG_HANDLE_ERROR, "RC_BAG_HANDLE_ERROR", "bag handle not valid"},
    {RC_PARAMETER_MISSING, "RC_PARAMETER_MISSING", "parameter missing"},
    {RC_COMMAND_SERVER_NOT_AVAILABLE, "RC_COMMAND_SERVER_NOT_AVAILABLE",
     "command server not available"},
    {RC_STRING_LENGTH_ERROR, "RC_STRING_LENGTH_ERROR", "string length not valid"},
    {RC_COMMAND_HAS_NO_INQUIRY, "RC_COMMAND_HAS_NO_INQUIRY", "command takes no inquiry items"},
    {RC_NESTED_BAG_NOT_SUPPORTED, "RC_NESTED_BAG_NOT_SUPPORTED", "nested bag not supported"},
    {RC_BAG_WRONG_TYPE, "RC_BAG_WRONG_TYPE", "bag of the wrong type"},
    {RC_ITEM_TYPE_ERROR, "RC_ITEM_TYPE_ERROR", "item type not valid"},
    {RC_SYSTEM_BAG_NOT_DELETABLE, "RC_SYSTEM_BAG_NOT_DELETABLE", "system bag cannot be deleted"},
    {RC_SYSTEM_ITEM_NOT_DELETABLE, "RC_SYSTEM_ITEM_NOT_DELETABLE", "system item cannot be deleted"},
    {RC_CCSID_ERROR, "RC_CCSID_ERROR", "character set not valid"},
    {RC_COMMAND_FAILED, "RC_COMMAND_FAILED", "command failed"},
    {RC_COMMAND_NOT_SUPPORTED, "RC_COMMAND_NOT_SUPPORTED", "command not supported"},
    {RC_PARAMETER_ERROR, "RC_PARAMETER_ERROR", "parameter not valid"},
    {RC_SYSTEM_Q_INHIBIT_REFUSED, "RC_SYSTEM_Q_INHIBIT_REFUSED",
     "puts and gets stay allowed on the command queue and the model of reply queues"},
    {RC_SYSTEM_Q_DELETE_REFUSED, "RC_SYSTEM_Q_DELETE_REFUSED", "SYSTEM. queues cannot be deleted"},
    {RC_SYSTEM_Q_TYPE_REFUSED, "RC_SYSTEM_Q_TYPE_REFUSED",
     "the type of a SYSTEM. queue cannot be changed"},
    {RC_SYSTEM_Q_LIMIT_REFUSED, "RC_SYSTEM_Q_LIMIT_REFUSED",
     "the command queue and the model of reply queues keep a depth of 1 or more and a maximum "
     "message length of 4096 or more"},
};

// The selectors that are not attributes of a queue; those of a queue come
// from the table of queue attributes, first, in the order they are shown.
constexpr Selector kOtherSelectors[] = {
    {ATTR_Q_MGR_NAME, "ATTR_Q_MGR_NAME", "q_mgr_name", ValueType::String},
    {ATTR_CODED_CHAR_SET_ID, "ATTR_CODED_CHAR_SET_ID", "coded_char_set_id", ValueType::Integer},
    {PARM_Q_MGR_ATTRS, "PARM_Q_MGR_ATTRS", "q_mgr_attrs", ValueType::Integer},
    {PARM_Q_ATTRS, "PARM_Q_ATTRS", "q_attrs", ValueType::Integer},
    {PARM_ALL, "PARM_ALL", "all", ValueType::Integer},
    {PARM_PURGE, "PARM_PURGE", "purge", ValueType::Integer},
    {PARM_ERROR_PARAMETER, "PARM_ERROR_PARAMETER", "error_parameter", ValueType::Integer},
    {PARM_Q_STATUS_ATTRS, "PARM_Q_STATUS_ATTRS", "q_status_attrs", ValueType::Integer},
    {PARM_WAIT_INTERVAL, "PARM_WAIT_INTERVAL", "wait_interval", ValueType::Integer},
    {PARM_FROM_Q_NAME, "PARM_FROM_Q_NAME", "from_q_name", ValueType::String},
    {PARM_TO_Q_NAME, "PARM_TO_Q_NAME", "to_q_name", ValueType::String},
    {PARM_Q_NAMES, "PARM_Q_NAMES", "q_names", ValueType::StringList},
};

// One array of every selector, made when compiling: selectors() hands it
// out whole, and the entries found in it live as long as the program.
constexpr auto kSelectors = [] {
  std::array<Selector, std::size(vxqi::kQueueAttributes) + std::size(kOtherSelectors)> all{};
  size_t next = 0;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes()) {
    const ValueType type =
        attribute.type == vxqi::AttributeType::String ? ValueType::String : ValueType::Integer;
    all[next++] = {attribute.selector, attribute.name, attribute.key, type};
  }
  for (const Selector &other : kOtherSelectors) all[next++] = other;
  return all;
}();

// Every named value is one of a queue attribute's.
constexpr size_t namedValueCount() {
  size_t count = 0;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes())
    count += attribute.values.size();
  return count;
}

constexpr auto kValues = [] {
  std::array<Value, namedValueCount()> all{};
  size_t next = 0;
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes())
    for (const vxqi::ValueName &named : attribute.values)
      all[next++] = {attribute.selector, named.value, named.name};
  return all;
}();

}  // namespace

std::span<const Reason> reasons() { return kReasons; }
std::span<const Selector> selectors() { return kSelectors; }
std::span<const Value> values() { return kValues; }

const Reason *findReason(int32_t code) {
  for (const Reason &entry : kReasons)
    if (entry.code == code) return &entry;
  return nullptr;
}

const Selector *findSelector(int32_t selector) {
  for (const Selector &entry : kSelectors)
    if (entry.selector == selector) return &entry;
  return nullptr;
}

const Selector *findSelectorByKey(const std::string &key) {
  for (const Selector &entry : kSelectors)
    if (key == entry.key) return &entry;
  return nullptr;
}

std::string describeReason(int32_t code) {
  const Reason *entry = findReason(code);
  if (!entry) return std::to_string(code) + ": unknown reason";
  return std::to_string(code) + " " + entry->name + ": " + entry->text;
}

std::string selectorKey(int32_t selector) {
  const Selector *entry = findSelector(selector);
  return entry ? entry->key : std::to_string(selector);
}

const char *valueName(int32_t selector, int32_t value) {
  for (const Value &entry : kValues)
    if (entry.selector == selector && entry.value == value) return entry.name;
  return nullptr;
}

bool valueOf(int32_t selector, const std::string &name, int32_t *value) {
  for (const Value &entry : kValues)
    if (entry.selector == selector && name == entry.name) {
      *value = entry.value;
      return true;
    }
  return false;
}

}  // namespace vxnames
