// FAT volumes from outside: mount, walk every directory, look every entry
// up by its names, read every file.  Whatever the bytes, the driver answers
// with an error or with data, and never faults, hangs or reads outside the
// disk (ASan and UBSan watch).
//
// The input is a sparse disk of 512 MiB (sparse_disk.h): a seed of a few
// sector records stands for a whole volume of tens of megabytes.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fdisk/ver2/simpdisk.h"
#include "file/dir.h"
#include "filesys/mount_handler.h"
#include "sparse_disk.h"

namespace {

constexpr uint64_t kDiskSectors = 1u << 20;  // 512 MiB

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
  std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<fuzz::SparseDisk>(data, size, kDiskSectors);
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
