// A small committed state with one entry of every kind, shared by the tests.
#ifndef TESTS_SUPPORT_SAMPLES_H
#define TESTS_SUPPORT_SAMPLES_H

#include "zel/paxosdata.h"

inline CommittedState SampleState() {
  CommittedState s;
  s.config.nodes = {NodeDescriptor{1, 0, 0, true}};
  s.config.disks = {7};
  s.config.minNodes = 1;
  s.cfgVersion = 3;
  s.leaderId = 1;
  s.leaderLeaseMS = 5000;
  s.leaderVersion = 2;
  s.updateList[UpdateStream{1, 2}] = 3;
  s.valueList["a"] = ValueVersion{4, "x"};
  s.fileList[5] = FileVersion(6, UpdateId(1, 2, 3), 0xDEADBEEF);
  s.maxDeletedFileVersion = 1;
  return s;
}

// Nodes 1..n, node i in slot i - 1, with disks 0..disks - 1 and minNodes 1.
inline CommittedState NodesState(int n, int disks = 0) {
  CommittedState s;
  for (int i = 0; i < n; i++) s.config.nodes.push_back(NodeDescriptor{i + 1, i, 0, true});
  for (int j = 0; j < disks; j++) s.config.disks.push_back(j);
  s.config.minNodes = 1;
  return s;
}

#endif  // TESTS_SUPPORT_SAMPLES_H
