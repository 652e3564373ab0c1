// XFS directories in their three shapes (inside the inode, one directory
// block, data blocks found through the extent map), the entry cursor with
// its on-demand inode, and symbolic links.
#include <cstring>

#include "common/text.h"
#include "xfs.h"

using namespace Common::Codes;

namespace xfs {

namespace {

uint32_t TypeFromMode(uint16_t mode) {
  switch (mode & 0xF000) {
    case 0x1000: return FileTypes::Fifo;
    case 0x2000: return FileTypes::CharDevice;
    case 0x4000: return FileTypes::Directory;
    case 0x6000: return FileTypes::BlockDevice;
    case 0xA000: return FileTypes::SymbolicLink;
    case 0xC000: return FileTypes::Socket;
  }
  return FileTypes::Regular;
}

constexpr uint32_t kTypeFromByte[8] = {FileTypes::Regular, FileTypes::Regular, FileTypes::Directory,
                                       FileTypes::CharDevice, FileTypes::BlockDevice, FileTypes::Fifo,
                                       FileTypes::Socket, FileTypes::SymbolicLink};

[[noreturn]] void ReadOnlyVolume(const Common::ErrorLocation& where) { throw Common::MakeError(where, ReadOnly); }

// Reads one directory block of `count` volume blocks from logical block
// `first` into `out`, asking the locator again wherever a run ends.
void ReadDirBlock(XFSDriver& driver, XFSDriver::ExtentLocator& locator, uint64_t first, Run run,
                  std::vector<uint8_t>& out, uint64_t& firstSector) {
  const uint32_t bs = driver.BlockSize();
  out.resize(size_t(driver.directoryBlocks) * bs);
  for (uint32_t i = 0; i < driver.directoryBlocks; ++i) {
    const uint64_t want = first + i;
    if (want >= run.logical + run.count) {
      if (!locator.Find(want, first + driver.directoryBlocks, run) || run.logical != want)
        throw Common::MakeError(ERROR_IN("ReadDirBlock"), Corrupted);
    }
    if (run.logical > want) throw Common::MakeError(ERROR_IN("ReadDirBlock"), Corrupted);
    SectorBufferRef b = driver.ReadBlock(run.volume + (want - run.logical));
    if (i == 0) firstSector = b.FirstSector();
    std::memcpy(out.data() + size_t(i) * bs, b.Data(), bs);
  }
}

}  // namespace

// ---- the directory object

XFSDriver::Directory::Directory(XFSDriver& driver, uint64_t id) : DirectoryObject(driver, id) {
  inode = driver.LoadInode(id == 0 ? driver.rootInode : id);
  if (inode->Type() != 0x4000) THROW_ERROR(Corrupted);
}

std::unique_ptr<XFSDriver::StatIterator> XFSDriver::Directory::DoGetIterator() {
  XFSDriver& x = Xfs();
  switch (inode->Format()) {
    case kLocal:
      return std::make_unique<LocalIterator>(x, inode, id);
    case kExtents: {
      const uint32_t n = inode->Extents();
      if (n > 0) {
        Run last{};
        const uint8_t* r = inode->Fork() + size_t(n - 1) * 16;
        const uint64_t l0 = Be64(r), l1 = Be64(r + 8);
        last.logical = (l0 >> 9) & ((uint64_t(1) << 54) - 1);
        last.count = l1 & 0x1FFFFF;
        if (last.logical + last.count == x.directoryBlocks) return std::make_unique<BlockIterator>(x, inode, id);
      }
      return std::make_unique<LeafIterator>(x, inode, id);
    }
    case kBTree:
      return std::make_unique<LeafIterator>(x, inode, id);
  }
  THROW_ERROR(Corrupted);
}

FileSystemDriver::IteratorObject* XFSDriver::Directory::GetIterator() {
  std::unique_ptr<StatIterator> it = DoGetIterator();
  if (!it->Next()) return nullptr;
  return it.release();
}

FileSystemDriver::IteratorObject* XFSDriver::Directory::GetIterator(const std::u16string& name) {
  std::unique_ptr<StatIterator> it = DoGetIterator();
  while (it->Next())
    if (it->name == name) return it.release();
  throw Common::FileNotFound(Common::MakeError(ERROR_HERE, FileNotFound));
}

FileSystemDriver::IteratorObject* XFSDriver::Directory::GetIterator(const file_identifier* identifier) {
  auto* ours = dynamic_cast<const the_identifier*>(identifier);
  if (ours == nullptr || ours->DataSize() != 8) THROW_ERROR(OpenError);
  uint64_t number = 0;
  std::memcpy(&number, ours->Data(), 8);
  auto it = std::make_unique<StatIterator>(Xfs(), id);
  it->name = ours->Name();
  it->number = number;
  return it.release();
}

uint64_t XFSDriver::Directory::FindSubdir(const std::u16string& name) {
  std::unique_ptr<IteratorObject> it(GetIterator(name));
  if (it->FileType() != FileTypes::Directory) THROW_ERROR(OpenError);
  const uint64_t number = it->InodeId();
  return number == Xfs().rootInode ? 0 : number;
}

FileSystemDriver::FileObject* XFSDriver::Directory::OpenInode(uint64_t number) {
  InodePtr file = Xfs().LoadInode(number);
  if (TypeFromMode(file->Mode()) != FileTypes::Regular || file->Type() != 0x8000)
    throw Common::MakeError(ERROR_IN("Open"), OpenError);
  return new File(Xfs(), Xfs().CreateExtentLocator(file));
}

FileSystemDriver::FileObject* XFSDriver::Directory::Open(const std::u16string& name) {
  std::unique_ptr<IteratorObject> it(GetIterator(name));
  return Open(it.get());
}

FileSystemDriver::FileObject* XFSDriver::Directory::Open(IteratorObject* position) {
  auto* it = dynamic_cast<StatIterator*>(position);
  if (it == nullptr) THROW_ERROR(OpenError);
  return OpenInode(it->number);
}

FileSystemDriver::FileObject* XFSDriver::Directory::Open(const file_identifier* identifier) {
  std::unique_ptr<IteratorObject> it(GetIterator(identifier));
  return Open(it.get());
}

FileSystemDriver::FileObject* XFSDriver::Directory::Create(const std::u16string&) { ReadOnlyVolume(ERROR_HERE); }
void XFSDriver::Directory::Remove(const std::u16string&) { ReadOnlyVolume(ERROR_HERE); }
void XFSDriver::Directory::RemoveDir(const std::u16string&) { ReadOnlyVolume(ERROR_HERE); }
void XFSDriver::Directory::CreateDir(const std::u16string&) { ReadOnlyVolume(ERROR_HERE); }
void XFSDriver::Directory::Rename(const std::u16string&, const std::u16string&) { ReadOnlyVolume(ERROR_HERE); }
void XFSDriver::Directory::CreateHardLink(const std::u16string&, const std::u16string&) {
  ReadOnlyVolume(ERROR_HERE);
}
void XFSDriver::Directory::CreateSymLink(const std::u16string&, const std::u16string&) {
  ReadOnlyVolume(ERROR_HERE);
}

// ---- the entry cursor

void XFSDriver::StatIterator::Take(const uint8_t* nameBytes, size_t length, uint64_t entryNumber,
                                   uint8_t entryType) {
  name = Common::Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(nameBytes), length));
  number = entryNumber;
  type = entryType;
  linkTarget.clear();
  linkLoaded = false;
}

