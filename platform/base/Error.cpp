#include "platform/base/Error.h"

#include "platform/base/Value.h"

namespace qx {

struct Error::Body {
  std::string domain;
  std::int64_t code;
  Info info;
  std::string description;
};

Error::Error(std::string domain, std::int64_t code, Info info) {
  std::erase_if(info, [](const auto& entry) { return entry.second.isNull(); });
  const std::string* given = find<std::string>(info, "description");
  std::string description = given ? *given : "The operation could not be completed.";
  if (!given) info.insert_or_assign("description", Value(description));
  body_ = std::make_shared<const Body>(
      Body{std::move(domain), code, std::move(info), std::move(description)});
}

Error::Error(std::string domain, std::int64_t code, std::string_view description)
    : Error(std::move(domain), code, Info{{"description", Value(description)}}) {}

const std::string& Error::domain() const { return body_->domain; }
std::int64_t Error::code() const { return body_->code; }
const Error::Info& Error::info() const { return body_->info; }
const std::string& Error::description() const { return body_->description; }

std::optional<Error> Error::underlyingError() const {
  const Error* error = find<Error>(body_->info, "underlyingError");
  return error ? std::optional(*error) : std::nullopt;
}

bool Error::is(std::string_view domain, std::int64_t code) const {
  return body_->code == code && body_->domain == domain;
}

std::string Error::text() const {
  std::string text = body_->domain + " " + std::to_string(body_->code) + ": " + description();
  if (const auto underlying = underlyingError()) text += " (" + underlying->text() + ")";
  return text;
}

bool operator==(const Error& a, const Error& b) {
  return a.body_ == b.body_ ||
         (a.code() == b.code() && a.domain() == b.domain() && a.info() == b.info());
}

}  // namespace qx
