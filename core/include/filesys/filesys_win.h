// The Windows flavour: the volume is the drive "C:\", "/" and "\" are both
// separators, and the driver folds the case of directory paths.  The base
// of the FAT, NTFS and ReFS drivers.
#pragma once

#include "filesys/filesys.h"

class FileSystemDriverWindows : public FileSystemDriver {
 public:
  using FileSystemDriver::FileSystemDriver;
  class DirReference;

  rio_dir* OpenRootDir() override;
  rio_dir* OpenDirReference(const std::u16string& path) override;

  // The directory object of a "C:\..." path.
  DirHold GetDirectoryByPath(const std::u16string& path);
};
