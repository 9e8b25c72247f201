#include "platform/plist/PropertyList.h"

#include "platform/base/Errors.h"

// A value is read by a Handler like any other: the tree grows in place, one pointer per open
// container, so that nothing is copied or moved when a container ends.

namespace qx::PropertyList {
namespace {

class Builder final : public Handler {
 public:
  void beginDictionary() override { open_.push_back(add(Value(Dictionary{}))); }
  void endDictionary() override { open_.pop_back(); }
  void beginArray() override { open_.push_back(add(Value(Array{}))); }
  void endArray() override { open_.pop_back(); }
  void string(std::string_view text) override { add(Value(text)); }
  void scalar(Value&& value) override { add(std::move(value)); }
  void key(std::string_view text) override {
    auto* dictionary = open_.back()->as<Dictionary>();
    awaited_ = &dictionary->try_emplace(dictionary->end(), std::string(text))->second;
  }

  Value take() { return std::move(root_); }

 private:
  /// Only the innermost open container grows, so the pointers to the outer ones stay good.
  Value* add(Value&& value) {
    if (open_.empty()) return &(root_ = std::move(value));
    if (auto* array = open_.back()->as<Array>()) return &array->emplace_back(std::move(value));
    return &(*awaited_ = std::move(value));
  }

  Value root_;
  std::vector<Value*> open_;
  Value* awaited_ = nullptr;
};

template <class Parse>
Result<Value> build(Parse parseInto) {
  Builder builder;
  if (auto error = parseInto(builder)) return *std::move(error);
  return builder.take();
}

}  // namespace

Result<Value> read(std::istream& stream) {
  return build([&](Handler& handler) { return parse(stream, handler); });
}

Result<Value> read(std::string_view text) {
  return build([&](Handler& handler) { return parse(text, handler); });
}

Result<Value> readFile(const std::string& path) {
  return build([&](Handler& handler) { return parseFile(path, handler); });
}

Result<std::string> write(const Value& value) {
  std::string text;
  Writer writer([&text](std::string_view piece) { text += piece; });
  if (!writer.value(value)) {
    return Error(std::string(QXStandardErrorDomain), fileUnknownError,
                 "The value cannot be written as a property list.");
  }
  writer.finish();
  return text;
}

}  // namespace qx::PropertyList
