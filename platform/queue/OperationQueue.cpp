/// Operation queues: a concurrent work queue of their own, so that operations start in order and
/// what is long in one queue stays visible as that queue's.

#include "platform/queue/OperationQueue.h"

#include <utility>

namespace qx {

OperationQueue::OperationQueue() : queue_(WorkQueue::concurrent("operation queue")) {}

void OperationQueue::setName(std::string name) { name_ = std::move(name); }

void OperationQueue::addOperation(std::function<void()> operation) {
  queue_->async(std::move(operation));
}

}  // namespace qx
