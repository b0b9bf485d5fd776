#include "server/blockstore.h"

#include <fcntl.h>

#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "server/blockrules.h"
#include "server/inputcheck.h"
#include "zel/paxosutils.h"

namespace zeld {

namespace {

off_t regionOffset(int slot, int copy) {
  return static_cast<off_t>((slot * 2 + copy) * kSlotRegionBytes);
}

}  // namespace

int BlockStore::Open(const std::string& path, std::shared_ptr<BlockStore>* out) {
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDWR, 0, &fd);
  if (rc != 0) return rc;
  out->reset(new BlockStore(path, fd));
  return 0;
}

int BlockStore::Init(const std::string& path, int slot, const SharedBlock& b) {
  if (slot < 0 || slot >= kDiskSlots) return 22;
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDWR | O_CREAT, 0600, &fd);
  if (rc != 0) return rc;
  BlockStore store(path, fd);  // closes fd
  rc = PlatFtruncate(fd, 0);
  if (rc == 0) rc = PlatFtruncate(fd, regionOffset(kDiskSlots, 0));
  if (rc == 0) rc = store.writeSlot(-1, slot, b);
  if (rc == 0) rc = PlatFsync(fd);
  if (rc == 0) {
    size_t cut = path.find_last_of('/');
    std::string dir = cut == std::string::npos ? "." : cut == 0 ? "/" : path.substr(0, cut);
    rc = PlatFsyncDir(dir.c_str());
  }
  if (rc != 0) trace(1, "block store %s: init failed (%d)", path.c_str(), rc);
  return rc;
}

BlockStore::~BlockStore() {
  PlatClose(fd_);
}

int BlockStore::readCopy(int slot, int copy, SlotHeader* hdr, bool* valid) {
  *valid = false;
  char raw[kSlotHeaderBytes];
  size_t got = 0;
  int rc = PlatPread(fd_, raw, sizeof raw, regionOffset(slot, copy), &got);
  if (rc != 0) return rc;
  CopyCache& c = cache_[slot][copy];
  if (DecodeSlotHeader(raw, got, hdr) != 0) {
    hdr->gen = 0;
    c.valid = false;
    return 0;
  }
  // A rewrite always takes a new generation, so an unchanged header is unchanged data.
  if (c.valid && c.hdr.gen == hdr->gen && c.hdr.crc == hdr->crc && c.hdr.length == hdr->length) {
    *valid = true;
    return 0;
  }
  c.valid = false;
  std::string buf(kSlotHeaderBytes + hdr->length, '\0');
  rc = PlatPread(fd_, &buf[0], buf.size(), regionOffset(slot, copy), &got);
  if (rc != 0) return rc;
  if (DecodeSlotCopy(buf.data(), got, &c.hdr, &c.block) != 0) return 0;
  c.valid = true;
  *valid = true;
  return 0;
}

int BlockStore::readSlot(int slot, SlotBlock* out, int* newest, unsigned long long* maxGen) {
  *newest = -1;
  *maxGen = 0;
  out->present = false;
  SlotHeader h[2];
  bool ok[2];
  for (int c = 0; c < 2; c++) {
    int rc = readCopy(slot, c, &h[c], &ok[c]);
    if (rc != 0) return rc;
    if (h[c].gen > *maxGen) *maxGen = h[c].gen;
  }
  if (ok[0] && (!ok[1] || h[0].gen >= h[1].gen)) *newest = 0;
  if (ok[1] && (!ok[0] || h[1].gen > h[0].gen)) *newest = 1;
  if (*newest >= 0) {
    out->present = true;
    out->block = cache_[slot][*newest].block;
  }
  return 0;
}

int BlockStore::readAll(std::vector<SlotBlock>* out) {
  out->assign(kDiskSlots, SlotBlock());
  for (int s = 0; s < kDiskSlots; s++) {
    int newest;
    unsigned long long gen;
    int rc = readSlot(s, &(*out)[s], &newest, &gen);
    if (rc != 0) {
      trace(2, "block store %s: read of slot %d failed (%d)", path_.c_str(), s, rc);
      return rc;
    }
  }
  return 0;
}

int BlockStore::writeSlot(int writerId, int slot, const SharedBlock& b) {
  SlotBlock cur;
  int newest;
  unsigned long long gen;
  int rc = readSlot(slot, &cur, &newest, &gen);
  if (rc != 0) return rc;
  int target = newest == 0 ? 1 : 0;
  std::string buf;
  rc = EncodeSlotCopy(b, gen + 1, writerId, &buf);
  if (rc != 0) return rc;
  CopyCache& c = cache_[slot][target];
  c.valid = false;
  rc = PlatPwrite(fd_, buf.data(), buf.size(), regionOffset(slot, target));
  if (rc == 0) rc = PlatFsync(fd_);
  if (rc != 0) {
    trace(1, "block store %s: write of slot %d failed (%d)", path_.c_str(), slot, rc);
    return rc;
  }
  // What was just written need not be read back and decoded.
  if (DecodeSlotHeader(buf.data(), buf.size(), &c.hdr) == 0) {
    c.block = b;
    c.valid = true;
  }
  return 0;
}

int BlockStore::writeRead(int writerId, int slot, const SharedBlock& b,
                          std::vector<SlotBlock>* out) {
  std::lock_guard<std::mutex> lock(mu_);
  int rc = readAll(out);
  if (rc != 0) return rc;
  if (!BlockEncodable(b)) return 22;
  rc = CheckBlockWrite(*out, writerId, slot, b);
  if (rc != 0) {
    trace(3, "block store %s: write of slot %d by node %d refused (%d)", path_.c_str(), slot,
          writerId, rc);
    return rc;
  }
  if ((*out)[slot].present && (*out)[slot].block == b) return 0;
  rc = writeSlot(writerId, slot, b);
  if (rc != 0) return rc;
  (*out)[slot].present = true;
  (*out)[slot].block = b;
  return 0;
}

int BlockStore::read(std::vector<SlotBlock>* out) {
  std::lock_guard<std::mutex> lock(mu_);
  return readAll(out);
}

}  // namespace zeld
