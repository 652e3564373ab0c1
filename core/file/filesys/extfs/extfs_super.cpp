// The ext volume: the superblock, the group descriptors and their
// checksums.  The checks are stricter than the format needs, because a
// volume that passes them is trusted for every size derived from them.
#include <cstring>
#include <new>

#include "common/text.h"
#include "extfs.h"
#include "filesys/mount_handler.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

namespace {

bool IsPowerOf(uint64_t value, uint64_t base) {
  while (value > 1 && value % base == 0) value /= base;
  return value == 1;
}

}  // namespace

ExtfsDriver::ExtfsDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                         uint32_t handlerId, const uint8_t* bitmap, uint64_t bitmapBits)
    : FileSystemDriverPosix(disk, startSector, sectors, handlerId),
      readOnly_(bitmapBits != 0),
      bitmap_(bitmap),
      bitmapBits_(bitmap ? bitmapBits : 0) {
  ReadSuperBlock();
  ReadGroupDescriptors();
}

ExtfsDriver::~ExtfsDriver() {
  // Directories hold inode handles and files; both go before the inodes,
  // and the inodes' pinned buffers before the base frees the cache.
  ReleaseObjects();
  while (!inodes_.empty()) {
    ExtfsInode* inode = inodes_.begin()->second;
    inodes_.erase(inodes_.begin());
    inodeList_.Remove(inode);
    delete inode;
  }
}

void ExtfsDriver::LoadSuperBlockCopy() {
  std::memset(sb_, 0, sizeof sb_);
  const uint32_t ss = SectorSize();
  if (ss == 0) THROW_ERROR(Corrupted);
  const uint64_t first = kSuperBlockOffset / ss;
  const uint64_t last = (kSuperBlockOffset + kSuperBlockSize - 1) / ss;
  SectorBufferRef b = GetBuffer(first, uint32_t(last - first + 1));
  if (uint64_t(b.SectorCount()) * ss < (last - first + 1) * ss) THROW_ERROR(Corrupted);
  std::memcpy(sb_, b.Data() + (kSuperBlockOffset - first * ss), kSuperBlockSize);
}

bool ExtfsDriver::VerifySuperBlockChecksum() const {
  return Crc32c(0xFFFFFFFF, sb_, kSbChecksum) == Get32(sb_ + kSbChecksum);
}

void ExtfsDriver::CheckFileSystemFeatures() {
  if ((incompat_ & ~kIncompatKnown) != 0) THROW_ERROR(NotSupported);
  if (Get32(sb_ + kSbRevision) > 1) THROW_ERROR(NotSupported);
  if (Get32(sb_ + kSbCreatorOs) != 0) THROW_ERROR(NotSupported);
  // Unknown read-only features change how the volume is written, not how
  // it reads.
  if ((roCompat_ & ~kRoKnown) != 0) readOnly_ = true;
}

