#include "platform/conduit/QXConduitInterface.h"

void QXConduitInterface::setClassesForReply(qx::conduit::ClassSet classes,
                                            std::string_view operation, std::size_t index) {
  for (std::size_t number = 0; number < operations_.size(); ++number) {
    if (operations_[number].name == operation) widened_[{number, index}] = classes;
  }
}

// Interfaces are short; a linear search beats a table.
const qx::OperationDescription* QXConduitInterface::find(std::string_view name) const {
  for (const auto& operation : operations_) {
    if (operation.name == name) return &operation;
  }
  return nullptr;
}

qx::conduit::ClassSet QXConduitInterface::classesForReply(std::size_t operation,
                                                          std::size_t index) const {
  auto found = widened_.find({operation, index});
  return found == widened_.end() ? qx::conduit::ClassSet() : found->second;
}
