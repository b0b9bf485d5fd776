#include <gtest/gtest.h>

#include "zel/kxcomm_addr.h"
#include "zel/zelerr.h"

namespace {

TEST(SplitHostPortTest, Forms) {
  struct {
    const char* text;
    const char* host;
    int port;
  } cases[] = {
      {"[::1]", "::1", 1191},    {"[::1]:1200", "::1", 1200},         {"[::1]x", "::1", 0},
      {"nodeA", "nodeA", 1191},  {"10.1.2.3:99", "10.1.2.3", 99},     {"fe80::1", "fe80:", 1},
      {"hostA:abc", "hostA", 0}, {"[fe80::1]:1300", "fe80::1", 1300},
  };
  for (const auto& c : cases) {
    std::string host;
    int port = -5;
    splitHostPort(c.text, &host, &port);
    EXPECT_EQ(host + ":" + std::to_string(port), c.host + (":" + std::to_string(c.port))) << c.text;
  }
}

TEST(CommAddrTest, ConvertAndText) {
  CommAddr a;
  ASSERT_EQ(convertCommAddr("127.0.0.1", 1191, &a), E_OK);
  EXPECT_TRUE(a.addr.isV4Mapped());
  EXPECT_EQ(a.toString(), "127.0.0.1:1191");
  CommAddr b;
  ASSERT_EQ(convertCommAddr("::1", 7, &b), E_OK);
  EXPECT_EQ(b.toString(), "[::1]:7");
  EXPECT_EQ(convertCommAddr("127.0.0.1", 0, &b), E_INVAL);
  EXPECT_NE(convertCommAddr("no-such-host.invalid", 1191, &b), E_OK);
  ASSERT_EQ(b.fromString("[::1]:1200"), E_OK);
  EXPECT_EQ(b.port, 1200);
}

}  // namespace
