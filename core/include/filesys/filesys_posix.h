// The POSIX flavour: "/" paths, names compared by code units.  The base of
// the ext, HFS+ and XFS drivers.
#pragma once

#include "filesys/filesys.h"

class FileSystemDriverPosix : public FileSystemDriver {
 public:
  using FileSystemDriver::FileSystemDriver;
  class DirReference;

  rio_dir* OpenRootDir() override;
  rio_dir* OpenDirReference(const std::u16string& path) override;
  // Both must be the_identifier; their wide names are compared by units.
  int CompareNames(const file_identifier* a, const file_identifier* b) override;
};

// Replays the journal of a volume virtually: the driver reads through an
// overlay that shows the journal's changes while the volume stays as it
// is.  `mask` names the file-system types the volume may be.  Any failure
// is "The file is corrupted." with the failure as cause.
void VirtualJournalReplay(FileSystemDriver& driver, uint64_t mask);
