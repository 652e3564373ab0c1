#include "resizer/snapshot_emulation.h"

#include "common/error_codes.h"

namespace resizer {

SnapshotEmulation::SnapshotEmulation(const SourceVolume& source)
    : base_(source.disk), start_(source.startSector), sectors_(source.sectorCount) {
  sectorSize_ = base_->GetSectorSize();
  lastSector_ = source.sectorCount - 1;  // an empty window counts 0 sectors
  geometry_ = *base_->GetGeometry();
}

Common::Error SnapshotEmulation::IoOp(uint32_t op, uint64_t sector, void* buffer,
                                      uint64_t sectorCount) {
  if (op != Fdisk::DiskRead)
    throw Common::Error(ERROR_HERE, Common::Codes::ResizerInternal,
                        "Internal error: only read is supported");
  if (buffer == nullptr) return Common::Error();
  if (sector >= sectors_ || sectorCount > sectors_ - sector)
    return Common::Error(ERROR_HERE, Fdisk::Codes::InvalidParameter,
                         u"One of the parameters has an invalid value.");
  return base_->IoOp(Fdisk::DiskRead, sector + start_, buffer, sectorCount);
}

Common::Error SnapshotEmulation::GetChangedSectors(Fdisk::SectorRuns& runs) {
  if (tracker_) return tracker_->GetChangedSectors(runs);
  return SnapshotVolume::GetChangedSectors(runs);
}

uint64_t SnapshotEmulation::ChangedSectorCount() {
  return tracker_ ? tracker_->ChangedSectorCount() : 0;
}

Common::Error SnapshotEmulation::GetCreationInfo(uint64_t& first, uint64_t& second) {
  first = second = 0;
  return Common::Error();
}

Common::Error SnapshotEmulation::GetDifferenceArea(uint64_t& start, int64_t& end) {
  start = 0;
  end = -1;
  return Common::Error();
}

}  // namespace resizer
