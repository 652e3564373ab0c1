// Errors made from the numbers of other layers: the resizer library's small
// error indexes and the firmware's status codes of variable calls.
#include "common/error_codes.h"
#include "common/format_message.h"
#include "resizer/errors.h"

namespace Common {
namespace {

constexpr uint32_t kResizerBase = 0x70000;
constexpr uint32_t kLastResizerIndex = 0x38;

// Indexes without a message fall back to the internal error.
constexpr const char16_t* kResizerMessages[kLastResizerIndex + 1] = {
    /* 0x00 */ nullptr,
    /* 0x01 */ nullptr,
    /* 0x02 */ u"Not enough memory.",
    /* 0x03 */ u"Read error.",
    /* 0x04 */ u"Write error.",
    /* 0x05 */ u"Invalid format.",
    /* 0x06 */ u"Invalid partition size.",
    /* 0x07 */ u"Formatting is unavailable.",
    /* 0x08 */ u"Resizing is unavailable.",
    /* 0x09 */ u"Cannot set volume label.",
    /* 0x0A */ u"Unsupported file system version.",
    /* 0x0B */ u"FAT is corrupted.",
    /* 0x0C */ nullptr,
    /* 0x0D */ nullptr,
    /* 0x0E */ u"Directory is corrupted.",
    /* 0x0F */ u"Invalid file size.",
    /* 0x10 */ u"Unsupported file system.",
    /* 0x11 */ u"The group descriptor is corrupted.",
    /* 0x12 */ u"I-node is corrupted.",
    /* 0x13 */ u"Inconsistent link count.",
    /* 0x14 */ u"Invalid block list.",
    /* 0x15 */ u"Disk is full.",
    /* 0x16 */ u"Block bitmap is corrupted.",
    /* 0x17 */ u"I-node bitmap is corrupted.",
    /* 0x18 */ u"MFT bitmap is corrupted.",
    /* 0x19 */ u"File record is corrupted.",
    /* 0x1A */ u"Invalid file reference.",
    /* 0x1B */ u"Attribute list is corrupted.",
    /* 0x1C */ u"Run list is corrupted.",
    /* 0x1D */ u"Node is corrupted.",
    /* 0x1E */ u"Journal contains unfinished transactions.",
    /* 0x1F */ u"The backup archive was created by a newer version of Velarix Ostrelin.",
    /* 0x20 */ u"The archive is corrupted.",
    /* 0x21 */ u"Failed to create volume snapshot.",
    /* 0x22 */ u"Operation canceled.",
    /* 0x23 */ u"A partition with bad blocks cannot be resized.",
    /* 0x24 */ nullptr,
    /* 0x25 */ u"Index is corrupted.",
    /* 0x26 */ u"File system is too large for 32-bit version.",
    /* 0x27 */ u"Encryption has failed.",
    /* 0x28 */ nullptr,
    /* 0x29 */ u"Deduplicated archives are not supported.",
    /* 0x2A */ nullptr,
    /* 0x2B */ u"Nothing is selected for backup.",
    /* 0x2C */ u"The backup does not contain the sector.",
    /* 0x2D */ u"Sector size mismatch.",
    /* 0x2E */ u"Forced sector-by-sector mode.",
    /* 0x2F */ u"File exclusion is not supported.",
    /* 0x30 */ u"The backup has been created but its data is inconsistent with the source. "
               u"Backup will be automatically restarted.",
    /* 0x31 */ u"Cannot free up space taken by the deleted backups. The operation will be "
               u"retried during next backup deletion.",
    /* 0x32 */ u"The archive has been closed.",
    /* 0x33 */ u"Failed to apply the file exclusions due to disk errors. Please use CHKDSK to "
               u"fix the errors.",
    /* 0x34 */ nullptr,
    /* 0x35 */ nullptr,
    /* 0x36 */ u"The file system is corrupted. Fast incremental/differential backup is disabled "
               u"and file filters are not effective.",
    /* 0x37 */ u"Fast incremental/differential backup and file filters are not supported for "
               u"this file system.",
    /* 0x38 */ u"CBT validation has failed.",
};

constexpr uint64_t kEfiOutOfResources = 0x8000000000000009ull;
constexpr uint64_t kEfiNotFound = 0x800000000000000Eull;

}  // namespace

Error DecodeResizerError(uint32_t index) {
  if (index == 0) return Error();
  if (index <= kLastResizerIndex && kResizerMessages[index])
    return Error(ERROR_HERE, kResizerBase + index, kResizerMessages[index]);
  return Error(ERROR_HERE, Codes::ResizerInternal, "Internal error: unknown error");
}

Error GetUefiErrorFromEfiStatus(uint64_t status, const char16_t* name) {
  switch (status) {
    case kEfiOutOfResources:
      return Error(ERROR_HERE, Codes::UefiOutOfResources);
    case kEfiNotFound: {
      Fdisk::FormatMessage message(u"Boot entry '{0}' cannot be found.");
      message.Add(name);
      return Error(ERROR_HERE, Codes::UefiBootEntryNotFound, message.Text());
    }
    default:
      return Error(ERROR_HERE, 1);
  }
}

}  // namespace Common

namespace resizer {

NotEnoughMemory::NotEnoughMemory(const Common::ErrorLocation& where)
    : Common::Error(where, Common::Codes::ResizerNotEnoughMemory, u"Not enough memory.") {}

}  // namespace resizer
