// XFS images made by mkfs.xfs at test time from a protofile that mirrors a
// host tree, and mounting through the XFS driver alone.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "ext_test_util.h"
#include "file/filesys/xfs/xfs.h"

namespace fs_test {

// The protofile lines for the contents of host directory `dir`.
inline void AppendProto(const std::string& dir, std::string& out) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string full = dir + "/" + name;
    struct stat st;
    if (lstat(full.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      out += name + " d--755 0 0\n";
      AppendProto(full, out);
      out += "$\n";
    } else if (S_ISLNK(st.st_mode)) {
      char target[4096];
      const ssize_t n = readlink(full.c_str(), target, sizeof target);
      out += name + " l--777 0 0 " + std::string(target, n > 0 ? size_t(n) : 0) + "\n";
    } else {
      out += name + " ---644 0 0 " + full + "\n";
    }
  }
  closedir(d);
}

// A sparse 300 MiB volume made with `options` holding the tree below
// `source` (names without spaces or colons: the protofile splits on them).
inline bool MakeXfs(const std::string& image, const std::string& options, const std::string& source) {
  std::string proto = "boot\n0 0\nd--755 0 0\n";
  AppendProto(source, proto);
  proto += "$\n";
  test_util::WriteFile(image + ".proto", proto);
  return Run("rm -f '" + image + "' && truncate -s 300M '" + image + "' && mkfs.xfs -q -f " + options +
             " -L rescue -p '" + image + ".proto' '" + image + "'");
}

// Mounts a disk with the XFS driver alone, the way Mount does with a row.
inline std::unique_ptr<rio_dir> MountXfs(std::unique_ptr<Fdisk::SimpleDisk> disk) {
  if (!disk) return nullptr;
  FileSystemMountHandler* handler =
      CreateXfs(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, nullptr, 0);
  if (handler == nullptr) return nullptr;
  handler->AddRef();
  handler->flags |= FileSystemMountHandler::kOwnsDisk;
  disk.release();
  std::unique_ptr<rio_dir> root(handler->OpenRootDir());
  if (handler->ReleaseRef() == 0) delete handler;
  return root;
}

inline std::unique_ptr<rio_dir> MountXfsImage(const std::string& image) {
  return MountXfs(ImageAsDisk(image, 512));
}

// Damaging real volumes: numbers in place, checksums written anew.
inline uint64_t GetBe(const std::string& s, size_t at, int width) {
  uint64_t v = 0;
  for (int i = 0; i < width; ++i) v = v << 8 | uint8_t(s[at + i]);
  return v;
}
inline void PutBe(std::string& s, size_t at, int width, uint64_t v) {
  for (int i = width - 1; i >= 0; --i, v >>= 8) s[at + i] = char(v & 0xFF);
}
inline void PutCrc(std::string& s, size_t start, size_t size, size_t crcAt) {
  std::memset(&s[start + crcAt], 0, 4);
  const uint32_t crc = ~extfs::Crc32c(0xFFFFFFFF, s.data() + start, size);
  for (int i = 0; i < 4; ++i) s[start + crcAt + i] = char(crc >> (8 * i));
}

// A volume in memory with the places of its objects.
struct Volume {
  std::string bytes;
  bool v5 = false;
  uint32_t blockSize = 0, inodeSize = 0, groupBlocks = 0, groupLog = 0, inodesPerBlockLog = 0;

  void Load(const std::string& image) {
    bytes = ReadFile(image);
    v5 = (GetBe(bytes, 100, 2) & 0xF) == 5;
    blockSize = uint32_t(GetBe(bytes, 4, 4));
    inodeSize = uint32_t(GetBe(bytes, 104, 2));
    groupBlocks = uint32_t(GetBe(bytes, 84, 4));
    groupLog = uint8_t(bytes[124]);
    inodesPerBlockLog = uint8_t(bytes[123]);
  }
  uint64_t BlockOffset(uint64_t packed) const {
    return ((packed >> groupLog) * groupBlocks + (packed & ((uint64_t(1) << groupLog) - 1))) * blockSize;
  }
  size_t InodeOffset(uint64_t number) const {
    return size_t(BlockOffset(number >> inodesPerBlockLog) +
                  (number & ((uint64_t(1) << inodesPerBlockLog) - 1)) * inodeSize);
  }
  size_t ForkOffset(uint64_t number) const { return InodeOffset(number) + (v5 ? 176 : 100); }
  // The first extent's volume block of an inode with extents.
  uint64_t FirstBlock(uint64_t number) const {
    const size_t f = ForkOffset(number);
    return (GetBe(bytes, f, 8) & 0x1FF) << 43 | GetBe(bytes, f + 8, 8) >> 21;
  }
  void FixSuper() {
    if (v5) PutCrc(bytes, 0, GetBe(bytes, 102, 2), 224);
  }
  void FixInode(uint64_t number) {
    if (v5) PutCrc(bytes, InodeOffset(number), inodeSize, 100);
  }
  void FixDirBlock(size_t at) {
    if (v5) PutCrc(bytes, at, blockSize, 4);
  }
};

}  // namespace fs_test
