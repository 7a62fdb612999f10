// Names of the product's numbers for people and scripts: reason codes with
// their constant name and a one-line text, and selectors (attributes and
// command parameters) with their constant name and the key that vxadmin's
// JSON output and its tables use.  One table each, in vxnames.cpp, but for
// the attributes of a queue and their named values, which come from the
// table of queue attributes (queue_attributes.h); the tool and the tests
// read them through the functions below.
#ifndef VX_NAMES_H
#define VX_NAMES_H

#include <cstdint>
#include <span>
#include <string>

namespace vxnames {

struct Reason {
  int32_t code;
  const char *name;  // "RC_UNKNOWN_OBJECT_NAME"
  const char *text;  // "unknown object name"
};

enum class ValueType { Integer, String, StringList };

struct Selector {
  int32_t selector;
  const char *name;  // "ATTR_Q_NAME"
  const char *key;   // "q_name": JSON key and table label
  ValueType type;
};

// A named value of an integer attribute ("local" for a queue type of 1).
struct Value {
  int32_t selector;
  int32_t value;
  const char *name;
};

std::span<const Reason> reasons();
std::span<const Selector> selectors();
std::span<const Value> values();

// The entry of a code or selector, or null when the table has none.
const Reason *findReason(int32_t code);
const Selector *findSelector(int32_t selector);
const Selector *findSelectorByKey(const std::string &key);

// "2085 RC_UNKNOWN_OBJECT_NAME: unknown object name"; "4711: unknown reason"
// for a code the table does not hold.
std::string describeReason(int32_t code);

// The selector's key, or its number as text when the table has none.
std::string selectorKey(int32_t selector);

// The name of an integer attribute's value ("local"), or null when the
// value has none (a number shows as itself).
const char *valueName(int32_t selector, int32_t value);

// The value of a named value, or false when `name` is none of the
// selector's names.
bool valueOf(int32_t selector, const std::string &name, int32_t *value);

}  // namespace vxnames

#endif  // VX_NAMES_H
