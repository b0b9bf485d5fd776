// The rules every disk applies to a write, whatever holds its slots: a slot is
// written only by the node that owns it in the latest configuration, and never
// goes back to an older block (delayed or duplicated messages are harmless).
#ifndef SERVER_BLOCKRULES_H
#define SERVER_BLOCKRULES_H

#include <vector>

#include "server/replica.h"

namespace zeld {

// 0, 22 for a slot out of range, kErrNotOwner or kErrStaleWrite. held has
// kDiskSlots entries. The latest configuration is that of the highest-seq block
// among held and b (held on a tie); one that gives no node a slot lets anyone write.
int CheckBlockWrite(const std::vector<SlotBlock>& held, int writerId, int slot,
                    const SharedBlock& b);

}  // namespace zeld

#endif  // SERVER_BLOCKRULES_H
