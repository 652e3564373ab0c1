// The FAT driver: the volume and its allocation table.
#include "fat.h"

#include <cstring>
#include <new>

#include "filesys/collation.h"
#include "filesys/mount_handler.h"

using namespace Common::Codes;

namespace {

uint32_t ReadLe32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

// ---- identification: the constructor judges the boot sector

FATDriver::FATDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                     uint32_t handlerId, const uint8_t* bootSector, const uint8_t* visibleBitmap,
                     uint64_t bitmapBits)
    : FileSystemDriverWindows(disk, startSector, sectors, handlerId),
      visibleBitmap_(visibleBitmap),
      visibleBits_(visibleBitmap ? bitmapBits : 0) {
  const uint32_t ss = SectorSize();
  if (ss < 512) THROW_ERROR(Corrupted);
  SectorBufferRef own;
  if (bootSector == nullptr) {
    own = GetBuffer(0, 1);
    bootSector = own.Data();
  }
  Fat::BootSector b;
  std::memcpy(&b, bootSector, sizeof b);

  // The identification proper.  Everything here is weak evidence on its
  // own; FAT is tried first, so the rules must be strict.
  if (b.jump[0] != 0xEB && b.jump[0] != 0xE9) THROW_ERROR(Corrupted);
  const uint32_t spc = b.sectorsPerCluster;
  if (spc == 0 || spc > 128 || (spc & (spc - 1)) != 0) THROW_ERROR(Corrupted);
  const uint32_t reserved = b.reservedSectors.get();
  if (reserved == 0) THROW_ERROR(Corrupted);
  const int8_t fats = int8_t(b.numberOfFats);
  if (fats <= 0) THROW_ERROR(Corrupted);

  uint64_t total = b.totalSectors32.get();
  if (total == 0) total = b.totalSectors16.get();
  sectorsPerCluster_ = spc;
  reservedSectors_ = reserved;
  numberOfFats_ = uint32_t(fats);

  uint64_t count = 0;
  uint64_t firstData = 0;
  if (b.sectorsPerFat16.get() != 0) {
    // FAT12 and FAT16: a fixed root directory behind the FATs.
    const uint32_t rootEntries = b.rootEntries.get();
    const uint32_t entriesPerSector = ss / sizeof(Fat::DirEntry);
    if (rootEntries == 0 || rootEntries % entriesPerSector != 0) THROW_ERROR(Corrupted);
    const uint32_t spf = b.sectorsPerFat16.get();
    rootDirSectors_ = rootEntries / entriesPerSector;
    firstData = uint64_t(numberOfFats_) * spf + reserved + rootDirSectors_;
    if (total <= firstData) THROW_ERROR(Corrupted);
    count = (total - firstData) / spc;
    if (count < 1 || count > Fat::kMaxFat16Clusters) THROW_ERROR(Corrupted);
    const uint32_t halfBytes = count <= Fat::kMaxFat12Clusters ? 3 : 4;
    // A FAT too small for the area: only the clusters it can map count,
    // and that must not change the kind of FAT.
    if (spf <= ((count + 2) * halfBytes - 1) / (2 * uint64_t(ss))) {
      count = 2 * uint64_t(ss) * spf / halfBytes - 2;
      const uint32_t again = count <= Fat::kMaxFat12Clusters ? 3 : 4;
      if (count < 1 || again != halfBytes) THROW_ERROR(Corrupted);
    }
    if (count * spc + firstData > sectors) THROW_ERROR(Corrupted);
    sectorsPerFat_ = spf;
    rootCluster_ = 0;
    fsInfoSector_ = 0;
    activeFatSector_ = reserved;
    mirror_ = numberOfFats_ > 1;
    clusterCount_ = uint32_t(count);
    firstDataSector_ = uint32_t(firstData);
    std::memcpy(bootLabel_, b.fat16.label, sizeof bootLabel_);
    if (halfBytes == 3)
      fat_ = std::make_unique<FAT12Handler>(*this);
    else
      fat_ = std::make_unique<FATXXHandler<unsigned short, 65535ul>>(*this);
    return;
  }

  // FAT32: the root directory is a cluster chain.
  if (b.fat32.version.get() != 0) THROW_ERROR(Corrupted);
  const uint32_t spf = b.fat32.sectorsPerFat.get();
  if (spf == 0) THROW_ERROR(Corrupted);
  firstData = uint64_t(numberOfFats_) * spf + reserved;
  if (firstData >= total) THROW_ERROR(Corrupted);
  count = (total - firstData) / spc;
  if (count < 1 || count > Fat::kMaxFat32Clusters) THROW_ERROR(Corrupted);
  const uint32_t perSector = ss / 4;
  if (spf <= (count + 1) / perSector) count = uint64_t(perSector) * spf - 2;
  if (count * spc + firstData > sectors) THROW_ERROR(Corrupted);
  const uint32_t root = b.fat32.rootCluster.get();
  if (root - 2 >= count) THROW_ERROR(Corrupted);
  const uint32_t flags = b.fat32.extendedFlags.get();
  const uint32_t active = flags & 0x0F;
  if (active >= numberOfFats_) THROW_ERROR(Corrupted);
  sectorsPerFat_ = spf;
  rootCluster_ = root;
  rootDirSectors_ = 0;
  activeFatSector_ = active * spf + reserved;
  const uint32_t fsInfo = b.fat32.fsInfoSector.get();
  fsInfoSector_ = fsInfo < reserved ? fsInfo : 0;
  mirror_ = numberOfFats_ > 1 && (flags & 0x80) == 0;
  clusterCount_ = uint32_t(count);
  firstDataSector_ = uint32_t(firstData);
  std::memcpy(bootLabel_, b.fat32.label, sizeof bootLabel_);
  fat_ = std::make_unique<FATXXHandler<unsigned long, 268435455ul>>(*this);
}

