// An in-memory disk for engine tests: the same write rules as a block store,
// with switches to fail or refuse every call.
#ifndef TESTS_SUPPORT_MEMDISK_H
#define TESTS_SUPPORT_MEMDISK_H

#include <mutex>
#include <string>
#include <vector>

#include "server/replica.h"

class MemDisk : public zeld::Disk {
 public:
  explicit MemDisk(const std::string& name) : name_(name), slots_(zeld::kDiskSlots) {}
  int writeRead(int writerId, int slot, const SharedBlock& b,
                std::vector<zeld::SlotBlock>* out) override;
  int read(std::vector<zeld::SlotBlock>* out) override;
  std::string label() const override { return name_; }

  // Writes without the rules, as "init" and "pxinit" do.
  void init(int slot, const SharedBlock& b);
  void init(int slot, const Dblock& b) { init(slot, SharedBlock(b)); }
  // While set, every call fails with this code (0: works).
  void setFailure(int rc);
  std::vector<zeld::SlotBlock> slots() const;

 private:
  std::string name_;
  mutable std::mutex mu_;
  std::vector<zeld::SlotBlock> slots_;
  int failure_ = 0;
};

#endif  // TESTS_SUPPORT_MEMDISK_H
