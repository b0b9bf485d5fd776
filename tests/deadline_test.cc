// ZEL_DEADLINE: its parsing, the waits cut to it, the retry loop giving up when a
// pause would end past it, and a whole command against a server that stalls.
#include <sys/stat.h>

#include <chrono>

#include "gtest/gtest.h"
#include "platform/pclock.h"
#include "support/fakeserver.h"
#include "support/testutil.h"
#include "zel/paxosclient.h"
#include "zel/zeldeadline.h"
#include "zel/zelglobals.h"
#include "zel/zelmsg.h"

namespace {

TEST(Deadline, ParsesSecondsAndRefusesTheRest) {
  struct Case {
    const char* text;
    bool ok;
    long long ms;
  } cases[] = {
      {"1", true, 1000},
      {"0.5", true, 500},
      {"2.25", true, 2250},
      {"0.0001", true, 1},
      {"10000000", true, 10000000000LL},
      {"0", false, 0},
      {"0.0", false, 0},
      {"-1", false, 0},
      {"", false, 0},
      {" 1", false, 0},
      {"1s", false, 0},
      {"abc", false, 0},
      {"inf", false, 0},
      {"nan", false, 0},
      {"1e9", false, 0},
      {"10000001", false, 0},
      {"+1", false, 0},
  };
  for (const Case& c : cases) {
    long long ms = 0;
    EXPECT_EQ(ParseDeadlineSeconds(c.text, &ms), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(ms, c.ms) << c.text;
    }
  }
  long long ms = 0;
  EXPECT_FALSE(ParseDeadlineSeconds(nullptr, &ms));
}

long long fakeNowMs = 0;
long long sleptUs = 0;
long long FakeNow() {
  return fakeNowMs + sleptUs / 1000;
}
void FakeSleep(long long us) {
  sleptUs += us;
}

class DeadlineClock : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetProcessState();
    fakeNowMs = 1000000;
    sleptUs = 0;
    PlatSetNowFn(FakeNow);
    PlatSetSleepFn(FakeSleep);
  }
  void TearDown() override { ResetProcessState(); }
};

TEST_F(DeadlineClock, WaitsEndByTheDeadline) {
  EXPECT_EQ(PlatDeadlineAfter(5000), fakeNowMs + 5000);  // none set
  EXPECT_EQ(PlatCommandTimeLeft(), -1);
  PlatSetCommandDeadline(fakeNowMs + 1500);
  EXPECT_EQ(PlatDeadlineAfter(5000), fakeNowMs + 1500);
  EXPECT_EQ(PlatDeadlineAfter(1000), fakeNowMs + 1000);
  EXPECT_EQ(PlatCommandTimeLeft(), 1500);
  fakeNowMs += 2000;
  EXPECT_EQ(PlatCommandTimeLeft(), 0);
  EXPECT_EQ(PlatDeadlineAfter(5000), fakeNowMs - 500);  // already past: no wait at all
}

TEST_F(DeadlineClock, RetriesStopWhenAPauseWouldEndPastIt) {
  // Attempts made and time slept by one request whose every attempt fails.
  struct Case {
    int servers;
    long long deadlineMs;  // 0: none
    int attempts;
    long long sleptMs;
  } cases[] = {
      {1, 0, 5, 15000},    // five rounds, pauses 1, 2, 4, 8 s
      {1, 3000, 2, 1000},  // the 2 s pause would end at the deadline
      {1, 500, 1, 0},      // not even the first pause fits
      // Thirds of a second, each truncated to whole microseconds.
      {3, 0, 15, 14999},
      {3, 2000, 7, 1666},      // pauses of 1/3 s, then one of 2/3 s
      {2, 100000, 10, 15000},  // far away: unchanged
  };
  for (const Case& c : cases) {
    SetUp();
    serverIds.clear();
    for (int i = 1; i <= c.servers; i++) serverIds.push_back(i);
    if (c.deadlineMs > 0) PlatSetCommandDeadline(FakeNow() + c.deadlineMs);
    ClientRetry r("vget");
    int attempts = 0;
    while (r.nextTry(ECONNREFUSED) && attempts < 100) attempts++;
    EXPECT_EQ(attempts, c.attempts) << c.servers << " servers, deadline " << c.deadlineMs;
    EXPECT_EQ(sleptUs / 1000, c.sleptMs) << c.servers << " servers, deadline " << c.deadlineMs;
  }
}

TEST(DeadlineCommand, EndsAgainstAStalledServer) {
  // The server takes the request and never answers: without a deadline the
  // client would wait its 120 s receive time-out.
  FakeServer::Options o;
  o.drainMs = 8000;
  FakeServer srv(o);
  srv.expect(MSG_TYPE_VGET).stall(2500);
  TempDir dir;
  std::string base = dir.file("repo");
  ASSERT_EQ(mkdir(base.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((base + "/committed").c_str(), 0755), 0);
  WriteFile(base + "/zel.nodes", "1,0,127.0.0.1," + std::to_string(srv.port()) + ",n1\n");

  auto start = std::chrono::steady_clock::now();
  RunResult r =
      RunCommand({KxzelTestBin(), "vget", "x"}, {{"ZEL_BASE", base}, {"ZEL_DEADLINE", "1"}}, 30000);
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exitStatus, 149) << r.err;
  EXPECT_NE(r.err.find("vget failed: err"), std::string::npos) << r.err;
  EXPECT_LT(secs, 1.5);
  EXPECT_GE(secs, 0.9);
  srv.waitDone(8000);
}

TEST(DeadlineCommand, BadValuesAreUsageErrors) {
  for (const char* bad : {"abc", "0", "-3", "1e99"}) {
    RunResult r = RunCommand({KxzelTestBin(), "vget", "x"},
                             {{"ZEL_BASE", "/nonexistent"}, {"ZEL_DEADLINE", bad}}, 10000);
    EXPECT_EQ(r.exitStatus, 1) << bad;
    EXPECT_EQ(r.err, std::string("invalid value '") + bad +
                         "' for ZEL_DEADLINE (seconds above 0, a fraction allowed)\n");
    EXPECT_EQ(r.out.rfind("Usage: ", 0), 0u) << r.out;
  }
}

}  // namespace
