// Disks over other things: a read-only window on a disk, a disk over a
// stream, and the partition tables that loader-tool reads on the host.
#include <gtest/gtest.h>
#include <zlib.h>

#include "fdisk/partition_table.h"
#include "fdisk/ver2/stream_disk.h"
#include "file/buf_ifile.h"
#include "file/memfile.h"
#include "fs_test_util.h"
#include "resizer/snapshot_emulation.h"
#include "test_util.h"

using fs_test::MemoryDisk;
using fs_test::Pattern;

TEST(SnapshotEmulation, AWindowReadsItsStretchOfTheBaseDiskOnly) {
  MemoryDisk base(Pattern(4096 * 512, 1), 512);
  resizer::SnapshotEmulation window(resizer::SourceVolume{&base, 2048, 100});
  EXPECT_EQ(window.GetSectorSize(), 512u);
  EXPECT_EQ(window.GetLastSector(), 99u);
  EXPECT_EQ(window.GetGeometry()->cylinders, base.GetGeometry()->cylinders);

  std::string sector(512, '\0');
  ASSERT_TRUE(window.IoOp(Fdisk::DiskRead, 0, sector.data(), 1).IsSuccess());
  EXPECT_EQ(sector, base.Bytes().substr(2048 * 512, 512));
  std::string last(2 * 512, '\0');
  ASSERT_TRUE(window.IoOp(Fdisk::DiskRead, 98, last.data(), 2).IsSuccess());
  EXPECT_EQ(last, base.Bytes().substr((2048 + 98) * 512, 1024));
  // Leaving the window never reaches the base disk.
  const int reads = base.reads;
  EXPECT_EQ(window.IoOp(Fdisk::DiskRead, 99, last.data(), 2).Code(), Fdisk::Codes::InvalidParameter);
  EXPECT_EQ(window.IoOp(Fdisk::DiskRead, UINT64_MAX, sector.data(), 2).Code(), Fdisk::Codes::InvalidParameter);
  EXPECT_EQ(base.reads, reads);
  // A null buffer asks nothing of the base disk.
  EXPECT_TRUE(window.IoOp(Fdisk::DiskRead, 0, nullptr, 1).IsSuccess());
  EXPECT_EQ(base.reads, reads);
}

TEST(SnapshotEmulation, OnlyReadingIsAllowedAndSnapshotServicesAnswerNotSupported) {
  MemoryDisk base(Pattern(64 * 512, 2), 512);
  resizer::SnapshotEmulation window(resizer::SourceVolume{&base, 0, 64});
  char sector[512] = {};
  for (uint32_t op : {uint32_t(Fdisk::DiskWrite), uint32_t(Fdisk::DiskFlush), 5u}) {
    try {
      window.IoOp(op, 0, sector, 1);
      ADD_FAILURE() << "op " << op << " did not raise";
    } catch (const Common::Error& e) {
      EXPECT_EQ(e.Code(), 0x70001u);
      EXPECT_EQ(test_util::Narrow(e.Message()), "Internal error: only read is supported");
      EXPECT_STREQ(e.Function(), "IoOp");
    }
  }
  EXPECT_EQ(base.writes, 0);

  struct Row {
    Common::Error error;
    uint32_t code;
    const char* text;
  };
  std::u16string path;
  std::vector<uint8_t> bitmap;
  std::vector<std::u16string> volumes;
  Fdisk::SectorRuns runs;
  const Row rows[] = {
      {window.SetSnapshotHandle(nullptr), 0x102002, "Snapshot handle setting is not supported."},
      {window.SetVssParams(nullptr, 0), 0x10200B, "Setting VSS snapshot parameters is not supported."},
      {window.GetInternalPath(path), 0x10200E, "Getting a snapshot internal path is not supported."},
      {window.CollectExt2Bitmap(bitmap), 0x10200A, "Snapshot optimization for Ext2/Ext3 is not supported."},
      {window.GetChangedSectors(runs), 0x10200C, "Changed Block Tracking (CBT) is not supported."},
      {window.GetVolumeList(volumes), 0x102010, "Getting the list of volumes is not supported."},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(r.error.Code(), r.code);
    EXPECT_EQ(test_util::Narrow(r.error.Message()), r.text);
  }
  uint64_t a = 9, b = 9, start = 9;
  int64_t end = 9;
  EXPECT_TRUE(window.GetCreationInfo(a, b).IsSuccess());
  EXPECT_EQ(a, 0u);
  EXPECT_EQ(b, 0u);
  EXPECT_TRUE(window.GetDifferenceArea(start, end).IsSuccess());
  EXPECT_EQ(start, 0u);
  EXPECT_EQ(end, -1);
  EXPECT_EQ(window.ChangedSectorCount(), 0u);
}

