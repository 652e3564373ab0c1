// The XFS volume: the superblock's geometry, block numbers to sectors,
// self-describing blocks, inodes and the two ways of mapping a file.
#include <cstring>
#include <new>

#include "common/text.h"
#include "xfs.h"

namespace extfs {
uint32_t Crc32c(uint32_t crc, const void* data, size_t size);
}

using namespace Common::Codes;

namespace xfs {

namespace {

// The root of a B-tree in a fork: the level, the count, and the count
// within the table's room.
void CheckRoot(const uint8_t* fork, uint32_t size) {
  if (size <= 3) THROW_ERROR(Corrupted);
  const uint16_t level = Be16(fork), count = Be16(fork + 2);
  if (level == 0 || count == 0 || count > (size - 4) / 16) THROW_ERROR(Corrupted);
}

// The packed fields of one 16-byte extent record.
Run Record(const uint8_t* p) {
  const uint64_t l0 = Be64(p), l1 = Be64(p + 8);
  Run r;
  r.logical = (l0 >> 9) & ((uint64_t(1) << 54) - 1);
  r.volume = (l0 & 0x1FF) << 43 | l1 >> 21;
  r.count = l1 & 0x1FFFFF;
  return r;
}

bool FindInRecords(const uint8_t* records, uint32_t count, uint64_t first, uint64_t last, Run& run) {
  // The first record that starts above `first`.
  uint32_t lo = 0, hi = count;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (Record(records + size_t(mid) * 16).logical > first) hi = mid; else lo = mid + 1;
  }
  if (lo > 0) {
    const Run before = Record(records + size_t(lo - 1) * 16);
    // A record of no blocks would map nothing and never let a read move on.
    if (before.count == 0) throw Common::MakeError(ERROR_IN("Find"), Corrupted);
    const uint64_t end = before.logical + before.count;
    if (end > first) {
      run.logical = first;
      run.volume = before.volume + (first - before.logical);
      run.count = (end < last ? end : last) - first;
      return true;
    }
  }
  if (lo < count) {
    const Run r = Record(records + size_t(lo) * 16);
    if (r.count == 0) throw Common::MakeError(ERROR_IN("Find"), Corrupted);
    if (r.logical < last) {
      const uint64_t end = r.logical + r.count;
      run = r;
      run.count = (end < last ? end : last) - r.logical;
      return true;
    }
  }
  return false;
}

}  // namespace

const BlockKind kBmapBlock{0x424D4133, 0x424D4150, 72, 24, 64, 40, 56, 24};
const BlockKind kDirBlock{0x58444233, 0x58443242, 64, 16, 4, 24, 40, 8};
const BlockKind kDataBlock{0x58444433, 0x58443244, 64, 16, 4, 24, 40, 8};
const BlockKind kLinkBlock{0x58534C4D, 0, 56, 0, 12, 16, 32, 40};

bool CheckCrc(const uint8_t* data, size_t size, size_t crcOffset) {
  static const uint8_t zeros[4] = {};
  uint32_t crc = extfs::Crc32c(0xFFFFFFFF, data, crcOffset);
  crc = extfs::Crc32c(crc, zeros, 4);
  crc = extfs::Crc32c(crc, data + crcOffset + 4, size - crcOffset - 4);
  crc = ~crc;
  const uint8_t* f = data + crcOffset;
  return crc == (uint32_t(f[0]) | uint32_t(f[1]) << 8 | uint32_t(f[2]) << 16 | uint32_t(f[3]) << 24);
}

// ---- the volume

