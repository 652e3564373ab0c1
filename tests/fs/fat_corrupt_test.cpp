// Broken FAT volumes: real images made by mkfs.fat and mtools, then
// damaged in one place each.  Every damage ends in a refused mount or "The
// file is corrupted." (or the exact error the format's rules name), never
// in a crash, a hang or a read outside the volume (ASan watches).
#include <gtest/gtest.h>

#include <cstring>

#include "fat_test_util.h"
#include "file/filesys/fat.h"
#include "filesys/fat_format.h"
#include "test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

// A volume made by the tools, kept in memory so that each test can damage
// its own copy.
class FatImage {
 public:
  FatImage(const FatLayout& layout, const HostTree& tree) {
    TempDir dir;
    const std::string image = dir / "fat.img";
    if (!MakeFat(image, layout)) return;
    WriteTree(dir / "src", tree);
    if (!CopyTree(image, dir / "src")) return;
    bytes = ReadFile(image);
    ss = uint32_t(layout.sectorSize);
    Parse();
  }

  void Parse() {
    std::memcpy(&b, bytes.data(), sizeof b);
    fat32 = b.sectorsPerFat16.get() == 0;
    spc = b.sectorsPerCluster;
    reserved = b.reservedSectors.get();
    spf = fat32 ? b.fat32.sectorsPerFat.get() : b.sectorsPerFat16.get();
    rootSectors = fat32 ? 0 : b.rootEntries.get() * 32 / ss;
    firstData = b.numberOfFats * spf + reserved + rootSectors;
  }

  uint64_t ClusterOffset(uint32_t c) const { return (uint64_t(c - 2) * spc + firstData) * ss; }

  uint32_t FatEntry(uint32_t c) const {
    const uint8_t* fat = reinterpret_cast<const uint8_t*>(bytes.data()) + uint64_t(reserved) * ss;
    if (!fat32 && Clusters() < 4085) {
      const uint32_t w = fat[c * 3 / 2] | fat[c * 3 / 2 + 1] << 8;
      return (c & 1) ? w >> 4 : w & 0xFFF;
    }
    if (!fat32) return fat[2 * c] | fat[2 * c + 1] << 8;
    return (fat[4 * c] | fat[4 * c + 1] << 8 | fat[4 * c + 2] << 16 | uint32_t(fat[4 * c + 3]) << 24) & 0x0FFFFFFF;
  }

  void SetFatEntry(uint32_t c, uint32_t v) {
    for (uint32_t n = 0; n < b.numberOfFats; ++n) {
      auto* fat = reinterpret_cast<uint8_t*>(bytes.data()) + (uint64_t(reserved) + n * uint64_t(spf)) * ss;
      if (!fat32 && Clusters() < 4085) {
        uint8_t* p = fat + c * 3 / 2;
        if (c & 1) {
          p[0] = uint8_t((p[0] & 0x0F) | (v << 4));
          p[1] = uint8_t(v >> 4);
        } else {
          p[0] = uint8_t(v);
          p[1] = uint8_t((p[1] & 0xF0) | ((v >> 8) & 0x0F));
        }
      } else if (!fat32) {
        fat[2 * c] = uint8_t(v);
        fat[2 * c + 1] = uint8_t(v >> 8);
      } else {
        for (int i = 0; i < 4; ++i) fat[4 * c + i] = uint8_t(v >> (8 * i));
      }
    }
  }

  uint32_t Clusters() const {
    const uint64_t total = b.totalSectors32.get() ? b.totalSectors32.get() : b.totalSectors16.get();
    return uint32_t((total - firstData) / spc);
  }

  // The entry with these 11 short-name bytes in the directory whose first
  // cluster is `cluster` (0: the root), searched in its first cluster.
  Fat::DirEntry* Entry(const char* name11, uint32_t cluster = 0) {
    uint64_t at, size;
    if (cluster == 0 && !fat32) {
      at = uint64_t(firstData - rootSectors) * ss;
      size = uint64_t(rootSectors) * ss;
    } else {
      at = ClusterOffset(cluster == 0 ? b.fat32.rootCluster.get() : cluster);
      size = uint64_t(spc) * ss;
    }
    for (uint64_t o = at; o < at + size; o += 32)
      if (std::memcmp(bytes.data() + o, name11, 11) == 0) return reinterpret_cast<Fat::DirEntry*>(bytes.data() + o);
    ADD_FAILURE() << "no entry " << name11;
    static Fat::DirEntry none;
    return &none;
  }

