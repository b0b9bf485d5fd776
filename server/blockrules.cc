#include "server/blockrules.h"

namespace zeld {

int CheckBlockWrite(const std::vector<SlotBlock>& held, int writerId, int slot,
                    const SharedBlock& b) {
  if (slot < 0 || slot >= kDiskSlots || held.size() != static_cast<size_t>(kDiskSlots)) return 22;
  const SharedBlock* latest = &b;
  for (const SlotBlock& s : held)
    if (s.present && s.block.seq >= latest->seq) latest = &s.block;
  bool anyOwner = false, owns = false;
  for (const NodeDescriptor& n : latest->committed->config.nodes) {
    if (n.slot < 0) continue;
    anyOwner = true;
    if (n.slot == slot && n.id == writerId) owns = true;
  }
  if (anyOwner && !owns) return kErrNotOwner;
  const SlotBlock& cur = held[slot];
  if (cur.present && !b.moreRecentThan(cur.block) && !(b == cur.block)) return kErrStaleWrite;
  return 0;
}

}  // namespace zeld
