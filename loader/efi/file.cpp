#include "efi/file.h"

#include <cstring>

#include "common/error_codes.h"
#include "file/buf_ifile.h"

namespace EfiLoader {

using namespace Common::Codes;
using Common::Error;
using Common::MakeError;

namespace {

Error StatusError(EfiStatus status) { return Common::GetUefiErrorFromEfiStatus(status, u""); }

// An error of `code` with the firmware's status as its cause.
Error WithStatus(const Common::ErrorLocation& where, uint32_t code, EfiStatus status) {
  Error e = MakeError(where, code);
  e.SetCause(StatusError(status));
  return e;
}

// The helpers of OpenLoaderFile and GetSelfPath raise their errors in those
// names: a report shows the operation the caller went through, not how it
// is split up here.
#define OPEN_HERE ERROR_IN("OpenLoaderFile")
#define SELF_PATH_HERE ERROR_IN("GetSelfPath")

std::u16string g_selfPath;

constexpr uint32_t kDhcpMagic = 0x63538263;  // 99.130.83.99 read little-endian
constexpr size_t kOptionsOffset = 240;
constexpr size_t kOptionsLimit = 1232;
constexpr size_t kFileOffset = 108, kFileSize = 128;
constexpr size_t kSnameOffset = 44, kSnameSize = 64;
constexpr uint8_t kTagBootFile = 67, kTagOverload = 52, kTagServerId = 54;

// Scans an option list in [begin, end) of the packet for `tag`.
uint32_t ScanOptions(const std::vector<uint8_t>& p, size_t begin, size_t end, uint8_t tag,
                     const uint8_t*& result) {
  if (end > p.size()) end = p.size();
  size_t i = begin;
  while (i < end) {
    const uint8_t t = p[i];
    if (t == 0) {
      ++i;
      continue;
    }
    if (t == 255) break;
    if (i + 1 >= end) break;
    const uint8_t len = p[i + 1];
    if (i + 2 + len > end) break;
    if (t == tag && len != 0) {
      result = p.data() + i + 2;
      return len;
    }
    i += 2 + len;
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------- EfiFile

bool EfiFile::Checks() {
  if (HasError()) return false;
  if (!handle_) {
    SetError(ERROR_HERE, FileNotFound);
    return false;
  }
  return true;
}

void EfiFile::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (!Checks()) return;
  auto* out = static_cast<uint8_t*>(buffer);
  while (got < size) {
    uint64_t piece = size - got;
    if (piece > kMaxReadPiece) piece = kMaxReadPiece;
    const uint64_t asked = piece;
    const EfiStatus s = handle_->Read(out + got, piece);
    if (EfiFailed(s)) {
      SetError(WithStatus(ERROR_HERE, ReadError, s));
      return;
    }
    if (piece > asked) piece = asked;  // never trust a count past the request
    got += piece;
    if (piece < asked) break;
  }
}

void EfiFile::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (!Checks()) return;
  uint64_t n = size;
  const EfiStatus s = handle_->Write(buffer, n);
  if (EfiFailed(s)) {
    SetError(WithStatus(ERROR_HERE, WriteError, s));
    return;
  }
  written = n > size ? size : n;
}

void EfiFile::Flush() {
  if (!Checks()) return;
  const EfiStatus s = handle_->Flush();
  if (EfiFailed(s)) SetError(WithStatus(ERROR_HERE, WriteError, s));
}

int64_t EfiFile::GetPosition() {
  if (!Checks()) return -1;
  uint64_t pos = 0;
  const EfiStatus s = handle_->GetPosition(pos);
  if (EfiFailed(s) || pos > static_cast<uint64_t>(INT64_MAX)) {
    SetError(WithStatus(ERROR_HERE, SeekError, s));
    return -1;
  }
  return static_cast<int64_t>(pos);
}

int64_t EfiFile::Seek(int64_t position) {
  if (!Checks()) return -1;
  if (position < 0) {
    SetError(ERROR_HERE, SeekError);
    return -1;
  }
  const EfiStatus s = handle_->SetPosition(static_cast<uint64_t>(position));
  if (EfiFailed(s)) {
    SetError(WithStatus(ERROR_HERE, SeekError, s));
    return -1;
  }
  return position;
}

int64_t EfiFile::SeekCur(int64_t delta) {
  const int64_t here = GetPosition();
  if (here < 0) return -1;
  int64_t target;
  if (__builtin_add_overflow(here, delta, &target)) target = -1;
  return Seek(target);
}

int64_t EfiFile::SeekEnd(int64_t delta) {
  if (!Checks()) return -1;
  const EfiStatus s = handle_->SetPosition(~0ull);
  if (EfiFailed(s)) {
    SetError(WithStatus(ERROR_HERE, SeekError, s));
    return -1;
  }
  const int64_t end = GetPosition();
  if (end < 0 || delta == 0) return end;
  int64_t target;
  if (__builtin_add_overflow(end, delta, &target)) target = -1;
  return Seek(target);
}

void EfiFile::Truncate(uint64_t) {
  if (!Checks()) return;
  SetError(ERROR_HERE, Common::Codes::NotSupported);
}

void EfiFile::Delete() {
  if (!Checks()) return;
  // The firmware closes the handle whatever Delete answers.
  FirmwareFile* h = handle_.release();
  const EfiStatus s = h->Delete();
  if (EfiFailed(s)) SetError(WithStatus(ERROR_HERE, DeleteError, s));
}

// ---------------------------------------------------------------- DHCP

uint32_t GetDhcpOption(const uint8_t*& result, uint8_t tag, const std::vector<uint8_t>& p) {
  result = nullptr;
  const bool hasFileField = p.size() >= kFileOffset + kFileSize;
  uint32_t magic = 0;
  if (p.size() >= kOptionsOffset) std::memcpy(&magic, p.data() + 236, 4);
  if (magic != kDhcpMagic) {
    if (tag == kTagBootFile && hasFileField) {
      result = p.data() + kFileOffset;
      return kFileSize;
    }
    return 0;
  }
  const size_t limit = kOptionsOffset + kOptionsLimit;
  if (uint32_t n = ScanOptions(p, kOptionsOffset, limit, tag, result)) return n;

  const uint8_t* overload = nullptr;
  uint8_t overloadValue = 0;
  if (ScanOptions(p, kOptionsOffset, limit, kTagOverload, overload)) overloadValue = overload[0];
  if ((overloadValue & 1) && hasFileField)
    if (uint32_t n = ScanOptions(p, kFileOffset, kFileOffset + kFileSize, tag, result)) return n;
  if ((overloadValue & 2) && p.size() >= kSnameOffset + kSnameSize)
    if (uint32_t n = ScanOptions(p, kSnameOffset, kSnameOffset + kSnameSize, tag, result))
      return n;

  if (tag == kTagBootFile && !(overloadValue & 1) && hasFileField) {
    result = p.data() + kFileOffset;
    return kFileSize;
  }
  result = nullptr;
  return 0;
}

std::vector<uint8_t> GetDhcpv4Packet(FirmwarePxe& pxe) {
  if (pxe.UsingIpv6()) THROW_ERROR(NotSupported);
  for (auto which : {FirmwarePxe::Packet::PxeReply, FirmwarePxe::Packet::ProxyOffer,
                     FirmwarePxe::Packet::DhcpAck}) {
    if (pxe.PacketReceived(which)) return pxe.GetPacket(which);
  }
  THROW_ERROR(NotSupported);
}

namespace {

std::unique_ptr<FirmwarePxe> LoaderPxe() {
  auto pxe = Fw().OpenPxe(Fw().LoaderDeviceHandle());
  if (!pxe) THROW_ERROR(NotSupported);
  return pxe;
}

std::u16string SelfPathFromNetwork() {
  auto pxe = LoaderPxe();
  const std::vector<uint8_t> packet = GetDhcpv4Packet(*pxe);
  const uint8_t* data = nullptr;
  const uint32_t len = GetDhcpOption(data, kTagBootFile, packet);
  std::u16string name;
  for (uint32_t i = 0; i < len && data[i] != 0; ++i) name.push_back(data[i]);
  if (name.empty()) throw MakeError(SELF_PATH_HERE, OpenError);
  return name;
}

std::u16string SelfPathFromDevicePath() {
  const std::vector<uint8_t> dp = Fw().LoaderFilePath();
  std::u16string result;
  size_t i = 0;
  bool first = true;
  for (;;) {
    if (i + 4 > dp.size()) throw MakeError(SELF_PATH_HERE, EfiRuntimeError);
    const uint8_t type = dp[i], subtype = dp[i + 1];
    const uint16_t length = static_cast<uint16_t>(dp[i + 2] | (dp[i + 3] << 8));
    if (type == 0x7f) {
      if (result.empty()) throw MakeError(SELF_PATH_HERE, EfiRuntimeError);
      return result;
    }
    if (type != 4 || subtype != 4 || length < 4 || i + length > dp.size())
      throw MakeError(SELF_PATH_HERE, EfiRuntimeError);
    std::u16string name;
    for (size_t k = i + 4; k + 1 < i + length; k += 2) {
      const char16_t c = static_cast<char16_t>(dp[k] | (dp[k + 1] << 8));
      if (c == 0) break;
      name.push_back(c);
    }
    for (bool changed = true; changed;) {
      changed = false;
      while (name.size() > 1 && name.back() == u'\\') {
        name.pop_back();
        changed = true;
      }
      if (!first && !name.empty() && name.front() == u'\\') {
        name.erase(0, 1);
        changed = true;
      }
    }
    if (!name.empty()) {
      if (result.empty() || result.back() == u'\\')
        result += name;
      else
        result += u'\\' + name;
    }
    first = false;
    i += length;
  }
}

}  // namespace

const std::u16string& GetSelfPath() {
  if (!g_selfPath.empty()) return g_selfPath;
  try {
    g_selfPath = SelfPathFromNetwork();
  } catch (const Error&) {
    g_selfPath = SelfPathFromDevicePath();
  }
  return g_selfPath;
}

void ResetSelfPath() { g_selfPath.clear(); }

// ---------------------------------------------------------------- opening

std::unique_ptr<EfiFile> OpenLoaderFileUsingFileSystemProtocol(EfiHandle device,
                                                               const std::u16string& path,
                                                               uint64_t mode) {
  std::unique_ptr<FirmwareFile> root;
  EfiStatus s = Fw().OpenVolume(device, root);
  if (EfiFailed(s) || !root) throw WithStatus(ERROR_HERE, OpenError, s);
  std::unique_ptr<FirmwareFile> file;
  s = root->Open(path, mode, file);
  root.reset();
  if (EfiFailed(s) || !file) throw WithStatus(ERROR_HERE, OpenError, s);
  uint64_t attribute = 0, size = 0;
  s = file->GetInfo(attribute, size);
  if (EfiFailed(s)) throw WithStatus(ERROR_HERE, OpenError, s);
  if (attribute & kFileDirectory) THROW_ERROR(OpenError);
  return std::make_unique<EfiFile>(std::move(file));
}

std::unique_ptr<rio_file> OpenLoaderEfiFile(const std::u16string& path, uint64_t mode) {
  return OpenLoaderFileUsingFileSystemProtocol(Fw().LoaderDeviceHandle(), path, mode);
}

namespace {

// Reads a whole file from the PXE server into memory.
std::unique_ptr<ri_file> OpenOverTftp(const std::u16string& path) {
  auto pxe = LoaderPxe();
  const std::vector<uint8_t> packet = GetDhcpv4Packet(*pxe);
  uint8_t server[4] = {0, 0, 0, 0};
  if (packet.size() >= 24) std::memcpy(server, packet.data() + 20, 4);  // siaddr
  if (!server[0] && !server[1] && !server[2] && !server[3]) {
    const uint8_t* opt = nullptr;
    if (GetDhcpOption(opt, kTagServerId, packet) < 4) throw MakeError(OPEN_HERE, OpenError);
    std::memcpy(server, opt, 4);
  }
  std::string name;
  for (char16_t c : path) name.push_back(static_cast<char>(c & 0xFF));
  constexpr uint64_t kBlockSize = 1428;
  uint64_t size = 0;
  EfiStatus s = pxe->TftpGetFileSize(server, name, kBlockSize, size);
  if (EfiFailed(s)) throw WithStatus(OPEN_HERE, OpenError, s);
  std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[size ? size : 1]);
  if (!block) throw MakeError(OPEN_HERE, NotEnoughMemory);
  uint64_t got = size;
  s = pxe->TftpReadFile(server, name, kBlockSize, block.get(), got);
  if (EfiFailed(s)) throw WithStatus(OPEN_HERE, OpenError, s);
  if (got > size) got = size;
  unsigned char* data = block.release();
  return std::make_unique<buf_ifile<unsigned char>>(data, data, got);
}

std::unique_ptr<ri_file> OpenWithLoadFile(const std::u16string& path, const Error& previous) {
  EfiHandle device = Fw().LoaderDeviceHandle();
  if (!Fw().HasLoadFile(device)) throw previous;
  std::u16string full = path;
  if (path.empty() || path[0] != u'\\') {
    const std::u16string& self = GetSelfPath();
    const size_t slash = self.rfind(u'\\');
    full = (slash == std::u16string::npos ? std::u16string() : self.substr(0, slash + 1)) + path;
  }
  const std::vector<uint8_t> dp = MakeDevicePath(full);
  uint64_t size = 0;
  EfiStatus s = Fw().LoadFile(device, dp, nullptr, size);
  if (s != Status::BufferTooSmall) {
    if (EfiFailed(s)) throw WithStatus(OPEN_HERE, OpenError, s);
    throw MakeError(OPEN_HERE, OpenError);
  }
  std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[size ? size : 1]);
  if (!block) throw MakeError(OPEN_HERE, NotEnoughMemory);
  uint64_t got = size;
  s = Fw().LoadFile(device, dp, block.get(), got);
  if (EfiFailed(s)) throw WithStatus(OPEN_HERE, OpenError, s);
  if (got > size) got = size;
  unsigned char* data = block.release();
  return std::make_unique<buf_ifile<unsigned char>>(data, data, got);
}

}  // namespace

