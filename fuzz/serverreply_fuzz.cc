// Arbitrary bytes as a server's reply stream: the greeting answer (unless the
// first byte's low bit says to skip it) and then messages, read by the client's
// receive and ReceiveErrCheck over a socket pair, or (the first byte's second
// bit) decoded as repository replies by ReceiveZELReply.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "zel/kxcomm.h"
#include "zel/paxosclient.h"

// Decoding stores and fetches nothing: states are only queued on the retry state.
static bool Init() {
  KxSetTransferTimeouts(200, 200);
  FILE* devnull = fopen("/dev/null", "w");
  KxSetForwardStreams(devnull, devnull);
  return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool initialised = Init();
  if (!initialised || size == 0) return 0;
  bool skipGreeting = data[0] & 1;
  bool decodeReplies = data[0] & 2;
  data++;
  size = std::min(size - 1, size_t{65536});

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  int sndbuf = 2 * 65536;
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  send(fds[1], data, size, MSG_DONTWAIT | MSG_NOSIGNAL);  // what does not fit is dropped
  shutdown(fds[1], SHUT_WR);

  SdrSecInfo info;
  int rc = 0;
  if (!skipGreeting) {
    rc = kxSendGreeting(fds[0], 200, 0, &info);
    if (rc == 0) rc = kxReadGreetingAnswer(fds[0], 200, &info);
  }
  if (rc == 0) {
    ConnImplementation conn(fds[0], info, CommAddr());
    ClientRetry retry("fuzz");
    for (int i = 0; i < 64 && !conn.isBroken(); i++) {
      ZelReplyResult r;
      int type = 0;
      MsgBody body;
      if (decodeReplies) ReceiveZELReply(&conn, &retry, &r);
      if (!decodeReplies) ReceiveErrCheck(&conn, &type, &body);
    }
  } else {
    close(fds[0]);
  }
  close(fds[1]);
  return 0;
}
