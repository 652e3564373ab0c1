// The partition road of the loader: a file named by a partition's GPT
// unique GUID and a path.  Each partition is mounted once per owner and
// stays mounted for the owner's life (the run ends by starting a kernel).
#pragma once

#include <map>
#include <memory>
#include <string>

#include "common/error.h"
#include "common/text.h"
#include "file/dir.h"

namespace EfiLoader {

// The order of the mounted-volume map: Data1, Data2, Data3, then the eight
// bytes of Data4 as one big-endian number.
struct GuidOrder {
  bool operator()(const Common::GUID& a, const Common::GUID& b) const;
};

// Opens `path` on a mounted volume: the directory of all components but
// the last, then the last as a file, opened the way the loader opens what
// it boots (for writing, not shared, so that nothing else holds it while
// it is read).  The failure is "Failed to open the directory of the file."
// or "Failed to open the file." with the driver's error as cause.
Common::Error OpenFileOnVolume(rio_dir& root, const std::u16string& path,
                               std::shared_ptr<ri_file>& file);

class Volumes {
 public:
  // The root directory of the partition with unique GUID `guid`, mounted at
  // the first call.  Failures: "Failed to open the volume by GUID." with
  // the disk layer's error as cause, or "Failed to mount the partition.".
  Common::Error OpenRoot(const Common::GUID& guid, std::shared_ptr<rio_dir>& root);

  // The file `path` of the partition `guid`; an all-zero GUID means the
  // loader's own device, where "/" becomes "\".  Throws "Cannot get file
  // "PATH" from the partition with GUID GUID." with the reason as cause.
  std::shared_ptr<ri_file> GetFile(const Common::GUID& guid, const std::u16string& path);

  size_t MountedCount() const { return volumes_.size(); }

 private:
  std::map<Common::GUID, std::shared_ptr<rio_dir>, GuidOrder> volumes_;
};

}  // namespace EfiLoader
