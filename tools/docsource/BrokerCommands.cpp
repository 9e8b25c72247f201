// The commands that are one operation of the broker each.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <utility>

#include "docsource/placeholder.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/ArrivalWatch.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Interruption.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"
#include "tools/docsource/ProgressBar.h"

namespace tool {
namespace {

using docsource::Client;

/// Of an operation that answers with nothing but its success.
int done(const Arguments& arguments, const docsource::Result<void>& result) {
  if (!result) return fail(arguments, result.error());
  return answer(arguments.json, {}, "");
}

using ItemOperation = docsource::Result<void> (Client::*)(const std::string&, const std::string&,
                                                          const std::string&, Client::Timeout);

int requestItem(const Arguments& arguments, ItemOperation operation) {
  Client client(arguments.timeout);
  return done(arguments, (client.*operation)(urlFromArgument(arguments.subject), arguments.provider,
                                             arguments.consumer, {}));
}

void addExtension(const docsource::SandboxExtension& extension, qx::Dictionary& object,
                  std::string& text) {
  object["token"] = extension.token;
  object["siblingURL"] = extension.siblingURL;
  object["siblingToken"] = extension.siblingToken;
  text += "token: " + extension.token.value_or("none") + "\n";
  text += "sibling: ";
  text += extension.siblingURL ? onOneLine(readable(*extension.siblingURL)) : "none";
  text += "\n";
  text += "sibling token: " + extension.siblingToken.value_or("none") + "\n";
}

/// A grant counts as soon as there is such a consumer; as a rule nobody means that.
void tellOfUnknownConsumer(const Arguments& arguments) {
  for (const auto standing : {qx::BundleStanding::machine, qx::BundleStanding::user}) {
    for (const auto kind : {qx::BundleKind::application, qx::BundleKind::extension}) {
      for (const auto& installed : installedBundles(kind, standing)) {
        if (installed.bundle && installed.bundle->identifier == arguments.consumer) return;
      }
    }
  }
  std::fprintf(
      stderr,
      "Note: no bundle with the identifier %s is installed. The grant is recorded, and "
      "counts when there is one, or for a Flatpak of that name; is the name right (docsource "
      "bundles)?\n",
      onOneLine(arguments.consumer).c_str());
}

int printBookmark(const Arguments& arguments, const std::string& bookmark) {
  return answer(arguments.json, {{"bookmark", bookmark}}, bookmark + "\n");
}

}  // namespace

int wakeUp(const Arguments& arguments) {
  return done(arguments, Client(arguments.timeout).wakeUp());
}

int providers(const Arguments& arguments) {
  const auto listing = Client(arguments.timeout).providers();
  if (!listing) return fail(arguments, listing.error());
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  for (const auto& provider : *listing) {
    array.emplace_back(qx::Dictionary{{"providerIdentifier", provider.identifier},
                                      {"documentStorageURL", provider.documentStorageURL}});
    rows.push_back({provider.identifier,
                    provider.documentStorageURL ? readable(*provider.documentStorageURL) : "none"});
  }
  return answer(arguments.json, {{"providers", std::move(array)}},
                table({"PROVIDER", "DOCUMENTS"}, rows));
}

int placeholder(const Arguments& arguments) {
  return requestItem(arguments, &Client::providePlaceholder);
}
int start(const Arguments& arguments) {
  const auto url = urlFromArgument(arguments.subject);
  Client client(arguments.timeout);
  const auto answered = std::make_shared<std::promise<docsource::Result<void>>>();
  auto result = answered->get_future();
  client.startProviding(
      url, arguments.provider, arguments.consumer,
      [answered](docsource::Result<void> answer) { answered->set_value(std::move(answer)); },
      Client::noTimeout);
  const Interruption interruption;
  ProgressBar bar;
  const auto path = docsource::pathOfURL(url);
  ArrivalWatch arriving(url, arguments.timeout);
  constexpr std::chrono::milliseconds redrawn(100);
  while (result.wait_for(redrawn) == std::future_status::timeout) {
    if (path) bar.draw(*path);
    if (interruption.hasCome()) {
      bar.remove();
      const auto place = placeOf(arguments.subject);
      if (place && place->account) {
        tellWhatGoesOn(arguments.subject);
      } else {
        (void)client.stopProviding(url, arguments.provider, arguments.consumer);
      }
      return interrupted;
    }
    if (!arriving.goesOn()) {
      bar.remove();
      return fail(arguments, docsource::Error(docsource::LibraryError::timedOut,
                                              "Nothing of " + readable(url) + " arrives."));
    }
  }
  auto outcome = result.get();
  bar.remove();
  return done(arguments, outcome);
}
int stop(const Arguments& arguments) { return requestItem(arguments, &Client::stopProviding); }

int extendSandbox(const Arguments& arguments) {
  const auto extension = Client(arguments.timeout)
                             .extendSandbox(urlFromArgument(arguments.subject), arguments.provider,
                                            arguments.consumer);
  if (!extension) return fail(arguments, extension.error());
  tellOfUnknownConsumer(arguments);
  qx::Dictionary object;
  std::string text;
  addExtension(*extension, object, text);
  return answer(arguments.json, object, text);
}

int extendBookmark(const Arguments& arguments) {
  const auto bookmark = Client(arguments.timeout)
                            .extendBookmark(urlFromArgument(arguments.subject), arguments.consumer);
  if (!bookmark) return fail(arguments, bookmark.error());
  tellOfUnknownConsumer(arguments);
  return printBookmark(arguments, *bookmark);
}

int bookmark(const Arguments& arguments) {
  const auto url = urlFromArgument(arguments.subject);
  Client client(arguments.timeout);
  const auto bookmark = client.bookmarkableString(url);
  if (!bookmark) return fail(arguments, bookmark.error());
  if (*bookmark) return printBookmark(arguments, **bookmark);
  answer(arguments.json, {{"bookmark", qx::Value()}}, "");
  const auto provider = providerOf(client, url);
  std::string reason = " belongs to no provider";
  if (!provider) reason += ", or its provider gave no identifier for it";
  if (provider && *provider) reason = ": its provider " + **provider + " gave no identifier for it";
  return fail(arguments, complaint("There is no bookmarkable string: " + readable(url) + reason));
}

int resolve(const Arguments& arguments) {
  const auto document = Client(arguments.timeout).resolveBookmark(arguments.subject);
  if (!document) return fail(arguments, document.error());
  qx::Dictionary object{{"url", document->url}};
  std::string text = "document: " + onOneLine(readable(document->url)) + "\n";
  addExtension(document->extension, object, text);
  return answer(arguments.json, object, text);
}

}  // namespace tool
