// The one-row command-line editor with scripted keys, alone and inside the
// boot (keys typed during the 4-second wait).
#include <gtest/gtest.h>

#include "efi/linux.h"
#include "efi/memory.h"
#include "file/buf_ifile.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::LinuxTest;
namespace BP = EfiLoader::BootParams;

namespace {

constexpr uint16_t kRight = 3, kLeft = 4, kHome = 5, kEnd = 6, kDelete = 8, kF1 = 0x0B, kEsc = 0x17;
constexpr char kPrompt[] = "Press <Enter> to confirm changes, <Esc> - to keep unchanged\n";

class EditorTest : public LinuxTest {
 public:
  // The key that opens the editor, typed "before" it runs; what follows
  // is typed later, so that the reset of the input keeps it.
  void Open(char16_t key = u'e') { fw.TypeKeys(std::u16string(1, key), fw.now100ns); }
  void Keys(const std::u16string& text) { fw.TypeKeys(text, fw.now100ns + 1); }
  void Scan(uint16_t code, int times = 1) {
    for (int i = 0; i < times; ++i) fw.TypeScan(code, fw.now100ns + 1);
  }
  // A key stroke with neither a character nor a scan code.
  void EmptyKey() { fw.keys.push_back({fw.now100ns + 1, {0, 0}}); }

