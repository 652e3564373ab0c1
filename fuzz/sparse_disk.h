// A disk of 512-byte sectors described by a fuzz input: records of a
// little-endian 32-bit sector number and the sector's 512 bytes.  Sectors
// that no record names read as zeroes, so a seed of a few records stands
// for a whole disk of any size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>

#include "fdisk/ver2/simpdisk.h"

namespace fuzz {

constexpr uint32_t kSectorSize = 512;
constexpr size_t kSectorRecord = 4 + kSectorSize;

inline uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

class SparseDisk final : public Fdisk::SimpleDisk {
 public:
  // The records in `data`; a sector number past the end wraps around.
  SparseDisk(const uint8_t* data, size_t size, uint64_t sectors) : sectors_(sectors ? sectors : 1) {
    sectorSize_ = kSectorSize;
    lastSector_ = sectors_ - 1;
    for (size_t at = 0; at + kSectorRecord <= size; at += kSectorRecord)
      records_[Le32(data + at) % sectors_] = data + at + 4;
  }

  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t count) override {
    if (op != Fdisk::DiskRead) return Common::Error(ERROR_HERE, Fdisk::Codes::WriteProtected, u"Write protected.");
    if (sector >= sectors_ || count > sectors_ - sector)
      return Common::Error(ERROR_HERE, Fdisk::Codes::InvalidParameter, u"One of the parameters has an invalid value.");
    auto* out = static_cast<uint8_t*>(buffer);
    std::memset(out, 0, count * kSectorSize);
    for (auto it = records_.lower_bound(sector); it != records_.end() && it->first < sector + count; ++it)
      std::memcpy(out + (it->first - sector) * kSectorSize, it->second, kSectorSize);
    return Common::Error();
  }

 private:
  uint64_t sectors_;
  std::map<uint64_t, const uint8_t*> records_;
};

}  // namespace fuzz
