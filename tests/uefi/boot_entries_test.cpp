#include <gtest/gtest.h>

#include "record_bytes.h"
#include "strict_firmware.h"
#include "uefi/boot_entries.h"
#include "uefi/errors.h"

using namespace uefi_test;
using Common::Error;
namespace Status = EfiLoader::Status;

namespace {

class BootVars : public ::testing::Test {
 protected:
  BootVars() : scoped_(fw) {}

  // A record for a partition file, with optional data.
  static Bytes Entry(const std::u16string& description, const Bytes& optional = {}) {
    return Record(description,
                  Cat({HardDrive(1, 2048, 4096, SampleGuidBytes(), 2, 2), File(u"\\a.efi"), End()}),
                  optional);
  }
  static Bytes Tagged(const std::u16string& description, const Bytes& before = {},
                      const Bytes& after = {}) {
    return Entry(description, Cat({before, Ascii("Fake_tag"), after}));
  }
  Error ClearFake() {
    std::shared_ptr<Uefi::BootNext> fake;
    EXPECT_TRUE(Uefi::GetBootNext(fake, false).IsSuccess());
    return fake->Clear();
  }
  // Every variable as it stands, to compare before and after.
  std::map<std::pair<std::u16string, std::string>, Bytes> Store() const {
    std::map<std::pair<std::u16string, std::string>, Bytes> out;
    for (const auto& [key, v] : fw.variables) out[key] = v.data;
    return out;
  }
  void PutRealMachine() {
    for (int i = 0; i <= 7; ++i) {
      static const char* const kFiles[] = {
          "ovmf_ui_app.var",  "ovmf_sata_disk.var",         "ovmf_sata_disk.var",
          "ovmf_sata_disk.var", "ovmf_shell.var",           "ovmf_file_no_partition.var",
          "ovmf_gpt_file.var",  "ovmf_mbr_file.var"};
      fw.Put(u"Boot000" + std::u16string(1, char16_t(u'0' + i)), RealRecord(kFiles[i]));
    }
    fw.Put(u"BootOrder", RealRecord("ovmf_boot_order.var"));
  }

  StrictFirmware fw;

