#pragma once

/// Begins to keep the documents that sandboxed applications see the same as the documents: tells
/// the providers what was written there, and shows a document that was renamed, and is still
/// granted, under its new path. Once, when the providers are known; returns at once.
void dsBeginToShowDocuments();
