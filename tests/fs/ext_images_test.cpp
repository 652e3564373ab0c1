// ext2, ext3 and ext4 volumes made by mke2fs at test time, in the layouts
// that change how the driver finds things: block sizes, block maps and
// extent trees, 32- and 64-bit descriptors, both descriptor checksums,
// flexible and meta groups, and both index hashes.  Every file must read
// back byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "ext_test_util.h"
#include "test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

const ExtLayout kLayouts[] = {
    {"ext2_1k", "ext2", 1024, "", "", 98304},
    {"ext3_4k", "ext3", 4096, "", "", 131072},
    {"ext4_4k", "ext4", 4096, "", "", 131072},
    {"ext4_1k_gdt_csum", "ext4", 1024, "-O ^metadata_csum,^64bit,uninit_bg", "", 98304},
    {"ext4_4k_block_maps", "ext4", 4096, "-O ^extent,^flex_bg,^64bit", "", 131072},
    {"ext4_1k_meta_bg_tea", "ext4", 1024, "-O meta_bg,^resize_inode", "tea", 98304},
    {"ext2_2k_tea", "ext2", 2048, "", "tea", 98304},
    {"ext2_revision_0", "ext2", 1024, "-r 0", "", 98304},
};

constexpr int kManyEntries = 3000;

std::string ManyName(int i) {
  char name[64];
  std::snprintf(name, sizeof name, "an entry with a fairly long name, number %05d", i);
  return name;
}

// Writes a sparse file: `chunks` pieces of data far apart, so that block
// maps need every indirect level and extent trees need more than the four
// extents that the inode holds.
void WriteSparse(const std::string& path, uint64_t size, int chunks, uint64_t step) {
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  for (int i = 0; i < chunks; ++i) {
    const std::string data = Pattern(5000, uint32_t(900 + i));
    ASSERT_EQ(fseeko(f, off_t(uint64_t(i) * step + 777), SEEK_SET), 0);
    std::fwrite(data.data(), 1, data.size(), f);
  }
  ASSERT_EQ(ftruncate(fileno(f), off_t(size)), 0);
  std::fclose(f);
}

// The tree every layout holds.
void BuildSource(const std::string& root) {
  HostTree t;
  t["small.txt"] = "hello, volume\n";
  t["empty"] = "";
  t["one block"] = Pattern(4096, 2);
  t["big.bin"] = Pattern(6 * 1024 * 1024 + 123, 3);
  t["\xc3\xa9t\xc3\xa9 \xe2\x82\xac.txt"] = Pattern(33, 4);
  t[std::string(255, 'L')] = Pattern(10, 5);
  t[".hidden"] = Pattern(9, 6);
  std::string deep;
  for (int i = 0; i < 24; ++i) {
    deep += "level" + std::to_string(i) + "/";
    t[deep] = "";
  }
  t[deep + "bottom.txt"] = Pattern(3000, 7);
  t["empty dir/"] = "";
  t["many/"] = "";
  for (int i = 0; i < kManyEntries; ++i) t["many/" + ManyName(i)] = i % 500 == 0 ? Pattern(size_t(i), uint32_t(i)) : "";
  WriteTree(root, t);
  WriteSparse(root + "/sparse.bin", 90ull << 20, 12, 7ull << 20);
  ASSERT_EQ(symlink("small.txt", (root + "/short link").c_str()), 0);
  const std::string longTarget = "level0/level1/level2/level3/level4/level5/level6/level7/level8/bottom-not-there";
  ASSERT_EQ(symlink(longTarget.c_str(), (root + "/long link").c_str()), 0);
}

// One volume per layout, shared by the tests of that layout.
class ExtImages : public ::testing::TestWithParam<ExtLayout> {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    BuildSource(*dir_ / "src");
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }

  std::string Image() {
    const std::string image = *dir_ / (std::string(GetParam().name) + ".img");
    if (access(image.c_str(), F_OK) != 0 && !MakeExt(image, GetParam(), *dir_ / "src")) return "";
    return image;
  }

  static TempDir* dir_;
};
TempDir* ExtImages::dir_ = nullptr;

}  // namespace

