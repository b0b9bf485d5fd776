// Tests on real connections: a fixture that returns the connection layer's
// process state (caches, seams, cluster id, time-outs) to its defaults around
// each test, and helpers for one connection and one receive.
#ifndef TESTS_SUPPORT_WIRETEST_H
#define TESTS_SUPPORT_WIRETEST_H

#include <gtest/gtest.h>

#include <string>

#include "platform/psock.h"
#include "support/fakeserver.h"
#include "zel/cachedcomm.h"
#include "zel/kxconnect.h"
#include "zel/zelfiles.h"

class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Reset();
    KxSetTransferTimeouts(5000, 5000);
  }
  void TearDown() override {
    Reset();
    KxSetTransferTimeouts(DefaultSendTimeoutMS, DefaultRecvTimeoutMS);
  }
  static void Reset() {
    outConnectionCache.clear();
    inConnectionCache.clear();
    useCachedConnections = true;
    zelClusterId = 0;
    SetKxSecurity(KxSecurity());
    PlatSetConnectFn(nullptr);
    SetSimulateNetworkDisconnectAddrs(false, CommAddr(), CommAddr());
    KxSetForwardStreams(nullptr, nullptr);
  }
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
  char* body = nullptr;
  g.rc = errCheck ? ReceiveErrCheck(c, &g.type, &body, &g.len) : c->receive(&g.type, &body, &g.len);
  g.nullBody = body == nullptr;
  if (body != nullptr && g.len > 0) g.body.assign(body, static_cast<size_t>(g.len));
  delete[] body;
  return g;
}

// SendReceive by address: the reply's type, or the error as a negative number.
inline int Request(const FakeServer& srv, int type, const std::string& body, int ms = 3000) {
  int rtype = 0, len = 0;
  char* rbody = nullptr;
  int rc = SendReceive(srv.addr(), type, body.data(), static_cast<int>(body.size()), &rtype, &rbody,
                       &len, ms);
  delete[] rbody;
  return rc == 0 ? rtype : -rc;
}

#endif  // TESTS_SUPPORT_WIRETEST_H
