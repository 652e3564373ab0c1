// The ext2/3/4 driver, read side.  The volume object checks the
// superblock far more strictly than the format asks, keeps every group
// descriptor in memory and verifies every checksum family; inodes live in a
// small table of their own, and a file's blocks are found by one of two
// location processors (block maps or extent trees) that report runs, so
// that one disk read can span many blocks.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "extfs_format.h"
#include "filesys/filesys_posix.h"

namespace extfs {

// Checksums of the format.  Both are the raw update: no complement at
// either end, so a chain of updates equals one over the joined bytes.
uint32_t Crc32c(uint32_t crc, const void* data, size_t size);
uint16_t Crc16(uint16_t crc, const void* data, size_t size);

// The name hash of the directory index; `version` 1/4 half-MD4, 2/5 TEA
// (signed and unsigned bytes), `seed` the superblock's 16 bytes.
uint32_t DirEntryHash(const uint8_t* name, size_t length, uint32_t version, const uint8_t seed[16]);

class ExtfsDriver;
class ExtfsInode;

// Counted handle on an inode of the table.
class InodeRef {
 public:
  InodeRef() = default;
  explicit InodeRef(ExtfsInode* inode) noexcept;
  InodeRef(const InodeRef& other) noexcept : InodeRef(other.inode_) {}
  InodeRef& operator=(InodeRef other) noexcept {
    std::swap(inode_, other.inode_);
    return *this;
  }
  ~InodeRef();
  ExtfsInode* operator->() const { return inode_; }
  ExtfsInode* Get() const { return inode_; }

 private:
  ExtfsInode* inode_ = nullptr;
};

// The last block visited at each level of a block map or extent tree,
// pinned while the inode is cached.
struct IndirectCache {
  struct Level {
    SectorBufferRef buffer;
    uint64_t block = ~uint64_t(0);
  };
  uint32_t seed = 0;
  uint64_t maxDepth = 0;
  std::vector<Level> levels;
};

class InodeLocationProcessor {
 public:
  virtual ~InodeLocationProcessor() = default;
  virtual uint64_t MaxLogicalBlocks() const = 0;
  virtual uint32_t CacheDepth() const = 0;
  // 0 when the inode has no block.
  virtual uint64_t FirstPhysicalBlock(const uint8_t* map, IndirectCache& cache) = 0;
  // The physical block of `logical` (~0 for a hole) and in `count` how
  // many logical blocks from there share the answer.
  virtual uint64_t Lookup(const uint8_t* map, uint64_t logical, uint64_t& count, bool& unwritten,
                          IndirectCache& cache) = 0;
};

class LegacyLocationProcessor final : public InodeLocationProcessor {
 public:
  explicit LegacyLocationProcessor(ExtfsDriver& driver);
  uint64_t MaxLogicalBlocks() const override { return max_; }
  uint32_t CacheDepth() const override { return 3; }
  uint64_t FirstPhysicalBlock(const uint8_t* map, IndirectCache& cache) override;
  uint64_t Lookup(const uint8_t* map, uint64_t logical, uint64_t& count, bool& unwritten,
                  IndirectCache& cache) override;

 private:
  const uint8_t* GetIndirect(IndirectCache& cache, uint32_t level, uint64_t block);

  ExtfsDriver& driver_;
  uint64_t p_;
  uint64_t max_;
};

class ExtentsLocationProcessor final : public InodeLocationProcessor {
 public:
  explicit ExtentsLocationProcessor(ExtfsDriver& driver) : driver_(driver) {}
  uint64_t MaxLogicalBlocks() const override { return 0x100000000ull; }
  uint32_t CacheDepth() const override { return 16; }
  uint64_t FirstPhysicalBlock(const uint8_t* map, IndirectCache& cache) override;
  uint64_t Lookup(const uint8_t* map, uint64_t logical, uint64_t& count, bool& unwritten,
                  IndirectCache& cache) override;

