#pragma once

/// Begins to keep what sandboxed applications see of documents the same as the documents
/// themselves. It tells the providers what was written there, and shows a document that was
/// renamed, and is still granted, under its new path. Called once, when the providers are known;
/// returns at once.
void dsBeginToShowDocuments();
