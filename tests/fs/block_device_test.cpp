// The firmware's block devices as sector devices, their enumeration, and
// volumes found by number and by GPT GUID, on simulated firmware.
#include <gtest/gtest.h>

#include <cstring>

#include "efi/host_only/sim_blocks.h"
#include "efi/host_only/sim_firmware.h"
#include "fdisk/ver2/efi_inc.h"
#include "fdisk/volume_efi.h"
#include "file/buf_ifile.h"
#include "fs_test_util.h"
#include "test_util.h"

namespace {

using EfiLoader::BlockMedia;
using EfiLoader::EfiHandle;
using EfiLoader::Sim::SimBlockDevice;
using EfiLoader::Sim::SimBlocks;
namespace Status = EfiLoader::Status;

constexpr uint64_t kError = 0x8000000000000000ull;

const uint8_t kSig[16] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                          0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xF0, 0x01};

class BlockDevices : public ::testing::Test {
 protected:
  BlockDevices() : scoped_(fw_) { fw_.blocks = &blocks_; }

  // A device with Block I/O over `sectors` sectors of memory.
  SimBlockDevice& Device(const std::vector<uint8_t>& path, uint64_t sectors = 16) {
    SimBlockDevice& d = blocks_.Add(path);
    d.media = BlockMedia{7, false, true, false, false, 512, sectors - 1};
    auto data = std::make_shared<std::string>(fs_test::Pattern(sectors * 512, uint32_t(blocks_.devices.size())));
    images_.push_back(data);
    d.image = std::shared_ptr<ri_file>(std::make_shared<buf_ifile<unsigned char>>(data->data(), data->size()));
    return d;
  }
  EfiHandle Handle(const SimBlockDevice& d) { return const_cast<SimBlockDevice*>(&d); }

  static std::vector<uint8_t> Disk(uint16_t port) {
    return SimBlocks::PathOf({SimBlocks::PciNode(0x1F, 2), SimBlocks::SataNode(port)});
  }
  static std::vector<uint8_t> Part(uint16_t port, uint32_t number, const uint8_t* sig = kSig,
                                   uint8_t sigType = 2) {
    return SimBlocks::PathOf({SimBlocks::PciNode(0x1F, 2), SimBlocks::SataNode(port),
                              SimBlocks::HardDriveNode(number, 2048, 4096, sig, sigType)});
  }

  EfiLoader::Sim::SimFirmware fw_;
  EfiLoader::Sim::ScopedFirmware scoped_;
  SimBlocks blocks_;
  std::vector<std::shared_ptr<std::string>> images_;
};

}  // namespace

TEST_F(BlockDevices, EnumerationSortsHandlesIntoDisksAndPartitionsByTheirLastNode) {
  SimBlockDevice& sata = Device(Disk(0));
  SimBlockDevice& hd0 = Device(Part(0, 0));
  SimBlockDevice& hd3 = Device(Part(0, 3));
  SimBlockDevice& noBlockIo = Device(Disk(1));
  noBlockIo.openStatus = Status::Unsupported;
  SimBlockDevice& unknownNode = Device(SimBlocks::PathOf({SimBlocks::PciNode(1, 0), SimBlocks::Node(3, 7, {0, 0})}));
  SimBlockDevice& nullPath = Device({});
  SimBlockDevice& noPath = Device(Disk(2));
  noPath.devicePathStatus = Status::Unsupported;
  SimBlockDevice& endOnly = Device(SimBlocks::PathOf({}));

  const Fdisk::BlockDeviceList disks = Fdisk::EnumerateBlockDevices(Fdisk::kWholeDisks);
  const Fdisk::BlockDeviceList parts = Fdisk::EnumerateBlockDevices(Fdisk::kPartitions);
  EXPECT_EQ(disks.status, 0u);
  EXPECT_EQ(parts.status, 0u);
  // Firmware order, unsorted.
  EXPECT_EQ(disks.handles, (std::vector<EfiHandle>{Handle(sata), Handle(hd0), Handle(endOnly)}));
  EXPECT_EQ(parts.handles, (std::vector<EfiHandle>{Handle(sata), Handle(hd3), Handle(endOnly)}));
  // The probes closed every protocol they opened.
  for (auto& d : blocks_.devices) EXPECT_EQ(d->openNow, 0);
  EXPECT_EQ(unknownNode.opensTotal, 0);  // never probed: the table rules it out
  EXPECT_EQ(nullPath.opensTotal, 0);
  EXPECT_EQ(hd3.opensTotal, 0);  // partitions are taken by their node alone
}

