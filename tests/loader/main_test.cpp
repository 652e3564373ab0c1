#include <gtest/gtest.h>

#include "efi/main.h"
#include "sim_fixture.h"

using namespace EfiLoader;
using loader_test::SimTest;

namespace {

class MainFlow : public SimTest {
 protected:
  // Runs the loader from a file named `self` with `xml` beside it.
  std::string Boot(const std::u16string& self, const char* configRel, const char* xml) {
    fw.loaderFilePath = Sim::SimFirmware::FilePathOf({self});
    if (configRel) disk.Write(configRel, xml);
    EXPECT_EQ(LoaderMain(), 1);
    return fw.ConsoleUtf8();
  }
  static constexpr uint64_t kTenSeconds = 100000000;  // in 100 ns
};

TEST_F(MainFlow, BannerThenActionAndNoReportOnSuccess) {
  const std::string out = Boot(u"\\EFI\\BOOT\\BOOTX64.EFI", "EFI/BOOT/BOOTX64.xml",
                               "<Config><Chainload/></Config>");
  EXPECT_EQ(out, "Starting x64 UEFI loader (v.1.1.236)...\n");
  EXPECT_EQ(fw.stalled100ns, 0u);
}

TEST_F(MainFlow, OnlyTheLastDotCountsAndTheExtensionIsLowerCase) {
  disk.Write("EFI/a.xml", "<C><Bogus/></C>");  // the first dot's name: must not be read
  const std::string out = Boot(u"\\EFI\\a.b.EFI", "EFI/a.b.xml", "<C><Chainload/></C>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
}

TEST_F(MainFlow, NoDotMeansNoConfigurationIsLookedFor) {
  disk.Write("EFI/loader.xml", "<C><Chainload/></C>");
  const std::string out = Boot(u"\\EFI\\loader", nullptr, nullptr);
  EXPECT_NE(out.find("Runtime error:\nError 0x148001e: The loader file name is invalid.\n| line: "),
            std::string::npos) << out;
  EXPECT_EQ(fw.stalled100ns, kTenSeconds);
}

TEST_F(MainFlow, MissingConfigurationReportsTheOpenError) {
  const std::string out = Boot(u"\\EFI\\BOOT\\BOOTX64.EFI", nullptr, nullptr);
  EXPECT_NE(out.find("Runtime error:\nError 0x40007: Error occurred while opening the file."),
            std::string::npos) << out;
  EXPECT_EQ(fw.stalled100ns, kTenSeconds);
}

TEST_F(MainFlow, MalformedConfigurationReport) {
  const std::string out = Boot(u"\\x.efi", "x.xml", "<Config><Chainload></Config>");
  const std::string head =
      "Runtime error:\nError 0x1480009: The configuration file has an incorrect format.\n| line: 0x";
  ASSERT_NE(out.find(head), std::string::npos) << out;
  EXPECT_NE(out.find("\n| file: loader/efi/config.cpp:"), std::string::npos) << out;
  EXPECT_NE(out.find("\n| $module: kelvorn_efia64_236\n"), std::string::npos) << out;
}

TEST_F(MainFlow, FirstFailingJobStopsTheRun) {
  disk.Write("b.txt", "untouched");
  const std::string out =
      Boot(u"\\x.efi", "x.xml",
           "<C><Menu><Entry Key='a'><Chainload/></Entry></Menu><Jobs>"
           "<Rename FileNameSource='\\missing' FileNameTarget='\\b.txt'/>"
           "<Rename FileNameSource='\\b.txt' FileNameTarget='\\c.txt'/></Jobs></C>");
  EXPECT_NE(out.find("Runtime error:\nError 0x40007"), std::string::npos) << out;
  EXPECT_EQ(out.find("Runtime error", out.find("Runtime error") + 1), std::string::npos);
  EXPECT_TRUE(disk.Exists("b.txt")) << "the second job ran";
  EXPECT_EQ(fw.conInResets, 0) << "the menu was shown";
}

TEST_F(MainFlow, RenameJobsThenChainLoad) {
  disk.Write("new.efi", std::string("MZ") + "new");
  disk.Write("old.efi", std::string("MZ") + "old and longer");
  disk.Write("moved.txt", "m");
  const std::string out =
      Boot(u"\\x.efi", "x.xml",
           "<C><Chainload Executable='\\old.efi'/><Jobs>"
           "<Rename FileNameSource='\\new.efi' FileNameTarget='\\old.efi'/>"
           "<Rename FileNameSource='\\moved.txt' FileNameTarget='\\fresh.txt'/></Jobs></C>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_EQ(disk.Read("old.efi"), "MZnew");
  EXPECT_FALSE(disk.Exists("new.efi"));
  EXPECT_EQ(disk.Read("fresh.txt"), "m");
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(std::string(fw.started[0].contents.begin(), fw.started[0].contents.end()), "MZnew");
}

TEST_F(MainFlow, AChainedProgramThatReturnsIsNoFailure) {
  disk.Write("EFI/child.efi", "MZchild");
  fw.startImageStatus = Status::LoadError;  // what a returning loader says
  const std::string out = Boot(u"\\x.efi", "x.xml", "<C><Chainload Executable='\\EFI\\child.efi'/></C>");
  EXPECT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_EQ(fw.stalled100ns, 0u);
}

TEST_F(MainFlow, FailedActionIsReported) {
  const std::string out = Boot(u"\\x.efi", "x.xml",
                               "<C><LoadKernel><Kernel Path='\\k'/></LoadKernel></C>");
  EXPECT_NE(out.find("Runtime error:\nError 0x40007: Error occurred while opening the file."),
            std::string::npos) << out;
  EXPECT_EQ(fw.stalled100ns, kTenSeconds);
}

// ------------------------------------------------------------ menu

class MenuRun : public MainFlow {
 protected:
  static constexpr const char* kMenu =
      "<C><Menu><Topic Text='Rescue'/>"
      "<Entry Key='b'><Text>b: second</Text><Chainload Executable='\\b.efi'/></Entry>"
      "<Entry Key='Esc' Text='Esc: leave'><Chainload/></Entry>"
      "<Entry Key='a' Text='a: first' Confirmation='Really?'><Chainload Executable='\\a.efi'/></Entry>"
      "<Entry Key='F2' Text=''><Menu><Topic Text='Inner'/><Entry Key='x' Text='x: inner'>"
      "<Chainload Executable='\\x2.efi'/></Entry></Menu></Entry>"
      "</Menu></C>";
  void SetUp() override {
    for (const char* f : {"a.efi", "b.efi", "x2.efi", "d.efi"})
      disk.Write(f, std::string("MZ") + f);
  }
  std::string StartedName(size_t i) {
    auto& c = fw.started.at(i).contents;
    return std::string(c.begin() + 2, c.end());
  }
};

TEST_F(MenuRun, DrawsByKeyCodeAndRunsTheChosenEntry) {
  fw.TypeKeys(u"b", 1000);
  const std::string out = Boot(u"\\x.efi", "x.xml", kMenu);
  // Scan keys first (Esc), then characters by code; the empty F2 line is not shown.
  EXPECT_EQ(out,
            "Starting x64 UEFI loader (v.1.1.236)...\nRescue\nEsc: leave\na: first\nb: second\n"
            "\n>b\nPlease wait...\n");
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(StartedName(0), "b.efi");
  EXPECT_EQ(fw.openEvents, 0) << "the timer event was closed";
}

TEST_F(MenuRun, UnknownKeysChangeNothingAndTypeAheadIsDropped) {
  fw.TypeKeys(u"b", 0);           // typed before the menu: dropped by the reset
  fw.TypeKeys(u"zqB", 500);       // not entries ("B" is not "b")
  fw.TypeScan(0x0C, 600);         // F2: the nested menu, whose line is empty
  fw.TypeKeys(u"x", 700);
  const std::string out = Boot(u"\\x.efi", "x.xml", kMenu);
  EXPECT_NE(out.find("\n>\nPlease wait...\nInner\nx: inner\n\n>x\nPlease wait...\n"),
            std::string::npos) << out;
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(StartedName(0), "x2.efi");
  EXPECT_EQ(fw.conInResets, 1) << "reset only at the first wait of the run";
}

TEST_F(MenuRun, ConfirmationYesRunsNoCancels) {
  fw.TypeKeys(u"ak", 10);  // "k" is no answer and is skipped
  fw.TypeKeys(u"Y", 20);
  std::string out = Boot(u"\\x.efi", "x.xml", kMenu);
  EXPECT_NE(out.find("\n>a\nPlease wait...\n\nReally? (Y/N)\n\n>Y\nPlease wait...\n"),
            std::string::npos) << out;
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(StartedName(0), "a.efi");

  fw.console.clear();
  fw.started.clear();
  ResetMenuState();
  fw.TypeKeys(u"an", fw.now100ns + 10);
  out = Boot(u"\\x.efi", "x.xml", kMenu);
  EXPECT_NE(out.find("Runtime error:\nError 0x148000c: Canceled\n| line: "), std::string::npos)
      << out;
  EXPECT_TRUE(fw.started.empty());
}

TEST_F(MenuRun, TimeoutRunsTheDefaultWithoutConfirmation) {
  fw.TypeKeys(u"q", 10000000);  // an unknown key at 1 s does not restart the wait
  const std::string out = Boot(
      u"\\x.efi", "x.xml",
      "<C><Menu><Topic Text='T' Delay='3'/><Entry Key='d' Default='' Confirmation='Sure?'>"
      "<Chainload Executable='\\d.efi'/></Entry></Menu></C>");
  EXPECT_EQ(fw.now100ns, 30000000u) << "three seconds on the simulated clock";
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(StartedName(0), "d.efi");
  EXPECT_EQ(out.find("Sure?"), std::string::npos);
  EXPECT_EQ(out.find("Please wait"), std::string::npos);
}

TEST_F(MenuRun, DefaultActionFailureAfterTimeoutIsNotReported) {
  const std::string out = Boot(
      u"\\x.efi", "x.xml",
      "<C><Menu><Topic Delay='0'/><Entry Key='d' Default=''>"
      "<Chainload Executable='\\missing.efi'/></Entry></Menu></C>");
  EXPECT_EQ(out.find("Runtime error"), std::string::npos) << out;
  EXPECT_EQ(fw.now100ns, 1u) << "Delay 0 ends at the next timer tick";
}

TEST_F(MenuRun, FailingChosenEntryIsReported) {
  fw.TypeKeys(u"d", 10);
  const std::string out = Boot(u"\\x.efi", "x.xml",
                               "<C><Menu><Entry Key='d'><Chainload Executable='\\none.efi'/>"
                               "</Entry></Menu></C>");
  EXPECT_NE(out.find("Runtime error:\nError 0x40007"), std::string::npos) << out;
}

TEST_F(MenuRun, NoConsoleInputIsARuntimeError) {
  fw.consoleInput = false;
  const std::string out = Boot(u"\\x.efi", "x.xml", kMenu);
  EXPECT_NE(out.find("Error 0x1480001: An EFI runtime error."), std::string::npos) << out;
}

}  // namespace
