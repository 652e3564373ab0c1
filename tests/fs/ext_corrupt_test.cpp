// Broken ext volumes: real images made by mke2fs, then damaged in one place
// each.  Every damage ends in a refused mount or the exact error the
// format's rules name, never in a crash, a hang or a read outside the
// volume (ASan and UBSan watch).
#include <gtest/gtest.h>

#include <cstring>

#include "ext_test_util.h"
#include "test_util.h"

using namespace fs_test;
using namespace Common::Codes;
using extfs::ExtfsDriver;

namespace {

// A volume made by the tools, kept in memory so that each case damages its
// own copy.  Places inside it are found with debugfs on the pristine image.
class ExtImage {
 public:
  ExtImage(const ExtLayout& layout, const HostTree& tree) : blockSize(uint32_t(layout.blockSize)) {
    WriteTree(dir_ / "src", tree);
    image_ = dir_ / "ext.img";
    if (!MakeExt(image_, layout, dir_ / "src")) return;
    bytes = ReadFile(image_);
  }

  // The byte offset of the raw inode of `path`.
  uint64_t InodeOffset(const std::string& path) {
    const std::string out = Debugfs("imap \"" + path + "\"");
    const size_t at = out.find("located at block ");
    if (at == std::string::npos) {
      ADD_FAILURE() << out;
      return 0;
    }
    uint64_t block = 0, offset = 0;
    std::sscanf(out.c_str() + at, "located at block %lu, offset 0x%lx", &block, &offset);
    return block * blockSize + offset;
  }

  // The byte offset of the first data block of `path`.
  uint64_t FirstBlockOffset(const std::string& path) {
    const std::string out = Debugfs("blocks \"" + path + "\"");
    return std::stoull(out) * blockSize;
  }

  uint8_t* At(uint64_t offset) { return reinterpret_cast<uint8_t*>(bytes.data()) + offset; }
  uint8_t* Super() { return At(1024); }
  void Put16(uint64_t offset, uint16_t v) { std::memcpy(At(offset), &v, 2); }
  void Put32(uint64_t offset, uint32_t v) { std::memcpy(At(offset), &v, 4); }
  uint32_t Get32(uint64_t offset) { return extfs::Format::Get32(At(offset)); }
  void FixSuperChecksum() { Put32(1024 + 0x3FC, extfs::Crc32c(0xFFFFFFFF, Super(), 0x3FC)); }

  std::unique_ptr<Fdisk::SimpleDisk> Disk() const { return std::make_unique<MemoryDisk>(bytes, 512); }
  std::unique_ptr<rio_dir> Mount() const { return MountExt(Disk()); }
  // The code the driver's constructor raises, 0 when it mounts.
  uint32_t MountCode() const {
    std::unique_ptr<Fdisk::SimpleDisk> disk = Disk();
    return test_util::ThrownCode([&] {
      std::unique_ptr<ExtfsDriver> d(new ExtfsDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0));
    });
  }

  std::string bytes;
  const uint32_t blockSize;

 private:
  std::string Debugfs(const std::string& request) {
    const std::string out = dir_ / "debugfs.out";
    Run("debugfs -R '" + request + "' '" + image_ + "' > '" + out + "' 2>/dev/null");
    return ReadFile(out);
  }

  TempDir dir_;
  std::string image_;
};

const ExtLayout kExt2 = {"ext2", "ext2", 1024, "", "", 8192};
const ExtLayout kExt4Plain = {"ext4_plain", "ext4", 1024, "-O ^metadata_csum,^64bit", "", 8192};
const ExtLayout kExt4Csum = {"ext4_csum", "ext4", 1024, "", "", 8192};

HostTree SmallTree() {
  HostTree t;
  t["file.bin"] = Pattern(20000, 1);
  t["sub/"] = "";
  t["sub/inner.txt"] = Pattern(100, 2);
  t["index/"] = "";
  for (int i = 0; i < 400; ++i) t["index/name number " + std::to_string(i)] = "";
  return t;
}

// The error of reading the whole of `path`, 0 for none.
uint32_t ReadCode(rio_dir& root, const std::u16string& path) {
  std::unique_ptr<ri_file> f(root.Open(path.c_str(), true));
  if (!f) return root.TakeError().Code();
  std::string data(size_t(f->GetSize()), '\0');
  uint64_t got = 0;
  f->Read(data.data(), data.size(), got);
  return f->TakeError().Code();
}

