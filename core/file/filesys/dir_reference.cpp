#include "dir_reference.h"

#include <new>

#include "file/windows_dir.h"

using namespace Common::Codes;

// ---- opening files

template <typename Face>
rio_file* DirReferenceBase<Face>::OpenFile(const char16_t* name, bool write, bool shared) {
  return OnParent<rio_file*>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    return static_cast<rio_file*>(driver_->NewFileReference(dir->Open(leaf), write, shared));
  });
}

template <typename Face>
rio_file* DirReferenceBase<Face>::OpenFile(i_dir::iterator* entry, bool write, bool shared) {
  return Guarded<rio_file*>([&] {
    auto* it = dynamic_cast<FileSystemDriver::IteratorReference*>(entry);
    if (it == nullptr || it->Driver() != driver_.Get() || it->Object() == nullptr)
      THROW_ERROR(OpenError);
    FileSystemDriver::DirHold dir = DirectoryOf(OwnPath());
    return static_cast<rio_file*>(driver_->NewFileReference(dir->Open(it->Object()), write, shared));
  });
}

template <typename Face>
rio_file* DirReferenceBase<Face>::OpenFile(const file_identifier* id, bool write, bool shared) {
  return Guarded<rio_file*>([&] {
    FileSystemDriver::DirHold dir = DirectoryOf(OwnPath());
    return static_cast<rio_file*>(driver_->NewFileReference(dir->Open(id), write, shared));
  });
}

template <typename Face>
ri_file* DirReferenceBase<Face>::DoOpen(const char16_t* name, bool noCache) {
  return OpenFile(name, false, noCache);
}
template <typename Face>
ri_file* DirReferenceBase<Face>::DoOpen(i_dir::iterator* entry, bool noCache) {
  return OpenFile(entry, false, noCache);
}
template <typename Face>
ri_file* DirReferenceBase<Face>::DoOpen(const file_identifier* id, bool noCache) {
  return OpenFile(id, false, noCache);
}
template <typename Face>
rio_file* DirReferenceBase<Face>::DoOpenForWrite(const char16_t* name, bool noCache) {
  return OpenFile(name, true, noCache);
}
template <typename Face>
rio_file* DirReferenceBase<Face>::DoOpenForWrite(i_dir::iterator* entry, bool noCache) {
  return OpenFile(entry, true, noCache);
}
template <typename Face>
rio_file* DirReferenceBase<Face>::DoOpenForWrite(const file_identifier* id, bool noCache) {
  return OpenFile(id, true, noCache);
}

// ---- directories: no disk access until an operation needs one

template <typename Face>
rio_dir* DirReferenceBase<Face>::DoOpenDir(const char16_t* name) {
  return Guarded<rio_dir*>([&] { return NewReference(ChildPath(name)); });
}

template <typename Face>
rio_dir* DirReferenceBase<Face>::DoOpenDir(i_dir::iterator* entry) {
  std::u16string name = entry->FileName();
  if (entry->HasError() || name.empty()) {
    this->SetError(ERROR_HERE, OpenError);
    return nullptr;
  }
  return DoOpenDir(name.c_str());
}

template <typename Face>
rio_dir* DirReferenceBase<Face>::DoOpenDir(const file_identifier* id) {
  auto* ours = dynamic_cast<const the_identifier*>(id);
  if (ours == nullptr || ours->Name().empty()) {
    this->SetError(ERROR_HERE, OpenError);
    return nullptr;
  }
  return DoOpenDir(ours->Name().c_str());
}

// ---- cursors

template <typename Face>
i_dir::iterator* DirReferenceBase<Face>::DoGetIterator() {
  return Guarded<i_dir::iterator*>([&] {
    FileSystemDriver::DirHold dir = DirectoryOf(OwnPath());
    return new FileSystemDriver::IteratorReference(*driver_.Get(), dir->GetIterator());
  });
}

template <typename Face>
i_dir::iterator* DirReferenceBase<Face>::DoGetIterator(const char16_t* name) {
  return Guarded<i_dir::iterator*>([&] {
    FileSystemDriver::DirHold dir = DirectoryOf(OwnPath());
    return new FileSystemDriver::IteratorReference(*driver_.Get(), dir->GetIterator(std::u16string(name)));
  });
}

