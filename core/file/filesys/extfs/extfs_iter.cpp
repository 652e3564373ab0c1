// The cursors of ext directories: one entry as a lookup finds it, and the
// listing that walks a private copy of each block.
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

}  // namespace

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
