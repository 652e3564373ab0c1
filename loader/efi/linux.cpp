#include "efi/linux.h"

#include <cstring>
#include <memory>

#include "common/error_codes.h"
#include "efi/boot_params.h"
#include "efi/console.h"
#include "efi/memory.h"
#include "efi/platform.h"
#include "efi/platform_memory.h"
#include "efi/video.h"

namespace EfiLoader {

using namespace Common::Codes;
namespace BP = BootParams;

KernelHeader KernelHeader::Read(const uint8_t* p) {
  KernelHeader h;
  h.setupSects = p[BP::kSetupSects];
  h.bootFlag = BP::Get16(p + BP::kBootFlag);
  h.jumpSecondByte = p[BP::kJumpSecondByte];
  h.header = BP::Get32(p + BP::kHeader);
  h.version = BP::Get16(p + BP::kVersion);
  h.kernelVersion = BP::Get16(p + BP::kKernelVersion);
  h.loadFlags = p[BP::kLoadFlags];
  h.kernelAlignment = BP::Get32(p + BP::kKernelAlignment);
  h.relocatableKernel = p[BP::kRelocatableKernel];
  h.initSize = BP::Get32(p + BP::kInitSize);
  return h;
}

void ValidateKernel(const uint8_t* zeroPage, uint64_t fileSize) {
  const KernelHeader h = KernelHeader::Read(zeroPage);
  if (h.bootFlag != BP::kBootFlagValue) THROW_ERROR(KernelCorrupted);
  if (h.header != BP::kHeaderMagic) THROW_ERROR(KernelCorrupted);
  if (!(h.loadFlags & BP::kLoadedHigh)) THROW_ERROR(KernelUnsupportedVersion);
  if (h.version < BP::kMinimumVersion) THROW_ERROR(KernelUnsupportedVersion);
  // The header must reach the end of init_size (0x264 = 0x202 + 98).
  if (h.jumpSecondByte + 17u < 115u) THROW_ERROR(KernelCorrupted);
  if (!h.relocatableKernel) THROW_ERROR(KernelUnsupportedVersion);
  // A file that ends inside its own setup has no kernel to load.
  const uint64_t setupSize = h.SetupSize();
  if (setupSize >= fileSize || h.initSize < fileSize - setupSize) THROW_ERROR(KernelCorrupted);
  if (h.kernelVersion != 0 && 512u + h.kernelVersion >= setupSize) THROW_ERROR(KernelCorrupted);
}

// ---------------------------------------------------------------- editor

namespace {

class LineEditor {
 public:
  LineEditor(Firmware& fw, std::u16string text, uint64_t columns, int32_t row)
      : fw_(fw), text_(std::move(text)), columns_(columns), row_(row) {}

  // Runs until Enter (true) or Esc or a failure (false).
  bool Run() {
    MoveToEnd();
    fw_.EnableCursor(true);
    bool accepted = false;
    for (;;) {
      Draw();
      const EfiEvent keyEvent = fw_.WaitForKeyEvent();
      uint64_t index = 0;
      InputKey key{};
      if (EfiFailed(fw_.WaitForEvent(&keyEvent, 1, index)) || EfiFailed(fw_.ReadKeyStroke(key)) ||
          key.ScanCode == 0x17)
        break;
      if (key.ScanCode == 0 && key.UnicodeChar == 0x0D) {
        accepted = true;
        break;
      }
      Act(key);
    }
    if (text_.size() < Window()) {
      offset_ = 0;
      cursor_ = text_.size();
    } else {
      cursor_ = columns_ - 1;
    }
    Draw();
    Print(u"\n");
    return accepted;
  }

  const std::u16string& Text() const { return text_; }

 private:
  uint64_t Window() const { return columns_ - 1; }
  uint64_t Position() const { return cursor_ + offset_; }

  void MoveToEnd() {
    if (text_.size() < Window()) {
      offset_ = 0;
      cursor_ = text_.size();
    } else {
      cursor_ = columns_ - 1;
      offset_ = text_.size() + 1 - columns_;
    }
  }

  // One step right, scrolling when the cursor stands in the last column.
  void Advance() {
    if (cursor_ < columns_ - 1)
      ++cursor_;
    else
      ++offset_;
  }

