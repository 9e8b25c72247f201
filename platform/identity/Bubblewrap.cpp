// What bubblewrap tells is one JSON object of numbers.

#include "platform/identity/Bubblewrap.h"

#include <algorithm>
#include <charconv>
#include <string>

namespace qx {

std::optional<std::uint64_t> toldByBubblewrap(std::string_view information, std::string_view name) {
  const auto key = "\"" + std::string(name) + "\":";
  const auto at = information.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  const auto digits = information.find_first_not_of(' ', at + key.size());
  const auto text = information.substr(std::min(digits, information.size()));
  std::uint64_t number = 0;
  const auto error = std::from_chars(text.data(), text.data() + text.size(), number).ec;
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

}  // namespace qx
