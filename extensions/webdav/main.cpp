// The process of an account whose documents live on a WebDAV server.

#include "extensions/account/AccountProgram.h"
#include "extensions/http/Settings.h"
#include "extensions/webdav/LoginFlow.h"
#include "extensions/webdav/WebDAVRemote.h"

int main(int argc, char** argv) {
  return account::runProgram(
      argc, argv,
      [](const account::Settings& setting) { return docsource::webdav::makeWebDAVRemote(setting); },
      [](const account::Settings& setting, const auto& show) {
        return docsource::webdav::logIn(setting(account::urlKey).value_or(""),
                                        docsource::http::connectionFrom(setting), show);
      });
}
