// Progress of a document's arrival, for a person at a terminal.

#include "tools/docsource/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "docsource/placeholder.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

constexpr const char* clearedLine = "\r\033[K";  // ECMA-48, EL

}  // namespace

ProgressBar::ProgressBar(std::optional<std::string> path)
    : path_(std::move(path)), isShown_(path_ && ::isatty(STDERR_FILENO) == 1) {}

void ProgressBar::draw() {
  constexpr std::size_t width = 30;
  if (!isShown_) return;
  const auto document = docsource::placeholderStatus(*path_);
  if (!document || document->size == 0) return;
  const bool isWhole = document->state == docsource::PlaceholderState::present;
  const std::uint64_t arrived =
      isWhole ? document->size : std::min(document->occupied, document->size);
  const double part = static_cast<double>(arrived) / static_cast<double>(document->size);
  const auto filled = static_cast<std::size_t>(part * width);
  std::fprintf(stderr, "%s[%s%s] %3d%%  %s of %s", clearedLine, std::string(filled, '#').c_str(),
               std::string(width - filled, '-').c_str(), static_cast<int>(part * 100),
               sizeText(arrived).c_str(), sizeText(document->size).c_str());
  std::fflush(stderr);
  isDrawn_ = true;
}

void ProgressBar::remove() {
  if (isDrawn_) std::fprintf(stderr, "%s", clearedLine);
  isDrawn_ = false;
}

}  // namespace tool
