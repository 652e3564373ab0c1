#include "file/dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "file/memfile.h"
#include "test_util.h"

using test_util::Narrow;

namespace {

int liveDirs = 0;

class FakeId : public file_identifier {
 public:
  explicit FakeId(bool cloneFails = false) : cloneFails_(cloneFails) {}
  file_identifier* Clone() const override { return cloneFails_ ? nullptr : new FakeId(); }

 private:
  bool cloneFails_;
};

class FakeIterator : public i_dir::iterator {
 public:
  void Next() override { SetError(ERROR_HERE, Common::Codes::EndOfFile); }
  file_identifier* GetIdentifier() override { return new FakeId(); }
  std::u16string FileName() override { return u"entry.txt"; }
  uint64_t Size() override { return 42; }
  uint32_t FileType() override { return FileTypes::Regular; }
};

// A directory that records which hook each call reached.
class FakeDir : public rio_dir, public nocache_dir {
 public:
  FakeDir() { ++liveDirs; }
  ~FakeDir() override { --liveDirs; }

  std::vector<std::string> calls;

  rio_dir* OpenPath(const char16_t*& path) override {
    calls.push_back("OpenPath");
    return nullptr;
  }
  iterator* GetSelfIterator() override { return new FakeIterator(); }
  std::u16string GetPath() override { return u"/fake/"; }
  int Compare(i_dir* other) override { return other == this ? 0 : 2; }
  int CompareNames(const file_identifier*, const file_identifier*) override { return 0; }
  void CreateDir(const char16_t* name) override { Log("CreateDir", name); }
  void RemoveDir(const char16_t* name) override { Log("RemoveDir", name); }
  uint32_t GetSectorSize() override { return 512; }

 protected:
  void Log(const char* hook, const char16_t* name) {
    calls.push_back(std::string(hook) + ":" + (name ? Narrow(name) : "?"));
  }
  ri_file* DoOpen(const char16_t* name, bool) override {
    Log("Read", name);
    return new Common::MemoryFileImpl();
  }
  ri_file* DoOpen(iterator*, bool) override {
    Log("Read", u"<iterator>");
    return new Common::MemoryFileImpl();
  }
  ri_file* DoOpen(const file_identifier*, bool) override {
    Log("Read", u"<id>");
    return new Common::MemoryFileImpl();
  }
  rio_file* DoOpenForWrite(const char16_t* name, bool) override {
    Log("Write", name);
    return new Common::MemoryFileImpl();
  }
  rio_file* DoOpenForWrite(iterator*, bool) override {
    Log("Write", u"<iterator>");
    return new Common::MemoryFileImpl();
  }
  rio_file* DoOpenForWrite(const file_identifier*, bool) override {
    Log("Write", u"<id>");
    return new Common::MemoryFileImpl();
  }
  rio_file* DoCreate(const char16_t* name, bool) override {
    Log("Create", name);
    return new Common::MemoryFileImpl();
  }
  rio_dir* DoOpenDir(const char16_t* name) override {
    Log("OpenDir", name);
    return new FakeDir();
  }
  rio_dir* DoOpenDir(iterator*) override {
    Log("OpenDir", u"<iterator>");
    return new FakeDir();
  }
  rio_dir* DoOpenDir(const file_identifier*) override {
    Log("OpenDir", u"<id>");
    return new FakeDir();
  }
  iterator* DoGetIterator() override { return new FakeIterator(); }
  iterator* DoGetIterator(const char16_t* name) override {
    Log("GetIterator", name);
    return new FakeIterator();
  }
  iterator* DoGetIterator(const file_identifier*) override {
    Log("GetIterator", u"<id>");
    return new FakeIterator();
  }
  void DoRemove(const char16_t* name) override { Log("Remove", name); }
  void DoRename(const char16_t* oldName, const char16_t*) override { Log("Rename", oldName); }
  rio_file* DoOpenNoCache(const char16_t* name, int, bool) override {
    Log("OpenNoCache", name);
    return new Common::MemoryFileImpl();
  }
};

// A read-only directory, for the defaults that rio_dir overrides.
class ReadOnlyDir : public ri_dir {
 public:
  i_dir* OpenPath(const char16_t*&) override { return nullptr; }
  iterator* GetSelfIterator() override { return nullptr; }
  std::u16string GetPath() override { return u"/"; }
  int Compare(i_dir*) override { return 2; }
  int CompareNames(const file_identifier*, const file_identifier*) override { return 0; }

