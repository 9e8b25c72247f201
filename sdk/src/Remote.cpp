// What remotes share: their errors, and what is optional for them.

#include "docsource/remote.h"

#include <charconv>

namespace docsource {
namespace {

constexpr const char* retryAfterKey = "retryAfter";

}  // namespace

RemoteSource::~RemoteSource() = default;
Remote::~Remote() = default;

// NOLINTNEXTLINE(performance-unnecessary-value-param): those that can tell keep it.
bool Remote::notifyOfChanges(std::function<void()>) { return false; }

Error remoteError(RemoteProblem problem, std::string description,
                  std::optional<std::chrono::seconds> retryAfter) {
  Error::Info info;
  if (retryAfter) info.emplace(retryAfterKey, std::to_string(retryAfter->count()));
  return {std::string(remoteErrorDomain), static_cast<std::int64_t>(problem),
          std::move(description), std::move(info)};
}

RemoteProblem remoteProblemOf(const Error& error) {
  const auto code = error.code();
  const bool isKnown = error.domain() == remoteErrorDomain &&
                       code > static_cast<std::int64_t>(RemoteProblem::failed) &&
                       code <= static_cast<std::int64_t>(RemoteProblem::cancelled);
  return isKnown ? static_cast<RemoteProblem>(code) : RemoteProblem::failed;
}

std::optional<std::chrono::seconds> remoteRetryAfter(const Error& error) {
  const auto text = error.info(retryAfterKey);
  if (!text) return std::nullopt;
  std::int64_t seconds = 0;
  const auto end = text->data() + text->size();
  const auto parsed = std::from_chars(text->data(), end, seconds);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return std::chrono::seconds(seconds);
}

}  // namespace docsource
