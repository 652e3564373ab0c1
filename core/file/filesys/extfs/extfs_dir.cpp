// ext directories: entries checked harder than the format asks, lookup by
// the hash index with a scan behind it, and the cursors of listings.
#include <cstring>

#include "common/text.h"
#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

namespace {

constexpr uint32_t kTypeNotLoaded = FileTypes::UnknownDirectory;

uint32_t TypeFromByte(uint8_t type) {
  switch (type) {
    case 1: return FileTypes::Regular;
    case 2: return FileTypes::Directory;
    case 3: return FileTypes::CharDevice;
    case 4: return FileTypes::BlockDevice;
    case 5: return FileTypes::Fifo;
    case 6: return FileTypes::Socket;
    case 7: return FileTypes::SymbolicLink;
  }
  return kTypeNotLoaded;
}

uint32_t ConvertFileMode(uint16_t mode) {
  switch (mode & kModeType) {
    case kModeFifo: return FileTypes::Fifo;
    case kModeChar: return FileTypes::CharDevice;
    case kModeDir: return FileTypes::Directory;
    case kModeBlock: return FileTypes::BlockDevice;
    case kModeRegular: return FileTypes::Regular;
    case kModeSymlink: return FileTypes::SymbolicLink;
    case kModeSocket: return FileTypes::Socket;
  }
  throw Common::MakeError(ERROR_IN("ConvertFileMode"), Corrupted);
}

[[noreturn]] void NotFound(const Common::ErrorLocation& where) {
  throw Common::FileNotFound(Common::MakeError(where, FileNotFound));
}

bool IsDot(const DirEntry& e) { return e.nameLength == 1 && e.name[0] == '.'; }
bool IsDotDot(const DirEntry& e) { return e.nameLength == 2 && e.name[0] == '.' && e.name[1] == '.'; }

}  // namespace

bool ValidEntry(const DirEntry& entry, uint32_t offset, ExtfsDriver& driver, uint32_t dirNumber,
                bool skipDots) {
  const auto corrupted = [] { throw Common::MakeError(ERROR_IN("ValidEntry"), Corrupted); };
  if (offset % 4 != 0) corrupted();
  const uint32_t room = driver.BlockSize() - offset % driver.BlockSize();
  if (room <= 7) corrupted();
  const uint32_t length = entry.recordLength.get();
  const uint32_t inode = entry.inode.get();
  if (length % 4 != 0 || inode > driver.InodesCount() || length < uint32_t(entry.nameLength) + 8 ||
      length > room)
    corrupted();
  if (inode == 0) return false;
  if (entry.nameLength == 0) corrupted();
  for (uint32_t i = 0; i < entry.nameLength; ++i)
    if (entry.name[i] == '/' || entry.name[i] == 0) corrupted();
  const bool hidden = driver.IsHidden(inode - 1);
  const bool dot = IsDot(entry);
  if (dot && inode - 1 != dirNumber) corrupted();
  if (dot || IsDotDot(entry)) {
    if (entry.fileType != 2 && entry.fileType != 0) corrupted();
    if (hidden) corrupted();
    return !skipDots;
  }
  return !hidden;
}

// ---- the directory object

ExtfsDriver::ExtfsDirectory::ExtfsDirectory(ExtfsDriver& driver, uint64_t id)
    : DirectoryObject(driver, id) {
  if (id >= driver.InodesCount()) throw Common::MakeError(ERROR_IN("ExtfsDirectory"), Corrupted);
  inode_ = driver.OpenInode(id == 0 ? 1 : uint32_t(id));
  const uint64_t size = inode_->GetSize();
  // A directory has no holes, so it cannot be larger than the volume.
  if ((inode_->Mode() & kModeType) != kModeDir || size == 0 || size % driver.BlockSize() != 0 ||
      size / driver.BlockSize() > driver.Blocks())
    throw Common::MakeError(ERROR_IN("ExtfsDirectory"), Corrupted);
}

const uint8_t* ExtfsDriver::ExtfsDirectory::GetBuffer(uint32_t offset, int kind) {
  if (offset >= inode_->GetSize()) THROW_ERROR(Corrupted);
  const uint32_t index = offset / Ext().BlockSize();
  if (current_ && currentIndex_ == index) return current_.Data();
  uint64_t count = 0;
  const uint64_t block = inode_->Lookup(index, count);
  SectorBufferRef b = Ext().GetBlockBuffer(block);
  VerifyBufferChecksum(b, index, kind);
  current_ = b;
  currentIndex_ = index;
  return current_.Data();
}

