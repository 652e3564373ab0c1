// Fdisk::SimpleDisk: the one shape in which file-system code sees a disk, a
// numbered array of equal sectors behind a single I/O entry.  Whatever lies
// behind it (a firmware block device, a window on another disk, an image
// file on the host) is invisible above this line.
#pragma once

#include <cstdint>

#include "common/error.h"

namespace Fdisk {

// Operations of IoOp.  5 and 6 are accepted and do nothing.
enum DiskOp : uint32_t {
  DiskRead = 2,
  DiskWrite = 3,
  DiskFlush = 4,
};

// The family of disk errors.
namespace Codes {
inline constexpr uint32_t NotImplemented = 0x100401;
inline constexpr uint32_t InvalidDiskOperation = 0x10D01E;
inline constexpr uint32_t IndexOutOfRange = 0x10D01F;
inline constexpr uint32_t DeviceObjectFailed = 0x10D020;
inline constexpr uint32_t CannotEnumerate = 0x10D023;
inline constexpr uint32_t InvalidParameter = 0x10D002;
inline constexpr uint32_t DeviceError = 0x10D007;
inline constexpr uint32_t WriteProtected = 0x10D008;
inline constexpr uint32_t NotFound = 0x10D00E;
}  // namespace Codes

struct Geometry {
  uint8_t sectorsPerTrack;
  uint8_t highestHead;
  uint64_t cylinders;
};

class SimpleDisk {
 public:
  virtual ~SimpleDisk() = default;

  virtual uint32_t GetSectorSize() { return sectorSize_; }
  // The number of the last sector: the count is this plus 1.
  virtual uint64_t GetLastSector() { return lastSector_; }
  virtual const Geometry* GetGeometry() { return &geometry_; }
  // Moves `sectorCount` sectors between `buffer` and the disk at `sector`.
  // Failures come back as the value, never thrown.
  virtual Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer,
                             uint64_t sectorCount) = 0;
  // A disk class without a platform handle answers "The code is not
  // implemented." (returned, not thrown).
  virtual Common::Error GetPlatformHandle(void*& handle);

 protected:
  SimpleDisk() = default;
  SimpleDisk(const SimpleDisk&) = delete;
  SimpleDisk& operator=(const SimpleDisk&) = delete;

  uint32_t sectorSize_ = 0;
  uint64_t lastSector_ = 0;
  Geometry geometry_{};
};

// True for the operation numbers IoOp accepts at all (2 to 6).
inline bool IsValidDiskOp(uint32_t op) { return op >= DiskRead && op <= 6; }

// "An invalid disk operation.", recorded under `where`.
Common::Error InvalidOperationError(const Common::ErrorLocation& where);

// The byte length of `count` sectors of `sectorSize`; false when it does not
// fit in 64 bits.
inline bool SectorBytes(uint64_t count, uint32_t sectorSize, uint64_t& bytes) {
  if (sectorSize != 0 && count > UINT64_MAX / sectorSize) return false;
  bytes = count * sectorSize;
  return true;
}

}  // namespace Fdisk
