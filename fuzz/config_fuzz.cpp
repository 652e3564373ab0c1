// Any bytes as the loader's configuration: reading it and building every
// job and the action must end in an object or in one of the loader's
// errors, never in a fault.  Nothing is executed: that needs a machine.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "efi/config.h"
#include "file/buf_ifile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  buf_ifile<unsigned char> in(data, size);
  std::shared_ptr<EfiLoader::ConfigurationFile> config;
  const Common::Error created = EfiLoader::ConfigurationFile::Create(in, config);
  if (created.IsError() != (config == nullptr)) std::abort();
  if (!config) return 0;
  try {
    for (size_t i = 0; i < config->JobCount(); ++i) {
      std::shared_ptr<EfiLoader::Action> job;
      if (config->GetJob(i, job).IsSuccess() && !job) std::abort();
    }
    std::shared_ptr<EfiLoader::Action> action;
    if (config->GetAction(action).IsSuccess() && !action) std::abort();
  } catch (const Common::Error&) {
    // The format errors of the objects are thrown; that is an answer.
  }
  return 0;
}
