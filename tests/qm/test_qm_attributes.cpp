// The table of queue attributes: its rows are consistent (unique
// selectors, names, keys and options, sane ranges and value names), the
// lookups find every row, the table of names shows every row as it is, and
// the queue manager's change rules accept exactly the values the table
// allows.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "qm_admin.h"
#include "qm_test.h"
#include "qm_testing.h"
#include "queue_attributes.h"
#include "vxnames.h"

using qmtest::reasonName;
using vxqi::AttributeType;
using vxqi::QueueAttribute;

#define EXPECT_REASON(actual, expected) EXPECT_EQ(reasonName(actual), reasonName(expected))

namespace {

constexpr char kQm[] = "QMATTR";
constexpr char kQueue[] = "TEST.ATTRIBUTES";

bool isKey(std::string_view key) {
  if (key.empty() || key.front() == '_' || key.back() == '_') return false;
  for (char c : key)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
  return true;
}

TEST(QueueAttributeTable, SelectorsNamesKeysAndOptionsAreUnique) {
  std::set<int32_t> selectors;
  std::set<std::string> names, keys, options;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    EXPECT_TRUE(selectors.insert(attribute.selector).second) << "selector twice";
    EXPECT_TRUE(names.insert(attribute.name).second) << "name twice";
    EXPECT_TRUE(keys.insert(attribute.key).second) << "key twice";
    EXPECT_EQ(std::string_view(attribute.name).substr(0, 5), "ATTR_");
    EXPECT_TRUE(isKey(attribute.key)) << attribute.key;
    EXPECT_FALSE(std::string_view(attribute.description).empty());
    if (!attribute.option) continue;
    EXPECT_TRUE(options.insert(attribute.option).second) << "option twice";
    EXPECT_EQ(std::string_view(attribute.option).substr(0, 2), "--") << attribute.option;
    EXPECT_GT(std::string_view(attribute.option).size(), 2u) << attribute.option;
  }
}

TEST(QueueAttributeTable, RangesLengthsAndValueNamesAreSane) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    // Character attributes have the selectors from 2001 up, integers below.
    EXPECT_EQ(attribute.type == AttributeType::String,
              attribute.selector >= ATTR_FIRST_CHAR_SELECTOR);
    switch (attribute.type) {
      case AttributeType::Integer:
        EXPECT_LE(attribute.minimum, attribute.maximum);
        EXPECT_TRUE(attribute.values.empty());
        EXPECT_EQ(attribute.length, 0);
        break;
      case AttributeType::Enumerated: {
        EXPECT_GE(attribute.values.size(), 2u);
        std::set<std::string> valueNames;
        std::optional<int32_t> previous;
        for (const vxqi::ValueName &named : attribute.values) {
          if (previous) {
            EXPECT_GT(named.value, *previous) << named.name;
          }
          previous = named.value;
          EXPECT_TRUE(valueNames.insert(named.name).second) << named.name;
          EXPECT_TRUE(isKey(named.name)) << named.name;
        }
        EXPECT_EQ(attribute.length, 0);
        break;
      }
      case AttributeType::String:
        EXPECT_GT(attribute.length, 0);
        EXPECT_TRUE(attribute.values.empty());
        break;
    }
    // Only what commands set has an option, and every such attribute but
    // the name (vxadmin's argument) has one.
    const bool set = attribute.setting == vxqi::Setting::OnCreate ||
                     attribute.setting == vxqi::Setting::OnCreateAndChange;
    EXPECT_EQ(attribute.option != nullptr, set);
  }
}

TEST(QueueAttributeTable, TheNameIsTheOneKeyAndAlwaysShown) {
  int32_t keys = 0;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    const bool key = attribute.setting == vxqi::Setting::Key;
    EXPECT_EQ(key, attribute.shown == vxqi::Shown::Always);
    EXPECT_EQ(key, attribute.selector == ATTR_Q_NAME);
    keys += key;
  }
  EXPECT_EQ(keys, 1);
  EXPECT_EQ(vxqi::queueAttributes().front().selector, ATTR_Q_NAME) << "the name is shown first";
}

