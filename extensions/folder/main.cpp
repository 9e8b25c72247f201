// The process of an account whose documents live in a directory, perhaps one on a mounted share.

#include <cerrno>

#include "extensions/account/AccountBundle.h"
#include "extensions/account/AccountProvider.h"

int main() {
  using docsource::Remote;
  using docsource::Result;
  return AccountProvider([](const docsource::Provider& settings) {
           const auto directory = settings.infoString(account::directoryKey);
           return directory
                      ? Result<std::unique_ptr<Remote>>(docsource::makeFolderRemote(*directory))
                      : docsource::Error::posix(EINVAL, "The account names no directory");
         })
      .run();
}
