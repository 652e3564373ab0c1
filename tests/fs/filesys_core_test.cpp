// The shared core of the drivers, on a small in-memory file system of the
// POSIX flavour: the buffer cache and its bound, reads around the cache,
// the path and directory caches, the open rule, cursors and lifetimes.
#include <gtest/gtest.h>

#include <map>

#include "common/text.h"
#include "filesys/filesys_posix.h"
#include "fs_test_util.h"
#include "test_util.h"

using namespace Common::Codes;
using fs_test::MemoryDisk;
using fs_test::Pattern;

namespace {

// A tree kept in the test: every directory has an id, every file a run of
// sectors on the disk.
struct FakeNode {
  bool directory;
  uint64_t id;           // directories
  uint64_t firstSector;  // files
  uint64_t size;
};
using FakeTree = std::map<uint64_t, std::map<std::u16string, FakeNode>>;

class FakeDriver;

class FakeDir;

class FakeFile final : public FileSystemDriver::FileObject {
 public:
  FakeFile(FakeDriver& d, FakeDir& dir, std::u16string name, FakeNode n);
  ~FakeFile() override;
  uint64_t GetSize() override { return node_.size; }
  void GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) override;
  void Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) override;
  int flushes = 0;
  void Flush() override { ++flushes; }

 private:
  FakeDriver& driver_;
  FileSystemDriver::DirHold dir_;
  std::u16string name_;
  FakeNode node_;
};

class FakeIterator final : public FileSystemDriver::IteratorObject {
 public:
  explicit FakeIterator(std::vector<std::pair<std::u16string, FakeNode>> entries, size_t at = 0)
      : entries_(std::move(entries)), at_(at) {}
  bool Next() override { return ++at_ < entries_.size(); }
  file_identifier* GetIdentifier() override { return new the_identifier(FileName(), nullptr, 0); }
  std::u16string FileName() override { return entries_.at(at_).first; }
  uint64_t Size() override { return entries_.at(at_).second.size; }
  uint32_t FileType() override { return entries_.at(at_).second.directory ? FileTypes::Directory : 0; }

 private:
  std::vector<std::pair<std::u16string, FakeNode>> entries_;
  size_t at_;
};

class FakeDir final : public FileSystemDriver::DirectoryObject {
 public:
  using IteratorObject = FileSystemDriver::IteratorObject;
  using FileObject = FileSystemDriver::FileObject;
  FakeDir(FakeDriver& d, uint64_t id);
  IteratorObject* GetIterator() override {
    if (entries_.empty()) return nullptr;
    return new FakeIterator(Entries());
  }
  IteratorObject* GetIterator(const std::u16string& name) override {
    auto all = Entries();
    for (size_t i = 0; i < all.size(); ++i)
      if (all[i].first == name) return new FakeIterator(all, i);
    THROW_ERROR(FileNotFound);
  }
  IteratorObject* GetIterator(const file_identifier*) override { THROW_ERROR(Common::Codes::NotSupported); }
  uint64_t FindSubdir(const std::u16string& name) override {
    auto it = entries_.find(name);
    if (it == entries_.end()) THROW_ERROR(FileNotFound);
    if (!it->second.directory) THROW_ERROR(OpenError);
    return it->second.id;
  }
  FileObject* Open(const std::u16string& name) override;
  FileObject* Open(IteratorObject* position) override { return Open(static_cast<FakeIterator*>(position)->FileName()); }
  FileObject* Open(const file_identifier*) override { THROW_ERROR(Common::Codes::NotSupported); }

 private:
  std::vector<std::pair<std::u16string, FakeNode>> Entries() const {
    return {entries_.begin(), entries_.end()};
  }
  FakeDriver& fake_;
  std::map<std::u16string, FakeNode> entries_;
  std::map<std::u16string, FakeFile*> open_;
  friend class FakeFile;
};

