// Damaged copies of real volumes: each case breaks one rule of the format
// in a volume made by mkfs.xfs and, on version 5, writes the checksums
// anew so that the rule itself is what the driver meets.  Every case must
// end in "The file is corrupted." (or no mount), never a crash or a hang.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "test_util.h"
#include "xfs_test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

// The source tree: one of each directory shape, a file, a long link.
void BuildSource(const std::string& root) {
  HostTree t;
  t["file.bin"] = Pattern(20000, 1);
  t["few/"] = "";
  t["few/a"] = "x";
  t["few/b"] = "y";
  t["block/"] = "";
  for (int i = 0; i < 40; ++i) t["block/entry_number_" + std::to_string(i)] = "";
  WriteTree(root, t);
}

// The inode numbers of the root's entries, found through the driver.
std::map<std::u16string, uint64_t> RootNumbers(const std::string& image) {
  std::map<std::u16string, uint64_t> out;
  std::unique_ptr<rio_dir> root = MountXfsImage(image);
  if (!root) return out;
  std::unique_ptr<i_dir::iterator> it(root->GetIterator());
  for (; it && !it->HasError(); it->Next()) out[it->FileName()] = it->InodeId();
  return out;
}

// Mounts, lists every directory and reads every file; the first error's
// code, or 0 when everything read, or -1 when the mount failed.
int64_t Walk(const std::string& bytes) {
  std::unique_ptr<rio_dir> root = MountXfs(std::make_unique<MemoryDisk>(bytes, 512));
  if (!root) return -1;
  std::function<uint32_t(rio_dir&, int)> walk = [&](rio_dir& dir, int depth) -> uint32_t {
    if (depth > 8) return 0;
    std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
    if (!it) return dir.TakeError().Code();
    for (; !it->HasError(); it->Next()) {
      const std::u16string name = it->FileName();
      if (FileTypes::IsDirectoryLike(it->FileType())) {
        std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
        if (!sub) return dir.TakeError().Code();
        if (uint32_t c = walk(*sub, depth + 1)) return c;
      } else {
        std::unique_ptr<ri_file> f(dir.Open(name.c_str(), true));
        if (!f) return dir.TakeError().Code();
        std::string data(size_t(f->GetSize() > 0 ? f->GetSize() : 0), '\0');
        uint64_t got = 0;
        if (!data.empty()) f->Read(data.data(), data.size(), got);
        if (uint32_t c = f->TakeError().Code(); c != 0 && c != EndOfFile) return c;
      }
    }
    const uint32_t c = it->TakeError().Code();
    return c == EndOfFile ? 0 : c;
  };
  return walk(*root, 0);
}

class XfsCorrupt : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    BuildSource(dir_ / "src");
    image_ = dir_ / "v.img";
    ASSERT_TRUE(MakeXfs(image_, GetParam() ? "-m crc=1,bigtime=0" : "-m crc=0 -i size=256", dir_ / "src"));
    numbers_ = RootNumbers(image_);
    ASSERT_EQ(numbers_.size(), 3u);
    volume_.Load(image_);
    ASSERT_EQ(Walk(volume_.bytes), 0);
  }

  TempDir dir_;
  std::string image_;
  std::map<std::u16string, uint64_t> numbers_;
  Volume volume_;
};

struct Damage {
  const char* what;
  std::function<void(Volume&, std::map<std::u16string, uint64_t>&)> apply;
  int64_t expected;  // -1: no mount
};

}  // namespace