XFSDriver::XFSDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors, uint32_t handlerId,
                     const uint8_t* bootSector)
    : FileSystemDriverPosix(disk, startSector, sectors, handlerId) {
  const uint32_t diskSector = SectorSize();
  if (diskSector <= 263) THROW_ERROR(Corrupted);
  // The superblock is read around the cache: the cache hands out a buffer
  // by its first sector whatever its length, and a short buffer of sector
  // 0 must never meet a later read of block size.
  std::vector<uint8_t> own;
  const uint8_t* sb = bootSector;
  if (sb == nullptr) {
    own = ReadUncached(1);
    sb = own.data();
  }
  if (Be32(sb) != kSuperMagic) THROW_ERROR(Corrupted);
  const uint16_t versionWord = Be16(sb + 100);
  const uint32_t version = versionWord & 0xF;
  if (version != 4 && version != 5) THROW_ERROR(Corrupted);
  const uint32_t features2 = (versionWord & 0x8000) ? Be32(sb + 200) : 0;
  const uint32_t incompat = version == 5 ? Be32(sb + 216) : 0;
  if (version == 4) {
    if ((versionWord & 0x2200) != 0x2000) THROW_ERROR(Corrupted);
    if ((features2 & ~0x28Au) != 0) THROW_ERROR(Corrupted);
  } else if (incompat >= 8) {
    THROW_ERROR(Corrupted);
  }
  const uint32_t sectorBytes = Be16(sb + 102), sectorLog = sb[121];
  if (sectorLog < 9 || sectorLog > 15 || sectorBytes != 1u << sectorLog) THROW_ERROR(Corrupted);
  const uint32_t blockBytes = Be32(sb + 4), blockLog = sb[120];
  if (blockLog < 9 || blockLog > 16 || blockBytes != 1u << blockLog || sectorLog > blockLog)
    THROW_ERROR(Corrupted);
  if (sb[192] >= 17) THROW_ERROR(Corrupted);
  const uint32_t inodeLog = sb[122];
  inodeSize = Be16(sb + 104);
  if (inodeLog < 8 || inodeLog > 11 || inodeSize != 1u << inodeLog || inodeLog > blockLog)
    THROW_ERROR(Corrupted);
  inodesPerBlockLog = sb[123];
  if (inodesPerBlockLog != blockLog - inodeLog || Be16(sb + 106) != 1u << inodesPerBlockLog)
    THROW_ERROR(Corrupted);
  if (Be32(sb + 196) > 0x40000) THROW_ERROR(Corrupted);
  const uint64_t realtime = uint64_t(Be32(sb + 80)) * blockBytes;
  if (realtime < 4096 || realtime > 0x40000000) THROW_ERROR(Corrupted);
  groupCount = Be32(sb + 88);
  if (sb[127] > 100 || groupCount == 0) THROW_ERROR(Corrupted);
  groupBlocks = Be32(sb + 84);
  blocks = Be64(sb + 8);
  const uint64_t span = uint64_t(groupCount) * groupBlocks;
  if (blocks > span || blocks < span - groupBlocks + 64) THROW_ERROR(Corrupted);
  if (sb[179] != 0) THROW_ERROR(Corrupted);
  if ((incompat & 2) && Be32(sb + 180) != (inodeSize * 64) >> blockLog) THROW_ERROR(Corrupted);
  if (diskSector > blockBytes) THROW_ERROR(Corrupted);
  if (blocks > VolumeSectors() / (blockBytes / diskSector)) THROW_ERROR(Corrupted);
  groupLog = sb[124];
  // Blocks in a group beyond the packed field's room would alias the next
  // group's numbers.
  if (groupLog > 31 || groupBlocks > (uint64_t(1) << groupLog) || groupBlocks == 0) THROW_ERROR(Corrupted);

  sectorsPerBlock = blockBytes / diskSector;
  rootInode = Be64(sb + 56);
  freeBlocks = Be64(sb + 144);
  directoryBlocks = 1u << sb[192];
  hasFileType = (features2 & 0x200) != 0 || (incompat & 1) != 0;
  isVersion5 = version == 5;
  // With the metadata UUID feature the blocks carry the UUID the volume
  // was made with, not its present one.
  std::memcpy(uuid, sb + ((incompat & 4) ? 248 : 32), 16);
  size_t labelLength = 0;
  while (labelLength < 12 && sb[108 + labelLength] != 0) ++labelLength;
  label = Common::Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(sb + 108), labelLength));

  if (isVersion5) {
    std::vector<uint8_t> copy;
    if (sectorBytes > diskSector) {
      copy = ReadUncached(sectorsPerBlock);
      copy.resize(sectorBytes);
    } else {
      copy.assign(sb, sb + sectorBytes);
    }
    if (!CheckCrc(copy.data(), copy.size(), 224)) THROW_ERROR(Corrupted);
  }
}

std::vector<uint8_t> XFSDriver::ReadUncached(uint32_t sectors) {
  const uint32_t ss = SectorSize();
  std::vector<uint8_t> room((size_t(sectors) + 1) * ss);
  const uintptr_t base = reinterpret_cast<uintptr_t>(room.data());
  uint8_t* aligned = room.data() + (ss - base % ss) % ss;
  ReadNoCacheAligned(aligned, 0, sectors);
  return std::vector<uint8_t>(aligned, aligned + size_t(sectors) * ss);
}

XFSDriver::~XFSDriver() { ReleaseObjects(); }

