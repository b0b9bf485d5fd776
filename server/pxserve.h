// The store side of "pxread", "pxwrite" and "pxrdwr": another node reaches this
// node's block store through these. The request service calls ServePx for a
// message of one of those types; the rest of the exchange runs here.
#ifndef SERVER_PXSERVE_H
#define SERVER_PXSERVE_H

#include <functional>
#include <string>

#include "server/replica.h"
#include "zel/kxcomm.h"
#include "zel/pxwire.h"

namespace zeld {

// What the store needs to take a block whose input is a file update.
struct PxFiles {
  // Whether the content of that update is held (staged or committed).
  std::function<bool(const ProposedUpdate& u)> holds;
  // Where a received content of that update is kept (its staging name); empty
  // when it cannot be kept.
  std::function<std::string(const ProposedUpdate& u)> stagingPath;
};

// The content of a file update that a store lacks, or null when u carries none.
bool PxNeedsFile(const ProposedUpdate& u, const PxFiles& files);

// The reply to a request of type (pxread, pxwrite or pxrdwr) with body, answered
// from disk: *replyType and *reply, or a refusal (*replyType "failed" with the
// code's body). A malformed body is refused with 818; a "pxrdwr" or "pxwrite"
// whose input lacks its file is not handled here (PxNeedsFile first).
void AnswerPx(int type, const char* body, int len, Disk* disk, int* replyType, std::string* reply);

// Serves one such request received on conn, sending every reply on conn and
// running the file exchange of "pxrdwr" when its input lacks its file. 0 when
// the exchange ended as the protocol says (a refusal included); a transfer
// error means conn is to be dropped.
int ServePx(Connection* conn, int type, const char* body, int len, Disk* disk,
            const PxFiles& files);

}  // namespace zeld

#endif  // SERVER_PXSERVE_H