FATDriver::~FATDriver() {
  // The directories and files still hold buffers of the base; they go
  // first, then the FAT's own window.
  ReleaseObjects();
  fat_.reset();
}

FileSystemMountHandler* CreateFat(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits) {
  try {
    return new FATDriver(disk, startSector, sectors, handlerId, bootSector, visibleBitmap, bitmapBits);
  } catch (const Common::Error&) {
  } catch (const std::bad_alloc&) {
  }
  return nullptr;
}

uint32_t FATDriver::FirstCluster(const Fat::DirEntry& e) const {
  const uint32_t low = e.firstClusterLow.get();
  return IsFat32() ? (uint32_t(e.firstClusterHigh.get()) << 16 | low) : low;
}

bool FATDriver::ValidEntry(const Fat::DirEntry& e) const {
  if (e.name[0] == '.' || e.name[0] == Fat::kDeleted || (e.attributes & Fat::kAttrVolumeLabel))
    return false;
  if (visibleBitmap_ == nullptr) return true;
  if (e.size.get() == 0 && (e.attributes & Fat::kAttrDirectory) == 0) return true;
  const uint32_t cluster = FirstCluster(e);
  if (cluster < 2) return true;
  if (cluster >= visibleBits_) return false;
  return (visibleBitmap_[cluster >> 3] >> (cluster & 7)) & 1;
}

// ---- volume operations

uint32_t FATDriver::GetAvailableClusters() {
  if (freeKnown_) return freeClusters_;
  if (fsInfoSector_ != 0) {
    SectorBufferRef info = GetBuffer(fsInfoSector_, 1);
    const uint8_t* p = info.Data();
    if (ReadLe32(p + Fat::kFsInfoLeadOffset) == Fat::kFsInfoLeadSignature &&
        ReadLe32(p + Fat::kFsInfoStructOffset) == Fat::kFsInfoStructSignature) {
      const uint32_t free = ReadLe32(p + Fat::kFsInfoFreeCountOffset);
      if (free < clusterCount_) {
        freeClusters_ = free;
        freeKnown_ = true;
        return free;
      }
    } else {
      fsInfoSector_ = 0;  // not what it claims to be: count instead
    }
  }
  freeClusters_ = fat_->CountFree();
  freeKnown_ = true;
  return freeClusters_;
}

void FATDriver::GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) {
  total = (uint64_t(clusterCount_) * sectorsPerCluster_ + firstDataSector_) * SectorSize();
  free = available = uint64_t(GetAvailableClusters()) * ClusterBytes();
}

