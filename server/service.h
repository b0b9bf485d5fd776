// The request service: one thread per client connection runs the greeting and
// then answers requests until the client leaves, the connection breaks or times
// out, or the server stops. It decodes and validates every request, hands
// updates to the repository and replies; nothing a client sends can stop it.
#ifndef SERVER_SERVICE_H
#define SERVER_SERVICE_H

#include <string>

#include "server/rules.h"
#include "zel/kxserve.h"
#include "zel/sharedblock.h"

namespace zeld {

class Globals;

// seq (VarUInt) and the encoded state: the front of every state reply.
std::string StateBody(int seq, const StateRef& s);

class Service {
 public:
  explicit Service(Globals& g) : g_(g) {}
  // Serves the accepted socket until the conversation ends; the caller closes it.
  void serve(int sock);

 private:
  // A request body being decoded; each handler returns false to close.
  struct Req {
    ServerConnection& c;
    int type;
    const char* p;
    const char* end;
  };
  bool dispatch(Req& r);

  bool status(Req& r);
  bool debug(Req& r);
  bool dump(Req& r);
  bool quit(Req& r);
  bool auth(Req& r);
  bool init(Req& r);
  bool pxinit(Req& r);
  bool vget(Req& r);
  bool fget(Req& r);
  bool discover(Req& r);
  bool fxfer(Req& r);
  bool update(Req& r);
  bool fput(Req& r);
  // "pxread", "pxwrite", "pxrdwr": another node reaching this node's block store.
  bool px(Req& r);

  // Runs an update through the repository after the early check; shared by
  // every update request but fput.
  bool decide(Req& r, UpdateAsk& ask,
              int (*prep)(const CommittedState&, const UpdateAsk&, ProposedUpdate*));
  // After propose: reads the client's "ok" to an announced id, then sends the
  // refusal or the state (or loses the reply, test switch). False to close.
  bool finishUpdate(Req& r, int rc, bool announced, bool sent, const UpdateId& uid, int seq,
                    const StateRef& s);
  // Sends the refusal in the form the client acts on: "failed" for 804..807 and
  // before init, "seq_commit_error" with the current state otherwise.
  bool refuse(ServerConnection& c, int err);
  bool sendFailed(ServerConnection& c, int err);
  bool sendState(ServerConnection& c, int type, int seq, const StateRef& s,
                 const std::string& tail = std::string());
  // Streams an open committed file as "fdata" messages and one "fcrc" carrying
  // crc (the state's CRC, so a damaged copy is detected by the receiver).
  bool sendFileFd(ServerConnection& c, int fd, long long size, unsigned int crc);

  Globals& g_;
};

}  // namespace zeld

#endif  // SERVER_SERVICE_H
