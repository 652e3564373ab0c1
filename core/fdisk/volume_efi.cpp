// Finding a partition by its GUID among the firmware's block devices.
#include "fdisk/volume_efi.h"

#include <cstring>

#include "fdisk/ver2/efi_inc.h"

namespace Fdisk {

namespace {

// The enumeration's status as a disk error under the caller's name, inside
// "Cannot enumerate block devices.".
Common::Error EnumerationFailure(const Common::ErrorLocation& where, uint64_t status) {
  return Common::Error(where, Codes::CannotEnumerate, u"Cannot enumerate block devices.")
      .WithCause(EfiStatusError(where, status));
}

}  // namespace

Common::Error SbGetVolumeCnt(uint32_t& count) {
  count = 0;
  const BlockDeviceList list = EnumerateBlockDevices(kPartitions);
  if (list.status != 0) return EnumerationFailure(ERROR_HERE, list.status);
  count = uint32_t(list.handles.size());
  return Common::Error();
}

Common::Error SbOpenVolume(uint32_t index, std::unique_ptr<SimpleDisk>& disk) {
  disk.reset();
  const BlockDeviceList list = EnumerateBlockDevices(kPartitions);
  if (list.status != 0) return EnumerationFailure(ERROR_HERE, list.status);
  // Numbers start at 1; 0 names nothing and is refused as out of range.
  if (index == 0 || index > list.handles.size())
    return Common::Error(ERROR_HERE, Codes::IndexOutOfRange, u"Index is out of range.");
  Common::Error error;
  auto device = std::make_unique<BlockDevice>(list.handles[index - 1], error);
  if (error.IsError())
    return Common::Error(ERROR_HERE, Codes::DeviceObjectFailed, u"Failed to create the device object.")
        .WithCause(error);
  disk = std::move(device);
  return Common::Error();
}

Common::Error OpenVolumeByGuid(const Common::GUID& guid, std::unique_ptr<SimpleDisk>& disk) {
  disk.reset();
  const BlockDeviceList list = EnumerateBlockDevices(kPartitions);
  if (list.status != 0) return EnumerationFailure(ERROR_HERE, list.status);
  EfiLoader::FirmwareBlocks* blocks = EfiLoader::Fw().Blocks();
  for (size_t i = 0; blocks != nullptr && i < list.handles.size(); ++i) {
    std::vector<uint8_t> path;
    if (blocks->DevicePath(list.handles[i], path) != 0 || path.empty()) continue;
    // Every node counts, not only the last: a handle below a partition in
    // the device-path tree matches too, and the first in firmware order wins.
    DevicePathWalker walk(path);
    DevicePathNode node;
    while (walk.Next(node)) {
      HardDriveNode hd;
      if (!ReadHardDriveNode(node, hd) || hd.signatureType != kGuidSignature) continue;
      if (std::memcmp(hd.signature, &guid, sizeof guid) == 0)
        return SbOpenVolume(uint32_t(i + 1), disk);
    }
  }
  return Common::Error(ERROR_HERE, Codes::NotFound, u"Failed to find.");
}

}  // namespace Fdisk
