// FileSystemDriver: the base of every file-system driver.
//
// A concrete driver knows its on-disk format through three families of
// objects (directory, file, iterator) and a few volume-level operations.
// The base does the rest once for all: a sector-buffer cache shared between
// drivers, caches of directory objects and of path-to-directory lookups,
// the counted handles that callers hold as streams and cursors, reads that
// bypass the cache, and the rule that decides whether a file may be opened
// a second time.  The flavours (filesys_posix.h, filesys_win.h) add path
// syntax; mount_handler.h decides which driver is created.
//
// Lifetime: every handle a caller holds (directory reference, file
// reference, iterator) counts on the driver; the last one deletes it, and
// with it the disk when the driver owns it.  Directory objects are cached
// with a count of their own and survive unreferenced until the cache bound
// removes them.
//
// Locks: the order is driver lock, cache lock, buffer lock.  The program is
// single-threaded and the lock operations are empty, but the order is kept
// so that the design stays correct on a threaded host.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "common/error.h"
#include "common/error_codes.h"
#include "fdisk/ver2/simpdisk.h"
#include "file/dir.h"

// An empty lock that documents the order in which locks are taken.
class FsLock {
 public:
  void Acquire() noexcept {}
  void Release() noexcept {}
};

class FsLockGuard {
 public:
  explicit FsLockGuard(FsLock& lock) noexcept : lock_(lock) { lock_.Acquire(); }
  ~FsLockGuard() { lock_.Release(); }
  FsLockGuard(const FsLockGuard&) = delete;
  FsLockGuard& operator=(const FsLockGuard&) = delete;

 private:
  FsLock& lock_;
};

// Turns the allocator's out-of-memory failure into "Not enough memory to
// complete the operation." for the life of the scope.
class NewHandlerGuard {
 public:
  NewHandlerGuard();
  ~NewHandlerGuard();
  NewHandlerGuard(const NewHandlerGuard&) = delete;
  NewHandlerGuard& operator=(const NewHandlerGuard&) = delete;

 private:
  void (*previous_)();
};

class ReferenceCount {
 public:
  virtual ~ReferenceCount() = default;
  uint32_t AddRef() noexcept { return ++count_; }
  // The new count; the caller decides what 0 means.
  uint32_t ReleaseRef() noexcept { return --count_; }
  uint32_t RefCount() const noexcept { return count_.load(); }

 protected:
  ReferenceCount() = default;
  ReferenceCount(const ReferenceCount&) = delete;
  ReferenceCount& operator=(const ReferenceCount&) = delete;

 private:
  std::atomic<uint32_t> count_{0};
};

// An intrusive link of a doubly linked list, kept inside the object.
template <typename T>
struct LRUList {
  T* lruPrev = nullptr;
  T* lruNext = nullptr;
  bool lruLinked = false;
};

// A list of objects that carry an LRUList<T> link, oldest first.
template <typename T>
class LRUChain {
 public:
  T* Oldest() const { return head_; }
  T* Newest() const { return tail_; }
  size_t Count() const { return count_; }
  void PushNewest(T* item) {
    item->lruPrev = tail_;
    item->lruNext = nullptr;
    if (tail_) tail_->lruNext = item; else head_ = item;
    tail_ = item;
    item->lruLinked = true;
    ++count_;
  }
  void Remove(T* item) {
    if (!item->lruLinked) return;
    if (item->lruPrev) item->lruPrev->lruNext = item->lruNext; else head_ = item->lruNext;
    if (item->lruNext) item->lruNext->lruPrev = item->lruPrev; else tail_ = item->lruPrev;
    item->lruPrev = item->lruNext = nullptr;
    item->lruLinked = false;
    --count_;
  }
  void MoveNewest(T* item) {
    Remove(item);
    PushNewest(item);
  }

 private:
  T* head_ = nullptr;
  T* tail_ = nullptr;
  size_t count_ = 0;
};

class FileSystemDriver;

// A mounted volume as the mount table sees it.  Handlers with a non-zero
// id are registered process-wide for lookup by id.
class FileSystemMountHandler : public ReferenceCount {
 public:
  // Flag bit: the handler owns the disk and deletes it at the end.
  static constexpr uint32_t kOwnsDisk = 2;

  explicit FileSystemMountHandler(uint32_t handlerId);
  ~FileSystemMountHandler() override;

  uint32_t HandlerId() const { return handlerId_; }
  uint32_t flags = 0;

  // The root directory of the volume; the caller owns it.
  virtual rio_dir* OpenRootDir() = 0;