 private:
  EfiLoader::Sim::ScopedFirmware scoped_;
};

// ---------------------------------------------------------------- variables

TEST_F(BootVars, ReadsAskForOneKilobyteThenForWhatTheFirmwareSays) {
  fw.Put(u"Small", Bytes(10, 1));
  fw.Put(u"Large", Bytes(3000, 2), 3);
  std::shared_ptr<Uefi::Variable> v;
  Uefi::CreateVariable(v, Uefi::kGlobalVariableGuid, u"Small", 7);
  const uint8_t* data;
  size_t size;
  ASSERT_TRUE(Uefi::GetVariableData(*v, data, size).IsSuccess());
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(fw.askedSizes, (std::vector<size_t>{1024}));

  fw.askedSizes.clear();
  auto large = std::make_shared<Uefi::UefiVariable>(Uefi::kGlobalVariableGuid, u"Large", 7);
  ASSERT_TRUE(Uefi::GetVariableData(*large, data, size).IsSuccess());
  EXPECT_EQ(Bytes(data, data + size), Bytes(3000, 2));
  EXPECT_EQ(fw.askedSizes, (std::vector<size_t>{1024, 3000}));
  EXPECT_EQ(large->attributes, 3u) << "the firmware's attributes replace the object's";
  // Loaded once: no further call.
  ASSERT_TRUE(Uefi::GetVariableData(*large, data, size).IsSuccess());
  EXPECT_EQ(fw.askedSizes.size(), 2u);
}

TEST_F(BootVars, AFirmwareThatLiesAboutSizesIsNotFollowed) {
  fw.Put(u"V", Bytes(2000, 1));
  fw.stubborn = true;  // "too small" for ever, never saying how large
  Uefi::UefiVariable stubborn(Uefi::kGlobalVariableGuid, u"V", 7);
  EXPECT_EQ(stubborn.Load().Code(), 1u);
  EXPECT_EQ(fw.askedSizes, (std::vector<size_t>{1024}));

  fw.stubborn = false;
  fw.claimedSize = size_t(64) << 20;  // more than any boot variable
  fw.askedSizes.clear();
  Uefi::UefiVariable greedy(Uefi::kGlobalVariableGuid, u"V", 7);
  EXPECT_EQ(greedy.Load().Code(), 0x12F000Eu);
  EXPECT_EQ(fw.askedSizes, (std::vector<size_t>{1024}));

  fw.claimedSize = 0;
  EXPECT_TRUE(greedy.Load().IsSuccess());
  EXPECT_EQ(greedy.value.size(), 2000u);
}

TEST_F(BootVars, SaveExistsAndClear) {
  Uefi::UefiVariable fresh(Uefi::kGlobalVariableGuid, u"Fresh", 7);
  Error e = fresh.Save();
  EXPECT_EQ(e.Code(), 0x12F0003u);
  EXPECT_EQ(e.Message(), u"State of UEFI variable is invalid.");
  EXPECT_FALSE(fw.Has(u"Fresh"));
  EXPECT_FALSE(Uefi::VariableExists(fresh));

  const uint8_t value[] = {1, 2, 3};
  ASSERT_TRUE(Uefi::SetVariableData(fresh, value, 3).IsSuccess());
  EXPECT_EQ(fw.Get(u"Fresh"), (Bytes{1, 2, 3}));
  EXPECT_TRUE(Uefi::VariableExists(fresh));
  ASSERT_TRUE(Uefi::ClearVariable(fresh).IsSuccess());
  EXPECT_FALSE(fw.Has(u"Fresh"));

  fw.readFailures[u"Broken"] = Status::DeviceError;
  Uefi::UefiVariable broken(Uefi::kGlobalVariableGuid, u"Broken", 7);
  EXPECT_TRUE(Uefi::VariableExists(broken)) << "only 'not found' means absent";
  EXPECT_EQ(broken.Load().Code(), 1u);
}

// ---------------------------------------------------------- entry spellings

TEST_F(BootVars, LowerCaseNameIsFoundAfterTheUpperCaseOneFails) {
  fw.Put(u"Boot000a", Entry(u"ten", Ascii("opt")));
  auto entry = std::make_shared<Uefi::BootEntryImpl>(10);
  Bytes optional;
  ASSERT_TRUE(entry->GetOptionalData(optional).IsSuccess());
  EXPECT_EQ(optional, Ascii("opt"));
  EXPECT_EQ(entry->VariableName(), u"Boot000a");
  EXPECT_TRUE(entry->Exists());
  ASSERT_TRUE(entry->Delete().IsSuccess());
  EXPECT_FALSE(fw.Has(u"Boot000a"));
}

TEST_F(BootVars, DigitsWithoutLettersHaveNoOtherSpelling) {
  fw.Put(u"boot0010", Entry(u"not an entry name"));
  Uefi::BootEntryImpl entry(16);
  Bytes optional;
  fw.askedSizes.clear();
  Error e = entry.GetOptionalData(optional);
  EXPECT_EQ(e.Code(), 0x12F0008u);
  EXPECT_EQ(e.Message(), u"Boot entry 'Boot0010' cannot be found.");
  EXPECT_EQ(fw.askedSizes.size(), 1u);
  EXPECT_FALSE(entry.Exists());
  EXPECT_TRUE(entry.GetCaseVariants().empty());
}

TEST_F(BootVars, CaseVariantsAreTheOtherSpellingWhenItExists) {
  fw.Put(u"Boot000A", Entry(u"upper"));
  auto entry = std::make_shared<Uefi::BootEntryImpl>(10);
  EXPECT_TRUE(entry->GetCaseVariants().empty());
  fw.Put(u"Boot000a", Entry(u"lower"));
  auto variants = entry->GetCaseVariants();
  ASSERT_EQ(variants.size(), 1u);
  std::shared_ptr<Uefi::LoadOptions> options;
  ASSERT_TRUE(variants[0]->GetLoadOptions(options).IsSuccess());
  std::u16string description;
  options->GetDescription(description);
  EXPECT_EQ(description, u"lower");
}

// ---------------------------------------------------------------- BootOrder

TEST_F(BootVars, BootOrderSizes) {
  struct Case {
    Bytes value;
    std::u16string text;
  } cases[] = {
      {StrictFirmware::Order({0, 1, 3}), u"(0 1 3 )"},
      {Cat({StrictFirmware::Order({5, 0x1234}), {0x07}}), u"(5 4660 )"},  // odd byte dropped
      {{0x07}, u"()"},
      {{}, u"()"},
  };
  for (const Case& c : cases) {
    fw.Put(u"BootOrder", c.value);
    std::shared_ptr<Uefi::BootOrder> order;
    ASSERT_TRUE(Uefi::GetBootOrder(order).IsSuccess());
    std::u16string text;
    order->GetDescriptionText(text);
    EXPECT_EQ(text, c.text);
  }
  fw.variables.clear();
  std::shared_ptr<Uefi::BootOrder> order;
  EXPECT_EQ(Uefi::GetBootOrder(order).Code(), 0x12F0008u);
  ASSERT_NE(order, nullptr);
  EXPECT_EQ(order->begin(), order->end());
}

TEST_F(BootVars, CreateNewTakesTheLowestFreeNumber) {
  fw.PutOrder({0, 1, 3});
  std::shared_ptr<Uefi::BootOrder> order;
  ASSERT_TRUE(Uefi::GetBootOrder(order).IsSuccess());
  std::shared_ptr<Uefi::BootEntry> entry;
  ASSERT_TRUE(order->CreateNew(entry).IsSuccess());
  EXPECT_EQ(entry->GetNumber(), 2);
  EXPECT_FALSE(entry->Exists());

  Uefi::BootEntriesEnumeratorImpl list;
  for (uint16_t n : {1, 0, 2}) list.entries.push_back(std::make_shared<Uefi::BootEntryImpl>(n));
  ASSERT_TRUE(list.CreateNew(entry).IsSuccess());
  EXPECT_EQ(entry->GetNumber(), 3);

  fw.variables.clear();
  Uefi::BootOrderImpl missing;
  Error e = missing.CreateNew(entry);
  EXPECT_EQ(e.Code(), 0x12F0010u);
  EXPECT_EQ(e.Cause().Code(), 0x12F0008u);
}

TEST_F(BootVars, RemoveTakesEveryItemOfTheNumberAndEraseOnlyTheMemory) {
  fw.PutOrder({4, 2, 4, 9});
  std::shared_ptr<Uefi::BootOrder> order;
  ASSERT_TRUE(Uefi::GetBootOrder(order).IsSuccess());
  order->Erase(order->begin());
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({4, 2, 4, 9}));
  ASSERT_TRUE(order->Remove(Uefi::BootEntryImpl(4)).IsSuccess());
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({2, 9}));
}

