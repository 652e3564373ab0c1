// What the two path flavours share: a directory reference is a driver and a
// path, costs nothing to create, and meets the disk only when an operation
// needs it.  Every operation runs under the guards of a public operation of
// the framework and records its failure in the reference's state.
//
// `Face` is rio_dir for the POSIX flavour and windows_dir for the Windows
// one; a flavour supplies the path rules through the hooks below.
#pragma once

#include <string>

#include "filesys/filesys.h"

template <typename Face>
class DirReferenceBase : public Face, public nocache_dir {
 public:
  // ---- reading
  i_dir::iterator* GetSelfIterator() override;
  int CompareNames(const file_identifier* a, const file_identifier* b) override;
  void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) override;
  void GetVolumeLabel(char16_t* buffer, uint32_t length) override;
  // "NCDR": the no-cache face into word[0]; anything else goes to the driver.
  void IOCTL(void* request) override;

  // ---- changing
  void CreateDir(const char16_t* name) override;
  void RemoveDir(const char16_t* name) override;
  void CreateHardLink(const char16_t* name, const char16_t* existingPath) override;
  void CreateSymLink(const char16_t* name, const char16_t* target) override;

  uint32_t GetSectorSize() override { return driver_->SectorSize(); }
  FileSystemDriver* Driver() const { return driver_.Get(); }

 protected:
  template <typename... A>
  DirReferenceBase(FileSystemDriver& driver, A&&... faceArgs)
      : Face(std::forward<A>(faceArgs)...), driver_(&driver) {}

  // ---- the flavour's path rules
  // The path of the child `name` as this flavour keeps it; raises 0x40007.
  virtual std::u16string ChildPath(const std::u16string& name) = 0;
  // The parent's path and the leaf of `name` taken from here; raises 0x40007.
  virtual void Split(const std::u16string& name, std::u16string& parent, std::u16string& leaf) = 0;
  // The directory object of a path of this flavour.
  virtual FileSystemDriver::DirHold DirectoryOf(const std::u16string& path) = 0;
  virtual const std::u16string& OwnPath() = 0;
  virtual bool IsRoot() = 0;
  virtual std::u16string RootName() = 0;
  virtual rio_dir* NewReference(std::u16string path) = 0;
  // Extra rule for names of the changing operations (POSIX: simple names).
  virtual void CheckLeafName(const std::u16string& name) {}

  // ---- shared implementations of the hooks of the faces
  ri_file* DoOpen(const char16_t* name, bool noCache) override;
  ri_file* DoOpen(i_dir::iterator* entry, bool noCache) override;
  ri_file* DoOpen(const file_identifier* id, bool noCache) override;
  rio_file* DoOpenForWrite(const char16_t* name, bool noCache) override;
  rio_file* DoOpenForWrite(i_dir::iterator* entry, bool noCache) override;
  rio_file* DoOpenForWrite(const file_identifier* id, bool noCache) override;
  rio_dir* DoOpenDir(const char16_t* name) override;
  rio_dir* DoOpenDir(i_dir::iterator* entry) override;
  rio_dir* DoOpenDir(const file_identifier* id) override;
  i_dir::iterator* DoGetIterator() override;
  i_dir::iterator* DoGetIterator(const char16_t* name) override;
  i_dir::iterator* DoGetIterator(const file_identifier* id) override;
  void DoRemove(const char16_t* name) override;
  void DoRename(const char16_t* oldName, const char16_t* newName) override;
  rio_file* DoCreate(const char16_t* name, bool noCache) override;
  rio_file* DoOpenNoCache(const char16_t* name, int mode, bool shared) override;

  // Runs `body` as a public operation: guards, driver lock, failure into
  // the state, success clears it.  Gives what `body` gave, or T{}.
  template <typename T, typename F>
  T Guarded(F&& body);
  // Runs `body(directory object, leaf)` on the parent of `name`.
  template <typename T, typename F>
  T OnParent(const char16_t* name, F&& body);

  rio_file* OpenFile(const char16_t* name, bool write, bool shared);
  rio_file* OpenFile(i_dir::iterator* entry, bool write, bool shared);
  rio_file* OpenFile(const file_identifier* id, bool write, bool shared);

  DriverRef driver_;
};

template <typename Face>
template <typename T, typename F>
T DirReferenceBase<Face>::Guarded(F&& body) {
  T result{};
  FsLockGuard lock(driver_->DriverLock());
  RunRecorded(*this, ERROR_HERE, [&] { result = body(); });
  return result;
}

template <typename Face>
template <typename T, typename F>
T DirReferenceBase<Face>::OnParent(const char16_t* name, F&& body) {
  return Guarded<T>([&] {
    if (name == nullptr || name[0] == 0) THROW_ERROR(Common::Codes::OpenError);
    std::u16string parent, leaf;
    Split(name, parent, leaf);
    FileSystemDriver::DirHold dir = DirectoryOf(parent);
    return body(dir.Get(), leaf);
  });
}

#include "file/windows_dir.h"
extern template class DirReferenceBase<rio_dir>;
extern template class DirReferenceBase<windows_dir>;