// The error of listing `path` to its end, 0 for none.
uint32_t ListCode(rio_dir& root, const std::u16string& path) {
  std::unique_ptr<rio_dir> dir(path.empty() ? nullptr : root.OpenDir(path.c_str()));
  rio_dir& d = dir ? *dir : root;
  std::unique_ptr<i_dir::iterator> it(d.GetIterator());
  if (!it) return d.TakeError().Code();
  int guard = 0;
  while (!it->HasError() && ++guard < 100000) it->Next();
  const uint32_t code = it->TakeError().Code();
  return code == EndOfFile ? 0 : code;
}

}  // namespace

TEST(ExtCorrupt, SuperblockChecksRefuseTheMountWithTheirCodes) {
  ExtImage plain(kExt2, SmallTree());
  ExtImage csum(kExt4Csum, SmallTree());
  ASSERT_FALSE(plain.bytes.empty());
  ASSERT_FALSE(csum.bytes.empty());
  EXPECT_EQ(plain.MountCode(), 0u);
  EXPECT_EQ(csum.MountCode(), 0u);

  struct Row {
    const char* what;
    bool onCsum;
    std::function<void(ExtImage&)> damage;
    uint32_t code;
  };
  const Row rows[] = {
      {"bad magic", false, [](ExtImage& i) { i.Put16(1024 + 0x38, 0xEF54); }, Corrupted},
      {"inodes count off by one", false, [](ExtImage& i) { i.Put32(1024, i.Get32(1024) + 1); }, Corrupted},
      {"unknown incompatible feature", false, [](ExtImage& i) { i.Put32(1024 + 0x60, i.Get32(1024 + 0x60) | 0x8000); }, NotSupported},
      {"revision 2", false, [](ExtImage& i) { i.Put32(1024 + 0x4C, 2); }, NotSupported},
      {"another creator system", false, [](ExtImage& i) { i.Put32(1024 + 0x48, 3); }, NotSupported},
      {"block size log 7", false, [](ExtImage& i) { i.Put32(1024 + 0x18, 7); }, Corrupted},
      {"clusters bigger than blocks", false, [](ExtImage& i) { i.Put32(1024 + 0x1C, 1); }, NotSupported},
      {"more blocks than the disk", false, [](ExtImage& i) { i.Put32(1024 + 0x04, i.Get32(1024 + 0x04) + 1); }, Corrupted},
      {"no blocks per group", false, [](ExtImage& i) { i.Put32(1024 + 0x20, 0); }, Corrupted},
      {"inode size below 128", false, [](ExtImage& i) { i.Put16(1024 + 0x58, 64); }, Corrupted},
      {"free blocks above the count", false, [](ExtImage& i) { i.Put32(1024 + 0x0C, 0x7FFFFFFF); }, Corrupted},
      {"first meta group past the descriptors", false,
       [](ExtImage& i) {
         i.Put32(1024 + 0x60, i.Get32(1024 + 0x60) | 0x10);
         i.Put32(1024 + 0x104, 1000);
       },
       Corrupted},
      {"journal waiting for recovery", false, [](ExtImage& i) { i.Put32(1024 + 0x60, i.Get32(1024 + 0x60) | 0x4); }, Corrupted},
      {"superblock checksum", true, [](ExtImage& i) { i.Super()[0x78] ^= 1; }, Corrupted},
      {"both descriptor checksums", true,
       [](ExtImage& i) {
         i.Put32(1024 + 0x64, i.Get32(1024 + 0x64) | 0x10);
         i.FixSuperChecksum();
       },
       Corrupted},
      {"64-bit descriptors of 32 bytes", true,
       [](ExtImage& i) {
         i.Put16(1024 + 0xFE, 32);
         i.FixSuperChecksum();
       },
       Corrupted},
      {"checksum type 2", true,
       [](ExtImage& i) {
         i.Super()[0x175] = 2;
         i.FixSuperChecksum();
       },
       NotSupported},
      {"group descriptor checksum", true, [](ExtImage& i) { i.At(2048)[0] ^= 1; }, Corrupted},
  };
  for (const Row& r : rows) {
    ExtImage& base = r.onCsum ? csum : plain;
    const std::string pristine = base.bytes;
    r.damage(base);
    EXPECT_EQ(base.MountCode(), r.code) << r.what;
    EXPECT_EQ(base.Mount(), nullptr) << r.what;
    base.bytes = pristine;
  }
}

