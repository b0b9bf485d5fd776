// A scripted fake repository server for tests. It listens on 127.0.0.1 (or ::1)
// on an ephemeral port, serves each connection on a thread of its own (so a
// connection held open never delays the next one's greeting, however loaded
// the machine), answers the greeting, and works through one first-in-first-out
// script shared by all connections: each step
// expects one request and then runs its actions. "eor" requests are answered by
// the server itself unless a step expects "eor". Every message is recorded. At
// destruction it waits briefly for the script to be used up, then fails the test
// if a step is left or anything unexpected came (a mismatch consumes the step and
// closes the connection).
//
//   FakeServer srv;
//   srv.expect(MSG_TYPE_VGET, "name").reply(REPLY_TYPE_STDOUT, "hi\n").reply(50, body);
//   srv.expect(MSG_TYPE_FPUT).reply(REPLY_TYPE_UID_FPUT, uid).receiveFile();
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

struct FakeMsg {
  int type = 0;
  std::string body;
};

// What a client's greeting carried.
struct FakeGreeting {
  std::string raw, clusterName;
  int version = 0, keyGenNumber = -1;
  unsigned long long clusterId = 0;
  bool hasRecord6 = false;
};

// A file received with receiveFile(); crcOk: its "fcrc" matched the data.
struct FakeFile {
  std::string data;
  bool crcOk = false;
};

class FakeServer {
 public:
  struct Options {
    bool ipv6 = false;                         // listen on ::1
    unsigned long long clusterId = 0;          // answer record 9
    int version = 101;                         // answer record 9
    unsigned int status = 0;                   // non-zero: reject the connection
    bool record6 = false;                      // answer with record 6
    int keyGenNumber = 1;                      // in record 6
    std::string clusterName = "fake.cluster";  // in record 6
    // Records (type, payload) chained in before record 6/9.
    std::vector<std::pair<unsigned int, std::string>> extraRecords;
    std::string rawAnswer;  // non-empty: sent instead of the built answer, then closed
    // Run between the header and the body of a connection's first message that
    // needs authentication; non-zero closes the connection. After an "eor"
    // exchange the next message counts as a first one again.
    int (*authenticateIncoming)(int sock) = nullptr;
    int drainMs = 3000;  // how long teardown waits for the script to finish
  };

  FakeServer() : FakeServer(Options()) {}
  explicit FakeServer(const Options& o);
  ~FakeServer();
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  int port() const { return port_; }
  CommAddr addr() const;
  std::string hostPort() const;  // "127.0.0.1:port" or "[::1]:port"

  // A script step: one message expected (and its body, when given).
  FakeServer& expect(int type) { return addStep(type, false, ""); }
  FakeServer& expect(int type, const std::string& body) { return addStep(type, true, body); }

  // Actions, appended to the last step.
  FakeServer& reply(int type, const std::string& body = std::string());
  FakeServer& replyFailed(int code);  // a "failed" reply carrying code
  FakeServer& raw(const std::string& bytes) { return addAction(kRaw, bytes, 0); }
  // A header announcing len bytes, and no body.
  FakeServer& header(int type, unsigned int len) { return raw(header8(type, len)); }
  // Announces body.size(), sends the first keep bytes, then closes.
  FakeServer& truncated(int type, const std::string& body, size_t keep);
  FakeServer& closeConn() { return addAction(kClose, "", 0); }
  // Sends bytes one at a time, gapMs apart.
  FakeServer& trickle(const std::string& bytes, int gapMs) {
    return addAction(kTrickle, bytes, gapMs);
  }
  FakeServer& stall(int ms) { return addAction(kStall, "", ms); }
  // Reads "fdata" messages up to one "fcrc" and stores the file.
  FakeServer& receiveFile() { return addAction(kRecvFile, "", 0); }
  // Reads "fdata" messages until the client closes the connection (no "fcrc"
  // expected) and stores what came, with crcOk false.
  FakeServer& receiveCutFile() { return addAction(kRecvCut, "", 0); }
  // Sends data as "fdata" chunks and an "fcrc" whose CRC is XORed with crcXor.
  FakeServer& sendFile(const std::string& data, unsigned int crcXor = 0, size_t chunk = 1048576);

  // Inspection (thread-safe copies).
  std::vector<FakeMsg> messages() const { return copyOf(msgs_); }
  std::vector<FakeMsg> messagesOfType(int type) const;
  std::vector<FakeGreeting> greetings() const { return copyOf(greetings_); }
  std::vector<FakeFile> files() const { return copyOf(files_); }
  int connections() const { return nConns_.load(); }
  // Waits up to ms for the script to be used up (and its actions run).
  bool waitDone(int ms) const;

  static std::string failedBody(int code);  // VarUInt, bias -1
  static std::string header8(int type, unsigned int len);

 private:
  enum Kind { kRaw, kClose, kStall, kRecvFile, kTrickle, kRecvCut };
  struct Action {
    Kind kind;
    std::string bytes;
    int ms;
  };
  struct Step {
    int type;
    bool matchBody;
    std::string body;
    std::vector<Action> actions;
  };
  struct ConnState {
    bool first = true, authenticated = false;
  };

  template <class T>
  std::vector<T> copyOf(const std::vector<T>& v) const {
    std::lock_guard<std::mutex> g(mu_);
    return v;
  }
  FakeServer& addStep(int type, bool matchBody, const std::string& body);
  FakeServer& addAction(Kind kind, const std::string& bytes, int ms);
  void run();
  void serveConn(int fd);
  bool readGreeting(int fd);
  bool sendAnswer(int fd);
  bool runActions(int fd, const std::vector<Action>& acts);
  bool recvMsg(int fd, ConnState* st, int* type, std::string* body);
  bool io(int fd, char* buf, size_t len, bool out);
  bool sendAll(int fd, const std::string& s) {
    return io(fd, const_cast<char*>(s.data()), s.size(), true);
  }
  void fail(const std::string& what);
  void finishStep();

  Options opt_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> nConns_{0};
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::deque<Step> script_;
  int busy_ = 0;  // steps whose actions are running
  std::vector<FakeMsg> msgs_;
  std::vector<FakeGreeting> greetings_;
  std::vector<FakeFile> files_;
  std::vector<std::string> errors_;
  std::thread thread_;
  std::vector<std::thread> connThreads_;  // accept thread only
};

#endif  // TESTS_SUPPORT_FAKESERVER_H
