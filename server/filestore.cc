#include "server/filestore.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "server/rules.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace zeld {

namespace {

const char kStagingPrefix[] = "f.";

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return out;
  while (struct dirent* e = ::readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") out.push_back(n);
  }
  ::closedir(d);
  return out;
}

bool parseInt(const std::string& s, int base, long long lo, long long hi, long long* out) {
  if (s.empty() || s.size() > 16) return false;
  char* end = nullptr;
  long long v = strtoll(s.c_str(), &end, base);
  if (*end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int ensureDir(const std::string& dir) {
  int rc = PlatMkdir(dir.c_str(), 0755);
  return rc == EEXIST ? 0 : rc;
}

// The CRC of a whole file, as the transfer computes it.
int fileCrc(const std::string& path, unsigned int* crc) {
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDONLY, 0, &fd);
  if (rc != 0) return rc;
  std::vector<char> buf(1 << 20);
  unsigned int c = 0;
  unsigned long total = 0;
  for (;;) {
    size_t got = 0;
    rc = PlatRead(fd, buf.data(), buf.size(), &got);
    if (rc != 0 || got == 0) break;
    c = partialcrc(reinterpret_cast<unsigned char*>(buf.data()), got, c);
    total += got;
  }
  PlatClose(fd);
  *crc = finalcrc(c, total);
  return rc;
}

}  // namespace

std::string CommittedFileName(const std::string& name, int fileId, const FileVersion& fv) {
  char crc[16];
  snprintf(crc, sizeof crc, "%x", fv.crc);
  return name + "." + std::to_string(fileId) + "." + std::to_string(fv.version) + "." + crc + "." +
         fv.uid.uidString();
}

bool ParseCommittedFileName(const std::string& file, std::string* name, int* fileId,
                            FileVersion* fv) {
  // Parsed from the right: the name itself may contain dots.
  std::string parts[4];
  std::string rest = file;
  for (int i = 3; i >= 0; i--) {
    size_t dot = rest.rfind('.');
    if (dot == std::string::npos) return false;
    parts[i] = rest.substr(dot + 1);
    rest.resize(dot);
  }
  long long id = 0, ver = 0, crc = 0;
  UpdateId uid;
  if (rest.empty() || !parseInt(parts[0], 10, 1, 0x7fffffff, &id) ||
      !parseInt(parts[1], 10, 0, 0x7fffffff, &ver) ||
      !parseInt(parts[2], 16, 0, 0xffffffff, &crc) || uid.parse(parts[3]) != 0 ||
      uid.uidString() != parts[3]) {
    return false;
  }
  *name = rest;
  *fileId = static_cast<int>(id);
  *fv = FileVersion(static_cast<int>(ver), uid, static_cast<unsigned int>(crc));
  return CommittedFileName(*name, *fileId, *fv) == file;
}

FileStore::FileStore(const std::string& committedDir, const std::string& stagingDir,
                     const std::string& mapPath)
    : committedDir_(committedDir), stagingDir_(stagingDir), mapPath_(mapPath) {}

int FileStore::open() {
  std::lock_guard<std::mutex> g(mu_);
  int rc = ensureDir(committedDir_);
  if (rc == 0) rc = ensureDir(stagingDir_);
  if (rc != 0) return rc;
  std::string data;
  rc = PlatReadFile(mapPath_, &data);
  if (rc == 0) {
    const char* end = data.data() + data.size();
    if (map_.load(data.data(), end) != end) return E_BAD_PAXOS_DATA;
  } else if (rc != ENOENT) {
    return rc;
  }
  for (const auto& [id, item] : map_) byName_[item.name] = id;
  bool mapChanged = false;
  for (const std::string& f : listDir(committedDir_)) {
    std::string name;
    int id = 0;
    FileVersion fv;
    if (!ParseCommittedFileName(f, &name, &id, &fv)) continue;
    copies_[id].push_back(Copy{name, fv});
    if (map_.find(id) == map_.end() && byName_.find(name) == byName_.end()) {
      map_[id] = FileItem{name, "", 0};
      byName_[name] = id;
      mapChanged = true;
    }
  }
  for (auto& [id, list] : copies_) {
    std::sort(list.begin(), list.end(),
              [](const Copy& a, const Copy& b) { return a.fv.version < b.fv.version; });
  }
  return mapChanged ? saveMapLocked() : 0;
}

int FileStore::saveMapLocked() {
  std::string data(static_cast<size_t>(map_.getSize()), '\0');
  char* e = map_.dump(&data[0]);
  ZASSERT(e == data.data() + data.size());
  return PlatWriteFileDurably(mapPath_, data);
}

