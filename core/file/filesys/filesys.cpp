// The shared core of the file-system drivers: the sector-buffer cache, the
// directory and path caches, and the open rule.
#include "filesys/filesys.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "fdisk/ver2/snapshot_volume.h"

using namespace Common::Codes;

namespace {

// Larger requests are no driver's honest need; refusing them keeps a
// corrupt structure from asking for a huge block.
constexpr uint64_t kMaxBufferBytes = 16u << 20;

[[noreturn]] void NewHandlerImpl() {
  throw Common::MakeError(ERROR_HERE, NotEnoughMemory);
}

// A failure of the disk, as the file layer reports it.
Common::Error DiskFailure(const Common::ErrorLocation& where, uint32_t code, const Common::Error& cause) {
  return Common::MakeError(where, code).WithCause(cause);
}

Common::Error OutsideVolume(const Common::ErrorLocation& where) {
  return Common::MakeError(where, ReadError)
      .WithCause(Common::Error(where, Fdisk::Codes::InvalidParameter,
                               u"One of the parameters has an invalid value."));
}

std::map<uint32_t, FileSystemMountHandler*>& Handlers() {
  static std::map<uint32_t, FileSystemMountHandler*> handlers;
  return handlers;
}
FsLock g_handlersLock;

}  // namespace

// ---- guards, handlers

NewHandlerGuard::NewHandlerGuard() : previous_(std::set_new_handler(&NewHandlerImpl)) {}
NewHandlerGuard::~NewHandlerGuard() { std::set_new_handler(previous_); }

FileSystemMountHandler::FileSystemMountHandler(uint32_t handlerId) : handlerId_(handlerId) {
  if (handlerId_ == 0) return;
  FsLockGuard lock(g_handlersLock);
  Handlers()[handlerId_] = this;
}

FileSystemMountHandler::~FileSystemMountHandler() {
  if (handlerId_ == 0) return;
  FsLockGuard lock(g_handlersLock);
  auto it = Handlers().find(handlerId_);
  if (it != Handlers().end() && it->second == this) Handlers().erase(it);
}

FileSystemMountHandler* FileSystemMountHandler::FindHandler(uint32_t handlerId) {
  FsLockGuard lock(g_handlersLock);
  auto it = Handlers().find(handlerId);
  return it == Handlers().end() ? nullptr : it->second;
}

// ---- the shared cache

class FileSystemDriver::FileSystemCache : public ReferenceCount {
 public:
  explicit FileSystemCache(uint32_t cacheId) : id(cacheId) {}

  void Append(SectorBuffer* b) {
    b->prev = tail;
    b->next = nullptr;
    if (tail) tail->next = b; else head = b;
    tail = b;
  }
  void Unlink(SectorBuffer* b) {
    if (b->prev) b->prev->next = b->next; else head = b->next;
    if (b->next) b->next->prev = b->prev; else tail = b->prev;
    b->prev = b->next = nullptr;
  }

  const uint32_t id;
  uint64_t total = 0;
  SectorBuffer* head = nullptr;  // released longest ago
  SectorBuffer* tail = nullptr;
  FsLock lock;
};

namespace {

std::map<uint32_t, FileSystemDriver::FileSystemCache*>& Caches() {
  static std::map<uint32_t, FileSystemDriver::FileSystemCache*> caches;
  return caches;
}
FsLock g_cachesLock;

}  // namespace

// ---- identifiers

struct the_identifier::Record {
  std::atomic<uint32_t> refs{1};
  std::u16string name;
  std::basic_string<uint8_t> data;
};

the_identifier::the_identifier(const std::u16string& name, const void* data, size_t size) {
  rec_ = nullptr;
  if (!name.empty() || size != 0) {
    try {
      auto* r = new (std::nothrow) Record;
      if (r) {
        r->name = name;
        if (size) r->data.assign(static_cast<const uint8_t*>(data), size);
        rec_ = r;
      }
    } catch (...) {
      rec_ = nullptr;
    }
  }
  if (rec_ == nullptr) {
    rec_ = SharedEmptyRecord();
    ++rec_->refs;
  }
}

