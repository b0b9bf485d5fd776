// Storage of the paxos state file and the names of committed files.
#include "zel/zelpaxosfile.h"

#include <fcntl.h>

#include <cstdio>
#include <memory>
#include <new>
#include <vector>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelutils.h"

namespace {

constexpr int kStoreFmtVersion = 1;
// A state holds one committed state, which travels in one message body; a file
// far larger than that is not a state file and is not read into memory.
constexpr long long kMaxStateFileBytes = 64LL << 20;

// Header and body for format version 1, with the CRC set; empty when out of memory.
std::vector<char> encodeStateFile(const PaxosFileData& pfd, unsigned long long clusterId,
                                  int writerId) {
  PaxosHeader h;
  h.magic = kPaxosMagic;
  h.fmtVersion = kStoreFmtVersion;
  h.cid = clusterId;
  h.lastWriterId = writerId;
  int size = h.getSize() + pfd.getSize(kStoreFmtVersion);
  h.len = static_cast<unsigned int>(size);
  std::vector<char> data(static_cast<size_t>(size));
  char* dataP = data.data();
  char* bufP = h.dump(dataP);
  bufP = pfd.dump(bufP, kStoreFmtVersion);
  ZASSERT_T(bufP == dataP + size, "bufP == dataP + size");
  h.setCRC(dataP, size);
  return data;
}

}  // namespace

int loadPaxosFile(const std::string& path, PaxosFileData* pfd, PaxosHeader* hdr,
                  unsigned long long* clusterId) {
  PlatFd fd;
  // A FIFO or a device here must not hang the command.
  int rc = PlatOpenRegular(path.c_str(), O_RDONLY, fd.out());
  if (rc != 0) {
    trace(1, "Open %s failed (%d)", path.c_str(), rc);
    if (rc == E_INVAL) SetErrorCause("'%s' is not a regular file", path.c_str());
    return rc;
  }
  struct stat st;
  rc = PlatFstat(fd.get(), &st);
  if (rc != 0) return rc;
  if (st.st_size > kMaxStateFileBytes) {
    SetErrorCause("'%s' is too large for a state file (%lld bytes)", path.c_str(),
                  static_cast<long long>(st.st_size));
    return E_BAD_PAXOS_DATA;
  }
  size_t size = static_cast<size_t>(st.st_size);
  std::unique_ptr<char[]> buf(new (std::nothrow) char[size > 0 ? size : 1]);
  if (!buf) return E_NOMEM;
  size_t got = 0;
  rc = PlatRead(fd.get(), buf.get(), size, &got);
  fd.reset();
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
  std::vector<char> data = encodeStateFile(pfd, clusterId, writerId);
  int size = static_cast<int>(data.size());
  char* dataP = data.data();
  PlatFd fd;
  int rc = PlatOpen(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644, fd.out());
  if (rc != 0) {
    trace(1, "PaxosLocalFile::storeToFile: open %s failed (%d)", path.c_str(), rc);
    return rc;
  }
  size_t put = 0;
  rc = PlatWrite(fd.get(), dataP, static_cast<size_t>(size), &put);
  int err;
  if (put == static_cast<size_t>(size)) {
    err = PlatFsync(fd.get());
    if (err != 0) {
      trace(1, "PaxosLocalFile::storeToFile() failed (err %d)", err);
      ZASSERT_T(err != E_OK, "err != E_OK");
    }
  } else {
    err = rc != 0 ? rc : E_IO;
    trace(1, "PaxosLocalFile::storeToFile() failed: wrote %d (expected %d) err %d",
          static_cast<int>(put), size, err);
  }
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
  std::vector<char> data = encodeStateFile(pfd, clusterId, zelNodeId);
  // Temporary file, sync, rename, directory sync; a failed step removes the
  // temporary file and leaves the target as it was.
  int rc = PlatAtomicReplace(zelPaxosLFDClientPath, data.data(), data.size(), 0644);
  if (rc != 0) {
    trace(1, "Storing paxos file data to '%s' failed (%d)", tmp.c_str(), rc);
    SetErrorCause("cannot write '%s': %s", zelPaxosLFDClientPath.c_str(), PlatStrError(rc));
    return rc;
  }
  trace(4, "Rename '%s' to '%s' successful", tmp.c_str(), zelPaxosLFDClientPath.c_str());
  return 0;
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
