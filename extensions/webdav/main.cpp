// The process of an account whose documents live on a WebDAV server.

#include "extensions/account/AccountProvider.h"
#include "extensions/webdav/Settings.h"

int main() {
  return AccountProvider([](const docsource::Provider& settings) {
           return docsource::webdav::makeWebDAVRemote(
               [&](const std::string& key) { return settings.infoString(key); });
         })
      .run();
}