the_identifier::the_identifier(const the_identifier& other) noexcept : file_identifier(other), rec_(other.rec_) {
  ++rec_->refs;
}

the_identifier::~the_identifier() {
  if (--rec_->refs == 0) delete rec_;
}

file_identifier* the_identifier::Clone() const { return new (std::nothrow) the_identifier(*this); }
const std::u16string& the_identifier::Name() const { return rec_->name; }
const uint8_t* the_identifier::Data() const { return rec_->data.data(); }
size_t the_identifier::DataSize() const { return rec_->data.size(); }

the_identifier::Record* the_identifier::SharedEmptyRecord() {
  // Never freed: one reference belongs to the record itself.
  static Record* empty = new Record;
  return empty;
}

// ---- buffers

SectorBufferRef::SectorBufferRef(const SectorBufferRef& other) noexcept : buffer_(other.buffer_) {
  if (buffer_) ++buffer_->refCount;
}

void SectorBufferRef::Reset() noexcept {
  if (!buffer_) return;
  SectorBuffer* b = buffer_;
  buffer_ = nullptr;
  b->driver->ReleaseBuffer(b);
}

// ---- the driver

FileSystemDriver::FileSystemDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                   uint32_t handlerId, uint32_t cacheId)
    : FileSystemMountHandler(handlerId),
      disk_(disk),
      volumeSectors_(sectors),
      sectorSize_(disk->GetSectorSize()),
      baseDisk_(disk),
      startSector_(startSector) {
  // Buffers are aligned to the sector size, which must be a power of two.
  if (sectorSize_ == 0 || sectorSize_ > 65536 || (sectorSize_ & (sectorSize_ - 1)) != 0)
    THROW_ERROR(Corrupted);
  FsLockGuard lock(g_cachesLock);
  FileSystemCache*& cache = Caches()[cacheId];
  if (cache == nullptr) cache = new FileSystemCache(cacheId);
  cache_ = cache;
  cache_->AddRef();
}

FileSystemDriver::~FileSystemDriver() {
  ReleaseObjects();
  {
    FsLockGuard cacheLock(cache_->lock);
    FsLockGuard bufferLock(bufferLock_);
    for (auto& [sector, b] : buffers_) {
      cache_->Unlink(b);
      cache_->total -= AccountedBufferSize(b->sectorCount, sectorSize_);
      std::free(b->raw);
    }
    buffers_.clear();
  }
  {
    FsLockGuard lock(g_cachesLock);
    if (cache_->ReleaseRef() == 0) {
      Caches().erase(cache_->id);
      delete cache_;
    }
  }
  if (disk_ != baseDisk_) delete disk_;
  if (flags & kOwnsDisk) delete baseDisk_;
}

void FileSystemDriver::ReleaseObjects() {
  pathMap_.clear();
  while (!directories_.empty()) {
    DirectoryObject* d = directories_.begin()->second;
    directories_.erase(directories_.begin());
    delete d;
  }
}

uint64_t FileSystemDriver::CacheTotal() const { return cache_->total; }