std::unique_ptr<ri_file> OpenLoaderFile(const std::u16string& path) {
  if (path.empty()) THROW_ERROR(OpenError);
  try {
    return OpenOverTftp(path);
  } catch (const Error&) {
    // Started from a disk: the network road is expected to fail.
  }
  Error fsError;
  try {
    auto file = OpenLoaderFileUsingFileSystemProtocol(Fw().LoaderDeviceHandle(), path,
                                                      kFileModeRead);
    if (file) return file;
    fsError = MakeError(ERROR_HERE, OpenError);
  } catch (const Error& e) {
    fsError = e;
  }
  return OpenWithLoadFile(path, fsError);
}

std::vector<uint8_t> MakeDevicePath(const std::u16string& path) {
  std::vector<uint8_t> dp;
  auto addNode = [&dp](const std::u16string& name) {
    const size_t length = 4 + (name.size() + 1) * 2;
    if (length > 0xFFFF) THROW_ERROR(NotEnoughMemory);
    dp.push_back(4);
    dp.push_back(4);
    dp.push_back(static_cast<uint8_t>(length & 0xFF));
    dp.push_back(static_cast<uint8_t>(length >> 8));
    for (char16_t c : name) {
      dp.push_back(static_cast<uint8_t>(c & 0xFF));
      dp.push_back(static_cast<uint8_t>(c >> 8));
    }
    dp.push_back(0);
    dp.push_back(0);
  };
  const size_t slash = path.rfind(u'\\');
  if (slash == std::u16string::npos) {
    if (!path.empty()) addNode(path);
  } else {
    const std::u16string dir = path.substr(0, slash), file = path.substr(slash + 1);
    if (!dir.empty()) addNode(dir);
    if (!file.empty()) addNode(file);
  }
  const uint8_t end[4] = {0x7f, 0xff, 0x04, 0x00};
  dp.insert(dp.end(), end, end + 4);
  return dp;
}

