#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/files/DirectoryWatch.h"

namespace qx {

/// Tells when a service may have come: when its socket appears or changes in one of the directories
/// in which it is looked for (Places::serviceDirectories()), whether these exist yet or not. The
/// callback runs on threads of the reactor, perhaps several at a time.
class ServiceWatch {
 public:
  ServiceWatch(const std::string& serviceName, const std::function<void()>& mayHaveCome);

 private:
  std::vector<std::unique_ptr<DirectoryWatch>> watches_;
};

}  // namespace qx
