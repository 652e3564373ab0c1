// Error codes of the streams, the drivers and the loader, with their texts.
#pragma once

#include <cstdint>

#include "common/error.h"

namespace Common {

namespace Codes {
// Streams and file-system drivers.
inline constexpr uint32_t ReadError = 0x40001;
inline constexpr uint32_t EndOfFile = 0x40002;
inline constexpr uint32_t WriteError = 0x40003;
inline constexpr uint32_t DiskFull = 0x40004;
inline constexpr uint32_t SeekError = 0x40005;
inline constexpr uint32_t NotEnoughMemory = 0x40006;
inline constexpr uint32_t OpenError = 0x40007;
inline constexpr uint32_t DeleteError = 0x40008;
inline constexpr uint32_t RenameError = 0x40009;
inline constexpr uint32_t CreateError = 0x4000A;
inline constexpr uint32_t ReadOnly = 0x4000C;
inline constexpr uint32_t Corrupted = 0x4000D;
inline constexpr uint32_t NotSupported = 0x4000E;
inline constexpr uint32_t StreamCanceled = 0x4000F;
inline constexpr uint32_t DeviceBusy = 0x40010;
inline constexpr uint32_t FileNotFound = 0x40011;
inline constexpr uint32_t AlreadyExists = 0x40013;
inline constexpr uint32_t AccessDenied = 0x40014;
inline constexpr uint32_t LockFailed = 0x40017;
inline constexpr uint32_t BackupError = 0x40019;
inline constexpr uint32_t DecipherError = 0x4001B;
inline constexpr uint32_t InvalidUsage = 0x4001F;
inline constexpr uint32_t UnsupportedFileType = 0x40021;

// The loader.
inline constexpr uint32_t EfiRuntimeError = 0x1480001;
inline constexpr uint32_t KernelCorrupted = 0x1480002;
inline constexpr uint32_t KernelUnsupportedVersion = 0x1480003;
inline constexpr uint32_t VideoModeDetectFailed = 0x1480004;
inline constexpr uint32_t VideoNoLinearFramebuffer = 0x1480005;
inline constexpr uint32_t VideoFramebufferInvalid = 0x1480006;
inline constexpr uint32_t VideoUnsupportedPixelFormat = 0x1480007;
inline constexpr uint32_t CannotGetFileFromPartition = 0x1480008;
inline constexpr uint32_t ConfigurationFormat = 0x1480009;
inline constexpr uint32_t Canceled = 0x148000C;
inline constexpr uint32_t MountFailed = 0x148000E;
inline constexpr uint32_t LoaderAllocationFailed = 0x148000F;
inline constexpr uint32_t SignatureSizeMismatch = 0x1480010;
inline constexpr uint32_t InvalidFileSignature = 0x1480011;
inline constexpr uint32_t IncorrectKernelHash = 0x1480012;
inline constexpr uint32_t RamdiskUnexpectedNode = 0x1480013;
inline constexpr uint32_t SignatureDataIncorrect = 0x1480014;
inline constexpr uint32_t IncorrectPublicKey = 0x1480015;
inline constexpr uint32_t FailedToReadFile = 0x1480016;
inline constexpr uint32_t FailedToVerifySignatures = 0x1480017;
inline constexpr uint32_t FailedToOpenVolumeByGuid = 0x1480018;
inline constexpr uint32_t FailedToOpenDirectory = 0x1480019;
inline constexpr uint32_t FailedToOpenFile = 0x148001A;
inline constexpr uint32_t RamdiskUnexpectedConfigDir = 0x148001B;
inline constexpr uint32_t RamdiskUnexpectedRelativePath = 0x148001C;
inline constexpr uint32_t LoaderFileNameInvalid = 0x148001E;
inline constexpr uint32_t ConfigurationNotFound = 0x148001F;

// resizer
inline constexpr uint32_t ResizerInternal = 0x70001;
inline constexpr uint32_t ResizerNotEnoughMemory = 0x70002;

// Uefi
inline constexpr uint32_t UefiOutOfResources = 0x12F000E;
inline constexpr uint32_t UefiBootEntryNotFound = 0x12F0008;
}  // namespace Codes

// The standard text of a code of the stream and loader families, or null
// when the code has none (0x148000F, for one, is raised without text).
const char16_t* StandardErrorText(uint32_t code);

// An error with its standard text.
Error MakeError(const ErrorLocation& where, uint32_t code);

// `DecodeResizerError(index)`: the error of a small resizer error index.
Error DecodeResizerError(uint32_t index);

// `GetUefiErrorFromEfiStatus(status, name)`: the error of a failed UEFI
// variable call; `name` fills the "{0}" of the not-found message.
Error GetUefiErrorFromEfiStatus(uint64_t status, const char16_t* name);

// Exception classes: plain errors under their own type.
class FileDiskFull : public Error {
 public:
  using Error::Error;
  explicit FileDiskFull(const Error& e) : Error(e) {}
};
class FileNotFound : public Error {
 public:
  using Error::Error;
  explicit FileNotFound(const Error& e) : Error(e) {}
};

}  // namespace Common

// Raise an error with its standard text.
#define THROW_ERROR(code) throw ::Common::MakeError(ERROR_HERE, (code))