class FakeDriver final : public FileSystemDriverPosix {
 public:
  FakeDriver(Fdisk::SimpleDisk* disk, FakeTree tree, uint32_t cacheId)
      : FileSystemDriverPosix(disk, 0, disk->GetLastSector() + 1, 0, cacheId), tree_(std::move(tree)) {}
  ~FakeDriver() override {
    ReleaseObjects();
    if (destroyed) *destroyed = true;
  }
  void GetDriveSize(uint64_t& t, uint64_t& f, uint64_t& a) override { t = f = a = 0; }
  void GetVolumeLabel(char16_t* buffer, uint32_t) override { buffer[0] = 0; }
  DirectoryObject* OpenDirById(uint64_t id) override {
    ++dirOpens;
    if (!tree_.count(id)) THROW_ERROR(Corrupted);
    return new FakeDir(*this, id);
  }
  const char* FSType() override { return "Fake"; }
  uint64_t GetRootId() override { return 2; }

  const FakeTree& Tree() const { return tree_; }
  int dirOpens = 0;
  bool* destroyed = nullptr;

 private:
  FakeTree tree_;
};

FakeDir::FakeDir(FakeDriver& d, uint64_t id) : DirectoryObject(d, id), fake_(d), entries_(d.Tree().at(id)) {}

FileSystemDriver::FileObject* FakeDir::Open(const std::u16string& name) {
  auto it = entries_.find(name);
  if (it == entries_.end()) THROW_ERROR(FileNotFound);
  if (it->second.directory) THROW_ERROR(OpenError);
  auto open = open_.find(name);
  if (open != open_.end()) return open->second;
  auto* f = new FakeFile(fake_, *this, name, it->second);
  open_[name] = f;
  return f;
}

FakeFile::FakeFile(FakeDriver& d, FakeDir& dir, std::u16string name, FakeNode n)
    : driver_(d), dir_(&dir), name_(std::move(name)), node_(n) {}

FakeFile::~FakeFile() { static_cast<FakeDir*>(dir_.Get())->open_.erase(name_); }

void FakeFile::GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) {
  sector = node_.firstSector + offset / 512;
  count = (node_.size - offset + 511) / 512;
}

void FakeFile::Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) {
  if (offset >= node_.size) return;
  if (size > node_.size - offset) size = node_.size - offset;
  SectorBufferRef b = driver_.GetBuffer(node_.firstSector, uint32_t((node_.size + 511) / 512));
  std::memcpy(buffer, b.Data() + offset, size);
  read = size;
}

uint32_t g_nextCacheId = 1000;

// A small tree: /a/b, /a/x.txt, /empty/, /f.txt; files hold bytes of the disk.
FakeTree SmallTree() {
  FakeTree t;
  t[0] = {{u"a", {true, 10, 0, 0}}, {u"empty", {true, 11, 0, 0}}, {u"f.txt", {false, 0, 4, 700}}};
  t[10] = {{u"b", {true, 12, 0, 0}}, {u"x.txt", {false, 0, 8, 100}}};
  t[11] = {};
  t[12] = {};
  return t;
}

struct Fixture {
  explicit Fixture(FakeTree tree = SmallTree(), uint64_t sectors = 64)
      : disk(new MemoryDisk(Pattern(sectors * 512, 11), 512)) {
    driver = new FakeDriver(disk, std::move(tree), g_nextCacheId++);
    driver->flags |= FileSystemMountHandler::kOwnsDisk;
    root.reset(driver->OpenRootDir());
  }
  MemoryDisk* disk;
  FakeDriver* driver;
  std::unique_ptr<rio_dir> root;
};

std::unique_ptr<rio_dir> Sub(rio_dir& dir, const char16_t* name) { return std::unique_ptr<rio_dir>(dir.OpenDir(name)); }

}  // namespace

