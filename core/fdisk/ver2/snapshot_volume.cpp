#include "fdisk/ver2/snapshot_volume.h"

namespace Fdisk {

Common::Error SnapshotVolume::SetSnapshotHandle(void*) {
  return Common::Error(ERROR_HERE, Codes::SnapshotHandleNotSupported,
                       u"Snapshot handle setting is not supported.");
}

Common::Error SnapshotVolume::SetVssParams(const void*, uint32_t) {
  return Common::Error(ERROR_HERE, Codes::VssParamsNotSupported,
                       u"Setting VSS snapshot parameters is not supported.");
}

Common::Error SnapshotVolume::GetInternalPath(std::u16string& path) {
  path.clear();
  return Common::Error(ERROR_HERE, Codes::InternalPathNotSupported,
                       u"Getting a snapshot internal path is not supported.");
}

Common::Error SnapshotVolume::CollectExt2Bitmap(std::vector<uint8_t>& bitmap) {
  bitmap.clear();
  return Common::Error(ERROR_HERE, Codes::Ext2BitmapNotSupported,
                       u"Snapshot optimization for Ext2/Ext3 is not supported.");
}

Common::Error SnapshotVolume::GetChangedSectors(SectorRuns& runs) {
  runs.clear();
  return Common::Error(ERROR_HERE, Codes::ChangeTrackingNotSupported,
                       u"Changed Block Tracking (CBT) is not supported.");
}

Common::Error SnapshotVolume::GetVolumeList(std::vector<std::u16string>& volumes) {
  volumes.clear();
  return Common::Error(ERROR_HERE, Codes::VolumeListNotSupported,
                       u"Getting the list of volumes is not supported.");
}

}  // namespace Fdisk
