// GPT and MBR partition tables of disk images.
#include "fdisk/partition_table.h"

#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>

namespace Fdisk {

namespace {

// On-disk records, little-endian.
#pragma pack(push, 1)
struct MbrEntry {
  uint8_t status;
  uint8_t firstChs[3];
  uint8_t type;
  uint8_t lastChs[3];
  uint8_t firstLba[4];
  uint8_t sectors[4];
};
struct GptHeader {
  char signature[8];  // "EFI PART"
  uint8_t revision[4];
  uint8_t headerSize[4];
  uint8_t headerCrc[4];
  uint8_t reserved[4];
  uint8_t myLba[8];
  uint8_t alternateLba[8];
  uint8_t firstUsableLba[8];
  uint8_t lastUsableLba[8];
  uint8_t diskGuid[16];
  uint8_t entriesLba[8];
  uint8_t entryCount[4];
  uint8_t entrySize[4];
  uint8_t entriesCrc[4];
};
struct GptEntry {
  uint8_t typeGuid[16];
  uint8_t uniqueGuid[16];
  uint8_t firstLba[8];
  uint8_t lastLba[8];
  uint8_t attributes[8];
  uint8_t name[72];
};
#pragma pack(pop)
static_assert(sizeof(MbrEntry) == 16);
static_assert(sizeof(GptHeader) == 92);
static_assert(offsetof(GptHeader, entriesLba) == 72);
static_assert(sizeof(GptEntry) == 128);

constexpr size_t kMbrTableOffset = 446;
constexpr size_t kMbrSignatureOffset = 440;
constexpr uint8_t kProtectiveType = 0xEE;
// Far more entries than any tool writes (128 is usual); the bound keeps a
// hostile header from asking for a huge array.
constexpr uint32_t kMaxGptEntries = 16384;
constexpr unsigned kMaxLogicalPartitions = 128;

uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

Common::GUID GuidAt(const uint8_t* p) {
  Common::GUID g;
  std::memcpy(&g, p, sizeof g);
  return g;
}

uint32_t Crc32(const uint8_t* data, size_t size) {
  uLong crc = crc32(0L, Z_NULL, 0);
  while (size > 0) {
    const uInt piece = size > 0x40000000 ? 0x40000000 : uInt(size);
    crc = crc32(crc, data, piece);
    data += piece;
    size -= piece;
  }
  return uint32_t(crc);
}

Common::Error ReadSectors(SimpleDisk& disk, uint64_t sector, uint64_t count,
                          std::vector<uint8_t>& out) {
  uint64_t bytes = 0;
  if (!SectorBytes(count, disk.GetSectorSize(), bytes) || bytes > (64u << 20))
    return Common::Error(ERROR_HERE, Codes::InvalidParameter,
                         u"One of the parameters has an invalid value.");
  out.assign(size_t(bytes), 0);
  return disk.IoOp(DiskRead, sector, out.data(), count);
}

// The GPT whose header stands at `lba`; false when it is not a valid one.
bool ReadGpt(SimpleDisk& disk, uint64_t lba, PartitionTable& table) {
  const uint32_t ss = disk.GetSectorSize();
  const uint64_t last = disk.GetLastSector();
  std::vector<uint8_t> sector;
  if (ReadSectors(disk, lba, 1, sector).IsError()) return false;
  GptHeader h;
  std::memcpy(&h, sector.data(), sizeof h);
  if (std::memcmp(h.signature, "EFI PART", 8) != 0) return false;
  const uint32_t headerSize = Le32(h.headerSize);
  if (headerSize < sizeof h || headerSize > ss) return false;
  std::vector<uint8_t> copy(sector.begin(), sector.begin() + headerSize);
  std::memset(copy.data() + offsetof(GptHeader, headerCrc), 0, 4);
  if (Crc32(copy.data(), copy.size()) != Le32(h.headerCrc)) return false;
  if (Le64(h.myLba) != lba) return false;
  const uint32_t count = Le32(h.entryCount);
  const uint32_t size = Le32(h.entrySize);
  if (size < sizeof(GptEntry) || size % 8 != 0 || size > 4096 || count > kMaxGptEntries)
    return false;
  const uint64_t bytes = uint64_t(count) * size;
  const uint64_t sectors = (bytes + ss - 1) / ss;
  const uint64_t entriesLba = Le64(h.entriesLba);
  if (entriesLba < 1 || entriesLba > last || sectors > last - entriesLba + 1) return false;
  std::vector<uint8_t> entries;
  if (sectors > 0 && ReadSectors(disk, entriesLba, sectors, entries).IsError()) return false;
  if (Crc32(entries.data(), size_t(bytes)) != Le32(h.entriesCrc)) return false;
  const uint64_t firstUsable = Le64(h.firstUsableLba);
  const uint64_t lastUsable = Le64(h.lastUsableLba) > last ? last : Le64(h.lastUsableLba);

  table = PartitionTable{};
  table.kind = PartitionTable::Kind::Gpt;
  table.diskGuid = GuidAt(h.diskGuid);
  for (uint32_t i = 0; i < count; ++i) {
    GptEntry e;
    std::memcpy(&e, entries.data() + size_t(i) * size, sizeof e);
    const Common::GUID type = GuidAt(e.typeGuid);
    if (type.IsZero()) continue;
    const uint64_t first = Le64(e.firstLba), lastLba = Le64(e.lastLba);
    if (first > lastLba || first < firstUsable || lastLba > lastUsable) continue;
    // A header that calls its own sectors usable does not make them a
    // partition: sector 0, the header and the entry array stay out.
    const auto overlaps = [&](uint64_t a, uint64_t b) { return first <= b && a <= lastLba; };
    if (first == 0 || overlaps(lba, lba) || (sectors > 0 && overlaps(entriesLba, entriesLba + sectors - 1)))
      continue;
    PartitionEntry p;
    p.number = i + 1;
    p.firstSector = first;
    p.sectorCount = lastLba - first + 1;
    p.typeGuid = type;
    p.uniqueGuid = GuidAt(e.uniqueGuid);
    table.entries.push_back(p);
  }
  return true;
}

bool HasMbrSignature(const std::vector<uint8_t>& sector) {
  return sector.size() >= 512 && sector[510] == 0x55 && sector[511] == 0xAA;
}

void ReadMbrEntry(const std::vector<uint8_t>& sector, int index, MbrEntry& e) {
  std::memcpy(&e, sector.data() + kMbrTableOffset + 16 * index, sizeof e);
}

bool IsExtended(uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

bool Fits(uint64_t first, uint64_t count, uint64_t diskSectors) {
  return count != 0 && first != 0 && first < diskSectors && count <= diskSectors - first;
}

// The logical partitions of the extended partition at `base`, `size`.
// `number` is the next logical number; it runs on across a second extended
// partition, so that no two partitions share one.
void ReadLogical(SimpleDisk& disk, uint64_t base, uint64_t size, PartitionTable& table, uint32_t& number) {
  const uint64_t diskSectors = disk.GetLastSector() + 1;
  std::set<uint64_t> seen;
  uint64_t ebr = base;
  for (unsigned n = 0; n < kMaxLogicalPartitions && seen.insert(ebr).second; ++n) {
    std::vector<uint8_t> sector;
    if (ReadSectors(disk, ebr, 1, sector).IsError() || !HasMbrSignature(sector)) return;
    MbrEntry logical, next;
    ReadMbrEntry(sector, 0, logical);
    ReadMbrEntry(sector, 1, next);
    const uint64_t first = ebr + Le32(logical.firstLba);
    const uint64_t count = Le32(logical.sectors);
    if (logical.type != 0 && Fits(first, count, diskSectors) && first + count <= base + size) {
      PartitionEntry p;
      p.number = number++;
      p.firstSector = first;
      p.sectorCount = count;
      p.mbrType = logical.type;
      table.entries.push_back(p);
    }
    if (!IsExtended(next.type) || Le32(next.firstLba) == 0) return;
    const uint64_t nextEbr = base + Le32(next.firstLba);
    if (nextEbr >= base + size) return;
    ebr = nextEbr;
  }
}

}  // namespace

Common::Error ReadPartitionTable(SimpleDisk& disk, PartitionTable& table) {
  table = PartitionTable{};
  if (disk.GetSectorSize() < 512) return Common::Error();
  std::vector<uint8_t> mbr;
  Common::Error e = ReadSectors(disk, 0, 1, mbr);
  if (e.IsError()) return e;
  if (!HasMbrSignature(mbr)) return Common::Error();
  bool protective = false;
  for (int i = 0; i < 4; ++i) {
    MbrEntry entry;
    ReadMbrEntry(mbr, i, entry);
    if (entry.type == kProtectiveType) protective = true;
  }
  if (protective) {
    const uint64_t last = disk.GetLastSector();
    if (ReadGpt(disk, 1, table) || (last > 1 && ReadGpt(disk, last, table))) return Common::Error();
  }
  table = PartitionTable{};
  table.kind = PartitionTable::Kind::Mbr;
  table.mbrSignature = Le32(mbr.data() + kMbrSignatureOffset);
  const uint64_t diskSectors = disk.GetLastSector() + 1;
  uint32_t logicalNumber = 5;
  for (int i = 0; i < 4; ++i) {
    MbrEntry entry;
    ReadMbrEntry(mbr, i, entry);
    const uint64_t first = Le32(entry.firstLba), count = Le32(entry.sectors);
    if (entry.type == 0 || entry.type == kProtectiveType || !Fits(first, count, diskSectors))
      continue;
    if (IsExtended(entry.type)) {
      ReadLogical(disk, first, count, table, logicalNumber);
      continue;
    }
    PartitionEntry p;
    p.number = uint32_t(i + 1);
    p.firstSector = first;
    p.sectorCount = count;
    p.mbrType = entry.type;
    table.entries.push_back(p);
  }
  // Logical partitions were read in chain order while the primaries were
  // walked; present them after the primaries, by number.
  std::stable_sort(table.entries.begin(), table.entries.end(),
                   [](const PartitionEntry& a, const PartitionEntry& b) { return a.number < b.number; });
  return Common::Error();
}

}  // namespace Fdisk
