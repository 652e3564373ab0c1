// The FAT driver's classes.  Two ideas set it apart from the textbook:
// a directory is loaded whole into cached cluster buffers when its object is
// made, and the FAT is walked in runs of contiguous clusters, never cluster
// by cluster, with a memo of FAT sectors known to be one sequential stretch.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "filesys/fat_format.h"
#include "filesys/filesys_win.h"

// A stretch of a cluster chain: clusters [first, end), and the cluster the
// chain continues with behind it.
struct ClusterRun {
  uint32_t first = 0;
  uint32_t end = 0;
  uint32_t next = 0;
};

// Finds a chain that comes back to a run it has already passed: the next
// cluster of every cluster is fixed, so a chain that does never ends.
// Remembers one run start and moves it to the current run at every power
// of two steps (constant memory; a loop shows within twice its distance).
class ChainLoopGuard {
 public:
  void Reset() { *this = ChainLoopGuard(); }
  // False when `first` starts a run that was already walked.
  bool Step(uint32_t first) {
    if (started_ && first == mark_) return false;
    if (!started_ || ++steps_ == power_) {
      mark_ = first;
      started_ = true;
      power_ *= 2;
      steps_ = 0;
    }
    return true;
  }

 private:
  bool started_ = false;
  uint32_t mark_ = 0;
  uint64_t power_ = 1;
  uint64_t steps_ = 0;
};

class FATDriver final : public FileSystemDriverWindows {
 public:
  class FATHandler;
  class FAT12Handler;
  template <typename Entry, unsigned long Mask>
  class FATXXHandler;
  class FATDirectory;
  class FATFile;
  class FATIterator;

  // Judges the volume: every inconsistency of the boot sector raises "The
  // file is corrupted." (function "FATDriver").
  FATDriver(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors, uint32_t handlerId,
            const uint8_t* bootSector, const uint8_t* visibleBitmap, uint64_t bitmapBits);
  ~FATDriver() override;

  void GetDriveSize(uint64_t& total, uint64_t& free, uint64_t& available) override;
  void GetVolumeLabel(char16_t* buffer, uint32_t capacity) override;
  int CompareNames(const file_identifier* a, const file_identifier* b) override;
  void NormalizeName(std::u16string& name) override;
  void IOCTL(void* request) override;
  DirectoryObject* OpenDirById(uint64_t id) override;
  const char* FSType() override { return rootCluster_ != 0 ? "FAT32" : "FAT16"; }
  uint64_t GetRootId() override { return 0; }

  // ---- the volume's geometry, for its objects
  uint32_t ClusterCount() const { return clusterCount_; }
  uint32_t SectorsPerCluster() const { return sectorsPerCluster_; }
  uint32_t ClusterBytes() const { return sectorsPerCluster_ * SectorSize(); }
  uint32_t FirstDataSector() const { return firstDataSector_; }
  bool IsFat32() const { return rootCluster_ != 0; }
  uint32_t RootCluster() const { return rootCluster_; }
  uint32_t ActiveFatSector() const { return activeFatSector_; }
  uint32_t SectorsPerFat() const { return sectorsPerFat_; }
  uint32_t RootDirSectors() const { return rootDirSectors_; }
  bool InRange(uint32_t cluster) const { return cluster - 2 < clusterCount_; }
  uint64_t ClusterSector(uint32_t cluster) const {
    return uint64_t(cluster - 2) * sectorsPerCluster_ + firstDataSector_;
  }
  FATHandler& Fat() { return *fat_; }
  // An entry that listings show: not ".", "..", deleted, a label or a
  // long-name part, and allowed by the visible bitmap when there is one.
  bool ValidEntry(const Fat::DirEntry& e) const;
  uint32_t FirstCluster(const Fat::DirEntry& e) const;

 private:
  uint32_t GetAvailableClusters();

  uint32_t clusterCount_ = 0;
  uint32_t rootCluster_ = 0;
  const uint8_t* visibleBitmap_;
  uint64_t visibleBits_;
  uint32_t sectorsPerCluster_ = 0;
  uint32_t reservedSectors_ = 0;
  uint32_t fsInfoSector_ = 0;
  uint32_t sectorsPerFat_ = 0;
  uint32_t numberOfFats_ = 0;
  uint32_t activeFatSector_ = 0;
  uint32_t rootDirSectors_ = 0;
  uint32_t firstDataSector_ = 0;
  bool freeKnown_ = false;
  uint32_t freeClusters_ = 0;
  bool mirror_ = false;
  uint8_t bootLabel_[11] = {};
  std::unique_ptr<FATHandler> fat_;
};

class FATDriver::FATHandler {
 public:
  virtual ~FATHandler() = default;
  // Moves `run` to the stretch that begins at run.next; false when run.next
  // is no cluster of the volume (an end mark, a bad-cluster mark, 0 and any
  // value out of range all end a chain alike).
  virtual bool NextRun(ClusterRun& run) = 0;
  // Zero entries among all clusters.
  virtual uint32_t CountFree() = 0;
};

class FATDriver::FAT12Handler final : public FATHandler {
 public:
  explicit FAT12Handler(FATDriver& driver) : driver_(driver) {}
  bool NextRun(ClusterRun& run) override;
  uint32_t CountFree() override;

 private:
  uint32_t Entry(uint32_t cluster);
  void Load();

  FATDriver& driver_;
  bool loaded_ = false;
  SectorBufferRef table_;
  uint64_t bytes_ = 0;
};

template <typename Entry, unsigned long Mask>
class FATDriver::FATXXHandler final : public FATHandler {
 public:
  explicit FATXXHandler(FATDriver& driver);
  bool NextRun(ClusterRun& run) override;
  uint32_t CountFree() override;