template <typename Face>
i_dir::iterator* DirReferenceBase<Face>::DoGetIterator(const file_identifier* id) {
  return Guarded<i_dir::iterator*>([&] {
    FileSystemDriver::DirHold dir = DirectoryOf(OwnPath());
    return new FileSystemDriver::IteratorReference(*driver_.Get(), dir->GetIterator(id));
  });
}

template <typename Face>
i_dir::iterator* DirReferenceBase<Face>::GetSelfIterator() {
  if (IsRoot())
    return Guarded<i_dir::iterator*>(
        [&] { return new FileSystemDriver::RootSelfIterator(*driver_.Get(), RootName()); });
  return Guarded<i_dir::iterator*>([&] {
    // This directory as an entry of its parent.
    std::u16string parent, leaf;
    Split(u".", parent, leaf);
    FileSystemDriver::DirHold dir = DirectoryOf(parent);
    return new FileSystemDriver::IteratorReference(*driver_.Get(), dir->GetIterator(leaf));
  });
}

// ---- the volume

template <typename Face>
int DirReferenceBase<Face>::CompareNames(const file_identifier* a, const file_identifier* b) {
  return Guarded<int>([&] { return driver_->CompareNames(a, b); });
}

template <typename Face>
void DirReferenceBase<Face>::GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) {
  total = free = available = 0;
  Guarded<int>([&] {
    driver_->GetDriveSize(total, free, available);
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::GetVolumeLabel(char16_t* buffer, uint32_t length) {
  if (buffer != nullptr && length != 0) buffer[0] = 0;
  Guarded<int>([&] {
    if (buffer == nullptr || length == 0) THROW_ERROR(InvalidUsage);
    driver_->GetVolumeLabel(buffer, length);
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::IOCTL(void* request) {
  Guarded<int>([&] {
    auto* r = static_cast<FsRequest*>(request);
    if (r != nullptr && r->command == FourCC("NCDR"))
      r->word[0] = reinterpret_cast<uintptr_t>(static_cast<nocache_dir*>(this));
    else
      driver_->IOCTL(request);
    return 0;
  });
}

// ---- changing: the parent's directory object does the work

template <typename Face>
void DirReferenceBase<Face>::CreateDir(const char16_t* name) {
  OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->CreateDir(leaf);
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::RemoveDir(const char16_t* name) {
  OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->RemoveDir(leaf);
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::CreateHardLink(const char16_t* name, const char16_t* existingPath) {
  OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->CreateHardLink(leaf, existingPath ? existingPath : u"");
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::CreateSymLink(const char16_t* name, const char16_t* target) {
  OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->CreateSymLink(leaf, target ? target : u"");
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::DoRemove(const char16_t* name) {
  OnParent<int>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->Remove(leaf);
    return 0;
  });
}

template <typename Face>
void DirReferenceBase<Face>::DoRename(const char16_t* oldName, const char16_t* newName) {
  OnParent<int>(oldName, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    dir->Rename(leaf, newName);
    return 0;
  });
}

template <typename Face>
rio_file* DirReferenceBase<Face>::DoCreate(const char16_t* name, bool noCache) {
  return OnParent<rio_file*>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    return static_cast<rio_file*>(driver_->NewFileReference(dir->Create(leaf), true, noCache));
  });
}

template <typename Face>
rio_file* DirReferenceBase<Face>::DoOpenNoCache(const char16_t* name, int mode, bool shared) {
  return OnParent<rio_file*>(name, [&](FileSystemDriver::DirectoryObject* dir, const std::u16string& leaf) {
    CheckLeafName(leaf);
    FileSystemDriver::FileObject* object =
        mode == nocache_dir::kOpenExisting ? dir->Open(leaf) : dir->Create(leaf);
    return static_cast<rio_file*>(driver_->NewFileReference(object, true, shared));
  });
}

template class DirReferenceBase<rio_dir>;
template class DirReferenceBase<windows_dir>;
