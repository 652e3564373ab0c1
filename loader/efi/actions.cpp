#include "common/error_codes.h"
#include "efi/config.h"
#include "efi/file.h"
#include "efi/xml_access.h"
#include "uefi/boot_entries.h"

namespace EfiLoader {

using Common::Error;

Error ChainLoad::Execute() {
  try {
    std::u16string path;
    xml::Attribute(node, "Executable", path);
    if (!path.empty()) ExecuteFile(path);
    return {};
  } catch (const Error& e) {
    return e;
  }
}

Error RenameJob::Execute() {
  try {
    std::u16string source, target;
    xml::Attribute(node, "FileNameSource", source);
    OpenLoaderFile(source).reset();  // the source must exist
    xml::Attribute(node, "FileNameTarget", target);
    bool targetExists = true;
    try {
      OpenLoaderFile(target).reset();
    } catch (const Error&) {
      targetExists = false;
    }
    if (targetExists) DeleteFile(target);
    MoveFile(source, target);
    return {};
  } catch (const Error& e) {
    return e;
  }
}

// An earlier stage may have set up a tagged boot entry for this one boot;
// taking it away now makes sure it acts only once.
Error RemoveFakeBootNextJob::Execute() {
  std::shared_ptr<Uefi::BootNext> fake;
  Uefi::GetBootNext(fake, false);
  return fake->Clear();
}

}  // namespace EfiLoader
