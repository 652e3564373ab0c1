// FAT12, FAT16 and FAT32 volumes made by mkfs.fat and filled by mtools at
// test time: every file reads back byte for byte, under every name it has.
#include <gtest/gtest.h>

#include "fat_test_util.h"
#include "file/filesys/fat.h"
#include "filesys/filesys.h"
#include "test_util.h"

using namespace fs_test;
using Common::Codes::FileNotFound;
using Common::Codes::OpenError;

namespace {

// Names of every kind, a deep tree, empty files, files of many clusters and
// a directory of many entries.
HostTree SampleTree(size_t clusterBytes) {
  HostTree t;
  t["lower.txt"] = Pattern(100, 1);
  t["UPPER.TXT"] = Pattern(1, 2);
  t["MiXed.Txt"] = Pattern(clusterBytes, 3);
  t["with space.txt"] = Pattern(clusterBytes + 1, 4);
  t["a.b.c"] = Pattern(7, 5);
  t[".hidden"] = Pattern(9, 6);
  t["verylongfilename.extension"] = Pattern(3 * clusterBytes - 1, 7);
  t["x+y.txt"] = Pattern(20, 8);
  t["A name of well over thirteen characters, to need several long-name entries.bin"] = Pattern(33, 9);
  t["empty"] = "";
  t["big.bin"] = Pattern(80 * clusterBytes + 123, 10);
  std::string deep;
  for (int i = 0; i < 12; ++i) {
    deep += "level" + std::to_string(i) + "/";
    t[deep] = "";
  }
  t[deep + "bottom file.txt"] = Pattern(clusterBytes / 2 + 17, 11);
  t[deep + "EMPTY.DAT"] = "";
  t["many/"] = "";
  for (int i = 0; i < 150; ++i) t["many/entry number " + std::to_string(i) + ".txt"] = Pattern(size_t(i), uint32_t(100 + i));
  t["empty dir/"] = "";
  return t;
}

class FatImages : public ::testing::TestWithParam<FatLayout> {
 protected:
  size_t ClusterBytes() const { return size_t(GetParam().clusterSectors) * GetParam().sectorSize; }
  // A volume of the layout holding `tree`, mounted.
  std::unique_ptr<rio_dir> Volume(const HostTree& tree) {
    const std::string image = dir_ / "fat.img";
    if (!MakeFat(image, GetParam())) return nullptr;
    WriteTree(dir_ / "src", tree);
    if (!CopyTree(image, dir_ / "src")) return nullptr;
    return MountImage(image, uint32_t(GetParam().sectorSize));
  }
  TempDir dir_;
};

}  // namespace

TEST_P(FatImages, EveryFileAndDirectoryReadsBackExactly) {
  const HostTree source = SampleTree(ClusterBytes());
  std::unique_ptr<rio_dir> root = Volume(source);
  ASSERT_NE(root, nullptr);
  HostTree back;
  ReadBack(*root, "", back);
  EXPECT_EQ(back.size(), source.size());
  for (const auto& [path, data] : source) {
    auto it = back.find(path);
    ASSERT_NE(it, back.end()) << path;
    EXPECT_TRUE(it->second == data) << path << ": " << it->second.size() << " bytes read, " << data.size()
                                    << " written";
  }
}

TEST_P(FatImages, FilesAreFoundByLongNameShortNameAndAnyCase) {
  std::unique_ptr<rio_dir> root = Volume(SampleTree(ClusterBytes()));
  ASSERT_NE(root, nullptr);

  struct Row {
    const char16_t* lookup;
    const char16_t* expected;  // the name the entry lists under
  };
  const Row rows[] = {
      {u"lower.txt", u"lower.txt"},
      {u"LOWER.TXT", u"lower.txt"},
      {u"upper.txt", u"UPPER.TXT"},
      {u"mixed.TXT", u"MiXed.Txt"},
      {u"WITH SPACE.TXT", u"with space.txt"},
      {u"WITHSP~1.TXT", u"with space.txt"},
      {u"verylongfilename.EXTENSION", u"verylongfilename.extension"},
      {u"VERYLO~1.EXT", u"verylongfilename.extension"},
      {u"a.B.c", u"a.b.c"},
  };
  for (const Row& r : rows) {
    std::unique_ptr<i_dir::iterator> it(root->GetIterator(r.lookup));
    ASSERT_NE(it, nullptr) << test_util::Narrow(r.lookup);
    EXPECT_EQ(it->FileName(), r.expected) << test_util::Narrow(r.lookup);
    std::unique_ptr<ri_file> f(root->Open(r.lookup, true));
    EXPECT_NE(f, nullptr) << test_util::Narrow(r.lookup);
  }
  // A long name without an 8.3 form matches only as a long name.
  EXPECT_EQ(root->Open(u"with  space.txt", true), nullptr);
  EXPECT_EQ(root->TakeError().Code(), FileNotFound);
  // The short name of a long-named entry is its alias.
  std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"with space.txt"));
  ASSERT_NE(it->ShortName(), nullptr);
  EXPECT_EQ(std::u16string(it->ShortName()), u"WITHSP~1.TXT");
  std::unique_ptr<i_dir::iterator> plain(root->GetIterator(u"UPPER.TXT"));
  EXPECT_EQ(plain->ShortName(), nullptr);
}