SectorBufferRef FileSystemDriver::GetBuffer(uint64_t sector, uint32_t count, bool noRead) {
  {
    FsLockGuard lock(bufferLock_);
    auto it = buffers_.find(sector);
    if (it != buffers_.end()) {
      ++it->second->refCount;
      return SectorBufferRef(it->second);
    }
  }
  if (count == 0 || sector >= volumeSectors_ || count > volumeSectors_ - sector ||
      uint64_t(count) * sectorSize_ > kMaxBufferBytes)
    throw OutsideVolume(ERROR_HERE);
  const uint32_t padding = GetBufferPadding();
  const uint64_t bytes = AccountedBufferSize(count, sectorSize_) + padding;
  void* raw = std::malloc(size_t(bytes));
  if (raw == nullptr) THROW_ERROR(NotEnoughMemory);
  // The data starts at the first sector boundary that leaves room for the
  // header in front of it; the extra sector of the allocation pays for it.
  const uintptr_t start = reinterpret_cast<uintptr_t>(raw) + sizeof(SectorBuffer);
  const uintptr_t data = (start + sectorSize_ - 1) & ~uintptr_t(sectorSize_ - 1);
  auto* b = new (reinterpret_cast<SectorBuffer*>(data) - 1)
      SectorBuffer{nullptr, nullptr, 1, 0, this, sector, count, raw};
  const uint64_t dataBytes = uint64_t(count) * sectorSize_;
  std::memset(b->Data() + dataBytes, 0, padding);
  if (!noRead) {
    Common::Error e = disk_->IoOp(Fdisk::DiskRead, sector + startSector_, b->Data(), count);
    if (e.IsError()) {
      std::free(raw);
      throw DiskFailure(ERROR_HERE, ReadError, e);
    }
  }
  {
    FsLockGuard lock(bufferLock_);
    try {
      buffers_.emplace(sector, b);
    } catch (...) {
      std::free(raw);
      throw;
    }
  }
  FsLockGuard cacheLock(cache_->lock);
  const uint64_t before = cache_->total;
  cache_->total += AccountedBufferSize(count, sectorSize_);
  // Only the allocation that crosses the limit evicts, so that a long run
  // of pinned buffers does not walk the list on every allocation.
  if (before <= kCacheLimit && cache_->total > kCacheLimit) EvictFromCache();
  cache_->Append(b);
  return SectorBufferRef(b);
}

void FileSystemDriver::EvictFromCache() {
  SectorBuffer* b = cache_->head;
  while (b != nullptr && cache_->total > kCacheLimit) {
    SectorBuffer* next = b->next;
    FileSystemDriver* owner = b->driver;
    if (b->refCount == 0 && !owner->flushing_) {
      FsLockGuard lock(owner->bufferLock_);
      owner->flushing_ = true;
      if (b->dirty) owner->FlushBuffers();
      owner->flushing_ = false;
      next = b->next;
      owner->buffers_.erase(b->firstSector);
      cache_->total -= AccountedBufferSize(b->sectorCount, owner->sectorSize_);
      cache_->Unlink(b);
      std::free(b->raw);
    }
    b = next;
  }
}

void FileSystemDriver::ReleaseBuffer(SectorBuffer* b) {
  if (--b->refCount != 0) return;
  for (;;) {
    {
      FsLockGuard cacheLock(cache_->lock);
      if (b->refCount != 0) return;
      if (cache_->total <= kCacheLimit) {
        cache_->Unlink(b);
        cache_->Append(b);
        return;
      }
      if (!b->dirty) {
        FreeBuffer(b);
        return;
      }
    }
    // A dirty buffer cannot be dropped before it is written.
    GuardedFlushBuffers();
    if (b->dirty) {
      // The flush could not run (one is under way): keep the buffer.
      FsLockGuard cacheLock(cache_->lock);
      cache_->Unlink(b);
      cache_->Append(b);
      return;
    }
  }
}

void FileSystemDriver::FreeBuffer(SectorBuffer* b) {
  FsLockGuard lock(bufferLock_);
  buffers_.erase(b->firstSector);
  cache_->total -= AccountedBufferSize(b->sectorCount, sectorSize_);
  cache_->Unlink(b);
  std::free(b->raw);
}

void FileSystemDriver::GuardedFlushBuffers() {
  if (flushing_) return;
  flushing_ = true;
  try {
    FlushBuffers();
  } catch (...) {
    flushing_ = false;
    throw;
  }
  flushing_ = false;
}

void FileSystemDriver::FlushBuffers() {
  FsLockGuard lock(bufferLock_);
  for (auto& [sector, b] : buffers_) {
    if (!b->dirty) continue;
    b->dirty = 0;
    disk_->IoOp(Fdisk::DiskWrite, b->firstSector + startSector_, b->Data(), b->sectorCount);
  }
}

void FileSystemDriver::Flush() {
  for (FileObject* f = writableFiles_.Oldest(); f != nullptr; f = f->lruNext) f->Flush();
  GuardedFlushBuffers();
}

