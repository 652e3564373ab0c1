#include "filesys/filesys_win.h"

#include "dir_reference.h"
#include "file/utils.h"

using namespace Common::Codes;

class FileSystemDriverWindows::DirReference final : public DirReferenceBase<windows_dir> {
 public:
  DirReference(FileSystemDriverWindows& driver, std::u16string path)
      : DirReferenceBase<windows_dir>(driver, std::move(path)) {}

  int Compare(i_dir* other) override {
    if (other == nullptr) return 2;
    if (other == this) return 0;
    auto* o = dynamic_cast<DirReference*>(other);
    if (o == nullptr || o->Driver() != Driver()) return 2;
    std::u16string mine = GetPath(), theirs = o->GetPath();
    {
      FsLockGuard lock(Driver()->DriverLock());
      Driver()->NormalizeName(mine);
      Driver()->NormalizeName(theirs);
    }
    if (theirs.compare(0, mine.size(), mine) != 0 || mine.size() > theirs.size()) return 2;
    return mine.size() == theirs.size() ? 0 : 1;
  }

  void SetDOSAttributes(const char16_t* name, uint32_t attributes) override {
    OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
      dir->SetDOSAttributes(leaf, attributes);
      return 0;
    });
  }

 protected:
  // The absolute path of `name` from here, with its closing "\"; raises
  // for a path that is not valid or leaves the drive.
  std::u16string Normalized(const std::u16string& name) {
    std::u16string result;
    if (!NormalizeWindowsPath(result, path_, name, false)) THROW_ERROR(OpenError);
    if (result.empty()) return u"C:\\";
    if (result[0] != u'C') THROW_ERROR(OpenError);
    return result;
  }

  std::u16string ChildPath(const std::u16string& name) override { return Normalized(name); }

  void Split(const std::u16string& name, std::u16string& parent, std::u16string& leaf) override {
    if (name.empty()) THROW_ERROR(OpenError);
    std::u16string full = Normalized(name);
    if (!full.empty() && full.back() == u'\\') full.pop_back();
    const size_t sep = full.rfind(u'\\');
    if (sep == std::u16string::npos) THROW_ERROR(OpenError);  // the drive itself has no leaf
    leaf = full.substr(sep + 1);
    parent = full.substr(0, sep);
    if (leaf.empty()) THROW_ERROR(OpenError);
  }

  FileSystemDriver::DirHold DirectoryOf(const std::u16string& path) override {
    return static_cast<FileSystemDriverWindows*>(Driver())->GetDirectoryByPath(path);
  }
  const std::u16string& OwnPath() override { return path_; }
  bool IsRoot() override { return path_.size() <= 3; }
  std::u16string RootName() override { return u"C:"; }
  rio_dir* NewReference(std::u16string path) override {
    return new DirReference(static_cast<FileSystemDriverWindows&>(*Driver()), std::move(path));
  }
};

rio_dir* FileSystemDriverWindows::OpenRootDir() { return new DirReference(*this, u"C:\\"); }

rio_dir* FileSystemDriverWindows::OpenDirReference(const std::u16string& path) {
  return new DirReference(*this, path);
}

FileSystemDriver::DirHold FileSystemDriverWindows::GetDirectoryByPath(const std::u16string& path) {
  if (path.empty() || path[0] != u'C') THROW_ERROR(OpenError);
  if (path.size() <= 3) return GetDirectoryObject(u"/");
  // "C:\A\B\" becomes "/A/B".
  std::u16string internal(1, u'/');
  size_t end = path.size();
  while (end > 2 && path[end - 1] == u'\\') --end;
  for (size_t i = 2; i < end; ++i) {
    const char16_t c = path[i] == u'\\' ? u'/' : path[i];
    if (c == u'/' && internal.back() == u'/') continue;
    internal.push_back(c);
  }
  return GetDirectoryObject(internal);
}