  static uint32_t FirstCluster(const Fat::DirEntry& e) {
    return uint32_t(e.firstClusterHigh.get()) << 16 | e.firstClusterLow.get();
  }
  static void SetFirstCluster(Fat::DirEntry& e, uint32_t c) {
    e.firstClusterLow.bytes[0] = uint8_t(c);
    e.firstClusterLow.bytes[1] = uint8_t(c >> 8);
    e.firstClusterHigh.bytes[0] = uint8_t(c >> 16);
    e.firstClusterHigh.bytes[1] = uint8_t(c >> 24);
  }
  void SetBoot(size_t offset, std::initializer_list<uint8_t> values) {
    for (uint8_t v : values) bytes[offset++] = char(v);
  }

  std::unique_ptr<rio_dir> Mount() const {
    std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<MemoryDisk>(bytes, ss);
    return std::unique_ptr<rio_dir>(::Mount(kDetectAll, disk));
  }

  // The code and function of the driver's refusal, 0 when it mounts.
  std::pair<uint32_t, std::string> Judge() const {
    MemoryDisk disk(bytes, ss);
    try {
      FATDriver driver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, nullptr, 0);
    } catch (const Common::Error& e) {
      return {e.Code(), e.Function()};
    }
    return {0, ""};
  }

  std::string bytes;
  uint32_t ss = 512;
  Fat::BootSector b{};
  bool fat32 = false;
  uint32_t spc = 0, reserved = 0, spf = 0, rootSectors = 0, firstData = 0;
};

HostTree Files(size_t cb) {
  HostTree t;
  t["FILE.BIN"] = Pattern(6 * cb, 1);
  t["ONE.BIN"] = Pattern(cb / 2, 2);
  t["SUB/"] = "";
  t["SUB/INNER.TXT"] = Pattern(100, 3);
  t["with a long name.txt"] = Pattern(10, 4);
  return t;
}

const FatLayout kFat12{12, 1, 512, 1440};
const FatLayout kFat16{16, 4, 512, 16384};
const FatLayout kFat32{32, 1, 512, 40000};

// Reads a file to its end; the error code and the bytes delivered.
std::pair<uint32_t, std::string> ReadFileOf(rio_dir& root, const char16_t* name) {
  std::unique_ptr<ri_file> f(root.Open(name, true));
  if (!f) return {root.TakeError().Code(), ""};
  std::string data(size_t(std::max<int64_t>(f->GetSize(), 0)) + 10, '\0');
  uint64_t got = 0;
  f->Read(data.data(), data.size(), got);
  data.resize(size_t(got));
  return {f->TakeError().Code(), data};
}

}  // namespace

