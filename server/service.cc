#include "server/service.h"

#include <stdio.h>

#include <string>
#include <vector>

#include "classes/basic/ipaddr.h"
#include "server/globals.h"
#include "server/pxserve.h"
#include "zel/kxsec.h"
#include "zel/paxosinit.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace zeld {

namespace {

std::string varUInt(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}

// The id of the node of the list that is this machine on port: an address of
// a local interface and the same port.
int findSelf(const std::vector<InitNode>& nodes, int port, int* id) {
  IpAddrArray local;
  int rc = GetLocalAddrs(&local);
  if (rc != 0) return rc;
  for (const InitNode& n : nodes) {
    if (n.port != port) continue;
    CommAddr a;
    if (convertCommAddr(n.addr, n.port, &a) != 0) continue;
    for (const IpAddr& l : local) {
      if (l == a.addr) {
        *id = n.id;
        return 0;
      }
    }
  }
  return E_NOT_SERVER;
}

GreetingAnswer answerFor(unsigned long long clusterId) {
  GreetingAnswer a;
  a.clusterId = clusterId;
  // One consistent copy: an "auth" may be replacing the keys meanwhile.
  const KxSecurity sec = GetKxSecurity();
  a.security = sec.ready;
  if (sec.ready) {
    a.keyGenNumber = sec.keyGenNumber;
    a.clusterName = sec.clusterName;
  }
  return a;
}

}  // namespace

void Service::serve(int sock) {
  const ServerOptions& o = g_.options();
  ClientGreeting gr;
  int rc = kxReadClientGreeting(sock, o.greetingMs, &gr);
  if (rc != 0) {
    trace(3, "greeting on sock %d failed (err %d)", sock, rc);
    return;
  }
  CommAddr peer;
  struct sockaddr_storage ss = {};
  socklen_t slen = sizeof ss;
  if (::getpeername(sock, reinterpret_cast<sockaddr*>(&ss), &slen) == 0) {
    IpAddr::fromSockaddr(reinterpret_cast<sockaddr*>(&ss), &peer.addr, &peer.port);
  }
  unsigned long long mine = g_.repo().clusterId();
  GreetingAnswer ans = answerFor(mine);
  if (mine != 0 && gr.clusterId != 0 && mine != gr.clusterId) {
    trace(1, "rejecting %s: cluster id %llu, ours %llu", peer.toString().c_str(), gr.clusterId,
          mine);
    ans.status = 1;
  }
  std::string bytes = kxGreetingAnswerBytes(ans);
  rc = kxFullSend(sock, bytes.data(), bytes.size(), o.ioMs);
  if (rc != 0 || ans.status != 0) return;

  SdrSecInfo info;
  info.keyGenNumber = ans.keyGenNumber;
  info.peerKeyGenNumber = gr.keyGenNumber;
  info.peerClusterName = gr.clusterName;
  info.hasPeerClusterName = gr.hasRecord6;
  info.peerVersion = gr.version;
  info.peerClusterId = gr.clusterId;
  ServerConnection conn(sock, info, peer, ans.security ? AuthenticateIncoming : nullptr, o.idleMs,
                        o.ioMs);
  for (;;) {
    int type = -1, len = 0;
    char* body = nullptr;
    rc = conn.receive(&type, &body, &len);
    if (rc == E_AUTH_PARAMS) {
      sendFailed(conn, rc);
      break;
    }
    if (rc != 0) break;
    Req r{conn, type, body, body + len};
    bool keep = dispatch(r);
    delete[] body;
    if (!keep || conn.isBroken()) break;
  }
  conn.release();
}

bool Service::dispatch(Req& r) {
  switch (r.type) {
    case REPLY_TYPE_EOR:
      r.c.setFirstMessage();
      return r.c.send(REPLY_TYPE_EOR, nullptr, 0) == 0;
    case MSG_TYPE_STATUS:
      return status(r);
    case MSG_TYPE_DEBUG:
      return debug(r);
    case MSG_TYPE_DUMP:
      return dump(r);
    case MSG_TYPE_QUIT:
      return quit(r);
    case MSG_TYPE_AUTH:
      return auth(r);
    case MSG_TYPE_INIT:
      return init(r);
    case MSG_TYPE_PXINIT:
      return pxinit(r);
    case MSG_TYPE_VGET:
      return vget(r);
    case MSG_TYPE_FGET:
    case MSG_TYPE_FGET_PRIV:
      return fget(r);
    case MSG_TYPE_DISCOVER:
      return discover(r);
    case MSG_TYPE_FXFER:
      return fxfer(r);
    case MSG_TYPE_VPUT:
    case MSG_TYPE_VDEL:
    case MSG_TYPE_FDEL:
    case MSG_TYPE_CONFIG:
      return update(r);
    case MSG_TYPE_FPUT:
      return fput(r);
    case MSG_TYPE_PXREAD:
    case MSG_TYPE_PXWRITE:
    case MSG_TYPE_PXRDWR:
      return px(r);
    default:
      trace(3, "unknown request type %d from %s", r.type, r.c.getPeer().toString().c_str());
      return sendFailed(r.c, E_UNKNOWN_REQUEST);
  }
}

bool Service::px(Req& r) {
  std::shared_ptr<Disk> store = g_.repo().store();
  if (!store) return sendFailed(r.c, E_NOT_SERVER);
  int rc =
      ServePx(&r.c, r.type, r.p, static_cast<int>(r.end - r.p), store.get(), g_.repo().pxFiles());
  return rc == 0;
}

