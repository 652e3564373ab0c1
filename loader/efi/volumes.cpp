#include "efi/volumes.h"

#include "common/error_codes.h"
#include "common/format_message.h"
#include "efi/file.h"
#include "efi/platform_blocks.h"
#include "fdisk/volume_efi.h"
#include "filesys/collation.h"
#include "filesys/mount_handler.h"

namespace EfiLoader {

using namespace Common::Codes;

// The causes made by the helpers below belong to GetFile: a report names the
// function the user's action went through, not how it is split up here.
#define GET_FILE_HERE ERROR_IN("GetFile")

bool GuidOrder::operator()(const Common::GUID& a, const Common::GUID& b) const {
  if (a.Data1 != b.Data1) return a.Data1 < b.Data1;
  if (a.Data2 != b.Data2) return a.Data2 < b.Data2;
  if (a.Data3 != b.Data3) return a.Data3 < b.Data3;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return a.Data4[i] < b.Data4[i];
  return false;
}

Common::Error OpenFileOnVolume(rio_dir& root, const std::u16string& path,
                               std::shared_ptr<ri_file>& file) {
  file.reset();
  const char16_t* name = path.c_str();
  std::unique_ptr<rio_dir> dir(root.OpenPath(name));
  if (!dir) return Common::MakeError(GET_FILE_HERE, FailedToOpenDirectory).WithCause(root.TakeError());
  std::unique_ptr<rio_file> opened;
  Common::Error cause;
  try {
    opened.reset(dir->OpenForWrite(name, false));
    if (!opened) cause = dir->TakeError();
  } catch (const Common::Error& e) {
    cause = e;
  }
  if (!opened) return Common::MakeError(GET_FILE_HERE, FailedToOpenFile).WithCause(cause);
  file = std::shared_ptr<ri_file>(std::move(opened));
  return Common::Error();
}

Common::Error Volumes::OpenRoot(const Common::GUID& guid, std::shared_ptr<rio_dir>& root) {
  root.reset();
  auto known = volumes_.find(guid);
  if (known != volumes_.end()) {
    root = known->second;
    return Common::Error();
  }
  // FAT names follow the firmware's code page when it offers one.
  if (FirmwareBlocks* blocks = Fw().Blocks()) SetUnicodeCollation(blocks->Collation());
  std::unique_ptr<Fdisk::SimpleDisk> disk;
  Common::Error e = Fdisk::OpenVolumeByGuid(guid, disk);
  if (e.IsError() || !disk) return Common::MakeError(GET_FILE_HERE, FailedToOpenVolumeByGuid).WithCause(e);
  std::unique_ptr<rio_dir> mounted(Mount(kDetectAll, disk));
  if (!mounted) return Common::MakeError(GET_FILE_HERE, MountFailed);
  root = std::shared_ptr<rio_dir>(std::move(mounted));
  volumes_.emplace(guid, root);
  return Common::Error();
}

std::shared_ptr<ri_file> Volumes::GetFile(const Common::GUID& guid, const std::u16string& path) {
  if (guid.IsZero()) {
    std::u16string own = path;
    for (char16_t& c : own)
      if (c == u'/') c = u'\\';
    return std::shared_ptr<ri_file>(OpenLoaderFile(own));
  }
  std::shared_ptr<rio_dir> root;
  Common::Error cause = OpenRoot(guid, root);
  std::shared_ptr<ri_file> file;
  if (root) cause = OpenFileOnVolume(*root, path, file);
  if (file) return file;
  Fdisk::FormatMessage text(Common::StandardErrorText(CannotGetFileFromPartition));
  text.Add(path).Add(Common::GuidToText(guid));
  throw Common::Error(ERROR_HERE, CannotGetFileFromPartition, text.Text()).WithCause(cause);
}

}  // namespace EfiLoader