const XFSDriver::InodePtr& XFSDriver::StatIterator::Load() {
  if (!inode || inode->number != number) inode = driver.LoadInode(number);
  return inode;
}

file_identifier* XFSDriver::StatIterator::GetIdentifier() {
  uint8_t data[8];
  std::memcpy(data, &number, 8);
  return new the_identifier(name, data, sizeof data);
}

uint64_t XFSDriver::StatIterator::SizeOnDisk() {
  return uint64_t(driver.SectorSize()) * driver.sectorsPerBlock * Load()->BlocksInUse();
}

uint32_t XFSDriver::StatIterator::FileType() {
  // A type byte of 0 names no type: the mode has to.
  if (type != 0 && type < 8 && (!inode || inode->number != number)) return kTypeFromByte[type];
  return TypeFromMode(Load()->Mode());
}

uint64_t XFSDriver::StatIterator::CreationTime() { return driver.isVersion5 ? Load()->Time(144) : 0; }

uint64_t XFSDriver::StatIterator::GetPhysLocation() {
  const InodePtr& i = Load();
  if (i->Format() == kExtents && i->Extents() > 0) {
    const uint8_t* r = i->Fork();
    const uint64_t volume = (Be64(r) & 0x1FF) << 43 | Be64(r + 8) >> 21;
    return driver.BlockToSector(volume, 1);
  }
  if (i->Format() == kBTree) {
    const uint32_t size = i->ForkSize();
    return driver.BlockToSector(Be64(i->Fork() + 4 + size_t((size - 4) / 16) * 8), 1);
  }
  return 0;
}