void XFSDriver::GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) {
  total = blocks * sectorsPerBlock * SectorSize();
  free = freeBlocks * sectorsPerBlock * SectorSize();
  available = 0;
}

void XFSDriver::GetVolumeLabel(char16_t* buffer, uint32_t capacity) {
  if (capacity == 0) return;
  const size_t n = label.size() < capacity - 1 ? label.size() : capacity - 1;
  std::memcpy(buffer, label.data(), n * sizeof(char16_t));
  buffer[n] = 0;
}

FileSystemDriver::DirectoryObject* XFSDriver::OpenDirById(uint64_t id) { return new Directory(*this, id); }

uint64_t XFSDriver::BlockToSector(uint64_t block, uint64_t count) const {
  if (block == 0) THROW_ERROR(Corrupted);
  const uint64_t group = block >> groupLog;
  const uint64_t inGroup = block & ((uint64_t(1) << groupLog) - 1);
  if (group >= groupCount || count > groupBlocks || inGroup > groupBlocks - count) THROW_ERROR(Corrupted);
  const uint64_t linear = group * groupBlocks + inGroup;
  if (linear + count > blocks) THROW_ERROR(Corrupted);
  return linear * sectorsPerBlock;
}

SectorBufferRef XFSDriver::ReadBlock(uint64_t block) {
  SectorBufferRef b = GetBuffer(BlockToSector(block, 1), sectorsPerBlock);
  if (b.SectorCount() < sectorsPerBlock) THROW_ERROR(Corrupted);
  return b;
}

uint32_t XFSDriver::CheckBlock(const uint8_t* data, uint32_t size, const BlockKind& kind, uint64_t owner,
                               uint64_t sector) const {
  const uint32_t header = isVersion5 ? kind.headerV5 : kind.headerV4;
  if (size < header) THROW_ERROR(Corrupted);
  if (Be32(data) != (isVersion5 ? kind.magicV5 : kind.magicV4)) THROW_ERROR(Corrupted);
  if (!isVersion5) return header;
  if (!CheckCrc(data, size, kind.crcAt)) THROW_ERROR(Corrupted);
  if (std::memcmp(data + kind.uuidAt, uuid, 16) != 0) THROW_ERROR(Corrupted);
  if (Be64(data + kind.ownerAt) != owner) THROW_ERROR(Corrupted);
  if (Be64(data + kind.addressAt) != sector * (SectorSize() / 512)) THROW_ERROR(Corrupted);
  return header;
}

XFSDriver::InodePtr XFSDriver::LoadInode(uint64_t number) { return std::make_shared<Inode>(*this, number); }

std::unique_ptr<XFSDriver::ExtentLocator> XFSDriver::CreateExtentLocator(const InodePtr& inode) {
  if (inode->Format() == kExtents)
    return std::make_unique<ListExtentLocator>(inode, inode->Fork(), inode->Extents());
  if (inode->Format() == kBTree)
    return std::make_unique<BTreeExtentLocator>(*this, inode, inode->Fork(), inode->ForkSize());
  THROW_ERROR(Corrupted);
}

// ---- inodes