  static FileSystemMountHandler* FindHandler(uint32_t handlerId);

 private:
  uint32_t handlerId_;
};

// Request records of the IOCTL operations of the framework: a
// four-character command read as a little-endian word, then the command's
// own words.
inline constexpr uint32_t FourCC(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
         uint32_t(uint8_t(s[3])) << 24;
}
struct FsRequest {
  uint32_t command;
  uint32_t flag;        // "GSEC": cleared by the handler
  uint64_t word[4];     // command-specific values
  char16_t text[16];    // "GFST": the file-system type
};

// One cached run of sectors.  The header sits directly in front of the
// data; a handle to a buffer is a pointer to its data.
struct SectorBuffer {
  SectorBuffer* prev;        // the cache's release order
  SectorBuffer* next;
  uint32_t refCount;
  uint8_t dirty;
  FileSystemDriver* driver;
  uint64_t firstSector;
  uint32_t sectorCount;
  void* raw;                 // the allocation that holds header and data

  uint8_t* Data() { return reinterpret_cast<uint8_t*>(this + 1); }
  static SectorBuffer* Of(const void* data) {
    return reinterpret_cast<SectorBuffer*>(const_cast<void*>(data)) - 1;
  }
};
static_assert(sizeof(SectorBuffer) == 56);

// What the cache accounts for a buffer of `sectors` sectors: the whole
// allocation, one sector more than the data and the header.
inline uint64_t AccountedBufferSize(uint32_t sectors, uint32_t sectorSize) {
  return 55 + (uint64_t(sectors) + 1) * sectorSize;
}

// The drivers' counted handle on a buffer.
class SectorBufferRef {
 public:
  SectorBufferRef() = default;
  explicit SectorBufferRef(SectorBuffer* adopted) noexcept : buffer_(adopted) {}
  SectorBufferRef(const SectorBufferRef& other) noexcept;
  SectorBufferRef(SectorBufferRef&& other) noexcept : buffer_(other.buffer_) { other.buffer_ = nullptr; }
  SectorBufferRef& operator=(SectorBufferRef other) noexcept {
    std::swap(buffer_, other.buffer_);
    return *this;
  }
  ~SectorBufferRef() { Reset(); }

  void Reset() noexcept;
  explicit operator bool() const { return buffer_ != nullptr; }
  uint8_t* Data() const { return buffer_->Data(); }
  uint64_t FirstSector() const { return buffer_->firstSector; }
  uint32_t SectorCount() const { return buffer_->sectorCount; }
  SectorBuffer* Get() const { return buffer_; }

 private:
  SectorBuffer* buffer_ = nullptr;
};

// The identifier that drivers hand out: the entry's wide name and
// driver-private bytes, in a shared counted record.
class the_identifier final : public file_identifier {
 public:
  the_identifier(const std::u16string& name, const void* data, size_t size);
  the_identifier(const the_identifier& other) noexcept;
  the_identifier& operator=(const the_identifier&) = delete;
  ~the_identifier() override;
  // Null only when memory ran out.
  file_identifier* Clone() const override;

  const std::u16string& Name() const;
  const uint8_t* Data() const;
  size_t DataSize() const;

 private:
  struct Record;
  static Record* SharedEmptyRecord();
  Record* rec_;
};

class FileSystemDriver : public FileSystemMountHandler {
 public:
  class FileObject;
  class DirectoryObject;
  class IteratorObject;
  class FileReference;
  class IteratorReference;
  class RootSelfIterator;
  class FileSystemCache;

  // A counted hold on a directory object that never deletes it: cached
  // directories outlive their last hold until the cache bound drops them.
  class DirHold {
   public:
    DirHold() = default;
    explicit DirHold(DirectoryObject* d) noexcept;
    DirHold(const DirHold& other) noexcept : DirHold(other.dir_) {}
    DirHold& operator=(DirHold other) noexcept {
      std::swap(dir_, other.dir_);
      return *this;
    }
    ~DirHold();
    DirectoryObject* operator->() const { return dir_; }
    DirectoryObject* Get() const { return dir_; }

   private:
    DirectoryObject* dir_ = nullptr;
  };