  // The window covers up to this many FAT sectors.
  static constexpr uint32_t kWindowSectors = 8;

 private:
  // Makes the window cover FAT sector `index` (relative to the FAT).
  void Load(uint32_t index);
  uint32_t EntryAt(uint32_t cluster) const;

  FATDriver& driver_;
  const uint32_t entriesPerSector_;
  uint64_t windowFirst_ = 0;   // absolute volume sector of the window
  uint32_t windowSectors_ = 0;
  SectorBufferRef window_;
  // FAT sectors whose entries all continue sequentially into the next
  // sector: a run through them needs no reading.
  std::set<uint32_t> sequential_;
};

class FATDriver::FATDirectory final : public DirectoryObject {
 public:
  FATDirectory(FATDriver& driver, uint64_t id);
  ~FATDirectory() override;

  IteratorObject* GetIterator() override;
  IteratorObject* GetIterator(const std::u16string& name) override;
  IteratorObject* GetIterator(const file_identifier* id) override;
  uint64_t FindSubdir(const std::u16string& name) override;
  FileObject* Open(const std::u16string& name) override;
  FileObject* Open(IteratorObject* position) override;
  FileObject* Open(const file_identifier* id) override;

  FATDriver& Fat() { return static_cast<FATDriver&>(driver); }
  uint32_t TotalEntries() const { return totalEntries_; }
  const Fat::DirEntry& EntryAt(uint32_t index) const;
  // The entry's volume byte position.
  uint64_t EntryPosition(uint32_t index) const;
  // The first valid entry at or after `index`, or kNoEntry.
  uint32_t NextValid(uint32_t index) const;
  // The long name standing before the entry at `index`; the number of
  // long-name entries, 0 when there is none.
  unsigned GetLongName(uint32_t index, std::u16string& name) const;
  // The index of the entry named `name`; raises "The specified file does
  // not exist." when there is none.
  uint32_t FindEntry(const std::u16string& name);
  // The index of the valid entry with these 11 short-name bytes, or kNoEntry.
  uint32_t FindShortName(const uint8_t name[11]) const;
  // Clusters of the directory's own chain (0 for a fixed root).
  uint32_t ChainClusters() const { return chainClusters_; }
  void Forget(uint32_t index) { files_.erase(index); }

  static constexpr uint32_t kNoEntry = 0xFFFFFFFE;

 private:
  void LoadFixedRoot();
  void LoadChain(uint32_t first);
  void CheckDotEntries();
  FileObject* OpenAt(uint32_t index);

  std::map<uint32_t, FATFile*> files_;
  std::vector<SectorBufferRef> buffers_;
  uint32_t totalEntries_ = 0;
  uint32_t entriesPerBuffer_ = 0;
  uint32_t lastCluster_ = 0;
  uint32_t chainClusters_ = 0;
  // Upper-cased long names by entry index, made at the first lookup that
  // needs them.
  bool foldedReady_ = false;
  std::vector<std::pair<uint32_t, std::u16string>> folded_;
};

class FATDriver::FATFile final : public FileObject {
 public:
  FATFile(FATDirectory& directory, uint32_t index);
  ~FATFile() override;

  uint64_t GetSize() override { return size_; }
  void GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) override;
  void Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) override;

 private:
  // Makes the memo cover file cluster `k`; false when the chain ends first.
  bool SeekToCluster(uint32_t k);
  // Extends the memo over runs that continue it on the disk, as far as file
  // cluster `lastK`.
  void ExtendMemo(uint32_t lastK);

  FATDriver& driver_;
  DirHold directory_;
  const uint32_t index_;
  const uint32_t size_;
  const uint32_t firstCluster_;
  // The memo: file cluster memoStart_ is disk cluster run_.first.
  bool memoValid_ = false;
  uint32_t memoStart_ = 0;
  ClusterRun run_;
  ChainLoopGuard loop_;
};

class FATDriver::FATIterator final : public IteratorObject {
 public:
  // On entry `index`, or the root cursor with kNoEntry.
  FATIterator(FATDirectory& directory, uint32_t index);

  bool Next() override;
  file_identifier* GetIdentifier() override;
  std::u16string FileName() override;
  uint64_t Size() override;
  uint64_t SizeOnDisk() override;
  uint32_t FileType() override;
  uint64_t ModificationTime() override;
  uint64_t CreationTime() override;
  uint64_t AccessTime() override;
  bool IsHidden() override;
  uint64_t InodeId() override;
  uint64_t GetPhysLocation() override;
  const char16_t* ShortName() override;
  uint32_t DOSAttributes() override;

  FATDirectory* Directory() const { return static_cast<FATDirectory*>(directory_.Get()); }
  uint32_t Index() const { return index_; }

 private:
  const Fat::DirEntry& Entry() const;
  void LoadNames();

  DirHold directory_;
  uint32_t index_;
  std::u16string longName_;
  std::u16string shortName_;
  int state_ = 0;  // 0 names not read, 1 no long name, 2 long name
};

// Converting FAT names.
namespace FatNames {
// The 11 bytes of a lookup name, or false when it has no 8.3 form.
bool ToShortName(const std::u16string& name, uint8_t out[11]);
// A short name as listings show it.
std::u16string DisplayShortName(const Fat::DirEntry& e);
uint8_t Checksum(const uint8_t name[11]);
// Milliseconds since 1970 of a FAT date and time; 0 for all zeroes.
uint64_t ToMilliseconds(uint16_t date, uint16_t time, uint8_t tenths);
}  // namespace FatNames
