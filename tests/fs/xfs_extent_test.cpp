// Extent maps that mkfs.xfs never writes from a protofile (it gives each
// file one extent): a file made by mkfs.xfs is remapped in place into many
// extents out of order, with a hole inside and a hole at its end, first as
// a list in the inode and then as a B-tree whose leaves are reached through
// the root's keys or only through the right-neighbour chain.  The remapped
// file must read back as the blocks it now names; broken trees must end in
// "The file is corrupted.", loops included.
#include <gtest/gtest.h>

#include <functional>

#include "test_util.h"
#include "xfs_test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

constexpr uint32_t kBlocks = 64;  // the file's blocks
constexpr uint32_t kMapped = 62;  // the last two are a hole, and hold the leaves
constexpr uint32_t kHole = 5;

// The volume block (from the file's first) that logical block i now reads.
uint32_t Source(uint32_t i) { return (i * 37 + 11) % kMapped; }

std::string Record(uint64_t logical, uint64_t block, uint64_t count) {
  std::string r(16, '\0');
  PutBe(r, 0, 8, logical << 9 | block >> 43);
  PutBe(r, 8, 8, block << 21 | count);
  return r;
}

struct Remap {
  Volume v;
  uint64_t inode = 0;
  uint64_t first = 0;  // the file's first volume block
  std::string source;  // the file as mkfs.xfs wrote it
  std::string records; // in logical order

  size_t Leaf(int k) const { return size_t(v.BlockOffset(first + kMapped + k)); }
  uint32_t LeafHeader() const { return v.v5 ? 72 : 24; }

  // The leaf k of the tree with `records` [from, to) and its right neighbour.
  void WriteLeaf(int k, size_t from, size_t to, uint64_t right, uint16_t level = 0) {
    const size_t at = Leaf(k);
    std::memset(&v.bytes[at], 0, v.blockSize);
    PutBe(v.bytes, at, 4, v.v5 ? 0x424D4133 : 0x424D4150);
    PutBe(v.bytes, at + 4, 2, level);
    PutBe(v.bytes, at + 6, 2, to - from);
    PutBe(v.bytes, at + 8, 8, ~uint64_t(0));
    PutBe(v.bytes, at + 16, 8, right);
    v.bytes.replace(at + LeafHeader(), (to - from) * 16, records.substr(from * 16, (to - from) * 16));
    if (v.v5) {
      PutBe(v.bytes, at + 24, 8, at / 512);
      v.bytes.replace(at + 40, 16, v.bytes.substr(32, 16));
      PutBe(v.bytes, at + 56, 8, inode);
      PutCrc(v.bytes, at, v.blockSize, 64);
    }
  }

  // The fork as a root of level 1 with the given children.
  void WriteRoot(const std::vector<std::pair<uint64_t, uint64_t>>& keysAndChildren) {
    const size_t fork = v.ForkOffset(inode);
    const uint32_t size = v.inodeSize - (v.v5 ? 176 : 100);
    std::memset(&v.bytes[fork], 0, size);
    PutBe(v.bytes, fork, 2, 1);
    PutBe(v.bytes, fork + 2, 2, keysAndChildren.size());
    const size_t capacity = (size - 4) / 16;
    for (size_t i = 0; i < keysAndChildren.size(); ++i) {
      PutBe(v.bytes, fork + 4 + i * 8, 8, keysAndChildren[i].first);
      PutBe(v.bytes, fork + 4 + capacity * 8 + i * 8, 8, keysAndChildren[i].second);
    }
    v.bytes[v.InodeOffset(inode) + 5] = 3;
    PutBe(v.bytes, v.InodeOffset(inode) + 76, 4, records.size() / 16);
    v.FixInode(inode);
  }

  // The list form, when it fits in the fork.
  bool WriteList() {
    const size_t fork = v.ForkOffset(inode);
    const uint32_t size = v.inodeSize - (v.v5 ? 176 : 100);
    if (records.size() > size) return false;
    v.bytes.replace(fork, records.size(), records);
    PutBe(v.bytes, v.InodeOffset(inode) + 76, 4, records.size() / 16);
    v.FixInode(inode);
    return true;
  }

  std::string Expected() const {
    std::string out(size_t(kBlocks) * v.blockSize, '\0');
    for (uint32_t i = 0; i < kMapped; ++i)
      if (i != kHole) out.replace(size_t(i) * v.blockSize, v.blockSize, source.substr(size_t(Source(i)) * v.blockSize, v.blockSize));
    return out;
  }
};

// Reads data.bin through the driver: its bytes, or the error's code.
uint32_t ReadData(const std::string& bytes, std::string& out) {
  std::unique_ptr<rio_dir> root = MountXfs(std::make_unique<MemoryDisk>(bytes, 512));
  if (!root) return 1;
  std::unique_ptr<ri_file> f(root->Open(u"data.bin", true));
  if (!f) return root->TakeError().Code();
  out.assign(size_t(f->GetSize()), '\0');
  uint64_t got = 0;
  f->Read(out.data(), out.size(), got);
  out.resize(size_t(got));
  const uint32_t c = f->TakeError().Code();
  return c == EndOfFile ? 0 : c;
}

