// ext directories: entries checked harder than the format asks, and lookup
// by the hash index with a scan behind it.
#include <cstring>

#include "common/text.h"
#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

namespace {

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

}  // namespace extfs