TEST_P(ExtImages, EveryFileDirectoryAndLinkReadsBackExactly) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountExtImage(image);
  ASSERT_NE(root, nullptr);
  HostTree source, back;
  ReadHostTree(*dir_ / "src", source);
  ReadBackExt(*root, "", back);
  back.erase("lost+found/");
  EXPECT_EQ(back.size(), source.size());
  for (const auto& [path, data] : source) {
    auto it = back.find(path);
    ASSERT_NE(it, back.end()) << path;
    EXPECT_TRUE(it->second == data) << path << ": " << it->second.size() << " bytes read, " << data.size()
                                    << " written";
  }
}

TEST_P(ExtImages, NamesAreFoundByLookupAndDotsAreNotListed) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountExtImage(image);
  ASSERT_NE(root, nullptr);
  struct Row {
    std::u16string path;
    bool found;
  };
  const Row rows[] = {
      {u"small.txt", true},
      {u"SMALL.TXT", false},  // names are bytes: case matters
      {u"\u00e9t\u00e9 \u20ac.txt", true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(kManyEntries - 1)), true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(1234)), true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(kManyEntries)), false},
      {u"level0/level1/level2/level3/level4/level5/level6/level7/level8/level9/level10/level11/level12/"
       u"level13/level14/level15/level16/level17/level18/level19/level20/level21/level22/level23/bottom.txt",
       true},
  };
  for (const Row& r : rows) {
    std::unique_ptr<ri_file> f(root->Open(r.path.c_str(), true));
    EXPECT_EQ(f != nullptr, r.found) << test_util::Narrow(r.path);
    if (!r.found) EXPECT_EQ(root->TakeError().Code(), FileNotFound) << test_util::Narrow(r.path);
    root->TakeError();
  }
  // A listing never shows "." or "..", in the root or below.
  std::unique_ptr<rio_dir> many(root->OpenDir(u"many"));
  ASSERT_NE(many, nullptr);
  int count = 0;
  std::unique_ptr<i_dir::iterator> it(many->GetIterator());
  ASSERT_NE(it, nullptr);
  for (; !it->HasError(); it->Next()) {
    const std::u16string name = it->FileName();
    EXPECT_TRUE(name != u"." && name != u"..");
    ++count;
  }
  EXPECT_EQ(count, kManyEntries);
}

TEST_P(ExtImages, SymbolicLinksAreListedWithTargetsButNotOpened) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountExtImage(image);
  ASSERT_NE(root, nullptr);
  std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"long link"));
  ASSERT_NE(it, nullptr);
  EXPECT_EQ(it->FileType(), FileTypes::SymbolicLink);
  ASSERT_NE(it->SymbolicLinkTarget(), nullptr);
  EXPECT_EQ(std::u16string(it->SymbolicLinkTarget()),
            u"level0/level1/level2/level3/level4/level5/level6/level7/level8/bottom-not-there");
  std::unique_ptr<ri_file> f(root->Open(u"short link", true));
  EXPECT_EQ(f, nullptr);
  // Without file types in the entries the inode itself is opened, and a
  // link is no regular file.
  const bool typed = std::string(GetParam().options).find("-r 0") == std::string::npos;
  EXPECT_EQ(root->TakeError().Code(), typed ? OpenError : Corrupted);
  // A path through a link is not followed either.
  std::unique_ptr<ri_file> through(root->Open(u"short link/small.txt", true));
  EXPECT_EQ(through, nullptr);
  EXPECT_EQ(root->TakeError().Code(), OpenError);
}