TEST_P(FatImages, DirectoriesAreReachedByEitherSeparatorAndTheDriveForms) {
  std::unique_ptr<rio_dir> root = Volume(SampleTree(ClusterBytes()));
  ASSERT_NE(root, nullptr);

  EXPECT_EQ(root->GetPath(), u"C:\\");
  for (const char16_t* path : {u"/level0/level1", u"\\LEVEL0\\Level1\\", u"C:\\level0\\level1", u"level0/./x/../level1"}) {
    std::unique_ptr<rio_dir> d(root->OpenDir(path));
    ASSERT_NE(d, nullptr) << test_util::Narrow(path);
    std::unique_ptr<i_dir::iterator> it(d->GetIterator(u"level2"));
    ASSERT_NE(it, nullptr);
    EXPECT_FALSE(it->HasError()) << test_util::Narrow(path);
  }
  for (const char16_t* path : {u"C:", u"C:\\", u"\\", u"level0\\.."}) {
    std::unique_ptr<rio_dir> d(root->OpenDir(path));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->GetPath(), u"C:\\") << test_util::Narrow(path);
    EXPECT_EQ(d->Compare(root.get()), 0);
  }
  // Another drive letter is no path of this volume.
  EXPECT_EQ(root->OpenDir(u"D:\\level0"), nullptr);
  EXPECT_EQ(root->TakeError().Code(), OpenError);
  std::unique_ptr<rio_dir> a(root->OpenDir(u"level0"));
  std::unique_ptr<rio_dir> b(root->OpenDir(u"LEVEL0\\level1"));
  EXPECT_EQ(a->Compare(b.get()), 1);
  EXPECT_EQ(b->Compare(a.get()), 2);

  // The loader's road: the directory of all components but the last, then
  // the file by its last component.
  const char16_t* path = u"/level0/level1/level2/level3/level4/level5/level6/level7/level8/level9/level10/level11/bottom file.txt";
  std::unique_ptr<rio_dir> parent(root->OpenPath(path));
  ASSERT_NE(parent, nullptr);
  EXPECT_EQ(std::u16string(path), u"bottom file.txt");
  std::unique_ptr<rio_file> f(parent->OpenForWrite(path, false));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(ReadAll(*f), Pattern(ClusterBytes() / 2 + 17, 11));
  // While the loader holds it, nobody else opens it.
  EXPECT_EQ(parent->Open(path, true), nullptr);
  EXPECT_EQ(parent->TakeError().Code(), OpenError);
  // A directory is no file, and a file no directory.
  EXPECT_EQ(root->Open(u"level0", true), nullptr);
  EXPECT_EQ(root->TakeError().Code(), OpenError);
  std::unique_ptr<rio_dir> notDir(root->OpenDir(u"big.bin"));
  delete notDir->GetIterator();
  EXPECT_EQ(notDir->TakeError().Code(), OpenError);
}

TEST_P(FatImages, ReadsAtAnyOffsetAndLengthMatchTheSource) {
  const FatLayout l = GetParam();
  TempDir dir;
  const std::string image = dir / "fat.img";
  ASSERT_TRUE(MakeFat(image, l));
  const size_t cb = size_t(l.clusterSectors) * l.sectorSize;
  const std::string big = Pattern(80 * cb + 123, 10);
  WriteFile(dir / "big.bin", big);
  ASSERT_TRUE(fs_test::Run(Mtools("mcopy", image, "'" + (dir / "big.bin") + "' ::/big.bin")));
  std::unique_ptr<rio_dir> root = MountImage(image, uint32_t(l.sectorSize));
  ASSERT_NE(root, nullptr);
  std::unique_ptr<ri_file> f(root->Open(u"big.bin", true));
  ASSERT_NE(f, nullptr);
  std::mt19937 gen(5);
  std::vector<char> buffer(big.size() + 64);
  for (int i = 0; i < 200; ++i) {
    const size_t offset = gen() % big.size();
    const size_t length = 1 + gen() % (big.size() - offset + 50);
    char* dst = buffer.data() + gen() % 64;  // aligned and not
    ASSERT_EQ(f->Seek(int64_t(offset)), int64_t(offset));
    uint64_t got = 0;
    f->Read(dst, length, got);
    ASSERT_FALSE(f->HasError()) << test_util::Narrow(Common::ErrorText(f->TakeError()));
    const size_t expected = std::min(length, big.size() - offset);
    ASSERT_EQ(got, expected);
    ASSERT_EQ(std::string(dst, got), big.substr(offset, got)) << offset << "+" << length;
  }
}

