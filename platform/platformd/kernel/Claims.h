#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/GuardedTrees.h"
#include "platform/platformd/kernel/ProcessLineage.h"

namespace qx::kernel {

/// The present doc sources, by their trees: which of them is asked for a document, and which
/// processes work for which. Used by one thread at a time.
class Claims {
 public:
  struct Claim {
    DocSource source;
    std::string tree;  // the path of its directory, without links

    /// Returns whether there is nobody who could be asked.
    bool isAway() const { return source.host->isLost(); }
  };

  /// Returns false when a later registration of that doc source is known already. The one that it
  /// replaces comes back in `replaced`.
  bool add(const DocSource& source, std::string tree, std::optional<Claim>& replaced);
  /// Absent when it is not this registration that is known.
  std::optional<Claim> remove(const DocSource& source);
  /// Returns the claim; null for another registration. Its tree may change: what a link in its path
  /// leads to is known only once it is there.
  Claim* find(const DocSource& source);

  /// Returns the one that is asked for what lies there: the doc source of the tree's owner. Null
  /// when there is none.
  const Claim* of(const GuardedTrees::Place& place) const;

  /// Returns whether the process works for the owner of what lies there, and so sees it as it is.
  /// In a tree that nobody claims, that is any process that its owner started as an extension.
  /// Without a place, only hosts are let through.
  bool isExempt(pid_t process, const std::optional<GuardedTrees::Place>& place);
  /// Returns whether isExempt() has lately said so of this very process, and would say so again.
  bool isKnownToBeExempt(pid_t process, const std::optional<GuardedTrees::Place>& place) const;

 private:
  std::map<std::pair<uid_t, std::string>, Claim> claims_;  // by owner and identifier
  ProcessLineage lineage_;
};

}  // namespace qx::kernel