 protected:
  ri_file* DoOpen(const char16_t*, bool) override { return nullptr; }
  ri_file* DoOpen(iterator*, bool) override { return nullptr; }
  ri_file* DoOpen(const file_identifier*, bool) override { return nullptr; }
  i_dir* DoOpenDir(const char16_t*) override { return nullptr; }
  i_dir* DoOpenDir(iterator*) override { return nullptr; }
  i_dir* DoOpenDir(const file_identifier*) override { return nullptr; }
  iterator* DoGetIterator() override { return nullptr; }
  iterator* DoGetIterator(const char16_t*) override { return nullptr; }
  iterator* DoGetIterator(const file_identifier*) override { return nullptr; }
};

struct Call {
  const char* name;
  std::function<void*(FakeDir&)> run;  // gives what the call returned, if anything
  uint32_t code;
};

i_dir& In(FakeDir& d) { return d; }
o_dir& Out(FakeDir& d) { return d; }
nocache_dir& NoCache(FakeDir& d) { return d; }

// Bad arguments of the opening and changing calls throw, before any file
// system sees them, and leave the directory's state alone.
TEST(DirectoryArguments, BadArgumentsThrowTheOperationsCode) {
  i_dir::iterator* noIterator = nullptr;
  const file_identifier* noId = nullptr;
  const Call calls[] = {
      {"OpenNullName", [](FakeDir& d) -> void* { return In(d).Open(static_cast<const char16_t*>(nullptr), false); }, 0x40007},
      {"OpenEmptyName", [](FakeDir& d) -> void* { return In(d).Open(u"", false); }, 0x40007},
      {"OpenNullIterator", [&](FakeDir& d) -> void* { return In(d).Open(noIterator, false); }, 0x40007},
      {"OpenNullId", [&](FakeDir& d) -> void* { return In(d).Open(noId, true); }, 0x40007},
      {"RioOpenEmptyName", [](FakeDir& d) -> void* { return d.Open(u"", false); }, 0x40007},
      {"WriteFaceOpenEmpty", [](FakeDir& d) -> void* { return Out(d).Open(u"", false); }, 0x40007},
      {"WriteFaceOpenNull", [](FakeDir& d) -> void* { return Out(d).Open(nullptr, false); }, 0x40007},
      {"OpenForWriteEmpty", [](FakeDir& d) -> void* { return d.OpenForWrite(u"", false); }, 0x40007},
      {"OpenForWriteNullIterator", [&](FakeDir& d) -> void* { return d.OpenForWrite(noIterator, false); }, 0x40007},
      {"OpenForWriteNullId", [&](FakeDir& d) -> void* { return d.OpenForWrite(noId, false); }, 0x40007},
      {"CreateEmpty", [](FakeDir& d) -> void* { return d.Create(u"", false); }, 0x4000A},
      {"WriteFaceCreateNull", [](FakeDir& d) -> void* { return Out(d).Create(nullptr, false); }, 0x4000A},
      {"RemoveEmpty", [](FakeDir& d) -> void* { d.Remove(u""); return nullptr; }, 0x40008},
      {"RenameEmptyOld", [](FakeDir& d) -> void* { d.Rename(u"", u"b"); return nullptr; }, 0x40009},
      {"RenameNullNew", [](FakeDir& d) -> void* { d.Rename(u"a", nullptr); return nullptr; }, 0x40009},
      {"IteratorEmptyName", [](FakeDir& d) -> void* { return d.GetIterator(u""); }, 0x40007},
      {"IteratorNullName", [](FakeDir& d) -> void* { return d.GetIterator(static_cast<const char16_t*>(nullptr)); }, 0x40007},
      {"IteratorDot", [](FakeDir& d) -> void* { return d.GetIterator(u"."); }, 0x40007},
      {"IteratorDotDot", [](FakeDir& d) -> void* { return d.GetIterator(u".."); }, 0x40007},
      {"IteratorPath", [](FakeDir& d) -> void* { return d.GetIterator(u"a/b"); }, 0x40007},
      {"IteratorAbsolute", [](FakeDir& d) -> void* { return d.GetIterator(u"/a"); }, 0x40007},
      {"NoCacheOpenNotSimple", [](FakeDir& d) -> void* { return NoCache(d).OpenNoCache(u"../x", 1, false); }, 0x40007},
      {"NoCacheCreateNotSimple", [](FakeDir& d) -> void* { return NoCache(d).OpenNoCache(u"a/b", 0, false); }, 0x4000A},
      {"NoCacheCreateEmpty", [](FakeDir& d) -> void* { return NoCache(d).OpenNoCache(u"", 2, true); }, 0x4000A},
  };
  for (const auto& c : calls) {
    FakeDir d;
    EXPECT_EQ(test_util::ThrownCode([&] { c.run(d); }), c.code) << c.name;
    EXPECT_TRUE(d.calls.empty()) << c.name;
    EXPECT_FALSE(d.HasError()) << c.name;
  }
}

// OpenDir and GetIterator(identifier) record instead of throwing.
TEST(DirectoryArguments, NullDirectoryArgumentsRecordOpenError) {
  i_dir::iterator* noIterator = nullptr;
  const file_identifier* noId = nullptr;
  const Call calls[] = {
      {"OpenDirNull", [](FakeDir& d) -> void* { return In(d).OpenDir(static_cast<const char16_t*>(nullptr)); }, 0x40007},
      {"OpenDirEmpty", [](FakeDir& d) -> void* { return In(d).OpenDir(u""); }, 0x40007},
      {"OpenDirNullIterator", [&](FakeDir& d) -> void* { return In(d).OpenDir(noIterator); }, 0x40007},
      {"OpenDirNullId", [&](FakeDir& d) -> void* { return In(d).OpenDir(noId); }, 0x40007},
      {"WriteFaceOpenDirEmpty", [](FakeDir& d) -> void* { return Out(d).OpenDir(u""); }, 0x40007},
      {"RioOpenDirEmpty", [](FakeDir& d) -> void* { return d.OpenDir(u""); }, 0x40007},
      {"RioOpenDirNullId", [&](FakeDir& d) -> void* { return d.OpenDir(noId); }, 0x40007},
      {"IteratorNullId", [&](FakeDir& d) -> void* { return d.GetIterator(noId); }, 0x40007},
  };
  for (const auto& c : calls) {
    FakeDir d;
    void* result = reinterpret_cast<void*>(1);
    EXPECT_NO_THROW(result = c.run(d)) << c.name;
    EXPECT_EQ(result, nullptr) << c.name;
    EXPECT_EQ(d.GetError().Code(), c.code) << c.name;
    EXPECT_EQ(d.GetError().Message(), u"Error occurred while opening the file.") << c.name;
    // Raised where the caller's operation stands, not in a helper.
    const std::string function = d.GetError().Function();
    EXPECT_TRUE(function == "OpenDir" || function == "GetIterator") << c.name << ": " << function;
    EXPECT_TRUE(d.calls.empty()) << c.name;
  }
}

template <typename T>
void Drop(T* p) {
  delete p;
}

// Good arguments reach the matching hook; the faces keep their meaning:
// Open reads, the writing face and OpenForWrite write.
TEST(DirectoryArguments, ThrownErrorNamesTheOperation) {
  FakeDir d;
  try {
    d.Rename(u"a", u"");
    FAIL() << "no throw";
  } catch (const Common::Error& e) {
    EXPECT_STREQ(e.Function(), "Rename");
    EXPECT_EQ(e.Message(), u"Error occurred while renaming the file.");
  }
}

TEST(DirectoryArguments, GoodArgumentsReachTheirHook) {
  FakeDir d;
  FakeIterator it;
  FakeId id;
  Drop(In(d).Open(u"r", false));
  Drop(d.Open(u"r2", false));
  Drop(d.Open(&it, false));
  Drop(d.Open(&id, false));
  Drop(Out(d).Open(u"w", false));
  Drop(d.OpenForWrite(u"w2", false));
  Drop(d.OpenForWrite(&it, false));
  Drop(d.OpenForWrite(&id, false));
  Drop(Out(d).Create(u"c", false));
  Drop(d.Create(u"c2", false));
  Drop(d.OpenDir(u"sub"));
  Drop(Out(d).OpenDir(u"sub2"));
  Drop(d.OpenDir(&it));
  Drop(d.GetIterator(u"..."));
  Drop(d.GetIterator(u"a\\b"));
  Drop(d.GetIterator(&id));
  Drop(NoCache(d).OpenNoCache(u"n", nocache_dir::kOpenExisting, false));
  d.Remove(u"x");
  d.Rename(u"old", u"new");
  const std::vector<std::string> expected = {
      "Read:r",       "Read:r2",        "Read:<iterator>",    "Read:<id>",
      "Write:w",      "Write:w2",       "Write:<iterator>",   "Write:<id>",
      "Create:c",     "Create:c2",      "OpenDir:sub",        "OpenDir:sub2",
      "OpenDir:<iterator>", "GetIterator:...", "GetIterator:a\\b", "GetIterator:<id>",
      "OpenNoCache:n", "Remove:x",      "Rename:old"};
  EXPECT_EQ(d.calls, expected);
  EXPECT_FALSE(d.HasError());
}

TEST(DirectoryFaces, OpenDirGivesTheFullFaceThroughEveryFace) {
  FakeDir d;
  std::unique_ptr<rio_dir> a(d.OpenDir(u"a"));
  std::unique_ptr<ro_dir> b(Out(d).OpenDir(u"b"));
  std::unique_ptr<i_dir> c(In(d).OpenDir(u"c"));
  EXPECT_NE(dynamic_cast<rio_dir*>(b.get()), nullptr);
  EXPECT_NE(dynamic_cast<rio_dir*>(c.get()), nullptr);
  EXPECT_EQ(liveDirs, 4);
}

TEST(DirectoryFaces, OneErrorStateBehindEveryFace) {
  FakeDir d;
  Out(d).SetUnixOwner(u"x", 1, 2);
  EXPECT_EQ(In(d).GetError().Code(), 0x4000Eu);
  EXPECT_EQ(NoCache(d).GetError().Code(), 0x4000Eu);
  Common::Error taken = NoCache(d).TakeError();
  EXPECT_EQ(taken.Code(), 0x4000Eu);
  EXPECT_FALSE(In(d).HasError());
  EXPECT_FALSE(Out(d).HasError());
}

// The defaults that a file system has not overridden.
TEST(DirectoryDefaults, UnsupportedOperationsReplaceTheState) {
  const std::pair<const char*, std::function<void(FakeDir&)>> calls[] = {
      {"OpenSpecialDir", [](FakeDir& d) { EXPECT_EQ(d.OpenSpecialDir(), nullptr); }},
      {"GetVolumeLabel", [](FakeDir& d) { char16_t b[4] = u"abc"; d.GetVolumeLabel(b, 4); EXPECT_EQ(b[0], 0); }},
      {"EnableNotification", [](FakeDir& d) { d.EnableNotification(); }},
      {"CreateHardLink", [](FakeDir& d) { d.CreateHardLink(u"a", u"/b"); }},
      {"CreateSymLink", [](FakeDir& d) { d.CreateSymLink(u"a", u"b"); }},
      {"SetAccessRights", [](FakeDir& d) { d.SetAccessRights(u"a", nullptr, 0); }},
      {"SetDOSAttributes", [](FakeDir& d) { d.SetDOSAttributes(u"a", 1); }},
      {"SetUnixPermissions", [](FakeDir& d) { d.SetUnixPermissions(u"a", 0644); }},
      {"SetUnixOwner", [](FakeDir& d) { d.SetUnixOwner(u"a", 0, 0); }},
      {"CreateDeviceNode", [](FakeDir& d) { d.CreateDeviceNode(u"a", 0, 1, 2, 3); }},
      {"GetDriveSize", [](FakeDir& d) {
         uint64_t t = 1, f = 2, a = 3;
         d.GetDriveSize(t, f, a);
         EXPECT_EQ(t + f + a, 0u);
       }},
  };
  for (const auto& [name, run] : calls) {
    FakeDir d;
    run(d);
    EXPECT_EQ(d.GetError().Code(), 0x4000Eu) << name;
    EXPECT_EQ(d.GetError().Message(), u"The operation is not supported.") << name;
    // With an error already held, the default still records its own.
    d.SetError(ERROR_HERE, Common::Codes::EndOfFile);
    run(d);
    EXPECT_EQ(d.GetError().Code(), 0x4000Eu) << name;
  }
}

TEST(DirectoryDefaults, IoctlNeverOverwritesAHeldError) {
  FakeDir d;
  uint32_t request[2] = {0x52444E43, 0};  // "NCDR"
  d.IOCTL(request);
  EXPECT_EQ(d.GetError().Code(), 0x4000Eu);
  d.SetError(ERROR_HERE, Common::Codes::EndOfFile);
  d.IOCTL(request);
  EXPECT_EQ(d.GetError().Code(), 0x40002u);
}

TEST(DirectoryDefaults, VolumeLabelWithZeroLengthLeavesTheBuffer) {
  FakeDir d;
  char16_t b[2] = u"x";
  d.GetVolumeLabel(b, 0);
  EXPECT_EQ(b[0], u'x');
  EXPECT_EQ(d.GetError().Code(), 0x4000Eu);
}

TEST(DirectoryDefaults, PlainValues) {
  FakeDir d;
  ReadOnlyDir r;
  EXPECT_EQ(d.FileType(), 137u);
  EXPECT_EQ(r.FileType(), FileTypes::UnknownDirectory);
  EXPECT_TRUE(d.IsPathSeparator(u'/'));
  EXPECT_FALSE(d.IsPathSeparator(u'\\'));
  EXPECT_EQ(d.GetPathSeparator(), 47);
  EXPECT_EQ(r.OpenSelf(), nullptr);
  EXPECT_EQ(d.Reserved1(), 0);
  EXPECT_EQ(d.Reserved2(), 0);
  EXPECT_EQ(d.Reserved3(), (std::pair<i_dir*, file_identifier*>(nullptr, nullptr)));
  EXPECT_EQ(d.Reserved4(), 0);
  d.DisableNotification();
  EXPECT_FALSE(d.HasError());
  EXPECT_FALSE(r.HasError());
}

TEST(DirectoryDefaults, OpenSelfOfAReadWriteDirectoryIsOpenDirDot) {
  FakeDir d;
  std::unique_ptr<rio_dir> self(d.OpenSelf());
  EXPECT_NE(self, nullptr);
  EXPECT_EQ(d.calls, std::vector<std::string>{"OpenDir:."});
}

TEST(DirectoryDefaults, ResolveSymLinksPairsSelfWithAClone) {
  FakeDir d;
  FakeId id;
  auto [dir, copy] = d.ResolveSymLinks(&id);
  std::unique_ptr<i_dir> holdDir(dir);
  std::unique_ptr<file_identifier> holdId(copy);
  EXPECT_NE(dir, nullptr);
  EXPECT_NE(copy, nullptr);
  EXPECT_NE(copy, &id);
  EXPECT_EQ(d.calls, std::vector<std::string>{"OpenDir:."});

  auto [dir2, none] = d.ResolveSymLinks(nullptr);
  std::unique_ptr<i_dir> holdDir2(dir2);
  EXPECT_NE(dir2, nullptr);
  EXPECT_EQ(none, nullptr);
}

TEST(DirectoryDefaults, ResolveSymLinksWithFailedCloneThrowsAndFreesTheDirectory) {
  FakeDir d;
  FakeId failing(true);
  const int before = liveDirs;
  EXPECT_EQ(test_util::ThrownCode([&] { d.ResolveSymLinks(&failing); }), 0x40006u);
  EXPECT_EQ(liveDirs, before);
}

TEST(IteratorDefaults, ValuesAFileSystemMayNotHave) {
  FakeIterator it;
  EXPECT_EQ(it.ShortName(), nullptr);
  EXPECT_EQ(it.LongName(), u"entry.txt");
  EXPECT_EQ(it.SizeOnDisk(), 42u);
  EXPECT_EQ(it.ModificationTime(), 0u);
  EXPECT_EQ(it.StatusChangeTime(), 0u);
  EXPECT_EQ(it.CreationTime(), 0u);
  EXPECT_EQ(it.AccessTime(), 0u);
  EXPECT_EQ(it.DOSAttributes(), 0xffffffffu);
  EXPECT_EQ(it.UnixPermissions(), 0xffffffffu);
  EXPECT_FALSE(it.IsHidden());
  EXPECT_EQ(it.OwnerID(), 0xffffffffu);
  EXPECT_EQ(it.GroupID(), 0xffffffffu);
  EXPECT_EQ(it.HardLinkCount(), 1u);
  EXPECT_EQ(it.DeviceMajor(), 0u);
  EXPECT_EQ(it.DeviceMinor(), 0u);
  EXPECT_EQ(it.InodeId(), 0u);
  EXPECT_EQ(it.SymbolicLinkTarget(), nullptr);
  EXPECT_EQ(it.Reserved1(), 0);
  EXPECT_EQ(it.Reserved2(), 0);
  EXPECT_EQ(it.Reserved3(), 1);
  EXPECT_FALSE(it.HasError());
}

TEST(FileTypes, DirectoryLikeCodesHaveBit128) {
  const std::pair<uint32_t, bool> cases[] = {
      {FileTypes::Regular, false},     {FileTypes::CharDevice, false}, {FileTypes::BlockDevice, false},
      {FileTypes::Fifo, false},        {FileTypes::Socket, false},     {FileTypes::SymbolicLink, false},
      {FileTypes::Directory, true},    {FileTypes::RootEntry, true},   {FileTypes::UnknownDirectory, true},
      {FileTypes::DriveEntry, true}};
  for (const auto& [code, dirLike] : cases) EXPECT_EQ(FileTypes::IsDirectoryLike(code), dirLike) << code;
}

}  // namespace