uint32_t XFSDriver::StatIterator::DeviceMajor() {
  const InodePtr& i = Load();
  if (i->Type() != 0x2000 && i->Type() != 0x6000) return 0;
  return Be32(i->Fork()) >> 18;
}

uint32_t XFSDriver::StatIterator::DeviceMinor() {
  const InodePtr& i = Load();
  if (i->Type() != 0x2000 && i->Type() != 0x6000) return 0;
  return Be32(i->Fork()) & 0x3FFFF;
}

const char16_t* XFSDriver::StatIterator::SymbolicLinkTarget() {
  if (linkLoaded) return linkTarget.c_str();
  if (FileType() != FileTypes::SymbolicLink) return u"";
  const InodePtr& i = Load();
  if (i->Type() != 0xA000) return u"";
  const uint64_t size = i->Size();
  std::string text;
  if (size > 1024) THROW_ERROR(Corrupted);
  if (size != 0 && i->Format() == kLocal) {
    text.assign(reinterpret_cast<const char*>(i->Fork()), size_t(size));
  } else if (size != 0 && i->Format() == kExtents) {
    ListExtentLocator locator(i, i->Fork(), i->Extents());
    const uint32_t bs = driver.BlockSize();
    const uint32_t header = driver.isVersion5 ? 56 : 0;
    const uint32_t perBlock = bs - header;
    const uint64_t count = (size + perBlock - 1) / perBlock;
    for (uint64_t k = 0; k < count; ++k) {
      Run run;
      if (!locator.Find(k, k + 1, run) || run.logical != k) THROW_ERROR(Corrupted);
      SectorBufferRef b = driver.ReadBlock(run.volume);
      const uint32_t give = uint32_t(std::min<uint64_t>(perBlock, size - text.size()));
      if (driver.isVersion5) {
        driver.CheckBlock(b.Data(), bs, kLinkBlock, i->number, b.FirstSector());
        if (Be32(b.Data() + 4) != text.size() || Be32(b.Data() + 8) != give) THROW_ERROR(Corrupted);
      }
      text.append(reinterpret_cast<const char*>(b.Data() + header), give);
    }
  } else if (size != 0) {
    THROW_ERROR(Corrupted);
  }
  linkTarget = Common::Utf8ToUtf16(text);
  linkLoaded = true;
  return linkTarget.c_str();
}

// ---- short-form directories

XFSDriver::LocalIterator::LocalIterator(XFSDriver& driver, const InodePtr& dir, uint64_t directoryId)
    : StatIterator(driver, directoryId), directory(dir) {
  const uint64_t size = dir->Size();
  const uint8_t* fork = dir->Fork();
  if (size < 2) THROW_ERROR(Corrupted);
  wide = fork[1] != 0;
  const uint32_t headerSize = wide ? 10 : 6;
  if (size < headerSize) THROW_ERROR(Corrupted);
  entriesLeft = fork[0];
  at = fork + headerSize;
  left = size - headerSize;
}

