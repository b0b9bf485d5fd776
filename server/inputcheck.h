// Whether an input may be applied to a state: CommittedState::apply and the
// encoders stop the program on what breaks their rules, so nothing reaches them
// unchecked.
#ifndef SERVER_INPUTCHECK_H
#define SERVER_INPUTCHECK_H

#include "zel/sharedblock.h"

namespace zeld {

// 0 when apply(u) on state keeps every rule (a uid the state includes is a
// no-op and passes) and the result encodes; else 22 with *why set.
int CheckInput(const CommittedState& state, const ProposedUpdate& u, const char** why);
// Whether the block's own fields and input encode (no negative quantities); its
// committed state is trusted, having come from a decoder or from checked inputs.
bool BlockEncodable(const SharedBlock& b);

}  // namespace zeld

#endif  // SERVER_INPUTCHECK_H
