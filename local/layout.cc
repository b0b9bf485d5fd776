// zel-local's command line and its configuration file.
#include <stdlib.h>
#include <string.h>

#include <set>
#include <sstream>

#include "local/zellocal.h"

namespace zellocal {

const char kUsage[] =
    "Usage: zel-local up DIR [-n NODES] [-d DISKS]\n"
    "       zel-local add DIR\n"
    "       zel-local status DIR\n"
    "       zel-local stop DIR NODE\n"
    "       zel-local start DIR NODE\n"
    "       zel-local down DIR\n"
    "       zel-local --version\n";

namespace {

// A whole decimal number in [lo, hi]; anything else is refused.
bool ParseInt(const std::string& text, int lo, int hi, int* out) {
  if (text.empty() || text.size() > 9) return false;
  for (char ch : text) {
    if (ch < '0' || ch > '9') return false;
  }
  long v = strtol(text.c_str(), nullptr, 10);
  if (v < lo || v > hi) return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace

const LocalNode* Layout::find(int id) const {
  for (const LocalNode& n : nodes) {
    if (n.id == id) return &n;
  }
  return nullptr;
}

std::string FormatLayout(const Layout& l) {
  std::string s = "# zel-local repository: written by zel-local up and add\n";
  s += "disks " + std::to_string(l.disks) + "\n";
  for (const LocalNode& n : l.nodes) {
    s += "node " + std::to_string(n.id) + " " + std::to_string(n.port) + "\n";
  }
  return s;
}

bool ParseLayout(const std::string& text, Layout* l, std::string* err) {
  l->nodes.clear();
  l->disks = -1;
  std::set<int> ids, ports;
  std::istringstream in(text);
  std::string line;
  int lineNo = 0;
  while (std::getline(in, line)) {
    lineNo++;
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string key, a, b, extra;
    words >> key >> a >> b >> extra;
    std::string where = "line " + std::to_string(lineNo) + ": ";
    if (key == "disks" && b.empty()) {
      if (l->disks >= 0 || !ParseInt(a, 0, kMaxDisks, &l->disks)) {
        *err = where + "bad disk count '" + line + "'";
        return false;
      }
    } else if (key == "node" && extra.empty()) {
      LocalNode n;
      if (!ParseInt(a, 1, 1000, &n.id) || !ParseInt(b, 1, 65535, &n.port)) {
        *err = where + "bad node line '" + line + "'";
        return false;
      }
      if (!ids.insert(n.id).second || !ports.insert(n.port).second) {
        *err = where + "node id or port given twice";
        return false;
      }
      if (static_cast<int>(l->nodes.size()) >= kMaxNodes * 2) {
        *err = where + "too many nodes";
        return false;
      }
      l->nodes.push_back(n);
    } else {
      *err = where + "unknown line '" + line + "'";
      return false;
    }
  }
  if (l->disks < 0 || l->nodes.empty()) {
    *err = "no node or no disk count";
    return false;
  }
  return true;
}

bool ParseCommand(int argc, char** argv, Command* c, std::string* err) {
  std::vector<std::string> pos;
  bool sawN = false, sawD = false;
  for (int i = 1; i < argc; i++) {
    std::string w = argv[i];
    if (w == "-n" || w == "-d") {
      if (i + 1 >= argc) {
        *err = "option " + w + " needs a value";
        return false;
      }
      std::string v = argv[++i];
      bool ok =
          w == "-n" ? ParseInt(v, 1, kMaxNodes, &c->nodes) : ParseInt(v, 0, kMaxDisks, &c->disks);
      if (!ok) {
        *err =
            w == "-n" ? "-n takes a node count from 1 to 8" : "-d takes a disk count from 0 to 8";
        return false;
      }
      (w == "-n" ? sawN : sawD) = true;
    } else if (w.size() > 1 && w[0] == '-') {
      *err = "unknown option '" + w + "'";
      return false;
    } else {
      pos.push_back(w);
    }
  }
  if (pos.empty()) {
    *err = "no command";
    return false;
  }
  c->verb = pos[0];
  size_t want;
  if (c->verb == "up") {
    want = 2;
  } else if (c->verb == "status" || c->verb == "down" || c->verb == "add") {
    want = 2;
  } else if (c->verb == "stop" || c->verb == "start") {
    want = 3;
  } else {
    *err = "unknown command '" + c->verb + "'";
    return false;
  }
  if (c->verb != "up" && (sawN || sawD)) {
    *err = "-n and -d belong to up";
    return false;
  }
  if (pos.size() != want) {
    *err = pos.size() < want ? "missing arguments" : "too many arguments";
    return false;
  }
  c->dir = pos[1];
  if (c->dir.empty()) {
    *err = "empty directory name";
    return false;
  }
  if (want == 3 && !ParseInt(pos[2], 1, 1000, &c->node)) {
    *err = "bad node id '" + pos[2] + "'";
    return false;
  }
  return true;
}

std::string ShellQuote(const std::string& s) {
  bool plain = !s.empty();
  for (char ch : s) {
    if (!(isalnum(static_cast<unsigned char>(ch)) || strchr("/._-+:,=@%", ch) != nullptr)) {
      plain = false;
    }
  }
  if (plain) return s;
  std::string q = "'";
  for (char ch : s) {
    if (ch == '\'') {
      q += "'\\''";
    } else {
      q += ch;
    }
  }
  return q + "'";
}

std::string ExportLine(const Layout& l) {
  // The client takes node 1's port so that it prefers that node, as kxzel on a
  // quorum node prefers its own server.
  int port = l.nodes.empty() ? 0 : l.nodes.front().port;
  return "export ZEL_BASE=" + ShellQuote(l.clientDir()) + " ZEL_PORT=" + std::to_string(port);
}

}  // namespace zellocal
