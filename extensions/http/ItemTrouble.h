#pragma once

#include <memory>

#include "docsource/remote.h"

namespace docsource::http {

/// Tells the trouble of one item from that of the whole remote. A server that has lost its notes of
/// one document, or a proxy that does not let one address through, answers for that item with
/// something that is no answer, for good. Taken for a server that cannot be reached, that would
/// keep the account offline and everything else from being carried over.
///
/// So when an operation finds the remote `unreachable`, the remote is asked who it is: where that
/// is answered, the item alone has `failed`. As what becomes of an operation that failed is looked
/// at before it is done again, either means that its outcome is not known. About the top there is
/// nothing else to ask, and its error stays as it is; and identity() tells of every trouble as one
/// of the whole.
///
/// Threads: as the remote.
std::unique_ptr<Remote> withItemTroubles(std::unique_ptr<Remote> remote);

}  // namespace docsource::http
