// Tests on real connections: a fixture that starts and ends each test from a
// fresh process state, with short transfer time-outs, and helpers for one
// connection and one receive.
#ifndef TESTS_SUPPORT_WIRETEST_H
#define TESTS_SUPPORT_WIRETEST_H

#include <gtest/gtest.h>

#include <string>

#include "platform/psock.h"
#include "support/fakeserver.h"
#include "zel/cachedcomm.h"
#include "zel/kxconnect.h"
#include "zel/zelglobals.h"

class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetProcessState();
    KxSetTransferTimeouts(5000, 5000);
  }
  void TearDown() override { ResetProcessState(); }
};

// A connection the test owns.
struct Conn {
  Connection* c = nullptr;
  ~Conn() { delete c; }
};

// Connects k to srv and sends one message.
inline void OpenAndSend(const FakeServer& srv, Conn* k, int type, const std::string& body) {
  ASSERT_EQ(connectTo(srv.addr(), &k->c, 2000), 0);
  const char* p = body.empty() ? nullptr : body.data();
  ASSERT_EQ(k->c->send(type, p, static_cast<int>(body.size())), 0);
}

// One receive (or ReceiveErrCheck), the body copied out and freed.
struct Got {
  int rc = -99, type = -99, len = -99;
  bool nullBody = false;
  std::string body;
};
inline Got Receive(Connection* c, bool errCheck = false) {
  Got g;
  MsgBody body;
  g.rc = errCheck ? ReceiveErrCheck(c, &g.type, &body) : c->receive(&g.type, &body);
  g.len = body.size();
  g.nullBody = body.data() == nullptr;
  if (!body.empty()) g.body.assign(body.data(), static_cast<size_t>(body.size()));
  return g;
}

// SendReceive by address: the reply's type, or the error as a negative number.
inline int Request(const FakeServer& srv, int type, const std::string& body, int ms = 3000) {
  int rtype = 0;
  MsgBody rbody;
  int rc =
      SendReceive(srv.addr(), type, body.data(), static_cast<int>(body.size()), &rtype, &rbody, ms);
  return rc == 0 ? rtype : -rc;
}

#endif  // TESTS_SUPPORT_WIRETEST_H