TEST_F(BlockDevices, EnumerationFailuresGiveTheStatusAndNoHandles) {
  Device(Disk(0));
  blocks_.locateStatus = Status::NotFound;
  const Fdisk::BlockDeviceList list = Fdisk::EnumerateBlockDevices(Fdisk::kPartitions);
  EXPECT_EQ(list.status, Status::NotFound);
  EXPECT_TRUE(list.handles.empty());

  uint32_t count = 99;
  Common::Error e = Fdisk::SbGetVolumeCnt(count);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(e.Code(), Fdisk::Codes::CannotEnumerate);
  EXPECT_EQ(test_util::Narrow(e.Message()), "Cannot enumerate block devices.");
  EXPECT_EQ(e.Cause().Code(), 0x10D00Eu);
  EXPECT_STREQ(e.Cause().Function(), "SbGetVolumeCnt");

  std::unique_ptr<Fdisk::SimpleDisk> disk;
  Common::GUID guid{};
  e = Fdisk::OpenVolumeByGuid(guid, disk);
  EXPECT_EQ(e.Code(), Fdisk::Codes::CannotEnumerate);
  EXPECT_STREQ(e.Cause().Function(), "OpenVolumeByGuid");
  EXPECT_EQ(disk, nullptr);
}

TEST(FirmwareStatus, EveryStatusMapsToItsDiskError) {
  struct Row {
    uint64_t status;
    uint32_t code;
    const char* text;
  };
  const Row rows[] = {
      {kError | 1, 0x10D001, "The image has an unknown format or is corrupted."},
      {kError | 2, 0x10D002, "One of the parameters has an invalid value."},
      {kError | 5, 0x10D005, "The allocated buffer size is smaller than necessary."},
      {kError | 7, 0x10D007, "A device error."},
      {kError | 8, 0x10D008, "Write protected."},
      {kError | 12, 0x10D00C, "There is no media."},
      {kError | 14, 0x10D00E, "Failed to find."},
      {kError | 18, 0x10D012, "Timeout."},
      {kError | 24, 0x10D018, "Protocol error."},
      {1, 0x10D019, "Warning: Unknown glyph."},
      {4, 0x10D01C, "Warning: Buffer is too small."},
      {kError | 25, 0x10D01D, "An unknown error."},
      {kError, 0x10D01D, "An unknown error."},
      {5, 0x10D01D, "An unknown error."},
  };
  for (const Row& r : rows) {
    Common::Error e = Fdisk::EfiStatus2FdiskError(r.status);
    EXPECT_EQ(e.Code(), r.code) << std::hex << r.status;
    EXPECT_EQ(test_util::Narrow(e.Message()), r.text) << std::hex << r.status;
    EXPECT_STREQ(e.Function(), "EfiStatus2FdiskError");
  }
  EXPECT_TRUE(Fdisk::EfiStatus2FdiskError(0).IsSuccess());
}

TEST_F(BlockDevices, BlockDeviceReportsTheMediaAndMovesSectors) {
  SimBlockDevice& d = Device(Disk(0), 1000);
  {
    Common::Error e;
    Fdisk::BlockDevice disk(Handle(d), e);
    ASSERT_TRUE(e.IsSuccess());
    EXPECT_EQ(d.openNow, 1);
    EXPECT_EQ(disk.GetLastSector(), 999u);
    EXPECT_EQ(disk.GetSectorSize(), 512u);
    EXPECT_EQ(disk.GetGeometry()->sectorsPerTrack, 63);
    EXPECT_EQ(disk.GetGeometry()->highestHead, 15);
    EXPECT_EQ(disk.GetGeometry()->cylinders, (999u / 16) / 63);

    std::string buffer(1024, '\0');
    ASSERT_TRUE(disk.IoOp(Fdisk::DiskRead, 10, buffer.data(), 2).IsSuccess());
    EXPECT_EQ(buffer, images_.back()->substr(10 * 512, 1024));

    // Operations outside 2..6 never reach the firmware; 5 and 6 do nothing.
    const int readsBefore = d.reads;
    for (uint32_t op : {0u, 1u, 7u, 100u}) {
      Common::Error bad = disk.IoOp(op, 0, buffer.data(), 1);
      EXPECT_EQ(bad.Code(), Fdisk::Codes::InvalidDiskOperation) << op;
      EXPECT_EQ(test_util::Narrow(bad.Message()), "An invalid disk operation.");
      EXPECT_STREQ(bad.Function(), "IoOp");
    }
    EXPECT_TRUE(disk.IoOp(5, 0, nullptr, 1).IsSuccess());
    EXPECT_TRUE(disk.IoOp(6, 0, nullptr, 1).IsSuccess());
    EXPECT_EQ(d.reads, readsBefore);

    // The firmware's failures come back as disk errors, not thrown.
    d.readStatus = Status::DeviceError;
    Common::Error failed = disk.IoOp(Fdisk::DiskRead, 0, buffer.data(), 1);
    EXPECT_EQ(failed.Code(), 0x10D007u);
    EXPECT_STREQ(failed.Function(), "IoOp");
    // A read-only medium refuses writes with the firmware's own status.
    d.media.ReadOnly = true;
    EXPECT_EQ(disk.IoOp(Fdisk::DiskWrite, 0, buffer.data(), 1).Code(), 0x10D008u);
    void* platform = &disk;
    EXPECT_EQ(disk.GetPlatformHandle(platform).Code(), Fdisk::Codes::NotImplemented);
  }
  EXPECT_EQ(d.openNow, 0);  // the destructor closed the protocol
}

