#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Error.h"
#include "platform/base/URL.h"

/// The documents that the applications in this user's sandboxes see under their own paths
/// (DocumentView). They are kept the same on both sides while the applications run: what an
/// application saves becomes the document within a second, and what replaces the document goes into
/// the view. This is for the user's daemon; everything is done as that user. Any thread may call
/// it; showing and hiding wait for the disk and for each other.
namespace qx::DocumentViews {

/// Called on the global queue when an application has written a document. Called again at the next
/// start unless `done` is called, on any thread.
using OnWritten = std::function<void(const std::string& application, const URL& document,
                                     const std::function<void()>& done)>;

/// Of the URLs of all documents to which an application has a grant, those that it is to be shown
/// now, because their documents were renamed. For any thread; blocks on the file system.
using Choose = std::function<std::vector<URL>(const std::vector<URL>& granted)>;

/// Called on the global queue when documents have gone from an application's view because they were
/// renamed, or removed; once at a time for each application. Called again at the next start unless
/// `done` is called, on any thread, when those that `choose` names are shown.
using OnMoved = std::function<void(const std::string& application, const Choose& choose,
                                   const std::function<void()>& done)>;

/// Carries over what happened while nobody looked, and keeps looking from then on. Called once.
void begin(OnWritten onWritten, OnMoved onMoved);

/// Shows a document to an application that is run in sandboxes; nothing happens for any other. An
/// error where the document cannot be shown: it is no plain file, or lies on another file system
/// than the root.
std::optional<Error> show(const std::string& application, const URL& document);

/// When this has returned without an error the document is gone from the application's sandboxes,
/// and from its data. An application that keeps moving it about meanwhile is ended.
std::optional<Error> hide(const std::string& application, const URL& document);

/// Does the same for every document that is shown to the application. Those that are still granted
/// come back when they are shown again.
std::optional<Error> hideAll(const std::string& application);

}  // namespace qx::DocumentViews
