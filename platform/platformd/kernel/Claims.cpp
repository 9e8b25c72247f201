// The doc sources that claim trees.

#include "platform/platformd/kernel/Claims.h"

#include <algorithm>

namespace qx::kernel {

bool Claims::add(const DocSource& source, std::string tree, std::optional<Claim>& replaced) {
  const std::pair key(source.owner, source.identifier);
  if (const auto known = claims_.find(key); known != claims_.end()) {
    if (known->second.source.number > source.number) return false;
    replaced = std::move(known->second);
  }
  claims_.insert_or_assign(key, Claim{source, std::move(tree)});
  return true;
}

Claims::Claim* Claims::find(const DocSource& source) {
  const auto known = claims_.find({source.owner, source.identifier});
  if (known == claims_.end() || known->second.source.number != source.number) return nullptr;
  return &known->second;
}

std::optional<Claims::Claim> Claims::remove(const DocSource& source) {
  Claim* known = find(source);
  if (!known) return std::nullopt;
  std::optional<Claim> removed = std::move(*known);
  claims_.erase({source.owner, source.identifier});
  return removed;
}

const Claims::Claim* Claims::of(const GuardedTrees::Place& place) const {
  const Claim* innermost = nullptr;
  const auto first = claims_.lower_bound({place.owner, std::string()});
  for (auto each = first; each != claims_.end() && each->first.first == place.owner; ++each) {
    const Claim& claim = each->second;
    if (!isBelow(place.path, claim.tree)) continue;
    if (!innermost || claim.tree.size() > innermost->tree.size()) innermost = &claim;
  }
  return innermost;
}

bool Claims::isExempt(pid_t process, const std::optional<GuardedTrees::Place>& place) {
  if (!place) {
    return std::any_of(claims_.begin(), claims_.end(), [&](const auto& entry) {
      return entry.second.source.host->process().processIdentifier() == process;
    });
  }
  const Claim* claim = of(*place);
  if (!claim) return lineage_.isSomeExtension(process, place->owner);
  return lineage_.belongsTo(process, place->owner, claim->source.identifier,
                            claim->source.host->process());
}

bool Claims::isKnownToBeExempt(pid_t process,
                               const std::optional<GuardedTrees::Place>& place) const {
  const Claim* claim = place ? of(*place) : nullptr;
  return claim && lineage_.isKnownToBelongTo(process, place->owner, claim->source.identifier,
                                             claim->source.host->process());
}

}  // namespace qx::kernel