TEST_P(FatImages, FragmentedFilesFollowTheirChains) {
  const FatLayout l = GetParam();
  TempDir dir;
  const std::string image = dir / "fat.img";
  ASSERT_TRUE(MakeFat(image, l));
  const size_t cb = size_t(l.clusterSectors) * l.sectorSize;
  // Small files side by side, every second one deleted, then larger files
  // written into the holes.
  std::string commands;
  for (int i = 0; i < 24; ++i) {
    WriteFile(dir / ("f" + std::to_string(i)), Pattern(2 * cb, uint32_t(i)));
    commands += Mtools("mcopy", image, "'" + (dir / ("f" + std::to_string(i))) + "' ::/") + " && ";
  }
  for (int i = 0; i < 24; i += 2) commands += Mtools("mdel", image, "::/f" + std::to_string(i)) + " && ";
  ASSERT_TRUE(fs_test::Run(commands + "true"));
  commands.clear();
  if (l.fatBits == 32) {
    // mtools allocates behind FSInfo's next-free hint; without one it
    // fills the holes from the start, as a full volume would.
    std::fstream f(image, std::ios::in | std::ios::out | std::ios::binary);
    char bpb[0x32];
    f.read(bpb, sizeof bpb);
    const uint32_t fsInfo = uint8_t(bpb[0x30]) | uint8_t(bpb[0x31]) << 8;
    f.seekp(std::streamoff(fsInfo) * l.sectorSize + 492);
    f.write("\xFF\xFF\xFF\xFF", 4);
  }
  const std::string patchwork = Pattern(15 * cb + 5, 77);
  const std::string second = Pattern(9 * cb, 78);
  WriteFile(dir / "patchwork", patchwork);
  WriteFile(dir / "second", second);
  commands += Mtools("mcopy", image, "'" + (dir / "patchwork") + "' '" + (dir / "second") + "' ::/");
  ASSERT_TRUE(fs_test::Run(commands));

  std::unique_ptr<rio_dir> root = MountImage(image, uint32_t(l.sectorSize));
  ASSERT_NE(root, nullptr);
  HostTree back;
  ReadBack(*root, "", back);
  EXPECT_TRUE(back["patchwork"] == patchwork);
  EXPECT_TRUE(back["second"] == second);
  for (int i = 1; i < 24; i += 2) EXPECT_TRUE(back["f" + std::to_string(i)] == Pattern(2 * cb, uint32_t(i))) << i;
  EXPECT_EQ(back.count("f0"), 0u);

  // The file really is in pieces: its first run ends before its data does.
  std::unique_ptr<ri_file> f(root->Open(u"patchwork", true));
  FsRequest r{};
  r.command = FourCC("GSEC");
  f->IOCTL(&r);
  ASSERT_FALSE(f->HasError());
  EXPECT_LT(r.word[1] * uint64_t(l.sectorSize), patchwork.size());
}