TEST(FatBootSector, InconsistentFieldsRefuseTheVolume) {
  const FatImage fat16(kFat16, Files(2048));
  const FatImage fat32(kFat32, Files(512));
  ASSERT_FALSE(fat16.bytes.empty());
  ASSERT_FALSE(fat32.bytes.empty());
  struct Row {
    const char* what;
    const FatImage* base;
    size_t offset;
    std::vector<uint8_t> value;
    bool mounts;
  };
  const Row rows[] = {
      {"no jump", &fat16, 0x00, {0x00}, false},
      {"near jump", &fat16, 0x00, {0xE9}, true},
      {"no 0xAA55", &fat16, 510, {0, 0}, true},
      {"3 sectors per cluster", &fat16, 0x0D, {3}, false},
      {"0 sectors per cluster", &fat16, 0x0D, {0}, false},
      {"255 sectors per cluster", &fat16, 0x0D, {255}, false},
      {"no reserved sectors", &fat16, 0x0E, {0, 0}, false},
      {"no FATs", &fat16, 0x10, {0}, false},
      {"a negative number of FATs", &fat16, 0x10, {0x80}, false},
      {"no root entries", &fat16, 0x11, {0, 0}, false},
      {"root entries not filling sectors", &fat16, 0x11, {17, 0}, false},
      {"fewer sectors than the FATs", &fat16, 0x13, {10, 0}, false},
      {"more sectors than the disk", &fat16, 0x13, {0xFF, 0xFF}, false},
      {"a FAT too small to stay FAT16", &fat16, 0x16, {1, 0}, false},
      {"FAT32 version 1", &fat32, 0x2A, {1, 0}, false},
      {"FAT32 without FAT sectors", &fat32, 0x24, {0, 0, 0, 0}, false},
      {"FAT32 root cluster 1", &fat32, 0x2C, {1, 0, 0, 0}, false},
      {"FAT32 root cluster beyond the volume", &fat32, 0x2C, {0xFF, 0xFF, 0xFF, 0x0F}, false},
      {"FAT32 active FAT 2 of 2", &fat32, 0x28, {0x82, 0}, false},
      {"FAT32 active FAT 1 of 2", &fat32, 0x28, {0x81, 0}, true},
      {"FAT32 more sectors than the disk", &fat32, 0x20, {0xFF, 0xFF, 0xFF, 0x00}, false},
  };
  for (const Row& r : rows) {
    FatImage image = *r.base;
    for (size_t i = 0; i < r.value.size(); ++i) image.bytes[r.offset + i] = char(r.value[i]);
    const auto [code, function] = image.Judge();
    if (r.mounts) {
      EXPECT_EQ(code, 0u) << r.what;
      EXPECT_NE(image.Mount(), nullptr) << r.what;
    } else {
      EXPECT_EQ(code, Corrupted) << r.what;
      EXPECT_EQ(function, "FATDriver") << r.what;
      EXPECT_EQ(image.Mount(), nullptr) << r.what;  // and no error escapes the mount
    }
  }
}

TEST(FatBootSector, AFatSmallerThanItsAreaShrinksTheClusterCount) {
  FatImage image(kFat16, Files(2048));
  // 17 sectors of FAT map 17 * 256 - 2 clusters, still FAT16; the layout
  // moves with it, so only the volume's arithmetic is looked at here.
  image.SetBoot(0x16, {17, 0});
  std::unique_ptr<rio_dir> root = image.Mount();
  ASSERT_NE(root, nullptr);
  uint64_t total = 0, free = 0, available = 0;
  root->GetDriveSize(total, free, available);
  const uint64_t firstData = 2 * 17 + image.reserved + image.rootSectors;
  EXPECT_EQ(total, ((17 * 256 - 2) * 4 + firstData) * 512);
}

TEST(FatBootSector, SectorsBelow512BytesAreRefused) {
  const FatImage image(kFat16, Files(2048));
  MemoryDisk disk(image.bytes, 256);
  EXPECT_EQ(test_util::ThrownCode([&] { FATDriver d(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, nullptr, 0); }),
            Corrupted);
}

TEST(FatMount, UnknownDisksAreRefusedQuietlyAndLeftToTheCaller) {
  std::unique_ptr<Fdisk::SimpleDisk> zeros = std::make_unique<MemoryDisk>(std::string(1 << 20, '\0'), 512);
  Fdisk::SimpleDisk* kept = zeros.get();
  EXPECT_EQ(Mount(kDetectAll, zeros), nullptr);
  EXPECT_EQ(zeros.get(), kept);

  const FatImage image(kFat16, Files(2048));
  auto unreadable = std::make_unique<MemoryDisk>(image.bytes, 512);
  unreadable->failingSectors.insert(0);
  MemoryDisk* raw = unreadable.get();
  std::unique_ptr<Fdisk::SimpleDisk> disk = std::move(unreadable);
  EXPECT_EQ(Mount(kDetectAll, disk), nullptr);
  EXPECT_EQ(raw->reads, 1);  // the boot sector, then nothing more
  EXPECT_EQ(disk.get(), raw);

  std::unique_ptr<Fdisk::SimpleDisk> good = std::make_unique<MemoryDisk>(image.bytes, 512);
  std::unique_ptr<rio_dir> root(Mount(kDetectAll, good));
  EXPECT_NE(root, nullptr);
  EXPECT_EQ(good, nullptr);  // the driver owns it now
  EXPECT_EQ(Mount(kDetectAll, good), nullptr);
  // Rows of drivers that are not part of the build mount nothing.
  std::unique_ptr<Fdisk::SimpleDisk> again = std::make_unique<MemoryDisk>(image.bytes, 512);
  EXPECT_EQ(Mount(kCreateNtfs, again), nullptr);
  EXPECT_NE(again, nullptr);
  EXPECT_EQ(FileSystemTable(kDetectAll).typeMask, 0xDFF1u);
  EXPECT_EQ(FileSystemTable(kCreateFat).typeMask, 0xC001u);
}