TEST_P(XfsCorrupt, EachBrokenRuleEndsInTheExactError) {
  const int64_t kCorrupted = Corrupted;
  const Damage cases[] = {
      {"bad magic", [](Volume& v, auto&) { v.bytes[0] = 'Y'; v.FixSuper(); }, -1},
      {"no groups", [](Volume& v, auto&) { PutBe(v.bytes, 88, 4, 0); v.FixSuper(); }, -1},
      {"more blocks than the groups hold",
       [](Volume& v, auto&) { PutBe(v.bytes, 8, 8, GetBe(v.bytes, 8, 8) + 2 * v.groupBlocks); v.FixSuper(); }, -1},
      {"block log against block size", [](Volume& v, auto&) { v.bytes[120] = 13; v.FixSuper(); }, -1},
      {"inodes per block log", [](Volume& v, auto&) { v.bytes[123] += 1; v.FixSuper(); }, -1},
      {"shared version", [](Volume& v, auto&) { v.bytes[179] = 1; v.FixSuper(); }, -1},
      // The root is first read when it is listed, not at the mount.
      {"root inode out of range",
       [](Volume& v, auto&) { PutBe(v.bytes, 56, 8, uint64_t(0xFFFF) << 40); v.FixSuper(); }, kCorrupted},
      {"a version or feature the driver doesn't know",
       [](Volume& v, auto&) {
         if (v.v5) PutBe(v.bytes, 216, 4, GetBe(v.bytes, 216, 4) | 8);
         else PutBe(v.bytes, 100, 2, (GetBe(v.bytes, 100, 2) & ~0xFull) | 6);
         v.FixSuper();
       },
       -1},
      {"inode magic",
       [](Volume& v, auto& n) { v.bytes[v.InodeOffset(n[u"file.bin"])] = 'X'; v.FixInode(n[u"file.bin"]); },
       kCorrupted},
      {"more extents than the fork holds",
       [](Volume& v, auto& n) {
         PutBe(v.bytes, v.InodeOffset(n[u"file.bin"]) + 76, 4, 200);
         PutBe(v.bytes, v.InodeOffset(n[u"file.bin"]) + 64, 8, 1000);
         v.FixInode(n[u"file.bin"]);
       },
       kCorrupted},
      {"extent past the end of the volume",
       [](Volume& v, auto& n) {
         const size_t f = v.ForkOffset(n[u"file.bin"]);
         // The group field of the start block: a group that doesn't exist.
         PutBe(v.bytes, f + 6, 2, GetBe(v.bytes, f + 6, 2) | 0x1F0);
         v.FixInode(n[u"file.bin"]);
       },
       kCorrupted},
      {"extent at block 0",
       [](Volume& v, auto& n) {
         const size_t f = v.ForkOffset(n[u"file.bin"]);
         PutBe(v.bytes, f + 8, 8, GetBe(v.bytes, f + 8, 8) & 0x1FFFFF);
         PutBe(v.bytes, f + 6, 2, GetBe(v.bytes, f + 6, 2) & ~uint64_t(0x1FF));
         v.FixInode(n[u"file.bin"]);
       },
       kCorrupted},
      {"extent of no blocks",
       [](Volume& v, auto& n) {
         const size_t f = v.ForkOffset(n[u"file.bin"]);
         PutBe(v.bytes, f + 8, 8, GetBe(v.bytes, f + 8, 8) & ~uint64_t(0x1FFFFF));
         v.FixInode(n[u"file.bin"]);
       },
       kCorrupted},
      {"regular file in local format",
       [](Volume& v, auto& n) { v.bytes[v.InodeOffset(n[u"file.bin"]) + 5] = 1; v.FixInode(n[u"file.bin"]); },
       kCorrupted},
      {"short directory with more entries than bytes",
       [](Volume& v, auto& n) { v.bytes[v.ForkOffset(n[u"few"])] = 9; v.FixInode(n[u"few"]); }, kCorrupted},
      {"short directory entry longer than the rest",
       [](Volume& v, auto& n) { v.bytes[v.ForkOffset(n[u"few"]) + 6] = char(200); v.FixInode(n[u"few"]); },
       kCorrupted},
      {"block directory tail count",
       [](Volume& v, auto& n) {
         const size_t at = size_t(v.BlockOffset(v.FirstBlock(n[u"block"])));
         PutBe(v.bytes, at + v.blockSize - 8, 4, v.blockSize);
         v.FixDirBlock(at);
       },
       kCorrupted},
      {"free entry of length 0 in a directory block",
       [](Volume& v, auto& n) {
         const size_t at = size_t(v.BlockOffset(v.FirstBlock(n[u"block"])));
         const size_t first = at + (v.v5 ? 64 : 16);
         PutBe(v.bytes, first, 2, 0xFFFF);
         PutBe(v.bytes, first + 2, 2, 0);
         v.FixDirBlock(at);
       },
       kCorrupted},
      {"directory block header magic",
       [](Volume& v, auto& n) {
         const size_t at = size_t(v.BlockOffset(v.FirstBlock(n[u"block"])));
         v.bytes[at] = 'Q';
         v.FixDirBlock(at);
       },
       kCorrupted},
  };
  for (const Damage& d : cases) {
    Volume v = volume_;
    d.apply(v, numbers_);
    EXPECT_EQ(Walk(v.bytes), d.expected) << d.what;
  }
}

// Version 4 has no checksums: this one runs on version 5 only.
class XfsChecksums : public XfsCorrupt {};

TEST_P(XfsChecksums, ChecksumsGuardEveryVersion5Structure) {
  struct Row {
    const char* what;
    std::function<size_t(Volume&)> where;
    int64_t expected;
  };
  const Row rows[] = {
      {"superblock", [](Volume&) { return size_t(108); }, -1},
      {"file inode", [&](Volume& v) { return v.InodeOffset(numbers_[u"file.bin"]) + 8; }, int64_t(Corrupted)},
      {"directory block",
       [&](Volume& v) { return size_t(v.BlockOffset(v.FirstBlock(numbers_[u"block"]))) + 100; },
       int64_t(Corrupted)},
  };
  for (const Row& r : rows) {
    Volume v = volume_;
    v.bytes[r.where(v)] ^= 0x40;
    EXPECT_EQ(Walk(v.bytes), r.expected) << r.what;
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, XfsCorrupt, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "v5" : "v4"; });
INSTANTIATE_TEST_SUITE_P(Version5, XfsChecksums, ::testing::Values(true),
                         [](const ::testing::TestParamInfo<bool>&) { return "v5"; });
