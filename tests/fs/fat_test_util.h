// FAT images made by the real tools at test time, and the walk that reads a
// mounted volume back.
#pragma once

#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/text.h"
#include "fdisk/ver2/stream_disk.h"
#include "file/dir.h"
#include "filesys/mount_handler.h"
#include "fs_test_util.h"

namespace fs_test {

struct FatLayout {
  int fatBits;               // 12, 16 or 32
  int clusterSectors;        // mkfs.fat -s
  int sectorSize;            // mkfs.fat -S
  int sizeKiB;               // the image's size
};

inline std::string Describe(const FatLayout& l) {
  return "FAT" + std::to_string(l.fatBits) + "_s" + std::to_string(l.clusterSectors) + "_S" +
         std::to_string(l.sectorSize);
}

// An empty volume made by mkfs.fat.
inline bool MakeFat(const std::string& image, const FatLayout& l, const std::string& label = "RESCUE") {
  return Run("rm -f '" + image + "' && mkfs.fat -C -F " + std::to_string(l.fatBits) + " -s " +
             std::to_string(l.clusterSectors) + " -S " + std::to_string(l.sectorSize) + " -n " + label +
             " '" + image + "' " + std::to_string(l.sizeKiB));
}

// A host tree: relative path -> contents; a path ending in "/" is a
// directory.  Written below `root` and copied into `image` with mcopy.
using HostTree = std::map<std::string, std::string>;

inline void WriteTree(const std::string& root, const HostTree& tree) {
  mkdir(root.c_str(), 0755);
  for (const auto& [path, data] : tree) {
    const std::string full = root + "/" + path;
    for (size_t p = full.find('/', root.size() + 1); p != std::string::npos; p = full.find('/', p + 1))
      mkdir(full.substr(0, p).c_str(), 0755);
    if (path.back() != '/') WriteFile(full, data);
  }
}

// Every top-level entry, dot files included.
inline bool CopyTree(const std::string& image, const std::string& root) {
  return Run("cd '" + root + "' && for f in ./* ./.[!.]*; do if [ -e \"$f\" ]; then " +
             Mtools("mcopy", image, "-s -Q \"$f\" ::/") + " || exit 1; fi; done");
}

// The bytes of `image` as a disk of `sectorSize`.
inline std::unique_ptr<Fdisk::SimpleDisk> ImageAsDisk(const std::string& image, uint32_t sectorSize = 512) {
  Common::Error e;
  std::unique_ptr<Fdisk::SimpleDisk> disk = Fdisk::OpenImageDisk(image, false, sectorSize, e);
  EXPECT_TRUE(e.IsSuccess()) << test_util::Narrow(Common::ErrorText(e));
  return disk;
}

inline std::unique_ptr<rio_dir> MountImage(const std::string& image, uint32_t sectorSize = 512) {
  std::unique_ptr<Fdisk::SimpleDisk> disk = ImageAsDisk(image, sectorSize);
  if (!disk) return nullptr;
  return std::unique_ptr<rio_dir>(Mount(kDetectAll, disk));
}

// Everything below `dir`, read through the driver: relative path ->
// contents, directories ending in "/".  Failures are test failures.
inline void ReadBack(rio_dir& dir, const std::string& prefix, HostTree& out, int depth = 0) {
  ASSERT_LT(depth, 64);
  std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
  ASSERT_NE(it, nullptr) << test_util::Narrow(Common::ErrorText(dir.TakeError()));
  for (; !it->HasError(); it->Next()) {
    const std::u16string name = it->FileName();
    const std::string path = prefix + Common::Utf16ToUtf8(name);
    if (FileTypes::IsDirectoryLike(it->FileType())) {
      out[path + "/"] = "";
      std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
      ASSERT_NE(sub, nullptr) << path;
      ReadBack(*sub, path + "/", out, depth + 1);
    } else {
      std::unique_ptr<ri_file> file(dir.Open(name.c_str(), true));
      ASSERT_NE(file, nullptr) << path << ": " << test_util::Narrow(Common::ErrorText(dir.TakeError()));
      EXPECT_EQ(uint64_t(file->GetSize()), it->Size()) << path;
      out[path] = ReadAll(*file);
    }
  }
  EXPECT_EQ(it->TakeError().Code(), Common::Codes::EndOfFile);
}

}  // namespace fs_test
