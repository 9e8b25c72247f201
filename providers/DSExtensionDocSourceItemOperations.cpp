// The item operations: each carries one request to the extension and its answer back.

#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"

namespace {

struct Messages {
  std::string_view requestError;
  std::string_view replyError;
  std::string_view success;
};

constexpr Messages placeholderMessages{
    "[ERROR] Cannot provide placeholder for item at URL %@ for extension %@. Error: %@",
    "[ERROR] Proxy failed to provide placeholder at URL %@ for extension %@. Error: %@",
    "[DEBUG] Successfully provided placeholder at URL %@ for extension %@."};

constexpr Messages startMessages{
    "[ERROR] Cannot provide item at URL %@ for extension %@. Error: %@",
    "[ERROR] Proxy failed to start providing item at URL %@ for extension %@. Error: %@",
    "[DEBUG] Successfully provided item at URL %@ for extension %@."};

constexpr Messages stopMessages{
    "[ERROR] Cannot stop providing item at URL %@ for extension %@. Error: %@",
    "[ERROR] Proxy failed to stop providing item at URL %@ for extension %@. Error: %@",
    "[DEBUG] Successfully stopped providing item at URL %@ for extension %@."};

constexpr Messages itemIDMessages{
    "[ERROR] Cannot get item ID for URL %@ for extension %@. Error: %@",
    "[ERROR] Proxy failed to get item ID for URL %@ for extension %@. Error: %@",
    "[DEBUG] Successfully got item ID “%@” for URL %@ from extension %@"};

constexpr Messages urlMessages{
    "[ERROR] Cannot get URL for item ID “%@” for extension %@. Error: %@",
    "[ERROR] Proxy failed to get URL for item ID “%@” for extension %@. Error: %@",
    "[DEBUG] Successfully retrieved URL %@ for item ID “%@” from extension %@"};

}  // namespace

template <const auto& messages, class Subject, class... Values, class Send>
void DSExtensionDocSource::forward(const std::optional<Subject>& subject,
                                   qx::Completion<qx::Error, Values...> completion, Send send) {
  performExtensionRequest(
      [self = shared_from_this(), subject, completion = qx::once(std::move(completion)), send](
          const std::optional<qx::Error>& requestError,
          const std::shared_ptr<_QXDocSourceVendor>& proxy, const Callback& done) {
        if (requestError) {
          DS_LOG(messages.requestError, subject, self->identifier(), requestError);
          if (completion) {
            completion(DSPluginOperationFailedError(requestError), std::optional<Values>()...);
          }
          return;
        }
        send(*proxy, subject,
             [self, subject, completion, done](const std::optional<qx::Error>& error,
                                               const std::optional<Values>&... values) {
               if (error) {
                 DS_LOG(messages.replyError, subject, self->identifier(), error);
                 if (completion) {
                   completion(DSPluginOperationFailedError(error), std::optional<Values>()...);
                 }
               } else {
                 DS_LOG(messages.success, values..., subject, self->identifier());
                 if (completion) completion(std::nullopt, values...);
               }
               if (done) done();
             });
      });
}  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the callbacks own what they capture

void DSExtensionDocSource::providePlaceholderForItemAtURL_completionHandler(
    const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  forward<placeholderMessages>(
      url, std::move(completion), [](_QXDocSourceVendor& vendor, const auto& item, auto reply) {
        vendor._providePlaceholderAtURL_completion(
            item, [reply](const std::optional<qx::URL>& /*placeholder*/,
                          const std::optional<qx::Error>& error) { reply(error); });
      });
}

void DSExtensionDocSource::startProvidingItemAtURL_completionHandler(
    const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  forward<startMessages>(url, std::move(completion),
                         [](_QXDocSourceVendor& vendor, const auto& item, auto reply) {
                           vendor._startProvidingItemAtURL_completion(item, reply);
                         });
}

void DSExtensionDocSource::stopProvidingItemAtURL_completionHandler(
    const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  forward<stopMessages>(url, std::move(completion),
                        [](_QXDocSourceVendor& vendor, const auto& item, auto reply) {
                          vendor._stopProvidingItemAtURL_completion(item, reply);
                        });
}

void DSExtensionDocSource::itemIDForURL_completionHandler(
    const std::optional<qx::URL>& url, qx::Completion<qx::Error, std::string> completion) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  forward<itemIDMessages>(url, std::move(completion),
                          [](_QXDocSourceVendor& vendor, const auto& item, auto reply) {
                            vendor._identifierForItemAtURL_completion(item, reply);
                          });
}

void DSExtensionDocSource::URLForItemID_completionHandler(
    const std::optional<std::string>& itemID, qx::Completion<qx::Error, qx::URL> completion) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  forward<urlMessages>(itemID, std::move(completion),
                       [](_QXDocSourceVendor& vendor, const auto& item, auto reply) {
                         vendor._URLForItemIdentifier_completion(item, reply);
                       });
}

void DSExtensionDocSource::itemChangedAtURL(const std::optional<qx::URL>& url,
                                            const std::function<void()>& heard) {
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  performExtensionRequest([self = shared_from_this(), url, heard](
                              const std::optional<qx::Error>& requestError,
                              const std::shared_ptr<_QXDocSourceVendor>& proxy,
                              const Callback& done) {
    if (requestError) {
      DS_LOG("[ERROR] Cannot tell extension %@ that item at URL %@ has changed.",
             self->identifier(), url);
      if (done) done();
      return;
    }
    proxy->_itemChangedAtURL_completion(
        url, [self, url, done, heard](const std::optional<qx::Error>& error) {
          if (error) {
            DS_LOG("[ERROR] Could not tell extension %@ that item at URL %@ has changed. Error: %@",
                   self->identifier(), url, error);
          }
          if (heard) heard();
          if (done) done();
        });
  });
}