// ---------------------------------------------------------------- running

void ExecuteFile(const std::u16string& path) {
  std::vector<uint8_t> image;
  {
    std::unique_ptr<ri_file> file = OpenLoaderFile(path);
    if (!file) THROW_ERROR(EfiRuntimeError);
    const int64_t size = file->GetSize();
    if (file->HasError()) throw file->TakeError();
    if (size < 0) THROW_ERROR(ReadError);
    image.resize(static_cast<size_t>(size));
    file->Rewind();
    if (size) file->Read(image.data(), static_cast<uint64_t>(size));
    if (file->HasError()) throw file->TakeError();
  }
  const std::vector<uint8_t> dp = MakeDevicePath(path);
  EfiHandle child = nullptr;
  EfiStatus s = Fw().LoadImage(dp, image.data(), image.size(), child);
  if (EfiFailed(s)) throw WithStatus(ERROR_HERE, EfiRuntimeError, s);
  s = Fw().SetImageDevice(child, Fw().LoaderDeviceHandle());
  if (EfiFailed(s)) throw WithStatus(ERROR_HERE, EfiRuntimeError, s);
  // StartImage hands back the child's own exit status, and a program that
  // ran and returned (another copy of this loader returns EFI_LOAD_ERROR
  // by design) has not failed to start.  Only a refusal of the handle
  // itself means the image never ran.
  s = Fw().StartImage(child);
  if (s == Status::InvalidParameter) throw WithStatus(ERROR_HERE, EfiRuntimeError, s);
}

