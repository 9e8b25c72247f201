#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace docsource::s3 {

/// An element of an answer; names without their namespaces.
struct Element {
  std::string name;
  std::string text;
  std::vector<Element> children;

  /// The first child of that name.
  const Element* child(std::string_view called) const;
  /// Its text; empty where there is no such child.
  std::string_view textOf(std::string_view called) const;
};

/// Absent for what is no whole document, for one with a document type and for one nested deeper
/// or with more elements than an answer has.
std::optional<Element> elementFrom(std::string_view text);

}  // namespace docsource::s3
