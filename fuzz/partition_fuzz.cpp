// Partition tables from outside, as loader-tool and the simulated firmware
// read them from disk images: whatever the MBR, the GPT headers and their
// entries say, every partition that comes back lies inside the disk, has
// sectors and a number of its own, and its window reads exactly its
// sectors and nothing beyond.
//
// The input: a little-endian 32-bit word, then sector records as in
// sparse_disk.h.  The word's low 26 bits give the disk's sector count (so
// that a backup GPT header can sit on the last sector); with its top bit
// set, the checksums of every GPT header and its entries are made right
// before the table is read, so that mutations reach the entries instead of
// dying at the checksum.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "fdisk/partition_table.h"
#include "resizer/snapshot_emulation.h"
#include "sparse_disk.h"

#include <zlib.h>

namespace {

// Up to 32 GiB of sectors: big enough for hostile sizes, small enough
// that the sector arithmetic stays in range.
constexpr uint64_t kMaxSectors = uint64_t(1) << 26;
constexpr size_t kMaxWindowsChecked = 64;

// Names the broken promise before the crash, for whoever reads the log.
#define CHECK(condition)                                               \
  do {                                                                 \
    if (!(condition)) {                                                \
      std::fprintf(stderr, "partition_fuzz: broken: %s\n", #condition); \
      std::abort();                                                    \
    }                                                                  \
  } while (0)

void CheckWindow(Fdisk::SimpleDisk& disk, const Fdisk::PartitionEntry& entry) {
  resizer::SnapshotEmulation window(resizer::SourceVolume{&disk, entry.firstSector, entry.sectorCount});
  CHECK(window.GetLastSector() == entry.sectorCount - 1);
  std::vector<uint8_t> sector(fuzz::kSectorSize);
  CHECK(window.IoOp(Fdisk::DiskRead, 0, sector.data(), 1).IsSuccess());
  CHECK(window.IoOp(Fdisk::DiskRead, entry.sectorCount - 1, sector.data(), 1).IsSuccess());
  CHECK(window.IoOp(Fdisk::DiskRead, entry.sectorCount, sector.data(), 1).IsError());
  CHECK(window.IoOp(Fdisk::DiskRead, entry.sectorCount - 1, sector.data(), 2).IsError());
}

void Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

uint64_t Le64(const uint8_t* p) { return uint64_t(fuzz::Le32(p)) | uint64_t(fuzz::Le32(p + 4)) << 32; }

// Rewrites the checksums of each record that holds a GPT header.
void MendGptChecksums(std::vector<uint8_t>& input, fuzz::SparseDisk& disk) {
  for (size_t at = 4; at + fuzz::kSectorRecord <= input.size(); at += fuzz::kSectorRecord) {
    uint8_t* h = input.data() + at + 4;
    if (std::memcmp(h, "EFI PART", 8) != 0) continue;
    const uint64_t bytes = uint64_t(fuzz::Le32(h + 80)) * fuzz::Le32(h + 84);
    const uint64_t lba = Le64(h + 72);
    if (bytes > 0 && bytes <= (1u << 20)) {
      std::vector<uint8_t> entries((bytes + fuzz::kSectorSize - 1) / fuzz::kSectorSize * fuzz::kSectorSize);
      if (disk.IoOp(Fdisk::DiskRead, lba, entries.data(), entries.size() / fuzz::kSectorSize).IsSuccess())
        Put32(h + 88, uint32_t(crc32(0, entries.data(), uInt(bytes))));
    }
    const uint32_t headerSize = fuzz::Le32(h + 12);
    if (headerSize >= 92 && headerSize <= fuzz::kSectorSize) {
      Put32(h + 16, 0);
      Put32(h + 16, uint32_t(crc32(0, h, headerSize)));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  std::vector<uint8_t> input(data, data + size);
  uint64_t sectors = fuzz::Le32(data) & (kMaxSectors - 1);
  if (sectors == 0) sectors = 1;
  fuzz::SparseDisk disk(input.data() + 4, size - 4, sectors);
  if (data[3] & 0x80) MendGptChecksums(input, disk);
  Fdisk::PartitionTable table;
  if (Fdisk::ReadPartitionTable(disk, table).IsError()) return 0;
  if (table.kind == Fdisk::PartitionTable::Kind::None) CHECK(table.entries.empty());

  std::set<uint32_t> numbers;
  size_t checked = 0;
  for (const Fdisk::PartitionEntry& entry : table.entries) {
    CHECK(entry.number >= 1 && numbers.insert(entry.number).second);
    CHECK(entry.sectorCount > 0 && entry.firstSector < sectors && entry.sectorCount <= sectors - entry.firstSector);
    // The first sector holds the MBR of either kind of table: no partition
    // may cover it.
    CHECK(entry.firstSector > 0);
    if (checked++ < kMaxWindowsChecked) CheckWindow(disk, entry);
  }
  return 0;
}