TEST(QueueAttributeTable, LookupsFindEveryRowAndNothingElse) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    EXPECT_EQ(vxqi::findQueueAttribute(attribute.selector), &attribute);
    if (attribute.option) {
      EXPECT_EQ(vxqi::findQueueAttributeByOption(attribute.option), &attribute);
    }
  }
  EXPECT_EQ(vxqi::findQueueAttribute(ATTR_Q_MGR_NAME), nullptr);
  EXPECT_EQ(vxqi::findQueueAttribute(0), nullptr);
  EXPECT_EQ(vxqi::findQueueAttributeByOption("--max"), nullptr);
  EXPECT_EQ(vxqi::findQueueAttributeByOption("max-depth"), nullptr);
  EXPECT_EQ(vxqi::findQueueAttributeByOption(""), nullptr);
  EXPECT_EQ(vxqi::findQueueAttributeByOption("--max-depth")->selector, ATTR_MAX_Q_DEPTH);
  EXPECT_FALSE(vxqi::accepts(ATTR_Q_MGR_NAME, 0)) << "not a queue attribute";
  EXPECT_FALSE(vxqi::accepts(ATTR_Q_MGR_NAME, std::string_view("QM1")));
  EXPECT_FALSE(vxqi::accepts(ATTR_MAX_Q_DEPTH, std::string_view("1"))) << "not a string";
  EXPECT_FALSE(vxqi::accepts(ATTR_Q_DESC, 1)) << "not an integer";
}

TEST(QueueAttributeTable, TheNamesShowEveryRowFirstAndInOrder) {
  const auto selectors = vxnames::selectors();
  ASSERT_GE(selectors.size(), vxqi::queueAttributes().size());
  size_t index = 0;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    const vxnames::Selector &entry = selectors[index++];
    EXPECT_EQ(entry.selector, attribute.selector);
    EXPECT_STREQ(entry.name, attribute.name);
    EXPECT_STREQ(entry.key, attribute.key);
    EXPECT_EQ(vxnames::findSelectorByKey(attribute.key), &entry);
    EXPECT_EQ(entry.type, attribute.type == AttributeType::String ? vxnames::ValueType::String
                                                                  : vxnames::ValueType::Integer);
    for (const vxqi::ValueName &named : attribute.values) {
      EXPECT_STREQ(vxnames::valueName(attribute.selector, named.value), named.name);
      int32_t value = -1;
      EXPECT_TRUE(vxnames::valueOf(attribute.selector, named.name, &value)) << named.name;
      EXPECT_EQ(value, named.value);
    }
  }
  size_t named = 0;
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) named += attribute.values.size();
  EXPECT_EQ(vxnames::values().size(), named) << "named values of anything but a queue attribute";
}

// ----- The queue manager's change rules follow the table ----------------------------------

// Where the administration interface takes each attribute that commands
// set; every such row of the table must be here (checked below), so that a
// new one is tested too.
struct ChangeField {
  int32_t selector;
  std::optional<int32_t> vxqm::QueueChanges::*integer;
  std::optional<std::string> vxqm::QueueChanges::*text;
};

const ChangeField kChangeFields[] = {
    {ATTR_Q_TYPE, &vxqm::QueueChanges::queueType, nullptr},
    {ATTR_Q_DESC, nullptr, &vxqm::QueueChanges::description},
    {ATTR_DEF_PERSISTENCE, &vxqm::QueueChanges::defaultPersistence, nullptr},
    {ATTR_DEF_PRIORITY, &vxqm::QueueChanges::defaultPriority, nullptr},
    {ATTR_INHIBIT_GET, &vxqm::QueueChanges::inhibitGet, nullptr},
    {ATTR_INHIBIT_PUT, &vxqm::QueueChanges::inhibitPut, nullptr},
    {ATTR_MAX_MSG_LENGTH, &vxqm::QueueChanges::maxMsgLength, nullptr},
    {ATTR_MAX_Q_DEPTH, &vxqm::QueueChanges::maxDepth, nullptr},
};

const ChangeField *changeField(int32_t selector) {
  for (const ChangeField &field : kChangeFields)
    if (field.selector == selector) return &field;
  return nullptr;
}

// Values just inside and just outside what the table allows.
struct Probe {
  int32_t value;
  bool allowed;
};