void FATDriver::GetVolumeLabel(char16_t* buffer, uint32_t capacity) {
  if (buffer == nullptr || capacity == 0) return;
  buffer[0] = 0;
  // A label entry in the root wins over the boot sector's copy.
  const uint8_t* raw = bootLabel_;
  DirHold root = GetDirectory(0);
  auto* dir = static_cast<FATDirectory*>(root.Get());
  for (uint32_t i = 0; i < dir->TotalEntries(); ++i) {
    const Fat::DirEntry& e = dir->EntryAt(i);
    if (e.name[0] == 0) break;
    if ((e.attributes & Fat::kAttrVolumeLabel) && e.attributes != Fat::kAttrLongName &&
        e.name[0] != Fat::kDeleted) {
      raw = e.name;
      break;
    }
  }
  std::u16string label;
  if (!FatText::ToText(raw, 11, label)) label.clear();
  for (char16_t& c : label)
    if (c == 0) c = u' ';
  while (!label.empty() && label.back() == u' ') label.pop_back();
  if (label.size() > capacity - 1) label.resize(capacity - 1);
  std::memcpy(buffer, label.data(), label.size() * sizeof(char16_t));
  buffer[label.size()] = 0;
}

int FATDriver::CompareNames(const file_identifier* a, const file_identifier* b) {
  auto* x = dynamic_cast<const the_identifier*>(a);
  auto* y = dynamic_cast<const the_identifier*>(b);
  if (x == nullptr || y == nullptr || x->DataSize() < 11 || y->DataSize() < 11)
    THROW_ERROR(InvalidUsage);
  return std::memcmp(x->Data(), y->Data(), 11);
}

void FATDriver::NormalizeName(std::u16string& name) { FatText::Upper(name); }

void FATDriver::IOCTL(void* request) {
  auto* r = static_cast<FsRequest*>(request);
  // Moving files to the front of the volume is a writing operation, which
  // this driver does not do.
  if (r != nullptr && r->command == FourCC("MKFF")) THROW_ERROR(Common::Codes::NotSupported);
  FileSystemDriverWindows::IOCTL(request);
}

FileSystemDriver::DirectoryObject* FATDriver::OpenDirById(uint64_t id) {
  if (id != 0 && (id > 0xFFFFFFFFu || !InRange(uint32_t(id)))) THROW_ERROR(OpenError);
  return new FATDirectory(*this, id);
}

// ---- FAT12: the whole table in one buffer

void FATDriver::FAT12Handler::Load() {
  if (loaded_) return;
  const uint32_t ss = driver_.SectorSize();
  const uint64_t count = driver_.ClusterCount();
  const uint32_t sectors = uint32_t(((count * 3 + 5) / 2) / ss + 1);
  table_ = driver_.GetBuffer(driver_.ActiveFatSector(), sectors);
  bytes_ = uint64_t(table_.SectorCount()) * ss;
  loaded_ = true;
}

uint32_t FATDriver::FAT12Handler::Entry(uint32_t cluster) {
  const uint64_t at = uint64_t(cluster) * 3 / 2;
  // A buffer found in the cache may be shorter than asked for.
  if (at + 2 > bytes_) THROW_ERROR(Corrupted);
  const uint8_t* p = table_.Data() + at;
  const uint32_t word = uint32_t(p[0]) | uint32_t(p[1]) << 8;
  return (cluster & 1) ? word >> 4 : word & 0xFFF;
}

bool FATDriver::FAT12Handler::NextRun(ClusterRun& run) {
  const uint32_t c = run.next;
  if (!driver_.InRange(c)) return false;
  Load();
  uint32_t last = c;
  uint32_t value = Entry(last);
  while (value == last + 1 && driver_.InRange(value)) {
    last = value;
    value = Entry(last);
  }
  run.first = c;
  run.end = last + 1;
  run.next = value;
  return true;
}

uint32_t FATDriver::FAT12Handler::CountFree() {
  Load();
  uint32_t free = 0;
  const uint32_t end = driver_.ClusterCount() + 2;
  for (uint32_t c = 2; c < end; ++c)
    if (Entry(c) == 0) ++free;
  return free;
}