TEST_F(BootVars, AddPutsTheEntryFirstAndRewritesEveryEntryUnchanged) {
  PutRealMachine();
  fw.PutOrder({1, 7, 3});
  const auto before = Store();
  std::shared_ptr<Uefi::BootOrder> order;
  ASSERT_TRUE(Uefi::GetBootOrder(order).IsSuccess());
  fw.log.clear();
  ASSERT_TRUE(order->Add(order->begin(), std::make_shared<Uefi::BootEntryImpl>(3)).IsSuccess());
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({3, 1, 7}));
  // Entries in BootOrder first and in its order, then the rest.
  ASSERT_GE(fw.log.size(), 9u);
  EXPECT_EQ(std::vector<std::string>(fw.log.begin(), fw.log.begin() + 4),
            (std::vector<std::string>{"set BootOrder", "set Boot0003", "set Boot0001",
                                      "set Boot0007"}));
  auto after = Store();
  after.erase({u"BootOrder", Common::GuidToNarrowText(Uefi::kGlobalVariableGuid)});
  auto expected = before;
  expected.erase({u"BootOrder", Common::GuidToNarrowText(Uefi::kGlobalVariableGuid)});
  EXPECT_EQ(after, expected) << "real records are written back byte for byte";
}

// ------------------------------------------------------- the fake BootNext