void ExtfsDriver::ExtfsDirectory::VerifyBufferChecksum(SectorBufferRef& buffer, uint32_t index, int kind) {
  ExtfsDriver& ext = Ext();
  if (!ext.HasMetadataCsum()) return;
  const uint32_t bs = ext.BlockSize();
  uint8_t* data = buffer.Data();
  const bool padded = buffer.SectorCount() == ext.SectorsPerBlock();
  if (padded && data[bs] != 0) return;
  const bool indexed = (inode_->Flags() & kFlagIndex) != 0;
  if (indexed && kind == 0) return;
  if (!indexed && kind == 1) THROW_ERROR(Corrupted);
  if (indexed && kind == 1) {
    VerifyDXBlockChecksum(data, index);
  } else {
    // The tail, if the block has one, is where the walk by record lengths
    // lands exactly.
    uint32_t p = 0;
    while (p < bs - kTailSize) {
      const uint32_t length = Get16(data + p + 4);
      if (length == 0) return;
      p += length;
    }
    if (p != bs - kTailSize) return;
    const uint8_t* tail = data + p;
    if (Get32(tail) != 0 || Get16(tail + 4) != kTailSize || tail[6] != 0 || tail[7] != kTailMarker) return;
    if (Crc32c(inode_->Seed(), data, p) != Get32(tail + 8)) THROW_ERROR(Corrupted);
  }
  if (padded) data[bs] = 1;
}

void ExtfsDriver::ExtfsDirectory::VerifyDXBlockChecksum(const uint8_t* block, uint32_t index) {
  const uint32_t bs = Ext().BlockSize();
  uint32_t header;
  if (index == 0) {
    if (Get16(block + 4) != 12 || Get16(block + 12 + 4) != bs - 12) THROW_ERROR(Corrupted);
    header = kDxRootTable;
  } else {
    if (Get32(block) != 0 || Get16(block + 4) != bs || block[6] != 0 || block[7] != 0) THROW_ERROR(Corrupted);
    header = kDxNodeTable;
  }
  const uint32_t limit = Get16(block + header);
  const uint32_t count = Get16(block + header + 2);
  const uint64_t tail = header + uint64_t(limit) * 8;
  if (tail > bs - 8) return;
  if (count > limit) THROW_ERROR(Corrupted);
  static const uint8_t kZero[4] = {0, 0, 0, 0};
  uint32_t c = Crc32c(inode_->Seed(), block, header + size_t(count) * 8);
  c = Crc32c(c, block + tail, 4);
  c = Crc32c(c, kZero, 4);
  if (c != Get32(block + tail + 4)) THROW_ERROR(Corrupted);
}

bool ExtfsDriver::ExtfsDirectory::NextEntry(const DirEntry*& entry, uint32_t& offset, bool skipDots) {
  const uint64_t size = inode_->GetSize();
  const uint32_t bs = Ext().BlockSize();
  for (;;) {
    if (offset >= size) {
      entry = nullptr;
      return false;
    }
    const uint8_t* block = GetBuffer(offset, 0);
    const auto* e = reinterpret_cast<const DirEntry*>(block + offset % bs);
    const bool report = ValidEntry(*e, offset, Ext(), inode_->Number(), skipDots);
    offset += e->recordLength.get();
    if (report) {
      entry = e;
      return true;
    }
  }
}

bool ExtfsDriver::ExtfsDirectory::LinearSearch(const std::string& name, const DirEntry*& entry,
                                               uint32_t& offset, uint64_t limit) {
  while (offset < limit) {
    if (!NextEntry(entry, offset, false)) break;
    if (entry->nameLength == name.size() && std::memcmp(entry->name, name.data(), name.size()) == 0) {
      offset -= entry->recordLength.get();
      return true;
    }
  }
  offset = 0;
  return false;
}

bool ExtfsDriver::ExtfsDirectory::FindEntry(const std::string& name, const DirEntry*& entry,
                                            uint32_t& offset) {
  if (inode_->Flags() & kFlagIndex) {
    try {
      return LookupInDXTree(name, entry, offset);
    } catch (const Common::Error& e) {
      // A damaged or unreadable index costs time, not the file.
      if (e.Code() != Corrupted && e.Code() != NotSupported) throw;
    }
  }
  const uint32_t bs = Ext().BlockSize();
  if (offset != 0) {
    const uint64_t end = (uint64_t(offset) / bs + 1) * bs;
    if (LinearSearch(name, entry, offset, end)) return true;
  }
  offset = 0;
  return LinearSearch(name, entry, offset, ~uint64_t(0));
}

// ---- the hash index