void FileSystemDriver::IOCTL(void* request) {
  auto* r = static_cast<FsRequest*>(request);
  if (r == nullptr) THROW_ERROR(InvalidUsage);
  if (r->command == FourCC("DMNT")) {
    Flush();
  } else if (r->command == FourCC("GFST")) {
    const char* type = FSType();
    size_t i = 0;
    for (; type[i] != 0 && i + 1 < sizeof r->text / sizeof r->text[0]; ++i) r->text[i] = char16_t(type[i]);
    r->text[i] = 0;
  } else if (r->command == FourCC("GSYP")) {
    r->word[0] = HandlerId();
  } else {
    THROW_ERROR(Common::Codes::NotSupported);
  }
}

void FileSystemDriver::PrepareToWrite() {
  if (disk_ == baseDisk_) return;
  // A journal overlay stands in for the disk: it is committed first, and
  // the volume itself is written from then on.
  auto* overlay = dynamic_cast<Fdisk::SnapshotVolume*>(disk_);
  Common::Error e = overlay ? overlay->SetSnapshotHandle(nullptr)
                            : Common::MakeError(ERROR_HERE, NotSupported);
  if (e.IsError()) throw DiskFailure(ERROR_HERE, WriteError, e);
  delete disk_;
  disk_ = baseDisk_;
}

void FileSystemDriver::UseOverlay(Fdisk::SimpleDisk* overlay) {
  if (overlay == nullptr || overlay == disk_) return;
  if (disk_ != baseDisk_) delete disk_;
  disk_ = overlay;
}

void FileSystemDriver::WriteProbe(SectorBuffer* b) {
  if (written_) return;
  PrepareToWrite();
  Common::Error e = disk_->IoOp(Fdisk::DiskWrite, b->firstSector + startSector_, b->Data(), 1);
  if (e.IsError()) throw DiskFailure(ERROR_HERE, ReadOnly, e);
  written_ = true;
}

void FileSystemDriver::ReadNoCacheAligned(void* buffer, uint64_t sector, uint64_t count) {
  if (sector > volumeSectors_ || count > volumeSectors_ - sector) throw OutsideVolume(ERROR_HERE);
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t done = 0;
  while (done < count) {
    const uint64_t s = sector + done;
    uint64_t run = count - done;
    const SectorBuffer* cached = nullptr;
    {
      FsLockGuard lock(bufferLock_);
      auto next = buffers_.upper_bound(s);
      if (next != buffers_.begin()) {
        const SectorBuffer* b = std::prev(next)->second;
        if (b->firstSector + b->sectorCount > s) cached = b;
      }
      if (cached) {
        const uint64_t left = cached->firstSector + cached->sectorCount - s;
        if (left < run) run = left;
        std::memcpy(out + done * sectorSize_,
                    const_cast<SectorBuffer*>(cached)->Data() + (s - cached->firstSector) * sectorSize_,
                    size_t(run * sectorSize_));
      } else if (next != buffers_.end() && next->first - s < run) {
        run = next->first - s;
      }
    }
    if (!cached) {
      Common::Error e = disk_->IoOp(Fdisk::DiskRead, s + startSector_, out + done * sectorSize_, run);
      if (e.IsError()) throw DiskFailure(ERROR_HERE, ReadError, e);
    }
    done += run;
  }
}

void FileSystemDriver::ReadNoCache(void* buffer, uint64_t sector, uint64_t count,
                                   uint32_t clusterSectors, uint64_t clusterBase) {
  if (count == 0) return;
  const uint64_t misalign = reinterpret_cast<uintptr_t>(buffer) % sectorSize_;
  if (misalign == 0) return ReadNoCacheAligned(buffer, sector, count);
  if (sector > volumeSectors_ || count > volumeSectors_ - sector) throw OutsideVolume(ERROR_HERE);
  if (clusterSectors == 0 || sector < clusterBase) {
    clusterSectors = 1;
    clusterBase = sector;
  }
  const uint64_t last = sector + count - 1;
  const uint64_t tailStart = (last - clusterBase) / clusterSectors * clusterSectors + clusterBase;
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t head = 0;
  if (tailStart > sector) {
    // The sectors before the last cluster go to an aligned place inside
    // the caller's buffer, then down to where they belong; the shift stays
    // inside the buffer because the tail did not use it.
    head = tailStart - sector;
    const uint64_t shift = sectorSize_ - misalign;
    ReadNoCacheAligned(out + shift, sector, head);
    std::memmove(out, out + shift, size_t(head * sectorSize_));
  }
  const uint64_t tailFirst = tailStart > sector ? tailStart : sector;
  SectorBufferRef tail = GetBuffer(tailStart, clusterSectors);
  // A buffer found at that sector may be shorter than a cluster.
  if (last - tailStart + 1 > tail.SectorCount()) throw OutsideVolume(ERROR_HERE);
  std::memcpy(out + head * sectorSize_, tail.Data() + (tailFirst - tailStart) * sectorSize_,
              size_t((last - tailFirst + 1) * sectorSize_));
}

