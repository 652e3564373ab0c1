// The action that boots Linux: kernel and RAM disks are read into memory
// completely, checked against the signed digest lists when the firmware
// enforces Secure Boot, and the copies that were checked are what runs.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/error_codes.h"
#include "efi/config.h"
#include "efi/console.h"
#include "efi/file.h"
#include "efi/linux.h"
#include "efi/memory.h"
#include "efi/signatures.h"
#include "efi/xml_access.h"
#include "file/buf_ifile.h"
#include "file/gzipfile.h"
#include "file/xzfile.h"
#include "linex/ramdisk.h"

namespace EfiLoader {

using Common::Error;
using namespace Common::Codes;

#define FORMAT_ERROR() Common::MakeError(ERROR_HERE, ConfigurationFormat)

namespace {

constexpr uint64_t kPackingRoom = 4096;

// The GUID of the `GPT` child: the partition of every file of the action.
Common::GUID GetPartitionGuid(const XmlElement* element) {
  Common::GUID guid{};
  const XmlElement* gpt = xml::Child(element, "GPT");
  std::u16string text;
  if (!gpt || !xml::Attribute(gpt, "Guid", text)) return guid;
  if (!Common::TextToGuid(text.c_str(), guid)) throw FORMAT_ERROR();
  return guid;
}

std::vector<std::u16string> GetFilePathes(const XmlElement* element, const char* name) {
  std::vector<std::u16string> paths;
  for (size_t i = 0; i < xml::ChildCount(element); ++i) {
    const XmlElement* child = xml::ChildAt(element, i);
    if (xml::Name(child) != name) continue;
    std::u16string path;
    if (!xml::Attribute(child, "Path", path)) throw FORMAT_ERROR();
    paths.push_back(std::move(path));
  }
  return paths;
}

// A RAM disk that is in no signed list may still pass: an archive of
// nothing but plain files and directories below "ConfigurationFiles/".
class RamDiskFileFilter final : public LinuxEx::InputFilter {
 public:
  Error Filter(const LinuxEx::RamdiskNode& node) override { return (*this)(node); }

  Error operator()(const LinuxEx::RamdiskNode& node) {
    std::string path;
    if (node.type == LinuxEx::kDirectory) {
      path = node.name + "/";
    } else if (node.type == LinuxEx::kRegularFile && !(node.mode & 0111)) {
      path = node.name;
    } else {
      return Common::MakeError(ERROR_HERE, RamdiskUnexpectedNode);
    }
    if (node.name == LinuxEx::kTrailerName) return {};
    if (path.rfind("ConfigurationFiles/", 0) != 0)
      return Common::MakeError(ERROR_HERE, RamdiskUnexpectedConfigDir);
    if (path.find("..") != std::string::npos)
      return Common::MakeError(ERROR_HERE, RamdiskUnexpectedRelativePath);
    return {};
  }
};

// Steps 1 and 2 of the check: the lists, and the kernel against them.
DigestList VerifySignature(ri_file& kernel, const LoadKernel::FileStreams& signatures) {
  DigestList digests;
  for (const auto& file : signatures) {
    const int64_t size = file->GetSize();
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size > 0 ? size : 1]);
    if (size < 0 || !buffer) throw Error(ERROR_HERE, LoaderAllocationFailed);
    uint64_t got = 0;
    file->Rewind();
    file->Read(buffer.get(), static_cast<uint64_t>(size), got);
    if (file->HasError())
      throw Common::MakeError(ERROR_HERE, FailedToReadFile).WithCause(file->TakeError());
    if (got < static_cast<uint64_t>(size)) THROW_ERROR(SignatureSizeMismatch);
    const std::string text(buffer.get(), static_cast<size_t>(size));
    if (Error e = LoadChecksums(text, digests); e.IsError())
      throw Common::MakeError(ERROR_HERE, InvalidFileSignature).WithCause(e);
  }
  if (!IsHashValid(kernel, digests)) THROW_ERROR(IncorrectKernelHash);
  return digests;
}

