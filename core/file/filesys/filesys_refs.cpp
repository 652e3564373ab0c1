// The handles that callers hold: open files and directory cursors.  Each
// counts on its driver and runs every operation under the guards of a
// public operation; failures become the stream's error state.
#include <new>

#include "filesys/filesys.h"

using namespace Common::Codes;

// ---- open files

FileSystemDriver::FileReference::FileReference(FileSystemDriver& driver, FileObject* object,
                                               bool writable, bool shared)
    : driver_(&driver), object_(object), writable_(writable), shared_(shared) {}

FileSystemDriver::FileReference::~FileReference() {
  NewHandlerGuard guard;
  FsLockGuard lock(driver_->DriverLock());
  FileObject* o = object_;
  if (writable_ && --o->writers == 0) {
    driver_->writableFiles_.Remove(o);
    try {
      o->Flush();
    } catch (...) {
      // Nothing can report it from here; a driver that writes flushes
      // through Flush of the reference before it closes.
    }
  }
  if (!shared_) --o->exclusive;
  if (--o->openRefs == 0) delete o;
}

template <typename F>
bool FileSystemDriver::FileReference::Run(const Common::ErrorLocation& where, F&& body) {
  if (HasError()) return false;
  NewHandlerGuard guard;
  FsLockGuard lock(driver_->DriverLock());
  try {
    body();
    return true;
  } catch (const Common::Error& e) {
    SetError(e);
  } catch (const std::bad_alloc&) {
    SetError(Common::MakeError(where, NotEnoughMemory));
  }
  return false;
}

void FileSystemDriver::FileReference::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  Run(ERROR_HERE, [&] {
    uint64_t n = 0;
    try {
      object_->Read(buffer, uint64_t(position_), size, n);
    } catch (...) {
      // What was delivered before the failure still counts.
      got = n;
      position_ += int64_t(n);
      throw;
    }
    got = n;
    position_ += int64_t(n);
  });
}

void FileSystemDriver::FileReference::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  Run(ERROR_HERE, [&] {
    if (!writable_) THROW_ERROR(ReadOnly);
    uint64_t n = 0;
    object_->Write(buffer, uint64_t(position_), size, n);
    written = n;
    position_ += int64_t(n);
  });
}

void FileSystemDriver::FileReference::Flush() {
  Run(ERROR_HERE, [&] { driver_->Flush(); });
}

void FileSystemDriver::FileReference::Truncate(uint64_t size) {
  Run(ERROR_HERE, [&] {
    if (!writable_) THROW_ERROR(ReadOnly);
    object_->Truncate(size);
  });
}

int64_t FileSystemDriver::FileReference::GetSize() {
  int64_t size = -1;
  Run(ERROR_HERE, [&] { size = int64_t(object_->GetSize()); });
  return size;
}

int64_t FileSystemDriver::FileReference::Seek(int64_t position) {
  if (HasError()) return -1;
  position_ = position;
  return position_;
}

int64_t FileSystemDriver::FileReference::SeekCur(int64_t delta) {
  if (HasError()) return -1;
  position_ += delta;
  return position_;
}

int64_t FileSystemDriver::FileReference::SeekEnd(int64_t delta) {
  int64_t result = -1;
  Run(ERROR_HERE, [&] {
    position_ = int64_t(object_->GetSize()) + delta;
    result = position_;
  });
  return result;
}

void FileSystemDriver::FileReference::IOCTL(void* request) {
  Run(ERROR_HERE, [&] {
    auto* r = static_cast<FsRequest*>(request);
    if (r == nullptr) THROW_ERROR(InvalidUsage);
    if (r->command == FourCC("GSEC")) {
      object_->GetPhysLocation(uint64_t(position_), r->word[0], r->word[1]);
      r->flag = 0;
    } else if (r->command == FourCC("ADVS")) {
      // A read-ahead hint; reads go straight to the disk here anyway.
    } else if (r->command == FourCC("DFRG") || r->command == FourCC("SFTM")) {
      if (!writable_) THROW_ERROR(ReadOnly);
      object_->IOCTL(request);
    } else {
      object_->IOCTL(request);
    }
  });
}

// ---- cursors

FileSystemDriver::IteratorReference::IteratorReference(FileSystemDriver& driver, IteratorObject* object)
    : driver_(&driver), object_(object) {
  if (object_ == nullptr) SetError(ERROR_HERE, EndOfFile);
}

FileSystemDriver::IteratorReference::~IteratorReference() {
  if (object_ == nullptr) return;
  NewHandlerGuard guard;
  FsLockGuard lock(driver_->DriverLock());
  delete object_;
}

void FileSystemDriver::IteratorReference::End() {
  delete object_;
  object_ = nullptr;
  SetError(ERROR_HERE, EndOfFile);
}

