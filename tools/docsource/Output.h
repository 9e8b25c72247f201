#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Value.h"

/// What commands print: JSON for programs, tables and lines for people.
namespace tool {

/// One line of JSON (RFC 8259). URLs and UUIDs are strings, bytes base64, an error an object with
/// its domain, code and text. Bytes of a string that are no UTF-8 become U+FFFD each.
std::string toJSON(const qx::Value& value);

/// The text with control characters and bytes that are no UTF-8 as \xNN, so that it stays on its
/// line and does nothing to a terminal.
std::string onOneLine(std::string_view text);

/// Rows in aligned columns under their headings; a cell is one line.
std::string table(const std::vector<std::string>& headings,
                  const std::vector<std::vector<std::string>>& rows);

/// A number of bytes for a person: "17 B", "1.5 MB"; steps of 1000.
std::string sizeText(std::uint64_t bytes);

/// To standard output, at once. False when that cannot be written.
bool print(std::string_view text);

/// The JSON object as a line with --json, else the text.
int answer(bool json, const qx::Dictionary& object, std::string_view text);

}  // namespace tool
