// One connection to a repository server: socket transfer with time-outs,
// message framing, the connection greeting and the generic reply handling.
// Opening connections by address or node id is zel/kxconnect.h.
//
// Time-outs are deadlines for a whole message (or the whole greeting answer),
// not for each wait: a peer that trickles bytes cannot hold the client longer.
#ifndef ZEL_KXCOMM_H
#define ZEL_KXCOMM_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "zel/kxcomm_addr.h"

constexpr int DefaultSendTimeoutMS = 60000;
constexpr int DefaultRecvTimeoutMS = 120000;
constexpr int kDefaultConnectTimeoutMS = 10000;
constexpr int kSockRecvBufBytes = 1048576;
// Longest greeting-answer record that is accepted.
constexpr unsigned int kMaxGreetingRecord = 16778240;
constexpr unsigned int kGreetingMagic = 0xF3689038;
constexpr int kZelProtocolVersion = 101;

// Time-outs of sending and of receiving one message; tests shorten them.
// Negative keeps a value.
void KxSetTransferTimeouts(int sendMs, int recvMs);

// A received message body: owns its bytes; empty (null data, size 0) when the
// message had none.
class MsgBody {
 public:
  MsgBody() = default;
  MsgBody(MsgBody&& o) noexcept : data_(std::move(o.data_)), size_(o.size_) { o.size_ = 0; }
  MsgBody& operator=(MsgBody&& o) noexcept;
  MsgBody(const MsgBody&) = delete;
  MsgBody& operator=(const MsgBody&) = delete;

  // Replaces the contents with n uninitialised bytes; false (and empty) when
  // memory is short.
  bool allocate(size_t n);
  void reset();
  // Gives up the bytes, a new[] array the caller delete[]s (null when empty).
  char* release();

  char* data() { return data_.get(); }
  const char* data() const { return data_.get(); }
  const char* end() const { return data_.get() + size_; }
  int size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  std::unique_ptr<char[]> data_;
  int size_ = 0;
};

// Authentication seam: the security unit installs it; until then authentication is off.
using KxAuthFn = int (*)(int sock, const SdrSecInfo& info);
struct KxSecurity {
  bool ready = false;       // authentication in force: greeting carries record type 6,
                            // first message of a type needing auth runs authenticateOutgoing
  int keyGenNumber = -1;    // sent in record 6
  std::string clusterName;  // sent in record 6
  KxAuthFn authenticateOutgoing = nullptr;
};
// A copy: a server's "auth" replaces it while connections are greeted.
void SetKxSecurity(const KxSecurity& s);
KxSecurity GetKxSecurity();

class Connection {
 public:
  virtual ~Connection() {}
  virtual int send(int type, const char* body, int length) = 0;
  // On return *type is set as soon as a header was read, even on error; *body
  // is replaced (empty on error or without a body).
  virtual int receive(int* type, MsgBody* body) = 0;
  // The same handing out a new[] array the caller delete[]s (null and 0 without
  // a body), for callers that keep raw buffers.
  int receive(int* type, char** body, int* length);
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
  // The cluster id of this end, compared with the peer's on the first message
  // (0: unknown, no check).
  virtual void setClientClusterId(unsigned long long id) = 0;
};

class ConnImplementation : public Connection {
 public:
  ConnImplementation(int sock, const SdrSecInfo& info, const CommAddr& peer,
                     unsigned long long clientClusterId = 0);
  ~ConnImplementation() override;
  ConnImplementation(const ConnImplementation&) = delete;
  ConnImplementation& operator=(const ConnImplementation&) = delete;

  using Connection::receive;
  int send(int type, const char* body, int length) override;
  int receive(int* type, MsgBody* body) override;
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
  void setClientClusterId(unsigned long long id) override { clientClusterId_ = id; }
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
  unsigned long long clientClusterId_;
};

// Socket transfers that loop until the whole buffer has moved or the deadline
// (PlatNowMs milliseconds) has passed. 144 when the peer closed, ETIMEDOUT on a
// time-out.
int kxSendUntil(int sock, const char* buf, size_t len, long long deadlineMs);
int kxRecvUntil(int sock, char* buf, size_t len, long long deadlineMs);
// The same with a deadline timeoutMs from now.
int kxFullSend(int sock, const char* buf, size_t len, int timeoutMs);
int kxFullRecv(int sock, char* buf, size_t len, int timeoutMs);

// Receives one reply, forwarding "reply_stdout"/"reply_sdterr" bodies in order.
// A "failed" reply's result is its error code (no body); 818 when it is malformed.
int ReceiveErrCheck(Connection* conn, int* type, MsgBody* body);
// Where forwarded text goes (nullptr restores stdout/stderr); for tests and tools.
void KxSetForwardStreams(FILE* out, FILE* err);

// The greeting of a connected socket, carrying this end's cluster id: sends it
// and reads the answer into *info (previous contents replaced). 143 bad magic,
// 129 rejected, 130 record too long.
int kxSendGreeting(int sock, int timeoutMs, unsigned long long clusterId, SdrSecInfo* info);
int kxReadGreetingAnswer(int sock, int timeoutMs, SdrSecInfo* info);
// The greeting bytes this end sends.
std::string kxGreetingBytes(unsigned long long clusterId);

// Connects a socket made by the caller: non-blocking connect through the connect
// seam, no-delay, then the greeting.
int kxConnectSocket(int sock, const CommAddr& addr, int timeoutMs, unsigned long long clusterId,
                    SdrSecInfo* info);

// A connection for an accepted socket; the peer address comes from the socket.
int wrapSocket(int sock, const SdrSecInfo& info, Connection** out);

// Simulated network cut: only ownAddr and localHostAddr (address bytes) stay reachable.
void SetSimulateNetworkDisconnectAddrs(bool on, const CommAddr& ownAddr,
                                       const CommAddr& localHostAddr);
bool GetSimulateNetworkDisconnect();
// Whether the simulated cut keeps addr out of reach.
bool SimulatedUnreachable(const IpAddr& addr);

#endif  // ZEL_KXCOMM_H
