#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/queue/WorkQueue.h"

namespace qx {

/// A named queue of operations with the default concurrency: operations start in the order in which
/// they were added and may run in parallel. Any thread may add.
class OperationQueue {
 public:
  OperationQueue();

  /// Sets the name, which is for diagnostics, before the first operation is added.
  void setName(std::string name);
  const std::string& name() const { return name_; }

  /// Adds an operation and returns at once.
  void addOperation(std::function<void()> operation);

 private:
  std::string name_;
  std::shared_ptr<WorkQueue> queue_;
};

}  // namespace qx
