// The fake server must fail the test when the client does not do what the
// script says; otherwise tests built on it could pass vacuously.
#include "support/fakeserver.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "zel/kxconnect.h"
#include "zel/zelmsg.h"

namespace {

TEST(FakeServerTest, LeftoverStepFailsAtTeardown) {
  EXPECT_NONFATAL_FAILURE(
      {
        FakeServer::Options o;
        o.drainMs = 50;
        FakeServer srv(o);
        srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
      },
      "script not used up");
}

// Sends a request the script does not expect.
void WrongRequest() {
  KxSetTransferTimeouts(5000, 5000);
  FakeServer::Options o;
  o.drainMs = 50;
  FakeServer srv(o);
  srv.expect(MSG_TYPE_VGET, "right").reply(MSG_TYPE_OK);
  Connection* c = nullptr;
  ASSERT_EQ(connectTo(srv.addr(), &c, 2000), 0);
  c->send(MSG_TYPE_VGET, "wrong", 5);
  int type = 0;
  MsgBody body;
  EXPECT_EQ(c->receive(&type, &body), 144);  // closed instead of answered
  delete c;
}

TEST(FakeServerTest, UnexpectedMessageFailsAndClosesConnection) {
  EXPECT_NONFATAL_FAILURE(WrongRequest(), "unexpected body of 'vget'");
}

}  // namespace