bool Service::sendFailed(ServerConnection& c, int err) {
  std::string b = varUInt(err, -1);
  return c.send(MSG_TYPE_FAILED, b.data(), static_cast<int>(b.size())) == 0;
}

std::string StateBody(int seq, const StateRef& s) {
  return varUInt(seq, 0) + *EncodedState(s);
}

bool Service::sendState(ServerConnection& c, int type, int seq, const StateRef& s,
                        const std::string& tail) {
  std::string b = StateBody(seq, s) + tail;
  return c.send(type, b.data(), static_cast<int>(b.size())) == 0;
}

bool Service::refuse(ServerConnection& c, int err) {
  trace(3, "refusing a request from %s with %d", c.getPeer().toString().c_str(), err);
  int seq = 0;
  StateRef s;
  if ((err >= E_ZEL_NOT_FOUND && err <= E_ZEL_INVALID_VERSION) ||
      g_.repo().snapshot(&seq, &s) != 0) {
    return sendFailed(c, err);
  }
  std::string b = varUInt(err, -1) + StateBody(seq, s);
  return c.send(REPLY_TYPE_SEQ_COMMIT_ERROR, b.data(), static_cast<int>(b.size())) == 0;
}

bool Service::status(Req& r) {
  std::string b = varUInt(g_.repo().ready() ? 4 : 2, 0);
  return r.c.send(MSG_TYPE_OK, b.data(), static_cast<int>(b.size())) == 0;
}

bool Service::debug(Req& r) {
  std::string word;
  int n = 0;
  const char* p = LoadString(r.p, r.end, &word);
  p = LoadVarUInt(p, r.end, &n, 0);
  std::vector<std::string> args;
  if (p != nullptr && n >= 0 && n <= r.end - p) {
    for (int i = 0; i < n && p != nullptr; i++) {
      std::string a;
      p = LoadString(p, r.end, &a);
      args.push_back(a);
    }
  }
  if (p == nullptr || p != r.end) return sendFailed(r.c, E_INVAL);
  std::string out;
  if (word == "echo") {
    for (size_t i = 0; i < args.size(); i++) out += (i ? " " : "") + args[i];
  } else if (word == "trace" || word == "msglevel") {
    int v = args.empty() ? -1 : atoi(args[0].c_str());
    if (v < 0 || v > 9) return sendFailed(r.c, E_INVAL);
    if (word == "trace") {
      traceLevel = v;
    } else {
      traceFlags = static_cast<unsigned char>(v);
    }
    out = word + " " + std::to_string(v);
  } else if (word == "netdown" && g_.options().testInstall) {
    bool on = args.empty() || args[0] == "1" || args[0] == "on";
    g_.netDown = on;
    out = std::string("netdown ") + (on ? "on" : "off");
  } else {
    return sendFailed(r.c, E_INVAL);
  }
  return r.c.send(MSG_TYPE_OK, out.data(), static_cast<int>(out.size())) == 0;
}

bool Service::dump(Req& r) {
  std::string text = g_.repo().describe();
  fputs(text.c_str(), stderr);
  return r.c.send(MSG_TYPE_OK, text.data(), static_cast<int>(text.size())) == 0;
}

bool Service::quit(Req& r) {
  bool ok = r.c.send(MSG_TYPE_OK, nullptr, 0) == 0;
  trace(1, "quit requested by %s", r.c.getPeer().toString().c_str());
  g_.stop();
  return ok;
}

bool Service::auth(Req& r) {
  int rc = GetKxSecurity().ready
               ? RefreshSecurity()
               : InitSecurityAt(SecPathsForKey(g_.paths().keyFile, g_.paths().certFile));
  if (rc != 0) return sendFailed(r.c, rc);
  return r.c.send(MSG_TYPE_OK, nullptr, 0) == 0;
}

bool Service::init(Req& r) {
  InitRequest req;
  if (req.load(r.p, r.end) != r.end) return sendFailed(r.c, E_BAD_MESSAGE);
  if (req.nodes.empty() || req.nodes.size() > static_cast<size_t>(kMaxNodes) ||
      !ValidConfig(req.block.committed.config) || req.block.seq < 0) {
    return sendFailed(r.c, E_INVAL);
  }
  int self = -1;
  int rc = findSelf(req.nodes, g_.port(), &self);
  if (rc != 0) {
    trace(1, "init: this node (port %d) is not in the node list", g_.port());
    return sendFailed(r.c, E_NOT_SERVER);
  }
  rc = g_.repo().initialize(req, self);
  if (rc != 0) return sendFailed(r.c, rc == EEXIST ? rc : E_NODE_INIT_FAILED);
  trace(1, "initialised as node %d of cluster %llu", self, req.clusterId);
  return r.c.send(MSG_TYPE_OK, nullptr, 0) == 0;
}

bool Service::pxinit(Req& r) {
  PxInitRequest req;
  if (req.load(r.p, r.end) != r.end || req.nSlots < 1 || req.nSlots > kMaxSlots) {
    return sendFailed(r.c, E_BAD_MESSAGE);
  }
  for (const InitDisk& d : req.disks) {
    if (d.label.empty() || d.label[0] != '/') return sendFailed(r.c, E_ZEL_DISK_INIT);
  }
  int rc = g_.initDisks(req);
  if (rc != 0) return sendFailed(r.c, rc);
  return r.c.send(MSG_TYPE_OK, nullptr, 0) == 0;
}

}  // namespace zeld
