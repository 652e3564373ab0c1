// The directory faces: how callers walk and change a directory without
// knowing the file system behind it.
//
// Objects handed out by Open, OpenDir, OpenPath, Create, GetIterator and
// Clone belong to the caller, who deletes them through their virtual
// destructor (wrap them in a unique_ptr or shared_ptr at once).  A null
// result means that the reason was recorded in the directory's state or
// thrown.
//
// Operations whose arguments have rules are non-virtual: the face checks the
// argument and throws or records the failure itself, so every file system
// behaves the same on a bad name.  Implementations supply the Do* hooks,
// which only ever see checked arguments.  (GetIterator() goes through a hook
// too, so that no implementation hides its overloads.)
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "file/file.h"

// File-type codes of FileType.  Values with bit 128 set are directory-like.
namespace FileTypes {
inline constexpr uint32_t Regular = 0;
inline constexpr uint32_t CharDevice = 1;
inline constexpr uint32_t BlockDevice = 2;
inline constexpr uint32_t Fifo = 3;
inline constexpr uint32_t Socket = 4;
inline constexpr uint32_t SymbolicLink = 5;
inline constexpr uint32_t Directory = 128;
inline constexpr uint32_t RootEntry = 131;
inline constexpr uint32_t UnknownDirectory = 137;
inline constexpr uint32_t DriveEntry = 138;

inline constexpr bool IsDirectoryLike(uint32_t type) { return (type & 128) != 0; }
}  // namespace FileTypes

// "The file system does not have the value" for the 32-bit attribute queries.
inline constexpr uint32_t kNoAttributeValue = 0xffffffff;

// An opaque identity of an object inside a file system.
class file_identifier {
 public:
  virtual ~file_identifier() = default;
  // A new identifier for the same object, or null when memory ran out.
  virtual file_identifier* Clone() const = 0;

 protected:
  file_identifier() = default;
  file_identifier(const file_identifier&) = default;
  file_identifier& operator=(const file_identifier&) = default;
};

// Handle of a restore operation of a file-system driver.
class file_restore_object {
 public:
  virtual ~file_restore_object() = default;
  virtual Common::Error Restore() = 0;
};

class i_dir : public virtual file_object {
 public:
  class iterator;

  // Opens a file for reading.  A null or empty name, a null iterator or a
  // null identifier throws 0x40007.
  ri_file* Open(const char16_t* name, bool noCache);
  ri_file* Open(iterator* entry, bool noCache);
  ri_file* Open(const file_identifier* id, bool noCache);

  // A null or empty argument records 0x40007 and gives null; no throw.
  i_dir* OpenDir(const char16_t* name);
  i_dir* OpenDir(iterator* entry);
  i_dir* OpenDir(const file_identifier* id);

  // Opens the directory named by every component of `path` but the last and
  // moves `path` to the last one.
  virtual i_dir* OpenPath(const char16_t*& path) = 0;
  // A new handle on this directory.
  virtual i_dir* OpenSelf() { return nullptr; }
  virtual i_dir* OpenSpecialDir();

  // A cursor on the first entry.
  iterator* GetIterator() { return DoGetIterator(); }
  // A cursor on the named entry; a name that is not one path component
  // throws 0x40007.
  iterator* GetIterator(const char16_t* name);
  // A null identifier records 0x40007 and gives null; no throw.
  iterator* GetIterator(const file_identifier* id);
  // A cursor on this directory's own entry, for its attributes.
  virtual iterator* GetSelfIterator() = 0;