TEST(BufferCache, ABufferIsFoundByItsFirstSectorWhateverItsLength) {
  Fixture f;
  SectorBufferRef four = f.driver->GetBuffer(10, 4);
  const int reads = f.disk->reads;
  SectorBufferRef eight = f.driver->GetBuffer(10, 8);
  EXPECT_EQ(eight.Get(), four.Get());
  EXPECT_EQ(eight.SectorCount(), 4u);
  EXPECT_EQ(f.disk->reads, reads);
  // A buffer that merely covers a sector is not the one for it.
  SectorBufferRef inside = f.driver->GetBuffer(11, 1);
  EXPECT_NE(inside.Get(), four.Get());
  EXPECT_EQ(f.driver->CachedBufferCount(), 2u);
  // Data sits on a sector boundary behind its header.
  EXPECT_EQ(reinterpret_cast<uintptr_t>(four.Data()) % 512, 0u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(four.Data()), 2048), f.disk->Bytes().substr(10 * 512, 2048));
}

TEST(BufferCache, RequestsOutsideTheVolumeOrFailingReadsRaiseReadErrors) {
  Fixture f;
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->GetBuffer(63, 2); }), ReadError);
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->GetBuffer(UINT64_MAX, 1); }), ReadError);
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->GetBuffer(0, 0); }), ReadError);
  f.disk->failingSectors.insert(20);
  try {
    f.driver->GetBuffer(18, 4);
    ADD_FAILURE() << "no error";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), ReadError);
    EXPECT_EQ(e.Cause().Code(), Fdisk::Codes::DeviceError);  // the disk's error stays visible
  }
  EXPECT_EQ(f.driver->CachedBufferCount(), 0u);
}

TEST(BufferCache, ReadsAroundTheCacheTakeCachedAndDirtyDataFromTheCache) {
  Fixture f;
  SectorBufferRef middle = f.driver->GetBuffer(20, 2);
  std::memset(middle.Data(), 'D', 1024);  // as if written and not yet flushed
  middle.Get()->dirty = 1;
  std::string out(10 * 512, '\0');
  const int reads = f.disk->reads;
  f.driver->ReadNoCacheAligned(out.data(), 16, 10);
  // Disk, copy, disk.
  EXPECT_EQ(f.disk->reads - reads, 2);
  EXPECT_EQ(out.substr(0, 4 * 512), f.disk->Bytes().substr(16 * 512, 4 * 512));
  EXPECT_EQ(out.substr(4 * 512, 1024), std::string(1024, 'D'));
  EXPECT_EQ(out.substr(6 * 512), f.disk->Bytes().substr(22 * 512, 4 * 512));
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->ReadNoCacheAligned(out.data(), 60, 10); }), ReadError);
}

TEST(BufferCache, UnalignedDestinationsGetTheSameBytes) {
  Fixture f;
  std::vector<char> block(40 * 512 + 1024);
  for (size_t misalign : {1u, 7u, 300u, 511u}) {
    for (uint64_t base : {0ull, 3ull}) {
      char* dst = reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(block.data()) + 511) & ~uintptr_t(511)) + misalign;
      f.driver->ReadNoCache(dst, 13, 17, 4, base);
      EXPECT_EQ(std::string(dst, 17 * 512), f.disk->Bytes().substr(13 * 512, 17 * 512))
          << misalign << " " << base;
    }
  }
}

namespace {
// Buffers at consecutive sectors, `count` of them holding `sectors` in all.
std::vector<SectorBufferRef> Pin(FileSystemDriver& d, uint64_t count, uint64_t sectors) {
  std::vector<SectorBufferRef> refs;
  uint64_t at = 0;
  for (uint64_t i = 0; i < count; ++i) {
    const uint32_t n = uint32_t(sectors / count + (i < sectors % count ? 1 : 0));
    refs.push_back(d.GetBuffer(at, n, true));
    at += n;
  }
  return refs;
}
}  // namespace