 private:
  uint64_t LookupNode(const uint8_t* node, uint32_t level, uint64_t logical, uint64_t& count,
                      bool& unwritten, IndirectCache& cache);
  const uint8_t* ReadChild(IndirectCache& cache, uint32_t level, uint64_t block);

  ExtfsDriver& driver_;
};

// Headers of extent nodes: `capacity` is the room in bytes (60 for the
// root in the inode, the block size elsewhere).
void ValidateHeader(const uint8_t* node, uint32_t capacity);

class ExtfsInode final : public ReferenceCount, public LRUList<ExtfsInode> {
 public:
  ExtfsInode(ExtfsDriver& driver, uint32_t number);

  uint32_t Number() const { return number_; }
  const uint8_t* Raw() const { return raw_.data(); }
  uint16_t Mode() const;
  uint32_t Flags() const;
  uint32_t Generation() const;
  uint64_t GetSize() const;
  uint64_t GetBlockCount() const;
  uint32_t GetLinkCount() const;
  uint32_t Owner() const;
  uint32_t Group() const;
  uint32_t DeviceMajor() const;
  uint32_t DeviceMinor() const;
  // Milliseconds since 1970.
  uint64_t AccessTime() const;
  uint64_t ChangeTime() const;
  uint64_t ModificationTime() const;
  uint64_t CreationTime() const;
  bool HasDataBlocks() const;
  uint64_t FirstDataSector();
  const std::string& GetSymbolicLinkTarget();
  uint32_t Seed() const { return seed_; }
  // The physical block of `logical`, ~0 for a hole or an unwritten range.
  uint64_t Lookup(uint64_t logical, uint64_t& count);

 private:
  void VerifyChecksum();
  uint64_t Time(size_t secondsOffset, size_t extraOffset) const;
  bool ReachesExtra(size_t offset, size_t width) const;

  uint32_t number_;
  ExtfsDriver& driver_;
  std::vector<uint8_t> raw_;
  std::string link_;
  bool linkLoaded_ = false;
  InodeLocationProcessor* processor_ = nullptr;
  IndirectCache cache_;
  uint32_t seed_ = 0;
};

class ExtfsFile;

class ExtfsDriver final : public FileSystemDriverPosix {
 public:
  class ExtfsDirectory;
  class ExtfsBaseIterator;
  class ExtfsIterator;

  // Judges the volume; every failed check raises and ends the mount.
  // `bitmap` of `bitmapBits` bits names the inodes that listings show; a
  // driver given one never writes.
  ExtfsDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors, uint32_t handlerId,
              const uint8_t* bitmap, uint64_t bitmapBits);
  ~ExtfsDriver() override;