uint32_t ExtfsDriver::ExtfsDirectory::ChooseHashVersion(uint32_t version) {
  if (version > 2) THROW_ERROR(Corrupted);
  if (Ext().SuperBlock()[kSbDefHashVersion] >= 3) version += 3;
  if (version != 1 && version != 2 && version != 4 && version != 5) THROW_ERROR(NotSupported);
  return version;
}

namespace {

// The table entry to follow for `hash`, then every entry that continues a
// collision of it.
void CollectBlocks(const uint8_t* table, uint32_t count, uint32_t hash, std::vector<uint32_t>& out) {
  const auto* t = reinterpret_cast<const DxEntry*>(table);
  uint32_t lo = 1, hi = count;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (t[mid].hash.get() > hash) hi = mid; else lo = mid + 1;
  }
  out.push_back(t[lo - 1].block.get());
  for (uint32_t i = lo; i < count && t[i].hash.get() == (hash | 1); ++i) out.push_back(t[i].block.get());
}

}  // namespace

bool ExtfsDriver::ExtfsDirectory::CheckNodeLimits(uint32_t block, uint32_t hash, std::vector<uint32_t>& list) {
  const uint32_t bs = Ext().BlockSize();
  if (uint64_t(block) * bs >= inode_->GetSize()) THROW_ERROR(Corrupted);
  const uint8_t* node = GetBuffer(block * bs, 1);
  if (Get32(node) != 0 || Get16(node + 4) != bs || node[6] != 0 || node[7] != 0) return false;
  const uint32_t expected = (bs - 8) / 8;
  const uint32_t limit = Get16(node + kDxNodeTable);
  const uint32_t count = Get16(node + kDxNodeTable + 2);
  if ((limit != expected && !(Ext().HasMetadataCsum() && limit == expected - 1)) || count == 0 || count > limit)
    THROW_ERROR(Corrupted);
  CollectBlocks(node + kDxNodeTable, count, hash, list);
  return true;
}

bool ExtfsDriver::ExtfsDirectory::LookupInDXTree(const std::string& name, const DirEntry*& entry,
                                                 uint32_t& offset) {
  ExtfsDriver& ext = Ext();
  const uint32_t bs = ext.BlockSize();
  const uint8_t* root = GetBuffer(0, 1);
  const uint32_t version = ChooseHashVersion(root[kDxHashVersion]);
  if (root[kDxIndirectLevels] > 1) THROW_ERROR(NotSupported);
  const uint32_t levels = root[kDxIndirectLevels];

  // The root's limits, in the name of the check.
  const uint32_t infoLength = root[kDxInfoLength];
  const uint32_t limit = Get16(root + kDxRootTable);
  const uint32_t count = Get16(root + kDxRootTable + 2);
  if (bs < 24 + infoLength) throw Common::MakeError(ERROR_IN("CheckRootLimits"), Corrupted);
  const uint32_t expected = (bs - 24 - infoLength) / 8;
  if ((limit != expected && !(ext.HasMetadataCsum() && limit == expected - 1)) || count == 0 ||
      count > limit || kDxRootTable + uint64_t(limit) * 8 > bs)
    throw Common::MakeError(ERROR_IN("CheckRootLimits"), Corrupted);

  const uint32_t hash = DirEntryHash(reinterpret_cast<const uint8_t*>(name.data()), name.size(), version,
                                     ext.SuperBlock() + kSbHashSeed);
  std::vector<uint32_t> candidates;
  CollectBlocks(root + kDxRootTable, count, hash, candidates);
  if (levels == 1) {
    std::vector<uint32_t> leaves;
    for (uint32_t node : candidates)
      if (!CheckNodeLimits(node, hash, leaves)) THROW_ERROR(Corrupted);
    candidates.swap(leaves);
  }
  for (uint32_t leaf : candidates) {
    const uint64_t start = uint64_t(leaf) * bs;
    if (start >= inode_->GetSize()) THROW_ERROR(Corrupted);
    uint32_t at = uint32_t(start);
    if (LinearSearch(name, entry, at, start + bs)) {
      offset = at;
      return true;
    }
  }
  return false;
}

// ---- lookups and opening

FileSystemDriver::IteratorObject* ExtfsDriver::ExtfsDirectory::GetIterator() {
  const DirEntry* entry = nullptr;
  uint32_t offset = 0;
  if (!NextEntry(entry, offset, true)) return nullptr;
  return new ExtfsIterator(*this, *entry, offset - entry->recordLength.get());
}

