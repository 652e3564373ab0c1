// ext2/3/4 on-disk records and constants.  Little-endian throughout; the
// superblock and the inode are read by field offset, since only part of
// each matters and their tails depend on sizes found at run time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "filesys/ondisk.h"

namespace extfs::Format {

using OnDisk::Le16;
using OnDisk::Le32;

inline uint16_t Get16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t Get32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// ---- superblock, 1024 bytes at byte 1024 of the volume
inline constexpr uint32_t kSuperBlockOffset = 1024;
inline constexpr uint32_t kSuperBlockSize = 1024;
enum SuperField : size_t {
  kSbInodesCount = 0x00,
  kSbBlocksLo = 0x04,
  kSbReservedLo = 0x08,
  kSbFreeBlocksLo = 0x0C,
  kSbFreeInodes = 0x10,
  kSbFirstDataBlock = 0x14,
  kSbLogBlockSize = 0x18,
  kSbLogClusterSize = 0x1C,
  kSbBlocksPerGroup = 0x20,
  kSbClustersPerGroup = 0x24,
  kSbInodesPerGroup = 0x28,
  kSbMagic = 0x38,
  kSbCreatorOs = 0x48,
  kSbRevision = 0x4C,
  kSbFirstInode = 0x54,
  kSbInodeSize = 0x58,
  kSbCompat = 0x5C,
  kSbIncompat = 0x60,
  kSbRoCompat = 0x64,
  kSbUuid = 0x68,
  kSbLabel = 0x78,
  kSbReservedGdtBlocks = 0xCE,
  kSbHashSeed = 0xEC,
  kSbDefHashVersion = 0xFC,
  kSbDescSize = 0xFE,
  kSbFirstMetaBg = 0x104,
  kSbBlocksHi = 0x150,
  kSbReservedHi = 0x154,
  kSbFreeBlocksHi = 0x158,
  kSbMinExtraIsize = 0x15C,
  kSbWantExtraIsize = 0x15E,
  kSbLogGroupsPerFlex = 0x174,
  kSbChecksumType = 0x175,
  kSbChecksum = 0x3FC,
};
inline constexpr uint16_t kMagic = 0xEF53;

inline constexpr uint32_t kCompatHasJournal = 0x4;
inline constexpr uint32_t kCompatResizeInode = 0x10;
inline constexpr uint32_t kIncompatFiletype = 0x2;
inline constexpr uint32_t kIncompatRecover = 0x4;
inline constexpr uint32_t kIncompatMetaBg = 0x10;
inline constexpr uint32_t kIncompatExtents = 0x40;
inline constexpr uint32_t kIncompat64Bit = 0x80;
inline constexpr uint32_t kIncompatFlexBg = 0x200;
inline constexpr uint32_t kIncompatKnown = 0x2D6;
inline constexpr uint32_t kRoSparseSuper = 0x1;
inline constexpr uint32_t kRoLargeFile = 0x2;
inline constexpr uint32_t kRoHugeFile = 0x8;
inline constexpr uint32_t kRoGdtCsum = 0x10;
inline constexpr uint32_t kRoDirNlink = 0x20;
inline constexpr uint32_t kRoExtraIsize = 0x40;
inline constexpr uint32_t kRoMetadataCsum = 0x400;
inline constexpr uint32_t kRoKnown = 0x47B;

// ---- group descriptor (32 bytes, or the superblock's size with 64BIT)
enum DescField : size_t {
  kGdBlockBitmapLo = 0,
  kGdInodeBitmapLo = 4,
  kGdInodeTableLo = 8,
  kGdChecksum = 30,
  kGdBlockBitmapHi = 32,
  kGdInodeBitmapHi = 36,
  kGdInodeTableHi = 40,
};

// ---- inode
enum InodeField : size_t {
  kInMode = 0,
  kInUidLo = 2,
  kInSizeLo = 4,
  kInAtime = 8,
  kInCtime = 12,
  kInMtime = 16,
  kInGidLo = 24,
  kInLinks = 26,
  kInBlocksLo = 28,
  kInFlags = 32,
  kInBlock = 40,
  kInGeneration = 100,
  kInFileAclLo = 104,
  kInSizeHi = 108,
  kInBlocksHi = 116,
  kInFileAclHi = 118,
  kInUidHi = 120,
  kInGidHi = 122,
  kInChecksumLo = 124,
  kInExtraIsize = 128,
  kInChecksumHi = 130,
  kInCtimeExtra = 132,
  kInMtimeExtra = 136,
  kInAtimeExtra = 140,
  kInCrtime = 144,
  kInCrtimeExtra = 148,
};
inline constexpr size_t kBlockMapBytes = 60;
inline constexpr uint32_t kFlagIndex = 0x1000;
inline constexpr uint32_t kFlagHugeFile = 0x40000;
inline constexpr uint32_t kFlagExtents = 0x80000;

inline constexpr uint16_t kModeType = 0xF000;
inline constexpr uint16_t kModeFifo = 0x1000;
inline constexpr uint16_t kModeChar = 0x2000;
inline constexpr uint16_t kModeDir = 0x4000;
inline constexpr uint16_t kModeBlock = 0x6000;
inline constexpr uint16_t kModeRegular = 0x8000;
inline constexpr uint16_t kModeSymlink = 0xA000;
inline constexpr uint16_t kModeSocket = 0xC000;

// ---- extent tree
struct ExtentHeader {
  Le16 magic;
  Le16 entries;
  Le16 capacity;
  Le16 depth;
  Le32 generation;
};
struct ExtentIndex {
  Le32 logical;
  Le32 childLo;
  Le16 childHi;
  Le16 unused;
};
struct Extent {
  Le32 logical;
  Le16 length;
  Le16 startHi;
  Le32 startLo;
};
static_assert(sizeof(ExtentHeader) == 12 && sizeof(ExtentIndex) == 12 && sizeof(Extent) == 12);
inline constexpr uint16_t kExtentMagic = 0xF30A;
inline constexpr uint32_t kMaxInitializedLength = 32768;

// ---- directories
struct DirEntry {
  Le32 inode;
  Le16 recordLength;
  uint8_t nameLength;
  uint8_t fileType;
  char name[1];  // nameLength bytes, not terminated
};
static_assert(offsetof(DirEntry, recordLength) == 4 && offsetof(DirEntry, name) == 8);
inline constexpr uint32_t kDirEntryHeader = 8;
inline constexpr uint32_t kTailSize = 12;
inline constexpr uint8_t kTailMarker = 0xDE;

struct DxEntry {
  Le32 hash;  // limit and count in entry 0
  Le32 block;
};
static_assert(sizeof(DxEntry) == 8);
enum DxRootField : size_t {
  kDxHashVersion = 28,
  kDxInfoLength = 29,
  kDxIndirectLevels = 30,
  kDxRootTable = 32,
  kDxNodeTable = 8,
};

}  // namespace extfs::Format
