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

/// The doc sources that are there, by their trees: who is to be asked for a document, and which
/// processes work for whom. One thread at a time.
class Claims {
 public:
  struct Claim {
    DocSource source;
    std::string tree;  // the path of its directory, without links

    /// Whether there is nobody who could be asked.
    bool isAway() const { return source.host->isLost(); }
  };

  /// False when a later registration of that doc source is known already; what it takes the place
  /// of comes back in `replaced`.
  bool add(const DocSource& source, std::string tree, std::optional<Claim>& replaced);
  /// Absent when it is not this registration that is known.
  std::optional<Claim> remove(const DocSource& source);
  /// What a link in its path leads to is known only once it is there; null for another
  /// registration.
  Claim* find(const DocSource& source);

  /// Whoever is to be asked for what lies there: the doc source of the tree's owner. Null when
  /// there is none.
  const Claim* of(const GuardedTrees::Place& place) const;

  /// Whether the process works for the owner of what lies there, and is to see it as it is. Of a
  /// tree that nobody claims any process does that was started as an extension by its owner. Absent
  /// a place, hosts alone are let through.
  bool isExempt(pid_t process, const std::optional<GuardedTrees::Place>& place);
  /// Whether isExempt() has said so lately of this very process, and would again.
  bool isKnownToBeExempt(pid_t process, const std::optional<GuardedTrees::Place>& place) const;

 private:
  std::map<std::pair<uid_t, std::string>, Claim> claims_;  // by owner and identifier
  ProcessLineage lineage_;
};

}  // namespace qx::kernel
