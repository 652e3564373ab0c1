#include "filesys/filesys_posix.h"

#include <cstring>

#include "dir_reference.h"
#include "file/utils.h"

using namespace Common::Codes;

class FileSystemDriverPosix::DirReference final : public DirReferenceBase<rio_dir> {
 public:
  DirReference(FileSystemDriverPosix& driver, std::u16string path)
      : DirReferenceBase<rio_dir>(driver), path_(std::move(path)) {}

  rio_dir* OpenPath(const char16_t*& path) override {
    if (path == nullptr) {
      SetError(ERROR_HERE, OpenError);
      return nullptr;
    }
    const char16_t* last = nullptr;
    for (const char16_t* p = path; *p; ++p)
      if (*p == u'/') last = p;
    if (last == nullptr) return Guarded<rio_dir*>([&] { return NewReference(path_); });
    const std::u16string directory(path, size_t(last - path) + 1);
    rio_dir* dir = OpenDir(directory.c_str());
    if (dir != nullptr) path = last + 1;
    return dir;
  }

  std::u16string GetPath() override {
    if (path_.size() < 2) return u"/";
    if (withSeparator_.empty()) withSeparator_ = path_ + u"/";
    return withSeparator_;
  }

  int Compare(i_dir* other) override {
    if (other == nullptr) return 2;
    if (other == this) return 0;
    auto* o = dynamic_cast<DirReference*>(other);
    if (o == nullptr || o->Driver() != Driver()) return 2;
    const std::u16string& mine = path_;
    const std::u16string& theirs = o->path_;
    if (mine.size() > theirs.size()) return 2;
    if (theirs.compare(0, mine.size(), mine) != 0) return 2;
    if (mine.size() == theirs.size()) return 0;
    // Below only at a component boundary: "/ab" does not lie below "/a".
    const bool boundary = mine.back() == u'/' || theirs[mine.size()] == u'/';
    return boundary ? 1 : 2;
  }

  void SetUnixPermissions(const char16_t* name, uint32_t mode) override {
    OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
      CheckLeafName(leaf);
      dir->SetUnixPermissions(leaf, mode);
      return 0;
    });
  }
  void SetUnixOwner(const char16_t* name, uint32_t owner, uint32_t group) override {
    OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
      CheckLeafName(leaf);
      dir->SetUnixOwner(leaf, owner, group);
      return 0;
    });
  }
  void CreateDeviceNode(const char16_t* name, uint32_t mode, uint32_t kind, uint32_t major,
                        uint32_t minor) override {
    OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
      CheckLeafName(leaf);
      dir->CreateDeviceNode(leaf, mode, kind, major, minor);
      return 0;
    });
  }

 protected:
  std::u16string ChildPath(const std::u16string& name) override {
    std::u16string joined = path_;
    AppendPath(joined, name);
    return joined;
  }

  void Split(const std::u16string& name, std::u16string& parent, std::u16string& leaf) override {
    if (name.empty()) THROW_ERROR(OpenError);
    const std::u16string joined = ChildPath(name);
    const size_t slash = joined.rfind(u'/');
    leaf = slash == std::u16string::npos ? joined : joined.substr(slash + 1);
    if (leaf.empty()) THROW_ERROR(OpenError);
    parent = slash == std::u16string::npos || slash == 0 ? std::u16string(u"/") : joined.substr(0, slash);
  }

  FileSystemDriver::DirHold DirectoryOf(const std::u16string& path) override {
    return Driver()->GetDirectoryObject(path.empty() ? std::u16string(u"/") : path);
  }
  const std::u16string& OwnPath() override { return path_; }
  bool IsRoot() override { return path_.size() <= 1; }
  std::u16string RootName() override { return u"/"; }
  rio_dir* NewReference(std::u16string path) override {
    return new DirReference(static_cast<FileSystemDriverPosix&>(*Driver()), std::move(path));
  }
  void CheckLeafName(const std::u16string& name) override {
    if (!IsSimpleName(name)) THROW_ERROR(OpenError);
  }

 private:
  std::u16string path_;
  std::u16string withSeparator_;
};

rio_dir* FileSystemDriverPosix::OpenRootDir() { return new DirReference(*this, u"/"); }

rio_dir* FileSystemDriverPosix::OpenDirReference(const std::u16string& path) {
  return new DirReference(*this, path);
}

int FileSystemDriverPosix::CompareNames(const file_identifier* a, const file_identifier* b) {
  auto* x = dynamic_cast<const the_identifier*>(a);
  auto* y = dynamic_cast<const the_identifier*>(b);
  if (x == nullptr || y == nullptr) THROW_ERROR(InvalidUsage);
  return x->Name().compare(y->Name());
}