TEST(BufferCache, AReleasedCleanBufferStaysCachedUpToTheLimitAndNotAByteBeyond) {
  // 512 buffers of 7625 sectors in all account exactly 0x400000 bytes.
  {
    Fixture f(SmallTree(), 9000);
    std::vector<SectorBufferRef> pinned = Pin(*f.driver, 512, 7625);
    EXPECT_EQ(f.driver->CacheTotal(), FileSystemDriver::kCacheLimit);
    pinned.back().Reset();
    EXPECT_EQ(f.driver->CachedBufferCount(), 512u);
  }
  // 391 buffers of 7759 sectors account one byte more.
  {
    Fixture f(SmallTree(), 9000);
    std::vector<SectorBufferRef> pinned = Pin(*f.driver, 391, 7759);
    EXPECT_EQ(f.driver->CacheTotal(), FileSystemDriver::kCacheLimit + 1);
    pinned.back().Reset();
    EXPECT_EQ(f.driver->CachedBufferCount(), 390u);
  }
}

TEST(BufferCache, CrossingTheLimitEvictsTheOldestIdleBuffers) {
  Fixture f(SmallTree(), 20000);
  std::vector<SectorBufferRef> refs = Pin(*f.driver, 100, 4000);  // about 2 MiB
  refs.clear();                                                   // all idle, still cached
  EXPECT_EQ(f.driver->CachedBufferCount(), 100u);
  SectorBufferRef big = f.driver->GetBuffer(5000, 5000, true);    // takes the total over
  EXPECT_LE(f.driver->CacheTotal(), FileSystemDriver::kCacheLimit);
  EXPECT_LT(f.driver->CachedBufferCount(), 101u);
  // The oldest went first: its sector needs the disk again, the newest not.
  const int reads = f.disk->reads;
  SectorBufferRef newest = f.driver->GetBuffer(3960, 40);
  EXPECT_EQ(f.disk->reads, reads);
  SectorBufferRef oldest = f.driver->GetBuffer(0, 40);
  EXPECT_EQ(f.disk->reads, reads + 1);
}

TEST(BufferCache, TheFirstWriteToAWriteProtectedDiskIsReadOnly) {
  Fixture f;
  f.disk->writeProtected = true;
  SectorBufferRef b = f.driver->GetBuffer(5, 1);
  const std::string data(512, 'w');
  try {
    f.driver->WriteNoCache(data.data(), 5, 1);
    ADD_FAILURE() << "no error";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), ReadOnly);
    EXPECT_EQ(test_util::Narrow(e.Message()), "The file is read-only.");
    EXPECT_EQ(e.Cause().Code(), Fdisk::Codes::WriteProtected);
  }
  // A writable disk: the probe writes once, later writes stay in the cache
  // until a flush.
  f.disk->writeProtected = false;
  f.driver->WriteNoCache(data.data(), 5, 1);
  const int writes = f.disk->writes;
  f.driver->WriteNoCache(data.data(), 5, 1);
  EXPECT_EQ(f.disk->writes, writes);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(b.Data()), 512), data);
  f.driver->FlushBuffers();
  EXPECT_EQ(f.disk->writes, writes + 1);
  EXPECT_EQ(f.disk->Bytes().substr(5 * 512, 512), data);
}

TEST(PathWalk, AChainOf300DirectoriesStaysWithinTheBoundsOfBothCaches) {
  FakeTree tree;
  std::u16string path;
  for (uint64_t i = 0; i < 300; ++i) {
    std::u16string name = u"d" + Common::Utf8ToUtf16(std::to_string(i));
    tree[i == 0 ? 0 : 100 + i - 1] = {{name, {true, 100 + i, 0, 0}}};
    path += u"/" + name;
  }
  tree[399] = {{u"leaf.txt", {false, 0, 2, 10}}};
  Fixture f(std::move(tree));
  FileSystemDriver::DirHold dir = f.driver->GetDirectoryObject(path);
  EXPECT_EQ(dir->id, 399u);
  EXPECT_LT(f.driver->PathMapSize(), 257u);
  EXPECT_LE(f.driver->DirectoryObjectCount(), FileSystemDriver::kMaxIdleDirectories + 1);
  // The same walk again gives the same directory.
  FileSystemDriver::DirHold again = f.driver->GetDirectoryObject(path);
  EXPECT_EQ(again.Get(), dir.Get());
}

