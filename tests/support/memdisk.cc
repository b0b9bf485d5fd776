#include "memdisk.h"

#include "server/blockrules.h"

int MemDisk::writeRead(int writerId, int slot, const SharedBlock& b,
                       std::vector<zeld::SlotBlock>* out) {
  std::lock_guard<std::mutex> lock(mu_);
  if (failure_ != 0) return failure_;
  int rc = zeld::CheckBlockWrite(slots_, writerId, slot, b);
  if (rc == 0) {
    slots_[slot].present = true;
    slots_[slot].block = b;
  }
  *out = slots_;
  return rc;
}

int MemDisk::read(std::vector<zeld::SlotBlock>* out) {
  std::lock_guard<std::mutex> lock(mu_);
  if (failure_ != 0) return failure_;
  *out = slots_;
  return 0;
}

void MemDisk::init(int slot, const SharedBlock& b) {
  std::lock_guard<std::mutex> lock(mu_);
  slots_.assign(zeld::kDiskSlots, zeld::SlotBlock());
  slots_[slot].present = true;
  slots_[slot].block = b;
}

void MemDisk::setFailure(int rc) {
  std::lock_guard<std::mutex> lock(mu_);
  failure_ = rc;
}

std::vector<zeld::SlotBlock> MemDisk::slots() const {
  std::lock_guard<std::mutex> lock(mu_);
  return slots_;
}
