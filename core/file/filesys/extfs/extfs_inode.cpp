// ext inodes: the table of open inodes, the inode's own fields and
// checksum, and the file object that reads a regular file's data.
#include <cstring>

#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

// ---- handles and the table

InodeRef::InodeRef(ExtfsInode* inode) noexcept : inode_(inode) {
  if (inode_) inode_->AddRef();
}

InodeRef::~InodeRef() {
  // An unreferenced inode stays in the table until the bound removes it.
  if (inode_) inode_->ReleaseRef();
}

InodeRef ExtfsDriver::OpenInode(uint32_t number) {
  if (number >= inodesCount_) throw Common::MakeError(ERROR_IN("Open"), Corrupted);
  auto it = inodes_.find(number);
  if (it != inodes_.end()) {
    inodeList_.MoveNewest(it->second);
    return InodeRef(it->second);
  }
  for (ExtfsInode* i = inodeList_.Oldest(); i != nullptr && inodes_.size() >= kMaxIdleInodes;) {
    ExtfsInode* next = i->lruNext;
    if (i->RefCount() == 0) ForgetInode(i);
    i = next;
  }
  auto inode = std::make_unique<ExtfsInode>(*this, number);
  inodes_.emplace(number, inode.get());
  inodeList_.PushNewest(inode.get());
  return InodeRef(inode.release());
}

void ExtfsDriver::ForgetInode(ExtfsInode* inode) {
  inodes_.erase(inode->Number());
  inodeList_.Remove(inode);
  delete inode;
}

// ---- the inode

ExtfsInode::ExtfsInode(ExtfsDriver& driver, uint32_t number) : number_(number), driver_(driver) {
  uint32_t offset = 0;
  {
    SectorBufferRef b = driver.GetInodeData(number, offset);
    raw_.assign(b.Data() + offset, b.Data() + offset + driver.InodeSize());
  }
  if (driver.HasMetadataCsum()) {
    const uint32_t n = number + 1;
    const uint8_t id[4] = {uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)};
    seed_ = Crc32c(driver.MetadataSeed(), id, 4);
    seed_ = Crc32c(seed_, raw_.data() + kInGeneration, 4);
    VerifyChecksum();
  }
  if (Get16(raw_.data() + kInLinks) == 0) throw Common::MakeError(ERROR_IN("ExtfsInode"), OpenError);
  processor_ = driver.GetLocationProcessor(Flags());
  cache_.seed = seed_;
  cache_.maxDepth = processor_->CacheDepth();
  cache_.levels.resize(size_t(cache_.maxDepth));
}

void ExtfsInode::VerifyChecksum() {
  static const uint8_t kZero[2] = {0, 0};
  const uint8_t* r = raw_.data();
  const uint32_t size = driver_.InodeSize();
  const uint32_t extra = size > 128 ? Get16(r + kInExtraIsize) : 0;
  const bool hasHigh = size > 128 && 128 + extra <= size && 128 + extra >= 132;
  uint32_t c = Crc32c(seed_, r, kInChecksumLo);
  c = Crc32c(c, kZero, 2);
  c = Crc32c(c, r + 126, 2);
  if (size > 128) c = Crc32c(c, r + 128, 2);
  if (hasHigh) {
    c = Crc32c(c, kZero, 2);
    c = Crc32c(c, r + 132, size - 132);
  }
  const uint32_t stored = Get16(r + kInChecksumLo) | (hasHigh ? uint32_t(Get16(r + kInChecksumHi)) << 16 : 0);
  if ((hasHigh ? c : (c & 0xFFFF)) != stored) THROW_ERROR(Corrupted);
}

uint16_t ExtfsInode::Mode() const { return Get16(raw_.data() + kInMode); }
uint32_t ExtfsInode::Flags() const { return Get32(raw_.data() + kInFlags); }
uint32_t ExtfsInode::Generation() const { return Get32(raw_.data() + kInGeneration); }

uint64_t ExtfsInode::GetSize() const {
  uint64_t size = Get32(raw_.data() + kInSizeLo);
  // Only regular files keep a high part; elsewhere the word is reused.
  if ((Mode() & kModeType) == kModeRegular) size |= uint64_t(Get32(raw_.data() + kInSizeHi)) << 32;
  return size;
}

uint64_t ExtfsInode::GetBlockCount() const {
  const uint8_t* r = raw_.data();
  uint64_t count = Get32(r + kInBlocksLo);
  bool inBlocks = false;
  if (driver_.HasRoCompat(kRoHugeFile)) {
    count |= uint64_t(Get16(r + kInBlocksHi)) << 32;
    inBlocks = (Flags() & kFlagHugeFile) != 0;
  } else if (Flags() & kFlagHugeFile) {
    THROW_ERROR(Corrupted);
  }
  if (!inBlocks) {
    const uint32_t shift = driver_.LogBlockSize() + 1;
    if (count & ((uint64_t(1) << shift) - 1)) THROW_ERROR(Corrupted);
    count >>= shift;
  }
  if (count >= driver_.Blocks()) THROW_ERROR(Corrupted);
  return count;
}