class FatChains : public ::testing::TestWithParam<FatLayout> {
 protected:
  size_t ClusterBytes() const { return size_t(GetParam().clusterSectors) * GetParam().sectorSize; }
};

TEST_P(FatChains, AChainThatLoopsBackIsCorruptAndEndsTheRead) {
  FatImage image(GetParam(), Files(ClusterBytes()));
  Fat::DirEntry* e = image.Entry("FILE    BIN");
  const uint32_t first = FatImage::FirstCluster(*e);
  // The third cluster leads back to the first: a loop of three.
  uint32_t c = first;
  for (int i = 0; i < 2; ++i) c = image.FatEntry(c);
  image.SetFatEntry(c, first);
  std::unique_ptr<rio_dir> root = image.Mount();
  ASSERT_NE(root, nullptr);
  const auto [code, data] = ReadFileOf(*root, u"FILE.BIN");
  EXPECT_EQ(code, Corrupted);
  EXPECT_LT(data.size(), 6 * ClusterBytes());
  EXPECT_TRUE(data == Pattern(6 * ClusterBytes(), 1).substr(0, data.size()));

  // A cluster that leads to itself.
  FatImage self(GetParam(), Files(ClusterBytes()));
  const uint32_t one = FatImage::FirstCluster(*self.Entry("FILE    BIN"));
  self.SetFatEntry(one, one);
  root = self.Mount();
  EXPECT_EQ(ReadFileOf(*root, u"FILE.BIN").first, Corrupted);
}

TEST_P(FatChains, AChainShorterThanTheFileDeliversWhatExistsThenFails) {
  FatImage image(GetParam(), Files(ClusterBytes()));
  const uint32_t first = FatImage::FirstCluster(*image.Entry("FILE    BIN"));
  const uint32_t second = image.FatEntry(first);
  // Out of range: beyond the last cluster, or one of the reserved values.
  for (uint32_t bad : {image.Clusters() + 2, image.Clusters() + 100, 1u, 0u}) {
    FatImage damaged = image;
    damaged.SetFatEntry(second, bad);
    std::unique_ptr<rio_dir> root = damaged.Mount();
    ASSERT_NE(root, nullptr);
    const auto [code, data] = ReadFileOf(*root, u"FILE.BIN");
    EXPECT_EQ(code, Corrupted) << bad;
    EXPECT_TRUE(data == Pattern(6 * ClusterBytes(), 1).substr(0, 2 * ClusterBytes())) << bad;
  }
}

TEST_P(FatChains, EntriesPointingOutsideTheVolumeAreRefused) {
  const FatImage image(GetParam(), Files(ClusterBytes()));
  for (uint32_t bad : {0u, 1u, image.Clusters() + 2, image.fat32 ? 0x0FFFFFF7u : 0xFFF7u}) {
    FatImage damaged = image;
    FatImage::SetFirstCluster(*damaged.Entry("ONE     BIN"), bad);
    FatImage::SetFirstCluster(*damaged.Entry("SUB        "), bad == 0 ? 1 : bad);
    std::unique_ptr<rio_dir> root = damaged.Mount();
    ASSERT_NE(root, nullptr);
    const auto [code, data] = ReadFileOf(*root, u"ONE.BIN");
    EXPECT_EQ(code, Corrupted) << bad;
    EXPECT_TRUE(data.empty());
    // A directory whose cluster is no cluster of the volume cannot be
    // opened.
    std::unique_ptr<rio_dir> sub(root->OpenDir(u"SUB"));
    delete sub->GetIterator();
    EXPECT_EQ(sub->TakeError().Code(), OpenError) << bad;
    // The rest of the volume is unharmed.
    EXPECT_EQ(ReadFileOf(*root, u"FILE.BIN").first, 0u);
  }
}