TEST(PathWalk, KnownPrefixesAreNotWalkedAgain) {
  Fixture f;
  f.driver->GetDirectoryObject(u"/a/b");
  const int opens = f.driver->dirOpens;
  FileSystemDriver::DirHold b = f.driver->GetDirectoryObject(u"/a/b");
  EXPECT_EQ(f.driver->dirOpens, opens);
  EXPECT_EQ(b->id, 12u);
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->GetDirectoryObject(u"/f.txt"); }), OpenError);
  EXPECT_EQ(test_util::ThrownCode([&] { f.driver->GetDirectoryObject(u"/nope"); }), FileNotFound);
}

TEST(OpenRule, SecondOpensFollowTheWritersAndExclusiveCounts) {
  struct Row {
    bool firstWrite, firstShared, secondWrite, secondShared, allowed;
  };
  const Row rows[] = {
      {false, true, false, true, true},    // two shared readers
      {false, false, false, true, true},   // reader then shared reader: no writer
      {true, true, false, true, true},     // shared writer, shared reader
      {true, true, false, false, false},   // a writer refuses a plain reader
      {false, true, true, false, false},   // exclusive writer wants nobody at all
      {true, false, true, true, false},    // an exclusive open refuses a shared writer
      {true, true, true, true, true},      // two shared writers
      {true, false, false, true, false},   // an exclusive writer refuses a shared reader
  };
  for (const Row& r : rows) {
    Fixture f;
    std::unique_ptr<rio_file> first(r.firstWrite ? f.root->OpenForWrite(u"f.txt", r.firstShared)
                                                 : static_cast<rio_file*>(f.root->Open(u"f.txt", r.firstShared)));
    ASSERT_NE(first, nullptr);
    rio_file* second = r.secondWrite ? f.root->OpenForWrite(u"f.txt", r.secondShared)
                                     : static_cast<rio_file*>(f.root->Open(u"f.txt", r.secondShared));
    EXPECT_EQ(second != nullptr, r.allowed) << r.firstWrite << r.firstShared << r.secondWrite << r.secondShared;
    if (!r.allowed) EXPECT_EQ(f.root->TakeError().Code(), OpenError);
    delete second;
  }
}

TEST(OpenRule, TheLastWriterFlushesAndTheLastReferenceDeletesTheObject) {
  Fixture f;
  std::unique_ptr<rio_file> w(f.root->OpenForWrite(u"f.txt", true));
  auto* object = static_cast<FakeFile*>(static_cast<FileSystemDriver::FileReference*>(w.get())->Object());
  std::unique_ptr<ri_file> reader(f.root->Open(u"f.txt", true));
  EXPECT_EQ(static_cast<FileSystemDriver::FileReference*>(reader.get())->Object(), object);
  w.reset();
  EXPECT_EQ(object->flushes, 1);
  EXPECT_EQ(object->openRefs, 1u);
  // Writing through a reader is refused.
  uint64_t written = 0;
  dynamic_cast<rio_file*>(reader.get())->Write("x", 1, written);
  EXPECT_EQ(reader->TakeError().Code(), ReadOnly);
  reader.reset();  // ASan sees the object freed with its last reference
}

TEST(FileReference, ReadsFromItsPositionAndKeepsTheStreamProtocol) {
  Fixture f;
  std::unique_ptr<ri_file> file(f.root->Open(u"f.txt", true));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->GetSize(), 700);
  EXPECT_EQ(fs_test::ReadAll(*file), f.disk->Bytes().substr(4 * 512, 700));
  EXPECT_EQ(file->SeekEnd(0), 700);
  uint64_t got = 9;
  char c;
  file->Read(&c, 1, got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(file->HasError());
  file->Read(&c, 1);
  EXPECT_EQ(file->GetError().Code(), EndOfFile);
  // Sticky: nothing happens until the error is taken.
  EXPECT_EQ(file->Seek(0), -1);
  file->TakeError();
  EXPECT_EQ(file->Seek(1), 1);
  file->Read(&c, 1);
  EXPECT_EQ(c, f.disk->Bytes()[4 * 512 + 1]);
}