  // `sectors` is the volume's size; `startSector` is added to every sector
  // number before it reaches the disk.  Drivers with the same `cacheId`
  // share one cache.
  FileSystemDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                   uint32_t handlerId, uint32_t cacheId = 0);
  ~FileSystemDriver() override;

  // ---- operations of the volume
  virtual void Flush();
  virtual rio_dir* OpenDirReference(const std::u16string& path) = 0;
  virtual void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) = 0;
  // A terminated string of at most `capacity` units, terminator included.
  virtual void GetVolumeLabel(char16_t* buffer, uint32_t capacity) = 0;
  virtual int CompareNames(const file_identifier* a, const file_identifier* b) = 0;
  // Rewrites a name in place before lookup and caching (case folding).
  virtual void NormalizeName(std::u16string& name) {}
  virtual void IOCTL(void* request);
  virtual void PrepareToWrite();
  // Id 0 is always the root directory.  The caller inserts the result in
  // the directory cache (GetDirectory).
  virtual DirectoryObject* OpenDirById(uint64_t id) = 0;
  // "FAT16", "FAT32", "NTFS", "Ext2", ...
  virtual const char* FSType() = 0;
  // Extra zero bytes behind each buffer's data.
  virtual uint32_t GetBufferPadding() { return 0; }
  virtual void FlushBuffers();
  virtual uint64_t GetRootId() = 0;

  // ---- services for drivers (the caller holds the driver lock)
  // `count` sectors at volume sector `sector`, read unless `noRead`.  A
  // buffer that begins at the same sector is reused whatever its length.
  SectorBufferRef GetBuffer(uint64_t sector, uint32_t count, bool noRead = false);
  // Sectors into any caller buffer.  For a buffer that is not aligned to
  // the sector size, the sectors are read in whole clusters of
  // `clusterSectors` counted from `clusterBase`, and the last cluster comes
  // through the cache.
  void ReadNoCache(void* buffer, uint64_t sector, uint64_t count, uint32_t clusterSectors,
                   uint64_t clusterBase);
  // The same into a buffer aligned to the sector size.  Cached sectors win
  // over the disk, dirty ones included.
  void ReadNoCacheAligned(void* buffer, uint64_t sector, uint64_t count);
  // Writes around the cache; cached copies are updated and marked dirty.
  void WriteNoCache(const void* buffer, uint64_t sector, uint64_t count);

  // The directory object of an internal path ("/" separators, beginning
  // with "/"), through the path map and the directory cache.
  DirHold GetDirectoryObject(const std::u16string& path);
  DirHold GetDirectory(uint64_t id);
  // A new open file under the open rule; the caller owns it.
  FileReference* NewFileReference(FileObject* object, bool writable, bool shared);

  uint32_t SectorSize() const { return sectorSize_; }
  uint64_t VolumeSectors() const { return volumeSectors_; }
  uint64_t StartSector() const { return startSector_; }
  Fdisk::SimpleDisk* Disk() const { return disk_; }
  Fdisk::SimpleDisk* BaseDisk() const { return baseDisk_; }
  FsLock& DriverLock() { return driverLock_; }
  // Reads go through `overlay` from now on (a replayed journal); the
  // driver owns it, and PrepareToWrite commits it before the first write.
  void UseOverlay(Fdisk::SimpleDisk* overlay);

  // Counts for tests and tools.
  size_t CachedBufferCount() const { return buffers_.size(); }
  size_t DirectoryObjectCount() const { return directories_.size(); }
  size_t PathMapSize() const { return pathMap_.size(); }
  uint64_t CacheTotal() const;

  // The bounds of the caches.
  static constexpr uint64_t kCacheLimit = 0x400000;
  static constexpr size_t kMaxIdleDirectories = 8;
  static constexpr size_t kMaxPathMapEntries = 256;

 protected:
  // Drops directory objects, the path map and every buffer.  A concrete
  // driver calls it first in its destructor, while its own parts still
  // exist for the objects' destructors.
  void ReleaseObjects();

  // The disk in use (a journal overlay may stand in for the base disk).
  Fdisk::SimpleDisk* disk_;

 private:
  friend class SectorBufferRef;
  friend class DirectoryObject;
  friend class FileReference;

  void ReleaseBuffer(SectorBuffer* buffer);
  void FreeBuffer(SectorBuffer* buffer);
  void GuardedFlushBuffers();
  void EvictFromCache();
  void TrimDirectories();
  void WriteProbe(SectorBuffer* buffer);

  uint64_t volumeSectors_;
  uint32_t sectorSize_;
  std::map<uint64_t, SectorBuffer*> buffers_;
  Fdisk::SimpleDisk* baseDisk_;
  uint64_t startSector_;
  bool written_ = false;
  std::map<uint64_t, DirectoryObject*> directories_;
  std::map<std::u16string, uint64_t> pathMap_;
  FsLock driverLock_;
  FsLock bufferLock_;
  LRUChain<DirectoryObject> directoryList_;
  bool flushing_ = false;
  LRUChain<FileObject> writableFiles_;
  FileSystemCache* cache_;
};