void ExtfsDriver::ReadSuperBlock() {
  LoadSuperBlockCopy();
  if (Get16(sb_ + kSbMagic) != kMagic) THROW_ERROR(Corrupted);
  compat_ = Get32(sb_ + kSbCompat);
  incompat_ = Get32(sb_ + kSbIncompat);
  roCompat_ = Get32(sb_ + kSbRoCompat);

  if (HasMetadataCsum()) {
    if (HasRoCompat(kRoGdtCsum)) THROW_ERROR(Corrupted);
    if (sb_[kSbChecksumType] != 1) THROW_ERROR(NotSupported);
    if (!VerifySuperBlockChecksum()) THROW_ERROR(Corrupted);
    metadataSeed_ = Crc32c(0xFFFFFFFF, sb_ + kSbUuid, 16);
  }

  if (HasIncompat(kIncompatRecover)) {
    // The replay would show the journal's changes through an overlay and
    // the superblock would be read again through it.  No replay processor
    // is part of the loader, so here it fails and the volume stays
    // unmounted rather than read in a state its own journal contradicts.
    VirtualJournalReplay(*this, 0x30);
    LoadSuperBlockCopy();
    if (Get16(sb_ + kSbMagic) != kMagic) THROW_ERROR(Corrupted);
    incompat_ = Get32(sb_ + kSbIncompat) & ~kIncompatRecover;
    roCompat_ = Get32(sb_ + kSbRoCompat);
    compat_ = Get32(sb_ + kSbCompat);
  }

  CheckFileSystemFeatures();

  logBlockSize_ = Get32(sb_ + kSbLogBlockSize);
  if (logBlockSize_ > 6) THROW_ERROR(Corrupted);
  kind_ = 6;
  if (compat_ & kCompatHasJournal) kind_ = 5;
  if ((roCompat_ & 0x478) != 0 || (incompat_ & 0x3C0) != 0 || logBlockSize_ >= 4) kind_ = 4;

  blockSize_ = 1024u << logBlockSize_;
  if (blockSize_ % SectorSize() != 0) THROW_ERROR(Corrupted);
  sectorsPerBlock_ = blockSize_ / SectorSize();

  blocks_ = Get32(sb_ + kSbBlocksLo);
  if (HasIncompat(kIncompat64Bit)) blocks_ |= uint64_t(Get32(sb_ + kSbBlocksHi)) << 32;
  if (blocks_ == 0 || blocks_ > VolumeSectors() / sectorsPerBlock_) THROW_ERROR(Corrupted);

  if (HasIncompat(kIncompat64Bit)) {
    descSize_ = Get16(sb_ + kSbDescSize);
    if (descSize_ < 64 || descSize_ > 1024 || blockSize_ % descSize_ != 0) THROW_ERROR(Corrupted);
  } else {
    descSize_ = 32;
  }

  const uint32_t revision = Get32(sb_ + kSbRevision);
  if (revision == 1) {
    const uint32_t first = Get32(sb_ + kSbFirstInode);
    if (first <= 10) THROW_ERROR(Corrupted);
    firstInode_ = first - 1;
  } else {
    firstInode_ = 10;
  }

  blocksPerGroup_ = Get32(sb_ + kSbBlocksPerGroup);
  if (blocksPerGroup_ == 0 || blocksPerGroup_ > 8 * blockSize_) THROW_ERROR(Corrupted);
  inodesPerGroup_ = Get32(sb_ + kSbInodesPerGroup);
  if (inodesPerGroup_ == 0 || inodesPerGroup_ > 8 * blockSize_) THROW_ERROR(Corrupted);

  if (revision == 1) {
    inodeSize_ = Get16(sb_ + kSbInodeSize);
    if (inodeSize_ < 128) THROW_ERROR(Corrupted);
  } else {
    inodeSize_ = 128;
  }
  if (blockSize_ % inodeSize_ != 0) THROW_ERROR(Corrupted);

  if (HasRoCompat(kRoExtraIsize)) {
    const uint32_t minExtra = Get16(sb_ + kSbMinExtraIsize);
    const uint32_t wantExtra = Get16(sb_ + kSbWantExtraIsize);
    if (minExtra > wantExtra || inodeSize_ < wantExtra + 128) THROW_ERROR(Corrupted);
  }

  inodesPerBlock_ = blockSize_ / inodeSize_;
  if (inodesPerGroup_ % inodesPerBlock_ != 0) THROW_ERROR(Corrupted);
  inodeTableBlocks_ = inodesPerGroup_ / inodesPerBlock_;
  if (inodeTableBlocks_ == 0) THROW_ERROR(Corrupted);

  firstDataBlock_ = Get32(sb_ + kSbFirstDataBlock);
  if (blocks_ <= firstDataBlock_) THROW_ERROR(Corrupted);
  const uint64_t groups = (blocks_ - firstDataBlock_ - 1) / blocksPerGroup_ + 1;
  inodesCount_ = Get32(sb_ + kSbInodesCount);
  if (uint64_t(inodesPerGroup_) * groups != inodesCount_ || inodesCount_ <= firstInode_)
    THROW_ERROR(Corrupted);
  groups_ = uint32_t(groups);

  const uint32_t perBlock = blockSize_ / descSize_;
  gdBlocks_ = (groups_ - 1) / perBlock + 1;
  if (HasIncompat(kIncompatMetaBg)) {
    const uint32_t firstMeta = Get32(sb_ + kSbFirstMetaBg);
    if (firstMeta > gdBlocks_) THROW_ERROR(Corrupted);
    gdBlocks_ = firstMeta;
  }

  const uint64_t span = blocks_ - firstDataBlock_;
  const uint64_t room = span < blocksPerGroup_ ? span : blocksPerGroup_;
  const uint64_t need = uint64_t(inodeTableBlocks_) + 4 > gdBlocks_ ? uint64_t(inodeTableBlocks_) + 4 : gdBlocks_;
  if (room <= need) THROW_ERROR(Corrupted);

  if (HasIncompat(kIncompatFlexBg)) {
    const uint32_t log = sb_[kSbLogGroupsPerFlex];
    if (log > 31) THROW_ERROR(Corrupted);
    groupsPerFlex_ = 1u << log;
  } else {
    groupsPerFlex_ = 1;
  }

  if (firstDataBlock_ != (blockSize_ == 1024 ? 1u : 0u)) THROW_ERROR(NotSupported);
  if (Get32(sb_ + kSbLogClusterSize) != logBlockSize_) THROW_ERROR(NotSupported);
  if (Get32(sb_ + kSbClustersPerGroup) != blocksPerGroup_) THROW_ERROR(NotSupported);

  if (Get32(sb_ + kSbFreeInodes) > inodesCount_ - firstInode_) THROW_ERROR(Corrupted);
  uint64_t freeBlocks = Get32(sb_ + kSbFreeBlocksLo);
  uint64_t reserved = Get32(sb_ + kSbReservedLo);
  if (HasIncompat(kIncompat64Bit)) {
    freeBlocks |= uint64_t(Get32(sb_ + kSbFreeBlocksHi)) << 32;
    reserved |= uint64_t(Get32(sb_ + kSbReservedHi)) << 32;
  }
  if (freeBlocks >= blocks_ || reserved >= blocks_) THROW_ERROR(Corrupted);

  reservedGdtBlocks_ = Get16(sb_ + kSbReservedGdtBlocks);
  if ((compat_ & kCompatResizeInode) == 0 && reservedGdtBlocks_ != 0) THROW_ERROR(Corrupted);

  size_t labelBytes = 0;
  while (labelBytes < 16 && sb_[kSbLabel + labelBytes] != 0) ++labelBytes;
  label_ = Common::Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(sb_ + kSbLabel), labelBytes));
}