TEST(Cursors, AnEmptyDirectoryAndAnIteratorPastItsEndAnswerEndOfFile) {
  Fixture f;
  std::unique_ptr<rio_dir> empty = Sub(*f.root, u"empty");
  std::unique_ptr<i_dir::iterator> none(empty->GetIterator());
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->GetError().Code(), EndOfFile);

  std::unique_ptr<i_dir::iterator> it(f.root->GetIterator());
  std::vector<std::string> names;
  for (; !it->HasError(); it->Next()) names.push_back(test_util::Narrow(it->FileName()));
  EXPECT_EQ(names, (std::vector<std::string>{"a", "empty", "f.txt"}));
  EXPECT_EQ(it->TakeError().Code(), EndOfFile);
  // Every query of a cursor without an entry records the end again.
  EXPECT_EQ(it->Size(), 0u);
  EXPECT_EQ(it->TakeError().Code(), EndOfFile);
  EXPECT_EQ(it->FileName(), u"");
  EXPECT_EQ(it->TakeError().Code(), EndOfFile);
  EXPECT_EQ(it->GetIdentifier(), nullptr);
  EXPECT_EQ(it->TakeError().Code(), EndOfFile);
}

TEST(Cursors, TheRootIsItsOwnSingleEntry) {
  Fixture f;
  std::unique_ptr<i_dir::iterator> self(f.root->GetSelfIterator());
  EXPECT_EQ(self->FileName(), u"/");
  EXPECT_EQ(self->FileType(), FileTypes::RootEntry);
  EXPECT_EQ(self->InodeId(), 2u);
  self->Next();
  EXPECT_EQ(self->TakeError().Code(), Common::Codes::NotSupported);
  // Another directory's own entry comes from its parent.
  std::unique_ptr<rio_dir> a = Sub(*f.root, u"a");
  std::unique_ptr<i_dir::iterator> entry(a->GetSelfIterator());
  EXPECT_EQ(entry->FileName(), u"a");
  EXPECT_EQ(entry->FileType(), FileTypes::Directory);
}

TEST(PosixFlavour, ReferencesAreOnlyPathsUntilAnOperationNeedsTheDisk) {
  Fixture f;
  std::unique_ptr<rio_dir> a = Sub(*f.root, u"a");
  const int opens = f.driver->dirOpens;
  const int reads = f.disk->reads;
  std::unique_ptr<rio_dir> x = Sub(*a, u"x");
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(x->GetPath(), u"/a/x/");
  EXPECT_EQ(f.driver->dirOpens, opens);
  EXPECT_EQ(f.disk->reads, reads);
  delete x->GetIterator();
  EXPECT_EQ(x->TakeError().Code(), FileNotFound);

  EXPECT_EQ(a->GetPath(), u"/a/");
  EXPECT_EQ(f.root->GetPath(), u"/");
  EXPECT_EQ(Sub(*a, u"..")->GetPath(), u"/");
  EXPECT_EQ(Sub(*a, u"../a/./b")->GetPath(), u"/a/b/");
}

TEST(PosixFlavour, CompareWorksOnComponentBoundaries) {
  Fixture f;
  std::unique_ptr<rio_dir> a = Sub(*f.root, u"a");
  std::unique_ptr<rio_dir> ab = Sub(*f.root, u"ab");
  std::unique_ptr<rio_dir> b = Sub(*a, u"b");
  std::unique_ptr<rio_dir> a2 = Sub(*f.root, u"a");
  EXPECT_EQ(a->Compare(ab.get()), 2);
  EXPECT_EQ(a->Compare(b.get()), 1);
  EXPECT_EQ(b->Compare(a.get()), 2);
  EXPECT_EQ(a->Compare(a2.get()), 0);
  EXPECT_EQ(f.root->Compare(b.get()), 1);
  EXPECT_EQ(a->Compare(nullptr), 2);
  Fixture other;
  std::unique_ptr<rio_dir> otherA = Sub(*other.root, u"a");
  EXPECT_EQ(a->Compare(otherA.get()), 2);  // another volume
}

