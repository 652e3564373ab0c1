// loader-tool kernel-info BZIMAGE: the boot header fields the loader reads
// from a kernel image, and whether the loader would start it, decided by
// the loader's own check.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "efi/boot_params.h"
#include "efi/linux.h"
#include "file/posix_file.h"
#include "tool.h"

namespace {

using EfiLoader::KernelHeader;
namespace BP = EfiLoader::BootParams;

// The version string as the loader reads it: at most 255 bytes from
// kernel_version + 512, within the setup and the file.
std::string VersionString(ri_file& file, const KernelHeader& h, uint64_t size) {
  if (h.kernelVersion == 0) return {};
  const uint64_t at = 512ull + h.kernelVersion;
  const uint64_t end = h.SetupSize() < size ? h.SetupSize() : size;
  if (at >= end) return {};
  char buffer[256] = {};
  uint64_t got = 0;
  file.Seek(static_cast<int64_t>(at));
  file.Read(buffer, end - at < 255 ? end - at : 255, got);
  file.TakeError();
  return buffer;
}

int Run(int argc, char** argv) {
  if (argc != 1) {
    std::fprintf(stderr, "usage: loader-tool kernel-info BZIMAGE\n");
    return 2;
  }
  Common::Error err;
  auto file = PosixFile::Open(argv[0], PosixFile::Mode::Read, err);
  if (!file) throw err;
  const int64_t size = file->GetSize();
  if (size < 0) throw file->TakeError();

  std::vector<uint8_t> page(BP::kHeaderBytes, 0);
  uint64_t got = 0;
  file->Read(page.data(), page.size(), got);
  if (file->HasError()) throw file->TakeError();
  const KernelHeader h = KernelHeader::Read(page.data());
  const uint64_t fileSize = static_cast<uint64_t>(size);

  char magic[5] = {};
  std::memcpy(magic, &h.header, 4);
  for (char& c : magic)
    if (c && (c < 0x20 || c > 0x7E)) c = '?';
  std::printf("file size:          %llu bytes\n", static_cast<unsigned long long>(fileSize));
  std::printf("setup_sects:        %u (setup %llu bytes)\n", h.setupSects,
              static_cast<unsigned long long>(h.SetupSize()));
  std::printf("boot_flag:          0x%04X\n", h.bootFlag);
  std::printf("header:             0x%08X \"%s\"\n", h.header, magic);
  std::printf("header end:         0x%X\n", BP::kHeader + h.jumpSecondByte);
  std::printf("version:            %u.%02u (0x%04X)\n", h.version >> 8, h.version & 0xFF, h.version);
  std::printf("loadflags:          0x%02X%s\n", h.loadFlags,
              (h.loadFlags & BP::kLoadedHigh) ? " (LOADED_HIGH)" : "");
  std::printf("relocatable_kernel: %u\n", h.relocatableKernel);
  std::printf("kernel_alignment:   0x%X\n", h.kernelAlignment);
  std::printf("init_size:          0x%X (%u KiB)\n", h.initSize, h.initSize >> 10);
  if (fileSize > h.SetupSize())
    std::printf("protected-mode kernel: %llu bytes\n",
                static_cast<unsigned long long>(fileSize - h.SetupSize()));
  const std::string version = VersionString(*file, h, fileSize);
  std::printf("kernel_version:     %s\n", version.empty() ? "(none)" : version.c_str());
  std::printf("own kernel marker:  %s\n",
              version.find(EfiLoader::kOwnKernelMarker) != std::string::npos ? "yes" : "no");

  // The loader's checks in its order: the size first, then the header.
  Common::Error refusal;
  if (fileSize < BP::kHeaderBytes + 1) {
    refusal = Common::MakeError(ERROR_HERE, Common::Codes::KernelCorrupted);
  } else {
    try {
      EfiLoader::ValidateKernel(page.data(), fileSize);
    } catch (const Common::Error& e) {
      refusal = e;
    }
  }
  if (refusal.IsError()) {
    std::printf("accepted:           no: %s\n", tool::ToUtf8(refusal.Message()).c_str());
    return 1;
  }
  std::printf("accepted:           yes\n");
  return 0;
}

tool::Registrar reg("kernel-info",
                    "kernel-info BZIMAGE   show a kernel's boot header and whether the loader takes it",
                    &Run);

}  // namespace