TEST(SnapshotEmulation, AnAttachedTrackerAnswersForTheWindow) {
  struct Tracker : Fdisk::ChangeBlockTracker {
    Common::Error GetChangedSectors(Fdisk::SectorRuns& runs) override {
      runs = {{5, 2}};
      return Common::Error();
    }
    uint64_t ChangedSectorCount() override { return 2; }
  } tracker;
  MemoryDisk base(Pattern(8 * 512, 3), 512);
  resizer::SnapshotEmulation window(resizer::SourceVolume{&base, 0, 8});
  window.SetTracker(&tracker);
  Fdisk::SectorRuns runs;
  EXPECT_TRUE(window.GetChangedSectors(runs).IsSuccess());
  EXPECT_EQ(runs, (Fdisk::SectorRuns{{5, 2}}));
  EXPECT_EQ(window.ChangedSectorCount(), 2u);
}

TEST(StreamDisk, SectorsOfAStreamUpToItsLastWholeSector) {
  const std::string bytes = Pattern(10 * 512 + 100, 4);
  Common::Error e;
  Fdisk::StreamDisk disk(std::make_shared<buf_ifile<unsigned char>>(bytes.data(), bytes.size()), 512, e);
  ASSERT_TRUE(e.IsSuccess());
  EXPECT_EQ(disk.GetLastSector(), 9u);
  std::string out(3 * 512, '\0');
  ASSERT_TRUE(disk.IoOp(Fdisk::DiskRead, 7, out.data(), 3).IsSuccess());
  EXPECT_EQ(out, bytes.substr(7 * 512, 3 * 512));
  EXPECT_EQ(disk.IoOp(Fdisk::DiskRead, 8, out.data(), 3).Code(), Fdisk::Codes::InvalidParameter);
  EXPECT_EQ(disk.IoOp(Fdisk::DiskRead, 1ull << 60, out.data(), 1).Code(), Fdisk::Codes::InvalidParameter);
  EXPECT_EQ(disk.IoOp(Fdisk::DiskWrite, 0, out.data(), 1).Code(), Fdisk::Codes::WriteProtected);
  EXPECT_EQ(disk.IoOp(9, 0, out.data(), 1).Code(), Fdisk::Codes::InvalidDiskOperation);
}

TEST(StreamDisk, RefusesSectorSizesAndStreamsThatMakeNoDisk) {
  const std::string bytes(4096, 'x');
  for (uint32_t size : {0u, 256u, 513u, 3000u, 131072u}) {
    Common::Error e;
    Fdisk::StreamDisk disk(std::make_shared<buf_ifile<unsigned char>>(bytes.data(), bytes.size()), size, e);
    EXPECT_EQ(e.Code(), Fdisk::Codes::InvalidParameter) << size;
  }
  Common::Error e;
  Fdisk::StreamDisk tooShort(std::make_shared<buf_ifile<unsigned char>>(bytes.data(), 511), 512, e);
  EXPECT_EQ(e.Code(), 0x10D00Cu);
}

