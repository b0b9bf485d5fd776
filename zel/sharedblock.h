// Disk blocks whose committed state is shared, not copied. A block embeds the
// whole committed state, and one agreement round handles it many times (a write
// per disk, eight slots per read, a reply per store); with a large state each
// copy, decode or comparison costs milliseconds. A SharedBlock holds its state
// through an immutable shared pointer, and the states of one process are shared
// by content: a state decoded from bytes equal to a recent state's encoding is
// that state, so equal states are usually one pointer.
#ifndef ZEL_SHAREDBLOCK_H
#define ZEL_SHAREDBLOCK_H

#include <memory>
#include <string>

#include "zel/paxosdata.h"

using StateRef = std::shared_ptr<const CommittedState>;

// The empty state (never null, shared).
const StateRef& EmptyState();
// Equal states: the same pointer, or equal contents.
bool SameState(const StateRef& a, const StateRef& b);
// The encoding of *s, computed once while s is among the recent states.
std::shared_ptr<const std::string> EncodedState(const StateRef& s);
// Loads a committed state from [p, end): a recent state whose encoding the bytes
// begin with is shared instead of decoded. Null on malformed input (or null p).
const char* LoadSharedState(const char* p, const char* end, StateRef* out);

// The fields and byte layout of a Dblock.
struct SharedBlock {
  int seq = 0;
  StateRef committed = EmptyState();
  BallotNumber mbal;
  BallotNumber bal;
  ProposedUpdate inp;
  int leaderChallengeVersion = 0;

  SharedBlock() = default;
  // Copies b's state: for initialisation and tests, never on a hot path.
  SharedBlock(const Dblock& b);  // NOLINT(google-explicit-constructor)
  Dblock toDblock() const;
  const CommittedState& state() const { return *committed; }
  bool hasInp() const { return inp.type != ProposedUpdate::noUpdate; }

  // As Dblock's.
  bool moreRecentThan(const SharedBlock& o) const;
  void reset(int newSeq, const StateRef& c);
  // Applies inp to a copy of the state, then resets to seq + 1.
  void applyInp();

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  int getHeadSize() const;
  char* dumpHead(char* p) const;
  // Leaves committed as it was.
  const char* loadHead(const char* p, const char* end);
  std::string toString() const;
  bool operator==(const SharedBlock& o) const;
  bool operator!=(const SharedBlock& o) const { return !(*this == o); }
};

#endif  // ZEL_SHAREDBLOCK_H