TEST_F(BlockDevices, AFailedOpenLeavesTheErrorAndNoInterface) {
  SimBlockDevice& d = Device(Disk(0));
  d.openStatus = Status::AccessDenied;
  Common::Error e;
  Fdisk::BlockDevice disk(Handle(d), e);
  EXPECT_EQ(e.Code(), 0x10D00Fu);
  EXPECT_EQ(test_util::Narrow(e.Message()), "Access is denied.");
  EXPECT_STREQ(e.Function(), "BlockDevice");
  char sector[512];
  EXPECT_TRUE(disk.IoOp(Fdisk::DiskRead, 0, sector, 1).IsError());
  EXPECT_EQ(d.reads, 0);
}

TEST_F(BlockDevices, VolumesAreOpenedByTheirOneBasedPosition) {
  Device(Disk(0));
  SimBlockDevice& p1 = Device(Part(0, 1));
  SimBlockDevice& p2 = Device(Part(0, 2));
  uint32_t count = 0;
  ASSERT_TRUE(Fdisk::SbGetVolumeCnt(count).IsSuccess());
  EXPECT_EQ(count, 3u);  // the disk with Block I/O counts as well

  std::unique_ptr<Fdisk::SimpleDisk> disk;
  ASSERT_TRUE(Fdisk::SbOpenVolume(3, disk).IsSuccess());
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(p2.openNow, 1);
  EXPECT_EQ(p1.openNow, 0);

  for (uint32_t index : {0u, 4u}) {
    Common::Error e = Fdisk::SbOpenVolume(index, disk);
    EXPECT_EQ(e.Code(), Fdisk::Codes::IndexOutOfRange) << index;
    EXPECT_EQ(test_util::Narrow(e.Message()), "Index is out of range.");
    EXPECT_EQ(disk, nullptr);
  }
  EXPECT_EQ(p2.openNow, 0);
}

TEST_F(BlockDevices, ADeviceThatFailsAfterTheEnumerationIsNoVolume) {
  SimBlockDevice& d = Device(Disk(0));
  d.openStatus = Status::DeviceError;
  d.opensBeforeFailure = 1;  // the enumeration's probe succeeds
  std::unique_ptr<Fdisk::SimpleDisk> disk;
  Common::Error e = Fdisk::SbOpenVolume(1, disk);
  EXPECT_EQ(e.Code(), Fdisk::Codes::DeviceObjectFailed);
  EXPECT_EQ(test_util::Narrow(e.Message()), "Failed to create the device object.");
  EXPECT_EQ(e.Cause().Code(), 0x10D007u);
  EXPECT_EQ(disk, nullptr);
  EXPECT_EQ(d.openNow, 0);
}

