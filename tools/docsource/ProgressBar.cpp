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

ProgressBar::ProgressBar() : isShown_(::isatty(STDERR_FILENO) == 1) {}

void ProgressBar::draw(const std::string& path) {
  const auto document = docsource::placeholderStatus(path);
  if (!document) return;
  const bool isWhole = document->state == docsource::PlaceholderState::present;
  draw(isWhole ? document->size : std::min(document->occupied, document->size), document->size);
}

void ProgressBar::draw(std::uint64_t done, std::uint64_t total) {
  constexpr std::size_t width = 30;
  if (!isShown_ || total == 0) return;
  const double part = static_cast<double>(done) / static_cast<double>(total);
  const auto filled = std::min(width, static_cast<std::size_t>(part * width));
  std::fprintf(stderr, "%s[%s%s] %3d%%  %s of %s", clearedLine, std::string(filled, '#').c_str(),
               std::string(width - filled, '-').c_str(), static_cast<int>(part * 100),
               sizeText(done).c_str(), sizeText(total).c_str());
  std::fflush(stderr);
  isDrawn_ = true;
}

void ProgressBar::remove() {
  if (isDrawn_) std::fprintf(stderr, "%s", clearedLine);
  isDrawn_ = false;
}

}  // namespace tool