bool XFSDriver::LocalIterator::Next() {
  if (entriesLeft == 0) return false;
  if (left < 7) THROW_ERROR(Corrupted);
  const uint32_t nameLength = at[0];
  const uint32_t typeBytes = driver.hasFileType ? 1 : 0;
  const uint32_t numberBytes = wide ? 8 : 4;
  const uint64_t length = 3 + uint64_t(nameLength) + typeBytes + numberBytes;
  if (nameLength == 0 || length > left) THROW_ERROR(Corrupted);
  const uint8_t* p = at + 3 + nameLength;
  const uint8_t entryType = typeBytes ? *p : 0xFF;
  p += typeBytes;
  const uint64_t entryNumber = wide ? Be64(p) : Be32(p);
  Take(at + 3, nameLength, entryNumber, entryType);
  at += length;
  left -= length;
  --entriesLeft;
  return true;
}

// ---- directory blocks

bool XFSDriver::BlockIteratorBase::Next() {
  const uint32_t typeBytes = driver.hasFileType ? 1 : 0;
  while (at < end) {
    const uint8_t* e = buffer.data() + at;
    if (end - at < 4) THROW_ERROR(Corrupted);
    if (Be16(e) == 0xFFFF) {
      const uint32_t length = Be16(e + 2);
      if (length == 0 || length % 8 != 0 || length > end - at) THROW_ERROR(Corrupted);
      at += length;
      continue;
    }
    if (end - at < 9) THROW_ERROR(Corrupted);
    const uint32_t nameLength = e[8];
    const size_t length = (nameLength + typeBytes + 18) & ~size_t(7);
    if (nameLength == 0 || length > end - at) THROW_ERROR(Corrupted);
    at += length;
    const bool dot = nameLength == 1 && e[9] == '.';
    const bool dotdot = nameLength == 2 && e[9] == '.' && e[10] == '.';
    if (dot || dotdot) continue;
    Take(e + 9, nameLength, Be64(e), typeBytes ? e[9 + nameLength] : 0xFF);
    return true;
  }
  return false;
}

XFSDriver::BlockIterator::BlockIterator(XFSDriver& driver, const InodePtr& dir, uint64_t directoryId)
    : BlockIteratorBase(driver, directoryId) {
  ListExtentLocator locator(dir, dir->Fork(), dir->Extents());
  Run run;
  if (!locator.Find(0, driver.directoryBlocks, run) || run.logical != 0) THROW_ERROR(Corrupted);
  uint64_t sector = 0;
  ReadDirBlock(driver, locator, 0, run, buffer, sector);
  const uint32_t size = uint32_t(buffer.size());
  const uint32_t start = driver.CheckBlock(buffer.data(), size, kDirBlock, dir->number, sector);
  const uint32_t tail = size - 8;
  if (tail < start) THROW_ERROR(Corrupted);
  const uint32_t count = Be32(buffer.data() + tail);
  if (count > (tail - start) / 8) THROW_ERROR(Corrupted);
  at = start;
  end = tail - size_t(count) * 8;
}

XFSDriver::LeafIterator::LeafIterator(XFSDriver& driver, const InodePtr& dir, uint64_t directoryId)
    : BlockIteratorBase(driver, directoryId), locator(driver.CreateExtentLocator(dir)) {}

bool XFSDriver::LeafIterator::Next() {
  if (BlockIteratorBase::Next()) return true;
  const uint64_t dataEnd = kDirDataEnd / driver.BlockSize();
  for (;;) {
    if (nextBlock >= dataEnd) return false;
    Run run;
    if (!locator->Find(nextBlock, dataEnd, run)) return false;
    if (run.logical % driver.directoryBlocks != 0 || run.logical < nextBlock) THROW_ERROR(Corrupted);
    const uint64_t first = run.logical;
    uint64_t sector = 0;
    ReadDirBlock(driver, *locator, first, run, buffer, sector);
    at = driver.CheckBlock(buffer.data(), uint32_t(buffer.size()), kDataBlock, locator->inode->number, sector);
    end = buffer.size();
    nextBlock = first + driver.directoryBlocks;
    if (BlockIteratorBase::Next()) return true;
  }
}

}  // namespace xfs
