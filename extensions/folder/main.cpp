// The process of an account whose documents live in a directory, perhaps one on a mounted share.

#include <cerrno>

#include "extensions/account/AccountProgram.h"

int main(int argc, char** argv) {
  using docsource::Remote;
  using docsource::Result;
  return account::runProgram(argc, argv, [](const account::Settings& setting) {
    const auto directory = setting(account::directoryKey);
    return directory ? Result<std::unique_ptr<Remote>>(docsource::makeFolderRemote(*directory))
                     : docsource::Error::posix(EINVAL, "The account names no directory");
  });
}
