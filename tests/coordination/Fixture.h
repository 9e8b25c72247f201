#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "platform/base/Errors.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/platformd/FileCoordinationService.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Operations.h"
#include "tests/support/TemporaryRoot.h"
#include "tests/support/Wire.h"

namespace qx::test {

/// A client of the service: what it asks comes to an outcome, and it is asked for items.
class Client : public Wire {
 public:
  Client() : Wire(connectTo(coordinationService)) {}

  std::string add(const Value& id, const Value& url) {
    return call("addDocSource:providedItemsURL:completion:", {id, url}).outcome();
  }
  std::string remove(const Value& id) {
    return call("removeDocSource:completion:", {id}).outcome();
  }
  std::int64_t beginRead(const std::string& path) {
    return begin(coordinateReading, {URL::fileURL(path)});
  }
  std::string end(std::int64_t read) { return answer(read).outcome(); }
  std::string read(const std::string& path) { return end(beginRead(path)); }

  /// Waits for the next call of the service; its operation and arguments.
  std::string nextCall() {
    const auto message = receive();
    EXPECT_TRUE(message && message->size() == 4 && message->front() == Value(1));
    if (!message || message->size() != 4) return "";
    called_ = *(*message)[1].as<std::int64_t>();
    return *(*message)[2].as<std::string>() + " " + describe((*message)[3]);
  }
  /// Ends what the last call asked for.
  void reply(const Value& error = Value()) { send({2, called_, Array{error}}); }
  /// Provides what the service asks for next; the doc source that it asks.
  std::string provideNext() {
    const auto call = nextCall();
    reply();
    const auto begin = call.find('(') + 1;
    return call.substr(begin, call.find(',') - begin);
  }

 private:
  std::int64_t called_ = 0;
};

inline std::shared_ptr<FileCoordinationService> startService() {
  auto service = FileCoordinationService::make(std::make_shared<DocSourceRegistry>(),
                                               std::make_shared<UserAccounts>(1024));
  service->resume();
  return service;
}

/// A root of its own with the service in it, and a directory of documents.
class CoordinationTest : public testing::Test {
 protected:
  void SetUp() override {
    temporaryRoot();
    entitle({{fileCoordinationHostEntitlement, true}});
    write("document");
    write("other");
  }
  static void entitle(const Dictionary& entitlements) {
    beApplication("com.example.tests", entitlements);
  }
  void write(const std::string& name) { std::ofstream(items / name) << "content"; }

  const std::string success = "success", lost = "QXConduitErrorDomain 4";
  TemporaryDirectory items;
  URL directory = URL::fileURL(items.path(), true);
};

}  // namespace qx::test