TEST(PosixFlavour, OpenPathStopsBeforeTheLastComponent) {
  Fixture f;
  const char16_t* bare = u"f.txt";
  const char16_t* p = bare;
  std::unique_ptr<rio_dir> same(f.root->OpenPath(p));
  EXPECT_EQ(p, bare);
  EXPECT_EQ(same->GetPath(), u"/");
  const char16_t* deep = u"/a/x.txt";
  p = deep;
  std::unique_ptr<rio_dir> a(f.root->OpenPath(p));
  EXPECT_EQ(std::u16string(p), u"x.txt");
  EXPECT_EQ(a->GetPath(), u"/a/");
  std::unique_ptr<ri_file> x(a->Open(p, true));
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(x->GetSize(), 100);
  // A directory is no file, and names with a "/" are no entry names.
  EXPECT_EQ(f.root->Open(u"a", true), nullptr);
  EXPECT_EQ(f.root->TakeError().Code(), OpenError);
  EXPECT_EQ(test_util::ThrownCode([&] { delete f.root->GetIterator(u"a/b"); }), OpenError);
}

TEST(DriverLifetime, TheLastHandleDeletesTheDriverAndTheDiskItOwns) {
  bool destroyed = false;
  auto* fixture = new Fixture;
  fixture->driver->destroyed = &destroyed;
  std::unique_ptr<rio_dir> a = Sub(*fixture->root, u"a");
  std::unique_ptr<ri_file> file(fixture->root->Open(u"f.txt", true));
  std::unique_ptr<i_dir::iterator> it(fixture->root->GetIterator());
  fixture->root.reset();
  delete fixture;
  a.reset();
  EXPECT_FALSE(destroyed);
  it.reset();
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(fs_test::ReadAll(*file).size(), 700u);
  file.reset();
  EXPECT_TRUE(destroyed);  // ASan sees the disk freed with it
}

TEST(Identifiers, EmptyIdentifiersShareOneRecordAndClonesKeepTheirData) {
  the_identifier empty1(u"", nullptr, 0), empty2(u"", nullptr, 0);
  EXPECT_EQ(&empty1.Name(), &empty2.Name());
  const uint8_t data[3] = {1, 2, 3};
  the_identifier named(u"name", data, 3);
  std::unique_ptr<file_identifier> clone(named.Clone());
  auto* c = dynamic_cast<the_identifier*>(clone.get());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->Name(), u"name");
  ASSERT_EQ(c->DataSize(), 3u);
  EXPECT_EQ(c->Data()[2], 3);
}

TEST(DriverIoctl, TheDriverAnswersItsTypeAndFlushRequests) {
  Fixture f;
  FsRequest r{};
  r.command = FourCC("GFST");
  f.root->IOCTL(&r);
  EXPECT_FALSE(f.root->HasError());
  EXPECT_EQ(std::u16string(r.text), u"Fake");
  r.command = FourCC("NCDR");
  f.root->IOCTL(&r);
  EXPECT_EQ(reinterpret_cast<nocache_dir*>(r.word[0])->GetSectorSize(), 512u);
  r.command = FourCC("ZZZZ");
  f.root->IOCTL(&r);
  EXPECT_EQ(f.root->TakeError().Code(), Common::Codes::NotSupported);
}

// ---- the processor interface and the virtual journal replay

#include "fdisk/ver2/snapshot_volume.h"
#include "resizer/errors.h"
#include "resizer/fs_processor.h"

namespace {

// An overlay that shows every sector filled with 'J', as a replayed
// journal would show changed sectors; committing it may fail on request.
class JournalOverlay final : public Fdisk::SnapshotVolume {
 public:
  explicit JournalOverlay(bool commits) : commits_(commits) {
    sectorSize_ = 512;
    lastSector_ = 63;
  }
  Common::Error IoOp(uint32_t, uint64_t, void* buffer, uint64_t count) override {
    std::memset(buffer, 'J', count * 512);
    return Common::Error();
  }
  Common::Error SetSnapshotHandle(void* handle) override {
    return commits_ ? Common::Error() : SnapshotVolume::SetSnapshotHandle(handle);
  }

