#include "platform/conduit/ServiceWatch.h"

#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {

ServiceWatch::ServiceWatch(const std::string& serviceName,
                           const std::function<void()>& mayHaveCome) {
  for (const auto& directory : Places::serviceDirectories(serviceName)) {
    auto watch =
        DirectoryWatch::start(directory, [serviceName, mayHaveCome](const std::string& name) {
          if (name.empty() || name == serviceName) mayHaveCome();
        });
    if (!watch) {
      DS_LOG("[ERROR] Could not watch %@ for the service %@.", directory, serviceName);
      continue;
    }
    watches_.push_back(std::move(watch));
  }
}

}  // namespace qx
