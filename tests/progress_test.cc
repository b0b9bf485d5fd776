// The progress line of fput and fget: its text, when it is wanted, and whole
// transfers through the built command with and without it.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/recordcheck.h"
#include "support/wirebodies.h"
#include "zel/zelmsg.h"
#include "zel/zelprogress.h"

namespace {

TEST(Progress, TextGivesBytesPercentageAndRate) {
  struct Case {
    long long done, total, ms;
    const char* text;
  } cases[] = {
      {4194304, 8388608, 1000, "fput: 4194304 of 8388608 bytes (50%), 4.0 MiB/s"},
      {8388608, 8388608, 500, "fput: 8388608 of 8388608 bytes (100%), 16.0 MiB/s"},
      {0, 8388608, 0, "fput: 0 of 8388608 bytes (0%), 0.0 MiB/s"},
      {1048576, 0, 0, "fput: 1048576 of 0 bytes (100%), 1000.0 MiB/s"},  // no division by 0
      {2147483646, 2147483646, 20000, "fput: 2147483646 of 2147483646 bytes (100%), 102.4 MiB/s"},
  };
  for (const Case& c : cases) EXPECT_EQ(ProgressText("fput", c.done, c.total, c.ms), c.text);
}

TEST(Progress, WantedOnATerminalOrWhenAsked) {
  struct Case {
    const char* env;
    bool tty, wanted;
  } cases[] = {
      {nullptr, false, false}, {nullptr, true, true}, {"1", false, true}, {"1", true, true},
      {"0", true, false},      {"", true, true},      {"", false, false}, {"yes", false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ProgressWanted(c.env, c.tty), c.wanted) << (c.env ? c.env : "unset") << c.tty;
  }
}

class ProgressCliTest : public CliFixture {
 protected:
  void SetUp() override {
    nodes_ = "1,0,127.0.0.1," + std::to_string(srv_.port()) + ",n\n";
    CliFixture::SetUp();
  }
  FakeServer srv_;
};

TEST_F(ProgressCliTest, ShownForLargeTransfersOnlyWhenWanted) {
  CommittedState st;
  st.cfgVersion = 1;
  st.fileList[7] = FileVersion(3, UpdateId(1, 1, 2), 0);
  const std::string commit = Commit(5, st), uid = Encode(UpdateId(1, 1, 3));
  const std::string big(8 << 20, 'x'), small((8 << 20) - 1, 'y');
  const std::string local = dir_.file("local"), got = dir_.file("got");
  struct Case {
    const char* cmd;
    const std::string* data;
    const char* progress;  // ZEL_PROGRESS, or null for unset
    std::string shown;     // the final progress text, or "" for none at all
  } cases[] = {
      {"fput", &big, "1", "fput: 8388608 of 8388608 bytes (100%)"},
      {"fget", &big, "1", "fget: 8388608 of 8388608 bytes (100%)"},
      {"fput", &big, nullptr, ""},
      {"fget", &big, "0", ""},
      {"fput", &small, "1", ""},
      {"fget", &small, "1", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.cmd) + " " + std::to_string(c.data->size()) + " " +
                 (c.progress ? c.progress : "unset"));
    EnvList env;
    if (c.progress != nullptr) env.push_back({"ZEL_PROGRESS", c.progress});
    RunResult r;
    if (std::string(c.cmd) == "fput") {
      WriteFile(local, *c.data);
      srv_.expect(MSG_TYPE_FPUT).reply(REPLY_TYPE_UID_FPUT, uid + "\x01").receiveFile();
      srv_.expect(MSG_TYPE_OK).reply(REPLY_TYPE_SEQ_COMMIT, commit);
      r = Run({"fput", "data", local}, env);
    } else {
      srv_.expect(MSG_TYPE_FGET)
          .reply(REPLY_TYPE_SEQ_COMMIT_FGET, commit + V(7, 0) + V(c.data->size(), 0))
          .sendFile(*c.data);
      r = Run({"fget", "data", got}, env);
    }
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(srv_.waitDone(10000));
    if (c.shown.empty()) {
      EXPECT_EQ(r.err, "");
    } else {
      // Redrawn in place, ending with the whole size and a rate.
      size_t last = r.err.rfind('\r');
      ASSERT_NE(last, std::string::npos) << r.err;
      EXPECT_EQ(r.err.compare(last + 1, c.shown.size(), c.shown), 0) << r.err;
      // (Spaces may blank what a longer earlier text left on the line.)
      EXPECT_TRUE(std::regex_search(r.err, std::regex(" MiB/s *\n$"))) << r.err;
    }
  }
  EXPECT_EQ(ReadFile(got), small);
}

}  // namespace
