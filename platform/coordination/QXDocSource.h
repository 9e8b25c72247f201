#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/base/Completion.h"
#include "platform/base/Error.h"
#include "platform/base/URL.h"
#include "platform/base/Value.h"
#include "platform/queue/OperationQueue.h"

/// What QXFileCoordinator asks of a provider of documents. The operations run on the provider's
/// `_providedItemsOperationQueue`; the accessors may be called on any thread.
///
/// The protocol's optional operations are asked of no source here, and no source implements them:
/// _cancelProvidingItemAtURL:toReaderWithID:, _physicalURLForURL:,
/// _providedItemAtURL:didGainPresenterWithID:, _providedItemAtURL:didLosePresenterWithID: and
/// _providedItemAtURL:withPresenterWithID:didMoveToURL:.
class QXDocSource {
 public:
  virtual ~QXDocSource() = default;

  /// Absent when the provider has no directory; nothing of it is coordinated then.
  virtual std::optional<qx::URL> _providedItemsURL() = 0;
  virtual std::shared_ptr<qx::OperationQueue> _providedItemsOperationQueue() = 0;
  /// The identifier under which the file-coordination service knows the provider.
  virtual std::optional<std::string> _fileReactorID() = 0;

  /// The deprecated form of the next operation, without a reader.
  virtual void _provideItemAtURL_completionHandler(const std::optional<qx::URL>& url,
                                                   qx::Completion<qx::Error> completion) = 0;
  virtual void _provideItemAtURL_toReaderWithID_completionHandler(
      const std::optional<qx::URL>& url, const std::optional<std::string>& reader,
      qx::Completion<qx::Error> completion) = 0;
  /// While the item is being provided, says that a reader of it waits for so many bytes from the
  /// offset on. It is a hint and may be ignored.
  virtual void _readerOfItemAtURL_waitsForBytes(const std::optional<qx::URL>& /*url*/,
                                                const std::optional<qx::Array>& /*bytes*/) {}
  virtual void _writerWithID_didFinishWritingForURL(const std::optional<std::string>& writer,
                                                    const std::optional<qx::URL>& url) = 0;
};