TEST_P(ExtImages, SparseRangesReadAsZeroesAndReadsAtAnyOffsetAgree) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountExtImage(image);
  ASSERT_NE(root, nullptr);
  const std::string expected = ReadFile(*dir_ / "src/big.bin");
  std::unique_ptr<ri_file> f(root->Open(u"big.bin", true));
  ASSERT_NE(f, nullptr);
  // Pieces that start and end inside blocks, cross runs and end at the
  // file's end.
  const uint64_t bs = uint64_t(GetParam().blockSize);
  const uint64_t starts[] = {0, 1, bs - 1, bs, 12 * bs - 5, (12 + bs / 4) * bs - 3, expected.size() - 100};
  for (uint64_t start : starts) {
    std::string part(size_t(3 * bs + 11), '\xAA');
    ASSERT_EQ(f->Seek(int64_t(start)), int64_t(start));
    uint64_t got = 0;
    f->Read(part.data(), part.size(), got);
    ASSERT_FALSE(f->HasError()) << start;
    const size_t want = std::min(part.size(), size_t(expected.size() - start));
    ASSERT_EQ(got, want) << start;
    EXPECT_TRUE(part.compare(0, want, expected, size_t(start), want) == 0) << start;
  }
  std::unique_ptr<ri_file> sparse(root->Open(u"sparse.bin", true));
  ASSERT_NE(sparse, nullptr);
  std::string hole(100000, '\x55');
  ASSERT_EQ(sparse->Seek(int64_t(3ull << 20)), int64_t(3ull << 20));
  uint64_t got = 0;
  sparse->Read(hole.data(), hole.size(), got);
  EXPECT_EQ(got, hole.size());
  EXPECT_EQ(hole, std::string(hole.size(), '\0'));
}

INSTANTIATE_TEST_SUITE_P(Layouts, ExtImages, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

// The hash index is used, not scanned around: finding one name among
// thousands reads a handful of blocks.
TEST(ExtIndex, LookupInIndexedDirectoryReadsOnlyTheIndexPath) {
  for (const ExtLayout& l : {kLayouts[0], kLayouts[2], kLayouts[5]}) {
    TempDir dir;
    TempDir src;
    HostTree t;
    for (int i = 0; i < kManyEntries; ++i) t["many/" + ManyName(i)] = "";
    WriteTree(src.Path(), t);
    const std::string image = dir / "many.img";
    ASSERT_TRUE(MakeExt(image, l, src.Path()));
    auto disk = std::make_unique<MemoryDisk>(ReadFile(image), 512);
    MemoryDisk* counted = disk.get();
    std::unique_ptr<rio_dir> root = MountExt(std::move(disk));
    ASSERT_NE(root, nullptr) << l.name;
    std::unique_ptr<rio_dir> many(root->OpenDir(u"many"));
    ASSERT_NE(many, nullptr) << l.name;
    // The first use opens the directory itself.
    std::unique_ptr<i_dir::iterator> first(many->GetIterator());
    ASSERT_NE(first, nullptr);
    for (int i : {0, 1777, kManyEntries - 1}) {
      const int before = counted->reads;
      std::unique_ptr<i_dir::iterator> it(many->GetIterator(Common::Utf8ToUtf16(ManyName(i)).c_str()));
      ASSERT_NE(it, nullptr) << l.name << " " << i;
      EXPECT_EQ(it->FileName(), Common::Utf8ToUtf16(ManyName(i)));
      EXPECT_LE(counted->reads - before, 4) << l.name << " " << i;
    }
    // An absent name under an intact index is absent without a scan.
    const int before = counted->reads;
    std::unique_ptr<i_dir::iterator> none(many->GetIterator(u"not there"));
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(many->TakeError().Code(), FileNotFound);
    EXPECT_LE(counted->reads - before, 4) << l.name;
  }
}

// The sample volume of the test data, against the files debugfs dumps.
TEST(ExtSample, SampleVolumeReadsBackLikeTheDump) {
  TempDir dir;
  const std::string image = dir / "data.ext4";
  ASSERT_TRUE(fs_test::Run("zcat " TEST_SHARED_DIR "/testdata/ext4/data.ext4.dat.gz > '" + image + "'"));
  ASSERT_TRUE(fs_test::Run("mkdir '" + (dir / "dump") + "' && debugfs -R 'rdump / " + (dir / "dump") + "' '" + image + "'"));
  HostTree expected, back;
  ReadHostTree(dir / "dump", expected);
  std::unique_ptr<rio_dir> root = MountExtImage(image);
  ASSERT_NE(root, nullptr);
  ReadBackExt(*root, "", back);
  EXPECT_EQ(back, expected);
  EXPECT_TRUE(back.count("bar/blah.txt"));
  char16_t label[32];
  root->GetVolumeLabel(label, 32);
  uint64_t total = 0, free = 0, available = 0;
  root->GetDriveSize(total, free, available);
  EXPECT_EQ(total, 70u * 1024);
  EXPECT_LT(free, total);
}
