// The XFS driver, read side.  The superblock's geometry alone turns block
// numbers into sectors: group headers, free-space trees and the journal are
// never read.  Every self-describing block that a read touches on a
// version 5 volume is checked (magic, CRC, UUID, owner, address) before any
// number in it is believed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "filesys/filesys_posix.h"
#include "filesys/mount_handler.h"

namespace xfs {

inline uint16_t Be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t Be32(const uint8_t* p) { return uint32_t(Be16(p)) << 16 | Be16(p + 2); }
inline uint64_t Be64(const uint8_t* p) { return uint64_t(Be32(p)) << 32 | Be32(p + 4); }

// The CRC field is counted as zeros and stored low byte first.
bool CheckCrc(const uint8_t* data, size_t size, size_t crcOffset);

constexpr uint32_t kSuperMagic = 0x58465342;  // "XFSB"
constexpr uint16_t kInodeMagic = 0x494E;      // "IN"
constexpr size_t kCoreV2 = 100;
constexpr size_t kCoreV3 = 176;
// Directory data lives below this byte offset; leaf and free-space index
// blocks lie above it and are never read.
constexpr uint64_t kDirDataEnd = 0x800000000ull;
constexpr uint64_t kNoSibling = ~uint64_t(0);

enum ForkFormat : uint8_t { kDevice = 0, kLocal = 1, kExtents = 2, kBTree = 3 };

// A stretch of a file: `count` blocks from logical block `logical` lie at
// packed volume block `volume`.
struct Run {
  uint64_t logical = 0;
  uint64_t volume = 0;
  uint64_t count = 0;
};

// The kinds of self-describing block and where their fields sit.
struct BlockKind {
  uint32_t magicV5, magicV4;
  uint32_t headerV5, headerV4;
  uint32_t crcAt, uuidAt, ownerAt, addressAt;
};
extern const BlockKind kBmapBlock;
extern const BlockKind kDirBlock;   // single-block directory
extern const BlockKind kDataBlock;  // directory data block
extern const BlockKind kLinkBlock;  // symbolic link block, version 5 only

class XFSDriver final : public FileSystemDriverPosix {
 public:
  class Inode;
  class ExtentLocator;
  class ListExtentLocator;
  class BTreeExtentLocator;
  class File;
  class Directory;
  class StatIterator;
  class LocalIterator;
  class BlockIteratorBase;
  class BlockIterator;
  class LeafIterator;
  using InodePtr = std::shared_ptr<Inode>;

  // Raises "The file is corrupted." for anything but a sound volume.
  XFSDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors, uint32_t handlerId,
            const uint8_t* bootSector);
  ~XFSDriver() override;

  void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) override;
  void GetVolumeLabel(char16_t* buffer, uint32_t capacity) override;
  DirectoryObject* OpenDirById(uint64_t id) override;
  const char* FSType() override { return "XFS"; }
  uint64_t GetRootId() override { return rootInode; }

  // ---- services of the objects below
  // The first volume sector of `count` blocks from packed block `block`.
  uint64_t BlockToSector(uint64_t block, uint64_t count) const;
  SectorBufferRef ReadBlock(uint64_t block);
  // Checks a self-describing block (of `size` bytes, at volume sector
  // `sector`) and gives its header size.
  uint32_t CheckBlock(const uint8_t* data, uint32_t size, const BlockKind& kind, uint64_t owner,
                      uint64_t sector) const;
  InodePtr LoadInode(uint64_t number);
  std::unique_ptr<ExtentLocator> CreateExtentLocator(const InodePtr& inode);

  // The first `sectors` sectors of the volume, past the cache.
  std::vector<uint8_t> ReadUncached(uint32_t sectors);
  uint32_t BlockSize() const { return sectorsPerBlock * SectorSize(); }
  uint32_t DirBlockBytes() const { return directoryBlocks * BlockSize(); }

  uint32_t sectorsPerBlock = 0;
  uint64_t rootInode = 0;
  uint32_t groupCount = 0;
  uint32_t groupBlocks = 0;
  uint64_t blocks = 0;
  uint64_t freeBlocks = 0;
  uint32_t groupLog = 0;
  uint32_t inodesPerBlockLog = 0;
  uint32_t inodeSize = 0;
  uint32_t directoryBlocks = 1;
  bool hasFileType = false;
  bool isVersion5 = false;
  uint8_t uuid[16] = {};
  std::u16string label;
};