// A RAM disk that is in no list is walked behind the reader its first
// bytes ask for.
void VerifyContents(ri_file& kernel, const LoadKernel::FileStreams& ramdisks,
                    const LoadKernel::FileStreams& signatures) {
  static constexpr uint8_t kGzip[2] = {0x1F, 0x8B};
  static constexpr uint8_t kXz[6] = {0xFD, 0x37, 0x7A, 0x58, 0x5A, 0x00};
  kernel.Rewind();
  const DigestList digests = VerifySignature(kernel, signatures);
  for (const auto& ramdisk : ramdisks) {
    ramdisk->Rewind();
    if (IsHashValid(*ramdisk, digests)) continue;

    uint8_t magic[6] = {};
    uint64_t got = 0;
    ramdisk->Rewind();
    ramdisk->Read(magic, sizeof magic, got);
    if (ramdisk->HasError() || got < sizeof magic) {
      ramdisk->TakeError();
      THROW_ERROR(Corrupted);
    }
    ramdisk->Rewind();
    std::unique_ptr<i_file> wrapper;
    if (std::memcmp(magic, kGzip, sizeof kGzip) == 0)
      wrapper = CreateGzipReader(*ramdisk);
    else if (std::memcmp(magic, kXz, sizeof kXz) == 0)
      wrapper = CreateXZDecompressor(*ramdisk);
    else if (std::memcmp(magic, LinuxEx::kCpioMagic, 6) != 0)
      THROW_ERROR(Corrupted);
    i_file* input = wrapper ? wrapper.get() : static_cast<i_file*>(ramdisk.get());
    std::unique_ptr<LinuxEx::RamdiskProcessor> processor =
        LinuxEx::CreateRamdiskProcessor(input, nullptr, false);
    std::unique_ptr<LinuxEx::InputFilter> filter = std::make_unique<RamDiskFileFilter>();
    processor->SetFilter(filter);
    processor->Commit(false, false);
  }
}

}  // namespace

std::shared_ptr<ri_file> LoadKernel::GetFile(const FileRef& file) {
  // Files of other partitions go to the volume layer, which mounts each
  // partition once for this action; their paths reach the driver as given.
  if (!file.guid.IsZero()) return volumes.GetFile(file.guid, file.path);
  // The firmware's file system wants backslashes.
  std::u16string path = file.path;
  for (char16_t& c : path)
    if (c == u'/') c = u'\\';
  return std::shared_ptr<ri_file>(OpenLoaderFile(path));
}

LoadKernel::FileStreams LoadKernel::ReadFiles(const char* name, PageAlignedMemory& memory) {
  const Common::GUID guid = GetPartitionGuid(node);
  const std::vector<std::u16string> paths = GetFilePathes(node, name);
  std::vector<std::shared_ptr<ri_file>> files;
  for (const auto& path : paths) files.push_back(GetFile({guid, path}));
  FileStreams streams;
  if (files.empty()) return streams;

  std::vector<uint64_t> sizes;
  uint64_t total = 0;
  for (const auto& file : files) {
    const int64_t size = file->GetSize();
    if (size < 0) {
      Error e = file->TakeError();
      throw e.IsError() ? e : Common::MakeError(ERROR_HERE, ReadError);
    }
    if (static_cast<uint64_t>(size) > UINT64_MAX - kPackingRoom - total) THROW_ERROR(NotEnoughMemory);
    total += static_cast<uint64_t>(size);
    sizes.push_back(static_cast<uint64_t>(size));
  }
  PageAlignedMemory block(total + kPackingRoom, kFileMemoryLimit);
  memory.Swap(block);

  uint8_t* data = memory.Data();
  uint64_t offset = 0;
  for (size_t i = 0; i < files.size(); ++i) {
    ri_file& file = *files[i];
    const uint64_t size = sizes[i];
    const uint64_t aligned = (offset + kPackingRoom - 1) & ~(kPackingRoom - 1);
    uint64_t got = 0;
    file.Rewind();
    file.Read(data + aligned, size, got);
    if (file.HasError()) throw file.TakeError();
    if (got < size) THROW_ERROR(EndOfFile);
    if (aligned != offset) std::memmove(data + offset, data + aligned, size);
    streams.push_back(std::make_shared<buf_ifile<unsigned char>>(data + offset, size));
    offset += size;
  }
  return streams;
}

std::shared_ptr<buf_ifile<unsigned char>> LoadKernel::GetSingleConfigFile(
    const char* name, PageAlignedMemory& memory) {
  FileStreams streams = ReadFiles(name, memory);
  if (streams.size() != 1) throw FORMAT_ERROR();
  return streams.front();
}

Error LoadKernel::Execute() {
  if (!loading.empty()) Print(loading + u"\n");
  PageAlignedMemory kernelMemory, ramdiskMemory, signatureMemory;
  std::shared_ptr<buf_ifile<unsigned char>> kernel = GetSingleConfigFile("Kernel", kernelMemory);
  const FileStreams ramdisks = ReadFiles("Ramdisk", ramdiskMemory);
  if (IsSecureBootEnabled()) {
    try {
      const FileStreams signatures = ReadFiles("Hash", signatureMemory);
      VerifyContents(*kernel, ramdisks, signatures);
    } catch (const Error& e) {
      throw Common::MakeError(ERROR_HERE, FailedToVerifySignatures).WithCause(e);
    }
  }
  kernel->Rewind();
  RunLinux(*kernel, ramdiskMemory, arguments);
  return {};
}

}  // namespace EfiLoader
