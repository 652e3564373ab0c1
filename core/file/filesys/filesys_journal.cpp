#include "filesys/filesys_posix.h"
#include "resizer/fs_processor.h"

void VirtualJournalReplay(FileSystemDriver& driver, uint64_t mask) {
  resizer::ProcessorRequest request;
  request.flags = resizer::kCreateForSource | resizer::kDetectAndOverlay;
  request.source = resizer::FSSource{driver.BaseDisk(), driver.StartSector(), driver.VolumeSectors(), mask};
  try {
    resizer::Execute(request);
  } catch (const Common::Error& e) {
    throw Common::MakeError(ERROR_HERE, Common::Codes::Corrupted).WithCause(e);
  }
  if (request.overlay != nullptr) driver.UseOverlay(request.overlay);
}