XFSDriver::Inode::Inode(XFSDriver& driver, uint64_t number) : number(number) {
  const uint64_t mask = (uint64_t(1) << driver.inodesPerBlockLog) - 1;
  SectorBufferRef b = driver.ReadBlock(number >> driver.inodesPerBlockLog);
  const uint8_t* raw = b.Data() + (number & mask) * driver.inodeSize;
  const uint32_t size = driver.inodeSize;
  if (Be16(raw) != kInodeMagic) THROW_ERROR(Corrupted);
  if (driver.isVersion5) {
    if (raw[4] != 3) THROW_ERROR(Corrupted);
    if (!CheckCrc(raw, size, 100)) THROW_ERROR(Corrupted);
    if (std::memcmp(raw + 160, driver.uuid, 16) != 0) THROW_ERROR(Corrupted);
    if (Be64(raw + 152) != number) THROW_ERROR(Corrupted);
  } else if (raw[4] != 1 && raw[4] != 2) {
    THROW_ERROR(Corrupted);
  }
  const size_t core = raw[4] == 3 ? kCoreV3 : kCoreV2;
  const uint64_t dataExtents = Be32(raw + 76), attrExtents = Be16(raw + 80);
  if (dataExtents + attrExtents > Be64(raw + 64)) THROW_ERROR(Corrupted);
  const uint32_t forkOffset = raw[82];
  if (forkOffset >= (size - core) / 8) THROW_ERROR(Corrupted);
  const uint32_t forkSize = forkOffset ? forkOffset * 8 : uint32_t(size - core);
  const uint8_t* fork = raw + core;
  const uint8_t format = raw[5];
  const uint16_t type = Be16(raw + 2) & 0xF000;
  switch (type) {
    case 0x1000: case 0x2000: case 0x6000: case 0xC000:
      if (format != kDevice) THROW_ERROR(Corrupted);
      break;
    case 0x4000: case 0x8000: case 0xA000:
      if (format == kLocal) {
        if (type == 0x8000 || Be64(raw + 56) > forkSize) THROW_ERROR(Corrupted);
      } else if (format == kExtents) {
        if (dataExtents > forkSize / 16) THROW_ERROR(Corrupted);
      } else if (format == kBTree) {
        if (dataExtents <= forkSize / 16) THROW_ERROR(Corrupted);
        CheckRoot(fork, forkSize);
      } else {
        THROW_ERROR(Corrupted);
      }
      break;
    default:
      THROW_ERROR(Corrupted);
  }
  if (forkOffset != 0) {
    const uint32_t attrSize = uint32_t(size - core - forkOffset * 8);
    const uint8_t* attr = fork + forkOffset * 8;
    switch (raw[83]) {
      case kLocal: {
        const uint16_t total = Be16(attr);
        if (total <= 3 || total > attrSize) THROW_ERROR(Corrupted);
        break;
      }
      case kExtents:
        if (attrExtents > attrSize / 16) THROW_ERROR(Corrupted);
        break;
      case kBTree:
        CheckRoot(attr, attrSize);
        break;
      default:
        THROW_ERROR(Corrupted);
    }
  }
  data.assign(raw, raw + size);
}

uint32_t XFSDriver::Inode::ForkSize() const {
  const uint32_t forkOffset = data[82];
  return forkOffset ? forkOffset * 8 : uint32_t(data.size() - CoreSize());
}

// ---- mapping

bool XFSDriver::ListExtentLocator::Find(uint64_t first, uint64_t last, Run& run) {
  return FindInRecords(records, count, first, last, run);
}

bool XFSDriver::BTreeExtentLocator::Find(uint64_t first, uint64_t last, Run& run) {
  const uint32_t bs = driver.BlockSize();
  const BlockKind& kind = kBmapBlock;
  const uint32_t header = driver.isVersion5 ? kind.headerV5 : kind.headerV4;
  const uint32_t capacity = (bs - header) / 16;
  // The current table: keys and children.
  const uint8_t* keys = fork + 4;
  const uint8_t* children = fork + 4 + size_t((forkSize - 4) / 16) * 8;
  uint32_t count = Be16(fork + 2);
  uint32_t level = Be16(fork);
  SectorBufferRef block;
  const auto readChecked = [&](uint64_t number, uint32_t wantLevel) {
    SectorBufferRef b = driver.ReadBlock(number);
    driver.CheckBlock(b.Data(), bs, kind, inode->number, b.FirstSector());
    const uint32_t n = Be16(b.Data() + 6);
    if (Be16(b.Data() + 4) != wantLevel || n == 0 || n > capacity) THROW_ERROR(Corrupted);
    return b;
  };
  for (;;) {
    uint32_t index = 0;
    if (first < Be64(keys)) {
      if (Be64(keys) >= last) return false;
      first = Be64(keys);
    } else {
      uint32_t lo = 0, hi = count;
      while (hi - lo > 1) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (Be64(keys + size_t(mid) * 8) <= first) lo = mid; else hi = mid;
      }
      index = lo;
    }
    block = readChecked(Be64(children + size_t(index) * 8), level - 1);
    --level;
    if (level == 0) break;
    keys = block.Data() + header;
    children = keys + size_t(capacity) * 8;
    count = Be16(block.Data() + 6);
  }
  // Each right neighbour must start behind the leaf before it, so that a
  // chain that loops back ends in an error instead of a spin.
  uint64_t floor = 0;
  for (;;) {
    const uint8_t* records = block.Data() + header;
    const uint32_t n = Be16(block.Data() + 6);
    const Run firstRecord = Record(records);
    const Run lastRecord = Record(records + size_t(n - 1) * 16);
    if (firstRecord.logical < floor) THROW_ERROR(Corrupted);
    const uint64_t end = lastRecord.logical + lastRecord.count;
    if (first < end) return FindInRecords(records, n, first, last, run);
    const uint64_t right = Be64(block.Data() + 16);
    if (right == kNoSibling) return false;
    floor = end > firstRecord.logical ? end : firstRecord.logical + 1;
    block = readChecked(right, 0);
  }
}

