// Everything one zeld process holds, built once in order by Globals::init and
// torn down in reverse: options, paths, the lock on the repository directory,
// the file store, the update ids, the repository, the listener. main stays a
// thin shell around it.
#ifndef SERVER_GLOBALS_H
#define SERVER_GLOBALS_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "server/filestore.h"
#include "server/repository.h"
#include "server/uidsource.h"

namespace zeld {

struct ServerOptions {
  bool testInstall = false;  // zeld-testinstall: ZEL_BASE or /tmp/zel[.PORT], test switches
  int port = -1;             // -P; 0 asks for an ephemeral port
  std::string listenAddr;    // -a; default 127.0.0.1 in a test installation, else all
  int verbose = 0;           // -V count, added to ZEL_DEBUG
  int greetingMs = 10000;    // the greeting must arrive within this
  int idleMs = 300000;       // a connection may wait this long between requests
  int ioMs = 30000;          // each wait inside a message or a file transfer
  int maxConnections = 1024;
  // An update or read without a quorum is answered 819 after this.
  int requestMs = 20000;
  std::string crashAt;  // test installation: ZEL_TEST_CRASH_AT, a point of a ballot
  // Test installation only (from the environment): replies to drop after the
  // decision (connection closed instead), and crash points.
  int loseReplies = 0;
  RepoFaults faults;
};

// Port: -P, else ZEL_PORT, else 1191. Options from the environment of a test
// installation: ZEL_TEST_IO_MS, ZEL_TEST_IDLE_MS, ZEL_TEST_LOSE_REPLIES,
// ZEL_TEST_CRASH_BEFORE_LINK, ZEL_TEST_REQUEST_MS, ZEL_TEST_CRASH_AT.
void ApplyEnvironment(ServerOptions* o);

struct ServerPaths {
  std::string base, committed, staging, lock, epoch, fileMap, store, identity, nodes, portFile;
  std::string keyFile, certFile;
};
// /var/kolt/zel for the product; ZEL_BASE, else /tmp/zel for port 1191, else
// /tmp/zel.PORT for a test installation.
ServerPaths PathsFor(bool testInstall, int port, const char* zelBase);

class Globals {
 public:
  explicit Globals(const ServerOptions& o, const ReplicaFactory& factory);
  ~Globals();
  Globals(const Globals&) = delete;
  Globals& operator=(const Globals&) = delete;

  // Start-up up to a listening socket; a message on standard error and non-zero
  // on failure (another zeld on the directory, port in use, bad files).
  int init();
  // Serves until stop() (a signal, "quit"); then closes every connection.
  int run();
  void stop();
  bool stopping() const { return stopping_.load(); }

  const ServerOptions& options() const { return opt_; }
  const ServerPaths& paths() const { return paths_; }
  int port() const { return port_; }
  Repository& repo() { return *repo_; }
  FileStore& files() { return *files_; }
  UidSource& uids() { return *uids_; }
  // "pxinit": every disk file of req through the engine's initDisk.
  int initDisks(const PxInitRequest& req);
  // Counts down ZEL_TEST_LOSE_REPLIES; true when this reply is to be lost.
  bool loseReply();
  std::atomic<bool> netDown{false};

 private:
  void serveThread(int sock);

  ServerOptions opt_;
  ReplicaFactory factory_;
  ServerPaths paths_;
  int lockFd_ = -1;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  int port_ = 0;
  std::unique_ptr<FileStore> files_;
  std::unique_ptr<UidSource> uids_;
  std::unique_ptr<Repository> repo_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> loseReplies_{0};
  std::mutex connMu_;
  std::condition_variable connCv_;
  std::set<int> conns_;  // open client sockets, shut down at stop
  int nThreads_ = 0;
};

}  // namespace zeld

#endif  // SERVER_GLOBALS_H