TEST_P(FatImages, TheVolumeReportsItsTypeLabelAndSizes) {
  const FatLayout l = GetParam();
  TempDir dir;
  const std::string image = dir / "fat.img";
  ASSERT_TRUE(MakeFat(image, l, "RESCUEDISK"));
  WriteFile(dir / "one", Pattern(5000, 1));
  ASSERT_TRUE(fs_test::Run(Mtools("mcopy", image, "'" + (dir / "one") + "' ::/")));
  std::unique_ptr<rio_dir> root = MountImage(image, uint32_t(l.sectorSize));
  ASSERT_NE(root, nullptr);
  FsRequest r{};
  r.command = FourCC("GFST");
  root->IOCTL(&r);
  // FAT12 volumes call themselves FAT16.
  EXPECT_EQ(std::u16string(r.text), l.fatBits == 32 ? u"FAT32" : u"FAT16");
  char16_t label[32];
  root->GetVolumeLabel(label, 32);
  EXPECT_EQ(std::u16string(label), u"RESCUEDISK");
  root->GetVolumeLabel(label, 4);
  EXPECT_EQ(std::u16string(label), u"RES");
  uint64_t total = 0, free = 0, available = 0;
  root->GetDriveSize(total, free, available);
  EXPECT_FALSE(root->HasError());
  EXPECT_LE(total, uint64_t(l.sizeKiB) * 1024);
  EXPECT_GT(total, uint64_t(l.sizeKiB) * 1024 * 8 / 10);
  const uint64_t cb = uint64_t(l.clusterSectors) * l.sectorSize;
  EXPECT_EQ(free % cb, 0u);
  EXPECT_LT(free, total);
  EXPECT_EQ(available, free);

  std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"ONE"));
  EXPECT_EQ(it->Size(), 5000u);
  EXPECT_EQ(it->SizeOnDisk(), (5000 + cb - 1) / cb * cb);
  EXPECT_EQ(it->FileType(), FileTypes::Regular);
  EXPECT_EQ(it->DOSAttributes() & 0x10u, 0u);
  EXPECT_GT(it->ModificationTime(), 1600000000000ull);  // made today, in milliseconds
  EXPECT_GT(it->InodeId(), 0u);
  std::unique_ptr<i_dir::iterator> self(root->GetSelfIterator());
  EXPECT_EQ(self->FileName(), u"C:");
  EXPECT_TRUE(self->IsHidden());
}

TEST_P(FatImages, IdentifiersOfEntriesOpenAndOrderThem) {
  std::unique_ptr<rio_dir> root =
      Volume({{"SUB/", ""}, {"SUB/IN.TXT", "inner"}, {"alpha.txt", "a"}, {"beta with long name.txt", "b"}});
  ASSERT_NE(root, nullptr);
  std::unique_ptr<i_dir::iterator> a(root->GetIterator(u"alpha.txt"));
  std::unique_ptr<i_dir::iterator> b(root->GetIterator(u"beta with long name.txt"));
  std::unique_ptr<i_dir::iterator> sub(root->GetIterator(u"sub"));
  std::unique_ptr<file_identifier> ida(a->GetIdentifier()), idb(b->GetIdentifier()), ids(sub->GetIdentifier());
  // Short names decide the order: "ALPHA   TXT" before "BETAWI~1TXT".
  EXPECT_LT(root->CompareNames(ida.get(), idb.get()), 0);
  EXPECT_GT(root->CompareNames(idb.get(), ida.get()), 0);
  EXPECT_EQ(root->CompareNames(ida.get(), ida.get()), 0);
  std::unique_ptr<ri_file> fb(root->Open(idb.get(), true));
  ASSERT_NE(fb, nullptr);
  EXPECT_EQ(ReadAll(*fb), "b");
  // A directory's identifier carries its name, by which it is opened.
  std::unique_ptr<rio_dir> d(root->OpenDir(ids.get()));
  ASSERT_NE(d, nullptr);
  std::unique_ptr<ri_file> in(d->Open(u"in.txt", true));
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(*in), "inner");
  // And the position of a cursor opens its entry.
  std::unique_ptr<ri_file> fa(root->Open(a.get(), true));
  ASSERT_NE(fa, nullptr);
  EXPECT_EQ(ReadAll(*fa), "a");
  std::unique_ptr<rio_dir> fromCursor(root->OpenDir(sub.get()));
  ASSERT_NE(fromCursor, nullptr);
  EXPECT_EQ(fromCursor->Compare(d.get()), 0);
}

INSTANTIATE_TEST_SUITE_P(RealTools, FatImages,
                         ::testing::Values(FatLayout{12, 1, 512, 1440}, FatLayout{12, 4, 512, 4096},
                                           FatLayout{16, 1, 512, 16384}, FatLayout{16, 8, 512, 32768},
                                           FatLayout{16, 2, 4096, 65536}, FatLayout{32, 1, 512, 40000},
                                           FatLayout{32, 8, 512, 300000}, FatLayout{32, 16, 512, 600000}),
                         [](const ::testing::TestParamInfo<FatLayout>& info) { return Describe(info.param); });

TEST(FatNames, TimesBecomeMillisecondsSince1970) {
  // 2024-02-29 13:45:58 and 37 tenths.
  const uint16_t date = uint16_t(((2024 - 1980) << 9) | (2 << 5) | 29);
  const uint16_t time = uint16_t((13 << 11) | (45 << 5) | (58 / 2));
  EXPECT_EQ(FatNames::ToMilliseconds(date, time, 37), 1709214358000ull + 370);
  EXPECT_EQ(FatNames::ToMilliseconds(0, 0, 0), 0u);
  EXPECT_EQ(FatNames::ToMilliseconds(uint16_t((1 << 5) | 1), 0, 0), 315532800000ull);  // 1980-01-01
}