int FileStore::idFor(const std::string& name, const CommittedState& s, int* id) {
  if (name == kNodesFileName) {
    *id = kNodesFileId;
    std::lock_guard<std::mutex> g(mu_);
    if (map_.find(kNodesFileId) != map_.end()) return 0;
    map_[kNodesFileId] = FileItem{name, "", 0};
    byName_[name] = kNodesFileId;
    return saveMapLocked();
  }
  std::lock_guard<std::mutex> g(mu_);
  auto it = byName_.find(name);
  if (it != byName_.end()) {
    *id = it->second;
    return 0;
  }
  int top = kNodesFileId;
  if (!map_.empty()) top = std::max(top, map_.rbegin()->first);
  if (!s.fileList.empty()) top = std::max(top, s.fileList.rbegin()->first);
  if (top == 0x7fffffff) return ENOSPC;
  map_[top + 1] = FileItem{name, "", 0};
  int rc = saveMapLocked();
  if (rc != 0) {
    map_.erase(top + 1);
    return rc;
  }
  byName_[name] = top + 1;
  *id = top + 1;
  return 0;
}

int FileStore::lookup(const std::string& name) const {
  if (name == kNodesFileName) return kNodesFileId;
  std::lock_guard<std::mutex> g(mu_);
  auto it = byName_.find(name);
  return it == byName_.end() ? -1 : it->second;
}

std::string FileStore::nameOf(int id) const {
  if (id == kNodesFileId) return kNodesFileName;
  std::lock_guard<std::mutex> g(mu_);
  auto it = map_.find(id);
  return it == map_.end() ? std::string() : it->second.name;
}

int FileStore::learn(const std::string& name, int id) {
  if (id == kNodesFileId) return 0;
  std::lock_guard<std::mutex> g(mu_);
  auto byName = byName_.find(name);
  auto byId = map_.find(id);
  if (byName != byName_.end() && byName->second == id && byId != map_.end() &&
      byId->second.name == name) {
    return 0;
  }
  if (byName != byName_.end()) map_.erase(byName->second);
  if (byId != map_.end()) byName_.erase(byId->second.name);
  map_[id] = FileItem{name, "", 0};
  byName_[name] = id;
  return saveMapLocked();
}

int FileStore::nextId(const CommittedState& s) const {
  std::lock_guard<std::mutex> g(mu_);
  int top = kNodesFileId;
  if (!map_.empty()) top = std::max(top, map_.rbegin()->first);
  if (!s.fileList.empty()) top = std::max(top, s.fileList.rbegin()->first);
  return top == 0x7fffffff ? -1 : top + 1;
}

bool FileStore::holds(int fileId, const FileVersion& fv) const {
  std::lock_guard<std::mutex> g(mu_);
  auto it = copies_.find(fileId);
  if (it == copies_.end()) return false;
  for (const Copy& c : it->second)
    if (c.fv.version == fv.version && c.fv.uid == fv.uid) return true;
  return false;
}

std::string FileStore::latestPath(int fileId) const {
  std::lock_guard<std::mutex> g(mu_);
  auto it = copies_.find(fileId);
  if (it == copies_.end() || it->second.empty()) return std::string();
  const Copy* best = &it->second.front();
  for (const Copy& c : it->second)
    if (c.fv.version > best->fv.version) best = &c;
  return committedPath(best->name, fileId, best->fv);
}

FileIdMap FileStore::idMap() const {
  std::lock_guard<std::mutex> g(mu_);
  FileIdMap m = map_;
  m[kNodesFileId] = FileItem{kNodesFileName, "", 0};
  return m;
}

std::string FileStore::stagingName(const UpdateId& uid) {
  unsigned long long n;
  {
    std::lock_guard<std::mutex> g(mu_);
    n = ++stagingCounter_;
  }
  return stagingDir_ + "/" + kStagingPrefix + uid.uidString() + "." + std::to_string(n);
}

int FileStore::createStaging(const UpdateId& uid, std::string* path, int* fd) {
  *path = stagingName(uid);
  return PlatOpen(path->c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644, fd);
}

std::string FileStore::committedPath(const std::string& name, int fileId,
                                     const FileVersion& fv) const {
  return committedDir_ + "/" + CommittedFileName(name, fileId, fv);
}