// ---- files

void XFSDriver::File::Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) {
  read = 0;
  const uint64_t fileSize = GetSize();
  if (int64_t(offset) < 0 || offset >= fileSize || size == 0) return;
  if (size > fileSize - offset) size = fileSize - offset;
  const uint64_t bs = driver.BlockSize();
  auto* out = static_cast<uint8_t*>(buffer);
  const uint64_t end = offset + size;
  uint64_t at = offset;
  while (at < end) {
    Run run;
    if (!locator->Find(at / bs, (end - 1) / bs + 1, run)) {
      std::memset(out + (at - offset), 0, end - at);
      at = end;
      break;
    }
    if (run.logical < at / bs || run.count == 0) THROW_ERROR(Corrupted);
    const uint64_t runStart = run.logical * bs;
    if (runStart > at) {
      const uint64_t gap = (runStart < end ? runStart : end) - at;
      std::memset(out + (at - offset), 0, gap);
      at += gap;
      read = at - offset;
      if (at >= end) break;
    }
    const uint64_t first = driver.BlockToSector(run.volume, run.count);
    const uint64_t skip = at / bs - run.logical;
    if (at % bs == 0 && end - at >= bs) {
      // Whole blocks go straight to the caller: one disk read for the run.
      const uint64_t whole = std::min<uint64_t>(run.count - skip, (end - at) / bs);
      driver.ReadNoCache(out + (at - offset), first + skip * driver.sectorsPerBlock,
                         whole * driver.sectorsPerBlock, driver.sectorsPerBlock, first);
      at += whole * bs;
      read = at - offset;
      continue;
    }
    // A block that the caller takes only part of comes through the cache.
    SectorBufferRef b = driver.GetBuffer(first + skip * driver.sectorsPerBlock, driver.sectorsPerBlock);
    if (b.SectorCount() < driver.sectorsPerBlock) THROW_ERROR(Corrupted);
    const uint64_t inBlock = at % bs;
    const uint64_t n = std::min<uint64_t>(bs - inBlock, end - at);
    std::memcpy(out + (at - offset), b.Data() + inBlock, n);
    at += n;
    read = at - offset;
  }
  read = at - offset;
}

void XFSDriver::File::GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) {
  const uint64_t fileSize = GetSize();
  const uint32_t ss = driver.SectorSize();
  if (int64_t(offset) < 0 || offset >= fileSize || offset % ss != 0) THROW_ERROR(EndOfFile);
  const uint64_t bs = driver.BlockSize();
  const uint64_t block = offset / bs;
  const uint64_t endBlock = (fileSize + bs - 1) / bs;
  Run run;
  if (locator->Find(block, endBlock, run) && run.logical == block) {
    sector = driver.BlockToSector(run.volume, run.count) + (offset % bs) / ss;
    count = run.count * driver.sectorsPerBlock - (offset % bs) / ss;
    return;
  }
  const uint64_t next = locator->Find(block, endBlock, run) ? run.logical * bs : (fileSize + ss - 1) / ss * ss;
  sector = ~uint64_t(0);
  count = (next - offset) / ss;
}

void XFSDriver::File::Write(const void*, uint64_t, uint64_t, uint64_t& written) {
  written = 0;
  THROW_ERROR(ReadOnly);
}
void XFSDriver::File::Truncate(uint64_t) { THROW_ERROR(ReadOnly); }
void XFSDriver::File::SetTime(uint64_t, uint64_t, uint64_t) { THROW_ERROR(ReadOnly); }

void XFSDriver::File::IOCTL(void* request) {
  auto* r = static_cast<FsRequest*>(request);
  if (r == nullptr || r->command != FourCC("GUFL")) return FileObject::IOCTL(request);
  const uint16_t f = locator->inode->Flags();
  uint64_t mapped = 0;
  if (f & 0x0008) mapped |= 0x10;
  if (f & 0x0010) mapped |= 0x20;
  if (f & 0x0020) mapped |= 0x08;
  if (f & 0x0040) mapped |= 0x80;
  if (f & 0x0080) mapped |= 0x40;
  r->word[0] = mapped;
}

}  // namespace xfs

FileSystemMountHandler* CreateXfs(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector, const uint8_t*, uint64_t) {
  try {
    return new xfs::XFSDriver(disk, startSector, sectors, handlerId, bootSector);
  } catch (const Common::Error&) {
  } catch (const std::bad_alloc&) {
  }
  return nullptr;
}
