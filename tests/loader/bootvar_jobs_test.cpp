// The RemoveFakeBootNext job from the configuration to the firmware's
// variables, on the simulated machine.
#include <gtest/gtest.h>

#include "../uefi/record_bytes.h"
#include "efi/config.h"
#include "efi/main.h"
#include "sim_fixture.h"

using namespace EfiLoader;
using loader_test::SimTest;
using uefi_test::Bytes;

namespace {

class RemoveFakeBootNext : public SimTest {
 protected:
  void Put(const std::u16string& name, const Bytes& value) {
    ASSERT_EQ(fw.SetVariable(name, kGlobalVariableGuid, 7, value.data(), value.size()),
              Status::Success);
  }
  bool Has(const std::u16string& name) {
    return fw.variables.count(Sim::SimFirmware::Key(name, kGlobalVariableGuid)) != 0;
  }
  Bytes Get(const std::u16string& name) {
    return fw.variables.at(Sim::SimFirmware::Key(name, kGlobalVariableGuid)).data;
  }
  static Bytes Order(std::initializer_list<uint16_t> numbers) {
    Bytes b;
    for (uint16_t n : numbers) uefi_test::Put(b, n, 2);
    return b;
  }
  static Bytes Entry(const std::string& optional) {
    using namespace uefi_test;
    return Record(u"entry", Cat({HardDrive(1, 34, 1000, SampleGuidBytes(), 2, 2),
                                 File(u"\\EFI\\next.efi"), End()}),
                  Ascii(optional));
  }
  std::string Run(const char* jobs) {
    disk.Write("x.xml", std::string("<C><Chainload/><Jobs>") + jobs + "</Jobs></C>");
    fw.loaderFilePath = Sim::SimFirmware::FilePathOf({u"\\x.efi"});
    EXPECT_EQ(LoaderMain(), 1);
    return fw.ConsoleUtf8();
  }
};

TEST_F(RemoveFakeBootNext, RemovesTheTaggedEntryAndItsNumber) {
  Put(u"Boot0001", Entry(""));
  Put(u"Boot0004", Entry("stage2 Fake_tag"));
  Put(u"BootOrder", Order({4, 1}));
  const std::string out = Run("<RemoveFakeBootNext/>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_FALSE(Has(u"Boot0004"));
  EXPECT_EQ(Get(u"BootOrder"), Order({1}));
  EXPECT_EQ(Get(u"Boot0001"), Entry(""));
}

TEST_F(RemoveFakeBootNext, WithoutATaggedEntryNothingChanges) {
  Put(u"Boot0001", Entry("Fake-tag"));
  Put(u"BootOrder", Order({1}));
  const auto before = fw.variables.size();
  const std::string out = Run("<RemoveFakeBootNext/>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_EQ(fw.variables.size(), before);
  EXPECT_EQ(Get(u"Boot0001"), Entry("Fake-tag"));
  EXPECT_EQ(Get(u"BootOrder"), Order({1}));

  fw.variables.clear();  // a machine without any boot variables
  fw.console.clear();
  ResetSelfPath();
  const std::string bare = Run("<RemoveFakeBootNext/>");
  EXPECT_EQ(bare.find("Runtime error"), std::string::npos) << bare;
  EXPECT_TRUE(fw.variables.empty());
}

TEST_F(RemoveFakeBootNext, OddBootOrderSizes) {
  // Three numbers and a stray byte: the list is written back without it.
  Put(u"Boot0002", Entry("Fake_tag"));
  Bytes order = Order({1, 2, 3});
  order.push_back(0x05);
  Put(u"BootOrder", order);
  Run("<RemoveFakeBootNext/>");
  EXPECT_FALSE(Has(u"Boot0002"));
  EXPECT_EQ(Get(u"BootOrder"), Order({1, 3}));

  // A single byte holds no number: nothing to search, nothing changes.
  Put(u"Boot0000", Entry("Fake_tag"));
  Put(u"BootOrder", Bytes{0x00});
  fw.console.clear();
  ResetSelfPath();
  const std::string out = Run("<RemoveFakeBootNext/>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_TRUE(Has(u"Boot0000"));
  EXPECT_EQ(Get(u"BootOrder"), Bytes{0x00});
}

TEST_F(RemoveFakeBootNext, JobsRunInOrderAndAFailingRenameStopsTheRest) {
  Put(u"Boot0007", Entry("Fake_tag"));
  Put(u"BootOrder", Order({7}));
  const std::string out = Run("<Rename FileNameSource='\\missing' FileNameTarget='\\t'/>"
                              "<RemoveFakeBootNext/>");
  EXPECT_NE(out.find("Runtime error:\nError 0x40007"), std::string::npos) << out;
  EXPECT_TRUE(Has(u"Boot0007")) << "the job behind the failing one ran";
}

TEST(RemoveFakeBootNextJobAlone, AFirmwareFailureIsTheJobsResult) {
  // A record BootOrder can't be read from is reported, not taken for "none".
  class NoVariables : public Sim::SimFirmware {
   public:
    EfiStatus GetVariable(const std::u16string&, const Common::GUID&, uint32_t*,
                          std::vector<uint8_t>&) override {
      return Status::DeviceError;
    }
  } broken;
  Sim::ScopedFirmware scoped(broken);
  RemoveFakeBootNextJob job;
  EXPECT_EQ(job.Execute().Code(), 1u);
}

}  // namespace