TEST_F(BootVars, ClearRemovesTheTaggedEntryAndItsNumber) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::u16string, Bytes>> entries;
    Bytes order;
    Bytes orderAfter;
    std::u16string removed;  // empty: nothing changes
  } cases[] = {
      {"tag at the end", {{u"Boot0001", Entry(u"a")}, {u"Boot0002", Tagged(u"b")}},
       StrictFirmware::Order({1, 2}), StrictFirmware::Order({1}), u"Boot0002"},
      {"tag in the middle of the optional data",
       {{u"Boot0001", Tagged(u"a", Ascii("before"), Ascii("after"))}},
       StrictFirmware::Order({1, 5}), StrictFirmware::Order({5}), u"Boot0001"},
      {"an entry BootOrder names but the store lacks is passed over",
       {{u"Boot0003", Tagged(u"c")}}, StrictFirmware::Order({7, 3}), StrictFirmware::Order({7}),
       u"Boot0003"},
      {"an unreadable record is passed over, not an error",
       {{u"Boot0001", Bytes{1, 0, 0}}, {u"Boot0002", Tagged(u"b")}},
       StrictFirmware::Order({1, 2}), StrictFirmware::Order({1}), u"Boot0002"},
      {"odd BootOrder size: the last byte goes with the rewrite",
       {{u"Boot0001", Entry(u"a")}, {u"Boot0002", Tagged(u"b")}, {u"Boot0003", Entry(u"c")}},
       Cat({StrictFirmware::Order({1, 2, 3}), {0x09}}), StrictFirmware::Order({1, 3}), u"Boot0002"},
      {"every occurrence of the number leaves BootOrder",
       {{u"Boot0002", Tagged(u"b")}}, StrictFirmware::Order({2, 1, 2}), StrictFirmware::Order({1}),
       u"Boot0002"},
      {"lower-case name", {{u"Boot000b", Tagged(u"b")}}, StrictFirmware::Order({11, 1}),
       StrictFirmware::Order({1}), u"Boot000b"},
      {"no tagged entry: nothing changes",
       {{u"Boot0001", Entry(u"a", Ascii("Fake_ta"))}, {u"Boot0002", Entry(u"b")}},
       StrictFirmware::Order({1, 2}), {}, u""},
      {"a tagged entry outside BootOrder is not looked at",
       {{u"Boot0001", Entry(u"a")}, {u"Boot0004", Tagged(u"d")}}, StrictFirmware::Order({1}), {},
       u""},
      {"odd BootOrder of one byte: no entries", {{u"Boot0000", Tagged(u"z")}}, Bytes{0x00}, {},
       u""},
  };
  for (const Case& c : cases) {
    fw.variables.clear();
    for (const auto& [name, value] : c.entries) fw.Put(name, value);
    fw.Put(u"BootOrder", c.order);
    const auto before = Store();
    ASSERT_TRUE(ClearFake().IsSuccess()) << c.what;
    if (c.removed.empty()) {
      EXPECT_EQ(Store(), before) << c.what;
      continue;
    }
    EXPECT_FALSE(fw.Has(c.removed)) << c.what;
    EXPECT_EQ(fw.Get(u"BootOrder"), c.orderAfter) << c.what;
    EXPECT_EQ(Store().size(), before.size() - 1) << c.what << ": only the entry went";
  }
}

TEST_F(BootVars, ClearWithoutBootOrderChangesNothing) {
  fw.Put(u"Boot0001", Tagged(u"a"));
  const auto before = Store();
  EXPECT_TRUE(ClearFake().IsSuccess());
  EXPECT_EQ(Store(), before);
}

TEST_F(BootVars, ClearTakesBootOrderFirstAndOneEntryPerCall) {
  fw.Put(u"Boot0001", Tagged(u"first"));
  fw.Put(u"Boot0002", Entry(u"plain"));
  fw.Put(u"Boot0003", Tagged(u"second"));
  fw.PutOrder({3, 2, 1});
  ASSERT_TRUE(ClearFake().IsSuccess());
  EXPECT_EQ(fw.log, (std::vector<std::string>{"set BootOrder", "delete Boot0003"}));
  EXPECT_TRUE(fw.Has(u"Boot0001"));
  ASSERT_TRUE(ClearFake().IsSuccess());
  EXPECT_FALSE(fw.Has(u"Boot0001"));
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({2}));
}

