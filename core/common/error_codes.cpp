#include "common/error_codes.h"

namespace Common {

const char16_t* StandardErrorText(uint32_t code) {
  switch (code) {
    case 0x40001: return u"Error occurred while reading the file.";
    case 0x40002: return u"The end of the file has been reached.";
    case 0x40003: return u"Error occurred while writing the file.";
    case 0x40004: return u"The disk is full.";
    case 0x40005: return u"Error occurred while searching in the file.";
    case 0x40006: return u"Not enough memory to complete the operation.";
    case 0x40007: return u"Error occurred while opening the file.";
    case 0x40008: return u"Error occurred while deleting the file.";
    case 0x40009: return u"Error occurred while renaming the file.";
    case 0x4000A: return u"Error occurred while creating the file.";
    case 0x4000C: return u"The file is read-only.";
    case 0x4000D: return u"The file is corrupted.";
    case 0x4000E: return u"The operation is not supported.";
    case 0x4000F: return u"Canceled.";
    case 0x40010: return u"The device is busy.";
    case 0x40011: return u"The specified file does not exist.";
    case 0x40013: return u"The file (folder) already exists.";
    case 0x40014: return u"Access to the file is denied.";
    case 0x40017: return u"Failed to lock the file.";
    case 0x40019: return u"Error occurred while backing up.";
    case 0x4001B: return u"Error occurred while deciphering.";
    case 0x4001F: return u"Invalid usage.";
    case 0x40021: return u"Unsupported file type.";

    case 0x1480001: return u"An EFI runtime error.";
    case 0x1480002: return u"The kernel is corrupted.";
    case 0x1480003: return u"An unsupported kernel version.";
    case 0x1480004: return u"Failed to detect the graphic output mode.";
    case 0x1480005: return u"The current video mode does not support the linear framebuffer.";
    case 0x1480006: return u"The video framebuffer parameters are invalid.";
    case 0x1480007: return u"An unsupported pixel format.";
    case 0x1480008: return u"Cannot get file \"{0}\" from the partition with GUID {1}.";
    case 0x1480009: return u"The configuration file has an incorrect format.";
    case 0x148000C: return u"Canceled";
    case 0x148000E: return u"Failed to mount the partition.";
    case 0x1480010: return u"The file size from the signature does not match the real file size.";
    case 0x1480011: return u"An invalid file signature.";
    case 0x1480012: return u"An incorrect kernel hash.";
    case 0x1480013: return u"The RAM disk contains a node of an unexpected type.";
    case 0x1480014: return u"Data in the signature file is incorrect.";
    case 0x1480015: return u"An incorrect public key.";
    case 0x1480016: return u"Failed to read the file.";
    case 0x1480017: return u"Failed to verify the file signatures.";
    case 0x1480018: return u"Failed to open the volume by GUID.";
    case 0x1480019: return u"Failed to open the directory of the file.";
    case 0x148001A: return u"Failed to open the file.";
    case 0x148001B: return u"The RAM disk contains an unexpected ConfigurationFiles directory.";
    case 0x148001C: return u"The RAM disk contains an unexpected relative path.";
    case 0x148001E: return u"The loader file name is invalid.";
    case 0x148001F: return u"Cannot find the configuration file.";
    default: return nullptr;
  }
}

Error MakeError(const ErrorLocation& where, uint32_t code) {
  const char16_t* text = StandardErrorText(code);
  return text ? Error(where, code, text) : Error(where, code);
}

}  // namespace Common
