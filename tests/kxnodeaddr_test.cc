#include <gtest/gtest.h>

#include <string>

#include "support/wiretest.h"
#include "zel/kxcomm.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"

namespace {

// Node 1 is a fake server on 127.0.0.1, node 3 one on ::1, node 2 does not resolve.
class NodeAddrTest : public WireTest {
 protected:
  NodeAddrTest() : v6_(V6()) {}
  static FakeServer::Options V6() {
    FakeServer::Options o;
    o.ipv6 = true;
    return o;
  }
  void SetUp() override {
    WireTest::SetUp();
    ResetZELIOForTest();
    Nodes nodes = {Node(1, "four", NodeLocation("127.0.0.1", v4_.port())),
                   Node(3, "six", NodeLocation("::1", v6_.port()))};
    ASSERT_EQ(SetNodeList(nodes, false), 0);
    // A list file may name a host that stopped resolving since it was read.
    GetNodeMap()[2] = NodeLocation("nohost.invalid", 1191);
  }
  void TearDown() override {
    setSimulateNetworkDisconnect(false);
    ResetZELIOForTest();
    WireTest::TearDown();
  }
  // Connects to the node and closes the connection again.
  int Reach(int nodeId) {
    Connection* c = nullptr;
    int rc = connectTo(nodeId, &c, 2000);
    EXPECT_EQ(rc == 0, c != nullptr);
    delete c;
    return rc;
  }

  FakeServer v4_;
  FakeServer v6_;
};

TEST_F(NodeAddrTest, ByNodeIdAndSimulatedDisconnect) {
  v4_.expect(MSG_TYPE_STATUS, "q").reply(MSG_TYPE_OK, "answer");
  int type = -5, len = 0;
  char* body = nullptr;
  ASSERT_EQ(SendReceive(1, MSG_TYPE_STATUS, "q", 1, &type, &body, &len, 2000), 0);
  EXPECT_EQ(std::string(body, static_cast<size_t>(len)), "answer");
  delete[] body;
  EXPECT_EQ(SendReceive(9, MSG_TYPE_STATUS, "q", 1, &type, &body, &len, 2000), E_INVAL);
  EXPECT_EQ(Reach(9), E_INVAL);
  EXPECT_NE(Reach(2), 0);
  EXPECT_EQ(Reach(3), 0);

  // A disconnected node still reaches its own address and localhost.
  zelPort = 1191;
  zelAddr = "127.0.0.1";
  setSimulateNetworkDisconnect(true);
  EXPECT_EQ(Reach(1), 0);     // own address and localhost
  EXPECT_EQ(Reach(3), E_IO);  // ::1 is neither
  zelAddr = "::1";
  setSimulateNetworkDisconnect(true);
  EXPECT_EQ(Reach(3), 0);  // now the own address
  EXPECT_EQ(Reach(1), 0);  // still localhost
}

}  // namespace
