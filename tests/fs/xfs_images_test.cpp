// XFS volumes made by mkfs.xfs at test time, in the layouts that change how
// the driver finds things: version 5 with its checked blocks and version 4
// without, entries with and without a type byte, directory blocks of one
// and of several volume blocks, and directories in every shape (inside the
// inode, one block, data blocks with a leaf, with a node index).  Every file
// must read back byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "test_util.h"
#include "xfs_test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

struct XfsLayout {
  const char* name;
  const char* options;
};

const XfsLayout kLayouts[] = {
    {"v5_4k", "-m crc=1,bigtime=0"},
    {"v5_1k_dir4k", "-m crc=1,bigtime=0 -b size=1024 -n size=4096"},
    {"v4_4k", "-m crc=0 -i size=256"},
    {"v4_2k_no_type", "-m crc=0 -b size=2048 -n ftype=0"},
};

std::string ManyName(int i) {
  char name[80];
  std::snprintf(name, sizeof name, "an_entry_with_a_fairly_long_name_number_%05d", i);
  return name;
}

// Directory sizes that land in each on-disk shape.
constexpr int kFew = 5, kBlock = 40, kHundreds = 300, kMany = 3000;

void BuildSource(const std::string& root) {
  HostTree t;
  t["small.txt"] = "hello, volume\n";
  t["empty"] = "";
  t["one_block"] = Pattern(4096, 2);
  t["big.bin"] = Pattern(6 * 1024 * 1024 + 123, 3);
  t["\xc3\xa9t\xc3\xa9_\xe2\x82\xac.txt"] = Pattern(33, 4);
  t[std::string(255, 'L')] = Pattern(10, 5);
  t[".hidden"] = Pattern(9, 6);
  std::string deep;
  for (int i = 0; i < 12; ++i) {
    deep += "level" + std::to_string(i) + "/";
    t[deep] = "";
  }
  t[deep + "bottom.txt"] = Pattern(3000, 7);
  t["empty_dir/"] = "";
  const std::pair<const char*, int> dirs[] = {{"few", kFew}, {"block", kBlock}, {"hundreds", kHundreds}, {"many", kMany}};
  for (const auto& [dir, count] : dirs) {
    t[std::string(dir) + "/"] = "";
    for (int i = 0; i < count; ++i)
      t[std::string(dir) + "/" + ManyName(i)] = i % 97 == 0 ? Pattern(size_t(i) * 13, uint32_t(i)) : "";
  }
  WriteTree(root, t);
  ASSERT_EQ(symlink("small.txt", (root + "/short_link").c_str()), 0);
  // Longer than the inode's fork: the target lives in a block.
  std::string longTarget;
  for (int i = 0; i < 30; ++i) longTarget += "segment" + std::to_string(i) + "/";
  longTarget += "end";
  ASSERT_EQ(symlink(longTarget.c_str(), (root + "/long_link").c_str()), 0);
}

class XfsImages : public ::testing::TestWithParam<XfsLayout> {
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
    if (access(image.c_str(), F_OK) != 0 && !MakeXfs(image, GetParam().options, *dir_ / "src")) return "";
    return image;
  }

  static TempDir* dir_;
};
TempDir* XfsImages::dir_ = nullptr;

}  // namespace

TEST_P(XfsImages, EveryFileDirectoryAndLinkReadsBackExactly) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountXfsImage(image);
  ASSERT_NE(root, nullptr);
  HostTree source, back;
  ReadHostTree(*dir_ / "src", source);
  ReadBackExt(*root, "", back);
  EXPECT_EQ(back.size(), source.size());
  for (const auto& [path, data] : source) {
    auto it = back.find(path);
    ASSERT_NE(it, back.end()) << path;
    EXPECT_TRUE(it->second == data) << path << ": " << it->second.size() << " bytes read, " << data.size()
                                    << " written";
  }
}