FileSystemDriver::IteratorObject* ExtfsDriver::ExtfsDirectory::GetIterator(const std::u16string& name) {
  const DirEntry* entry = nullptr;
  uint32_t offset = 0;
  if (!FindEntry(Common::Utf16ToUtf8(name), entry, offset)) NotFound(ERROR_HERE);
  return new ExtfsBaseIterator(*this, *entry, offset);
}

namespace {
// The name and block hint an identifier of ours carries.
bool FromIdentifier(const file_identifier* id, std::string& name, uint32_t& hint, uint32_t bs) {
  auto* ours = dynamic_cast<const the_identifier*>(id);
  if (ours == nullptr || ours->DataSize() < 8) return false;
  const uint8_t* d = ours->Data();
  name.assign(reinterpret_cast<const char*>(d + 4), ours->DataSize() - 8);
  const uint64_t at = uint64_t(Get32(d)) * bs;
  hint = at > 0xFFFFFFFFu ? 0 : uint32_t(at);
  return true;
}
}  // namespace

FileSystemDriver::IteratorObject* ExtfsDriver::ExtfsDirectory::GetIterator(const file_identifier* id) {
  std::string name;
  uint32_t offset = 0;
  if (!FromIdentifier(id, name, offset, Ext().BlockSize())) THROW_ERROR(OpenError);
  const DirEntry* entry = nullptr;
  if (!FindEntry(name, entry, offset)) NotFound(ERROR_HERE);
  return new ExtfsBaseIterator(*this, *entry, offset);
}

uint64_t ExtfsDriver::ExtfsDirectory::FindSubdir(const std::u16string& name) {
  const DirEntry* entry = nullptr;
  uint32_t offset = 0;
  if (!FindEntry(Common::Utf16ToUtf8(name), entry, offset)) NotFound(ERROR_HERE);
  const uint32_t number = entry->inode.get() - 1;
  if (entry->fileType == 0) {
    InodeRef inode = Ext().OpenInode(number);
    if ((inode->Mode() & kModeType) != kModeDir) THROW_ERROR(OpenError);
  } else if (entry->fileType != 2) {
    // Symbolic links are not followed on the way down a path.
    THROW_ERROR(OpenError);
  }
  return number == 1 ? 0 : number;
}

FileSystemDriver::FileObject* ExtfsDriver::ExtfsDirectory::OpenEntry(const DirEntry& entry) {
  if (entry.fileType >= 2) throw Common::MakeError(ERROR_IN("Open"), OpenError);
  InodeRef inode = Ext().OpenInode(entry.inode.get() - 1);
  return Ext().OpenFile(inode);
}

FileSystemDriver::FileObject* ExtfsDriver::ExtfsDirectory::Open(const std::u16string& name) {
  std::unique_ptr<IteratorObject> it(GetIterator(name));
  return Open(it.get());
}

FileSystemDriver::FileObject* ExtfsDriver::ExtfsDirectory::Open(IteratorObject* position) {
  auto* it = dynamic_cast<ExtfsBaseIterator*>(position);
  if (it == nullptr || it->DirectoryId() != id) THROW_ERROR(OpenError);
  std::unique_ptr<file_identifier> identifier(it->GetIdentifier());
  return Open(identifier.get());
}

FileSystemDriver::FileObject* ExtfsDriver::ExtfsDirectory::Open(const file_identifier* id) {
  std::string name;
  uint32_t offset = 0;
  if (!FromIdentifier(id, name, offset, Ext().BlockSize())) THROW_ERROR(OpenError);
  const DirEntry* entry = nullptr;
  if (!FindEntry(name, entry, offset)) THROW_ERROR(OpenError);
  return OpenEntry(*entry);
}

// ---- cursors

ExtfsDriver::ExtfsBaseIterator::ExtfsBaseIterator(ExtfsDirectory& directory, const DirEntry& entry,
                                                  uint32_t offset)
    : directory_(&directory), driver_(directory.Ext()) {
  Take(entry, offset);
}

void ExtfsDriver::ExtfsBaseIterator::Take(const DirEntry& entry, uint32_t offset) {
  number_ = entry.inode.get() - 1;
  blockIndex_ = offset / driver_.BlockSize();
  name_.assign(entry.name, entry.nameLength);
  wideName_ = Common::Utf8ToUtf16(name_);
  type_ = kTypeNotLoaded;
  loaded_ = false;
  if (driver_.HasIncompat(kIncompatFiletype)) type_ = TypeFromByte(entry.fileType);
}