  // The path with a closing separator.
  virtual std::u16string GetPath() = 0;
  // 0: the same directory; 1: `other` lies below this one; 2: unrelated or
  // null.
  virtual int Compare(i_dir* other) = 0;
  // The file system's own ordering of two entries' names.
  virtual int CompareNames(const file_identifier* a, const file_identifier* b) = 0;
  virtual uint32_t FileType() { return FileTypes::UnknownDirectory; }
  // Zeroes the three values and records "The operation is not supported.".
  virtual void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available);
  // Empties the buffer (if `length` is not 0) and records "The operation is
  // not supported.".
  virtual void GetVolumeLabel(char16_t* buffer, uint32_t length);
  virtual bool IsPathSeparator(char16_t c) { return c == u'/'; }
  virtual char16_t GetPathSeparator() { return u'/'; }
  virtual int64_t Reserved1() { return 0; }
  virtual void EnableNotification();
  virtual void DisableNotification() {}
  // This directory, opened anew as OpenDir("."), paired with a clone of `id`
  // (null when `id` is null).  A failed clone throws 0x40006.
  virtual std::pair<i_dir*, file_identifier*> ResolveSymLinks(const file_identifier* id);
  virtual int64_t Reserved2() { return 0; }
  virtual std::pair<i_dir*, file_identifier*> Reserved3() { return {nullptr, nullptr}; }
  virtual int64_t Reserved4() { return 0; }

 protected:
  virtual ri_file* DoOpen(const char16_t* name, bool noCache) = 0;
  virtual ri_file* DoOpen(iterator* entry, bool noCache) = 0;
  virtual ri_file* DoOpen(const file_identifier* id, bool noCache) = 0;
  virtual i_dir* DoOpenDir(const char16_t* name) = 0;
  virtual i_dir* DoOpenDir(iterator* entry) = 0;
  virtual i_dir* DoOpenDir(const file_identifier* id) = 0;
  virtual iterator* DoGetIterator() = 0;
  virtual iterator* DoGetIterator(const char16_t* name) = 0;
  virtual iterator* DoGetIterator(const file_identifier* id) = 0;
};

// A cursor over directory entries.  It stands on an entry from the moment it
// is created; Next past the last entry records 0x40002, and so does any
// query on a cursor without an entry.
class i_dir::iterator : public virtual file_object {
 public:
  virtual void Next() = 0;
  // A new identifier of the entry.
  virtual file_identifier* GetIdentifier() = 0;
  virtual std::u16string FileName() = 0;
  // Pointers that these queries give stay valid until the next operation
  // on the cursor.
  // The short (8.3) name, or null.
  virtual const char16_t* ShortName() { return nullptr; }
  virtual std::u16string LongName() { return FileName(); }
  virtual int64_t Reserved1() { return 0; }
  virtual uint64_t Size() = 0;
  virtual uint64_t SizeOnDisk() { return Size(); }
  virtual uint32_t FileType() = 0;
  virtual uint64_t ModificationTime() { return 0; }
  virtual uint64_t StatusChangeTime() { return 0; }
  virtual uint64_t CreationTime() { return 0; }
  virtual uint64_t AccessTime() { return 0; }
  virtual uint32_t DOSAttributes() { return kNoAttributeValue; }
  virtual uint32_t UnixPermissions() { return kNoAttributeValue; }
  virtual bool IsHidden() { return false; }
  virtual uint32_t OwnerID() { return kNoAttributeValue; }
  virtual uint32_t GroupID() { return kNoAttributeValue; }
  virtual int64_t Reserved2() { return 0; }
  virtual uint32_t HardLinkCount() { return 1; }
  virtual uint32_t DeviceMajor() { return 0; }
  virtual uint32_t DeviceMinor() { return 0; }
  virtual int64_t Reserved3() { return 1; }
  virtual uint64_t InodeId() { return 0; }
  // The target of a symbolic link, or null.
  virtual const char16_t* SymbolicLinkTarget() { return nullptr; }
};

class si_dir : public i_dir {};
class ri_dir : public si_dir {};

class ro_dir;