  void Act(const InputKey& key) {
    if (key.ScanCode != 0) {
      switch (key.ScanCode) {
        case 3:  // right
          if (Position() < text_.size()) Advance();
          break;
        case 4:  // left
          if (cursor_ > 0)
            --cursor_;
          else if (offset_ > 0)
            --offset_;
          break;
        case 5:  // Home
          offset_ = 0, cursor_ = 0;
          break;
        case 6:  // End
          MoveToEnd();
          break;
        case 8:  // Delete
          if (Position() < text_.size()) text_.erase(Position(), 1);
          break;
        default:
          break;
      }
      return;
    }
    const char16_t c = key.UnicodeChar;
    if (c == 8) {
      if (Position() != 0 && Position() <= text_.size()) {
        text_.erase(Position() - 1, 1);
        if (cursor_ > 0) --cursor_;
      }
    } else if (c != 0 && c != 9 && c != 10) {
      // The cursor can stand past the end only after edits that shortened
      // the line under it; insert at the end then.
      const uint64_t at = Position() < text_.size() ? Position() : text_.size();
      text_.insert(at, 1, c);
      Advance();
    }
  }

  void Draw() {
    std::u16string shown;
    if (offset_ < text_.size()) shown = text_.substr(offset_, Window());
    shown.resize(Window(), u' ');
    fw_.SetCursorPosition(0, static_cast<uint64_t>(row_));
    fw_.OutputString(shown);
    fw_.SetCursorPosition(cursor_, static_cast<uint64_t>(row_));
  }

