// ext2/3/4 images made by mke2fs at test time, and the walk that reads a
// mounted volume back, symbolic links included.
#pragma once

#include <map>
#include <ostream>
#include <memory>
#include <string>

#include "common/text.h"
#include "fat_test_util.h"
#include "file/filesys/extfs/extfs.h"
#include "filesys/mount_handler.h"
#include "fs_test_util.h"

namespace fs_test {

struct ExtLayout {
  const char* name;
  const char* type;      // mke2fs -t
  int blockSize;         // mke2fs -b
  const char* options;   // further mke2fs options
  const char* hash;      // the index's hash, "" for mke2fs's default
  int sizeKiB;
};

// Test names show the layout's name, not its bytes.
inline void PrintTo(const ExtLayout& l, std::ostream* os) { *os << l.name; }

// A volume of `layout` holding the tree below `source`; every directory
// big enough gets a hash index.
inline bool MakeExt(const std::string& image, const ExtLayout& l, const std::string& source) {
  const std::string size = std::to_string(l.sizeKiB) + "k";
  if (!Run("rm -f '" + image + "' && mke2fs -q -F -t " + l.type + " -b " + std::to_string(l.blockSize) + " " +
           l.options + " -L rescue -d '" + source + "' '" + image + "' " + size))
    return false;
  if (*l.hash && !Run("debugfs -w -R 'ssv def_hash_version " + std::string(l.hash) + "' '" + image + "'"))
    return false;
  // e2fsck -D builds the indexes; 1 means it changed the volume.
  return Run("e2fsck -fyD '" + image + "'; test $? -le 1");
}

// Mounts a disk with the ext driver alone.
inline std::unique_ptr<rio_dir> MountExt(std::unique_ptr<Fdisk::SimpleDisk> disk) {
  if (!disk) return nullptr;
  return std::unique_ptr<rio_dir>(Mount(kCreateExt, disk));
}

// Mounts an image the loader's way: every driver in the fixed order.
inline std::unique_ptr<rio_dir> MountExtImage(const std::string& image) {
  std::unique_ptr<Fdisk::SimpleDisk> disk = ImageAsDisk(image, 512);
  if (!disk) return nullptr;
  return std::unique_ptr<rio_dir>(Mount(kDetectAll, disk));
}

// Everything below `dir`: relative path -> contents; directories end in
// "/", symbolic links read "-> target".
inline void ReadBackExt(rio_dir& dir, const std::string& prefix, HostTree& out, int depth = 0) {
  ASSERT_LT(depth, 64);
  std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
  ASSERT_NE(it, nullptr) << prefix << ": " << test_util::Narrow(Common::ErrorText(dir.TakeError()));
  for (; !it->HasError(); it->Next()) {
    const std::u16string name = it->FileName();
    const std::string path = prefix + Common::Utf16ToUtf8(name);
    const uint32_t type = it->FileType();
    if (type == FileTypes::SymbolicLink) {
      const char16_t* target = it->SymbolicLinkTarget();
      out[path] = "-> " + (target ? Common::Utf16ToUtf8(target) : std::string());
    } else if (FileTypes::IsDirectoryLike(type)) {
      out[path + "/"] = "";
      std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
      ASSERT_NE(sub, nullptr) << path << ": " << test_util::Narrow(Common::ErrorText(dir.TakeError()));
      ReadBackExt(*sub, path + "/", out, depth + 1);
    } else {
      std::unique_ptr<ri_file> file(dir.Open(name.c_str(), true));
      ASSERT_NE(file, nullptr) << path << ": " << test_util::Narrow(Common::ErrorText(dir.TakeError()));
      EXPECT_EQ(uint64_t(file->GetSize()), it->Size()) << path;
      out[path] = ReadAll(*file);
    }
  }
  EXPECT_EQ(it->TakeError().Code(), Common::Codes::EndOfFile) << prefix;
}

// The same walk over a host directory.
inline void ReadHostTree(const std::string& root, HostTree& out) {
  out.clear();
  TempDir list;
  Run("cd '" + root + "' && find . -mindepth 1 -printf '%y %P\\n' > '" + (list / "l") + "'");
  std::string text = ReadFile(list / "l");
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end - at);
    at = end == std::string::npos ? text.size() : end + 1;
    if (line.size() < 3) continue;
    const std::string path = line.substr(2);
    const std::string full = root + "/" + path;
    if (line[0] == 'd') {
      out[path + "/"] = "";
    } else if (line[0] == 'l') {
      char target[4096];
      const ssize_t n = readlink(full.c_str(), target, sizeof target);
      out[path] = "-> " + std::string(target, n > 0 ? size_t(n) : 0);
    } else {
      out[path] = ReadFile(full);
    }
  }
}

}  // namespace fs_test
