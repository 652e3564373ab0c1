// Partition tables of whole-disk images, read on the host.  The loader
// itself never reads one (the firmware publishes partitions); loader-tool
// and the simulated firmware do, to present an image the way the firmware
// would.
#pragma once

#include <cstdint>
#include <vector>

#include "common/error.h"
#include "common/text.h"
#include "fdisk/ver2/simpdisk.h"

namespace Fdisk {

struct PartitionEntry {
  // 1-based: the GPT entry's index + 1; MBR primaries 1 to 4, logical
  // partitions from 5 in chain order.
  uint32_t number = 0;
  uint64_t firstSector = 0;
  uint64_t sectorCount = 0;
  Common::GUID typeGuid{};    // GPT only
  Common::GUID uniqueGuid{};  // GPT only
  uint8_t mbrType = 0;        // MBR only
};

struct PartitionTable {
  enum class Kind { None, Mbr, Gpt } kind = Kind::None;
  Common::GUID diskGuid{};    // GPT
  uint32_t mbrSignature = 0;  // MBR: the disk signature at byte 440
  std::vector<PartitionEntry> entries;
};

// Reads the GPT (the primary header, else the backup at the last sector)
// or the MBR with its logical partitions.  A disk without either gives kind
// None and success.  Entries that lie outside the disk, overlap the table
// or are empty are left out, as the firmware leaves them out; a broken
// extended chain ends where it breaks.
Common::Error ReadPartitionTable(SimpleDisk& disk, PartitionTable& table);

}  // namespace Fdisk
