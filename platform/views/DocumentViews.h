#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/base/Error.h"
#include "platform/base/URL.h"

/// The documents that the applications in this user's sandboxes see under their own paths
/// (DocumentView), kept the same on both sides while they run: what an application saves becomes
/// the document within a second, and what replaces the document goes into the view. For the daemon
/// of the user; everything is done as that user. Any thread; shows and hides wait for the disk and
/// for each other.
namespace qx::DocumentViews {

/// Called on the global queue when an application has written a document. Called again at the next
/// start unless `done` is called, on any thread.
using OnWritten = std::function<void(const std::string& application, const URL& document,
                                     const std::function<void()>& done)>;

/// Called on the global queue when a document has gone from an application's view because it was
/// renamed; `isIt` tells whether it is what a URL leads to. Called again at the next start unless
/// `done` is called, on any thread.
using OnMoved =
    std::function<void(const std::string& application, const std::function<bool(const URL&)>& isIt,
                       const std::function<void()>& done)>;

/// Carries over what happened while nobody looked, and keeps looking from then on. Once.
void begin(OnWritten onWritten, OnMoved onMoved);

/// Shows a document to an application that is run in sandboxes; nothing happens for any other. An
/// error where the document cannot be shown: it is no plain file, or lies on another file system
/// than the root.
std::optional<Error> show(const std::string& application, const URL& document);

/// When it has returned without an error the document is gone from the application's sandboxes,
/// and from its data. An application that keeps on moving it about meanwhile is ended.
std::optional<Error> hide(const std::string& application, const URL& document);

/// The same of every document that the application is shown. What it still has a grant for comes
/// back when it is shown again.
std::optional<Error> hideAll(const std::string& application);

}  // namespace qx::DocumentViews
