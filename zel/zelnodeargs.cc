// Node and disk list arguments: items from -n / -p and -d turned into node sets
// and disk maps, checked against the locally known cluster.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "zel/kxcomm_addr.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"

namespace {

// The port an item without one gets: the current one once the store is up.
int itemDefaultPort() {
  return zelPort > 0 ? zelPort : static_cast<int>(defaultPort);
}

// The id of a digits-only text, or -1 when it does not fit a node id.
int toId(const std::string& digits) {
  long long v = -1;
  if (!ParseDecimal(digits.c_str(), 0, INT_MAX, &v)) return -1;
  return static_cast<int>(v);
}

// The numbers of one node item as text, split as parseNodeList splits it.
struct ItemNumbers {
  bool hasId = false;
  std::string id;
  bool hasPort = false;
  std::string port;
};

ItemNumbers itemNumbers(const std::string& item) {
  ItemNumbers r;
  size_t pos = item.find_first_not_of("0123456789");
  if (pos == std::string::npos) {
    r.hasId = true;
    r.id = item;
    return r;
  }
  std::string text = item;
  if (pos > 0 && item[pos] == '=' && pos + 1 < item.size()) {
    r.hasId = true;
    r.id = item.substr(0, pos);
    text = item.substr(pos + 1);
  }
  size_t close = text.rfind(']');
  if (!text.empty() && text[0] == '[' && close != std::string::npos) {
    if (close + 1 == text.size()) return r;
    r.hasPort = true;
    r.port = text[close + 1] == ':' ? text.substr(text.rfind(':') + 1) : text.substr(close + 1);
    return r;
  }
  size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    r.hasPort = true;
    r.port = text.substr(colon + 1);
  }
  return r;
}

bool validPort(const std::string& text) {
  long long v = 0;
  return ParseDecimal(text.c_str(), 1, 65535, &v);
}

}  // namespace

std::string checkNodeArgs(const ZelArgs& items) {
  for (const std::string& item : items) {
    ItemNumbers n = itemNumbers(item);
    if (n.hasId && toId(n.id) < 0) return "invalid node id '" + n.id + "' in '" + item + "'";
    if (n.hasPort && !validPort(n.port)) return "invalid port '" + n.port + "' in '" + item + "'";
  }
  return std::string();
}

std::string GetHostByName(const std::string& host) {
  CommAddr ca;
  if (convertCommAddr(host, 1, &ca) != 0) return std::string();
  return ca.addr.toString();
}

std::string locToString(const std::string& addr, int port) {
  if (addr.find(':') != std::string::npos) return "[" + addr + "]:" + std::to_string(port);
  return addr + ":" + std::to_string(port);
}

