// A node's block store or a tiebreaker disk: one file of kDiskSlots slots, each
// slot two copies in fixed regions (the file is sparse). A write goes to the
// copy that does not hold the newest valid block and is synced before it
// returns, so a torn write leaves the previous block readable.
#ifndef SERVER_BLOCKSTORE_H
#define SERVER_BLOCKSTORE_H

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/replica.h"
#include "server/slotcodec.h"

namespace zeld {

// Bytes of one copy's region; the file holds 2 * kDiskSlots of them.
constexpr long long kSlotRegionBytes = 8LL * 1024 * 1024;

class BlockStore : public Disk {
 public:
  // Opens an existing store: 0 or the open error (2 when there is none).
  static int Open(const std::string& path, std::shared_ptr<BlockStore>* out);
  // Creates the file, or empties an existing one, writes b into slot, and syncs
  // the file and its directory. For "init" (own store) and "pxinit" (disks).
  static int Init(const std::string& path, int slot, const SharedBlock& b);
  ~BlockStore() override;

  int writeRead(int writerId, int slot, const SharedBlock& b, std::vector<SlotBlock>* out) override;
  int read(std::vector<SlotBlock>* out) override;
  std::string label() const override { return path_; }

 private:
  struct CopyCache {
    bool valid = false;
    SlotHeader hdr;
    SharedBlock block;
  };
  BlockStore(const std::string& path, int fd) : path_(path), fd_(fd) {}
  int readAll(std::vector<SlotBlock>* out);
  // Reads slot's two headers and its newest valid copy; *newest is its index or -1.
  int readSlot(int slot, SlotBlock* out, int* newest, unsigned long long* maxGen);
  int readCopy(int slot, int copy, SlotHeader* hdr, bool* valid);
  int writeSlot(int writerId, int slot, const SharedBlock& b);

  std::string path_;
  int fd_;
  std::mutex mu_;
  CopyCache cache_[kDiskSlots][2];
};

}  // namespace zeld

#endif  // SERVER_BLOCKSTORE_H
