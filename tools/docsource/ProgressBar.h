#pragma once

#include <cstdint>
#include <string>

namespace tool {

/// How much of a document has arrived: one line on standard error that is drawn over itself. Shown
/// only where standard error is a terminal.
class ProgressBar {
 public:
  ProgressBar();

  bool isShown() const { return isShown_; }
  /// By the blocks that the document occupies; draws nothing when there is none to look at.
  void draw(const std::string& path);
  /// Draws nothing while nothing is known to come.
  void draw(std::uint64_t done, std::uint64_t total);
  /// Leaves the line empty.
  void remove();

 private:
  const bool isShown_;
  bool isDrawn_ = false;
};

}  // namespace tool