TEST(StreamDisk, AWritableStreamTakesWritesWhenAsked) {
  auto file = std::make_shared<Common::MemoryFileImpl>();
  const std::string bytes = Pattern(4 * 512, 5);
  file->Write(bytes.data(), bytes.size());
  Common::Error e;
  Fdisk::StreamDisk disk(file, 512, e, true);
  ASSERT_TRUE(e.IsSuccess());
  const std::string sector(512, 'w');
  ASSERT_TRUE(disk.IoOp(Fdisk::DiskWrite, 2, const_cast<char*>(sector.data()), 1).IsSuccess());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(file->GetData()) + 1024, 512), sector);
}

namespace {

std::unique_ptr<Fdisk::StreamDisk> ImageDisk(const std::string& path) {
  Common::Error e;
  auto disk = Fdisk::OpenImageDisk(path, false, 512, e);
  EXPECT_TRUE(e.IsSuccess()) << test_util::Narrow(Common::ErrorText(e));
  return disk;
}

}  // namespace

TEST(PartitionTable, GptEntriesComeWithTheirNumbersAndGuids) {
  fs_test::TempDir dir;
  const std::string image = dir / "gpt.img";
  ASSERT_TRUE(fs_test::Run("truncate -s 16M '" + image + "' && sgdisk -n 1:2048:+4M -n 3:0:+2M -u 3:"
                           "11111111-2222-3333-4444-555555555555 '" + image + "'"));
  auto disk = ImageDisk(image);
  Fdisk::PartitionTable table;
  ASSERT_TRUE(Fdisk::ReadPartitionTable(*disk, table).IsSuccess());
  EXPECT_EQ(table.kind, Fdisk::PartitionTable::Kind::Gpt);
  ASSERT_EQ(table.entries.size(), 2u);
  EXPECT_EQ(table.entries[0].number, 1u);
  EXPECT_EQ(table.entries[0].firstSector, 2048u);
  EXPECT_EQ(table.entries[0].sectorCount, 8192u);
  EXPECT_EQ(table.entries[1].number, 3u);
  EXPECT_EQ(table.entries[1].sectorCount, 4096u);
  EXPECT_EQ(test_util::Narrow(Common::GuidToText(table.entries[1].uniqueGuid)),
            "11111111-2222-3333-4444-555555555555");

  // A broken primary header: the backup at the end of the disk stands in.
  {
    std::fstream f(image, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(512 + 8);
    f.put('\x7F');
  }
  disk = ImageDisk(image);
  ASSERT_TRUE(Fdisk::ReadPartitionTable(*disk, table).IsSuccess());
  EXPECT_EQ(table.kind, Fdisk::PartitionTable::Kind::Gpt);
  EXPECT_EQ(table.entries.size(), 2u);
}

TEST(PartitionTable, AGptEntryOverItsOwnTableIsNoPartition) {
  // sgdisk's table, then a header that calls every sector usable and an
  // entry that starts at sector 0: the entry would cover the MBR, the
  // header and the entries themselves.  Both checksums are made right, so
  // only the overlap can keep it out.
  fs_test::TempDir dir;
  const std::string image = dir / "gpt.img";
  ASSERT_TRUE(fs_test::Run("truncate -s 4M '" + image + "' && sgdisk -n 1:2048:+1M -n 2:0:+1M '" + image + "'"));
  std::string bytes = test_util::ReadFile(image);
  auto put32 = [&](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = char(v >> (8 * i));
  };
  auto crc = [&](size_t at, size_t size) {
    return uint32_t(crc32(0, reinterpret_cast<const Bytef*>(bytes.data() + at), uInt(size)));
  };
  const size_t header = 512, entries = 2 * 512;
  put32(header + 40, 0);  // first usable LBA
  put32(header + 44, 0);
  put32(entries + 32, 0);  // entry 1's first LBA
  put32(header + 88, crc(entries, 128 * 128));
  put32(header + 16, 0);
  put32(header + 16, crc(header, 92));
  MemoryDisk disk(bytes, 512);
  Fdisk::PartitionTable table;
  ASSERT_TRUE(Fdisk::ReadPartitionTable(disk, table).IsSuccess());
  EXPECT_EQ(table.kind, Fdisk::PartitionTable::Kind::Gpt);
  ASSERT_EQ(table.entries.size(), 1u);
  EXPECT_EQ(table.entries[0].number, 2u);
}

TEST(PartitionTable, MbrPrimaryAndLogicalPartitionsAreNumberedAsLinuxDoes) {
  fs_test::TempDir dir;
  const std::string image = dir / "mbr.img";
  ASSERT_TRUE(fs_test::Run("truncate -s 32M '" + image + "' && printf 'label: dos\\n2048,4096,c\\n,16384,5\\n,2048,83\\n,2048,83\\n,4096,83\\n,4096,83\\n' | sfdisk '" +
                           image + "'"));
  auto disk = ImageDisk(image);
  Fdisk::PartitionTable table;
  ASSERT_TRUE(Fdisk::ReadPartitionTable(*disk, table).IsSuccess());
  EXPECT_EQ(table.kind, Fdisk::PartitionTable::Kind::Mbr);
  // The extended partition itself is no volume.
  std::vector<uint32_t> numbers;
  for (const auto& p : table.entries) numbers.push_back(p.number);
  EXPECT_EQ(numbers, (std::vector<uint32_t>{1, 3, 4, 5, 6}));
  EXPECT_EQ(table.entries[0].mbrType, 0x0C);
  EXPECT_EQ(table.entries[0].firstSector, 2048u);
  EXPECT_EQ(table.entries[3].firstSector, 8192u);
  EXPECT_EQ(table.entries[3].sectorCount, 4096u);
  EXPECT_EQ(table.entries[4].firstSector, 14336u);
}

TEST(PartitionTable, HostileTablesAreReadOnlyAsFarAsTheyHoldTogether) {
  // An extended chain that points back at itself, and a primary entry past
  // the end of the disk.
  std::string bytes(64 * 512, '\0');
  auto put32 = [&](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = char(v >> (8 * i));
  };
  auto entry = [&](size_t sector, int index, uint8_t type, uint32_t first, uint32_t count) {
    const size_t at = sector * 512 + 446 + 16 * index;
    bytes[at + 4] = char(type);
    put32(at + 8, first);
    put32(at + 12, count);
    bytes[sector * 512 + 510] = char(0x55);
    bytes[sector * 512 + 511] = char(0xAA);
  };
  entry(0, 0, 0x05, 8, 40);            // extended at 8
  entry(0, 1, 0x83, 60, 100);          // past the end
  entry(8, 0, 0x83, 2, 4);             // logical at 10
  entry(8, 1, 0x05, 10, 8);            // next EBR at 18
  entry(18, 0, 0x83, 2, 4);            // logical at 20
  entry(18, 1, 0x05, 10, 8);           // points at itself again
  MemoryDisk disk(bytes, 512);
  Fdisk::PartitionTable table;
  ASSERT_TRUE(Fdisk::ReadPartitionTable(disk, table).IsSuccess());
  ASSERT_EQ(table.entries.size(), 2u);
  EXPECT_EQ(table.entries[0].number, 5u);
  EXPECT_EQ(table.entries[0].firstSector, 10u);
  EXPECT_EQ(table.entries[1].firstSector, 20u);

  // A second extended partition: its logical partitions number on from
  // the first chain's, so that a partition number names one volume.
  entry(0, 2, 0x0F, 40, 20);           // extended at 40
  entry(40, 0, 0x07, 2, 6);            // logical at 42
  MemoryDisk twoChains(bytes, 512);
  ASSERT_TRUE(Fdisk::ReadPartitionTable(twoChains, table).IsSuccess());
  std::vector<uint32_t> numbers;
  for (const auto& p : table.entries) numbers.push_back(p.number);
  EXPECT_EQ(numbers, (std::vector<uint32_t>{5, 6, 7}));
  EXPECT_EQ(table.entries[2].firstSector, 42u);

  // No signature at all: a bare volume, and no error.
  MemoryDisk blank(std::string(16 * 512, '\0'), 512);
  ASSERT_TRUE(Fdisk::ReadPartitionTable(blank, table).IsSuccess());
  EXPECT_EQ(table.kind, Fdisk::PartitionTable::Kind::None);
}
