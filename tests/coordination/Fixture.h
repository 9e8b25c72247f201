#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/platformd/FileCoordinationService.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/Gate.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Mailbox.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TemporaryRoot.h"

namespace qx::test {

inline std::string programPath() {
  return std::filesystem::read_symlink("/proc/self/exe").string();
}

/// The application that this program belongs to.
inline void installProgram(const Dictionary& entitlements) {
  const std::string bundle = temporaryRoot() + "/Applications/Tests.app";
  std::filesystem::create_directories(bundle);
  writeList(bundle + "/Entitlements.plist", entitlements);
  writeList(bundle + "/Info.plist", bundleInfo("com.example.tests", programPath()));
}
inline void uninstallProgram() {
  std::filesystem::remove_all(temporaryRoot() + "/Applications/Tests.app");
}
inline void beHost() { installProgram({{fileCoordinationHostEntitlement, true}}); }

/// Waits for the one error, or its absence, that an operation answers with.
class Outcome {
 public:
  Completion<Error> completion() const {
    return [box = box_](const std::optional<Error>& error) { box->put(error); };
  }
  QXConduitConnection::ErrorHandler errorHandler() const {
    return [box = box_](const Error& error) { box->put(error); };
  }
  bool isThere() const { return !box_->all().empty(); }
  std::optional<Error> get() const {
    EXPECT_TRUE(box_->waitForCount(1)) << "no answer";
    auto all = box_->all();
    EXPECT_LE(all.size(), 1u);
    return all.empty() ? conduitError(ConduitErrorCode::connectionLost, "no answer") : all.front();
  }

 private:
  std::shared_ptr<Mailbox<std::optional<Error>>> box_ =
      std::make_shared<Mailbox<std::optional<Error>>>();
};

/// A client of the service, and what it is called back.
class Client {
 public:
  struct Provide {
    std::string docSource, url, reader;
    Completion<Error> completion;
  };

  Client() {
    auto connected = QXConduitConnection::connectToService(fileCoordinationServiceName);
    EXPECT_TRUE(connected);
    if (!connected) return;
    connection = *connected;
    connection->setExportedInterface(
        QXConduitInterface::interfaceWithProtocol<QXFileCoordinationHost>());
    connection->setExportedObject<QXFileCoordinationHost>(host_);
    connection->setRemoteObjectInterface(
        QXConduitInterface::interfaceWithProtocol<QXFileCoordination>());
    connection->resume();
  }

  std::optional<Error> add(const std::optional<std::string>& id, const std::optional<URL>& url) {
    return call([&](auto& service, auto done) {
             service.addDocSource_providedItemsURL_completion(id, url, done);
           })
        .get();
  }
  std::optional<Error> remove(const std::optional<std::string>& id) {
    return call([&](auto& service, auto done) { service.removeDocSource_completion(id, done); })
        .get();
  }
  Outcome read(const std::optional<URL>& url) {
    return call([&](auto& service, auto done) {
      service.coordinateReadingItemAtURL_completion(url, done);
    });
  }
  Outcome read(const std::string& path) { return read(URL::fileURL(path)); }
  std::optional<Error> wrote(const std::optional<URL>& url) {
    return call([&](auto& service, auto done) {
             service.didFinishWritingItemAtURL_completion(url, done);
           })
        .get();
  }

  /// The next item that the service asks of this client.
  Provide nextProvide() {
    EXPECT_TRUE(host_->provides.waitForCount(1));
    auto all = host_->provides.take();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? Provide{} : all.front();
  }
  bool waitForProvides(std::size_t count) const { return host_->provides.waitForCount(count); }
  std::size_t provideCount() const { return host_->provides.all().size(); }
  Mailbox<std::string>& writes() { return host_->writes; }

  std::shared_ptr<QXConduitConnection> connection;

 private:
  class Host final : public QXFileCoordinationHost {
   public:
    void docSource_provideItemAtURL_toReaderWithID_completionHandler(
        const std::optional<std::string>& docSource, const std::optional<URL>& url,
        const std::optional<std::string>& reader, Completion<Error> completion) override {
      provides.put({*docSource, url->absoluteString(), *reader, std::move(completion)});
    }
    void docSource_writerWithID_didFinishWritingForURL_completionHandler(
        const std::optional<std::string>& docSource, const std::optional<std::string>& writer,
        const std::optional<URL>& url, Completion<> completion) override {
      completion();
      writes.put(*docSource + " " + *writer + " " + url->absoluteString());
    }
    Mailbox<Provide> provides;
    Mailbox<std::string> writes;
  };

  template <class Operation>
  Outcome call(Operation operation) {
    Outcome outcome;
    auto service =
        connection->remoteObjectProxyWithErrorHandler<QXFileCoordination>(outcome.errorHandler());
    operation(*service, outcome.completion());
    return outcome;
  }

  std::shared_ptr<Host> host_ = std::make_shared<Host>();
};

inline std::shared_ptr<FileCoordinationService> startService() {
  auto service = FileCoordinationService::make(std::make_shared<DocSourceRegistry>());
  service->resume();
  return service;
}

/// A root of its own with the service in it, and a directory of documents.
class CoordinationTest : public testing::Test {
 protected:
  void SetUp() override {
    temporaryRoot();
    beHost();
    write("document");
    write("other");
  }
  void write(const std::string& name) { std::ofstream(items / name) << "content"; }

  TemporaryDirectory items;
  URL directory = URL::fileURL(items.path(), true);
};

}  // namespace qx::test