void FileSystemDriver::WriteNoCache(const void* buffer, uint64_t sector, uint64_t count) {
  if (sector > volumeSectors_ || count > volumeSectors_ - sector)
    throw Common::MakeError(ERROR_HERE, WriteError);
  const auto* in = static_cast<const uint8_t*>(buffer);
  uint64_t done = 0;
  while (done < count) {
    const uint64_t s = sector + done;
    uint64_t run = count - done;
    SectorBuffer* cached = nullptr;
    {
      FsLockGuard lock(bufferLock_);
      auto next = buffers_.upper_bound(s);
      if (next != buffers_.begin()) {
        SectorBuffer* b = std::prev(next)->second;
        if (b->firstSector + b->sectorCount > s) cached = b;
      }
      if (!cached && next != buffers_.end() && next->first - s < run) run = next->first - s;
    }
    if (cached) {
      const uint64_t left = cached->firstSector + cached->sectorCount - s;
      if (left < run) run = left;
      WriteProbe(cached);
      std::memcpy(cached->Data() + (s - cached->firstSector) * sectorSize_, in + done * sectorSize_,
                  size_t(run * sectorSize_));
      cached->dirty = 1;
    } else {
      if (!written_) PrepareToWrite();
      Common::Error e = disk_->IoOp(Fdisk::DiskWrite, s + startSector_,
                                    const_cast<uint8_t*>(in + done * sectorSize_), run);
      if (e.IsError()) throw DiskFailure(ERROR_HERE, written_ ? WriteError : ReadOnly, e);
      written_ = true;
    }
    done += run;
  }
}

// ---- directories and paths

FileSystemDriver::DirHold::DirHold(DirectoryObject* d) noexcept : dir_(d) {
  if (dir_) dir_->AddRef();
}

FileSystemDriver::DirHold::~DirHold() {
  if (dir_) dir_->ReleaseRef();
}

FileSystemDriver::DirectoryObject::DirectoryObject(FileSystemDriver& owner, uint64_t dirId)
    : driver(owner), id(dirId) {
  driver.directoryList_.PushNewest(this);
}

FileSystemDriver::DirectoryObject::~DirectoryObject() { driver.directoryList_.Remove(this); }

FileSystemDriver::DirHold FileSystemDriver::GetDirectory(uint64_t id) {
  auto it = directories_.find(id);
  if (it != directories_.end()) {
    directoryList_.MoveNewest(it->second);
    return DirHold(it->second);
  }
  std::unique_ptr<DirectoryObject> created(OpenDirById(id));
  if (!created) THROW_ERROR(OpenError);
  directories_.emplace(id, created.get());
  return DirHold(created.release());
}

FileSystemDriver::DirHold FileSystemDriver::GetDirectoryObject(const std::u16string& path) {
  std::u16string rest = path.empty() ? std::u16string() : path.substr(1);
  uint64_t id = 0;
  size_t pos = 0;
  if (!rest.empty()) {
    NormalizeName(rest);
    // The longest prefix already known.
    std::u16string prefix = rest;
    for (;;) {
      auto hit = pathMap_.find(prefix);
      if (hit != pathMap_.end()) {
        id = hit->second;
        pos = prefix.size() + 1;
        break;
      }
      const size_t slash = prefix.rfind(u'/');
      if (slash == std::u16string::npos) break;
      prefix.resize(slash);
    }
  }
  DirHold dir;
  for (;;) {
    dir = GetDirectory(id);
    if (pos >= rest.size()) break;
    size_t end = rest.find(u'/', pos);
    if (end == std::u16string::npos) end = rest.size();
    if (end == pos) {  // an empty component ("//"): nothing to descend into
      pos = end + 1;
      continue;
    }
    id = dir->FindSubdir(rest.substr(pos, end - pos));
    pathMap_[rest.substr(0, end)] = id;
    pos = end + 1;
  }
  if (pathMap_.size() > kMaxPathMapEntries) pathMap_.clear();
  TrimDirectories();
  return dir;
}

