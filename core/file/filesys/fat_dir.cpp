// The FAT driver: directories, names, files and cursors.
#include <cstring>

#include "fat.h"
#include "filesys/collation.h"

using namespace Common::Codes;

// ---- names

namespace FatNames {

uint8_t Checksum(const uint8_t name[11]) {
  uint8_t sum = 0;
  for (int i = 0; i < 11; ++i) sum = uint8_t(((sum & 1) << 7) + (sum >> 1) + name[i]);
  return sum;
}

bool ToShortName(const std::u16string& name, uint8_t out[11]) {
  std::u16string upper = name;
  FatText::Upper(upper);
  std::string oem;
  if (!FatText::ToOem(upper, oem)) return false;
  const size_t dot = oem.find('.');
  const size_t p = dot == std::string::npos ? oem.size() : dot;
  if (p < 1 || p > 8) return false;
  if (oem[p - 1] == ' ') return false;
  std::memset(out, ' ', 11);
  std::memcpy(out, oem.data(), p);
  if (dot != std::string::npos) {
    const std::string ext = oem.substr(dot + 1);
    if (ext.find('.') != std::string::npos || ext.size() > 3) return false;
    if (oem.back() == ' ') return false;
    std::memcpy(out + 8, ext.data(), ext.size());
  }
  if (out[0] == Fat::kDeleted) out[0] = Fat::kDeletedStandIn;
  return true;
}

namespace {
// Text of OEM bytes; a byte that has none shows as U+FFFD.
std::u16string Show(const uint8_t* bytes, size_t size) {
  std::u16string text;
  if (FatText::ToText(bytes, size, text)) return text;
  text.clear();
  for (size_t i = 0; i < size; ++i) text.push_back(bytes[i] < 0x80 ? char16_t(bytes[i]) : u'\uFFFD');
  return text;
}
void Lower(std::u16string& s) {
  for (char16_t& c : s)
    if (c >= u'A' && c <= u'Z') c = char16_t(c + 32);
}
void TrimBlanks(std::u16string& s) {
  while (!s.empty() && s.back() == u' ') s.pop_back();
}
}  // namespace

std::u16string DisplayShortName(const Fat::DirEntry& e) {
  uint8_t base[8];
  std::memcpy(base, e.name, 8);
  if (base[0] == Fat::kDeletedStandIn) base[0] = Fat::kDeleted;
  std::u16string name = Show(base, 8);
  TrimBlanks(name);
  if (e.caseFlags & 0x08) Lower(name);
  std::u16string ext = Show(e.name + 8, 3);
  TrimBlanks(ext);
  if (e.caseFlags & 0x10) Lower(ext);
  if (!ext.empty()) name += u"." + ext;
  return name;
}

uint64_t ToMilliseconds(uint16_t date, uint16_t time, uint8_t tenths) {
  if (date == 0 && time == 0) return 0;
  const int64_t seconds = (time & 0x1F) * 2, minutes = (time >> 5) & 0x3F, hours = time >> 11;
  const int64_t day = date & 0x1F, month = (date >> 5) & 0x0F, year = 1980 + (date >> 9);
  // Days from the civil date, counting March as the first month so that
  // the leap day falls at the end of the year.
  const int64_t y = month <= 2 ? year - 1 : year;
  const int64_t era = y / 400;
  const int64_t yoe = y - era * 400;
  const int64_t mp = (month + 9) % 12;
  const int64_t doy = (153 * mp + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const int64_t days = era * 146097 + doe - 719468;
  const int64_t total = ((days * 24 + hours) * 60 + minutes) * 60 + seconds;
  return uint64_t(total * 1000 + int64_t(tenths) * 10);
}

}  // namespace FatNames

// ---- directories

FATDriver::FATDirectory::FATDirectory(FATDriver& driver, uint64_t id) : DirectoryObject(driver, id) {
  if (id == 0 && !driver.IsFat32())
    LoadFixedRoot();
  else
    LoadChain(id == 0 ? driver.RootCluster() : uint32_t(id));
  if (id != 0) CheckDotEntries();
}

FATDriver::FATDirectory::~FATDirectory() {
  // Files keep their directory counted, so none can be open here.
  files_.clear();
}

void FATDriver::FATDirectory::LoadFixedRoot() {
  FATDriver& fat = Fat();
  const uint32_t sectors = fat.RootDirSectors();
  buffers_.push_back(fat.GetBuffer(fat.FirstDataSector() - sectors, sectors));
  if (buffers_.back().SectorCount() < sectors) THROW_ERROR(Corrupted);
  entriesPerBuffer_ = sectors * (fat.SectorSize() / uint32_t(sizeof(Fat::DirEntry)));
  totalEntries_ = entriesPerBuffer_;
}

void FATDriver::FATDirectory::LoadChain(uint32_t first) {
  FATDriver& fat = Fat();
  const uint64_t clusterBytes = fat.ClusterBytes();
  const uint64_t maxClusters = (Fat::kMaxDirectoryBytes + clusterBytes - 1) / clusterBytes;
  std::vector<ClusterRun> runs;
  uint64_t clusters = 0;
  ClusterRun run;
  run.next = first;
  ChainLoopGuard loop;
  while (fat.Fat().NextRun(run)) {
    if (!loop.Step(run.first)) THROW_ERROR(Corrupted);
    clusters += run.end - run.first;
    // A chain longer than any directory may be, or than the volume has
    // clusters, loops or is corrupt.
    if (clusters > maxClusters || clusters > fat.ClusterCount()) THROW_ERROR(Corrupted);
    runs.push_back(run);
  }
  if (clusters == 0) THROW_ERROR(Corrupted);
  entriesPerBuffer_ = uint32_t(clusterBytes / sizeof(Fat::DirEntry));
  totalEntries_ = uint32_t(clusters) * entriesPerBuffer_;
  chainClusters_ = uint32_t(clusters);
  buffers_.reserve(size_t(clusters));
  for (const ClusterRun& r : runs)
    for (uint32_t c = r.first; c != r.end; ++c)
      buffers_.push_back(fat.GetBuffer(fat.ClusterSector(c), fat.SectorsPerCluster()));
  lastCluster_ = runs.back().end - 1;
  // A buffer found in the cache at a cluster's sector may be shorter than
  // a cluster; such a directory cannot be read as one piece.
  for (const SectorBufferRef& b : buffers_)
    if (b.SectorCount() < fat.SectorsPerCluster()) THROW_ERROR(Corrupted);
}

void FATDriver::FATDirectory::CheckDotEntries() {
  static const uint8_t kDot[11] = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  static const uint8_t kDotDot[11] = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  auto isDir = [](const Fat::DirEntry& e) {
    return (e.attributes & (Fat::kAttrVolumeLabel | Fat::kAttrDirectory)) == Fat::kAttrDirectory;
  };
  if (totalEntries_ < 2) THROW_ERROR(Corrupted);
  const Fat::DirEntry& self = EntryAt(0);
  const Fat::DirEntry& parent = EntryAt(1);
  if (std::memcmp(self.name, kDot, 11) != 0 || !isDir(self) || Fat().FirstCluster(self) != id ||
      std::memcmp(parent.name, kDotDot, 11) != 0 || !isDir(parent))
    THROW_ERROR(Corrupted);
}

const Fat::DirEntry& FATDriver::FATDirectory::EntryAt(uint32_t index) const {
  const uint8_t* p = buffers_[index / entriesPerBuffer_].Data() +
                     size_t(index % entriesPerBuffer_) * sizeof(Fat::DirEntry);
  return *reinterpret_cast<const Fat::DirEntry*>(p);
}

uint64_t FATDriver::FATDirectory::EntryPosition(uint32_t index) const {
  const SectorBufferRef& b = buffers_[index / entriesPerBuffer_];
  return (b.FirstSector() + driver.StartSector()) * driver.SectorSize() +
         uint64_t(index % entriesPerBuffer_) * sizeof(Fat::DirEntry);
}

uint32_t FATDriver::FATDirectory::NextValid(uint32_t index) const {
  for (uint32_t i = index; i < totalEntries_; ++i) {
    const Fat::DirEntry& e = EntryAt(i);
    if (e.name[0] == 0) break;  // nothing is used behind a free entry
    if (const_cast<FATDirectory*>(this)->Fat().ValidEntry(e)) return i;
  }
  return kNoEntry;
}

unsigned FATDriver::FATDirectory::GetLongName(uint32_t index, std::u16string& name) const {
  name.clear();
  if (index == 0 || index >= totalEntries_) return 0;
  const uint8_t sum = FatNames::Checksum(EntryAt(index).name);
  auto part = [&](uint32_t at, unsigned sequence) -> const Fat::LongNameEntry* {
    const auto& e = reinterpret_cast<const Fat::LongNameEntry&>(EntryAt(at));
    if (e.attributes != Fat::kAttrLongName || e.zero.get() != 0 || (e.sequence & 0xBF) != sequence)
      return nullptr;
    return &e;
  };
  std::u16string collected;
  for (unsigned s = 1;; ++s) {
    const Fat::LongNameEntry* e = part(index - s, s);
    if (e == nullptr || e->checksum != sum) return 0;
    for (const auto& u : e->name1) collected.push_back(char16_t(u.get()));
    for (const auto& u : e->name2) collected.push_back(char16_t(u.get()));
    for (const auto& u : e->name3) collected.push_back(char16_t(u.get()));
    if (e->sequence & Fat::kLastLongPart) {
      const size_t zero = collected.find(char16_t(0));
      name = zero == std::u16string::npos ? collected : collected.substr(0, zero);
      // An empty long name names nothing: the short name stands.
      if (name.empty()) return 0;
      return s;
    }
    if (s + 1 > Fat::kMaxLongNameParts || s + 1 > index) return 0;
  }
}

uint32_t FATDriver::FATDirectory::FindShortName(const uint8_t name[11]) const {
  for (uint32_t i = NextValid(0); i != kNoEntry; i = NextValid(i + 1))
    if (std::memcmp(EntryAt(i).name, name, 11) == 0) return i;
  return kNoEntry;
}

uint32_t FATDriver::FATDirectory::FindEntry(const std::u16string& name) {
  uint8_t shortName[11];
  if (FatNames::ToShortName(name, shortName)) {
    const uint32_t i = FindShortName(shortName);
    if (i != kNoEntry) return i;
  }
  std::u16string wanted = name;
  driver.NormalizeName(wanted);
  if (!foldedReady_) {
    for (uint32_t i = NextValid(0); i != kNoEntry; i = NextValid(i + 1)) {
      std::u16string longName;
      if (GetLongName(i, longName) == 0) continue;
      driver.NormalizeName(longName);
      folded_.emplace_back(i, std::move(longName));
    }
    foldedReady_ = true;
  }
  for (const auto& [index, folded] : folded_)
    if (folded == wanted) return index;
  throw Common::FileNotFound(Common::MakeError(ERROR_HERE, FileNotFound));
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::GetIterator() {
  const uint32_t first = NextValid(0);
  if (first == kNoEntry) return nullptr;
  return new FATIterator(*this, first);
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::GetIterator(const std::u16string& name) {
  return new FATIterator(*this, FindEntry(name));
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::GetIterator(const file_identifier* id) {
  auto* ours = dynamic_cast<const the_identifier*>(id);
  if (ours == nullptr || ours->DataSize() < 11) THROW_ERROR(OpenError);
  const uint32_t i = FindShortName(ours->Data());
  if (i == kNoEntry) throw Common::FileNotFound(Common::MakeError(ERROR_HERE, FileNotFound));
  return new FATIterator(*this, i);
}

uint64_t FATDriver::FATDirectory::FindSubdir(const std::u16string& name) {
  const Fat::DirEntry& e = EntryAt(FindEntry(name));
  if ((e.attributes & Fat::kAttrDirectory) == 0) THROW_ERROR(OpenError);
  const uint32_t cluster = Fat().FirstCluster(e);
  // The root has one id, however an entry names it.
  if (Fat().IsFat32() && cluster == Fat().RootCluster()) return 0;
  return cluster;
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::OpenAt(uint32_t index) {
  auto it = files_.find(index);
  if (it != files_.end()) return it->second;
  auto* file = new FATFile(*this, index);
  try {
    files_.emplace(index, file);
  } catch (...) {
    delete file;
    throw;
  }
  return file;
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::Open(const std::u16string& name) {
  return OpenAt(FindEntry(name));
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::Open(IteratorObject* position) {
  auto* it = dynamic_cast<FATIterator*>(position);
  if (it == nullptr || it->Directory() != this || it->Index() >= totalEntries_) THROW_ERROR(OpenError);
  return OpenAt(it->Index());
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::Open(const file_identifier* id) {
  auto* ours = dynamic_cast<const the_identifier*>(id);
  if (ours == nullptr || ours->DataSize() < 11) THROW_ERROR(OpenError);
  const uint32_t i = FindShortName(ours->Data());
  if (i == kNoEntry) throw Common::FileNotFound(Common::MakeError(ERROR_HERE, FileNotFound));
  return OpenAt(i);
}

// ---- files

namespace {
const Fat::DirEntry& CheckedFileEntry(FATDriver::FATDirectory& dir, uint32_t index) {
  const Fat::DirEntry& e = dir.EntryAt(index);
  if ((e.attributes & (Fat::kAttrVolumeLabel | Fat::kAttrDirectory)) != 0 || e.name[0] == Fat::kDeleted)
    throw Common::MakeError(Common::ErrorLocation{ERROR_HERE.locationCode, __FILE__, "FATFile",
                                                  uint32_t(__LINE__)},
                            OpenError);
  return e;
}
}  // namespace

FATDriver::FATFile::FATFile(FATDirectory& directory, uint32_t index)
    : driver_(directory.Fat()),
      directory_(&directory),
      index_(index),
      size_(CheckedFileEntry(directory, index).size.get()),
      firstCluster_(driver_.FirstCluster(directory.EntryAt(index))) {}

FATDriver::FATFile::~FATFile() { static_cast<FATDirectory*>(directory_.Get())->Forget(index_); }

bool FATDriver::FATFile::SeekToCluster(uint32_t k) {
  // No chain has more clusters than the volume: a longer one loops.
  if (k >= driver_.ClusterCount()) return false;
  if (!memoValid_ || k < memoStart_) {
    ClusterRun r;
    r.next = firstCluster_;
    if (!driver_.Fat().NextRun(r)) return false;
    run_ = r;
    memoStart_ = 0;
    memoValid_ = true;
    loop_.Reset();
    loop_.Step(r.first);
  }
  while (k - memoStart_ >= run_.end - run_.first) {
    ClusterRun r;
    r.next = run_.next;
    if (!driver_.Fat().NextRun(r) || !loop_.Step(r.first)) return false;
    if (r.first == run_.end) {
      run_.end = r.end;  // continues on the disk: one run
    } else {
      memoStart_ += run_.end - run_.first;
      run_.first = r.first;
      run_.end = r.end;
    }
    run_.next = r.next;
    if (memoStart_ >= driver_.ClusterCount()) return false;
  }
  return true;
}

void FATDriver::FATFile::ExtendMemo(uint32_t lastK) {
  while (memoStart_ + (run_.end - run_.first) <= lastK && run_.next == run_.end) {
    ClusterRun r;
    r.next = run_.next;
    if (!driver_.Fat().NextRun(r) || !loop_.Step(r.first)) return;
    run_.end = r.end;
    run_.next = r.next;
  }
}

void FATDriver::FATFile::Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) {
  if (int64_t(offset) < 0 || size == 0 || offset >= size_) return;
  read = 0;
  if (size > size_ - offset) size = size_ - offset;
  const uint64_t cb = driver_.ClusterBytes();
  const uint32_t ss = driver_.SectorSize();
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t pos = offset;
  const uint64_t end = offset + size;
  while (pos < end) {
    const uint32_t k = uint32_t(pos / cb);
    if (!SeekToCluster(k)) THROW_ERROR(Corrupted);
    ExtendMemo(uint32_t((end - 1) / cb));
    const uint64_t runEnd = uint64_t(memoStart_ + (run_.end - run_.first)) * cb;
    const uint64_t stop = runEnd < end ? runEnd : end;
    const uint32_t cluster = run_.first + (k - memoStart_);
    const uint64_t inCluster = pos % cb;
    if (pos % ss != 0 || stop - pos < ss) {
      // A piece of a sector: through the cached cluster.
      SectorBufferRef b = driver_.GetBuffer(driver_.ClusterSector(cluster), driver_.SectorsPerCluster());
      if (uint64_t(b.SectorCount()) * ss < cb) THROW_ERROR(Corrupted);
      const uint64_t n = (cb - inCluster) < (end - pos) ? cb - inCluster : end - pos;
      std::memcpy(out + (pos - offset), b.Data() + inCluster, size_t(n));
      pos += n;
      read += n;
    } else {
      // Whole sectors of one contiguous run: straight into the caller's
      // buffer, in one read.
      const uint64_t sectors = (stop - pos) / ss;
      driver_.ReadNoCache(out + (pos - offset), driver_.ClusterSector(cluster) + inCluster / ss, sectors,
                          driver_.SectorsPerCluster(), driver_.FirstDataSector());
      pos += sectors * ss;
      read += sectors * ss;
    }
  }
}

void FATDriver::FATFile::GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) {
  sector = count = 0;
  const uint32_t ss = driver_.SectorSize();
  if (offset >= size_ || offset % ss != 0) THROW_ERROR(EndOfFile);
  const uint64_t cb = driver_.ClusterBytes();
  const uint32_t k = uint32_t(offset / cb);
  if (!SeekToCluster(k)) THROW_ERROR(Corrupted);
  const uint32_t cluster = run_.first + (k - memoStart_);
  const uint64_t within = (offset % cb) / ss;
  sector = driver_.ClusterSector(cluster) + within;
  count = uint64_t(run_.end - cluster) * driver_.SectorsPerCluster() - within;
}

// ---- cursors

FATDriver::FATIterator::FATIterator(FATDirectory& directory, uint32_t index)
    : directory_(&directory), index_(index) {}

const Fat::DirEntry& FATDriver::FATIterator::Entry() const {
  if (index_ >= Directory()->TotalEntries()) THROW_ERROR(EndOfFile);
  return Directory()->EntryAt(index_);
}

bool FATDriver::FATIterator::Next() {
  if (index_ >= Directory()->TotalEntries()) return false;
  const uint32_t next = Directory()->NextValid(index_ + 1);
  state_ = 0;
  longName_.clear();
  shortName_.clear();
  index_ = next;
  return next != FATDirectory::kNoEntry;
}

void FATDriver::FATIterator::LoadNames() {
  if (state_ != 0) return;
  const Fat::DirEntry& e = Entry();
  shortName_ = FatNames::DisplayShortName(e);
  state_ = Directory()->GetLongName(index_, longName_) != 0 ? 2 : 1;
}

std::u16string FATDriver::FATIterator::FileName() {
  LoadNames();
  return state_ == 2 ? longName_ : shortName_;
}

const char16_t* FATDriver::FATIterator::ShortName() {
  LoadNames();
  return state_ == 2 ? shortName_.c_str() : nullptr;
}

file_identifier* FATDriver::FATIterator::GetIdentifier() {
  const Fat::DirEntry& e = Entry();
  const std::u16string name = (e.attributes & Fat::kAttrDirectory) ? FileName() : std::u16string();
  return new the_identifier(name, e.name, 11);
}

uint64_t FATDriver::FATIterator::Size() { return Entry().size.get(); }

uint64_t FATDriver::FATIterator::SizeOnDisk() {
  const Fat::DirEntry& e = Entry();
  FATDriver& fat = Directory()->Fat();
  const uint64_t cb = fat.ClusterBytes();
  if ((e.attributes & Fat::kAttrDirectory) == 0) return (uint64_t(e.size.get()) + cb - 1) / cb * cb;
  // A directory: the clusters of its chain, counted up to the volume's
  // cluster count so that a loop cannot keep the count going.
  uint64_t clusters = 0;
  ClusterRun run;
  run.next = fat.FirstCluster(e);
  ChainLoopGuard loop;
  while (clusters <= fat.ClusterCount() && fat.Fat().NextRun(run) && loop.Step(run.first))
    clusters += run.end - run.first;
  return clusters * cb;
}

uint32_t FATDriver::FATIterator::FileType() {
  return (Entry().attributes & Fat::kAttrDirectory) ? FileTypes::Directory : FileTypes::Regular;
}

uint64_t FATDriver::FATIterator::ModificationTime() {
  const Fat::DirEntry& e = Entry();
  return FatNames::ToMilliseconds(e.modifyDate.get(), e.modifyTime.get(), 0);
}

uint64_t FATDriver::FATIterator::CreationTime() {
  const Fat::DirEntry& e = Entry();
  return FatNames::ToMilliseconds(e.createDate.get(), e.createTime.get(), e.createTenths);
}

uint64_t FATDriver::FATIterator::AccessTime() {
  return FatNames::ToMilliseconds(Entry().accessDate.get(), 0, 0);
}

bool FATDriver::FATIterator::IsHidden() {
  if (index_ == FATDirectory::kNoEntry) return true;
  return (Entry().attributes & Fat::kAttrHidden) != 0;
}

uint64_t FATDriver::FATIterator::InodeId() {
  Entry();
  return Directory()->EntryPosition(index_);
}

uint64_t FATDriver::FATIterator::GetPhysLocation() {
  FATDriver& fat = Directory()->Fat();
  const uint32_t cluster = fat.FirstCluster(Entry());
  return fat.InRange(cluster) ? fat.ClusterSector(cluster) : 0;
}

uint32_t FATDriver::FATIterator::DOSAttributes() {
  if (index_ == FATDirectory::kNoEntry) return kNoAttributeValue;
  return Entry().attributes;
}
