#include "server/globals.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "classes/basic/ipaddr.h"
#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "platform/plisten.h"
#include "platform/psock.h"
#include "server/service.h"
#include "zel/kxsec.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"

namespace zeld {

namespace {

constexpr int kDefaultPort = 1191;
constexpr int kListenBacklog = 128;
constexpr int kStopWaitMs = 15000;

int envInt(const char* name, int dflt) {
  const char* v = getenv(name);
  if (v == nullptr || *v == '\0') return dflt;
  char* end = nullptr;
  long n = strtol(v, &end, 10);
  return *end == '\0' && n >= 0 && n <= 0x7fffffff ? static_cast<int>(n) : dflt;
}

int ensureDir(const std::string& dir) {
  int rc = PlatMkdir(dir.c_str(), 0755);
  return rc == EEXIST ? 0 : rc;
}

}  // namespace

void ApplyEnvironment(ServerOptions* o) {
  if (o->port < 0) o->port = envInt("ZEL_PORT", kDefaultPort);
  if (!o->testInstall) return;
  o->ioMs = envInt("ZEL_TEST_IO_MS", o->ioMs);
  o->idleMs = envInt("ZEL_TEST_IDLE_MS", o->idleMs);
  o->greetingMs = envInt("ZEL_TEST_IO_MS", o->greetingMs);
  o->loseReplies = envInt("ZEL_TEST_LOSE_REPLIES", 0);
  o->requestMs = envInt("ZEL_TEST_REQUEST_MS", o->requestMs);
  const char* at = getenv("ZEL_TEST_CRASH_AT");
  if (at != nullptr) o->crashAt = at;
  o->faults.crashBeforeLink = envInt("ZEL_TEST_CRASH_BEFORE_LINK", 0) != 0;
}

ServerPaths PathsFor(bool testInstall, int port, const char* zelBase) {
  ServerPaths p;
  if (!testInstall) {
    p.base = "/var/kolt/zel";
    p.keyFile = "/var/kolt/ssl/id_rsa_committed";
    p.certFile = "/var/kolt/ssl/id_rsa_committed.cert";
  } else {
    if (zelBase != nullptr && *zelBase != '\0') {
      p.base = zelBase;
    } else {
      p.base = port == kDefaultPort ? "/tmp/zel" : "/tmp/zel." + std::to_string(port);
    }
    p.keyFile = p.certFile = p.base + "/zel.pem";
  }
  p.committed = p.base + "/committed";
  p.staging = p.base + "/staging";
  p.lock = p.base + "/zeld.lock";
  p.epoch = p.base + "/zeld.epoch";
  p.fileMap = p.base + "/zeld.files";
  p.store = p.base + "/zeld.store";
  p.identity = p.base + "/zeld.init";
  p.nodes = p.base + "/zel.nodes";
  p.portFile = p.base + "/zeld.port";
  return p;
}

Globals::Globals(const ServerOptions& o, const ReplicaFactory& factory)
    : opt_(o), factory_(factory) {
  loseReplies_ = o.testInstall ? o.loseReplies : 0;
}

Globals::~Globals() {
  repo_.reset();
  if (listenFd_ >= 0) PlatClose(listenFd_);
  for (int fd : wakeFds_) {
    if (fd >= 0) PlatClose(fd);
  }
  if (lockFd_ >= 0) {
    PlatUnlink(paths_.portFile.c_str());
    PlatClose(lockFd_);
  }
}

bool Globals::loseReply() {
  int n = loseReplies_.load();
  while (n > 0) {
    if (loseReplies_.compare_exchange_weak(n, n - 1)) return true;
  }
  return false;
}

int Globals::init() {
  paths_ = PathsFor(opt_.testInstall, opt_.port, getenv("ZEL_BASE"));
  if (!opt_.testInstall && !dirExists("/var/kolt")) {
    fprintf(stderr, "zeld: directory /var/kolt not found\n");
    return 1;
  }
  int rc = ensureDir(paths_.base);
  if (rc != 0) {
    fprintf(stderr, "zeld: cannot create the repository directory %s: %s\n", paths_.base.c_str(),
            PlatStrError(rc));
    return 1;
  }
  rc = PlatLockFile(paths_.lock.c_str(), &lockFd_);
  if (rc == EWOULDBLOCK) {
    fprintf(stderr, "zeld: another zeld is already serving %s (lock file %s is held)\n",
            paths_.base.c_str(), paths_.lock.c_str());
    return 1;
  }
  if (rc != 0) {
    fprintf(stderr, "zeld: cannot lock %s: %s\n", paths_.lock.c_str(), PlatStrError(rc));
    return 1;
  }

  rc = InitSecurityAt(SecPathsForKey(paths_.keyFile, paths_.certFile));
  if (rc != 0) {
    fprintf(stderr, "zeld: security initialization failed (err %d)\n", rc);
    return 1;
  }

  files_.reset(new FileStore(paths_.committed, paths_.staging, paths_.fileMap));
  rc = files_->open();
  if (rc != 0) {
    fprintf(stderr, "zeld: the file store in %s cannot be opened (err %d)\n", paths_.base.c_str(),
            rc);
    return 1;
  }
  uids_.reset(new UidSource(paths_.epoch));
  RepoPaths rp{paths_.store, paths_.identity, paths_.nodes};
  repo_.reset(new Repository(rp, factory_, files_.get(), uids_.get(),
                             opt_.testInstall ? opt_.faults : RepoFaults()));
  rc = repo_->start();
  if (rc != 0) {
    fprintf(stderr, "zeld: the repository in %s cannot be opened (err %d)\n", paths_.base.c_str(),
            rc);
    return 1;
  }

  IpAddr ip;
  std::string addr = opt_.listenAddr;
  if (addr.empty()) addr = opt_.testInstall ? "127.0.0.1" : "::";
  if (!IpAddr::parse(addr, &ip)) {
    fprintf(stderr, "zeld: bad listen address '%s'\n", addr.c_str());
    return 1;
  }
  struct sockaddr_storage ss = {};
  socklen_t slen = ip.toSockaddr(opt_.port, &ss);
  rc = PlatListen(reinterpret_cast<struct sockaddr*>(&ss), slen, kListenBacklog, &listenFd_);
  if (rc == 0) rc = PlatLocalPort(listenFd_, &port_);
  if (rc != 0) {
    fprintf(stderr, "zeld: cannot listen on %s port %d: %s\n", addr.c_str(), opt_.port,
            PlatStrError(rc));
    return 1;
  }
  if (::pipe2(wakeFds_, O_CLOEXEC) != 0) {
    fprintf(stderr, "zeld: pipe: %s\n", PlatStrError(errno));
    return 1;
  }
  PlatWriteFileDurably(paths_.portFile, std::to_string(port_) + "\n");
  printf("zeld: serving %s on %s port %d\n", paths_.base.c_str(), addr.c_str(), port_);
  fflush(stdout);
  trace(1, "zeld ready: base %s port %d node %d", paths_.base.c_str(), port_, repo_->nodeId());
  return 0;
}

int Globals::initDisks(const PxInitRequest& req) {
  if (!factory_.initDisk) return ENOSYS;
  for (const InitDisk& d : req.disks) {
    int rc = factory_.initDisk(d.label, req.block, req.nSlots);
    if (rc != 0) {
      trace(1, "pxinit: initialising '%s' failed (err %d)", d.label.c_str(), rc);
      return rc;
    }
  }
  return 0;
}

void Globals::stop() {
  if (stopping_.exchange(true)) return;
  char c = 'q';
  if (wakeFds_[1] >= 0) (void)!::write(wakeFds_[1], &c, 1);
}

int Globals::run() {
  Service service(*this);
  while (!stopping_) {
    struct pollfd pfd[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    int n = ::poll(pfd, 2, -1);
    if (n < 0 && errno != EINTR) {
      trace(0, "poll failed: %s", PlatStrError(errno));
      break;
    }
    if (n <= 0 || !(pfd[0].revents & POLLIN)) continue;
    int fd = -1;
    int rc = PlatAccept(listenFd_, &fd);
    if (rc != 0) {
      // Out of descriptors or a connection reset before accept: wait a little.
      if (rc == EMFILE || rc == ENFILE || rc == ENOBUFS || rc == ENOMEM)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    // Replies are small messages in a row: without no-delay each waits for an ACK.
    PlatSetNoDelay(fd);
    {
      std::lock_guard<std::mutex> g(connMu_);
      if (static_cast<int>(conns_.size()) >= opt_.maxConnections) {
        trace(1, "too many connections (%zu); refusing one", conns_.size());
        PlatClose(fd);
        continue;
      }
      conns_.insert(fd);
      nThreads_++;
    }
    std::thread([this, &service, fd] {
      service.serve(fd);
      std::lock_guard<std::mutex> g(connMu_);
      conns_.erase(fd);
      PlatClose(fd);
      nThreads_--;
      connCv_.notify_all();
    }).detach();
  }
  PlatClose(listenFd_);
  listenFd_ = -1;
  // Wake every connection thread: their reads fail at once and they finish, and
  // those waiting on the engine are answered.
  if (repo_) repo_->stop();
  std::unique_lock<std::mutex> g(connMu_);
  for (int fd : conns_) ::shutdown(fd, SHUT_RDWR);
  bool done = connCv_.wait_for(g, std::chrono::milliseconds(kStopWaitMs),
                               [this] { return nThreads_ == 0; });
  if (!done) {
    // Their threads still use this object: leave without tearing it down.
    fprintf(stderr, "zeld: %d connection(s) did not finish\n", nThreads_);
    fflush(stderr);
    _exit(1);
  }
  return 0;
}

}  // namespace zeld
