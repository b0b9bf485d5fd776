// Disk blocks, their summary and the body of the paxos state file.
#include <sstream>

#include "zel/dblockhead.h"
#include "zel/paxosdata_int.h"

// ---- BallotNumber ----

std::ostream& operator<<(std::ostream& os, const BallotNumber& b) {
  return os << "(" << b.first << "." << b.second << ")";
}

std::string BallotNumber::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

// ---- Dblock ----

bool Dblock::moreRecentThan(const Dblock& o) const {
  return BlockMoreRecent(*this, o);
}

void Dblock::reset(int newSeq, const CommittedState& c) {
  seq = newSeq;
  if (&c != &committed) committed = c;
  mbal = BallotNumber();
  bal = BallotNumber();
  inp.reset();
  if (committed.leaderVersion > leaderChallengeVersion) leaderChallengeVersion = 0;
}

void Dblock::reset(const PaxosDblockSummary& s) {
  leaderChallengeVersion = std::max(leaderChallengeVersion, s.leaderChallengeVersion);
  reset(s.seq, s.committed);
}

void Dblock::replace(const PaxosDblockSummary& s) {
  seq = s.seq;
  committed = s.committed;
  bal = s.bal;
  inp = s.inp;
  leaderChallengeVersion = s.leaderChallengeVersion;
  mbal = BallotNumber(s.mbal.first, 0);
}

void Dblock::applyInp() {
  committed.apply(inp);
  reset(seq + 1, committed);
}

int Dblock::getHeadSize() const {
  return BlockHeadSize(*this);
}

int Dblock::getSize() const {
  return getHeadSize() + committed.getSize();
}

char* Dblock::dumpHead(char* p) const {
  return DumpBlockHead(p, *this);
}

char* Dblock::dump(char* p) const {
  return committed.dump(dumpHead(p));
}

const char* Dblock::loadHead(const char* p, const char* end) {
  return LoadBlockHead(p, end, this);
}

const char* Dblock::load(const char* p, const char* end) {
  return committed.load(loadHead(p, end), end);
}

std::ostream& operator<<(std::ostream& os, const Dblock& b) {
  return os << "<seq=" << b.seq << " mbal=" << b.mbal << " bal=" << b.bal << " inp=" << b.inp
            << " chall=" << b.leaderChallengeVersion << " committed=" << b.committed.toString();
}

std::string Dblock::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

bool Dblock::operator==(const Dblock& o) const {
  return seq == o.seq && mbal == o.mbal && bal == o.bal && inp == o.inp &&
         leaderChallengeVersion == o.leaderChallengeVersion && committed == o.committed;
}

// ---- PaxosDblockSummary ----

void PaxosDblockSummary::reset() {
  seq = -1;
  committed = CommittedState();
  mbal = BallotNumber();
  bal = BallotNumber();
  inp.reset();
  leaderChallengeVersion = 0;
}

void PaxosDblockSummary::add(const Dblock& b, int diskId) {
  trace(5, "add(id %d) cur: seq=%d mbal=%s bal=%s, b: seq=%d mbal=%s bal=%s", diskId, seq,
        mbal.toString().c_str(), bal.toString().c_str(), b.seq, b.mbal.toString().c_str(),
        b.bal.toString().c_str());
  bool hasInp = b.inp.type != ProposedUpdate::noUpdate;
  if (b.seq > seq) {
    seq = b.seq;
    committed = b.committed;
    mbal = b.mbal;
    if (hasInp) {
      bal = b.bal;
      inp = b.inp;
    } else {
      bal = BallotNumber();
      inp.reset();
    }
  } else if (b.seq == seq) {
    PD_ASSERT_M(committed == b.committed, "committed == b.committed",
                "commit mismatch disk %d\nc1=%s\nc2=%s", diskId, b.committed.toString().c_str(),
                committed.toString().c_str());
    if (b.mbal > mbal) mbal = b.mbal;
    if (hasInp && b.bal > bal) {
      bal = b.bal;
      inp = b.inp;
    }
  }
  leaderChallengeVersion = std::max(leaderChallengeVersion, b.leaderChallengeVersion);
}

