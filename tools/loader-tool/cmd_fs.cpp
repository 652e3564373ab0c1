// loader-tool ls|cat|stat IMAGE[@PARTITION] PATH: the loader's own disk,
// mount and driver code on an image file, so that a rescue disk can be
// checked before it is booted.
//
// PARTITION is a GPT unique partition GUID (the loader's own road: the
// image is presented as the firmware would present it, and the partition
// is found and mounted exactly as the configuration's GPT element would
// have it), or a partition number of a GPT or MBR disk.  Without it the
// image is one bare volume.
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "common/error_codes.h"
#include "common/text.h"
#include "efi/host_only/sim_blocks.h"
#include "efi/host_only/sim_firmware.h"
#include "efi/volumes.h"
#include "fdisk/partition_table.h"
#include "fdisk/ver2/stream_disk.h"
#include "filesys/filesys.h"
#include "filesys/mount_handler.h"
#include "resizer/snapshot_emulation.h"
#include "tool.h"

namespace {

using EfiLoader::Sim::ScopedFirmware;
using EfiLoader::Sim::SimBlocks;
using EfiLoader::Sim::SimFirmware;

struct Target {
  std::string image;
  enum class Kind { Bare, Number, Guid } kind = Kind::Bare;
  uint32_t number = 0;
  Common::GUID guid{};
};

// "IMAGE@GUID", "IMAGE@N" or "IMAGE"; an "@" followed by anything else is
// part of the file name.
Target ParseTarget(const std::string& arg) {
  Target t;
  t.image = arg;
  const size_t at = arg.rfind('@');
  if (at == std::string::npos || at == 0) return t;
  const std::string part = arg.substr(at + 1);
  if (Common::TextToGuid(part.c_str(), t.guid) && part.size() == 36) {
    t.kind = Target::Kind::Guid;
    t.image = arg.substr(0, at);
    return t;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long n = std::strtoul(part.c_str(), &end, 10);
  if (!part.empty() && *end == 0 && errno == 0 && n >= 1 && n <= 0xFFFFFFFFul) {
    t.kind = Target::Kind::Number;
    t.number = uint32_t(n);
    t.image = arg.substr(0, at);
  }
  return t;
}

// A mounted volume and everything that must outlive it.
class Volume {
 public:
  explicit Volume(const Target& target) : target_(target) {}
  ~Volume() {
    root_.reset();
    volumes_.reset();
  }

  // Throws the loader's error when the volume cannot be mounted.
  rio_dir& Root() {
    if (root_) return *root_;
    if (target_.kind == Target::Kind::Guid) {
      UseFirmware();
      Common::Error e = volumes_->OpenRoot(target_.guid, root_);
      if (e.IsError()) throw e;
      return *root_;
    }
    Common::Error e;
    image_ = Fdisk::OpenImageDisk(target_.image, false, 512, e);
    if (!image_) throw e;
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    if (target_.kind == Target::Kind::Number) {
      Fdisk::PartitionTable table;
      e = Fdisk::ReadPartitionTable(*image_, table);
      if (e.IsError()) throw e;
      const Fdisk::PartitionEntry* entry = nullptr;
      for (const auto& p : table.entries)
        if (p.number == target_.number) entry = &p;
      if (entry == nullptr) {
        std::fprintf(stderr, "loader-tool: %s has no partition %u\n", target_.image.c_str(), target_.number);
        std::exit(1);
      }
      disk = std::make_unique<resizer::SnapshotEmulation>(
          resizer::SourceVolume{image_.get(), entry->firstSector, entry->sectorCount});
    } else {
      disk = std::move(image_);
    }
    rio_dir* root = Mount(kDetectAll, disk);
    if (root == nullptr) throw Common::MakeError(ERROR_HERE, Common::Codes::MountFailed);
    root_.reset(root);
    return *root_;
  }

  // The file at `path`, opened as the loader opens what it boots; throws
  // the loader's own report.
  std::shared_ptr<ri_file> OpenFile(const std::u16string& path) {
    if (target_.kind == Target::Kind::Guid) {
      UseFirmware();
      return volumes_->GetFile(target_.guid, path);
    }
    std::shared_ptr<ri_file> file;
    Common::Error e = EfiLoader::OpenFileOnVolume(Root(), path, file);
    if (e.IsError()) throw e;
    return file;
  }

 private:
  void UseFirmware() {
    if (volumes_) return;
    firmware_ = std::make_unique<SimFirmware>();
    blocks_ = std::make_unique<SimBlocks>();
    firmware_->blocks = blocks_.get();
    scoped_ = std::make_unique<ScopedFirmware>(*firmware_);
    Common::Error e = blocks_->AddDiskImage(target_.image);
    if (e.IsError()) throw e;
    volumes_ = std::make_unique<EfiLoader::Volumes>();
  }

  Target target_;
  std::unique_ptr<SimFirmware> firmware_;
  std::unique_ptr<SimBlocks> blocks_;
  std::unique_ptr<ScopedFirmware> scoped_;
  std::unique_ptr<EfiLoader::Volumes> volumes_;
  std::unique_ptr<Fdisk::StreamDisk> image_;
  std::shared_ptr<rio_dir> root_;
};

std::u16string Wide(const char* s) { return Common::Utf8ToUtf16(s); }
std::string Narrow(const std::u16string& s) { return Common::Utf16ToUtf8(s); }

std::string Time(uint64_t ms) {
  if (ms == 0) return "-";
  const int64_t secs = int64_t(ms / 1000);
  int64_t days = secs / 86400, rest = secs % 86400;
  // The civil date of a day count (days since 1970-01-01).
  days += 719468;
  const int64_t era = days / 146097, doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
  const int64_t day = doy - (153 * mp + 2) / 5 + 1, month = mp < 10 ? mp + 3 : mp - 9;
  const int64_t year = yoe + era * 400 + (month <= 2);
  char text[40];
  std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld", (long long)year,
                (long long)month, (long long)day, (long long)(rest / 3600), (long long)(rest / 60 % 60),
                (long long)(rest % 60));
  return text;
}

// The directory that holds the last component of `path`, and that
// component; an empty leaf means the directory itself.
std::unique_ptr<rio_dir> OpenParent(rio_dir& root, const std::u16string& path, std::u16string& leaf) {
  const char16_t* rest = path.c_str();
  std::unique_ptr<rio_dir> dir(root.OpenPath(rest));
  if (!dir) throw root.TakeError();
  leaf = rest;
  return dir;
}

void PrintEntry(i_dir::iterator& it) {
  const bool isDir = FileTypes::IsDirectoryLike(it.FileType());
  std::printf("%c %12llu %s  %s\n", isDir ? 'd' : '-', (unsigned long long)it.Size(),
              Time(it.ModificationTime()).c_str(), Narrow(it.FileName()).c_str());
}

int RunLs(int argc, char** argv) {
  if (argc < 1 || argc > 2) {
    std::fprintf(stderr, "usage: loader-tool ls IMAGE[@PARTITION] [PATH]\n");
    return 2;
  }
  Volume volume(ParseTarget(argv[0]));
  const std::u16string path = argc > 1 ? Wide(argv[1]) : u"/";
  std::u16string leaf;
  std::unique_ptr<rio_dir> dir = OpenParent(volume.Root(), path, leaf);
  if (!leaf.empty()) {
    std::unique_ptr<i_dir::iterator> self(dir->GetIterator(leaf.c_str()));
    if (!self) throw dir->TakeError();
    if (self->HasError()) throw self->TakeError();
    if (!FileTypes::IsDirectoryLike(self->FileType())) {
      PrintEntry(*self);
      return 0;
    }
    std::unique_ptr<rio_dir> child(dir->OpenDir(leaf.c_str()));
    if (!child) throw dir->TakeError();
    dir = std::move(child);
  }
  std::unique_ptr<i_dir::iterator> it(dir->GetIterator());
  if (!it) throw dir->TakeError();
  for (; !it->HasError(); it->Next()) PrintEntry(*it);
  Common::Error end = it->TakeError();
  if (end.Code() != Common::Codes::EndOfFile) throw end;
  return 0;
}

int RunCat(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: loader-tool cat IMAGE[@PARTITION] PATH\n");
    return 2;
  }
  Volume volume(ParseTarget(argv[0]));
  std::shared_ptr<ri_file> file = volume.OpenFile(Wide(argv[1]));
  // Large, page-aligned pieces let the driver read whole runs of clusters
  // straight into the buffer.
  constexpr size_t kPiece = 4 << 20;
  void* block = nullptr;
  if (posix_memalign(&block, 4096, kPiece) != 0) throw Common::MakeError(ERROR_HERE, Common::Codes::NotEnoughMemory);
  std::unique_ptr<void, void (*)(void*)> hold(block, &free);
  auto* buffer = static_cast<char*>(block);
  for (;;) {
    uint64_t got = 0;
    file->Read(buffer, kPiece, got);
    if (file->HasError()) throw file->TakeError();
    for (uint64_t done = 0; done < got;) {
      const ssize_t n = write(1, buffer + done, size_t(got - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        std::perror("loader-tool: write");
        return 1;
      }
      done += uint64_t(n);
    }
    if (got < kPiece) break;
  }
  return 0;
}

int RunStat(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: loader-tool stat IMAGE[@PARTITION] PATH\n");
    return 2;
  }
  Volume volume(ParseTarget(argv[0]));
  std::u16string leaf;
  std::unique_ptr<rio_dir> dir = OpenParent(volume.Root(), Wide(argv[1]), leaf);
  std::unique_ptr<i_dir::iterator> it(leaf.empty() ? dir->GetSelfIterator() : dir->GetIterator(leaf.c_str()));
  if (!it) throw dir->TakeError();
  if (it->HasError()) throw it->TakeError();
  const uint32_t type = it->FileType();
  std::printf("Name: %s\n", Narrow(it->FileName()).c_str());
  if (const char16_t* s = it->ShortName()) std::printf("Short name: %s\n", Narrow(s).c_str());
  std::printf("Type: %s\n", type == FileTypes::RootEntry ? "root" : FileTypes::IsDirectoryLike(type) ? "directory" : "file");
  std::printf("Size: %llu\n", (unsigned long long)it->Size());
  std::printf("Size on disk: %llu\n", (unsigned long long)it->SizeOnDisk());
  if (it->DOSAttributes() != kNoAttributeValue) std::printf("Attributes: 0x%02X\n", it->DOSAttributes());
  std::printf("Hidden: %s\n", it->IsHidden() ? "yes" : "no");
  std::printf("Modified: %s\n", Time(it->ModificationTime()).c_str());
  std::printf("Created: %s\n", Time(it->CreationTime()).c_str());
  std::printf("Accessed: %s\n", Time(it->AccessTime()).c_str());
  std::printf("Inode: %llu\n", (unsigned long long)it->InodeId());
  if (it->HasError()) throw it->TakeError();
  if (leaf.empty()) {
    FsRequest request{};
    request.command = FourCC("GFST");
    dir->IOCTL(&request);
    if (!dir->HasError()) std::printf("File system: %s\n", Narrow(request.text).c_str());
    char16_t label[64];
    dir->GetVolumeLabel(label, 64);
    if (!dir->HasError()) std::printf("Label: %s\n", Narrow(label).c_str());
    uint64_t total = 0, free = 0, available = 0;
    dir->GetDriveSize(total, free, available);
    if (!dir->HasError()) std::printf("Total bytes: %llu\nFree bytes: %llu\n", (unsigned long long)total,
                                      (unsigned long long)free);
    if (dir->HasError()) throw dir->TakeError();
  }
  return 0;
}

tool::Registrar regLs("ls", "ls IMAGE[@PARTITION] [PATH]    list a directory of a volume (PARTITION: GPT GUID or number)", &RunLs);
tool::Registrar regCat("cat", "cat IMAGE[@PARTITION] PATH      write a file of a volume to standard output", &RunCat);
tool::Registrar regStat("stat", "stat IMAGE[@PARTITION] PATH     show an entry's attributes (the volume's for \"/\")", &RunStat);

}  // namespace