TEST_P(XfsImages, NamesAreFoundByLookupAndDotsAreNotListed) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountXfsImage(image);
  ASSERT_NE(root, nullptr);
  struct Row {
    std::u16string path;
    bool found;
  };
  std::u16string deep;
  for (int i = 0; i < 12; ++i) deep += u"level" + Common::Utf8ToUtf16(std::to_string(i)) + u"/";
  const Row rows[] = {
      {u"small.txt", true},
      {u"SMALL.TXT", false},  // names are bytes: case matters
      {u"\u00e9t\u00e9_\u20ac.txt", true},
      {u"few/" + Common::Utf8ToUtf16(ManyName(kFew - 1)), true},
      {u"block/" + Common::Utf8ToUtf16(ManyName(kBlock - 1)), true},
      {u"hundreds/" + Common::Utf8ToUtf16(ManyName(kHundreds - 1)), true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(kMany - 1)), true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(1234)), true},
      {u"many/" + Common::Utf8ToUtf16(ManyName(kMany)), false},
      {deep + u"bottom.txt", true},
  };
  for (const Row& row : rows) {
    std::unique_ptr<ri_file> f(root->Open(row.path.c_str(), true));
    EXPECT_EQ(f != nullptr, row.found) << Common::Utf16ToUtf8(row.path);
    if (!row.found) EXPECT_EQ(root->TakeError().Code(), FileNotFound) << Common::Utf16ToUtf8(row.path);
    root->TakeError();
  }
  // A listing never shows the directory's own entries.
  for (const char16_t* dir : {u"few", u"block", u"hundreds", u"many", u"empty_dir"}) {
    std::unique_ptr<rio_dir> sub(root->OpenDir(dir));
    ASSERT_NE(sub, nullptr);
    std::unique_ptr<i_dir::iterator> it(sub->GetIterator());
    ASSERT_NE(it, nullptr);
    int count = 0;
    for (; !it->HasError(); it->Next()) {
      const std::u16string name = it->FileName();
      EXPECT_NE(name, u".");
      EXPECT_NE(name, u"..");
      ++count;
    }
    const int expected = std::u16string(dir) == u"few" ? kFew : std::u16string(dir) == u"block" ? kBlock
                         : std::u16string(dir) == u"hundreds" ? kHundreds : std::u16string(dir) == u"many" ? kMany : 0;
    EXPECT_EQ(count, expected) << Common::Utf16ToUtf8(dir);
  }
}

TEST_P(XfsImages, VolumeFactsAndEntryAttributes) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountXfsImage(image);
  ASSERT_NE(root, nullptr);
  std::unique_ptr<i_dir::iterator> it(root->GetIterator());
  ASSERT_NE(it, nullptr);
  bool sawLink = false, sawFile = false;
  for (; !it->HasError(); it->Next()) {
    const std::u16string name = it->FileName();
    if (name == u"short_link") {
      sawLink = true;
      EXPECT_EQ(it->FileType(), FileTypes::SymbolicLink);
      ASSERT_NE(it->SymbolicLinkTarget(), nullptr);
      EXPECT_EQ(std::u16string(it->SymbolicLinkTarget()), u"small.txt");
    } else if (name == u"small.txt") {
      sawFile = true;
      EXPECT_EQ(it->FileType(), FileTypes::Regular);
      EXPECT_EQ(it->Size(), 14u);
      EXPECT_EQ(it->UnixPermissions(), 0644u);
      EXPECT_EQ(it->HardLinkCount(), 1u);
      EXPECT_GT(it->ModificationTime(), 1500000000000ull);
      EXPECT_FALSE(it->IsHidden());
    } else if (name == u".hidden") {
      EXPECT_TRUE(it->IsHidden());
    }
  }
  EXPECT_TRUE(sawLink);
  EXPECT_TRUE(sawFile);
}

INSTANTIATE_TEST_SUITE_P(Layouts, XfsImages, ::testing::ValuesIn(kLayouts),
                         [](const ::testing::TestParamInfo<XfsLayout>& info) { return std::string(info.param.name); });

TEST_P(XfsImages, TheLoadersMountOrderFindsTheVolume) {
  const std::string image = Image();
  ASSERT_FALSE(image.empty());
  std::unique_ptr<rio_dir> root = MountImage(image);
  ASSERT_NE(root, nullptr);
  char16_t label[8];
  root->GetVolumeLabel(label, 8);
  EXPECT_EQ(std::u16string(label), u"rescue");
  char16_t cut[4];
  root->GetVolumeLabel(cut, 4);
  EXPECT_EQ(std::u16string(cut), u"res");
  std::unique_ptr<ri_file> f(root->Open(u"small.txt", true));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(ReadAll(*f), "hello, volume\n");
}