void DeleteFile(const std::u16string& path) {
  auto file = OpenLoaderEfiFile(path, kFileModeReadWrite);
  if (!file) THROW_ERROR(OpenError);
  auto* efi = static_cast<EfiFile*>(file.get());
  efi->Delete();
  // A target that stays behind would be overwritten in place by a shorter
  // source and keep a stale tail: report it instead.
  if (efi->HasError()) throw efi->TakeError();
}

void MoveFile(const std::u16string& source, const std::u16string& target) {
  {
    std::unique_ptr<ri_file> in = OpenLoaderFile(source);
    std::unique_ptr<rio_file> out = OpenLoaderEfiFile(target, kFileModeCreate);
    if (!in || !out) THROW_ERROR(EfiRuntimeError);
    std::vector<uint8_t> buffer(32768);
    for (;;) {
      uint64_t got = 0;
      in->Read(buffer.data(), buffer.size(), got);
      if (in->HasError()) throw in->TakeError();
      if (got == 0) break;
      out->Write(buffer.data(), got);
      if (out->HasError()) throw out->TakeError();
    }
    out->Flush();
    if (out->HasError()) throw out->TakeError();
  }
  DeleteFile(source);
}

bool IsSecureBootEnabled() {
  std::vector<uint8_t> setupMode, secureBoot;
  if (EfiFailed(Fw().GetVariable(u"SetupMode", kGlobalVariableGuid, nullptr, setupMode)) ||
      setupMode.size() != 1)
    return false;
  if (EfiFailed(Fw().GetVariable(u"SecureBoot", kGlobalVariableGuid, nullptr, secureBoot)) ||
      secureBoot.size() != 1)
    return false;
  return setupMode[0] == 0 && secureBoot[0] == 1;
}

}  // namespace EfiLoader
