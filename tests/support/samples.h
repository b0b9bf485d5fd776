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

#endif  // TESTS_SUPPORT_SAMPLES_H
