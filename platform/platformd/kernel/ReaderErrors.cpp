#include "platform/platformd/kernel/ReaderErrors.h"

#include <cerrno>
#include <optional>

#include "platform/base/Errors.h"

namespace qx::kernel {
namespace {

std::optional<int> errnoOf(const Error& error) {
  if (error.is(DSErrorDomain, 3)) return EPERM;
  if (error.is(QXConduitErrorDomain, static_cast<std::int64_t>(ConduitErrorCode::connectionLost))) {
    return EAGAIN;
  }
  if (error.domain() != QXPOSIXErrorDomain) return std::nullopt;
  switch (error.code()) {
    case ENOSPC:
    case EDQUOT:
      return static_cast<int>(error.code());
    case EPERM:
    case EACCES:
    case EROFS:
      return EPERM;
    case EAGAIN:
    case ETIMEDOUT:
    case ECONNREFUSED:
    case ECONNRESET:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
      return EAGAIN;
    default:
      return EIO;
  }
}

}  // namespace

int errnoFor(const Error& error) {
  if (const auto underlying = error.underlyingError()) {
    if (const int errnum = errnoFor(*underlying); errnum != EIO) return errnum;
  }
  return errnoOf(error).value_or(EIO);
}

}  // namespace qx::kernel