void FileStore::pruneLocked(int fileId, size_t keep) {
  auto it = copies_.find(fileId);
  if (it == copies_.end()) return;
  std::vector<Copy>& list = it->second;
  while (list.size() > keep) {
    PlatUnlink(committedPath(list.front().name, fileId, list.front().fv).c_str());
    list.erase(list.begin());
  }
}

int FileStore::commit(const std::string& stagingPath, const ProposedUpdate& u) {
  const FileUpdate* f = u.getFileUpdate();
  if (f == nullptr) return E_INVAL;
  FileVersion fv(u.version, u.uid, f->crc);
  std::string target = committedPath(f->name, f->fileId, fv);
  int rc = PlatLink(stagingPath.c_str(), target.c_str());
  if (rc == EEXIST) rc = 0;
  if (rc == 0) rc = PlatFsyncDir(committedDir_.c_str());
  if (rc != 0) {
    trace(1, "linking '%s' to '%s' failed (err %d)", stagingPath.c_str(), target.c_str(), rc);
    return rc;
  }
  PlatUnlink(stagingPath.c_str());
  std::lock_guard<std::mutex> g(mu_);
  std::vector<Copy>& list = copies_[f->fileId];
  bool known = false;
  for (const Copy& c : list) known = known || c.fv == fv;
  if (!known) list.push_back(Copy{f->name, fv});
  pruneLocked(f->fileId, 2);
  return 0;
}

void FileStore::forget(int fileId) {
  std::lock_guard<std::mutex> g(mu_);
  pruneLocked(fileId, 1);
}

std::vector<std::string> FileStore::stagingFiles() const {
  return listDir(stagingDir_);
}

int FileStore::commitFromStaging(const std::vector<std::string>& names, const ProposedUpdate& u) {
  const FileUpdate* f = u.getFileUpdate();
  if (f == nullptr) return ENOENT;
  std::string prefix = kStagingPrefix + u.uid.uidString() + ".";
  for (const std::string& n : names) {
    if (n.compare(0, prefix.size(), prefix) != 0) continue;
    std::string path = stagingDir_ + "/" + n;
    unsigned int crc = 0;
    if (fileCrc(path, &crc) != 0 || crc != f->crc) continue;
    return commit(path, u);
  }
  return ENOENT;
}

int FileStore::reconcile(const CommittedState& s, const std::vector<std::string>& names,
                         bool removeOthers) {
  int result = 0;
  for (const std::string& f : names) {
    std::string path = stagingDir_ + "/" + f;
    // "f.<uid>.<n>": a staging file whose update the state holds and whose copy is missing.
    size_t dot = f.find('.', 2);
    UpdateId uid;
    bool linked = false;
    if (f.compare(0, 2, kStagingPrefix) == 0 && dot != std::string::npos &&
        uid.parse(f.substr(2, dot - 2)) == 0 && !uid.isNull()) {
      for (const auto& [id, fv] : s.fileList) {
        if (fv.uid != uid) continue;
        std::string name;
        {
          std::lock_guard<std::mutex> g(mu_);
          auto it = map_.find(id);
          if (it != map_.end()) name = it->second.name;
        }
        unsigned int crc = 0;
        if (name.empty() || fileCrc(path, &crc) != 0 || crc != fv.crc) break;
        ProposedUpdate u(uid, FileUpdate(name, id, 0, crc), fv.version);
        int rc = commit(path, u);
        if (rc != 0) result = rc;
        linked = rc == 0;
        break;
      }
    }
    if (!linked && removeOthers) {
      trace(3, "removing abandoned staging file '%s'", path.c_str());
      PlatUnlink(path.c_str());
    }
  }
  return result;
}

int FileStore::openVersion(int fileId, int version, const UpdateId& uid, int* fd, long long* size,
                           unsigned int* crc) const {
  std::string path;
  {
    std::lock_guard<std::mutex> g(mu_);
    auto it = copies_.find(fileId);
    if (it == copies_.end()) return ENOENT;
    for (const Copy& c : it->second) {
      if (c.fv.version == version && c.fv.uid == uid) {
        path = committedPath(c.name, fileId, c.fv);
        *crc = c.fv.crc;
      }
    }
    if (path.empty()) return ENOENT;
    // Opened under the lock: a later prune may unlink the name, never the open file.
    int rc = PlatOpen(path.c_str(), O_RDONLY, 0, fd);
    if (rc != 0) return rc;
  }
  struct stat st;
  int rc = PlatFstat(*fd, &st);
  if (rc != 0) {
    PlatClose(*fd);
    *fd = -1;
    return rc;
  }
  *size = st.st_size;
  return 0;
}

}  // namespace zeld