template <typename T, typename F>
T FileSystemDriver::IteratorReference::Query(F&& body) {
  if (HasError()) return T{};
  if (object_ == nullptr) {
    SetError(ERROR_HERE, EndOfFile);
    return T{};
  }
  NewHandlerGuard guard;
  FsLockGuard lock(driver_->DriverLock());
  try {
    return body();
  } catch (const Common::Error& e) {
    SetError(e);
  } catch (const std::bad_alloc&) {
    SetError(ERROR_HERE, NotEnoughMemory);
  }
  return T{};
}

void FileSystemDriver::IteratorReference::Next() {
  Query<int>([&] {
    if (!object_->Next()) End();
    return 0;
  });
}

file_identifier* FileSystemDriver::IteratorReference::GetIdentifier() {
  return Query<file_identifier*>([&] { return object_->GetIdentifier(); });
}
std::u16string FileSystemDriver::IteratorReference::FileName() {
  return Query<std::u16string>([&] { return object_->FileName(); });
}
const char16_t* FileSystemDriver::IteratorReference::ShortName() {
  return Query<const char16_t*>([&]() -> const char16_t* {
    const char16_t* s = object_->ShortName();
    if (s == nullptr) return nullptr;
    shortName_ = s;
    return shortName_.c_str();
  });
}
uint64_t FileSystemDriver::IteratorReference::Size() {
  return Query<uint64_t>([&] { return object_->Size(); });
}
uint64_t FileSystemDriver::IteratorReference::SizeOnDisk() {
  return Query<uint64_t>([&] { return object_->SizeOnDisk(); });
}
uint32_t FileSystemDriver::IteratorReference::FileType() {
  return Query<uint32_t>([&] { return object_->FileType(); });
}
uint64_t FileSystemDriver::IteratorReference::ModificationTime() {
  return Query<uint64_t>([&] { return object_->ModificationTime(); });
}
uint64_t FileSystemDriver::IteratorReference::StatusChangeTime() {
  return Query<uint64_t>([&] { return object_->StatusChangeTime(); });
}
uint64_t FileSystemDriver::IteratorReference::CreationTime() {
  return Query<uint64_t>([&] { return object_->CreationTime(); });
}
uint64_t FileSystemDriver::IteratorReference::AccessTime() {
  return Query<uint64_t>([&] { return object_->AccessTime(); });
}
uint32_t FileSystemDriver::IteratorReference::DOSAttributes() {
  return Query<uint32_t>([&] { return object_->DOSAttributes(); });
}
uint32_t FileSystemDriver::IteratorReference::UnixPermissions() {
  return Query<uint32_t>([&] { return object_->UnixPermissions(); });
}
bool FileSystemDriver::IteratorReference::IsHidden() {
  return Query<bool>([&] { return object_->IsHidden(); });
}
uint32_t FileSystemDriver::IteratorReference::OwnerID() {
  return Query<uint32_t>([&] { return object_->OwnerID(); });
}
uint32_t FileSystemDriver::IteratorReference::GroupID() {
  return Query<uint32_t>([&] { return object_->GroupID(); });
}
uint32_t FileSystemDriver::IteratorReference::HardLinkCount() {
  return Query<uint32_t>([&] { return object_->HardLinkCount(); });
}
uint32_t FileSystemDriver::IteratorReference::DeviceMajor() {
  return Query<uint32_t>([&] { return object_->DeviceMajor(); });
}
uint32_t FileSystemDriver::IteratorReference::DeviceMinor() {
  return Query<uint32_t>([&] { return object_->DeviceMinor(); });
}
uint64_t FileSystemDriver::IteratorReference::InodeId() {
  return Query<uint64_t>([&] { return object_->InodeId(); });
}
const char16_t* FileSystemDriver::IteratorReference::SymbolicLinkTarget() {
  return Query<const char16_t*>([&]() -> const char16_t* {
    const char16_t* s = object_->SymbolicLinkTarget();
    if (s == nullptr) return nullptr;
    linkTarget_ = s;
    return linkTarget_.c_str();
  });
}

void FileSystemDriver::IteratorReference::IOCTL(void* request) {
  Query<int>([&] {
    auto* r = static_cast<FsRequest*>(request);
    if (r == nullptr || r->command != FourCC("GPHL")) THROW_ERROR(Common::Codes::NotSupported);
    r->word[0] = object_->GetPhysLocation();
    return 0;
  });
}

FileSystemDriver::RootSelfIterator::RootSelfIterator(FileSystemDriver& driver, std::u16string name)
    : driver_(&driver), name_(std::move(name)), rootId_(driver.GetRootId()) {}

void FileSystemDriver::RootSelfIterator::Next() {
  if (!HasError()) SetError(ERROR_HERE, Common::Codes::NotSupported);
}

file_identifier* FileSystemDriver::RootSelfIterator::GetIdentifier() {
  if (HasError()) return nullptr;
  return new (std::nothrow) the_identifier(name_, nullptr, 0);
}

std::u16string FileSystemDriver::RootSelfIterator::FileName() {
  return HasError() ? std::u16string() : name_;
}
