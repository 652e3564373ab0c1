// Volumes by number and by GPT unique partition GUID.  The firmware has
// already published one Block I/O handle per partition, with a hard-drive
// node in its device path that carries the partition's signature; nothing
// here reads a partition table.
//
// A volume number is a 1-based position in EnumerateBlockDevices(1) at the
// moment of the call; nothing is kept between calls.
#pragma once

#include <cstdint>
#include <memory>

#include "common/error.h"
#include "common/text.h"
#include "fdisk/ver2/simpdisk.h"

namespace Fdisk {

Common::Error SbGetVolumeCnt(uint32_t& count);
// `disk` is emptied first and receives the opened volume on success.
Common::Error SbOpenVolume(uint32_t index, std::unique_ptr<SimpleDisk>& disk);
// `guid` in the byte order of the signature field (the firmware's GUID
// layout).  The first partition in firmware order whose device path holds
// a hard-drive node with that GUID signature wins.
Common::Error OpenVolumeByGuid(const Common::GUID& guid, std::unique_ptr<SimpleDisk>& disk);

}  // namespace Fdisk
