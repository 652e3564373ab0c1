// FAT volumes from outside: mount, walk every directory, look every entry
// up by its names, read every file.  Whatever the bytes, the driver answers
// with an error or with data, and never faults, hangs or reads outside the
// disk (ASan and UBSan watch).
//
// The input is a sparse disk of 512-byte sectors: records of a
// little-endian 32-bit sector number and the sector's 512 bytes.  Sectors
// that no record names read as zeroes, so a seed of a few records stands
// for a whole volume of tens of megabytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fdisk/ver2/simpdisk.h"
#include "file/dir.h"
#include "filesys/mount_handler.h"

namespace {

constexpr uint32_t kSectorSize = 512;
constexpr uint64_t kDiskSectors = 1u << 20;  // 512 MiB
constexpr size_t kRecord = 4 + kSectorSize;

class SparseDisk final : public Fdisk::SimpleDisk {
 public:
  SparseDisk(const uint8_t* data, size_t size) {
    sectorSize_ = kSectorSize;
    lastSector_ = kDiskSectors - 1;
    for (size_t at = 0; at + kRecord <= size; at += kRecord) {
      const uint32_t n = uint32_t(data[at]) | uint32_t(data[at + 1]) << 8 | uint32_t(data[at + 2]) << 16 |
                         uint32_t(data[at + 3]) << 24;
      sectors_[n % kDiskSectors] = data + at + 4;
    }
  }

  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t count) override {
    if (op != Fdisk::DiskRead) return Common::Error(ERROR_HERE, Fdisk::Codes::WriteProtected, u"Write protected.");
    if (sector >= kDiskSectors || count > kDiskSectors - sector)
      return Common::Error(ERROR_HERE, Fdisk::Codes::InvalidParameter, u"One of the parameters has an invalid value.");
    auto* out = static_cast<uint8_t*>(buffer);
    std::memset(out, 0, count * kSectorSize);
    for (auto it = sectors_.lower_bound(sector); it != sectors_.end() && it->first < sector + count; ++it)
      std::memcpy(out + (it->first - sector) * kSectorSize, it->second, kSectorSize);
    return Common::Error();
  }

 private:
  std::map<uint64_t, const uint8_t*> sectors_;
};

// Bounds of the walk itself, so that one input stays quick; the driver has
// its own bounds and must not need these.
struct Budget {
  int entries = 4000;
  uint64_t bytes = 8u << 20;
};

void ReadFile(ri_file& file, Budget& budget) {
  static std::vector<char> buffer(256 * 1024 + 7);
  const int64_t size = file.GetSize();
  if (size < 0) return;
  // Once aligned, once not: both roads of the reads around the cache.
  for (char* dst : {buffer.data(), buffer.data() + 7}) {
    file.Seek(0);
    for (int i = 0; i < 4 && budget.bytes > 0; ++i) {
      uint64_t got = 0;
      file.Read(dst, 256 * 1024, got);
      budget.bytes -= got < budget.bytes ? got : budget.bytes;
      if (file.HasError() || got == 0) break;
    }
    file.TakeError();
  }
}

void Walk(rio_dir& dir, Budget& budget, int depth) {
  if (depth > 12) return;
  std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
  if (!it) return;
  for (; !it->HasError() && --budget.entries > 0; it->Next()) {
    const std::u16string name = it->FileName();
    it->ShortName();
    it->Size();
    it->SizeOnDisk();
    it->ModificationTime();
    it->CreationTime();
    it->AccessTime();
    it->InodeId();
    it->DOSAttributes();
    std::unique_ptr<file_identifier> id(it->GetIdentifier());
    if (name.empty()) continue;
    // The entry again by its name, as a lookup finds it.
    std::unique_ptr<i_dir::iterator> again(dir.GetIterator(name.c_str()));
    if (FileTypes::IsDirectoryLike(it->FileType())) {
      std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
      if (sub) Walk(*sub, budget, depth + 1);
    } else {
      std::unique_ptr<ri_file> file(dir.Open(name.c_str(), true));
      if (file) ReadFile(*file, budget);
      std::unique_ptr<ri_file> byId(id ? dir.Open(id.get(), true) : nullptr);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<SparseDisk>(data, size);
  std::unique_ptr<rio_dir> root(Mount(kDetectAll, disk));
  if (!root) return 0;
  char16_t label[64];
  root->GetVolumeLabel(label, 64);
  uint64_t total, free, available;
  root->GetDriveSize(total, free, available);
  root->TakeError();
  Budget budget;
  try {
    Walk(*root, budget, 0);
  } catch (const Common::Error&) {
    // Opening calls may throw on names the faces refuse; that is an answer.
  }
  return 0;
}