class XfsExtents : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    HostTree t;
    t["data.bin"] = Pattern(size_t(kBlocks) * 4096, 77);
    WriteTree(dir_ / "src", t);
    const std::string image = dir_ / "v.img";
    ASSERT_TRUE(MakeXfs(image, GetParam() ? "-m crc=1,bigtime=0" : "-m crc=0 -i size=256", dir_ / "src"));
    std::unique_ptr<rio_dir> root = MountXfsImage(image);
    ASSERT_NE(root, nullptr);
    std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"data.bin"));
    ASSERT_NE(it, nullptr);
    r_.inode = it->InodeId();
    it.reset();
    root.reset();
    r_.v.Load(image);
    r_.source = t["data.bin"];
    ASSERT_EQ(r_.v.blockSize, 4096u);
    ASSERT_EQ(GetBe(r_.v.bytes, r_.v.InodeOffset(r_.inode) + 76, 4), 1u);
    r_.first = r_.v.FirstBlock(r_.inode);
    for (uint32_t i = 0; i < kMapped; ++i)
      if (i != kHole) r_.records += Record(i, r_.first + Source(i), 1);
  }

  TempDir dir_;
  Remap r_;
};

}  // namespace

TEST_P(XfsExtents, ManyExtentsOutOfOrderWithHolesReadBack) {
  // The list in the inode: as many records as fit.
  Remap list = r_;
  const size_t room = (list.v.inodeSize - (list.v.v5 ? 176 : 100)) / 16;
  list.records.resize(room * 16);
  ASSERT_TRUE(list.WriteList());
  std::string got;
  ASSERT_EQ(ReadData(list.v.bytes, got), 0u);
  const std::string all = list.Expected();
  // Blocks behind the last record read as zeros.
  std::string want(all.size(), '\0');
  const uint32_t lastLogical = uint32_t(GetBe(list.records, list.records.size() - 16, 8) >> 9);
  want.replace(0, size_t(lastLogical + 1) * 4096, all.substr(0, size_t(lastLogical + 1) * 4096));
  EXPECT_TRUE(got == want);
}

TEST_P(XfsExtents, BTreeMapsReadBackThroughKeysAndNeighbours) {
  const size_t n = r_.records.size() / 16;
  const size_t half = n / 2;
  const uint64_t leafA = r_.first + kMapped, leafB = r_.first + kMapped + 1;
  const uint64_t keyB = GetBe(r_.records, half * 16, 8) >> 9;
  struct Row {
    const char* what;
    std::vector<std::pair<uint64_t, uint64_t>> root;
  };
  const Row rows[] = {
      {"both leaves keyed", {{0, leafA}, {keyB, leafB}}},
      {"second leaf only through the first's neighbour", {{0, leafA}}},
  };
  for (const Row& row : rows) {
    Remap t = r_;
    t.WriteLeaf(0, 0, half, leafB);
    t.WriteLeaf(1, half, n, ~uint64_t(0));
    t.WriteRoot(row.root);
    std::string got;
    ASSERT_EQ(ReadData(t.v.bytes, got), 0u) << row.what;
    EXPECT_TRUE(got == t.Expected()) << row.what;
  }
}

TEST_P(XfsExtents, BrokenTreesAreCorruptedAndNeverLoop) {
  const size_t n = r_.records.size() / 16;
  const size_t half = n / 2;
  const uint64_t leafA = r_.first + kMapped, leafB = r_.first + kMapped + 1;
  struct Row {
    const char* what;
    std::function<void(Remap&)> build;
  };
  const Row rows[] = {
      {"neighbours that point at each other",
       [&](Remap& t) {
         t.WriteLeaf(0, 0, half, leafB);
         t.WriteLeaf(1, half, n, leafA);
         // The second leaf ends short of the file: the walk looks on.
         t.records.resize((n - 3) * 16);
         t.WriteLeaf(1, half, n - 3, leafA);
         t.WriteRoot({{0, leafA}});
       }},
      {"a leaf that is its own neighbour",
       [&](Remap& t) {
         t.WriteLeaf(0, 0, half, leafA);
         t.WriteRoot({{0, leafA}});
       }},
      {"a child on the root's own level",
       [&](Remap& t) {
         t.WriteLeaf(0, 0, half, leafB, 1);
         t.WriteLeaf(1, half, n, ~uint64_t(0));
         t.WriteRoot({{0, leafA}});
       }},
      {"a child at block 0",
       [&](Remap& t) {
         t.WriteLeaf(1, half, n, ~uint64_t(0));
         t.WriteRoot({{0, 0}});
       }},
      {"a child beyond the volume",
       [&](Remap& t) { t.WriteRoot({{0, uint64_t(1) << 50}}); }},
      {"a leaf with no records",
       [&](Remap& t) {
         t.WriteLeaf(0, 0, 0, ~uint64_t(0));
         t.WriteRoot({{0, leafA}});
       }},
      {"a root of level 0",
       [&](Remap& t) {
         t.WriteLeaf(0, 0, n, ~uint64_t(0));
         t.WriteRoot({{0, leafA}});
         PutBe(t.v.bytes, t.v.ForkOffset(t.inode), 2, 0);
         t.v.FixInode(t.inode);
       }},
  };
  for (const Row& row : rows) {
    Remap t = r_;
    row.build(t);
    std::string got;
    EXPECT_EQ(ReadData(t.v.bytes, got), Corrupted) << row.what;
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, XfsExtents, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "v5" : "v4"; });