TEST(ExtCorrupt, UnknownReadOnlyFeatureMountsForReadingOnly) {
  ExtImage image(kExt2, SmallTree());
  ASSERT_FALSE(image.bytes.empty());
  image.Put32(1024 + 0x64, image.Get32(1024 + 0x64) | 0x8000);
  std::unique_ptr<Fdisk::SimpleDisk> disk = image.Disk();
  std::unique_ptr<ExtfsDriver> d(new ExtfsDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0));
  EXPECT_TRUE(d->ReadOnly());
  EXPECT_EQ(test_util::ThrownCode([&] { d->PrepareToWrite(); }), Common::Codes::ReadOnly);
  std::unique_ptr<rio_dir> root = image.Mount();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(ReadCode(*root, u"file.bin"), 0u);
}

TEST(ExtCorrupt, DamagedInodesAndBlockLocationsReadAsCorrupted) {
  ExtImage ext4(kExt4Plain, SmallTree());
  ExtImage ext2(kExt2, SmallTree());
  ASSERT_FALSE(ext4.bytes.empty());
  ASSERT_FALSE(ext2.bytes.empty());
  const uint64_t file4 = ext4.InodeOffset("/file.bin");
  const uint64_t file2 = ext2.InodeOffset("/file.bin");
  ASSERT_NE(file4, 0u);
  ASSERT_NE(file2, 0u);

  struct Row {
    const char* what;
    ExtImage* image;
    std::function<void(ExtImage&)> damage;
    uint32_t code;
  };
  const Row rows[] = {
      {"extent magic", &ext4, [&](ExtImage& i) { i.Put16(file4 + 40, 0xF30B); }, Corrupted},
      {"more extents than room", &ext4, [&](ExtImage& i) { i.Put16(file4 + 42, 5); }, Corrupted},
      {"extent capacity beyond the inode", &ext4, [&](ExtImage& i) { i.Put16(file4 + 44, 5); }, Corrupted},
      {"index node without entries", &ext4,
       [&](ExtImage& i) {
         i.Put16(file4 + 46, 1);
         i.Put16(file4 + 42, 0);
       },
       Corrupted},
      {"leaf read as an index of depth 3", &ext4, [&](ExtImage& i) { i.Put16(file4 + 46, 3); }, Corrupted},
      {"extent past the volume", &ext4, [&](ExtImage& i) { i.Put32(file4 + 40 + 12 + 8, 0x7FFFFFF0); }, Corrupted},
      {"extents flag on a volume without extents", &ext2,
       [&](ExtImage& i) { i.Put32(file2 + 32, i.Get32(file2 + 32) | 0x80000); }, Corrupted},
      {"direct block past the volume", &ext2, [&](ExtImage& i) { i.Put32(file2 + 40 + 4 * 3, 0x7FFFFFF0); }, Corrupted},
      {"indirect block past the volume", &ext2, [&](ExtImage& i) { i.Put32(file2 + 40 + 4 * 12, 0xFFFFFFFF); }, Corrupted},
      {"link count 0", &ext2, [&](ExtImage& i) { i.Put16(file2 + 26, 0); }, OpenError},
      {"no regular file", &ext2, [&](ExtImage& i) { i.Put16(file2, 0x1000 | 0644); }, Corrupted},
  };
  for (const Row& r : rows) {
    const std::string pristine = r.image->bytes;
    r.damage(*r.image);
    std::unique_ptr<rio_dir> root = r.image->Mount();
    ASSERT_NE(root, nullptr) << r.what;
    EXPECT_EQ(ReadCode(*root, u"file.bin"), r.code) << r.what;
    // The rest of the volume is still there.
    EXPECT_EQ(ReadCode(*root, u"sub/inner.txt"), 0u) << r.what;
    r.image->bytes = pristine;
  }
}

