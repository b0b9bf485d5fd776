// A scripted fake repository server for tests. It listens on 127.0.0.1 (or ::1)
// on an ephemeral port, accepts connections one after another on its own thread,
// answers the connection greeting, and works through a first-in-first-out script:
// each step expects one request and then runs its actions. "eor" requests are
// answered by the server itself unless a step expects "eor". Every message
// received is recorded. At destruction the server waits briefly for the script to
// be used up, then fails the test if any step is left or anything unexpected came
// (a message that does not match its step consumes the step and closes the
// connection).
//
// Example:
//   FakeServer srv;
//   srv.expect(MSG_TYPE_VGET, "name")            // request type (and body) expected
//       .reply(REPLY_TYPE_STDOUT, "hello\n")     // any sequence of replies
//       .reply(REPLY_TYPE_SEQ_COMMIT, body);
//   srv.expect(MSG_TYPE_FPUT).reply(REPLY_TYPE_UID_FPUT, uid).receiveFile();
//   ... client code against srv.addr() ...
//   EXPECT_EQ(srv.messages()[0].body, "name");
//
// Several instances may run at once (a cluster); all waits are bounded.
#ifndef TESTS_SUPPORT_FAKESERVER_H
#define TESTS_SUPPORT_FAKESERVER_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zel/kxcomm_addr.h"

// One message the server received. conn counts accepted connections from 1.
struct FakeMsg {
  int conn = 0;
  int type = 0;
  std::string body;
};

// What a client's greeting carried.
struct FakeGreeting {
  std::string raw;
  int version = 0;
  unsigned long long clusterId = 0;
  bool hasRecord6 = false;
  int keyGenNumber = -1;
  std::string clusterName;
};

// A file the server received with receiveFile().
struct FakeFile {
  std::string data;
  unsigned int crcSent = 0;
  bool crcOk = false;
};

class FakeServer {
 public:
  struct Options {
    bool ipv6 = false;                         // listen on ::1
    bool greeting = true;                      // false: no greeting exchange at all
    unsigned long long clusterId = 0;          // answer record 9
    int version = 101;                         // answer record 9
    unsigned int status = 0;                   // non-zero: reject the connection
    bool badMagic = false;                     // answer with a wrong magic
    bool record6 = false;                      // answer with record 6
    int keyGenNumber = 1;                      // in record 6
    std::string clusterName = "fake.cluster";  // in record 6
    // Records (type, payload) chained in before record 6/9.
    std::vector<std::pair<unsigned int, std::string>> extraRecords;
    std::string rawAnswer;  // non-empty: sent instead of the built answer
    bool autoEor = true;
    // Run between the header and the body of a connection's first message
    // that needs authentication, once per connection; non-zero closes the
    // connection. After an "eor" exchange the next message counts as a first
    // one again (the client took the connection back from its cache).
    int (*authenticateIncoming)(int sock) = nullptr;
    int drainMs = 3000;  // how long teardown waits for the script to finish
  };

  FakeServer();
  explicit FakeServer(const Options& o);
  ~FakeServer();
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  int port() const { return port_; }
  CommAddr addr() const;
  std::string hostPort() const;  // "127.0.0.1:port" or "[::1]:port"

  // ---- script: a step expects one message ----
  FakeServer& expect(int type);
  FakeServer& expect(int type, const std::string& body);
  FakeServer& expectAny();
  // A step run right after the greeting of the next connection, with no message.
  FakeServer& onConnect();

  // ---- actions, appended to the last step ----
  FakeServer& reply(int type, const std::string& body = std::string());
  // A "failed" reply carrying code (VarUInt, bias -1).
  FakeServer& replyFailed(int code);
  // The body with every byte inverted.
  FakeServer& replyCorrupt(int type, const std::string& body);
  FakeServer& raw(const std::string& bytes);
  // A header announcing len bytes, and no body.
  FakeServer& header(int type, unsigned int len);
  // Announces body.size(), sends the first keep bytes, then closes.
  FakeServer& truncated(int type, const std::string& body, size_t keep);
  FakeServer& closeConn();
  FakeServer& stall(int ms);
  // Reads "fdata" messages up to one "fcrc" and stores the file.
  FakeServer& receiveFile();
  // Sends data as "fdata" chunks and an "fcrc" whose CRC is XORed with crcXor.
  FakeServer& sendFile(const std::string& data, unsigned int crcXor = 0, size_t chunk = 1048576);

  // ---- inspection (thread-safe copies) ----
  std::vector<FakeMsg> messages() const;
  std::vector<FakeMsg> messagesOfType(int type) const;
  std::vector<FakeGreeting> greetings() const;
  std::vector<FakeFile> files() const;
  int connections() const { return nConns_.load(); }
  // Waits up to ms for the script to be used up (and its actions run).
  bool waitDone(int ms) const;

  // Encoders for bodies.
  static std::string failedBody(int code);
  static std::string header8(int type, unsigned int len);

  struct Action {
    enum Kind { kRaw, kClose, kStall, kRecvFile, kSendFile } kind;
    std::string bytes;
    int ms = 0;
    unsigned int crcXor = 0;
    size_t chunk = 0;
  };
  struct Step {
    enum Kind { kExpect, kAny, kConnect } kind;
    int type = 0;
    bool matchBody = false;
    std::string body;
    std::vector<Action> actions;
  };

 private:
  void run();
  void serveConn(int fd, int connNo);
  bool readGreeting(int fd);
  bool sendAnswer(int fd);
  bool runActions(int fd, int connNo, const std::vector<Action>& acts);
  struct ConnState {
    bool first = true;
    bool authenticated = false;
  };
  bool recvMsg(int fd, int connNo, ConnState* st, int* type, std::string* body);
  bool recvAll(int fd, char* buf, size_t len);
  bool sendAll(int fd, const std::string& bytes);
  void fail(const std::string& what);
  Step& lastStep();

  Options opt_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> nConns_{0};
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::deque<Step> script_;
  bool busy_ = false;  // a step's actions are running
  std::vector<FakeMsg> msgs_;
  std::vector<FakeGreeting> greetings_;
  std::vector<FakeFile> files_;
  std::vector<std::string> errors_;
  std::thread thread_;
};

#endif  // TESTS_SUPPORT_FAKESERVER_H
