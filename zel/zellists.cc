// The node-list and disk-list files: comma-separated text, one entry a line.
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

bool allDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

void badLine(const char* path, int lineNo, const std::string& line, const char* form) {
  SetErrorCause("%s line %d: '%s' is not %s", path, lineNo, line.c_str(), form);
}

// Only the lowest bit of the decimal value counts: the parity of the last digit.
int oddFlag(const std::string& digits) {
  return (digits.back() - '0') & 1;
}

// Splits at commas, at most maxSplits times; the last field keeps the rest.
std::vector<std::string> splitFields(const std::string& line, int maxSplits) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (int i = 0; i < maxSplits; i++) {
    size_t comma = line.find(',', start);
    if (comma == std::string::npos) break;
    fields.push_back(line.substr(start, comma - start));
    start = comma + 1;
  }
  fields.push_back(line.substr(start));
  return fields;
}

// The file's lines; a file that cannot be opened, or is not a regular file,
// has none.
std::vector<std::string> readLines(const char* path) {
  std::vector<std::string> lines;
  PlatFd fd;
  if (PlatOpenRegular(path, O_RDONLY, fd.out()) != 0) return lines;
  std::string text;
  char buf[4096];
  size_t n = 0;
  while (PlatRead(fd.get(), buf, sizeof buf, &n) == 0 && n > 0) text.append(buf, n);
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

// Replaces the file as a whole (temporary file, sync, rename, directory sync),
// so that a reader or a crash never sees it torn and a link planted at its name
// is replaced, not followed.
int writeLines(const std::string& path, const char* who, const std::vector<std::string>& lines) {
  char cpath[kPlatPathMax];
  int rc = PlatPathConvert(path.c_str(), cpath, sizeof cpath);
  if (rc != 0) return rc;
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  rc = PlatAtomicReplace(cpath, text.data(), text.size(), 0644);
  trace(4, "%s('%s') ok %d", who, cpath, rc == 0 ? 1 : 0);
  if (rc != 0) SetErrorCause("cannot write '%s': %s", cpath, PlatStrError(rc));
  return rc == 0 ? 0 : E_IO;
}

}  // namespace

int readNodeList(const std::string& path, Nodes* list) {
  char cpath[kPlatPathMax];
  int rc = PlatPathConvert(path.c_str(), cpath, sizeof cpath);
  if (rc != 0) return rc;
  list->clear();
  int nErr = 0;
  int lineNo = 0;
  for (const std::string& line : readLines(cpath)) {
    lineNo++;
    std::vector<std::string> f = splitFields(line, 4);
    long long id = 0, port = defaultPort;
    if (f.size() != 5 || !allDigits(f[0]) || !allDigits(f[1]) ||
        (!f[3].empty() && !allDigits(f[3])) || !ParseDecimal(f[0].c_str(), 0, INT_MAX, &id) ||
        (!f[3].empty() && !ParseDecimal(f[3].c_str(), 1, 65535, &port))) {
      if (nErr++ == 0) badLine(cpath, lineNo, line, "id,old,address,port,name");
      continue;
    }
    Node n(static_cast<int>(id), f[4], NodeLocation(f[2], static_cast<int>(port)));
    n.old = oddFlag(f[1]);
    list->push_back(n);
  }
  trace(4, "readNodeList('%s') size %d nErr %d", cpath, static_cast<int>(list->size()), nErr);
  return nErr > 0 ? E_IO : 0;
}

int writeNodeList(const std::string& path, const Nodes& list) {
  std::vector<std::string> lines;
  for (const Node& n : list) {
    std::string port;
    if (n.addr.port != static_cast<int>(defaultPort)) port = std::to_string(n.addr.port);
    lines.push_back(std::to_string(n.id) + (n.old ? ",1," : ",0,") + n.addr.addr + "," + port +
                    "," + n.name);
  }
  return writeLines(path, "writeNodeList", lines);
}

int readDiskList(const std::string& path, DiskMap* disks) {
  char cpath[kPlatPathMax];
  int rc = PlatPathConvert(path.c_str(), cpath, sizeof cpath);
  if (rc != 0) return rc;
  disks->clear();
  int nErr = 0;
  int lineNo = 0;
  for (const std::string& line : readLines(cpath)) {
    lineNo++;
    std::vector<std::string> f = splitFields(line, 2);
    long long slot = 0;
    if (f.size() != 3 || !allDigits(f[0]) || !allDigits(f[1]) ||
        !ParseDecimal(f[0].c_str(), 0, INT_MAX, &slot)) {
      if (nErr++ == 0) badLine(cpath, lineNo, line, "slot,old,name");
      continue;
    }
    (*disks)[static_cast<int>(slot)] = ZELDisk(f[2], oddFlag(f[1]));
  }
  trace(4, "readDiskList('%s') size %d nErr %d", cpath, static_cast<int>(disks->size()), nErr);
  return nErr > 0 ? E_IO : 0;
}

int writeDiskList(const std::string& path, const DiskMap& disks) {
  std::vector<std::string> lines;
  for (const auto& d : disks) {
    lines.push_back(std::to_string(d.first) + (d.second.old ? ",1," : ",0,") + d.second.label);
  }
  return writeLines(path, "writeDiskList", lines);
}

bool isDiskDesc(const std::string& s) {
  if (s.size() < 16) return false;
  size_t pos = s.find_first_not_of("0123456789abcdefABCDEF");
  return pos == std::string::npos || s[pos] == ':';
}

bool isFilePrivate(const std::string& name) {
  return name.compare(0, 1, "_") == 0 || name.compare(0, 6, "genKey") == 0;
}
