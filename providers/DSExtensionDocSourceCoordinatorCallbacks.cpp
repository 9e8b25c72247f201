// What the file-coordination service asks of a registered provider.

#include <utility>

#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"

void DSExtensionDocSource::_provideItemAtURL_completionHandler(
    const std::optional<qx::URL>& url, qx::Completion<qx::Error> completion) {
  DS_LOG("[ERROR] Calling deprecated method: %@", qx::operationName(__func__));
  _provideItemAtURL_toReaderWithID_completionHandler(url, std::nullopt, std::move(completion));
}

void DSExtensionDocSource::_provideItemAtURL_toReaderWithID_completionHandler(
    const std::optional<qx::URL>& url, const std::optional<std::string>& reader,
    qx::Completion<qx::Error> completion) {
  DS_LOG("[INFO] QXFileCoordinator requested us to provide item at URL %@ for consumer %@", url,
         reader);
  itemIDForURL_completionHandler(url, [self = shared_from_this(), url, reader,
                                       completion = std::move(completion)](
                                          const std::optional<qx::Error>& error,
                                          const std::optional<std::string>& /*itemID*/) {
    if (error) {
      DS_LOG("[ERROR] Could not provide item at URL %@ from extension %@ to reader %@. Error: %@",
             url, self->identifier(), reader, error);
      if (completion) completion(error);
      return;
    }
    qx::WorkQueue::global().async([self, url, completion] {
      self->startProvidingItemAtURL_completionHandler(url, completion);
    });
  });
}

void DSExtensionDocSource::_readerOfItemAtURL_waitsForBytes(const std::optional<qx::URL>& url,
                                                            const std::optional<qx::Array>& bytes) {
  performExtensionRequest(
      [self = shared_from_this(), url, bytes](const std::optional<qx::Error>& error,
                                              const std::shared_ptr<_QXDocSourceVendor>& proxy,
                                              const Callback& done) {
        if (error) {
          // Providers need not know of it.
          DS_LOG("[DEBUG] Cannot tell extension %@ which bytes of %@ are waited for. Error: %@",
                 self->identifier(), url, error);
          if (done) done();
          return;
        }
        proxy->_readerOfItemAtURL_waitsForBytes_completion(url, bytes, [done] {
          if (done) done();
        });
      });
}

void DSExtensionDocSource::_writerWithID_didFinishWritingForURL(
    const std::optional<std::string>& writer, const std::optional<qx::URL>& url) {
  DS_LOG("[INFO] QXFileCoordinator is telling us the item at URL %@ was changed by writer ID %@.",
         url, writer);
  bool isExcluded = false;
  const auto owner = providerForURL_outExcludedURL(url, &isExcluded);
  if (owner) {
    DS_LOG("[DEBUG] The item at URL %@ is provided by the etxension %@", url, owner->identifier());
    owner->itemChangedAtURL(url);
  } else if (!isExcluded) {
    DS_LOG("[ERROR] Could not find any extension that provides an item at URL %@", url);
  }
}
