#include "file/dir.h"

#include "file/utils.h"

using namespace Common::Codes;

namespace {

bool IsMissing(const char16_t* name) { return name == nullptr || name[0] == 0; }
bool IsMissing(const void* object) { return object == nullptr; }

// Opening and changing calls throw on a missing argument...
template <typename T>
void Require(const T* argument, uint32_t code, const Common::ErrorLocation& where) {
  if (IsMissing(argument)) throw Common::MakeError(where, code);
}

// ...directory openings record it instead; true if it was missing.
template <typename T>
bool RecordMissing(file_object& dir, const T* argument, const Common::ErrorLocation& where) {
  if (!IsMissing(argument)) return false;
  dir.SetError(where, OpenError);
  return true;
}

}  // namespace

// i_dir

ri_file* i_dir::Open(const char16_t* name, bool noCache) {
  Require(name, OpenError, ERROR_HERE);
  return DoOpen(name, noCache);
}

ri_file* i_dir::Open(iterator* entry, bool noCache) {
  Require(entry, OpenError, ERROR_HERE);
  return DoOpen(entry, noCache);
}

ri_file* i_dir::Open(const file_identifier* id, bool noCache) {
  Require(id, OpenError, ERROR_HERE);
  return DoOpen(id, noCache);
}

i_dir* i_dir::OpenDir(const char16_t* name) {
  if (RecordMissing(*this, name, ERROR_HERE)) return nullptr;
  return DoOpenDir(name);
}

i_dir* i_dir::OpenDir(iterator* entry) {
  if (RecordMissing(*this, entry, ERROR_HERE)) return nullptr;
  return DoOpenDir(entry);
}

i_dir* i_dir::OpenDir(const file_identifier* id) {
  if (RecordMissing(*this, id, ERROR_HERE)) return nullptr;
  return DoOpenDir(id);
}

i_dir::iterator* i_dir::GetIterator(const char16_t* name) {
  if (!IsSimpleName(name)) THROW_ERROR(OpenError);
  return DoGetIterator(name);
}

i_dir::iterator* i_dir::GetIterator(const file_identifier* id) {
  if (RecordMissing(*this, id, ERROR_HERE)) return nullptr;
  return DoGetIterator(id);
}

i_dir* i_dir::OpenSpecialDir() {
  SetError(ERROR_HERE, Common::Codes::NotSupported);
  return nullptr;
}

void i_dir::GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) {
  total = free = available = 0;
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}

void i_dir::GetVolumeLabel(char16_t* buffer, uint32_t length) {
  if (length != 0 && buffer != nullptr) buffer[0] = 0;
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}

void i_dir::EnableNotification() { SetError(ERROR_HERE, Common::Codes::NotSupported); }

std::pair<i_dir*, file_identifier*> i_dir::ResolveSymLinks(const file_identifier* id) {
  i_dir* self = OpenDir(u".");
  if (id == nullptr) return {self, nullptr};
  file_identifier* copy = id->Clone();
  if (copy == nullptr) {
    delete self;
    THROW_ERROR(NotEnoughMemory);
  }
  return {self, copy};
}

// o_dir

ro_file* o_dir::Open(const char16_t* name, bool noCache) {
  Require(name, OpenError, ERROR_HERE);
  return DoOpenForWrite(name, noCache);
}

void o_dir::Remove(const char16_t* name) {
  Require(name, DeleteError, ERROR_HERE);
  DoRemove(name);
}

void o_dir::Rename(const char16_t* oldName, const char16_t* newName) {
  Require(oldName, RenameError, ERROR_HERE);
  Require(newName, RenameError, ERROR_HERE);
  DoRename(oldName, newName);
}

ro_file* o_dir::Create(const char16_t* name, bool noCache) {
  Require(name, CreateError, ERROR_HERE);
  return DoCreate(name, noCache);
}

ro_dir* o_dir::OpenDir(const char16_t* name) {
  if (RecordMissing(*this, name, ERROR_HERE)) return nullptr;
  return DoOpenDir(name);
}

void o_dir::CreateHardLink(const char16_t*, const char16_t*) { SetError(ERROR_HERE, Common::Codes::NotSupported); }
void o_dir::CreateSymLink(const char16_t*, const char16_t*) { SetError(ERROR_HERE, Common::Codes::NotSupported); }
void o_dir::SetAccessRights(const char16_t*, const void*, uint32_t) {
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}
void o_dir::SetDOSAttributes(const char16_t*, uint32_t) { SetError(ERROR_HERE, Common::Codes::NotSupported); }
void o_dir::SetUnixPermissions(const char16_t*, uint32_t) { SetError(ERROR_HERE, Common::Codes::NotSupported); }
void o_dir::SetUnixOwner(const char16_t*, uint32_t, uint32_t) {
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}
void o_dir::CreateDeviceNode(const char16_t*, uint32_t, uint32_t, uint32_t, uint32_t) {
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}

// rio_dir

rio_file* rio_dir::OpenForWrite(const char16_t* name, bool noCache) {
  Require(name, OpenError, ERROR_HERE);
  return DoOpenForWrite(name, noCache);
}

rio_file* rio_dir::OpenForWrite(iterator* entry, bool noCache) {
  Require(entry, OpenError, ERROR_HERE);
  return DoOpenForWrite(entry, noCache);
}

rio_file* rio_dir::OpenForWrite(const file_identifier* id, bool noCache) {
  Require(id, OpenError, ERROR_HERE);
  return DoOpenForWrite(id, noCache);
}

rio_file* rio_dir::Create(const char16_t* name, bool noCache) {
  Require(name, CreateError, ERROR_HERE);
  return DoCreate(name, noCache);
}

rio_dir* rio_dir::OpenDir(const char16_t* name) {
  return static_cast<rio_dir*>(ri_dir::OpenDir(name));
}

rio_dir* rio_dir::OpenDir(iterator* entry) {
  return static_cast<rio_dir*>(ri_dir::OpenDir(entry));
}

rio_dir* rio_dir::OpenDir(const file_identifier* id) {
  return static_cast<rio_dir*>(ri_dir::OpenDir(id));
}

// nocache_dir

rio_file* nocache_dir::OpenNoCache(const char16_t* name, int mode, bool shared) {
  if (!IsSimpleName(name)) THROW_ERROR(mode == kOpenExisting ? OpenError : CreateError);
  return DoOpenNoCache(name, mode, shared);
}
