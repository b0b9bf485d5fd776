// The version rules and conditions of every update, checked against the state
// an update is proposed in. Pure functions over a CommittedState, so the same
// check runs when a request arrives and again in each instance the update is
// proposed in; an update they accept can never trip CommittedState::apply.
#ifndef SERVER_RULES_H
#define SERVER_RULES_H

#include <string>

#include "zel/paxosdata.h"

namespace zeld {

constexpr int kNodesFileId = 1;
extern const char kNodesFileName[];  // "zel.nodes"
// A state must stay small enough to travel in one reply body with room to spare.
constexpr int kMaxStateBytes = 8 * 1024 * 1024 - 64 * 1024;
constexpr int kMaxNameBytes = 255;
constexpr int kMaxNodes = 8;
constexpr int kMaxSlots = 8;

// What an update request asks for; cond and newVersion are -1 when not given.
struct UpdateAsk {
  UpdateId uid;
  std::string name;
  std::string value;     // vput
  unsigned int crc = 0;  // fput
  int fileId = -1;       // fput, fdel: the id the name maps to; -1 none yet
  int cond = -1;         // condition version
  int newVersion = -1;   // requested version
  ConfigUpdate config;   // config
};

// Decodes the body of an update request of type ("vput", "vdel", "fput",
// "fdel", "config") into *a (and the announced size of an fput into *fileSize):
// 0, or 22 when it does not decode exactly to its end.
int DecodeUpdate(int type, const char* p, const char* end, UpdateAsk* a, int* fileSize);

// Value and file names: non-empty, at most kMaxNameBytes. File names also become
// a component of a path: no "/", not "." or "..".
bool ValidValueName(const std::string& name);
bool ValidFileName(const std::string& name);

// Each fills *u for the state or returns the refusal: 804 absent name, 805
// condition not met, 807 unusable version, 22 malformed, 1 (EPERM) deleting the
// node list, 27 (EFBIG) state would outgrow a reply.
int PrepareValuePut(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u);
int PrepareValueDel(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u);
int PrepareFilePut(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u);
int PrepareFileDel(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u);
int PrepareConfig(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u);

// The configuration records a server accepts: at most 8 nodes with distinct
// non-negative ids and distinct slots in 0..7 (or -1), distinct disks, and
// minNodes -1 or between 0 and the node count.
bool ValidConfig(const ConfigData& c);

}  // namespace zeld

#endif  // SERVER_RULES_H
