// Bodies of the messages with which a node reaches another node's block store
// ("pxread", "pxwrite", "pxrdwr" and their replies) and of the file request
// shared by "fxfer" and "reply_pxrdwr_fxfer". docs/protocol.md describes them.
//
// Each is a record with getSize/dump/load; PxDecode accepts a body only when it
// decodes exactly to its end.
#ifndef ZEL_PXWIRE_H
#define ZEL_PXWIRE_H

#include <string>
#include <vector>

#include "zel/paxosutils.h"
#include "zel/sharedblock.h"

// Every block store has this many slots, one per possible node.
constexpr int kPxSlots = 8;

// "pxread": who reads (for the store's traces) and the instance it is at.
struct PxReadRequest {
  int readerId = 0;
  int seq = 0;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const PxReadRequest& o) const { return readerId == o.readerId && seq == o.seq; }
};

// "pxwrite" and "pxrdwr": writerId's block for slot.
struct PxWriteRequest {
  int writerId = 0;
  int slot = 0;
  SharedBlock block;

  int getSize() const;
  char* dump(char* p) const;
  // Fails on a slot outside 0..kPxSlots-1.
  const char* load(const char* p, const char* end);
  bool operator==(const PxWriteRequest& o) const {
    return writerId == o.writerId && slot == o.slot && block == o.block;
  }
};

struct PxSlot {
  bool present = false;
  // Sent without its committed state (left empty): the reader does not need it.
  bool headOnly = false;
  SharedBlock block;  // meaningful when present
  bool operator==(const PxSlot& o) const;
};

// "reply_pxread" and "reply_pxrdwr": every slot of a store, exactly kPxSlots.
// A block whose committed state equals an earlier slot's is sent as a reference
// to that slot plus its head, so a store's usual content (blocks of one or two
// instances) costs one or two states, not eight; a headOnly slot is its head.
// (PxOmitStates says which states a reader can go without.)
class PxSlots : public std::vector<PxSlot> {
 public:
  PxSlots() : std::vector<PxSlot>(kPxSlots) {}

  // Asserts that there are kPxSlots entries.
  int getSize() const;
  char* dump(char* p) const;
  // Fails unless the count is kPxSlots, each kind is known and each reference
  // names an earlier present slot that carries its state.
  const char* load(const char* p, const char* end);

 private:
  // The earlier present slot with the same committed state as slot i, or -1.
  int sharedWith(size_t i) const;
};

// Marks headOnly the blocks a reader at instance seq never looks at the state
// of: those below the highest seq among the slots, and below seq. So a reply
// carries at most one state (that of the newest blocks), whatever the store
// holds of lagging nodes.
void PxOmitStates(PxSlots* slots, int seq);

// "fxfer" and "reply_pxrdwr_fxfer": one version of a file, named as a committed
// state names it.
struct PxFileRequest {
  std::string name;
  int fileId = 0;
  int version = -1;
  UpdateId uid;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const PxFileRequest& o) const {
    return name == o.name && fileId == o.fileId && version == o.version && uid == o.uid;
  }
};

// The "ok" that answers a file request: the size of the file that follows.
struct PxFileSize {
  int size = 0;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const PxFileSize& o) const { return size == o.size; }
};

// The body of a "failed" reply carrying code.
std::string PxFailedBody(int code);

template <class R>
std::string PxEncode(const R& r) {
  std::string s(static_cast<size_t>(r.getSize()), '\0');
  char* e = r.dump(&s[0]);
  ZASSERT(e == &s[0] + s.size());
  return s;
}

// True when body[0, len) decodes to r exactly to its end.
template <class R>
bool PxDecode(R* r, const char* body, int len) {
  if (len < 0 || (body == nullptr && len > 0)) return false;
  const char* end = body + len;
  const char* p = r->load(body, end);
  return p != nullptr && p == end;
}

#endif  // ZEL_PXWIRE_H
