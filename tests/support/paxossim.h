// A seeded scheduler for the agreement engine: several PaxosCore nodes over
// in-memory disks, with messages lost, delayed, reordered and duplicated, and
// nodes crashed (memory lost, store kept) and restarted. Every run checks that
// no two nodes decide different inputs or reach different states for one seq,
// that every update acknowledged is in every later state, the cores'
// invariants, and that after the faults stop every request ends and the nodes
// of the final configuration agree. Configuration changes add nodes (their
// store initialised from the state, as chnodes does) into freed slots.
#ifndef TESTS_SUPPORT_PAXOSSIM_H
#define TESTS_SUPPORT_PAXOSSIM_H

#include <string>

struct SimConfig {
  unsigned seed = 1;
  int nodes = 3;
  int tiebreakers = 0;
  int minNodes = 1;
  double loseRequest = 0.05;
  double loseReply = 0.05;
  double duplicate = 0.05;
  long long maxDelayMs = 20;
  int crashes = 0;
  int configChanges = 0;  // each removes a node or adds a new one in the freed slot
  int updatesPerNode = 8;
  long long faultyMs = 20000;  // faults and submissions happen before this
  long long healMs = 20000;    // then this long without faults to finish
};

struct SimResult {
  std::string error;  // "" when every check held
  int decided = 0;    // instances decided
  int acknowledged = 0;
  int refused = 0;
};

SimResult RunPaxosSim(const SimConfig& cfg);

#endif  // TESTS_SUPPORT_PAXOSSIM_H
