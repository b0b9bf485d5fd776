// The server half of a connection: reading the client's greeting, answering it,
// and a Connection for an accepted socket whose receive runs the authentication
// exchange between the header and the body of the first message that needs it.
#ifndef ZEL_KXSERVE_H
#define ZEL_KXSERVE_H

#include <string>

#include "zel/kxcomm.h"

// Records a client greeting may carry are small; anything longer is refused.
constexpr unsigned int kMaxClientGreetingRecord = 4096;
constexpr int kMaxClientGreetingRecords = 16;

// What a client's greeting carried.
struct ClientGreeting {
  int version = 0;                   // record 9; 0 when absent
  unsigned long long clusterId = 0;  // record 9
  bool hasRecord6 = false;
  int keyGenNumber = -1;  // record 6; -1 when absent
  std::string clusterName;
};

// Reads the 28 fixed bytes and the record chain. 143 for a wrong magic, 130 for
// a record length outside 8..kMaxClientGreetingRecord or too many records, or
// the transfer's error.
int kxReadClientGreeting(int sock, int timeoutMs, ClientGreeting* g);
// Decodes greeting bytes already in memory; the same errors, 144 when they end early.
int kxParseClientGreeting(const char* p, const char* end, ClientGreeting* g);

// The answer: 20 bytes (magic, status, 0, first record length, 0), then record 6
// (key generation and cluster name) when security is on, then record 9
// (protocol version and cluster id).
struct GreetingAnswer {
  unsigned int status = 0;  // non-zero rejects the connection
  unsigned long long clusterId = 0;
  bool security = false;
  int keyGenNumber = -1;
  std::string clusterName;
};
std::string kxGreetingAnswerBytes(const GreetingAnswer& a);

using KxAuthIncomingFn = int (*)(int sock, const SdrSecInfo& info);

// A connection accepted by a server. receive() waits idleMs for a header (the
// pause between requests) and ioMs for each piece of a body; send() waits ioMs.
// With auth set, the first message of a type that needs authentication runs it
// between header and body (again after setFirstMessage, as after "eor").
class ServerConnection : public Connection {
 public:
  ServerConnection(int sock, const SdrSecInfo& info, const CommAddr& peer, KxAuthIncomingFn auth,
                   int idleMs, int ioMs);
  ~ServerConnection() override;
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  int send(int type, const char* body, int length) override;
  // 818 for a body over ZEL_MAX_BODY_LENGTH (the body is not read). When the
  // authentication parameters are missing (720) the body is read and dropped and
  // the connection stays usable for the refusal.
  int receive(int* type, MsgBody* body) override;
  using Connection::receive;
  void close() override;
  // Hands the socket back to the caller, who closes it.
  int release() {
    int s = sock_;
    sock_ = -1;
    return s;
  }
  int getSock() const override { return sock_; }
  unsigned long long getClusterId() const override { return info_.peerClusterId; }
  int getZelVersion() const override { return info_.peerVersion; }
  const CommAddr& getPeer() const override { return peer_; }
  bool isBroken() const override { return broken_; }
  void setBroken() override { broken_ = true; }
  bool isAuthenticated() const override { return authenticated_; }
  void setFirstMessage() override { firstMsg_ = true; }
  // Send waits use sendMs, body waits recvMs; negative keeps a value.
  void setTimeouts(int sendMs, int recvMs) override {
    if (sendMs >= 0) ioMs_ = sendMs;
    if (recvMs >= 0) ioMs_ = recvMs;
  }
  // The cluster check is the greeting's, made before this connection exists.
  void setClientClusterId(unsigned long long) override {}

 private:
  int skipBody(unsigned int len);

  CommAddr peer_;
  int sock_;
  SdrSecInfo info_;
  KxAuthIncomingFn auth_;
  int idleMs_, ioMs_;
  bool firstMsg_ = true;
  bool broken_ = false;
  bool authenticated_ = false;
};

#endif  // ZEL_KXSERVE_H