TEST_F(BootVars, ClearGivesBackFailuresOtherThanNotFound) {
  fw.Put(u"Boot0001", Tagged(u"a"));
  fw.PutOrder({1});
  fw.readFailures[u"BootOrder"] = Status::DeviceError;
  EXPECT_EQ(ClearFake().Code(), 1u);
  EXPECT_TRUE(fw.Has(u"Boot0001"));

  // The variable goes even when BootOrder can't be written; its failure is
  // the result of the delete.
  fw.readFailures.clear();
  fw.writeFailures[u"BootOrder"] = Status::WriteProtected;
  EXPECT_TRUE(ClearFake().IsSuccess());
  EXPECT_FALSE(fw.Has(u"Boot0001"));
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({1}));

  fw.Put(u"Boot0001", Tagged(u"a"));
  fw.writeFailures[u"Boot0001"] = Status::OutOfResources;
  EXPECT_EQ(ClearFake().Code(), 0x12F000Eu);
}

TEST_F(BootVars, SetMakesAOneShotEntryThatClearUndoes) {
  PutRealMachine();
  const auto before = Store();
  std::shared_ptr<Uefi::BootOrder> order;
  ASSERT_TRUE(Uefi::GetBootOrder(order).IsSuccess());
  std::shared_ptr<Uefi::BootEntry> entry;
  ASSERT_TRUE(order->CreateNew(entry).IsSuccess());
  ASSERT_EQ(entry->GetNumber(), 8);
  std::shared_ptr<Uefi::LoadOptions> options;
  ASSERT_TRUE(entry->GetLoadOptions(options).IsSuccess());
  options->SetDescription(u"Rescue");
  options->SetPath(u"\\EFI\\rescue\\loader.efi");
  Common::GUID guid{};
  Common::TextToGuid("3F2504E0-4F89-11D3-9A0C-0305E82C3301", guid);
  options->SetPartitionGUID(guid);

  std::shared_ptr<Uefi::BootNext> fake;
  Uefi::GetBootNext(fake, false);
  ASSERT_TRUE(fake->Set(entry).IsSuccess());
  const Bytes record = fw.Get(u"Boot0008");
  ASSERT_GT(record.size(), 8u);
  EXPECT_EQ(Bytes(record.end() - 8, record.end()), Ascii("Fake_tag"));
  EXPECT_EQ(fw.Get(u"BootOrder"), StrictFirmware::Order({8, 0, 1, 2, 3, 5, 6, 7, 4}));
  EXPECT_EQ(fw.Get(u"BootNext"), StrictFirmware::Order({8}));

  std::shared_ptr<Uefi::BootEntry> found;
  ASSERT_TRUE(fake->Get(found).IsSuccess());
  EXPECT_EQ(found->GetNumber(), 8);

  ASSERT_TRUE(fake->Clear().IsSuccess());
  auto after = Store();
  after.erase({u"BootNext", Common::GuidToNarrowText(Uefi::kGlobalVariableGuid)});
  EXPECT_EQ(after, before) << "back to the machine as it was, but for BootNext";
  EXPECT_EQ(fake->Get(found).Code(), 0x12F0008u);
}

// ------------------------------------------------ real BootNext, BootCurrent