void ExtfsDriver::ExtfsBaseIterator::Load() {
  if (loaded_) return;
  InodeRef inode = driver_.OpenInode(number_);
  mode_ = inode->Mode();
  const uint32_t type = ConvertFileMode(mode_);
  linkTarget_ = Common::Utf8ToUtf16(inode->GetSymbolicLinkTarget());
  size_ = inode->GetSize();
  sizeOnDisk_ = inode->GetBlockCount() * driver_.BlockSize();
  mtime_ = inode->ModificationTime();
  ctime_ = inode->ChangeTime();
  crtime_ = inode->CreationTime();
  atime_ = inode->AccessTime();
  links_ = inode->GetLinkCount();
  owner_ = inode->Owner();
  group_ = inode->Group();
  major_ = inode->DeviceMajor();
  minor_ = inode->DeviceMinor();
  physLocation_ = inode->FirstDataSector();
  type_ = type;
  loaded_ = true;
}

bool ExtfsDriver::ExtfsBaseIterator::Next() { THROW_ERROR(NotSupported); }

file_identifier* ExtfsDriver::ExtfsBaseIterator::GetIdentifier() {
  std::vector<uint8_t> data(name_.size() + 8, 0);
  data[0] = uint8_t(blockIndex_);
  data[1] = uint8_t(blockIndex_ >> 8);
  data[2] = uint8_t(blockIndex_ >> 16);
  data[3] = uint8_t(blockIndex_ >> 24);
  std::memcpy(data.data() + 4, name_.data(), name_.size());
  return new the_identifier(wideName_, data.data(), data.size());
}

uint64_t ExtfsDriver::ExtfsBaseIterator::Size() { Load(); return size_; }
uint64_t ExtfsDriver::ExtfsBaseIterator::SizeOnDisk() { Load(); return sizeOnDisk_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::FileType() {
  if (type_ == kTypeNotLoaded) Load();
  return type_;
}
uint64_t ExtfsDriver::ExtfsBaseIterator::ModificationTime() { Load(); return mtime_; }
uint64_t ExtfsDriver::ExtfsBaseIterator::StatusChangeTime() { Load(); return ctime_; }
uint64_t ExtfsDriver::ExtfsBaseIterator::CreationTime() { Load(); return crtime_; }
uint64_t ExtfsDriver::ExtfsBaseIterator::AccessTime() { Load(); return atime_; }
uint64_t ExtfsDriver::ExtfsBaseIterator::GetPhysLocation() { Load(); return physLocation_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::UnixPermissions() { Load(); return mode_ & 0xFFF; }
uint32_t ExtfsDriver::ExtfsBaseIterator::HardLinkCount() { Load(); return links_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::OwnerID() { Load(); return owner_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::GroupID() { Load(); return group_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::DeviceMajor() { Load(); return major_; }
uint32_t ExtfsDriver::ExtfsBaseIterator::DeviceMinor() { Load(); return minor_; }
const char16_t* ExtfsDriver::ExtfsBaseIterator::SymbolicLinkTarget() {
  Load();
  return linkTarget_.empty() ? nullptr : linkTarget_.c_str();
}

ExtfsDriver::ExtfsIterator::ExtfsIterator(ExtfsDirectory& directory, const DirEntry& entry, uint32_t offset)
    : ExtfsBaseIterator(directory, entry, offset),
      dirInode_(directory.Inode()),
      offset_(offset),
      blockSize_(directory.Ext().BlockSize()) {
  // A private copy of the block: the directory's current block moves with
  // every lookup made while the listing runs.
  const uint8_t* start = reinterpret_cast<const uint8_t*>(&entry) - offset % blockSize_;
  block_.assign(start, start + blockSize_);
}

bool ExtfsDriver::ExtfsIterator::Next() {
  const uint64_t size = dirInode_->GetSize();
  if (offset_ >= size) return false;
  uint64_t at = uint64_t(offset_) + Get16(block_.data() + offset_ % blockSize_ + 4);
  while (at < size) {
    if (at % blockSize_ == 0) {
      uint64_t count = 0;
      const uint64_t block = dirInode_->Lookup(at / blockSize_, count);
      SectorBufferRef b = driver_.GetBlockBuffer(block);
      std::memcpy(block_.data(), b.Data(), blockSize_);
    }
    const auto* e = reinterpret_cast<const DirEntry*>(block_.data() + at % blockSize_);
    const bool report = ValidEntry(*e, uint32_t(at), driver_, dirInode_->Number(), true);
    if (report) {
      offset_ = uint32_t(at);
      Take(*e, offset_);
      return true;
    }
    at += e->recordLength.get();
  }
  offset_ = uint32_t(size);
  return false;
}

}  // namespace extfs
