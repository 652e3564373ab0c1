#include "file/windows_dir.h"

rio_dir* windows_dir::OpenPath(const char16_t*& path) {
  if (path == nullptr) {
    SetError(ERROR_HERE, Common::Codes::OpenError);
    return nullptr;
  }
  const char16_t* last = nullptr;
  for (const char16_t* p = path; *p; ++p)
    if (*p == u':' || *p == u'/' || *p == u'\\') last = p;
  if (last == nullptr) return OpenDir(u".");
  // The directory part keeps its separator, so that "\name" means the root.
  const std::u16string directory(path, size_t(last - path) + 1);
  rio_dir* dir = OpenDir(directory.c_str());
  if (dir != nullptr) path = last + 1;
  return dir;
}