std::vector<Probe> probes(const QueueAttribute &attribute) {
  std::vector<Probe> found;
  auto add = [&](int64_t value) {
    if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
      return;
    const auto v = static_cast<int32_t>(value);
    found.push_back({v, attribute.accepts(v)});
  };
  if (attribute.type == AttributeType::Integer) {
    for (int64_t edge : {int64_t{attribute.minimum}, int64_t{attribute.maximum}})
      for (int64_t step : {-1, 0, 1}) add(edge + step);
  } else {
    for (const vxqi::ValueName &named : attribute.values)
      for (int64_t step : {-1, 0, 1}) add(int64_t{named.value} + step);
  }
  return found;
}

class QueueAttributeRules : public ::testing::Test {
 protected:
  void SetUp() override { vxqm::test::reset(kQm); }
  void TearDown() override { vxqm::test::reset(kQm); }
};

TEST_F(QueueAttributeRules, EveryAttributeThatCommandsSetIsProbed) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    SCOPED_TRACE(attribute.name);
    const bool set = attribute.setting == vxqi::Setting::OnCreate ||
                     attribute.setting == vxqi::Setting::OnCreateAndChange;
    EXPECT_EQ(changeField(attribute.selector) != nullptr, set);
  }
}

TEST_F(QueueAttributeRules, TheQueueManagerTakesTheRangeAndRefusesOnePast) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    const ChangeField *field = changeField(attribute.selector);
    if (!field || !field->integer) continue;
    for (const Probe &probe : probes(attribute)) {
      SCOPED_TRACE(std::string(attribute.name) + " = " + std::to_string(probe.value));
      vxqm::QueueChanges changes;
      changes.*field->integer = probe.value;
      // The type is given on create only; the others are changed too.
      const int32_t created = vxqm::admin::createQueue(kQm, kQueue, changes);
      EXPECT_REASON(created, probe.allowed ? RC_NONE : RC_SELECTOR_ERROR);
      if (created == RC_NONE) {
        EXPECT_EQ(vxqm::admin::deleteQueue(kQm, kQueue, false), RC_NONE);
      }
      if (attribute.setting != vxqi::Setting::OnCreateAndChange) continue;
      ASSERT_EQ(vxqm::admin::createQueue(kQm, kQueue, {}), RC_NONE);
      EXPECT_REASON(vxqm::admin::changeQueue(kQm, kQueue, changes),
                    probe.allowed ? RC_NONE : RC_SELECTOR_ERROR);
      EXPECT_EQ(vxqm::admin::deleteQueue(kQm, kQueue, false), RC_NONE);
    }
  }
}

TEST_F(QueueAttributeRules, TheQueueManagerTakesAStringOfTheTablesLength) {
  for (const QueueAttribute &attribute : vxqi::queueAttributes()) {
    const ChangeField *field = changeField(attribute.selector);
    if (!field || !field->text) continue;
    SCOPED_TRACE(attribute.name);
    const auto length = static_cast<size_t>(attribute.length);
    vxqm::QueueChanges changes;
    changes.*field->text = std::string(length, 'd');
    EXPECT_REASON(vxqm::admin::createQueue(kQm, kQueue, changes), RC_NONE);
    changes.*field->text = std::string(length + 1, 'd');
    EXPECT_REASON(vxqm::admin::changeQueue(kQm, kQueue, changes), RC_SELECTOR_ERROR);
    // Trailing blanks are not part of it.
    changes.*field->text = std::string(length, 'e') + "   ";
    EXPECT_REASON(vxqm::admin::changeQueue(kQm, kQueue, changes), RC_NONE);
    EXPECT_EQ(vxqm::admin::deleteQueue(kQm, kQueue, false), RC_NONE);
  }
}

TEST(QueueAttributeLimits, TheQueueManagersLimitsAreTheTables) {
  EXPECT_EQ(vxqm::kLargestMaxDepth, vxqi::findQueueAttribute(ATTR_MAX_Q_DEPTH)->maximum);
  EXPECT_EQ(vxqm::kLargestMaxMsgLength, vxqi::findQueueAttribute(ATTR_MAX_MSG_LENGTH)->maximum);
  EXPECT_EQ(vxqm::kLargestPriority, vxqi::findQueueAttribute(ATTR_DEF_PRIORITY)->maximum);
  EXPECT_EQ(vxqm::kLargestMaxDepth, 999999999);
  EXPECT_EQ(vxqm::kLargestMaxMsgLength, 100 * 1024 * 1024);
  EXPECT_EQ(vxqm::kLargestPriority, 9);
}

}  // namespace