// A counted handle on a driver; the last one deletes the driver.
class DriverRef {
 public:
  DriverRef() = default;
  explicit DriverRef(FileSystemDriver* d) noexcept : d_(d) {
    if (d_) d_->AddRef();
  }
  DriverRef(const DriverRef& o) noexcept : DriverRef(o.d_) {}
  DriverRef& operator=(DriverRef o) noexcept {
    std::swap(d_, o.d_);
    return *this;
  }
  ~DriverRef() { Reset(); }
  void Reset() noexcept;
  FileSystemDriver* operator->() const { return d_; }
  FileSystemDriver* Get() const { return d_; }

 private:
  FileSystemDriver* d_ = nullptr;
};

class FileSystemDriver::FileObject : public LRUList<FileObject> {
 public:
  virtual ~FileObject() = default;
  virtual uint64_t GetSize() = 0;
  // The first volume sector of the data at `offset` and the length of the
  // contiguous run from there; `count` 0 means no mapping.
  virtual void GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) = 0;
  // Short at the end of the file.
  virtual void Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) = 0;
  // Writing and the rest raise "The operation is not supported." unless
  // the driver writes.
  virtual void Write(const void* buffer, uint64_t offset, uint64_t size, uint64_t& written);
  virtual void Truncate(uint64_t size);
  virtual void SetTime(uint64_t created, uint64_t accessed, uint64_t modified);
  // Called when the last writer closes and by the driver's Flush.
  virtual void Flush() {}
  virtual void IOCTL(void* request);

  uint32_t openRefs = 0;
  uint32_t writers = 0;
  uint32_t exclusive = 0;
};

class FileSystemDriver::DirectoryObject : public ReferenceCount, public LRUList<DirectoryObject> {
 public:
  DirectoryObject(FileSystemDriver& driver, uint64_t id);
  ~DirectoryObject() override;

  // A cursor on the first entry; null when the directory has none.
  virtual IteratorObject* GetIterator() = 0;
  // A cursor on the named entry; raises when it is absent.
  virtual IteratorObject* GetIterator(const std::u16string& name) = 0;
  virtual IteratorObject* GetIterator(const file_identifier* id) = 0;
  // The child directory's id; raises if the name is absent or no directory.
  virtual uint64_t FindSubdir(const std::u16string& name) = 0;
  virtual FileObject* Open(const std::u16string& name) = 0;
  virtual FileObject* Open(IteratorObject* position) = 0;
  virtual FileObject* Open(const file_identifier* id) = 0;
  // The changing operations; a driver that does not write keeps these.
  virtual FileObject* Create(const std::u16string& name);
  virtual void Remove(const std::u16string& name);
  virtual void RemoveDir(const std::u16string& name);
  virtual void CreateDir(const std::u16string& name);
  virtual void Rename(const std::u16string& from, const std::u16string& to);
  virtual void CreateHardLink(const std::u16string& name, const std::u16string& existing);
  virtual void CreateSymLink(const std::u16string& name, const std::u16string& target);
  virtual void SetDOSAttributes(const std::u16string& name, uint32_t attributes);
  virtual void SetUnixPermissions(const std::u16string& name, uint32_t mode);
  virtual void SetUnixOwner(const std::u16string& name, uint32_t owner, uint32_t group);
  virtual void SetTime(const std::u16string& name, uint64_t created, uint64_t accessed,
                       uint64_t modified);
  virtual void CreateDeviceNode(const std::u16string& name, uint32_t mode, uint32_t kind,
                                uint32_t major, uint32_t minor);

  FileSystemDriver& driver;
  const uint64_t id;
};

