#include "common/error_codes.h"
#include "resizer/fs_processor.h"

namespace resizer {

void Execute(ProcessorRequest& request) {
  request.overlay = nullptr;
  if ((request.flags & kCreateForSource) == 0 || (request.flags & kDetectAndOverlay) == 0)
    throw Common::Error(ERROR_HERE, Common::Codes::ResizerInternal,
                        "Internal error: source drive not specified");
  if (request.source.disk == nullptr)
    throw Common::Error(ERROR_HERE, Common::Codes::ResizerInternal,
                        "Internal error: source drive not specified");
  // The lowest filled slot that the source's mask allows; with none, an
  // index past the table, which DoCreateFSProcessor refuses.
  const uint64_t candidates = DetectSourceFSProcessor(request.source.typeMask);
  uint32_t type = kProcessorSlots;
  for (uint32_t i = 0; i < kProcessorSlots; ++i)
    if ((candidates >> i) & 1) {
      type = i;
      break;
    }
  std::unique_ptr<FSProcessor> processor = InitSourceFSProcessor(request.source, type);
  request.overlay = processor->TakeOverlay();
}

}  // namespace resizer