 protected:
  // The text of the last row drawn (the window before the final newline).
  std::string LastDraw() {
    const std::string out = fw.ConsoleUtf8();
    const size_t end = out.rfind('\n');
    const size_t width = fw.columns - 1;
    return end >= width ? out.substr(end - width, width) : std::string();
  }
};

TEST_F(EditorTest, NothingTypedLeavesTheLineAlone) {
  std::string line = "console=ttyS0";
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_EQ(line, "console=ttyS0");
  EXPECT_EQ(fw.ConsoleUtf8(), "");

  Open(u'x');  // any other key is read and ignored
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_TRUE(fw.keys.empty());
  EXPECT_EQ(fw.ConsoleUtf8(), "");
}

TEST_F(EditorTest, TypedTextIsAppendedAndEnterAccepts) {
  std::string line = "quiet";
  Open(u'E');
  Keys(u" vga=0x312\r");
  EXPECT_TRUE(EditCommandLine(line));
  EXPECT_EQ(line, "quiet vga=0x312");
  const std::string out = fw.ConsoleUtf8();
  EXPECT_EQ(out.rfind(kPrompt, 0), 0u) << out;
  EXPECT_EQ(fw.conInResets, 1) << "the input is reset without verification once";
  EXPECT_EQ(out.back(), '\n');
  EXPECT_EQ(LastDraw(), "quiet vga=0x312" + std::string(fw.columns - 1 - 15, ' '));
}

TEST_F(EditorTest, EscKeepsTheLineWhateverWasTyped) {
  std::string line = "root=/dev/sda1";
  Open();
  Scan(kHome);
  Scan(kDelete, 5);
  Keys(u"garbage");
  Scan(kEsc);
  Keys(u"\r");  // never read
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_EQ(line, "root=/dev/sda1");
  EXPECT_EQ(fw.keys.size(), 1u);
}

TEST_F(EditorTest, MovingDeletingAndInserting) {
  struct Case {
    const char* what;
    std::string line;
    void (*keys)(EditorTest&);
    std::string result;
  };
  const Case cases[] = {
      {"delete at the start", "console=ttyS0 quiet",
       [](EditorTest& t) { t.Scan(kHome); t.Scan(kDelete, 8); }, "ttyS0 quiet"},
      {"backspace at the end", "console=ttyS0 quiet",
       [](EditorTest& t) { t.Keys(u"\b\b\b\b\b\b"); }, "console=ttyS0"},
      {"insert in the middle", "ttyS0",
       [](EditorTest& t) { t.Scan(kLeft, 2); t.Keys(u"X"); }, "ttyXS0"},
      {"backspace at the start does nothing", "abc",
       [](EditorTest& t) { t.Scan(kHome); t.Keys(u"\b"); }, "abc"},
      {"delete at the end does nothing", "abc", [](EditorTest& t) { t.Scan(kDelete); }, "abc"},
      {"left at the start stays", "abc",
       [](EditorTest& t) { t.Scan(kHome); t.Scan(kLeft); t.Keys(u"<"); }, "<abc"},
      {"right at the end stays", "abc", [](EditorTest& t) { t.Scan(kRight, 3); t.Keys(u">"); },
       "abc>"},
      {"end after home", "abc",
       [](EditorTest& t) { t.Scan(kHome); t.Scan(kRight); t.Scan(kEnd); t.Keys(u"!"); }, "abc!"},
      {"tab, line feed and other scan codes do nothing", "abc",
       [](EditorTest& t) { t.Keys(u"\t\n"); t.Scan(kF1); t.EmptyKey(); },
       "abc"},
      {"characters beyond Latin-1 keep their low byte", "",
       [](EditorTest& t) { t.Keys(u"\u0141"); }, "A"},
  };
  for (const Case& c : cases) {
    fw.keys.clear();
    fw.console.clear();
    std::string line = c.line;
    Open();
    c.keys(*this);
    Keys(u"\r");
    EXPECT_TRUE(EditCommandLine(line)) << c.what;
    EXPECT_EQ(line, c.result) << c.what;
  }
}

TEST_F(EditorTest, LongLineScrollsInsideTheRow) {
  fw.columns = 10;  // a window of nine characters
  std::string line = "abcdefghijklmnopqrst";  // twenty
  Open();
  Scan(kHome);
  Scan(kRight, 10);  // nine to the last column, then the window moves
  Keys(u"X");        // inserted at index 10, the window moves again
  Scan(kEsc);
  std::string kept = line;
  EXPECT_FALSE(EditCommandLine(kept));
  EXPECT_EQ(kept, line);
  // On leaving, the cursor goes to the last column and the offset stays:
  // the window starts at the character after "ab".
  EXPECT_EQ(LastDraw(), "cdefghijX");

  fw.keys.clear();
  Open();
  Scan(kHome);
  Scan(kRight, 10);
  Keys(u"X\r");
  EXPECT_TRUE(EditCommandLine(line));
  EXPECT_EQ(line, "abcdefghijXklmnopqrst");
}

TEST_F(EditorTest, CursorIsHiddenAgainIfItWasHidden) {
  fw.EnableCursor(false);
  std::string line = "a";
  Open();
  Keys(u"\r");
  EXPECT_TRUE(EditCommandLine(line));
  EXPECT_FALSE(fw.CursorVisible());

  fw.EnableCursor(true);
  Open();
  Keys(u"\r");
  EXPECT_TRUE(EditCommandLine(line));
  EXPECT_TRUE(fw.CursorVisible());
}

TEST_F(EditorTest, MissingConsolePartsKeepTheEditorClosed) {
  std::string line = "a";
  fw.modeRecord = false;
  Open();
  Keys(u"X\r");
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_EQ(fw.keys.size(), 3u) << "no key was read";

  fw.modeRecord = true;
  fw.consoleInput = false;
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_EQ(line, "a");

  // The keys run out before Enter: the wait fails, which cancels.
  fw.consoleInput = true;
  fw.keys.clear();
  Open();
  Keys(u"X");
  EXPECT_FALSE(EditCommandLine(line));
  EXPECT_EQ(line, "a");
}

// ---------------------------------------------------------------- in the boot

class EditDuringBoot : public LinuxTest {
 protected:
  void Boot(const std::string& arguments) {
    const std::string bytes = linux_test::MakeKernel({});
    buf_ifile<unsigned char> kernel(bytes.data(), bytes.size());
    PageAlignedMemory none;
    EXPECT_THROW(RunLinux(kernel, none, arguments), Sim::KernelStarted);
  }
  std::string CommandLine() {
    return reinterpret_cast<const char*>(ZeroPage() + BP::kCommandLineOffset);
  }
};

TEST_F(EditDuringBoot, KeyTypedDuringTheWaitOpensTheEditor) {
  fw.TypeKeys(u"e", 20000000);           // after two of the four seconds
  fw.TypeKeys(u" vga=0x312\r", 60000000);  // in the editor
  Boot("console=ttyS0");
  EXPECT_EQ(CommandLine(), "console=ttyS0 vga=0x312");
  // The edited line chooses the screen.
  EXPECT_EQ(BP::Get16(ZeroPage() + 0x12), 640);
  EXPECT_EQ(BP::Get16(ZeroPage() + 0x14), 480);
  EXPECT_NE(fw.ConsoleUtf8().find(kPrompt), std::string::npos);
}

TEST_F(EditDuringBoot, NoModeRecordStillWaitsFourSeconds) {
  fw.modeRecord = false;
  fw.TypeKeys(u"e", 10000000);
  Boot("quiet");
  EXPECT_EQ(fw.stalled100ns, 40000000u);
  EXPECT_EQ(CommandLine(), "quiet");
  EXPECT_EQ(fw.ConsoleUtf8().find(kPrompt), std::string::npos);
}

}  // namespace
