// Storage of the paxos state file and the names of committed files.
#include "zel/zelpaxosfile.h"

#include <fcntl.h>

#include <cstdio>
#include <memory>
#include <new>

#include "platform/pfile.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelutils.h"

namespace {

constexpr int kStoreFmtVersion = 1;

}  // namespace

int loadPaxosFile(const std::string& path, PaxosFileData* pfd, PaxosHeader* hdr,
                  unsigned long long* clusterId) {
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDONLY, 0, &fd);
  if (rc != 0) {
    trace(1, "Open %s failed (%d)", path.c_str(), rc);
    return rc;
  }
  struct stat st;
  rc = PlatFstat(fd, &st);
  ZASSERT_T(rc == 0, "rc == 0");
  size_t size = static_cast<size_t>(st.st_size);
  std::unique_ptr<char[]> buf(new (std::nothrow) char[size > 0 ? size : 1]);
  if (!buf) {
    PlatClose(fd);
    return E_NOMEM;
  }
  size_t got = 0;
  rc = PlatRead(fd, buf.get(), size, &got);
  PlatClose(fd);
  if (got < size) {
    trace(1, "PaxosFileData::loadFromFile() failed: read %d (expected %d)", static_cast<int>(got),
          static_cast<int>(size));
    return rc != 0 ? rc : E_IO;
  }

  const char* start = buf.get();
  const char* end = start + size;
  PaxosHeader h;
  const char* body = h.load(start, end);
  const char* e = pfd->load(body, end, static_cast<int>(h.fmtVersion));
  int status = 0;
  if (e == nullptr || h.validate(start, end) != 0) status = E_BAD_PAXOS_DATA;
  if (*clusterId != 0 && h.cid != 0 && h.cid != *clusterId) {
    trace(1, "PaxosFileData::loadFromFile(): cluster id %llu of '%s' is not %llu", h.cid,
          path.c_str(), *clusterId);
    status = E_BAD_PAXOS_DATA;
  }
  if (*clusterId == 0) *clusterId = h.cid;
  trace(6, "Bytes processed (file: '%s'): %d", path.c_str(),
        e == nullptr ? 0 : static_cast<int>(e - start));
  if (hdr != nullptr) *hdr = h;
  return status;
}

int storePaxosFile(const std::string& path, const PaxosFileData& pfd, unsigned long long clusterId,
                   int writerId) {
  PaxosHeader h;
  h.magic = kPaxosMagic;
  h.fmtVersion = kStoreFmtVersion;
  h.cid = clusterId;
  h.lastWriterId = writerId;
  int size = h.getSize() + pfd.getSize(kStoreFmtVersion);
  h.len = static_cast<unsigned int>(size);
  std::unique_ptr<char[]> data(new (std::nothrow) char[size]);
  if (!data) return E_NOMEM;
  char* dataP = data.get();
  char* bufP = h.dump(dataP);
  bufP = pfd.dump(bufP, kStoreFmtVersion);
  ZASSERT_T(bufP == dataP + size, "bufP == dataP + size");
  h.setCRC(dataP, size);

  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644, &fd);
  if (rc != 0) {
    trace(1, "PaxosLocalFile::storeToFile: open %s failed (%d)", path.c_str(), rc);
    return rc;
  }
  size_t put = 0;
  rc = PlatWrite(fd, dataP, static_cast<size_t>(size), &put);
  int err;
  if (put == static_cast<size_t>(size)) {
    err = PlatFsync(fd);
    if (err != 0) {
      trace(1, "PaxosLocalFile::storeToFile() failed (err %d)", err);
      ZASSERT_T(err != E_OK, "err != E_OK");
    }
  } else {
    err = rc != 0 ? rc : E_IO;
    trace(1, "PaxosLocalFile::storeToFile() failed: wrote %d (expected %d) err %d",
          static_cast<int>(put), size, err);
  }
  PlatClose(fd);
  return err;
}

int loadPFDFromFile(int* seq, CommittedState* committed, unsigned long long* clusterId) {
  PaxosFileData pfd;
  int rc = loadPaxosFile(zelPaxosLFDClientPath, &pfd, nullptr, clusterId);
  if (rc != 0) {
    trace(1, "Loading paxos file data from '%s' failed (%d)", zelPaxosLFDClientPath.c_str(), rc);
    return rc;
  }
  trace(4, "Loading paxos file data from '%s' successful", zelPaxosLFDClientPath.c_str());
  *committed = pfd.summary.committed;
  *seq = pfd.summary.seq;
  return 0;
}

int storePFDToFile(int seq, const CommittedState& committed, unsigned long long clusterId) {
  PaxosFileData pfd;
  pfd.summary.committed = committed;
  pfd.summary.seq = seq;
  std::string tmp = tmpFileName(zelPaxosLFDClientPath);
  int rc = storePaxosFile(tmp, pfd, clusterId, zelNodeId);
  if (rc != 0) {
    // The temporary file stays for inspection; the target is untouched.
    trace(1, "Storing paxos file data to '%s' failed (%d)", tmp.c_str(), rc);
    return rc;
  }
  trace(4, "Storing paxos file data to '%s' successful", tmp.c_str());
  rc = PlatRename(tmp.c_str(), zelPaxosLFDClientPath.c_str());
  if (rc != 0) {
    trace(1, "Rename '%s' to '%s' failed (%d)", tmp.c_str(), zelPaxosLFDClientPath.c_str(), rc);
  } else {
    trace(4, "Rename '%s' to '%s' successful", tmp.c_str(), zelPaxosLFDClientPath.c_str());
  }
  return rc;
}

std::string committedFilePath(const std::string& name, int fileId, int version, unsigned int crc,
                              const UpdateId& uid) {
  char nums[64];
  snprintf(nums, sizeof nums, ".%d.%d.%x.", fileId, version, crc);
  return GetPath(CommittedDir) + "/" + name + nums + uid.uidString();
}

std::string committedFilePath(const ProposedUpdate& inp) {
  ZASSERT_T(inp.updateType() == ProposedUpdate::fileUpdate,
            "inp.updateType == ProposedUpdate::fileUpdate");
  const FileUpdate* fu = inp.getFileUpdate();
  ZASSERT_T(fu != nullptr, "inp.updateType == ProposedUpdate::fileUpdate");
  return committedFilePath(fu->name, fu->fileId, inp.version, fu->crc, inp.uid);
}

std::string committedFilePath(const std::string& name, int fileId,
                              const CommittedState& committed) {
  auto it = committed.fileList.find(fileId);
  if (it == committed.fileList.end()) return std::string();
  return committedFilePath(name, fileId, it->second.version, it->second.crc, it->second.uid);
}