int parseNodeList(const ZelArgs& items, Nodes* out, bool assignIds) {
  out->clear();
  const NodeNameMap& nodeNames = GetNodeNames();
  const NodeLocMap& nodeMap = GetNodeMap();
  // Ascending id order, so the higher id wins for a shared location.
  std::map<NodeLocation, int> byLocation;
  for (const auto& e : nodeMap) byLocation[e.second] = e.first;

  int maxId = 0;
  int nBad = 0;
  for (const std::string& item : items) {
    size_t pos = item.find_first_not_of("0123456789");
    int id = -1;
    std::string name, host;
    NodeLocation loc;
    if (pos == std::string::npos) {
      id = toId(item);
      if (id < 1) {
        fprintf(stderr, "invalid node id %s\n", item.c_str());
        nBad++;
        continue;
      }
      auto nameP = nodeNames.find(id);
      if (nameP == nodeNames.end()) {
        fprintf(stderr, "Unknwon node id %d\n", id);
        nBad++;
        continue;
      }
      auto locP = nodeMap.find(id);
      ZASSERT_T(locP != nodeMap.end(), "locP != nodeMap.end()");
      name = nameP->second;
      host = name;
      loc = locP->second;
    } else {
      bool explicitId = pos > 0 && item[pos] == '=' && pos + 1 < item.size();
      std::string text = item;
      if (explicitId) {
        id = toId(item.substr(0, pos));
        if (id < 1) {
          fprintf(stderr, "Invalid node id %d in '%s'\n", id, item.c_str());
          nBad++;
          continue;
        }
        text = item.substr(pos + 1);
      }
      ItemNumbers nums = itemNumbers(item);
      if (nums.hasPort && !validPort(nums.port)) {
        fprintf(stderr, "Invalid port '%s' in '%s'\n", nums.port.c_str(), item.c_str());
        nBad++;
        continue;
      }
      int port = 0;
      splitHostPort(text, &host, &port, itemDefaultPort());
      if (host.empty()) {
        fprintf(stderr, "Missing host in '%s'\n", item.c_str());
        nBad++;
        continue;
      }
      std::string addr = GetHostByName(host);
      if (addr.empty()) {
        fprintf(stderr, "Unknown host '%s'\n", host.c_str());
        nBad++;
        continue;
      }
      name = host;
      loc = NodeLocation(addr, port);
      if (!explicitId) {
        auto known = byLocation.find(loc);
        if (known != byLocation.end()) id = known->second;
      } else {
        auto nameP = nodeNames.find(id);
        if (nameP != nodeNames.end() && nameP->second != host) {
          fprintf(stderr, "Node id %d in '%d=%s' already known as '%s'\n", id, id, item.c_str(),
                  nameP->second.c_str());
          nBad++;
          continue;
        }
        auto locP = nodeMap.find(id);
        if (locP != nodeMap.end() && locP->second != loc) {
          fprintf(stderr, "Address of node %d in '%d=%s' changed from %s to %s\n", id, id,
                  item.c_str(), locToString(locP->second.addr, locP->second.port).c_str(),
                  locToString(loc.addr, loc.port).c_str());
          nBad++;
          continue;
        }
      }
    }
    if (id > maxId) maxId = id;
    trace(4, "parseNodeList: %s -> id %d host %s port %d ipaddr %s", item.c_str(), id, host.c_str(),
          loc.port, loc.addr.c_str());
    out->push_back(Node(id, name, loc));
  }

  if (assignIds) {
    for (Node& n : *out) {
      if (n.id == -1) n.id = ++maxId;
    }
  }
  return nBad > 0 ? E_INVAL : 0;
}

int parseNodeListDefaultLocal(const ZelArgs& items, Nodes* out, bool requireServer) {
  if (!items.empty()) return parseNodeList(items, out, false);
  out->clear();
  if (zelNodeId >= 0) {
    out->push_back(zelMyNode);
    return 0;
  }
  if (requireServer) {
    fprintf(stderr, "Not a server and no node list specified (use '-n nodeList' option)\n");
    return E_INVAL;
  }
  out->push_back(Node(-1, "localhost", NodeLocation("localhost", zelPort)));
  return 0;
}

int parseDiskList(const ZelArgs& items, const std::string& diskDir, DiskMap* disks) {
  disks->clear();
  if (!diskDir.empty() && !IsAbsPath(diskDir)) {
    // The option parser refuses it; a caller that did not is told here.
    fprintf(stderr, "Disk directory '%s' is not an absolute path\n", diskDir.c_str());
    return E_INVAL;
  }
  int n = 0;
  for (const std::string& item : items) {
    if (item.empty()) continue;
    std::string label;
    if (IsAbsPath(item)) {
      label = item;
    } else if (!diskDir.empty()) {
      label = diskDir + "/" + item;
    } else if (isDiskDesc(item)) {
      label = item;
    } else {
      fprintf(stderr, "Invalid disk label '%s'\n", item.c_str());
      return E_INVAL;
    }
    n++;
    trace(4, "parseDiskList: disk %d '%s'", n, label.c_str());
    (*disks)[n] = ZELDisk(label, 0);
  }
  return 0;
}