  void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) override;
  void GetVolumeLabel(char16_t* buffer, uint32_t capacity) override;
  void PrepareToWrite() override;
  DirectoryObject* OpenDirById(uint64_t id) override;
  const char* FSType() override;
  uint32_t GetBufferPadding() override { return HasMetadataCsum() ? 1 : 0; }
  uint64_t GetRootId() override { return 2; }

  // ---- services of the inode and directory layers
  SectorBufferRef GetBlockBuffer(uint64_t block, bool noRead = false);
  void ReadBlocksNoCache(void* buffer, uint64_t block, uint64_t count);
  const uint8_t* GetGroupDescriptor(uint32_t group) const;
  // The buffer that holds the raw inode and its offset in it.
  SectorBufferRef GetInodeData(uint32_t number, uint32_t& offset);
  InodeLocationProcessor* GetLocationProcessor(uint32_t flags);
  InodeRef OpenInode(uint32_t number);
  void ForgetInode(ExtfsInode* inode);
  ExtfsFile* OpenFile(const InodeRef& inode);
  void ForgetFile(uint32_t number) { files_.erase(number); }
  // Whether listings leave the (zero-based) inode out.
  bool IsHidden(uint32_t number) const;

  uint32_t BlockSize() const { return blockSize_; }
  uint32_t SectorsPerBlock() const { return sectorsPerBlock_; }
  uint32_t LogBlockSize() const { return logBlockSize_; }
  uint64_t Blocks() const { return blocks_; }
  uint32_t AddressesPerBlock() const { return blockSize_ / 4; }
  uint32_t InodeSize() const { return inodeSize_; }
  uint32_t InodesCount() const { return inodesCount_; }
  uint32_t Groups() const { return groups_; }
  uint32_t MetadataSeed() const { return metadataSeed_; }
  uint32_t Kind() const { return kind_; }
  bool ReadOnly() const { return readOnly_; }
  const uint8_t* SuperBlock() const { return sb_; }
  bool HasIncompat(uint32_t bit) const { return (incompat_ & bit) != 0; }
  bool HasRoCompat(uint32_t bit) const { return (roCompat_ & bit) != 0; }
  bool HasMetadataCsum() const { return HasRoCompat(Format::kRoMetadataCsum); }
  bool GroupHasSuperBlock(uint64_t group) const;

  // The most unreferenced inodes the table keeps.
  static constexpr size_t kMaxIdleInodes = 32;
  size_t CachedInodeCount() const { return inodes_.size(); }

 private:
  void ReadSuperBlock();
  void LoadSuperBlockCopy();
  void CheckFileSystemFeatures();
  bool VerifySuperBlockChecksum() const;
  void ReadGroupDescriptors();
  void VerifyGroupDescrs() const;

  uint8_t sb_[1024] = {};
  bool readOnly_ = false;
  uint32_t kind_ = 6;
  uint32_t compat_ = 0, incompat_ = 0, roCompat_ = 0;
  uint32_t blockSize_ = 0;
  uint32_t logBlockSize_ = 0;
  uint32_t sectorsPerBlock_ = 0;
  uint64_t blocks_ = 0;
  uint32_t firstDataBlock_ = 0;
  uint32_t blocksPerGroup_ = 0;
  uint32_t inodesPerGroup_ = 0;
  uint32_t inodesCount_ = 0;
  uint32_t firstInode_ = 10;
  uint32_t inodeSize_ = 128;
  uint32_t inodesPerBlock_ = 0;
  uint32_t inodeTableBlocks_ = 0;
  uint32_t descSize_ = 32;
  uint32_t gdBlocks_ = 0;
  uint32_t groupsPerFlex_ = 1;
  uint32_t groups_ = 0;
  uint32_t reservedGdtBlocks_ = 0;
  uint32_t metadataSeed_ = 0;
  std::u16string label_;
  std::vector<uint8_t> descriptors_;
  std::vector<uint8_t> dirtyGroups_;
  const uint8_t* bitmap_;
  uint64_t bitmapBits_;
  std::unique_ptr<LegacyLocationProcessor> legacy_;
  std::unique_ptr<ExtentsLocationProcessor> extents_;
  std::map<uint32_t, ExtfsInode*> inodes_;
  LRUChain<ExtfsInode> inodeList_;
  std::map<uint32_t, ExtfsFile*> files_;
};

class ExtfsFile final : public FileSystemDriver::FileObject {
 public:
  ExtfsFile(ExtfsDriver& driver, const InodeRef& inode);
  ~ExtfsFile() override;

  uint64_t GetSize() override;
  void GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) override;
  void Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) override;

 private:
  ExtfsDriver& driver_;
  InodeRef inode_;
};

class ExtfsDriver::ExtfsDirectory final : public DirectoryObject {
 public:
  ExtfsDirectory(ExtfsDriver& driver, uint64_t id);

  IteratorObject* GetIterator() override;
  IteratorObject* GetIterator(const std::u16string& name) override;
  IteratorObject* GetIterator(const file_identifier* id) override;
  uint64_t FindSubdir(const std::u16string& name) override;
  FileObject* Open(const std::u16string& name) override;
  FileObject* Open(IteratorObject* position) override;
  FileObject* Open(const file_identifier* id) override;

