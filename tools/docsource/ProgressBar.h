#pragma once

#include <optional>
#include <string>

namespace tool {

/// How much of a document has arrived, by the blocks that it occupies: one line on standard error
/// that is drawn over itself. Shown only where standard error is a terminal.
class ProgressBar {
 public:
  explicit ProgressBar(std::optional<std::string> path);

  bool isShown() const { return isShown_; }
  /// Looks at the document and draws; nothing when there is none to look at.
  void draw();
  /// Leaves the line empty.
  void remove();

 private:
  std::optional<std::string> path_;
  bool isShown_ = false;
  bool isDrawn_ = false;
};

}  // namespace tool
