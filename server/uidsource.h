// Update ids this node hands out: one main stream (node, epoch) whose seqs are
// issued strictly increasing and decided in that order, and a stream of its own
// for every fput. Epochs are reserved in blocks whose upper end is made durable
// before any id of the block is handed out, so a restarted node never reuses an
// id. Seqs come from one counter across all streams that starts above every seq
// and horizon of the state: a new stream's first id then lies above the horizon
// it meets when it is issued (see docs/server.md for what remains).
#ifndef SERVER_UIDSOURCE_H
#define SERVER_UIDSOURCE_H

#include <mutex>
#include <string>

#include "zel/paxosdata.h"

namespace zeld {

constexpr int kEpochBlock = 1024;

class UidSource {
 public:
  explicit UidSource(const std::string& epochPath) : path_(epochPath) {}
  // Starts a new epoch block above the stored one and above every epoch of
  // nodeId in s; the block's end is made durable. 214 for a malformed file.
  int open(int nodeId, const CommittedState& s);
  // The next id of the main stream.
  int nextMain(UpdateId* uid);
  // A fresh stream (a new epoch) and its first id.
  int newStream(UpdateId* uid);
  // Moves the main stream to a new epoch: after an id whose outcome is unknown
  // or that was refused, no later id may follow it in its stream.
  int retireMain();
  // Keeps the counter above what the state shows (a restart, another node's ids).
  void observe(const CommittedState& s);

 private:
  int takeEpochLocked(int* epoch);
  int nextSeqLocked();

  std::string path_;
  std::mutex mu_;
  int node_ = 0;
  int nextEpoch_ = 1;   // next epoch to hand out
  int epochLimit_ = 0;  // durable: no epoch below it is ever handed out again
  int mainEpoch_ = 0;
  int seq_ = 0;  // last seq handed out
};

}  // namespace zeld

#endif  // SERVER_UIDSOURCE_H