TEST_F(BlockDevices, AGuidMatchesAnyHardDriveNodeOfAPartitionHandle) {
  uint8_t other[16];
  std::memcpy(other, kSig, 16);
  other[15] ^= 0xFF;
  Common::GUID guid;
  std::memcpy(&guid, kSig, 16);

  // The GUID on a whole-disk node (partition number 0) is not enumerated in
  // partition mode and never matches.
  SimBlockDevice& whole = Device(Part(0, 0));
  // An MBR signature never matches, even with equal bytes.
  SimBlockDevice& mbr = Device(Part(1, 1, kSig, 1));
  Device(Part(2, 1, other));
  // A handle below the partition in the device-path tree: its last node is
  // a file path, the hard-drive node is an inner one.
  std::vector<uint8_t> below = SimBlocks::PathOf(
      {SimBlocks::PciNode(0x1F, 2), SimBlocks::SataNode(3),
       SimBlocks::HardDriveNode(2, 2048, 4096, kSig, 2), SimBlocks::Node(4, 4, {'a', 0, 0, 0})});
  SimBlockDevice& child = Device(below);
  // Two clones with the same signature: the first listed wins.
  SimBlockDevice& clone = Device(Part(4, 1));

  std::unique_ptr<Fdisk::SimpleDisk> disk;
  ASSERT_TRUE(Fdisk::OpenVolumeByGuid(guid, disk).IsSuccess());
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(child.openNow, 1);
  EXPECT_EQ(clone.openNow, 0);
  EXPECT_EQ(whole.openNow, 0);
  EXPECT_EQ(mbr.openNow, 0);
  disk.reset();

  Common::GUID missing;
  std::memcpy(&missing, other, 16);
  missing.Data1 ^= 1;
  Common::Error e = Fdisk::OpenVolumeByGuid(missing, disk);
  EXPECT_EQ(e.Code(), 0x10D00Eu);
  EXPECT_EQ(test_util::Narrow(e.Message()), "Failed to find.");
  EXPECT_STREQ(e.Function(), "OpenVolumeByGuid");
  EXPECT_EQ(disk, nullptr);
}

TEST_F(BlockDevices, BrokenDevicePathsEndTheWalkWithoutReadingPastThem) {
  // A node that claims more bytes than the path has, and one shorter than
  // a node header: both end the path where they stand.
  std::vector<uint8_t> overlong = SimBlocks::PathOf({SimBlocks::PciNode(0x1F, 2)});
  overlong[2] = 0xFF;
  std::vector<uint8_t> tiny = {4, 1, 2, 0};
  Device(overlong);
  Device(tiny);
  const Fdisk::BlockDeviceList list = Fdisk::EnumerateBlockDevices(Fdisk::kPartitions);
  EXPECT_EQ(list.status, 0u);
  EXPECT_TRUE(list.handles.empty());

  // A hard-drive node too short for its fields is no match.
  std::vector<uint8_t> cut = SimBlocks::HardDriveNode(1, 0, 1, kSig, 2);
  cut.resize(30);
  cut[2] = 30;
  Device(SimBlocks::PathOf({SimBlocks::SataNode(0), cut}));
  Common::GUID guid;
  std::memcpy(&guid, kSig, 16);
  std::unique_ptr<Fdisk::SimpleDisk> disk;
  EXPECT_EQ(Fdisk::OpenVolumeByGuid(guid, disk).Code(), 0x10D00Eu);
}

TEST_F(BlockDevices, APartitionOfARealGptDiskIsFoundByItsUniqueGuid) {
  fs_test::TempDir dir;
  const std::string image = dir / "disk.img";
  const std::string guidText = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";
  ASSERT_TRUE(fs_test::Run("truncate -s 8M '" + image + "' && sgdisk -n 1:2048:+2M -u 1:" + guidText +
                           " -n 2:0:0 '" + image + "'"));
  const std::string marker = fs_test::Pattern(512, 99);
  {
    std::fstream f(image, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(2048 * 512);
    f.write(marker.data(), 512);
  }
  ASSERT_TRUE(blocks_.AddDiskImage(image).IsSuccess());
  ASSERT_EQ(blocks_.devices.size(), 3u);  // the disk and its two partitions

  Common::GUID guid;
  ASSERT_TRUE(Common::TextToGuid(guidText.c_str(), guid));
  std::unique_ptr<Fdisk::SimpleDisk> disk;
  ASSERT_TRUE(Fdisk::OpenVolumeByGuid(guid, disk).IsSuccess());
  EXPECT_EQ(disk->GetLastSector(), 4096u - 1);
  std::string sector(512, '\0');
  ASSERT_TRUE(disk->IoOp(Fdisk::DiskRead, 0, sector.data(), 1).IsSuccess());
  EXPECT_EQ(sector, marker);
  // The firmware refuses to read past the partition.
  EXPECT_EQ(disk->IoOp(Fdisk::DiskRead, 4096, sector.data(), 1).Code(), 0x10D002u);
}
