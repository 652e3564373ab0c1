#include "efi/main.h"

#include <cstdio>
#include <memory>

#include "common/error_codes.h"
#include "efi/config.h"
#include "efi/console.h"
#include "efi/file.h"
#include "efi/platform.h"

namespace EfiLoader {

using Common::Error;
using namespace Common::Codes;

namespace {

constexpr int kVersion[3] = {1, 1, 236};

void Raise(const Error& e) {
  if (e.IsError()) throw e;
}

void Run() {
  char banner[64];
  snprintf(banner, sizeof banner, "Starting x64 UEFI loader (v.%d.%d.%d)...", kVersion[0],
           kVersion[1], kVersion[2]);
  Print(banner);
  Print(u"\n");

  std::u16string configName;
  {
    const std::u16string& self = GetSelfPath();
    if (self.empty()) THROW_ERROR(LoaderFileNameInvalid);
    const size_t dot = self.rfind(u'.');
    if (dot == std::u16string::npos) THROW_ERROR(LoaderFileNameInvalid);
    configName = self.substr(0, dot + 1) + u"xml";
  }
  std::unique_ptr<ri_file> file = OpenLoaderFile(configName);
  if (!file) THROW_ERROR(ConfigurationNotFound);

  std::shared_ptr<ConfigurationFile> config;
  Raise(ConfigurationFile::Create(*file, config));

  const size_t jobs = config->JobCount();
  for (size_t i = 0; i < jobs; ++i) {
    std::shared_ptr<Action> job;
    Raise(config->GetJob(i, job));
    Raise(job->Execute());
  }
  std::shared_ptr<Action> action;
  Raise(config->GetAction(action));
  Raise(action->Execute());
}

}  // namespace

int LoaderMain() {
  try {
    Run();
  } catch (const Error& e) {
    // Everything the run built is gone by now; the report needs none of it.
    Print(u"Runtime error:\n" + Common::ErrorText(e) + u"\n");
    Fw().Stall(10 * 1000 * 1000);
  }
  return 1;
}

}  // namespace EfiLoader
