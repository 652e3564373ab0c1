// FAT12, FAT16 and FAT32 as they lie on the disk.  All numbers are
// little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "filesys/ondisk.h"

namespace Fat {

using OnDisk::Le16;
using OnDisk::Le32;

// The boot sector up to the end of the FAT32 extension.  The fields from
// 0x24 on differ between the layouts; both views are given.
struct BootSector {
  uint8_t jump[3];            // 0xEB xx 0x90 or 0xE9 xx xx
  uint8_t oemName[8];
  Le16 bytesPerSector;        // not read: the disk's sector size rules
  uint8_t sectorsPerCluster;  // a power of two up to 128
  Le16 reservedSectors;       // also the first FAT's sector; not 0
  uint8_t numberOfFats;       // 1 to 127
  Le16 rootEntries;           // FAT12/16 root directory entries
  Le16 totalSectors16;        // used when totalSectors32 is 0
  uint8_t media;
  Le16 sectorsPerFat16;       // 0 selects the FAT32 layout
  Le16 sectorsPerTrack;
  Le16 heads;
  Le32 hiddenSectors;
  Le32 totalSectors32;
  union {
    struct {
      uint8_t driveNumber;
      uint8_t reserved;
      uint8_t bootSignature;
      Le32 serial;
      uint8_t label[11];      // 0x2B
      uint8_t typeName[8];
    } fat16;
    struct {
      Le32 sectorsPerFat;     // 0x24
      Le16 extendedFlags;     // low 4 bits: active FAT; bit 7: mirroring off
      Le16 version;           // must be 0
      Le32 rootCluster;       // 0x2C
      Le16 fsInfoSector;      // 0x30
      Le16 backupBootSector;
      uint8_t reserved[12];
      uint8_t driveNumber;
      uint8_t reserved1;
      uint8_t bootSignature;
      Le32 serial;
      uint8_t label[11];      // 0x47
      uint8_t typeName[8];
    } fat32;
  };
};
static_assert(offsetof(BootSector, sectorsPerCluster) == 0x0D);
static_assert(offsetof(BootSector, reservedSectors) == 0x0E);
static_assert(offsetof(BootSector, numberOfFats) == 0x10);
static_assert(offsetof(BootSector, rootEntries) == 0x11);
static_assert(offsetof(BootSector, totalSectors16) == 0x13);
static_assert(offsetof(BootSector, sectorsPerFat16) == 0x16);
static_assert(offsetof(BootSector, totalSectors32) == 0x20);
static_assert(offsetof(BootSector, fat16.label) == 0x2B);
static_assert(offsetof(BootSector, fat32.sectorsPerFat) == 0x24);
static_assert(offsetof(BootSector, fat32.extendedFlags) == 0x28);
static_assert(offsetof(BootSector, fat32.version) == 0x2A);
static_assert(offsetof(BootSector, fat32.rootCluster) == 0x2C);
static_assert(offsetof(BootSector, fat32.fsInfoSector) == 0x30);
static_assert(offsetof(BootSector, fat32.label) == 0x47);
static_assert(sizeof(BootSector) == 0x5A);

// The FSInfo sector of FAT32.
inline constexpr size_t kFsInfoLeadOffset = 0;
inline constexpr uint32_t kFsInfoLeadSignature = 0x41615252;
inline constexpr size_t kFsInfoStructOffset = 484;
inline constexpr uint32_t kFsInfoStructSignature = 0x61417272;
inline constexpr size_t kFsInfoFreeCountOffset = 488;

// A directory entry.
struct DirEntry {
  uint8_t name[11];        // base 0-7, extension 8-10, blank-padded
  uint8_t attributes;
  uint8_t caseFlags;       // bit 3: base in lower case; bit 4: extension
  uint8_t createTenths;
  Le16 createTime;
  Le16 createDate;
  Le16 accessDate;
  Le16 firstClusterHigh;   // FAT32 only
  Le16 modifyTime;
  Le16 modifyDate;
  Le16 firstClusterLow;
  Le32 size;
};
static_assert(sizeof(DirEntry) == 32);
static_assert(offsetof(DirEntry, firstClusterHigh) == 20);
static_assert(offsetof(DirEntry, firstClusterLow) == 26);
static_assert(offsetof(DirEntry, size) == 28);

// A long-name entry: 13 UCS-2 units of the name, last part stored first.
struct LongNameEntry {
  uint8_t sequence;        // bit 6 marks the last part
  Le16 name1[5];
  uint8_t attributes;      // 0x0F
  uint8_t type;
  uint8_t checksum;        // of the short name it belongs to
  Le16 name2[6];
  Le16 zero;               // 0
  Le16 name3[2];
};
static_assert(sizeof(LongNameEntry) == 32);
static_assert(offsetof(LongNameEntry, checksum) == 13);
static_assert(offsetof(LongNameEntry, name2) == 14);
static_assert(offsetof(LongNameEntry, zero) == 26);
static_assert(offsetof(LongNameEntry, name3) == 28);

inline constexpr uint8_t kAttrReadOnly = 0x01;
inline constexpr uint8_t kAttrHidden = 0x02;
inline constexpr uint8_t kAttrSystem = 0x04;
inline constexpr uint8_t kAttrVolumeLabel = 0x08;
inline constexpr uint8_t kAttrDirectory = 0x10;
inline constexpr uint8_t kAttrLongName = 0x0F;
inline constexpr uint8_t kDeleted = 0xE5;
inline constexpr uint8_t kDeletedStandIn = 0x05;  // a real first byte of 0xE5
inline constexpr uint8_t kLastLongPart = 0x40;
inline constexpr unsigned kMaxLongNameParts = 20;
inline constexpr unsigned kUnitsPerLongPart = 13;

inline constexpr uint32_t kFat32EntryMask = 0x0FFFFFFF;
inline constexpr uint32_t kMaxFat12Clusters = 0xFF5;   // below 0xFF6
inline constexpr uint32_t kMaxFat16Clusters = 0xFFF5;
inline constexpr uint32_t kMaxFat32Clusters = 0xFFFFFEE;
// No directory may hold more than 65536 entries.
inline constexpr uint64_t kMaxDirectoryBytes = 65536 * sizeof(DirEntry);

}  // namespace Fat
