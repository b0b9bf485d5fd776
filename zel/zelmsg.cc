#include "zel/zelmsg.h"

#include <map>

#include "platform/pfile.h"

namespace {

struct MsgRow {
  int type;
  bool authRequired;
  const char* name;
};

// The order is that of the protocol's table; lookups go through the map.
const MsgRow kMsgRows[] = {
    {-3, false, "refresh"},
    {-2, false, "recover"},
    {-1, false, "failed"},
    {0, false, "ok"},
    {1, false, "status"},
    {2, false, "debug"},
    {3, true, "dump"},
    {4, true, "init"},
    {19, false, "auth"},
    {5, false, "vget"},
    {6, true, "vput"},
    {7, true, "vdel"},
    {8, false, "fget"},
    {9, true, "fput"},
    {10, true, "fdel"},
    {11, true, "config"},
    {12, true, "pxinit"},
    {13, true, "pxread"},
    {14, true, "pxwrite"},
    {15, true, "pxrdwr"},
    {16, true, "fxfer"},
    {17, true, "fcrc"},
    {18, true, "fdata"},
    {20, true, "discover"},
    {31, true, "quit"},
    {32, true, "fget_priv"},
    {50, false, "seq_commit"},
    {51, false, "seq_commit_error"},
    {52, false, "seq_commit_fget"},
    {53, false, "seq_commit_flist"},
    {54, false, "uid"},
    {55, false, "uid_fput"},
    {56, false, "reply_pxread"},
    {57, false, "reply_pxwrite"},
    {58, false, "reply_pxrdwr"},
    {59, false, "reply_stdout"},
    {60, false, "reply_sdterr"},
    {61, false, "failed_node_ver"},
    {62, false, "reply_discover"},
    {63, false, "eor"},
    {64, false, "reply_pxrdwr_fxfer"},
};

const std::map<int, const MsgRow*>& msgMap() {
  static const std::map<int, const MsgRow*> m = [] {
    std::map<int, const MsgRow*> r;
    for (const MsgRow& row : kMsgRows) r[row.type] = &row;
    return r;
  }();
  return m;
}

const char* const kZelErrTexts[] = {
    "Ok",
    "Connection rejected by the server",
    "Invalid attachment length",
    "Unknown request type",
    "Node is not a server",
    "Node is not a primary server",
    "Node is not a secondary server",
    "Secondary server could not be reached",
    "Hostname resolution failure",
    "Error reading koltNodeData from disk",
    "Error reading kxsdrfs from disk",
    "Error writing kxsdrfs to disk",
    "Format of the kxsdrfs file is invalid",
    "Format of the Trov Object is invalid",
    "Out of memory",
    "Unable to connect to the server",
    "Connection shut down",
    "Port already in use",
    "Internal server error",
    "Daemon crashed or was killed with a signal",
    "Daemon disabled by request or inconsistency",
    "Request failed",
    "Node initialization failed",
    "Disk initialization failed",
    "Name not found on get",
    "Version mismatch on conditional put",
    "Invalid version on put",
    "Version match on conditional get",
    "zel.nodes file missing or empty",
    "Unable to contact current leader",
};

}  // namespace

const char* msgName(int type) {
  auto it = msgMap().find(type);
  return it == msgMap().end() ? "unknown" : it->second->name;
}

bool msgAuthRequired(int type) {
  auto it = msgMap().find(type);
  return it != msgMap().end() && it->second->authRequired;
}

const char* errcodeToString(int code) {
  if (static_cast<unsigned int>(code) < 128) return PlatStrError(code);
  if (code >= 128 && code <= 157) return kZelErrTexts[code - 128];
  return "Invalid error number";
}
