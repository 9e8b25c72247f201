// The process of an account whose documents live on a WebDAV server.

#include "extensions/account/AccountProgram.h"
#include "extensions/webdav/WebDAVRemote.h"

int main(int argc, char** argv) {
  return account::runProgram(argc, argv, [](const account::Settings& setting) {
    return docsource::webdav::makeWebDAVRemote(setting);
  });
}
