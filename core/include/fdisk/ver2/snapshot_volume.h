// A disk that stands for a frozen picture of a volume.  A file-system
// driver can use one as its disk in use; this system has no real snapshot
// behind it, and every snapshot-specific operation answers "not supported"
// with its own code (returned, never thrown).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/error.h"
#include "fdisk/ver2/simpdisk.h"

namespace Fdisk {

// Runs of sectors as (first sector, count).
using SectorRuns = std::vector<std::pair<uint64_t, uint64_t>>;

// What changed on a volume since a point in time.
class ChangeBlockTracker {
 public:
  virtual ~ChangeBlockTracker() = default;
  virtual Common::Error GetChangedSectors(SectorRuns& runs) = 0;
  // Sectors known to have changed.
  virtual uint64_t ChangedSectorCount() = 0;
};

namespace Codes {
inline constexpr uint32_t SnapshotHandleNotSupported = 0x102002;
inline constexpr uint32_t Ext2BitmapNotSupported = 0x10200A;
inline constexpr uint32_t VssParamsNotSupported = 0x10200B;
inline constexpr uint32_t ChangeTrackingNotSupported = 0x10200C;
inline constexpr uint32_t InternalPathNotSupported = 0x10200E;
inline constexpr uint32_t VolumeListNotSupported = 0x102010;
}  // namespace Codes

class SnapshotVolume : public SimpleDisk, public ChangeBlockTracker {
 public:
  // Commits an overlay onto its volume; the framework calls it before the
  // first write to a volume that has one.
  virtual Common::Error SetSnapshotHandle(void* handle);
  virtual Common::Error SetVssParams(const void* params, uint32_t size);
  virtual Common::Error GetInternalPath(std::u16string& path);
  virtual Common::Error CollectExt2Bitmap(std::vector<uint8_t>& bitmap);
  Common::Error GetChangedSectors(SectorRuns& runs) override;
  uint64_t ChangedSectorCount() override { return 0; }
  virtual Common::Error GetVolumeList(std::vector<std::u16string>& volumes);
};

}  // namespace Fdisk