bool ExtfsDriver::GroupHasSuperBlock(uint64_t group) const {
  if (!HasRoCompat(kRoSparseSuper) || group <= 1) return true;
  return IsPowerOf(group, 3) || IsPowerOf(group, 5) || IsPowerOf(group, 7);
}

void ExtfsDriver::ReadGroupDescriptors() {
  const uint64_t total = uint64_t(groups_) * descSize_;
  descriptors_.assign(size_t(total), 0);
  dirtyGroups_.assign((size_t(groups_) + 7) / 8, 0);
  const uint32_t perBlock = blockSize_ / descSize_;
  for (uint32_t i = 0; i < gdBlocks_; ++i) {
    const uint64_t at = uint64_t(i) * blockSize_;
    if (at >= total) break;
    SectorBufferRef b = GetBlockBuffer(uint64_t(firstDataBlock_) + 1 + i);
    const uint64_t n = total - at < blockSize_ ? total - at : blockSize_;
    std::memcpy(descriptors_.data() + at, b.Data(), size_t(n));
  }
  // Behind the first meta group the descriptors lie in the groups they
  // describe: one block at the start of each meta group.
  for (uint64_t g = uint64_t(gdBlocks_) * perBlock; g < groups_; g += perBlock) {
    const uint64_t block = g * blocksPerGroup_ + firstDataBlock_ + (GroupHasSuperBlock(g) ? 1 : 0);
    SectorBufferRef b = GetBlockBuffer(block);
    const uint64_t at = g * descSize_;
    const uint64_t n = total - at < blockSize_ ? total - at : blockSize_;
    std::memcpy(descriptors_.data() + at, b.Data(), size_t(n));
  }
  VerifyGroupDescrs();
}

void ExtfsDriver::VerifyGroupDescrs() const {
  const bool metadata = HasMetadataCsum();
  if (!metadata && !HasRoCompat(kRoGdtCsum)) return;
  static const uint8_t kZero[2] = {0, 0};
  for (uint32_t g = 0; g < groups_; ++g) {
    const uint8_t* d = descriptors_.data() + size_t(g) * descSize_;
    const uint8_t number[4] = {uint8_t(g), uint8_t(g >> 8), uint8_t(g >> 16), uint8_t(g >> 24)};
    uint16_t sum;
    if (metadata) {
      uint32_t c = Crc32c(metadataSeed_, number, 4);
      c = Crc32c(c, d, kGdChecksum);
      c = Crc32c(c, kZero, 2);
      c = Crc32c(c, d + 32, descSize_ - 32);
      sum = uint16_t(c);
    } else {
      uint16_t c = Crc16(0xFFFF, sb_ + kSbUuid, 16);
      c = Crc16(c, number, 4);
      c = Crc16(c, d, kGdChecksum);
      c = Crc16(c, d + 32, descSize_ - 32);
      sum = c;
    }
    if (sum != Get16(d + kGdChecksum)) THROW_ERROR(Corrupted);
  }
}

// ---- the volume's operations

void ExtfsDriver::GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) {
  const uint64_t unit = uint64_t(SectorSize()) * sectorsPerBlock_;
  uint64_t freeBlocks = Get32(sb_ + kSbFreeBlocksLo);
  if (HasIncompat(kIncompat64Bit)) freeBlocks |= uint64_t(Get32(sb_ + kSbFreeBlocksHi)) << 32;
  total = unit * blocks_;
  free = available = unit * freeBlocks;
}

void ExtfsDriver::GetVolumeLabel(char16_t* buffer, uint32_t capacity) {
  if (buffer == nullptr || capacity == 0) return;
  const size_t n = label_.size() < capacity - 1 ? label_.size() : capacity - 1;
  std::memcpy(buffer, label_.data(), n * sizeof(char16_t));
  buffer[n] = 0;
}

void ExtfsDriver::PrepareToWrite() {
  if (readOnly_) THROW_ERROR(Common::Codes::ReadOnly);
  FileSystemDriverPosix::PrepareToWrite();
}

const char* ExtfsDriver::FSType() {
  switch (kind_) {
    case 6: return "Ext2";
    case 5: return "Ext3";
    case 4: return "Ext4";
  }
  THROW_ERROR(Corrupted);
}

FileSystemDriver::DirectoryObject* ExtfsDriver::OpenDirById(uint64_t id) {
  return new ExtfsDirectory(*this, id);
}

}  // namespace extfs

FileSystemMountHandler* CreateExt(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t*, const uint8_t* visibleBitmap,
                                  uint64_t bitmapBits) {
  try {
    return new extfs::ExtfsDriver(disk, startSector, sectors, handlerId, visibleBitmap, bitmapBits);
  } catch (const Common::Error&) {
  } catch (const std::bad_alloc&) {
  }
  return nullptr;
}
