// An in-process zeld for tests of the request service: the real Globals,
// listener and service over a MemReplica, on 127.0.0.1 with an ephemeral port
// and a temporary repository directory; and a client connection made with the
// library's own client half.
#ifndef TESTS_SUPPORT_ZELDHARNESS_H
#define TESTS_SUPPORT_ZELDHARNESS_H

#include <memory>
#include <string>
#include <thread>

#include "server/globals.h"
#include "support/memreplica.h"
#include "support/testutil.h"
#include "zel/kxcomm.h"

class ZeldHarness {
 public:
  // Starts serving; dir is the repository directory (a fresh one when empty).
  explicit ZeldHarness(const std::string& dir = std::string(),
                       MemReplicaFactory factory = MemReplicaFactory(), int ioMs = 2000);
  ~ZeldHarness();
  bool started() const { return started_; }
  int port() const { return g_->port(); }
  const std::string& dir() const { return dir_; }
  zeld::Globals& globals() { return *g_; }
  MemReplicaFactory& factory() { return factory_; }
  MemReplica* replica() const { return *factory_.last; }
  void stop();

  // A connected, greeted client connection of a client of clusterId (null on failure).
  std::unique_ptr<ConnImplementation> connect(unsigned long long clusterId = 0) const;
  // Sends "init" naming this server as node 1 of cluster clusterId.
  int init(unsigned long long clusterId = 77);

 private:
  std::unique_ptr<TempDir> tmp_;
  std::string dir_;
  MemReplicaFactory factory_;
  std::unique_ptr<zeld::Globals> g_;
  std::thread thread_;
  bool started_ = false;
};

// One request and its reply on conn, with the client's generic reply handling.
struct Reply {
  int rc = -1;
  int type = -1;
  std::string body;
};
Reply Exchange(Connection* c, int type, const std::string& body);
Reply ReceiveReply(Connection* c);

#endif  // TESTS_SUPPORT_ZELDHARNESS_H