class o_dir : public virtual file_object {
 public:
  // Opens a file for writing.  A null or empty name throws 0x40007.
  ro_file* Open(const char16_t* name, bool noCache);
  // A null or empty name throws 0x40008.
  void Remove(const char16_t* name);
  // A null or empty name on either side throws 0x40009.
  void Rename(const char16_t* oldName, const char16_t* newName);
  virtual void CreateHardLink(const char16_t* name, const char16_t* existingPath);
  virtual void CreateSymLink(const char16_t* name, const char16_t* target);
  virtual void CreateDir(const char16_t* name) = 0;
  virtual void RemoveDir(const char16_t* name) = 0;
  virtual void SetAccessRights(const char16_t* name, const void* descriptor, uint32_t size);
  virtual void SetDOSAttributes(const char16_t* name, uint32_t attributes);
  virtual void SetUnixPermissions(const char16_t* name, uint32_t mode);
  virtual void SetUnixOwner(const char16_t* name, uint32_t owner, uint32_t group);
  virtual void CreateDeviceNode(const char16_t* name, uint32_t mode, uint32_t kind,
                                uint32_t major, uint32_t minor);
  // A null or empty name throws 0x4000a.
  ro_file* Create(const char16_t* name, bool noCache);
  // A null or empty name records 0x40007 and gives null; no throw.
  ro_dir* OpenDir(const char16_t* name);
  virtual ro_dir* OpenPath(const char16_t*& path) = 0;

 protected:
  virtual ro_file* DoOpenForWrite(const char16_t* name, bool noCache) = 0;
  virtual void DoRemove(const char16_t* name) = 0;
  virtual void DoRename(const char16_t* oldName, const char16_t* newName) = 0;
  virtual ro_file* DoCreate(const char16_t* name, bool noCache) = 0;
  virtual ro_dir* DoOpenDir(const char16_t* name) = 0;
};

class ro_dir : public o_dir {};

// A directory that reads and writes.  Open keeps its reading meaning here;
// OpenForWrite gives the writing forms.  OpenDir, OpenPath and Create give
// the full faces.
class rio_dir : public ri_dir, public ro_dir {
 public:
  using ri_dir::Open;

  // Opens a file for writing; argument rules as for Open.
  rio_file* OpenForWrite(const char16_t* name, bool noCache);
  rio_file* OpenForWrite(iterator* entry, bool noCache);
  rio_file* OpenForWrite(const file_identifier* id, bool noCache);
  // A null or empty name throws 0x4000a.
  rio_file* Create(const char16_t* name, bool noCache);

  rio_dir* OpenDir(const char16_t* name);
  rio_dir* OpenDir(iterator* entry);
  rio_dir* OpenDir(const file_identifier* id);
  rio_dir* OpenPath(const char16_t*& path) override = 0;
  // OpenDir(".").
  rio_dir* OpenSelf() override { return OpenDir(u"."); }

 protected:
  rio_file* DoOpenForWrite(const char16_t* name, bool noCache) override = 0;
  virtual rio_file* DoOpenForWrite(iterator* entry, bool noCache) = 0;
  virtual rio_file* DoOpenForWrite(const file_identifier* id, bool noCache) = 0;
  rio_file* DoCreate(const char16_t* name, bool noCache) override = 0;
  rio_dir* DoOpenDir(const char16_t* name) override = 0;
  rio_dir* DoOpenDir(iterator* entry) override = 0;
  rio_dir* DoOpenDir(const file_identifier* id) override = 0;
};

// Opening past the file-system cache.
class nocache_dir : public virtual file_object {
 public:
  static constexpr int kOpenExisting = 1;

  // Mode kOpenExisting opens an existing file, any other mode creates one.
  // A name that is not one path component throws 0x40007 when opening and
  // 0x4000a when creating.  The file is open for writing; `shared` lets
  // others open it too.
  rio_file* OpenNoCache(const char16_t* name, int mode, bool shared);
  // The driver's sector size, which no-cache transfers must align to.
  virtual uint32_t GetSectorSize() = 0;

 protected:
  virtual rio_file* DoOpenNoCache(const char16_t* name, int mode, bool shared) = 0;
};