class XFSDriver::Inode {
 public:
  Inode(XFSDriver& driver, uint64_t number);

  uint64_t number;
  std::vector<uint8_t> data;

  uint16_t Mode() const { return Be16(&data[2]); }
  uint16_t Type() const { return Mode() & 0xF000; }
  uint8_t Version() const { return data[4]; }
  uint8_t Format() const { return data[5]; }
  uint64_t Size() const { return Be64(&data[56]); }
  uint64_t BlocksInUse() const { return Be64(&data[64]); }
  uint32_t Extents() const { return Be32(&data[76]); }
  uint32_t LinkCount() const { return Version() == 1 ? Be16(&data[6]) : Be32(&data[16]); }
  uint32_t Owner() const { return Be32(&data[8]); }
  uint32_t Group() const { return Be32(&data[12]); }
  uint16_t Flags() const { return Be16(&data[90]); }
  // Milliseconds.
  uint64_t Time(size_t at) const { return uint64_t(Be32(&data[at])) * 1000 + Be32(&data[at + 4]) / 1000000; }
  size_t CoreSize() const { return Version() == 3 ? kCoreV3 : kCoreV2; }
  const uint8_t* Fork() const { return data.data() + CoreSize(); }
  uint32_t ForkSize() const;
};

// Maps blocks of a file to volume blocks: the first stretch that holds
// data in [first, last), false when none.
class XFSDriver::ExtentLocator {
 public:
  explicit ExtentLocator(InodePtr inode) : inode(std::move(inode)) {}
  virtual ~ExtentLocator() = default;
  virtual bool Find(uint64_t first, uint64_t last, Run& run) = 0;

  InodePtr inode;
};

class XFSDriver::ListExtentLocator final : public ExtentLocator {
 public:
  ListExtentLocator(InodePtr inode, const uint8_t* records, uint32_t count)
      : ExtentLocator(std::move(inode)), records(records), count(count) {}
  bool Find(uint64_t first, uint64_t last, Run& run) override;

  const uint8_t* records;
  uint32_t count;
};

class XFSDriver::BTreeExtentLocator final : public ExtentLocator {
 public:
  BTreeExtentLocator(XFSDriver& driver, InodePtr inode, const uint8_t* fork, uint32_t forkSize)
      : ExtentLocator(std::move(inode)), driver(driver), fork(fork), forkSize(forkSize) {}
  bool Find(uint64_t first, uint64_t last, Run& run) override;

  XFSDriver& driver;
  const uint8_t* fork;
  uint32_t forkSize;
};

class XFSDriver::File final : public FileSystemDriver::FileObject {
 public:
  File(XFSDriver& driver, std::unique_ptr<ExtentLocator> locator)
      : driver(driver), locator(std::move(locator)) {}
  uint64_t GetSize() override { return locator->inode->Size(); }
  void GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) override;
  void Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) override;
  void Write(const void* buffer, uint64_t offset, uint64_t size, uint64_t& written) override;
  void Truncate(uint64_t size) override;
  void SetTime(uint64_t created, uint64_t accessed, uint64_t modified) override;
  void IOCTL(void* request) override;

  XFSDriver& driver;
  std::unique_ptr<ExtentLocator> locator;
};

class XFSDriver::Directory final : public DirectoryObject {
 public:
  Directory(XFSDriver& driver, uint64_t id);

