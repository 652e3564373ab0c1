// Services of the ext volume for its inodes and directories: blocks by
// number, group descriptors and the place of a raw inode.
#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

SectorBufferRef ExtfsDriver::GetBlockBuffer(uint64_t block, bool noRead) {
  if (block >= blocks_) THROW_ERROR(Corrupted);
  SectorBufferRef b = GetBuffer(block * sectorsPerBlock_, sectorsPerBlock_, noRead);
  // A buffer at the same sector made for something shorter cannot stand
  // for the block.
  if (b.SectorCount() < sectorsPerBlock_) THROW_ERROR(Corrupted);
  return b;
}

void ExtfsDriver::ReadBlocksNoCache(void* buffer, uint64_t block, uint64_t count) {
  if (block + count < block || block + count > blocks_) THROW_ERROR(Corrupted);
  ReadNoCache(buffer, block * sectorsPerBlock_, count * sectorsPerBlock_, sectorsPerBlock_, 0);
}

const uint8_t* ExtfsDriver::GetGroupDescriptor(uint32_t group) const {
  if (group >= groups_) THROW_ERROR(Corrupted);
  return descriptors_.data() + size_t(group) * descSize_;
}

bool ExtfsDriver::IsHidden(uint32_t number) const {
  if (bitmap_ == nullptr || bitmapBits_ == 0) return false;
  if (number >= bitmapBits_) return true;
  return (bitmap_[number / 8] & (1u << (number % 8))) == 0;
}

SectorBufferRef ExtfsDriver::GetInodeData(uint32_t number, uint32_t& offset) {
  if (number >= inodesCount_ || (bitmap_ != nullptr && bitmapBits_ != 0 && IsHidden(number)))
    THROW_ERROR(Corrupted);
  const uint32_t group = number / inodesPerGroup_;
  const uint32_t index = number % inodesPerGroup_;
  const uint8_t* d = GetGroupDescriptor(group);
  uint64_t table = Get32(d + kGdInodeTableLo);
  if (HasIncompat(kIncompat64Bit)) table |= uint64_t(Get32(d + kGdInodeTableHi)) << 32;
  // A table at the very top of the block numbers would wrap back into the
  // volume.
  if (table >= blocks_) THROW_ERROR(Corrupted);
  offset = (number % inodesPerBlock_) * inodeSize_;
  return GetBlockBuffer(table + index / inodesPerBlock_);
}

InodeLocationProcessor* ExtfsDriver::GetLocationProcessor(uint32_t flags) {
  if (flags & kFlagExtents) {
    if (!HasIncompat(kIncompatExtents)) THROW_ERROR(Corrupted);
    if (!extents_) extents_ = std::make_unique<ExtentsLocationProcessor>(*this);
    return extents_.get();
  }
  if (!legacy_) legacy_ = std::make_unique<LegacyLocationProcessor>(*this);
  return legacy_.get();
}

}  // namespace extfs
