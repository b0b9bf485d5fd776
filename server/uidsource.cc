#include "server/uidsource.h"

#include <climits>
#include <cstdlib>

#include "platform/pfileio.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace zeld {

namespace {

int maxSeqOf(const CommittedState& s) {
  int m = s.updateHorizon;
  for (const auto& [stream, seq] : s.updateList) m = seq > m ? seq : m;
  return m;
}

}  // namespace

int UidSource::open(int nodeId, const CommittedState& s) {
  std::lock_guard<std::mutex> g(mu_);
  node_ = nodeId;
  std::string data;
  int rc = PlatReadFile(path_, &data);
  int stored = 0;
  if (rc == 0) {
    char* end = nullptr;
    long v = strtol(data.c_str(), &end, 10);
    if (data.empty() || (*end != '\n' && *end != '\0') || v < 0 || v > INT_MAX - 2 * kEpochBlock)
      return E_BAD_PAXOS_DATA;
    stored = static_cast<int>(v);
  } else if (rc != ENOENT) {
    return rc;
  }
  int latest = s.getLatestEpoch(nodeId);
  nextEpoch_ = (stored > latest ? stored : latest) + 1;
  epochLimit_ = nextEpoch_ - 1;
  int m = maxSeqOf(s);
  seq_ = m > seq_ ? m : seq_;
  mainEpoch_ = 0;
  return takeEpochLocked(&mainEpoch_);
}

int UidSource::takeEpochLocked(int* epoch) {
  if (nextEpoch_ > epochLimit_) {
    if (nextEpoch_ > INT_MAX - kEpochBlock) return ERANGE;
    int limit = nextEpoch_ + kEpochBlock - 1;
    int rc = PlatWriteFileDurably(path_, std::to_string(limit) + "\n");
    if (rc != 0) {
      trace(1, "storing epoch block in '%s' failed (err %d)", path_.c_str(), rc);
      return rc;
    }
    epochLimit_ = limit;
  }
  *epoch = nextEpoch_++;
  return 0;
}

int UidSource::nextSeqLocked() {
  if (seq_ == INT_MAX) return ERANGE;
  ++seq_;
  return 0;
}

int UidSource::nextMain(UpdateId* uid) {
  std::lock_guard<std::mutex> g(mu_);
  int rc = nextSeqLocked();
  if (rc != 0) return rc;
  *uid = UpdateId(node_, mainEpoch_, seq_);
  return 0;
}

int UidSource::newStream(UpdateId* uid) {
  std::lock_guard<std::mutex> g(mu_);
  int epoch = 0;
  int rc = takeEpochLocked(&epoch);
  if (rc == 0) rc = nextSeqLocked();
  if (rc != 0) return rc;
  *uid = UpdateId(node_, epoch, seq_);
  return 0;
}

int UidSource::retireMain() {
  std::lock_guard<std::mutex> g(mu_);
  return takeEpochLocked(&mainEpoch_);
}

void UidSource::observe(const CommittedState& s) {
  std::lock_guard<std::mutex> g(mu_);
  int m = maxSeqOf(s);
  if (m > seq_) seq_ = m;
}

}  // namespace zeld