uint32_t ExtfsInode::GetLinkCount() const {
  const uint32_t links = Get16(raw_.data() + kInLinks);
  if (links == 1 && (Mode() & kModeType) == kModeDir) {
    // A directory past the link limit counts 1.
    if (!driver_.HasRoCompat(kRoDirNlink)) THROW_ERROR(Corrupted);
    return 65535;
  }
  return links;
}

uint32_t ExtfsInode::Owner() const {
  return Get16(raw_.data() + kInUidLo) | uint32_t(Get16(raw_.data() + kInUidHi)) << 16;
}

uint32_t ExtfsInode::Group() const {
  return Get16(raw_.data() + kInGidLo) | uint32_t(Get16(raw_.data() + kInGidHi)) << 16;
}

uint32_t ExtfsInode::DeviceMajor() const {
  const uint16_t type = Mode() & kModeType;
  if (type != kModeChar && type != kModeBlock) return 0;
  const uint32_t old = Get32(raw_.data() + kInBlock);
  if (old != 0) return (old >> 8) & 0xFF;
  return (Get32(raw_.data() + kInBlock + 4) >> 8) & 0xFFF;
}

uint32_t ExtfsInode::DeviceMinor() const {
  const uint16_t type = Mode() & kModeType;
  if (type != kModeChar && type != kModeBlock) return 0;
  const uint32_t old = Get32(raw_.data() + kInBlock);
  if (old != 0) return old & 0xFF;
  const uint32_t word = Get32(raw_.data() + kInBlock + 4);
  return ((word >> 12) & 0xFFF00) | (word & 0xFF);
}

bool ExtfsInode::ReachesExtra(size_t offset, size_t width) const {
  const uint32_t size = driver_.InodeSize();
  if (size == 128) return false;
  const uint32_t end = 128 + Get16(raw_.data() + kInExtraIsize);
  return end <= size && end >= offset + width;
}

uint64_t ExtfsInode::Time(size_t secondsOffset, size_t extraOffset) const {
  const int64_t s = int32_t(Get32(raw_.data() + secondsOffset));
  const uint32_t e = ReachesExtra(extraOffset, 4) ? Get32(raw_.data() + extraOffset) : 0;
  if (e == 0) return uint64_t(s * 1000);
  // The extra word widens the seconds by two bits and adds nanoseconds.
  const int64_t t = int64_t(uint64_t(s) | uint64_t(e & 3) << 32);
  const int64_t ms = (e >> 2) / 1000000;
  return uint64_t(t < 0 ? t * 1000 - ms : t * 1000 + ms);
}

uint64_t ExtfsInode::AccessTime() const { return Time(kInAtime, kInAtimeExtra); }
uint64_t ExtfsInode::ChangeTime() const { return Time(kInCtime, kInCtimeExtra); }
uint64_t ExtfsInode::ModificationTime() const { return Time(kInMtime, kInMtimeExtra); }
uint64_t ExtfsInode::CreationTime() const {
  if (!ReachesExtra(kInCrtime, 4)) return 0;
  return Time(kInCrtime, kInCrtimeExtra);
}

bool ExtfsInode::HasDataBlocks() const {
  uint64_t acl = Get32(raw_.data() + kInFileAclLo);
  if (driver_.HasIncompat(kIncompat64Bit)) acl |= uint64_t(Get16(raw_.data() + kInFileAclHi)) << 32;
  return GetBlockCount() > (acl != 0 ? 1u : 0u);
}

uint64_t ExtfsInode::FirstDataSector() {
  if (!HasDataBlocks()) return 0;
  return processor_->FirstPhysicalBlock(raw_.data() + kInBlock, cache_) * driver_.SectorsPerBlock();
}

uint64_t ExtfsInode::Lookup(uint64_t logical, uint64_t& count) {
  if (logical >= processor_->MaxLogicalBlocks()) throw Common::MakeError(ERROR_IN("Lookup"), SeekError);
  bool unwritten = false;
  count = 1;
  const uint64_t block = processor_->Lookup(raw_.data() + kInBlock, logical, count, unwritten, cache_);
  if (count == 0) THROW_ERROR(Corrupted);
  return unwritten ? ~uint64_t(0) : block;
}

const std::string& ExtfsInode::GetSymbolicLinkTarget() {
  if (linkLoaded_ || (Mode() & kModeType) != kModeSymlink) return link_;
  const uint32_t size = Get32(raw_.data() + kInSizeLo);
  const uint32_t bs = driver_.BlockSize();
  if (size == 0 || size > bs) THROW_ERROR(Corrupted);
  if (!HasDataBlocks()) {
    // A short target lives in the block map's place.
    if (size > kBlockMapBytes) THROW_ERROR(Corrupted);
    const uint32_t n = size == kBlockMapBytes ? size - 1 : size;
    link_.assign(reinterpret_cast<const char*>(raw_.data() + kInBlock), n);
  } else {
    uint64_t count = 0;
    const uint64_t block = Lookup(0, count);
    if (block == ~uint64_t(0)) THROW_ERROR(Corrupted);
    SectorBufferRef b = driver_.GetBlockBuffer(block);
    const uint32_t n = size == bs ? size - 1 : size;
    link_.assign(reinterpret_cast<const char*>(b.Data()), n);
  }
  linkLoaded_ = true;
  return link_;
}

}  // namespace extfs
