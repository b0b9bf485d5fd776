// The engine under a seeded scheduler: many seeds per shape, each a full run
// with faults then a quiet period; the seed is printed on failure.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/paxossim.h"

namespace {

struct Shape {
  const char* name;
  int nodes, tiebreakers, minNodes, crashes, configChanges;
  double lose, dup;
  int seeds;
};

const Shape kShapes[] = {
    {"one node", 1, 0, 1, 0, 0, 0.0, 0.0, 5},
    {"one node, crashes", 1, 0, 1, 4, 0, 0.0, 0.0, 10},
    {"three nodes, clean", 3, 0, 1, 0, 0, 0.0, 0.0, 10},
    {"three nodes, lossy", 3, 0, 1, 0, 0, 0.1, 0.1, 20},
    {"three nodes, lossy, crashes", 3, 0, 1, 6, 0, 0.1, 0.1, 30},
    {"five nodes, lossy, crashes", 5, 0, 1, 8, 0, 0.15, 0.1, 15},
    {"two nodes and a tiebreaker", 2, 1, 1, 6, 0, 0.1, 0.1, 20},
    {"three nodes, three tiebreakers", 3, 3, 1, 6, 0, 0.1, 0.1, 15},
    {"three nodes, membership changes", 3, 0, 1, 0, 6, 0.1, 0.1, 20},
    {"three nodes, membership changes, crashes", 3, 0, 1, 4, 6, 0.1, 0.1, 20},
    {"two nodes and a tiebreaker, membership changes", 2, 1, 1, 4, 4, 0.1, 0.1, 15},
};

// The sanitizers slow each run several times over; fewer seeds keep that build
// within its time-out while the plain build runs them all.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kSeedDivisor = 4;
#else
constexpr int kSeedDivisor = 1;
#endif

TEST(PaxosSim, EveryShapeKeepsAgreementAndFinishes) {
  for (const Shape& shape : kShapes) {
    Shape s = shape;
    s.seeds = std::max(1, s.seeds / kSeedDivisor);
    int decided = 0, acked = 0;
    for (int k = 0; k < s.seeds; k++) {
      SimConfig c;
      c.seed = 1000 + k * 7919;
      c.nodes = s.nodes;
      c.tiebreakers = s.tiebreakers;
      c.minNodes = s.minNodes;
      c.crashes = s.crashes;
      c.configChanges = s.configChanges;
      c.loseRequest = c.loseReply = s.lose;
      c.duplicate = s.dup;
      SimResult r = RunPaxosSim(c);
      ASSERT_EQ(r.error, "") << s.name;
      decided += r.decided;
      acked += r.acknowledged;
    }
    // The workload must have exercised agreement, not idled.
    EXPECT_GT(decided, s.seeds * s.nodes * 2) << s.name;
    EXPECT_GT(acked, s.seeds * s.nodes) << s.name;
  }
}

}  // namespace