TEST_F(BootVars, BootNextAndBootCurrentHoldOneNumber) {
  std::shared_ptr<Uefi::BootNext> next;
  Uefi::GetBootNext(next, true);
  std::shared_ptr<Uefi::BootEntry> entry;
  EXPECT_EQ(next->Get(entry).Code(), 0x12F0008u);
  EXPECT_TRUE(next->Clear().IsSuccess()) << "nothing to clear is no failure";
  ASSERT_TRUE(next->Set(std::make_shared<Uefi::BootEntryImpl>(0x1A2B)).IsSuccess());
  EXPECT_EQ(fw.Get(u"BootNext"), (Bytes{0x2B, 0x1A}));
  std::shared_ptr<Uefi::BootNext> other;
  Uefi::GetBootNext(other, true);
  ASSERT_TRUE(other->Get(entry).IsSuccess());
  EXPECT_EQ(entry->GetNumber(), 0x1A2B);
  ASSERT_TRUE(other->Clear().IsSuccess());
  EXPECT_FALSE(fw.Has(u"BootNext"));

  std::shared_ptr<Uefi::BootCurrent> current;
  Uefi::GetBootCurrent(current);
  fw.Put(u"BootCurrent", Bytes{0x04, 0x00}, 6);
  ASSERT_TRUE(current->Get(entry).IsSuccess());
  EXPECT_EQ(entry->GetNumber(), 4);
  fw.Put(u"BootCurrent", Bytes{0x04}, 6);
  std::shared_ptr<Uefi::BootCurrent> shortOne;
  Uefi::GetBootCurrent(shortOne);
  EXPECT_EQ(shortOne->Get(entry).Code(), 0x12F000Du);
}

// -------------------------------------------------------------- enumerator

TEST_F(BootVars, EnumeratorListsTheEntriesThatExist) {
  Common::GUID other{};
  Common::TextToGuid("11111111-2222-3333-4444-555555555555", other);
  fw.Put(u"Boot0001", Entry(u"one"));
  fw.Put(u"Boot000A", Entry(u"ten"));
  fw.Put(u"Boot000b", Entry(u"eleven"));
  fw.Put(u"Boot0003", Entry(u"other vendor"), 7, other);  // no Boot0003 of ours
  fw.Put(u"Boot00zz", Entry(u"no number"));
  fw.Put(u"Boot", Entry(u"too short"));
  fw.Put(u"BootNext", Bytes{1, 0});
  fw.PutOrder({1});
  Uefi::BootEntriesEnumeratorUefi all;
  ASSERT_TRUE(all.Obtain().IsSuccess());
  std::u16string text;
  all.GetDescriptionText(text);
  EXPECT_EQ(text, u"(1 10 11 )");

  fw.variables.erase(StrictFirmware::Key(u"BootOrder", Uefi::kGlobalVariableGuid));
  Error e = all.Obtain();
  EXPECT_EQ(e.Code(), 0x12F0006u);
  EXPECT_EQ(e.Message(), u"Not implemented.");
}

// A firmware whose name walk never ends, or hands out a name too long for
// the walk's buffer.
class EndlessNames : public StrictFirmware {
 public:
  EfiLoader::EfiStatus GetNextVariableName(std::u16string& name, Common::GUID&) override {
    ++calls;
    name = longName ? std::u16string(600, u'B') : u"Timeout";
    return Status::Success;
  }
  size_t calls = 0;
  bool longName = false;
};

TEST(BootVarsHostile, NameWalkIsBounded) {
  EndlessNames fw;
  EfiLoader::Sim::ScopedFirmware scoped(fw);
  fw.PutOrder({});
  Uefi::BootEntriesEnumeratorUefi all;
  ASSERT_TRUE(all.Obtain().IsSuccess());
  EXPECT_EQ(fw.calls, Uefi::BootEntriesEnumeratorUefi::kMaxNames);
  fw.calls = 0;
  fw.longName = true;
  ASSERT_TRUE(all.Obtain().IsSuccess());
  EXPECT_EQ(fw.calls, 1u);
}

// ----------------------------------------------------- writing an entry

