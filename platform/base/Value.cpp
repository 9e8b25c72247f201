#include "platform/base/Value.h"

#include <charconv>
#include <type_traits>

#include "platform/base/Text.h"

namespace qx {
namespace {

// A growing array moves its values instead of copying whole trees.
static_assert(std::is_nothrow_move_constructible_v<Value>);

void appendDate(std::string& text, Date date) {
  const auto day = std::chrono::floor<std::chrono::days>(date);
  const std::chrono::year_month_day ymd{day};
  const std::chrono::hh_mm_ss time{date - day};
  const auto append = [&text](long long number, std::size_t width, char after) {
    const std::string digits = std::to_string(number);
    if (digits.size() < width) text.append(width - digits.size(), '0');
    text += digits;
    text += after;
  };
  append(static_cast<int>(ymd.year()), 4, '-');
  append(static_cast<unsigned>(ymd.month()), 2, '-');
  append(static_cast<unsigned>(ymd.day()), 2, 'T');
  append(time.hours().count(), 2, ':');
  append(time.minutes().count(), 2, ':');
  append(time.seconds().count(), 2, 'Z');
}

struct Describer {
  std::string& text;

  void operator()(Value::Null) const { text += "(null)"; }
  void operator()(bool value) const { text += value ? "true" : "false"; }
  void operator()(std::int64_t value) const { text += std::to_string(value); }
  void operator()(double value) const {
    char digits[32];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  }
  void operator()(const std::string& value) const { text += value; }
  void operator()(const Bytes& value) const { text += "<" + hexEncode(value) + ">"; }
  void operator()(Date value) const { appendDate(text, value); }
  void operator()(const URL& value) const { text += value.absoluteString(); }
  void operator()(const UUID& value) const { text += value.text(); }
  void operator()(const Error& value) const { text += value.text(); }
  void operator()(const SharedDescriptor& value) const {
    text += value && *value ? "descriptor " + std::to_string(value->get()) : "(null)";
  }
  void operator()(const Array& value) const {
    text += '(';
    const char* separator = "";
    for (const Value& element : value) {
      text += separator;
      separator = ", ";
      std::visit(*this, element.content());
    }
    text += ')';
  }
  void operator()(const Dictionary& value) const {
    text += '{';
    const char* separator = "";
    for (const auto& [key, element] : value) {
      text += separator;
      separator = ", ";
      text += key;
      text += ": ";
      std::visit(*this, element.content());
    }
    text += '}';
  }
};

}  // namespace

std::optional<bool> Value::numberAsBool() const {
  if (const auto* boolean = as<bool>()) return *boolean;
  if (const auto* integer = as<std::int64_t>()) return *integer != 0;
  if (const auto* real = as<double>()) return *real != 0;
  return std::nullopt;
}

bool operator==(const Value& a, const Value& b) { return a.content_ == b.content_; }

const Value* find(const Dictionary& dictionary, std::string_view key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

std::string describe(const Value& value) {
  std::string text;
  std::visit(Describer{text}, value.content());
  return text;
}

}  // namespace qx
