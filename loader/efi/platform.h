// The one door between the loader's logic and the firmware.
//
// Everything the loader asks of the firmware goes through `Firmware`, under
// the names the firmware itself uses.  Two sides implement it: the real
// firmware (loader/efi/uefi/, only in the firmware image) and a simulated
// firmware for host tests (loader/efi/sim/).  The layer is thin on purpose:
// it forwards calls and translates types, and all decisions stay in the
// logic so that host tests exercise them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/text.h"

namespace EfiLoader {

using EfiStatus = uint64_t;
using EfiHandle = void*;
using EfiEvent = void*;

namespace Status {
inline constexpr EfiStatus Success = 0;
inline constexpr EfiStatus LoadError = 0x8000000000000001ull;
inline constexpr EfiStatus InvalidParameter = 0x8000000000000002ull;
inline constexpr EfiStatus Unsupported = 0x8000000000000003ull;
inline constexpr EfiStatus BadBufferSize = 0x8000000000000004ull;
inline constexpr EfiStatus BufferTooSmall = 0x8000000000000005ull;
inline constexpr EfiStatus NotReady = 0x8000000000000006ull;
inline constexpr EfiStatus DeviceError = 0x8000000000000007ull;
inline constexpr EfiStatus WriteProtected = 0x8000000000000008ull;
inline constexpr EfiStatus OutOfResources = 0x8000000000000009ull;
inline constexpr EfiStatus NotFound = 0x800000000000000Eull;
inline constexpr EfiStatus AccessDenied = 0x800000000000000Full;
inline constexpr EfiStatus Timeout = 0x8000000000000012ull;
inline constexpr EfiStatus Aborted = 0x8000000000000015ull;
inline constexpr EfiStatus SecurityViolation = 0x800000000000001Aull;
}  // namespace Status

// Callers test the top bit.
inline bool EfiFailed(EfiStatus s) { return (s >> 63) != 0; }

struct InputKey {
  uint16_t ScanCode;
  char16_t UnicodeChar;
};

// EFI_FILE_PROTOCOL of one open file.  Destroying the object closes it.
class FirmwareFile {
 public:
  virtual ~FirmwareFile() = default;
  // `size` in: bytes asked for; out: bytes delivered.
  virtual EfiStatus Read(void* buffer, uint64_t& size) = 0;
  virtual EfiStatus Write(const void* buffer, uint64_t& size) = 0;
  virtual EfiStatus GetPosition(uint64_t& position) = 0;
  // All bits set moves to the end of the file.
  virtual EfiStatus SetPosition(uint64_t position) = 0;
  virtual EfiStatus Flush() = 0;
  // Deletes and closes; the object must not be used afterwards whatever
  // the result (the firmware closes the handle either way).
  virtual EfiStatus Delete() = 0;
  // GetInfo with EFI_FILE_INFO_ID: the attribute word and the size.
  virtual EfiStatus GetInfo(uint64_t& attribute, uint64_t& fileSize) = 0;
  // Opens a path relative to this (directory) handle with a firmware mode.
  virtual EfiStatus Open(const std::u16string& path, uint64_t mode,
                         std::unique_ptr<FirmwareFile>& file) = 0;
};

inline constexpr uint64_t kFileModeRead = 1;
inline constexpr uint64_t kFileModeReadWrite = 3;
inline constexpr uint64_t kFileModeCreate = 0x8000000000000003ull;
inline constexpr uint64_t kFileDirectory = 0x10;

// The PXE base code protocol of the device the loader came from.
class FirmwarePxe {
 public:
  virtual ~FirmwarePxe() = default;
  virtual bool UsingIpv6() = 0;
  // The three DHCP packets of the mode data, in this order: the PXE reply,
  // the proxy offer, the DHCP acknowledgement.  Empty when not received.
  enum class Packet { PxeReply, ProxyOffer, DhcpAck };
  virtual bool PacketReceived(Packet which) = 0;
  virtual std::vector<uint8_t> GetPacket(Packet which) = 0;
  // Mtftp: operation 1 asks for the size, operation 2 reads.
  virtual EfiStatus TftpGetFileSize(const uint8_t serverIp[4], const std::string& name,
                                    uint64_t blockSize, uint64_t& size) = 0;
  virtual EfiStatus TftpReadFile(const uint8_t serverIp[4], const std::string& name,
                                 uint64_t blockSize, void* buffer, uint64_t& size) = 0;
};

enum class ResetType { Cold, Warm, Shutdown };

// Further faces of the firmware, each declared in its own header by the
// subsystem that uses it (memory and leaving boot services, video, PCI,
// block devices).  A firmware that lacks one answers null.
class FirmwareMemory;
class FirmwareVideo;
class FirmwarePci;
class FirmwareBlocks;

class Firmware {
 public:
  virtual ~Firmware() = default;