TEST_F(BootVars, CommitWritesTheRecordAndItsOptionalData) {
  Uefi::BootEntryImpl entry(5);
  std::shared_ptr<Uefi::LoadOptions> options;
  ASSERT_TRUE(entry.GetLoadOptions(options).IsSuccess());
  ASSERT_TRUE(options->SetPath(u"\\a.efi").IsSuccess());
  ASSERT_TRUE(options->SetPartitionNumber(1).IsSuccess());
  ASSERT_TRUE(options->SetPartitionStart(2048).IsSuccess());
  ASSERT_TRUE(options->SetPartitionSize(4096).IsSuccess());
  Common::GUID guid{};
  Common::TextToGuid("3F2504E0-4F89-11D3-9A0C-0305E82C3301", guid);
  ASSERT_TRUE(options->SetPartitionGUID(guid).IsSuccess());

  Error e = entry.Commit();
  EXPECT_EQ(e.Code(), 0x12F000Du) << "no description yet";
  EXPECT_EQ(e.Cause().Code(), 0x12F000Du);
  EXPECT_FALSE(fw.Has(u"Boot0005"));

  ASSERT_TRUE(options->SetDescription(u"made").IsSuccess());
  ASSERT_TRUE(entry.SetOptionalData(Ascii("xyz")).IsSuccess());
  ASSERT_TRUE(entry.Commit().IsSuccess());
  // A record made here has attributes 0: whether the firmware may boot it
  // is for its maker to say.
  Bytes expected = Entry(u"made", Ascii("xyz"));
  expected[0] = 0;
  EXPECT_EQ(fw.Get(u"Boot0005"), expected);
  EXPECT_EQ(fw.variables.at(StrictFirmware::Key(u"Boot0005", Uefi::kGlobalVariableGuid)).attributes,
            7u);
}

TEST_F(BootVars, OptionalDataChangesSurviveCommitOnRecordsWithoutNodes) {
  fw.Put(u"Boot0002", Record(u"bare", {}, Ascii("old")));
  Uefi::BootEntryImpl entry(2);
  ASSERT_TRUE(entry.SetOptionalData(Ascii("new")).IsSuccess());
  ASSERT_TRUE(entry.Commit().IsSuccess());
  EXPECT_EQ(fw.Get(u"Boot0002"), Record(u"bare", {}, Ascii("new")));
}

TEST_F(BootVars, CloneDataCopiesARealEntry) {
  PutRealMachine();
  auto source = std::make_shared<Uefi::BootEntryImpl>(6);
  Uefi::BootEntryImpl copy(9);
  ASSERT_TRUE(copy.CloneData(*source).IsSuccess());
  ASSERT_TRUE(copy.Commit().IsSuccess());
  EXPECT_EQ(fw.Get(u"Boot0009"), fw.Get(u"Boot0006"));

  fw.Put(u"Boot0004", Bytes{1, 2, 3});  // exists but can't be read
  Uefi::BootEntryImpl target(10);
  Uefi::BootEntryImpl broken(4);
  Error e = target.CloneData(broken);
  EXPECT_EQ(e.Code(), 0x12F000Fu);
  EXPECT_EQ(e.Cause().Code(), 0x12F000Du);
}

TEST_F(BootVars, DescriptionTextOfAnEntry) {
  PutRealMachine();
  Uefi::BootEntryImpl gpt(6);
  std::u16string text;
  ASSERT_TRUE(gpt.GetDescriptionText(text).IsSuccess());
  const std::string narrow = test_util::Narrow(text);
  EXPECT_EQ(narrow.rfind("Description: MBR entry\nPath: \\mbrboot.efi\nGUID: 3F2504E0-", 0), 0u)
      << narrow;
  EXPECT_NE(narrow.find("Hex dump:\n0000: 01 00 00 00 68 00 4D 00"), std::string::npos) << narrow;

  fw.Put(u"Boot0003", Bytes{1, 0, 0, 0, 0, 0, 'x'});
  Uefi::BootEntryImpl broken(3);
  Error e = broken.GetDescriptionText(text);
  EXPECT_EQ(e.Code(), 0x12F000Du);
  EXPECT_EQ(test_util::Narrow(text).rfind("Description: Unknown\n", 0), 0u);
  EXPECT_NE(test_util::Narrow(text).find("0000: 01 00 00 00 00 00 78"), std::string::npos);
  Bytes raw;
  ASSERT_TRUE(broken.GetRawData(raw).IsSuccess());
  EXPECT_EQ(raw, (Bytes{1, 0, 0, 0, 0, 0, 'x'}));
  EXPECT_TRUE(broken.Exists()) << "a record that doesn't parse still exists";
}

}  // namespace
