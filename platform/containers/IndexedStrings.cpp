#include "platform/containers/IndexedStrings.h"

namespace qx {

bool IndexedStrings::contains(std::string_view string) const {
  if (index_) {
    return index_->find(hashOf(string), [&](std::size_t position) {
      return (*this)[position] == string;
    }) != PositionIndex::npos;
  }
  for (std::size_t position = 0; position < count_; ++position) {
    if ((*this)[position] == string) return true;
  }
  return false;
}

void IndexedStrings::append(std::string_view string) {
  if (count_ != 0) begins_.push_back(bytes_.size());
  bytes_.append(string);
  ++count_;
  if (count_ <= PositionIndex::unindexedLength) return;
  // The first time round the ones that did without an index follow.
  std::size_t position = count_ - 1;
  if (!index_) {
    index_ = std::make_unique<PositionIndex>();
    position = 0;
  }
  for (; position < count_; ++position) {
    const std::string_view added = (*this)[position];
    index_->add(hashOf(added), position,
                [&](std::size_t other) { return (*this)[other] == added; });
  }
}

}  // namespace qx