  Firmware& fw_;
  std::u16string text_;
  uint64_t columns_;
  int32_t row_;
  uint64_t cursor_ = 0;
  uint64_t offset_ = 0;
};

}  // namespace

bool EditCommandLine(std::string& text) {
  Firmware& fw = Fw();
  int32_t row = 0;
  bool cursorVisible = true;
  if (!fw.HasConsoleInput() || !fw.CursorState(row, cursorVisible)) return false;

  InputKey key{};
  if (EfiFailed(fw.ReadKeyStroke(key)) || (key.UnicodeChar != u'e' && key.UnicodeChar != u'E'))
    return false;
  fw.ConInReset(false);
  Print(u"Press <Enter> to confirm changes, <Esc> - to keep unchanged\n");

  std::u16string wide;
  wide.reserve(text.size());
  for (char c : text) wide.push_back(static_cast<unsigned char>(c));

  uint64_t columns = 0, rows = 0;
  if (!fw.QueryMode(columns, rows)) return false;
  if (columns > 255) columns = 255;
  // One column for the text and one for the cursor behind it at least.
  if (columns < 2) return false;
  if (!fw.CursorState(row, cursorVisible)) return false;

  LineEditor editor(fw, std::move(wide), columns, row);
  const bool accepted = editor.Run();
  if (!cursorVisible) fw.EnableCursor(false);
  if (!accepted) return false;
  std::string narrow;
  narrow.reserve(editor.Text().size());
  for (char16_t c : editor.Text()) narrow.push_back(static_cast<char>(c & 0xFF));
  text = std::move(narrow);
  return true;
}

// ---------------------------------------------------------------- boot

namespace {

void ThrowStreamError(file_object& stream) {
  Common::Error e = stream.TakeError();
  if (e.IsError()) throw e;
}

// Reads exactly `size` bytes or throws: the stream's error, or "The end of
// the file has been reached." for a short read.
void ReadExactly(ri_file& stream, void* buffer, uint64_t size) {
  uint64_t got = 0;
  stream.Read(buffer, size, got);
  ThrowStreamError(stream);
  if (got < size) THROW_ERROR(EndOfFile);
}

void SeekTo(ri_file& stream, int64_t position) {
  if (stream.Seek(position) != position) {
    ThrowStreamError(stream);
    THROW_ERROR(SeekError);
  }
}

}  // namespace

void RunLinux(ri_file& kernel, PageAlignedMemory& ramdisk, const std::string& arguments) {
  Firmware& fw = Fw();
  const int64_t fileSize = kernel.GetSize();
  if (fileSize < 0) {
    ThrowStreamError(kernel);
    THROW_ERROR(ReadError);
  }
  if (fileSize < static_cast<int64_t>(BP::kHeaderBytes) + 1) THROW_ERROR(KernelCorrupted);

  PageAlignedMemory zeroPageBlock(BP::kBlockSize, kKernelMemoryLimit);
  uint8_t* zp = zeroPageBlock.Data();
  SeekTo(kernel, 0);
  ReadExactly(kernel, zp, BP::kHeaderBytes);
  ValidateKernel(zp, static_cast<uint64_t>(fileSize));

  // Only the setup header stays.
  const uint32_t headerEnd = BP::kHeader + zp[BP::kJumpSecondByte];
  std::memset(zp, 0, BP::kSetupSects);
  std::memset(zp + headerEnd, 0, BP::kBlockSize - headerEnd);

  const KernelHeader header = KernelHeader::Read(zp);
  const uint64_t setupSize = header.SetupSize();
  const uint64_t bodySize = static_cast<uint64_t>(fileSize) - setupSize;

  PageAlignedMemory kernelBlock(static_cast<uint64_t>(header.initSize) + header.kernelAlignment,
                                kKernelMemoryLimit);
  uint64_t loadAddress = kernelBlock.Address();
  // An alignment of 0 asks for nothing: the block's own address stands.
  if (header.kernelAlignment != 0 && loadAddress % header.kernelAlignment != 0)
    loadAddress += header.kernelAlignment - loadAddress % header.kernelAlignment;

  std::string version;
  if (header.kernelVersion != 0) {
    const uint64_t at = 512ull + header.kernelVersion;
    const uint64_t room = setupSize - at;
    char buffer[256] = {};
    SeekTo(kernel, static_cast<int64_t>(at));
    uint64_t got = 0;
    kernel.Read(buffer, room < 255 ? room : 255, got);
    ThrowStreamError(kernel);
    version = buffer;
  }

  Print(u"Loading protected mode kernel...\n");
  SeekTo(kernel, static_cast<int64_t>(setupSize));
  ReadExactly(kernel, kernelBlock.Data() + (loadAddress - kernelBlock.Address()), bodySize);

  Print(u"Press <e> to edit kernel command line\n");
  fw.Stall(4 * 1000 * 1000);
  std::string commandLine = arguments;
  EditCommandLine(commandLine);

  zp[BP::kTypeOfLoader] = BP::kLoaderType;
  zp[BP::kLoadFlags] |= BP::kCanUseHeap;
  BP::Put16(zp + BP::kHeapEndPtr, BP::kHeapEnd);
  if (ramdisk.Address() != 0) {
    BP::Put32(zp + BP::kRamdiskImage, static_cast<uint32_t>(ramdisk.Address()));
    BP::Put32(zp + BP::kRamdiskSize, static_cast<uint32_t>(ramdisk.Size() - 4096));
  }
  BP::Put32(zp + BP::kCode32Start, static_cast<uint32_t>(loadAddress));
  BP::Put32(zp + BP::kAltMemK, BP::kAltMemKValue);

  SetupVideo(zp + BP::kScreenInfo, GetVideoRequest(commandLine));

  FirmwareMemory& memory = *fw.Memory();
  const uint64_t systemTable = memory.SystemTableAddress();
  std::memcpy(zp + BP::kEfiLoaderSignature, "EL64", 4);
  BP::Put32(zp + BP::kEfiSystab, static_cast<uint32_t>(systemTable));
  BP::Put32(zp + BP::kEfiSystabHi, static_cast<uint32_t>(systemTable >> 32));

  const bool ownKernel = version.find(kOwnKernelMarker) != std::string::npos;

  const size_t length = commandLine.size() < BP::kCommandLineMax ? commandLine.size()
                                                                 : BP::kCommandLineMax;
  std::memcpy(zp + BP::kCommandLineOffset, commandLine.data(), length);
  BP::Put32(zp + BP::kCmdLinePtr, static_cast<uint32_t>(zeroPageBlock.Address() + BP::kCommandLineOffset));

  ExitEFI(zp, ownKernel);

  // No firmware but the runtime services from here on: a copy and a call.
  std::memcpy(zp + BP::kStubOffset, memory.HandoverStub(), kHandoverStubSize);
  memory.StartKernel(zeroPageBlock.Address() + BP::kStubOffset, loadAddress,
                     zeroPageBlock.Address());
  // Only a simulated machine comes back; its blocks then go with their
  // owners as after any failure.
}

}  // namespace EfiLoader
