// One connection to a repository server: socket transfer with time-outs,
// message framing, the connection greeting and the generic reply handling.
// Opening connections by address or node id is zel/kxconnect.h.
//
// Bodies handed out by receive are new char[length] arrays owned by the caller
// (delete[]); with no body they are null and the length 0.
#ifndef ZEL_KXCOMM_H
#define ZEL_KXCOMM_H

#include <cstdio>
#include <string>

#include "zel/kxcomm_addr.h"

constexpr int DefaultSendTimeoutMS = 60000;
constexpr int DefaultRecvTimeoutMS = 120000;
constexpr int kDefaultConnectTimeoutMS = 10000;
constexpr int kSockRecvBufBytes = 1048576;
// Longest greeting-answer record that is accepted.
constexpr unsigned int kMaxGreetingRecord = 16778240;
constexpr unsigned int kGreetingMagic = 0xF3689038;
constexpr int kZelProtocolVersion = 101;

// Per-wait time-outs of message transfers; tests shorten them. Negative keeps a value.
void KxSetTransferTimeouts(int sendMs, int recvMs);

// Authentication seam: the security unit installs it; until then authentication is off.
using KxAuthFn = int (*)(int sock, const SdrSecInfo& info);
struct KxSecurity {
  bool ready = false;       // authentication in force: greeting carries record type 6,
                            // first message of a type needing auth runs authenticateOutgoing
  int keyGenNumber = -1;    // sent in record 6
  std::string clusterName;  // sent in record 6
  KxAuthFn authenticateOutgoing = nullptr;
};
void SetKxSecurity(const KxSecurity& s);
const KxSecurity& GetKxSecurity();

class Connection {
 public:
  virtual ~Connection() {}
  virtual int send(int type, const char* body, int length) = 0;
  // On return *type is set as soon as a header was read, even on error.
  virtual int receive(int* type, char** body, int* length) = 0;
  virtual void close() = 0;
  virtual int getSock() const = 0;
  virtual unsigned long long getClusterId() const = 0;
  virtual int getZelVersion() const = 0;
  // Bookkeeping used by the connection cache.
  virtual const CommAddr& getPeer() const = 0;
  virtual bool isBroken() const = 0;
  virtual void setBroken() = 0;
  virtual bool isAuthenticated() const = 0;
  // Makes the next message count as the first one again.
  virtual void setFirstMessage() = 0;
  // Per-wait time-outs of this connection's transfers (a node talking to another
  // node waits far less than a client); negative keeps the process-wide value.
  virtual void setTimeouts(int sendMs, int recvMs) = 0;
};

class ConnImplementation : public Connection {
 public:
  ConnImplementation(int sock, const SdrSecInfo& info, const CommAddr& peer);
  ~ConnImplementation() override;
  ConnImplementation(const ConnImplementation&) = delete;
  ConnImplementation& operator=(const ConnImplementation&) = delete;

  int send(int type, const char* body, int length) override;
  int receive(int* type, char** body, int* length) override;
  void close() override;
  int getSock() const override { return sock_; }
  unsigned long long getClusterId() const override { return secInfo_.peerClusterId; }
  int getZelVersion() const override { return secInfo_.peerVersion; }
  const CommAddr& getPeer() const override { return peer_; }
  bool isBroken() const override { return broken_; }
  void setBroken() override { broken_ = true; }
  bool isAuthenticated() const override { return authenticated_; }
  void setFirstMessage() override { firstMsg_ = true; }
  void setTimeouts(int sendMs, int recvMs) override {
    sendMs_ = sendMs;
    recvMs_ = recvMs;
  }
  const SdrSecInfo& secInfo() const { return secInfo_; }

 private:
  CommAddr peer_;
  bool firstMsg_ = true;
  bool broken_ = false;
  bool authenticated_ = false;
  int sock_;
  SdrSecInfo secInfo_;
  int sendMs_ = -1;
  int recvMs_ = -1;
};

// Socket transfers that loop until the whole buffer has moved, waiting up to
// timeoutMs before each piece. 144 when the peer closed, ETIMEDOUT on a time-out.
int kxFullSend(int sock, const char* buf, size_t len, int timeoutMs);
int kxFullRecv(int sock, char* buf, size_t len, int timeoutMs);

// Receives one reply, forwarding "reply_stdout"/"reply_sdterr" bodies in order.
// A "failed" reply's result is its error code (no body); 818 when it is malformed.
int ReceiveErrCheck(Connection* conn, int* type, char** body, int* length);
// Where forwarded text goes (nullptr restores stdout/stderr); for tests and tools.
void KxSetForwardStreams(FILE* out, FILE* err);

// The greeting of a connected socket: sends it and reads the answer into *info
// (previous contents replaced). 143 bad magic, 129 rejected, 130 record too long.
int kxSendGreeting(int sock, int timeoutMs, SdrSecInfo* info);
int kxReadGreetingAnswer(int sock, int timeoutMs, SdrSecInfo* info);
// The greeting bytes this client sends.
std::string kxGreetingBytes();

// Connects a socket made by the caller: non-blocking connect through the connect
// seam, no-delay, then the greeting.
int kxConnectSocket(int sock, const CommAddr& addr, int timeoutMs, SdrSecInfo* info);

// A connection for an accepted socket; the peer address comes from the socket.
int wrapSocket(int sock, const SdrSecInfo& info, Connection** out);

// Simulated network cut: only ownAddr and localHostAddr (address bytes) stay reachable.
void SetSimulateNetworkDisconnectAddrs(bool on, const CommAddr& ownAddr,
                                       const CommAddr& localHostAddr);
bool GetSimulateNetworkDisconnect();
// Whether the simulated cut keeps addr out of reach.
bool SimulatedUnreachable(const IpAddr& addr);

#endif  // ZEL_KXCOMM_H