  ExtfsDriver& Ext() { return static_cast<ExtfsDriver&>(driver); }
  const InodeRef& Inode() const { return inode_; }
  // The entry named by `name` (UTF-8 bytes); `offset` enters as a hint and
  // leaves as the entry's place.
  bool FindEntry(const std::string& name, const Format::DirEntry*& entry, uint32_t& offset);
  bool NextEntry(const Format::DirEntry*& entry, uint32_t& offset, bool skipDots);
  bool LookupInDXTree(const std::string& name, const Format::DirEntry*& entry, uint32_t& offset);

 private:
  const uint8_t* GetBuffer(uint32_t offset, int kind);
  void VerifyBufferChecksum(SectorBufferRef& buffer, uint32_t index, int kind);
  void VerifyDXBlockChecksum(const uint8_t* block, uint32_t index);
  bool LinearSearch(const std::string& name, const Format::DirEntry*& entry, uint32_t& offset,
                    uint64_t limit);
  uint32_t ChooseHashVersion(uint32_t version);
  bool CheckNodeLimits(uint32_t block, uint32_t hash, std::vector<uint32_t>& list);
  FileObject* OpenEntry(const Format::DirEntry& entry);

  InodeRef inode_;
  SectorBufferRef current_;
  uint32_t currentIndex_ = ~uint32_t(0);
};

// One entry of a directory, as a lookup finds it.
class ExtfsDriver::ExtfsBaseIterator : public IteratorObject {
 public:
  ExtfsBaseIterator(ExtfsDirectory& directory, const Format::DirEntry& entry, uint32_t offset);

  bool Next() override;
  file_identifier* GetIdentifier() override;
  std::u16string FileName() override { return wideName_; }
  uint64_t Size() override;
  uint64_t SizeOnDisk() override;
  uint32_t FileType() override;
  uint64_t ModificationTime() override;
  uint64_t StatusChangeTime() override;
  uint64_t CreationTime() override;
  uint64_t AccessTime() override;
  bool IsHidden() override { return !name_.empty() && name_[0] == '.'; }
  uint64_t InodeId() override { return number_; }
  uint64_t GetPhysLocation() override;
  uint32_t UnixPermissions() override;
  uint32_t HardLinkCount() override;
  uint32_t OwnerID() override;
  uint32_t GroupID() override;
  uint32_t DeviceMajor() override;
  uint32_t DeviceMinor() override;
  const char16_t* SymbolicLinkTarget() override;

  uint64_t DirectoryId() const { return directory_.Get()->id; }

 protected:
  void Take(const Format::DirEntry& entry, uint32_t offset);
  void Load();

  DirHold directory_;
  ExtfsDriver& driver_;
  uint32_t number_ = 0;
  uint32_t blockIndex_ = 0;
  std::string name_;
  std::u16string wideName_;
  uint16_t mode_ = 0;
  std::u16string linkTarget_;
  uint64_t size_ = 0, sizeOnDisk_ = 0;
  uint64_t mtime_ = 0, ctime_ = 0, crtime_ = 0, atime_ = 0;
  uint32_t links_ = 0, owner_ = 0, group_ = 0, major_ = 0, minor_ = 0;
  uint64_t physLocation_ = 0;
  uint32_t type_ = FileTypes::UnknownDirectory;
  bool loaded_ = false;
};

class ExtfsDriver::ExtfsIterator final : public ExtfsBaseIterator {
 public:
  ExtfsIterator(ExtfsDirectory& directory, const Format::DirEntry& entry, uint32_t offset);
  bool Next() override;

 private:
  InodeRef dirInode_;
  uint32_t offset_;
  uint32_t blockSize_;
  std::vector<uint8_t> block_;
};

// Checks an entry at `offset` of a directory block; true when the caller
// should report it.
bool ValidEntry(const Format::DirEntry& entry, uint32_t offset, ExtfsDriver& driver, uint32_t dirNumber,
                bool skipDots);

}  // namespace extfs
