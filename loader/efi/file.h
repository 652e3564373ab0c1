// The loader's own files: its path, and opening, moving, deleting and
// running files on the device it was loaded from (disk, load-file service
// or PXE/TFTP).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "efi/platform.h"
#include "file/file.h"

namespace EfiLoader {

// A firmware file as a random-access stream.  A null handle means the file
// was deleted or never opened.
class EfiFile final : public rio_file {
 public:
  explicit EfiFile(std::unique_ptr<FirmwareFile> handle) : handle_(std::move(handle)) {}
  ~EfiFile() override = default;

  // The firmware is asked for at most this much in one Read call.
  static constexpr uint64_t kMaxReadPiece = 0x100000;

  using i_file::Read;
  using o_file::Write;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Flush() override;
  int64_t GetPosition();
  int64_t Seek(int64_t position) override;
  int64_t SeekCur(int64_t delta) override;
  int64_t SeekEnd(int64_t delta) override;
  void Truncate(uint64_t size) override;
  void Delete();

 private:
  bool Checks();
  std::unique_ptr<FirmwareFile> handle_;
};

// DHCP option `tag` of a BOOTP/DHCP packet: its length (0 when absent) and,
// through `result`, a pointer to its data inside `packet`.
uint32_t GetDhcpOption(const uint8_t*& result, uint8_t tag, const std::vector<uint8_t>& packet);

// The DHCP packet the PXE boot used.  Throws 0x4000E when there is none.
std::vector<uint8_t> GetDhcpv4Packet(FirmwarePxe& pxe);

// The loader's own path on its device; computed once per run.
const std::u16string& GetSelfPath();
// Forgets the kept path (host tests run many "boots" in one process).
void ResetSelfPath();

std::unique_ptr<ri_file> OpenLoaderFile(const std::u16string& path);
std::unique_ptr<rio_file> OpenLoaderEfiFile(const std::u16string& path, uint64_t mode);
std::unique_ptr<EfiFile> OpenLoaderFileUsingFileSystemProtocol(EfiHandle device,
                                                               const std::u16string& path,
                                                               uint64_t mode);

// A firmware device path of file nodes for `path`, end node included.
std::vector<uint8_t> MakeDevicePath(const std::u16string& path);

void ExecuteFile(const std::u16string& path);
void DeleteFile(const std::u16string& path);
void MoveFile(const std::u16string& source, const std::u16string& target);

bool IsSecureBootEnabled();

}  // namespace EfiLoader