// ---- FAT16 and FAT32: windows of up to eight FAT sectors

template <typename Entry, unsigned long Mask>
FATDriver::FATXXHandler<Entry, Mask>::FATXXHandler(FATDriver& driver)
    : driver_(driver), entriesPerSector_(driver.SectorSize() / (Mask == 65535ul ? 2 : 4)) {}

template <typename Entry, unsigned long Mask>
void FATDriver::FATXXHandler<Entry, Mask>::Load(uint32_t index) {
  const uint64_t fatStart = driver_.ActiveFatSector();
  const uint64_t fatEnd = fatStart + driver_.SectorsPerFat();
  const uint64_t sector = fatStart + index;
  if (sector >= fatEnd) THROW_ERROR(Corrupted);
  if (window_ && sector >= windowFirst_ && sector < windowFirst_ + windowSectors_) return;
  // Aligned on the absolute sector number, not on the FAT's start.
  uint64_t first = sector & ~uint64_t(kWindowSectors - 1);
  if (first < fatStart) first = fatStart;
  uint64_t end = (sector | (kWindowSectors - 1)) + 1;
  if (end > fatEnd) end = fatEnd;
  window_.Reset();
  window_ = driver_.GetBuffer(first, uint32_t(end - first));
  windowFirst_ = first;
  // A buffer found in the cache at the same sector may be shorter.
  windowSectors_ = window_.SectorCount() < end - first ? window_.SectorCount() : uint32_t(end - first);
  if (sector >= windowFirst_ + windowSectors_) {
    window_.Reset();
    window_ = SectorBufferRef();
    THROW_ERROR(Corrupted);
  }
}

template <typename Entry, unsigned long Mask>
uint32_t FATDriver::FATXXHandler<Entry, Mask>::EntryAt(uint32_t cluster) const {
  const uint64_t sector = driver_.ActiveFatSector() + cluster / entriesPerSector_;
  const uint64_t offset = (sector - windowFirst_) * driver_.SectorSize() +
                          uint64_t(cluster % entriesPerSector_) * (Mask == 65535ul ? 2 : 4);
  const uint8_t* p = window_.Data() + offset;
  if (Mask == 65535ul) return uint32_t(p[0]) | uint32_t(p[1]) << 8;
  return ReadLe32(p) & uint32_t(Mask);
}

template <typename Entry, unsigned long Mask>
bool FATDriver::FATXXHandler<Entry, Mask>::NextRun(ClusterRun& run) {
  const uint32_t c = run.next;
  if (!driver_.InRange(c)) return false;
  const uint32_t index = c / entriesPerSector_;
  run.first = c;
  if (sequential_.count(index)) {
    run.end = c + entriesPerSector_ - c % entriesPerSector_;
    run.next = run.end;
    return true;
  }
  Load(index);
  uint32_t last = c;
  uint32_t value = EntryAt(last);
  while (value == last + 1 && driver_.InRange(value) && value / entriesPerSector_ == index) {
    last = value;
    value = EntryAt(last);
  }
  run.end = last + 1;
  run.next = value;
  // The whole sector from its first entry continues into the next one:
  // later runs through it need not read it.
  if (c % entriesPerSector_ == 0 && value == last + 1 && driver_.InRange(value) &&
      value / entriesPerSector_ != index)
    sequential_.insert(index);
  return true;
}

template <typename Entry, unsigned long Mask>
uint32_t FATDriver::FATXXHandler<Entry, Mask>::CountFree() {
  uint32_t free = 0;
  const uint64_t end = uint64_t(driver_.ClusterCount()) + 2;
  for (uint64_t c = 2; c < end; ++c) {
    const uint32_t cluster = uint32_t(c);
    if (cluster % entriesPerSector_ == 0 || c == 2) Load(cluster / entriesPerSector_);
    if (EntryAt(cluster) == 0) ++free;
  }
  return free;
}

template class FATDriver::FATXXHandler<unsigned short, 65535ul>;
template class FATDriver::FATXXHandler<unsigned long, 268435455ul>;