 private:
  bool commits_;
};

bool g_overlayCommits = true;

class ReplayProcessor final : public resizer::FSProcessor {
 public:
  void Load() override {
    if (source_.sectors == 0) THROW_ERROR(Corrupted);
  }
  Fdisk::SimpleDisk* TakeOverlay() override { return new JournalOverlay(g_overlayCommits); }
};

// Fills slot 5 for the life of the scope.
struct RegisteredProcessor {
  RegisteredProcessor() { resizer::RegisterFSProcessor(5, [] { return static_cast<resizer::FSProcessor*>(new ReplayProcessor); }); }
  ~RegisteredProcessor() { resizer::RegisterFSProcessor(5, nullptr); }
};

}  // namespace

TEST(Processors, AnEmptyTableCreatesNothing) {
  for (uint32_t type : {0u, 5u, 23u, 24u, 1000u}) {
    try {
      resizer::DoCreateFSProcessor(type);
      ADD_FAILURE() << type;
    } catch (const resizer::InvalidFileSystem& e) {
      EXPECT_EQ(e.Code(), 0x70005u);
      EXPECT_EQ(test_util::Narrow(e.Message()), "Invalid format.");
    }
  }
  EXPECT_EQ(resizer::DetectSourceFSProcessor(~0ull), 0u);
  MemoryDisk disk(std::string(512, 0), 512);
  try {
    resizer::InitSourceFSProcessor(resizer::FSSource{&disk, 0, 0, 0x30}, 4);
    ADD_FAILURE();
  } catch (const resizer::InvalidPartitionSize& e) {
    EXPECT_EQ(e.Code(), 0x70006u);
    EXPECT_EQ(test_util::Narrow(e.Message()), "Invalid partition size.");
  }
}

TEST(JournalReplay, WithoutProcessorsTheReplayFailsAsACorruptVolume) {
  Fixture f;
  try {
    VirtualJournalReplay(*f.driver, 0x30);
    ADD_FAILURE() << "no error";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), Corrupted);
    EXPECT_STREQ(e.Function(), "VirtualJournalReplay");
    EXPECT_EQ(e.Cause().Code(), 0x70005u);
  }
  EXPECT_EQ(f.driver->Disk(), f.driver->BaseDisk());
}

TEST(JournalReplay, TheOverlayIsReadUntilTheFirstWriteCommitsIt) {
  RegisteredProcessor registered;
  EXPECT_EQ(resizer::DetectSourceFSProcessor(0x30), 0x20u);
  {
    Fixture f;
    g_overlayCommits = true;
    VirtualJournalReplay(*f.driver, 0x30);
    ASSERT_NE(f.driver->Disk(), f.driver->BaseDisk());
    SectorBufferRef b = f.driver->GetBuffer(3, 1);
    EXPECT_EQ(b.Data()[0], 'J');
    f.driver->PrepareToWrite();
    EXPECT_EQ(f.driver->Disk(), f.driver->BaseDisk());
  }
  {
    Fixture f;
    g_overlayCommits = false;
    VirtualJournalReplay(*f.driver, 0x30);
    try {
      f.driver->PrepareToWrite();
      ADD_FAILURE() << "no error";
    } catch (const Common::Error& e) {
      EXPECT_EQ(e.Code(), WriteError);
      EXPECT_EQ(e.Cause().Code(), 0x102002u);
    }
    EXPECT_NE(f.driver->Disk(), f.driver->BaseDisk());  // freed with the driver
  }
  // Only the type mask's slots are candidates.
  Fixture f;
  EXPECT_EQ(test_util::ThrownCode([&] { VirtualJournalReplay(*f.driver, 0x01); }), Corrupted);
}
