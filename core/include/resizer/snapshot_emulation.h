// A read-only window on another disk, presented as a snapshot volume.
// The loader-side tools use it to give a driver exactly one partition of a
// whole-disk image.
#pragma once

#include <cstdint>

#include "fdisk/ver2/snapshot_volume.h"

namespace resizer {

// A stretch of sectors of a disk.
struct SourceVolume {
  Fdisk::SimpleDisk* disk;  // not owned
  uint64_t startSector;
  uint64_t sectorCount;
};

class SnapshotEmulation final : public Fdisk::SnapshotVolume {
 public:
  // The sector size and geometry are the base disk's.
  explicit SnapshotEmulation(const SourceVolume& source);

  // Reads only: any other operation raises "Internal error: only read is
  // supported".  A read that leaves the window is refused with "One of the
  // parameters has an invalid value." and never reaches the base disk.
  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t sectorCount) override;

  void SetTracker(Fdisk::ChangeBlockTracker* tracker) { tracker_ = tracker; }
  Common::Error GetChangedSectors(Fdisk::SectorRuns& runs) override;
  uint64_t ChangedSectorCount() override;

  // Fixed answers: nothing of a real snapshot stands behind this window.
  Common::Error GetCreationInfo(uint64_t& first, uint64_t& second);  // 0 and 0
  Common::Error GetDifferenceArea(uint64_t& start, int64_t& end);    // 0 and -1
  Common::Error Freeze() { return Common::Error(); }
  Common::Error Thaw() { return Common::Error(); }

 private:
  Fdisk::SimpleDisk* base_;
  Fdisk::ChangeBlockTracker* tracker_ = nullptr;
  uint64_t start_;
  uint64_t sectors_;
};

}  // namespace resizer
