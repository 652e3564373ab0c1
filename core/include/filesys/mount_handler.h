// Mounting: which driver understands a disk is decided by letting each
// driver's constructor judge it, in a fixed order; the first that survives
// is the mount.  A constructor's error of any kind only means "not this
// file system" and never reaches the caller.
#pragma once

#include <cstdint>
#include <memory>

#include "fdisk/ver2/simpdisk.h"
#include "filesys/filesys.h"

// Creates a driver for the volume of `sectors` sectors at `startSector`,
// or gives null when the volume is not of its kind.  `bootSector` is the
// volume's first sector when the caller has read it (null otherwise);
// `visibleBitmap` and `bitmapBits` are a bitmap of clusters to leave out of
// listings (FAT), null and 0 on the loader's road.
using FileSystemCreator = FileSystemMountHandler* (*)(Fdisk::SimpleDisk* disk, uint64_t startSector,
                                                      uint64_t sectors, uint32_t handlerId,
                                                      const uint8_t* bootSector,
                                                      const uint8_t* visibleBitmap, uint64_t bitmapBits);

struct FileSystemTableRow {
  FileSystemCreator create;  // null while the driver is not part of the build
  uint64_t typeMask;
};

enum FileSystemTableIndex : int {
  kDetectAll = 0,
  kDetectCommon = 1,
  kCreateExt = 2,
  kCreateFat = 3,
  kCreateHfsPlus = 4,
  kCreateNtfs = 5,
  kCreateRefs = 6,
  kCreateXfs = 7,
  kFileSystemTableRows = 8,
};

const FileSystemTableRow& FileSystemTable(int row);

FileSystemMountHandler* DetectAll(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits);
FileSystemMountHandler* DetectCommon(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                     uint32_t handlerId, const uint8_t* bootSector,
                                     const uint8_t* visibleBitmap, uint64_t bitmapBits);
FileSystemMountHandler* CreateExt(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits);
FileSystemMountHandler* CreateFat(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits);
FileSystemMountHandler* CreateXfs(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits);

// Mounts `disk` with table row `row` (the loader uses kDetectAll).  On
// success the driver owns the disk, `disk` is empty, and the result is the
// root directory, which keeps the volume mounted for as long as it or any
// handle opened from it lives.  On failure the result is null and `disk`
// is untouched.
rio_dir* Mount(int row, std::unique_ptr<Fdisk::SimpleDisk>& disk);
