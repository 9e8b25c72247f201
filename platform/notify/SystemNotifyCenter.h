#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/base/Error.h"

/// System-wide notifications that carry only their name. A notification is posted by writing or
/// replacing the file of that name in the directory "notify" of the runtime directory; observers in
/// every process are called at once.
namespace qx::SystemNotifyCenter {

/// `callback` runs at every posting from now on, on a thread of the platform's choosing, one call
/// at a time per observer. Registrations are never removed. Returns when the registration is in
/// force: a posting after the return is not missed.
void addObserver(const std::string& name, std::function<void()> callback);

std::optional<Error> post(const std::string& name);

}  // namespace qx::SystemNotifyCenter
