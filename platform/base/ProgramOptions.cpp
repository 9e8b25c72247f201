#include "platform/base/ProgramOptions.h"

#include <cstdio>
#include <string_view>

namespace qx {
namespace {

/// The file name in a path.
std::string_view nameOf(std::string_view program) {
  return program.substr(program.find_last_of('/') + 1);
}

}  // namespace

std::optional<int> answerOptions(std::span<char* const> arguments, const char* purpose) {
  if (arguments.size() < 2) return std::nullopt;
  const auto name = nameOf(arguments.front());
  const int length = static_cast<int>(name.size());
  const std::string_view first = arguments[1];
  if (arguments.size() == 2 && (first == "--help" || first == "-h")) {
    std::printf("usage: %.*s [--help | --version]\n\n%s\n", length, name.data(), purpose);
    return 0;
  }
  if (arguments.size() == 2 && first == "--version") {
    std::printf("%.*s %s\n", length, name.data(), DOCSOURCE_VERSION);
    return 0;
  }
  std::fprintf(stderr, "%.*s: it takes no arguments but --help and --version\n", length,
               name.data());
  return 2;
}

}  // namespace qx