TEST_P(FatChains, BrokenDirectoriesAreCorrupt) {
  FatImage image(GetParam(), Files(ClusterBytes()));
  const uint32_t sub = FatImage::FirstCluster(*image.Entry("SUB        "));
  struct Row {
    const char* what;
    std::function<void(FatImage&)> damage;
  };
  const Row rows[] = {
      {"no \".\" first", [&](FatImage& i) { i.bytes[i.ClusterOffset(sub)] = 'X'; }},
      {"\".\" names another cluster",
       [&](FatImage& i) { FatImage::SetFirstCluster(*i.Entry(".          ", sub), sub + 1); }},
      {"\"..\" is no directory", [&](FatImage& i) { i.Entry("..         ", sub)->attributes = 0x20; }},
      {"the chain loops", [&](FatImage& i) { i.SetFatEntry(sub, sub); }},
  };
  for (const Row& r : rows) {
    FatImage damaged = image;
    r.damage(damaged);
    std::unique_ptr<rio_dir> root = damaged.Mount();
    ASSERT_NE(root, nullptr);
    std::unique_ptr<rio_dir> dir(root->OpenDir(u"SUB"));
    delete dir->GetIterator();
    EXPECT_EQ(dir->TakeError().Code(), Corrupted) << r.what;
    EXPECT_EQ(ReadFileOf(*root, u"SUB/INNER.TXT").first, Corrupted) << r.what;
  }
}

TEST_P(FatChains, DamagedLongNamesFallBackToTheShortName) {
  FatImage image(GetParam(), Files(ClusterBytes()));
  Fat::DirEntry* alias = image.Entry("WITHAL~1TXT");
  auto* part = reinterpret_cast<Fat::LongNameEntry*>(alias) - 1;
  part->checksum ^= 0xFF;
  std::unique_ptr<rio_dir> root = image.Mount();
  ASSERT_NE(root, nullptr);
  std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"WITHAL~1.TXT"));
  ASSERT_NE(it, nullptr);
  EXPECT_EQ(it->FileName(), u"WITHAL~1.TXT");
  EXPECT_EQ(it->ShortName(), nullptr);
  EXPECT_EQ(root->Open(u"with a long name.txt", true), nullptr);
  EXPECT_EQ(root->TakeError().Code(), FileNotFound);

  // A long name that ends before its first character names nothing.
  FatImage empty(GetParam(), Files(ClusterBytes()));
  Fat::DirEntry* entry = empty.Entry("WITHAL~1TXT");
  for (Fat::DirEntry* e = entry - 1; e->attributes == Fat::kAttrLongName; --e) {
    auto* lfn = reinterpret_cast<Fat::LongNameEntry*>(e);
    if ((lfn->sequence & 0x3F) == 1) lfn->name1[0] = Fat::LongNameEntry{}.name1[0];
  }
  root = empty.Mount();
  std::unique_ptr<i_dir::iterator> shortOnly(root->GetIterator(u"WITHAL~1.TXT"));
  EXPECT_EQ(shortOnly->FileName(), u"WITHAL~1.TXT");
}

TEST_P(FatChains, AnEmptyFileHasNoClusterAndReadsNothing) {
  HostTree t = Files(ClusterBytes());
  t["EMPTY"] = "";
  FatImage image(GetParam(), t);
  Fat::DirEntry* e = image.Entry("EMPTY      ");
  EXPECT_EQ(FatImage::FirstCluster(*e), 0u);
  std::unique_ptr<rio_dir> root = image.Mount();
  const auto [code, data] = ReadFileOf(*root, u"EMPTY");
  EXPECT_EQ(code, 0u);
  EXPECT_TRUE(data.empty());
  // The same entry claiming a size has no chain to read.
  e->size.bytes[0] = 10;
  root = image.Mount();
  EXPECT_EQ(ReadFileOf(*root, u"EMPTY").first, Corrupted);
}

INSTANTIATE_TEST_SUITE_P(Layouts, FatChains, ::testing::Values(kFat12, kFat16, kFat32),
                         [](const ::testing::TestParamInfo<FatLayout>& info) { return Describe(info.param); });

TEST(FatRoot, ALoopingRootOfFat32IsCorruptWhenFirstRead) {
  FatImage image(kFat32, Files(512));
  const uint32_t root = image.b.fat32.rootCluster.get();
  image.SetFatEntry(root, root);
  std::unique_ptr<rio_dir> dir = image.Mount();
  ASSERT_NE(dir, nullptr);
  delete dir->GetIterator();
  EXPECT_EQ(dir->TakeError().Code(), Corrupted);
}