TEST(ExtCorrupt, DamagedDirectoryEntriesFailTheListingAndTheLookup) {
  ExtImage image(kExt2, SmallTree());
  ASSERT_FALSE(image.bytes.empty());
  const uint64_t sub = image.FirstBlockOffset("/sub");
  ASSERT_NE(sub, 0u);
  // The block holds ".", "..", "inner.txt" in that order.
  struct Row {
    const char* what;
    std::function<void(ExtImage&)> damage;
  };
  const Row rows[] = {
      {"record length 0 would loop", [&](ExtImage& i) { i.Put16(sub + 12 + 4, 0); }},
      {"record length past the block", [&](ExtImage& i) { i.Put16(sub + 24 + 4, 2000); }},
      {"record length not a multiple of 4", [&](ExtImage& i) { i.Put16(sub + 24 + 4, uint16_t(extfs::Format::Get16(i.At(sub + 24 + 4)) - 2)); }},
      {"record shorter than its name", [&](ExtImage& i) { i.Put16(sub + 12 + 4, 8); }},
      {"inode beyond the inode count", [&](ExtImage& i) { i.Put32(sub + 24, 0x7FFFFFFF); }},
      {"name with a slash", [&](ExtImage& i) { i.At(sub + 24 + 8)[2] = '/'; }},
      {"empty name", [&](ExtImage& i) { i.At(sub + 24 + 6)[0] = 0; }},
      {"dot naming another directory", [&](ExtImage& i) { i.Put32(sub, 2); }},
  };
  for (const Row& r : rows) {
    const std::string pristine = image.bytes;
    r.damage(image);
    std::unique_ptr<rio_dir> root = image.Mount();
    ASSERT_NE(root, nullptr) << r.what;
    EXPECT_EQ(ListCode(*root, u"sub"), Corrupted) << r.what;
    EXPECT_NE(ReadCode(*root, u"sub/inner.txt"), 0u) << r.what;
    EXPECT_EQ(ListCode(*root, u""), 0u) << r.what;
    image.bytes = pristine;
  }
}

TEST(ExtCorrupt, DamagedIndexFallsBackToTheScan) {
  ExtImage image(kExt2, SmallTree());
  ASSERT_FALSE(image.bytes.empty());
  const uint64_t root = image.FirstBlockOffset("/index");
  ASSERT_NE(root, 0u);
  // The root of an index: ".." spans the rest of the block.
  ASSERT_EQ(extfs::Format::Get16(image.At(root + 12 + 4)), image.blockSize - 12);
  struct Row {
    const char* what;
    std::function<void(ExtImage&)> damage;
  };
  const Row rows[] = {
      {"limit of the root", [&](ExtImage& i) { i.Put16(root + 32, 7); }},
      {"count 0", [&](ExtImage& i) { i.Put16(root + 34, 0); }},
      {"two indirect levels", [&](ExtImage& i) { i.At(root + 30)[0] = 2; }},
      {"legacy hash", [&](ExtImage& i) { i.At(root + 28)[0] = 0; }},
      {"unknown hash", [&](ExtImage& i) { i.At(root + 28)[0] = 9; }},
  };
  for (const Row& r : rows) {
    const std::string pristine = image.bytes;
    r.damage(image);
    std::unique_ptr<rio_dir> mounted = image.Mount();
    ASSERT_NE(mounted, nullptr) << r.what;
    std::unique_ptr<rio_dir> index(mounted->OpenDir(u"index"));
    ASSERT_NE(index, nullptr);
    for (int n : {0, 211, 399}) {
      std::unique_ptr<i_dir::iterator> it(index->GetIterator((u"name number " + Common::Utf8ToUtf16(std::to_string(n))).c_str()));
      EXPECT_NE(it, nullptr) << r.what << " " << n << ": " << test_util::Narrow(Common::ErrorText(index->TakeError()));
    }
    image.bytes = pristine;
  }
}

TEST(ExtCorrupt, ChecksumsOfInodesAndDirectoryBlocksAreVerified) {
  ExtImage image(kExt4Csum, SmallTree());
  ASSERT_FALSE(image.bytes.empty());
  const uint64_t file = image.InodeOffset("/file.bin");
  const uint64_t sub = image.FirstBlockOffset("/sub");
  {
    const std::string pristine = image.bytes;
    image.At(file + 8)[0] ^= 1;  // the access time, which nothing else checks
    std::unique_ptr<rio_dir> root = image.Mount();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(ReadCode(*root, u"file.bin"), Corrupted);
    EXPECT_EQ(ReadCode(*root, u"sub/inner.txt"), 0u);
    image.bytes = pristine;
  }
  {
    image.At(sub + 24 + 8)[0] ^= 0x20;  // a letter of "inner.txt" changes case
    std::unique_ptr<rio_dir> root = image.Mount();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(ReadCode(*root, u"sub/Inner.txt"), Corrupted);
  }
}

