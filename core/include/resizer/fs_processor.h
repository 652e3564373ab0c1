// File-system processors: workers that a caller creates for one volume by
// type, to run a request on it (the one on the loader's road asks for a
// virtual replay of a journal).  The table of creators has 24 slots; a
// system fills the ones it has processors for.
#pragma once

#include <cstdint>
#include <memory>

#include "fdisk/ver2/simpdisk.h"

namespace resizer {

// A volume on a disk, and the file-system types it may hold (bit n:
// processor slot n).
struct FSSource {
  Fdisk::SimpleDisk* disk = nullptr;
  uint64_t startSector = 0;
  uint64_t sectors = 0;
  uint64_t typeMask = 0;
};

class FSProcessor {
 public:
  virtual ~FSProcessor() = default;
  // Places the processor on its volume.
  virtual void Place(const FSSource& source) { source_ = source; }
  // Reads what the processor needs of the volume; raises on failure.
  virtual void Load() = 0;
  // A disk that shows the volume with the processor's changes applied,
  // for the caller to own; null when it has none.
  virtual Fdisk::SimpleDisk* TakeOverlay() { return nullptr; }

 protected:
  FSSource source_;
};

using FSProcessorCreator = FSProcessor* (*)();
inline constexpr uint32_t kProcessorSlots = 24;

// Fills slot `type`; false for a slot beyond the table.
bool RegisterFSProcessor(uint32_t type, FSProcessorCreator creator);
// A new processor of `type`: an index of 23 or more or an empty slot
// raises InvalidFileSystem ("Invalid format.").
std::unique_ptr<FSProcessor> DoCreateFSProcessor(uint32_t type);
// `mask` narrowed to the filled slots.
uint64_t DetectSourceFSProcessor(uint64_t mask);
// A processor of `type` placed on `source` and loaded.  A source of no
// sectors raises InvalidPartitionSize ("Invalid partition size.").
std::unique_ptr<FSProcessor> InitSourceFSProcessor(const FSSource& source, uint32_t type);

// Request flags.
inline constexpr uint32_t kCreateForSource = 0x4000;
inline constexpr uint32_t kDetectAndOverlay = 0x0004;

struct ProcessorRequest {
  uint32_t flags = 0;
  FSSource source;
  Fdisk::SimpleDisk* overlay = nullptr;  // out: owned by the caller
};

// Runs a request; raises what the processor raised.
void Execute(ProcessorRequest& request);

}  // namespace resizer