class FileSystemDriver::IteratorObject {
 public:
  virtual ~IteratorObject() = default;
  // False at the end of the directory.
  virtual bool Next() = 0;
  virtual file_identifier* GetIdentifier() = 0;
  virtual std::u16string FileName() = 0;
  virtual uint64_t Size() = 0;
  virtual uint64_t SizeOnDisk() { return Size(); }
  virtual uint32_t FileType() = 0;
  virtual uint64_t ModificationTime() { return 0; }
  virtual uint64_t StatusChangeTime() { return 0; }
  virtual uint64_t CreationTime() { return 0; }
  virtual uint64_t AccessTime() { return 0; }
  virtual bool IsHidden() { return false; }
  virtual uint64_t InodeId() { return 0; }
  // The first sector of the entry's data.
  virtual uint64_t GetPhysLocation() { return 0; }
  virtual const char16_t* ShortName() { return nullptr; }
  virtual uint32_t DOSAttributes() { return kNoAttributeValue; }
  virtual uint32_t UnixPermissions() { return 0; }
  virtual uint32_t HardLinkCount() { return 1; }
  virtual uint32_t OwnerID() { return 0; }
  virtual uint32_t GroupID() { return 0; }
  virtual uint32_t DeviceMajor() { return 0; }
  virtual uint32_t DeviceMinor() { return 0; }
  virtual const char16_t* SymbolicLinkTarget() { return nullptr; }
};

// What a caller holds as an open file.
class FileSystemDriver::FileReference final : public rio_file {
 public:
  FileReference(FileSystemDriver& driver, FileObject* object, bool writable, bool shared);
  ~FileReference() override;

  using i_file::Read;
  using o_file::Write;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Flush() override;
  void Truncate(uint64_t size) override;
  int64_t GetSize() override;
  int64_t Seek(int64_t position) override;
  int64_t SeekCur(int64_t delta) override;
  int64_t SeekEnd(int64_t delta) override;
  void IOCTL(void* request) override;

  FileObject* Object() const { return object_; }

 private:
  template <typename F>
  bool Run(const Common::ErrorLocation& where, F&& body);

  DriverRef driver_;
  FileObject* object_;
  bool writable_;
  bool shared_;
  int64_t position_ = 0;
};

// Common part of the cursors handed to callers: every query of a cursor
// without an entry records "The end of the file has been reached.".
class IteratorBase : public i_dir::iterator {};

class FileSystemDriver::IteratorReference final : public IteratorBase {
 public:
  // Adopts `object`; null stands for an iteration already at its end.
  IteratorReference(FileSystemDriver& driver, IteratorObject* object);
  ~IteratorReference() override;

  void Next() override;
  file_identifier* GetIdentifier() override;
  std::u16string FileName() override;
  const char16_t* ShortName() override;
  uint64_t Size() override;
  uint64_t SizeOnDisk() override;
  uint32_t FileType() override;
  uint64_t ModificationTime() override;
  uint64_t StatusChangeTime() override;
  uint64_t CreationTime() override;
  uint64_t AccessTime() override;
  uint32_t DOSAttributes() override;
  uint32_t UnixPermissions() override;
  bool IsHidden() override;
  uint32_t OwnerID() override;
  uint32_t GroupID() override;
  uint32_t HardLinkCount() override;
  uint32_t DeviceMajor() override;
  uint32_t DeviceMinor() override;
  uint64_t InodeId() override;
  const char16_t* SymbolicLinkTarget() override;
  // "GPHL": the first sector of the entry's data into word[0].
  void IOCTL(void* request) override;

  IteratorObject* Object() const { return object_; }
  FileSystemDriver* Driver() const { return driver_.Get(); }

 private:
  template <typename T, typename F>
  T Query(F&& body);
  void End();

  DriverRef driver_;
  IteratorObject* object_;
  std::u16string shortName_;
  std::u16string linkTarget_;
};

// The root itself as a single entry.
class FileSystemDriver::RootSelfIterator final : public IteratorBase {
 public:
  RootSelfIterator(FileSystemDriver& driver, std::u16string name);
  void Next() override;
  file_identifier* GetIdentifier() override;
  std::u16string FileName() override;
  uint64_t Size() override { return 0; }
  uint32_t FileType() override { return FileTypes::RootEntry; }
  uint64_t InodeId() override { return rootId_; }
  bool IsHidden() override { return true; }

 private:
  DriverRef driver_;
  std::u16string name_;
  uint64_t rootId_;
};

// Runs `body` as a public operation of the framework: out-of-memory turns
// into 0x40006, and `Common::Error` is recorded in `state` (true) or
// success is (false).
template <typename F>
bool RunRecorded(file_object& state, const Common::ErrorLocation& where, F&& body) {
  NewHandlerGuard guard;
  try {
    body();
    state.SetError(Common::Error());
    return false;
  } catch (const Common::Error& e) {
    state.SetError(e);
  } catch (const std::bad_alloc&) {
    state.SetError(Common::MakeError(where, Common::Codes::NotEnoughMemory));
  }
  return true;
}