  // --- system table
  virtual uint32_t SystemTableRevision() = 0;
  virtual EfiHandle ImageHandle() = 0;

  // --- console output
  virtual void OutputString(const std::u16string& text) = 0;
  virtual bool QueryMode(uint64_t& columns, uint64_t& rows) = 0;
  virtual void SetCursorPosition(uint64_t column, uint64_t row) = 0;
  virtual void CursorPosition(int32_t& column, int32_t& row) = 0;
  virtual void EnableCursor(bool visible) = 0;
  // The console output's mode record: the cursor's row and whether the
  // cursor is shown.  False when there is no output or no record.
  virtual bool CursorState(int32_t& row, bool& visible) { return false; }

  // --- console input and timed waits
  virtual bool HasConsoleInput() = 0;
  virtual EfiStatus ConInReset(bool extendedVerification) = 0;
  virtual EfiStatus ReadKeyStroke(InputKey& key) = 0;
  virtual EfiEvent WaitForKeyEvent() = 0;
  virtual EfiStatus CreateTimerEvent(EfiEvent& event) = 0;
  // Relative timer in units of 100 ns.
  virtual EfiStatus SetTimerRelative(EfiEvent event, uint64_t trigger100ns) = 0;
  virtual EfiStatus WaitForEvent(const EfiEvent* events, uint64_t count, uint64_t& index) = 0;
  virtual EfiStatus CloseEvent(EfiEvent event) = 0;
  virtual void Stall(uint64_t microseconds) = 0;
  virtual void SetWatchdogTimer(uint64_t seconds) = 0;
  virtual void ResetSystem(ResetType type) = 0;

  // --- variables
  virtual EfiStatus GetVariable(const std::u16string& name, const Common::GUID& vendor,
                                uint32_t* attributes, std::vector<uint8_t>& data) = 0;
  virtual EfiStatus SetVariable(const std::u16string& name, const Common::GUID& vendor,
                                uint32_t attributes, const void* data, uint64_t size) = 0;
  // Steps through the variable names; start with an empty name.
  virtual EfiStatus GetNextVariableName(std::u16string& name, Common::GUID& vendor) = 0;

  // --- the loaded image of the loader
  virtual EfiHandle LoaderDeviceHandle() = 0;
  // The FilePath of the loader's loaded image: device path bytes up to and
  // including the end node, or empty when the firmware gave none.
  virtual std::vector<uint8_t> LoaderFilePath() = 0;

  // --- protocols on a device handle; null/failure when absent
  virtual std::unique_ptr<FirmwarePxe> OpenPxe(EfiHandle device) = 0;
  // EFI_SIMPLE_FILE_SYSTEM_PROTOCOL.OpenVolume
  virtual EfiStatus OpenVolume(EfiHandle device, std::unique_ptr<FirmwareFile>& root) = 0;
  virtual bool HasLoadFile(EfiHandle device) = 0;
  // EFI_LOAD_FILE_PROTOCOL.LoadFile, boot policy false; null buffer asks
  // for the size.
  virtual EfiStatus LoadFile(EfiHandle device, const std::vector<uint8_t>& devicePath,
                             void* buffer, uint64_t& size) = 0;

  // --- images
  virtual EfiStatus LoadImage(const std::vector<uint8_t>& devicePath, const void* buffer,
                              uint64_t size, EfiHandle& image) = 0;
  // Gives the new image the loader's device as its own and reinstalls its
  // loaded image protocol.
  virtual EfiStatus SetImageDevice(EfiHandle image, EfiHandle device) = 0;
  virtual EfiStatus StartImage(EfiHandle image) = 0;

  // --- further faces
  virtual FirmwareMemory* Memory() { return nullptr; }
  virtual FirmwareVideo* Video() { return nullptr; }
  virtual FirmwarePci* Pci() { return nullptr; }
  virtual FirmwareBlocks* Blocks() { return nullptr; }
};

// The firmware of this run: the real one in the image, a simulated one in
// host tests.
Firmware& Fw();
void SetFirmware(Firmware* firmware);

inline constexpr Common::GUID kGlobalVariableGuid{
    0x8BE4DF61, 0x93CA, 0x11D2, {0xAA, 0x0D, 0x00, 0xE0, 0x98, 0x03, 0x2B, 0x8C}};

}  // namespace EfiLoader