void FileSystemDriver::TrimDirectories() {
  DirectoryObject* d = directoryList_.Oldest();
  while (directories_.size() > kMaxIdleDirectories && d != nullptr) {
    DirectoryObject* next = d->lruNext;
    if (d->RefCount() == 0) {
      directories_.erase(d->id);
      delete d;
    }
    d = next;
  }
}

// ---- files

FileSystemDriver::FileReference* FileSystemDriver::NewFileReference(FileObject* object, bool writable,
                                                                     bool shared) {
  bool allowed;
  if (!writable)
    allowed = object->writers == 0 || (shared && object->exclusive == 0);
  else if (!shared)
    allowed = object->openRefs == 0;
  else
    allowed = object->exclusive == 0;
  if (!allowed) THROW_ERROR(OpenError);
  FileReference* ref;
  try {
    ref = new FileReference(*this, object, writable, shared);
  } catch (...) {
    if (object->openRefs == 0) delete object;  // nobody else knows it yet
    throw;
  }
  ++object->openRefs;
  if (writable && object->writers++ == 0) writableFiles_.PushNewest(object);
  if (!shared) ++object->exclusive;
  return ref;
}

void FileSystemDriver::FileObject::Write(const void*, uint64_t, uint64_t, uint64_t& written) {
  written = 0;
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::FileObject::Truncate(uint64_t) { THROW_ERROR(Common::Codes::NotSupported); }
void FileSystemDriver::FileObject::SetTime(uint64_t, uint64_t, uint64_t) { THROW_ERROR(Common::Codes::NotSupported); }

void FileSystemDriver::FileObject::IOCTL(void* request) {
  auto* r = static_cast<FsRequest*>(request);
  if (r != nullptr && r->command == FourCC("SFTM")) return SetTime(r->word[0], r->word[1], r->word[2]);
  THROW_ERROR(Common::Codes::NotSupported);
}

// The changing operations of a directory that does not write.
FileSystemDriver::FileObject* FileSystemDriver::DirectoryObject::Create(const std::u16string&) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::Remove(const std::u16string&) { THROW_ERROR(Common::Codes::NotSupported); }
void FileSystemDriver::DirectoryObject::RemoveDir(const std::u16string&) { THROW_ERROR(Common::Codes::NotSupported); }
void FileSystemDriver::DirectoryObject::CreateDir(const std::u16string&) { THROW_ERROR(Common::Codes::NotSupported); }
void FileSystemDriver::DirectoryObject::Rename(const std::u16string&, const std::u16string&) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::CreateHardLink(const std::u16string&, const std::u16string&) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::CreateSymLink(const std::u16string&, const std::u16string&) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::SetDOSAttributes(const std::u16string&, uint32_t) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::SetUnixPermissions(const std::u16string&, uint32_t) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::SetUnixOwner(const std::u16string&, uint32_t, uint32_t) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::SetTime(const std::u16string&, uint64_t, uint64_t, uint64_t) {
  THROW_ERROR(Common::Codes::NotSupported);
}
void FileSystemDriver::DirectoryObject::CreateDeviceNode(const std::u16string&, uint32_t, uint32_t,
                                                         uint32_t, uint32_t) {
  THROW_ERROR(Common::Codes::NotSupported);
}

// ---- counted driver handles

void DriverRef::Reset() noexcept {
  if (!d_) return;
  FileSystemDriver* d = d_;
  d_ = nullptr;
  if (d->ReleaseRef() == 0) {
    NewHandlerGuard guard;
    delete d;
  }
}
