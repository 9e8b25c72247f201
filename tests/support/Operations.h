#pragma once

/// The services and operations by their names on the wire, and what it takes to be served.
namespace qx::test {

inline const char* const docSourceService = "com.veltro.DocSource";
inline const char* const coordinationService = "com.veltro.FileCoordination";
inline const char* const sandboxService = "com.veltro.Sandbox";

inline const char* const readEntitlement = "com.veltro.docsource.acl-read";
inline const char* const writeEntitlement = "com.veltro.docsource.acl-write";

inline const char* const wakeUp = "wakeUpCompletion:";
inline const char* const extendSandbox =
    "extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:";
inline const char* const providePlaceholder =
    "providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const startProviding =
    "startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const stopProviding =
    "stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const listProviders = "providersCompletionHandler:";
inline const char* const extendBookmark =
    "extendBookmarkForFileURL:toConsumerID:completionHandler:";
inline const char* const bookmarkableString = "bookmarkableStringFromDocumentURL:completion:";
inline const char* const documentURL = "documentURLFromBookmarkableString:completion:";

inline const char* const vendorSetUp = "_performInitialSetupWithCompletion:";
inline const char* const vendorPlaceholder = "_providePlaceholderAtURL:completion:";
inline const char* const vendorStart = "_startProvidingItemAtURL:completion:";
inline const char* const vendorChanged = "_itemChangedAtURL:completion:";
inline const char* const vendorStop = "_stopProvidingItemAtURL:completion:";
inline const char* const vendorIdentifier = "_identifierForItemAtURL:completion:";
inline const char* const vendorURL = "_URLForItemIdentifier:completion:";

inline const char* const coordinateReading = "coordinateReadingItemAtURL:completion:";
inline const char* const finishedWriting = "didFinishWritingItemAtURL:completion:";
inline const char* const consumeExtension = "consumeExtension:completion:";

}  // namespace qx::test
