#include "resizer/fs_processor.h"

#include "resizer/errors.h"

namespace resizer {

namespace {
FSProcessorCreator g_creators[kProcessorSlots] = {};
}

bool RegisterFSProcessor(uint32_t type, FSProcessorCreator creator) {
  if (type >= kProcessorSlots - 1) return false;
  g_creators[type] = creator;
  return true;
}

std::unique_ptr<FSProcessor> DoCreateFSProcessor(uint32_t type) {
  if (type >= kProcessorSlots - 1 || g_creators[type] == nullptr)
    throw InvalidFileSystem(ERROR_HERE, 0x70005, u"Invalid format.");
  return std::unique_ptr<FSProcessor>(g_creators[type]());
}

uint64_t DetectSourceFSProcessor(uint64_t mask) {
  uint64_t filled = 0;
  for (uint32_t i = 0; i < kProcessorSlots - 1; ++i)
    if (g_creators[i] != nullptr) filled |= uint64_t(1) << i;
  return mask & filled;
}

std::unique_ptr<FSProcessor> InitSourceFSProcessor(const FSSource& source, uint32_t type) {
  if (source.sectors == 0) throw InvalidPartitionSize(ERROR_HERE, 0x70006, u"Invalid partition size.");
  std::unique_ptr<FSProcessor> processor = DoCreateFSProcessor(type);
  processor->Place(source);
  processor->Load();
  return processor;
}

}  // namespace resizer
