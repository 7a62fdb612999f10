// Where the administration interface (qm_admin.h) holds each attribute of
// the table of queue attributes (queue_attributes.h): a field of a queue's
// definition or of its status and, for the attributes that commands set, a
// field of the changes that create, change and copy make.  The command
// server and vxadmin --direct read and fill those structures by these
// tables; the checks below keep them in step with the table of queue
// attributes.
#ifndef VX_QM_QUEUE_FIELDS_H
#define VX_QM_QUEUE_FIELDS_H

#include <cstdint>
#include <optional>
#include <string>

#include "qm_admin.h"
#include "queue_attributes.h"

namespace vxqm {

// One of the three is set: an integer or a text of the definition, or an
// integer of the status.
struct QueueField {
  int32_t selector;
  int32_t QueueDefinition::*integer = nullptr;
  std::string QueueDefinition::*text = nullptr;
  int32_t QueueStatus::*status = nullptr;
};

inline constexpr QueueField kQueueFields[] = {
    {.selector = ATTR_Q_NAME, .text = &QueueDefinition::name},
    {.selector = ATTR_Q_TYPE, .integer = &QueueDefinition::queueType},
    {.selector = ATTR_Q_DESC, .text = &QueueDefinition::description},
    {.selector = ATTR_DEF_PERSISTENCE, .integer = &QueueDefinition::defaultPersistence},
    {.selector = ATTR_DEF_PRIORITY, .integer = &QueueDefinition::defaultPriority},
    {.selector = ATTR_DEFINITION_TYPE, .integer = &QueueDefinition::definitionType},
    {.selector = ATTR_INHIBIT_GET, .integer = &QueueDefinition::inhibitGet},
    {.selector = ATTR_INHIBIT_PUT, .integer = &QueueDefinition::inhibitPut},
    {.selector = ATTR_MAX_MSG_LENGTH, .integer = &QueueDefinition::maxMsgLength},
    {.selector = ATTR_MAX_Q_DEPTH, .integer = &QueueDefinition::maxDepth},
    {.selector = ATTR_CURRENT_DEPTH, .status = &QueueStatus::depth},
    {.selector = ATTR_OPEN_INPUT_COUNT, .status = &QueueStatus::openInputCount},
    {.selector = ATTR_OPEN_OUTPUT_COUNT, .status = &QueueStatus::openOutputCount},
};

constexpr const QueueField *queueField(int32_t selector) {
  for (const QueueField &field : kQueueFields)
    if (field.selector == selector) return &field;
  return nullptr;
}

// One of the two is set.
struct ChangeField {
  int32_t selector;
  std::optional<int32_t> QueueChanges::*integer = nullptr;
  std::optional<std::string> QueueChanges::*text = nullptr;
};

inline constexpr ChangeField kChangeFields[] = {
    {.selector = ATTR_Q_TYPE, .integer = &QueueChanges::queueType},
    {.selector = ATTR_Q_DESC, .text = &QueueChanges::description},
    {.selector = ATTR_DEF_PERSISTENCE, .integer = &QueueChanges::defaultPersistence},
    {.selector = ATTR_DEF_PRIORITY, .integer = &QueueChanges::defaultPriority},
    {.selector = ATTR_INHIBIT_GET, .integer = &QueueChanges::inhibitGet},
    {.selector = ATTR_INHIBIT_PUT, .integer = &QueueChanges::inhibitPut},
    {.selector = ATTR_MAX_MSG_LENGTH, .integer = &QueueChanges::maxMsgLength},
    {.selector = ATTR_MAX_Q_DEPTH, .integer = &QueueChanges::maxDepth},
};

constexpr const ChangeField *changeField(int32_t selector) {
  for (const ChangeField &field : kChangeFields)
    if (field.selector == selector) return &field;
  return nullptr;
}

constexpr bool isSetByCommands(const vxqi::QueueAttribute &attribute) {
  return attribute.setting == vxqi::Setting::OnCreate ||
         attribute.setting == vxqi::Setting::OnCreateAndChange;
}

// Every attribute has its field; those that the status inquiry reports
// beside the name are in the status, which is all it reads, and the others
// in the definition.  Every attribute that commands set, and only those,
// has its field in the changes.  The checks walk the tables by value: under
// AddressSanitizer GCC cannot compare the address of a table entry with
// null in a constant expression.
constexpr bool hasItsFields(const vxqi::QueueAttribute &attribute) {
  bool found = false;
  for (const QueueField &field : kQueueFields) {
    if (field.selector != attribute.selector) continue;
    if (attribute.shown != vxqi::Shown::Always &&
        (attribute.shown == vxqi::Shown::InStatus) != (field.status != nullptr))
      return false;
    found = true;
  }
  bool changed = false;
  for (const ChangeField &field : kChangeFields)
    if (field.selector == attribute.selector) changed = true;
  return found && changed == isSetByCommands(attribute);
}

constexpr bool everyAttributeHasItsFields() {
  for (const vxqi::QueueAttribute &attribute : vxqi::queueAttributes())
    if (!hasItsFields(attribute)) return false;
  return true;
}
static_assert(everyAttributeHasItsFields(),
              "every queue attribute has its fields in the administration interface");

}  // namespace vxqm

#endif  // VX_QM_QUEUE_FIELDS_H