TEST(ExtEdges, InodeFieldsThatChangeHowDataReads) {
  ExtImage ext4(kExt4Plain, SmallTree());
  ExtImage ext2(kExt2, SmallTree());
  ASSERT_FALSE(ext4.bytes.empty());
  ASSERT_FALSE(ext2.bytes.empty());
  const std::string data = Pattern(20000, 1);
  const std::string pristine2 = ext2.bytes;

  // An unwritten extent reads as zeroes over its whole stored length.
  {
    const uint64_t file = ext4.InodeOffset("/file.bin");
    ASSERT_EQ(extfs::Format::Get16(ext4.At(file + 40 + 2)), 1u);  // one extent
    const uint16_t length = extfs::Format::Get16(ext4.At(file + 40 + 12 + 4));
    ext4.Put16(file + 40 + 12 + 4, uint16_t(length + 32768));
    std::unique_ptr<rio_dir> root = ext4.Mount();
    ASSERT_NE(root, nullptr);
    std::unique_ptr<ri_file> f(root->Open(u"file.bin", true));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(ReadAll(*f), std::string(data.size(), '\0'));
  }

  // A block map ends after three indirect levels: a file claiming more is
  // read as holes up to there and refused behind it.
  {
    const uint64_t file = ext2.InodeOffset("/file.bin");
    ext2.Put32(file + 108, 5);  // 20 GiB more
    std::unique_ptr<rio_dir> root = ext2.Mount();
    ASSERT_NE(root, nullptr);
    std::unique_ptr<ri_file> f(root->Open(u"file.bin", true));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(uint64_t(f->GetSize()), (5ull << 32) + data.size());
    std::string part(4096, '\x11');
    uint64_t got = 0;
    ASSERT_EQ(f->Seek(int64_t(1) << 30), int64_t(1) << 30);
    f->Read(part.data(), part.size(), got);
    EXPECT_EQ(got, part.size());
    EXPECT_EQ(part, std::string(part.size(), '\0'));
    const int64_t beyond = int64_t(18) << 30;
    ASSERT_EQ(f->Seek(beyond), beyond);
    f->Read(part.data(), part.size(), got);
    EXPECT_EQ(f->TakeError().Code(), SeekError);
  }

  // Only regular files have a high size word; a directory's is ignored.
  {
    ext2.bytes = pristine2;
    ext2.Put32(ext2.InodeOffset("/sub") + 108, 7);
    std::unique_ptr<rio_dir> root = ext2.Mount();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(ListCode(*root, u"sub"), 0u);
    EXPECT_EQ(ReadCode(*root, u"sub/inner.txt"), 0u);
  }
}

TEST(ExtEdges, SuperblockCopiesAndAFullLabel) {
  ExtImage image(kExt2, SmallTree());
  ASSERT_FALSE(image.bytes.empty());
  std::memcpy(image.Super() + 0x78, "0123456789abcdef", 16);  // no terminator on disk
  std::unique_ptr<Fdisk::SimpleDisk> disk = image.Disk();
  std::unique_ptr<ExtfsDriver> d(new ExtfsDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0));
  char16_t label[32];
  d->GetVolumeLabel(label, 32);
  EXPECT_EQ(std::u16string(label), u"0123456789abcdef");
  d->GetVolumeLabel(label, 5);
  EXPECT_EQ(std::u16string(label), u"0123");

  // Under sparse superblocks only groups 0, 1 and powers of 3, 5 and 7
  // carry a copy; a product of two of them does not.
  struct Row {
    uint64_t group;
    bool copy;
  };
  const Row rows[] = {{0, true},  {1, true},  {2, false},  {3, true},   {4, false},  {5, true},
                      {6, false}, {7, true},  {9, true},   {15, false}, {21, false}, {25, true},
                      {27, true}, {35, false}, {49, true}, {243, true}, {245, false}, {343, true}};
  for (const Row& r : rows) EXPECT_EQ(d->GroupHasSuperBlock(r.group), r.copy) << r.group;
}
