// The queues of a queue manager as a fuzz target found them at its start,
// and putting them back after an input changed them: queues the input made
// are deleted, queues it changed or deleted are made as they were, and
// messages it left are cleared.  A queue that cannot be put back aborts the
// target, naming what failed and its reason.
#ifndef VX_FUZZ_QUEUES_H
#define VX_FUZZ_QUEUES_H

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "qm_admin.h"
#include "qm_test.h"

namespace fuzzing {

class QueueSnapshot {
 public:
  // The queues of `qmName` now; `target` names the fuzz target in messages.
  QueueSnapshot(std::string qmName, std::string target)
      : qmName_(std::move(qmName)), target_(std::move(target)), initial_(now()) {}

  // Whether the queue is there with the definition it had at start.
  bool unchanged(const std::string &name) const {
    vxqm::QueueDefinition definition;
    const auto initial = initial_.find(name);
    return initial != initial_.end() &&
           vxqm::admin::queueAttributes(qmName_, name, &definition) == 0 &&
           same(definition, initial->second);
  }

  // Puts every queue back as it was at start, and empties each but `kept`.
  void restore(const std::string &kept = {}) const {
    restoreDefinitions();
    for (const auto &[name, definition] : initial_) {
      if (name != kept && vxqm::test::messageCount(qmName_, name) > 0) {
        require(vxqm::admin::clearQueue(qmName_, name), "a queue is cleared");
      }
    }
  }

  // Puts every queue back as it was at start, its messages left as they are.
  void restoreDefinitions() const {
    const std::map<std::string, vxqm::QueueDefinition> queues = now();
    for (const auto &[name, definition] : queues) {
      const auto initial = initial_.find(name);
      if (initial == initial_.end()) {
        require(vxqm::admin::deleteQueue(qmName_, name, true), "a queue an input made is deleted");
      } else if (!same(definition, initial->second)) {
        require(vxqm::admin::changeQueue(qmName_, name, changesFor(initial->second)),
                "a queue an input changed is changed back");
      }
    }
    for (const auto &[name, definition] : initial_) {
      if (!queues.count(name)) {
        require(vxqm::admin::createQueue(qmName_, name, changesFor(definition)),
                "a queue an input deleted is made again");
      }
    }
  }

 private:
  static vxqm::QueueChanges changesFor(const vxqm::QueueDefinition &d) {
    vxqm::QueueChanges c;
    c.queueType = d.queueType;
    if (d.queueType == QTYPE_MODEL) c.definitionType = d.definitionType;
    c.description = d.description;
    c.defaultPersistence = d.defaultPersistence;
    c.defaultPriority = d.defaultPriority;
    c.inhibitGet = d.inhibitGet;
    c.inhibitPut = d.inhibitPut;
    c.maxMsgLength = d.maxMsgLength;
    c.maxDepth = d.maxDepth;
    return c;
  }

  static bool same(const vxqm::QueueDefinition &a, const vxqm::QueueDefinition &b) {
    return a.queueType == b.queueType && a.definitionType == b.definitionType &&
           a.description == b.description && a.defaultPersistence == b.defaultPersistence &&
           a.defaultPriority == b.defaultPriority && a.inhibitGet == b.inhibitGet &&
           a.inhibitPut == b.inhibitPut && a.maxMsgLength == b.maxMsgLength &&
           a.maxDepth == b.maxDepth;
  }

  // Aborts the target unless the administration call succeeded.
  void require(int32_t reason, const char *rule) const {
    if (reason == 0) return;
    std::fprintf(stderr, "%s: %s failed (%d)\n", target_.c_str(), rule, reason);
    std::abort();
  }

  std::map<std::string, vxqm::QueueDefinition> now() const {
    std::vector<std::string> names;
    require(vxqm::admin::listQueues(qmName_, "*", 0, &names), "the list of the queues");
    std::map<std::string, vxqm::QueueDefinition> queues;
    for (const std::string &name : names) {
      vxqm::QueueDefinition definition;
      if (vxqm::admin::queueAttributes(qmName_, name, &definition) == 0) queues[name] = definition;
    }
    return queues;
  }

  std::string qmName_;
  std::string target_;
  std::map<std::string, vxqm::QueueDefinition> initial_;
};

}  // namespace fuzzing

#endif  // VX_FUZZ_QUEUES_H
