// The head of a disk block's encoding (every field but the committed state,
// which comes last) and its recency order, over the fields alone, for Dblock
// and SharedBlock alike: neither needs a copy of the other to encode or compare.
#ifndef ZEL_DBLOCKHEAD_H
#define ZEL_DBLOCKHEAD_H

#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

inline int SizeBallots(const BallotNumber& m, const BallotNumber& b) {
  return SizeVarUInt(m.first, 0) + SizeVarUInt(m.second, 0) + SizeVarUInt(b.first, 0) +
         SizeVarUInt(b.second, 0);
}

inline char* DumpBallots(char* p, const BallotNumber& m, const BallotNumber& b) {
  p = DumpVarUInt(p, m.first, 0);
  p = DumpVarUInt(p, m.second, 0);
  p = DumpVarUInt(p, b.first, 0);
  return DumpVarUInt(p, b.second, 0);
}

inline const char* LoadBallots(const char* p, const char* end, BallotNumber* m, BallotNumber* b) {
  p = LoadVarUInt(p, end, &m->first, 0);
  p = LoadVarUInt(p, end, &m->second, 0);
  p = LoadVarUInt(p, end, &b->first, 0);
  return LoadVarUInt(p, end, &b->second, 0);
}

// Strictly newer by seq, mbal, bal, then leaderChallengeVersion.
template <class B>
bool BlockMoreRecent(const B& x, const B& o) {
  const int a[] = {x.seq,       x.mbal.first, x.mbal.second,
                   x.bal.first, x.bal.second, x.leaderChallengeVersion};
  const int b[] = {o.seq,       o.mbal.first, o.mbal.second,
                   o.bal.first, o.bal.second, o.leaderChallengeVersion};
  for (int i = 0; i < 6; i++)
    if (a[i] != b[i]) return a[i] > b[i];
  return false;
}

template <class B>
int BlockHeadSize(const B& b) {
  int n = SizeVarUInt(b.seq, 0) + SizeBallots(b.mbal, b.bal) + 1;
  if (b.inp.type != ProposedUpdate::noUpdate) n += b.inp.getSize();
  return n + SizeVarUInt(b.leaderChallengeVersion, 0);
}

template <class B>
char* DumpBlockHead(char* p, const B& b) {
  p = DumpVarUInt(p, b.seq, 0);
  p = DumpBallots(p, b.mbal, b.bal);
  bool present = b.inp.type != ProposedUpdate::noUpdate;
  p = DumpVarUInt(p, present ? 1 : 0, 0);
  if (present) p = b.inp.dump(p);
  return DumpVarUInt(p, b.leaderChallengeVersion, 0);
}

// Fails on an input presence value above 1.
template <class B>
const char* LoadBlockHead(const char* p, const char* end, B* b) {
  p = LoadVarUInt(p, end, &b->seq, 0);
  p = LoadBallots(p, end, &b->mbal, &b->bal);
  int present = 0;
  p = LoadVarUInt(p, end, &present, 0);
  if (p == nullptr || present > 1) return nullptr;
  if (present == 1) {
    p = b->inp.load(p, end);
  } else {
    b->inp.reset();
  }
  return LoadVarUInt(p, end, &b->leaderChallengeVersion, 0);
}

#endif  // ZEL_DBLOCKHEAD_H