void PaxosDblockSummary::merge(const PaxosDblockSummary& s) {
  if (s.seq > seq) {
    seq = s.seq;
    committed = s.committed;
    mbal = s.mbal;
    bal = s.bal;
    inp = s.inp;
  } else if (s.seq == seq) {
    PD_ASSERT_M(committed == s.committed, "committed == s.committed", "c1=%s\nc2=%s",
                committed.toString().c_str(), s.committed.toString().c_str());
    if (s.mbal > mbal) mbal = s.mbal;
    if (s.bal > bal) {
      bal = s.bal;
      inp = s.inp;
    }
  }
  leaderChallengeVersion = std::max(leaderChallengeVersion, s.leaderChallengeVersion);
}

int PaxosDblockSummary::getSize() const {
  int n = SizeVarUInt(seq, 0) + SizeBallots(mbal, bal) + inp.getSize() +
          SizeVarUInt(leaderChallengeVersion, 0) + committed.getSize();
  trace(7, "PaxosDblockSummary::getSize() returns: %d", n);
  return n;
}

char* PaxosDblockSummary::dump(char* p) const {
  p = DumpVarUInt(p, seq, 0);
  p = DumpBallots(p, mbal, bal);
  p = inp.dump(p);
  p = DumpVarUInt(p, leaderChallengeVersion, 0);
  return committed.dump(p);
}

const char* PaxosDblockSummary::load(const char* p, const char* end) {
  p = LoadVarUInt(p, end, &seq, 0);
  p = LoadBallots(p, end, &mbal, &bal);
  if (p == nullptr) return nullptr;
  p = inp.load(p, end);
  p = LoadVarUInt(p, end, &leaderChallengeVersion, 0);
  return committed.load(p, end);
}

std::string PaxosDblockSummary::toString() const {
  std::ostringstream os;
  os << "<seq=" << seq << " mbal=" << mbal << " bal=" << bal << " inp=" << inp
     << " chal=" << leaderChallengeVersion << " committed=" << committed.toString() << ">";
  return os.str();
}

bool PaxosDblockSummary::operator==(const PaxosDblockSummary& o) const {
  return seq == o.seq && mbal == o.mbal && bal == o.bal && inp == o.inp &&
         leaderChallengeVersion == o.leaderChallengeVersion && committed == o.committed;
}

// ---- PaxosFileData ----

int PaxosFileData::getSize(int fmtVersion) const {
  int n = SizeVarUInt(epoch, 0) + summary.getSize();
  if (fmtVersion > 0) n += SizeVarUInt(slotAssignmentVersion, 0);
  trace(7, "PaxosFileData::getSize() returns: %d", n);
  return n;
}

char* PaxosFileData::dump(char* p, int fmtVersion) const {
  p = DumpVarUInt(p, epoch, 0);
  if (fmtVersion > 0) p = DumpVarUInt(p, slotAssignmentVersion, 0);
  return summary.dump(p);
}

const char* PaxosFileData::load(const char* p, const char* end, int fmtVersion) {
  p = LoadVarUInt(p, end, &epoch, 0);
  if (fmtVersion > 0) p = LoadVarUInt(p, end, &slotAssignmentVersion, 0);
  if (p == nullptr) return nullptr;
  return summary.load(p, end);
}

std::string PaxosFileData::toString() const {
  std::ostringstream os;
  os << "epoch=" << epoch << " saVer=" << slotAssignmentVersion
     << " summary=" << summary.toString();
  return os.str();
}

std::string PaxosFileData::toShortString() const {
  std::ostringstream os;
  os << "<epoch=" << epoch << " seq=" << summary.seq;
  return os.str();
}
