#include "support/zeldharness.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/psock.h"
#include "zel/paxosinit.h"
#include "zel/zelmsg.h"

ZeldHarness::ZeldHarness(const std::string& dir, MemReplicaFactory factory, int ioMs)
    : factory_(factory) {
  if (dir.empty()) {
    tmp_.reset(new TempDir);
    dir_ = tmp_->path();
  } else {
    dir_ = dir;
  }
  setenv("ZEL_BASE", dir_.c_str(), 1);
  zeld::ServerOptions o;
  o.testInstall = true;
  o.port = 0;
  o.greetingMs = o.ioMs = o.idleMs = ioMs;
  g_.reset(new zeld::Globals(o, factory_.factory()));
  if (g_->init() != 0) return;
  started_ = true;
  thread_ = std::thread([this] { g_->run(); });
}

ZeldHarness::~ZeldHarness() {
  stop();
}

void ZeldHarness::stop() {
  if (!started_) return;
  g_->stop();
  thread_.join();
  started_ = false;
}

std::unique_ptr<ConnImplementation> ZeldHarness::connect(unsigned long long clusterId) const {
  CommAddr a;
  IpAddr::parse("127.0.0.1", &a.addr);
  a.port = port();
  int sock = -1;
  if (PlatSocket(AF_INET, SOCK_STREAM, &sock) != 0) return nullptr;
  SdrSecInfo info;
  if (kxConnectSocket(sock, a, 2000, clusterId, &info) != 0) {
    close(sock);
    return nullptr;
  }
  return std::unique_ptr<ConnImplementation>(new ConnImplementation(sock, info, a, clusterId));
}

int ZeldHarness::init(unsigned long long clusterId) {
  InitRequest r;
  r.clusterId = clusterId;
  r.nodes = {{1, false, "n1", "127.0.0.1", port()}};
  r.block.committed.config = PaxosConfig(NodeList{{1, 0, 0, true}}, DiskList{}, 1);
  std::string b(static_cast<size_t>(r.getSize()), '\0');
  r.dump(&b[0]);
  auto c = connect();
  if (!c) return -1;
  return Exchange(c.get(), MSG_TYPE_INIT, b).rc;
}

Reply ReceiveReply(Connection* c) {
  Reply r;
  MsgBody body;
  r.rc = ReceiveErrCheck(c, &r.type, &body);
  if (!body.empty()) r.body.assign(body.data(), body.size());
  return r;
}

Reply Exchange(Connection* c, int type, const std::string& body) {
  Reply r;
  r.rc = c->send(type, body.data(), static_cast<int>(body.size()));
  if (r.rc != 0) return r;
  return ReceiveReply(c);
}