  IteratorObject* GetIterator() override;
  IteratorObject* GetIterator(const std::u16string& name) override;
  IteratorObject* GetIterator(const file_identifier* id) override;
  uint64_t FindSubdir(const std::u16string& name) override;
  FileObject* Open(const std::u16string& name) override;
  FileObject* Open(IteratorObject* position) override;
  FileObject* Open(const file_identifier* id) override;
  FileObject* Create(const std::u16string& name) override;
  void Remove(const std::u16string& name) override;
  void RemoveDir(const std::u16string& name) override;
  void CreateDir(const std::u16string& name) override;
  void Rename(const std::u16string& from, const std::u16string& to) override;
  void CreateHardLink(const std::u16string& name, const std::u16string& existing) override;
  void CreateSymLink(const std::u16string& name, const std::u16string& target) override;

  XFSDriver& Xfs() { return static_cast<XFSDriver&>(driver); }
  // A cursor before the first entry.
  std::unique_ptr<StatIterator> DoGetIterator();
  FileObject* OpenInode(uint64_t number);

  InodePtr inode;
};

// One entry; loads the entry's inode when a query needs it.
class XFSDriver::StatIterator : public IteratorObject {
 public:
  StatIterator(XFSDriver& driver, uint64_t directoryId) : driver(driver), directoryId(directoryId) {}

  bool Next() override { return false; }
  file_identifier* GetIdentifier() override;
  std::u16string FileName() override { return name; }
  uint64_t Size() override { return Load()->Size(); }
  uint64_t SizeOnDisk() override;
  uint32_t FileType() override;
  uint64_t ModificationTime() override { return Load()->Time(40); }
  uint64_t StatusChangeTime() override { return Load()->Time(48); }
  uint64_t CreationTime() override;
  uint64_t AccessTime() override { return Load()->Time(32); }
  bool IsHidden() override { return !name.empty() && name[0] == u'.'; }
  uint64_t InodeId() override { return number; }
  uint64_t GetPhysLocation() override;
  uint32_t UnixPermissions() override { return Load()->Mode() & 0xFFF; }
  uint32_t HardLinkCount() override { return Load()->LinkCount(); }
  uint32_t OwnerID() override { return Load()->Owner(); }
  uint32_t GroupID() override { return Load()->Group(); }
  uint32_t DeviceMajor() override;
  uint32_t DeviceMinor() override;
  const char16_t* SymbolicLinkTarget() override;

  const InodePtr& Load();
  // Takes an entry's name bytes, number and type byte (0xFF without one).
  void Take(const uint8_t* nameBytes, size_t length, uint64_t entryNumber, uint8_t entryType);

  XFSDriver& driver;
  uint64_t directoryId;
  std::u16string name;
  uint64_t number = 0;
  uint8_t type = 0xFF;
  std::u16string linkTarget;
  bool linkLoaded = false;
  InodePtr inode;
};

class XFSDriver::LocalIterator final : public StatIterator {
 public:
  LocalIterator(XFSDriver& driver, const InodePtr& directory, uint64_t directoryId);
  bool Next() override;

  InodePtr directory;
  const uint8_t* at = nullptr;
  uint64_t left = 0;
  uint32_t entriesLeft = 0;
  bool wide = false;
};

class XFSDriver::BlockIteratorBase : public StatIterator {
 public:
  using StatIterator::StatIterator;
  bool Next() override;

 protected:
  std::vector<uint8_t> buffer;
  size_t at = 0;
  size_t end = 0;
};

class XFSDriver::BlockIterator final : public BlockIteratorBase {
 public:
  BlockIterator(XFSDriver& driver, const InodePtr& directory, uint64_t directoryId);
};

class XFSDriver::LeafIterator final : public BlockIteratorBase {
 public:
  LeafIterator(XFSDriver& driver, const InodePtr& directory, uint64_t directoryId);
  bool Next() override;

 private:
  std::unique_ptr<ExtentLocator> locator;
  uint64_t nextBlock = 0;  // in volume blocks from the directory's start
};

}  // namespace xfs
