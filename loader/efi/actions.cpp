#include "common/error_codes.h"
#include "efi/config.h"
#include "efi/file.h"
#include "efi/xml_access.h"

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

// Boot variables are not part of this build yet: say so plainly rather
// than pretend the job ran.
Error RemoveFakeBootNextJob::Execute() {
  return Common::MakeError(ERROR_HERE, Common::Codes::NotSupported);
}

Error LoadKernel::Execute() { return Common::MakeError(ERROR_HERE, Common::Codes::NotSupported); }

}  // namespace EfiLoader
