#include "efi/host_only/sim_firmware.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "common/text.h"

namespace EfiLoader::Sim {

namespace {

std::vector<std::string> SplitPath(const std::u16string& path) {
  std::vector<std::string> parts;
  std::u16string cur;
  for (char16_t c : path) {
    if (c == u'\\' || c == u'/') {
      if (!cur.empty()) parts.push_back(Common::Utf16ToUtf8(cur));
      cur.clear();
    } else {
      cur.push_back(c);
    }
  }
  if (!cur.empty()) parts.push_back(Common::Utf16ToUtf8(cur));
  return parts;
}

// One open file or directory of the simulated file system.
class SimFile final : public FirmwareFile {
 public:
  SimFile(std::string root, std::string host, int fd, bool dir)
      : root_(std::move(root)), host_(std::move(host)), fd_(fd), dir_(dir) {}
  ~SimFile() override {
    if (fd_ >= 0) ::close(fd_);
  }

  EfiStatus Read(void* buffer, uint64_t& size) override {
    if (dir_) return Status::Unsupported;
    ssize_t n = ::pread(fd_, buffer, size, static_cast<off_t>(pos_));
    if (n < 0) return Status::DeviceError;
    size = static_cast<uint64_t>(n);
    pos_ += size;
    return Status::Success;
  }
  EfiStatus Write(const void* buffer, uint64_t& size) override {
    if (dir_) return Status::Unsupported;
    ssize_t n = ::pwrite(fd_, buffer, size, static_cast<off_t>(pos_));
    if (n < 0) return Status::DeviceError;
    size = static_cast<uint64_t>(n);
    pos_ += size;
    return Status::Success;
  }
  EfiStatus GetPosition(uint64_t& position) override {
    if (dir_) return Status::Unsupported;
    position = pos_;
    return Status::Success;
  }
  EfiStatus SetPosition(uint64_t position) override {
    if (position == ~0ull) {
      struct stat st;
      if (::fstat(fd_, &st) != 0) return Status::DeviceError;
      pos_ = static_cast<uint64_t>(st.st_size);
    } else {
      pos_ = position;
    }
    return Status::Success;
  }
  EfiStatus Flush() override { return Status::Success; }
  EfiStatus Delete() override {
    std::unique_ptr<SimFile> self(this);  // closes whatever happens
    if (::unlink(host_.c_str()) != 0) return Status::WriteProtected;
    return Status::Success;
  }
  EfiStatus GetInfo(uint64_t& attribute, uint64_t& fileSize) override {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return Status::DeviceError;
    attribute = S_ISDIR(st.st_mode) ? kFileDirectory : 0;
    fileSize = S_ISDIR(st.st_mode) ? 0 : static_cast<uint64_t>(st.st_size);
    return Status::Success;
  }
  EfiStatus Open(const std::u16string& path, uint64_t mode,
                 std::unique_ptr<FirmwareFile>& file) override {
    file.reset();
    const bool create = (mode & 0x8000000000000000ull) != 0;
    std::string host;
    if (!SimFirmware::Resolve(root_, path, host, create)) return Status::NotFound;
    struct stat st;
    const bool exists = ::stat(host.c_str(), &st) == 0;
    if (!exists && !create) return Status::NotFound;
    const bool dir = exists && S_ISDIR(st.st_mode);
    int flags = dir ? O_RDONLY : ((mode & 2) ? O_RDWR : O_RDONLY);
    if (create && !exists) flags |= O_CREAT;
    const int fd = ::open(host.c_str(), flags, 0644);
    if (fd < 0) return (mode & 2) ? Status::WriteProtected : Status::NotFound;
    file = std::make_unique<SimFile>(root_, host, fd, dir);
    return Status::Success;
  }

 private:
  std::string root_, host_;
  int fd_;
  bool dir_;
  uint64_t pos_ = 0;
};

class SimPxe final : public FirmwarePxe {
 public:
  explicit SimPxe(SimFirmware& fw) : fw_(fw) {}
  bool UsingIpv6() override { return fw_.pxeIpv6; }
  bool PacketReceived(Packet which) override { return !Ref(which).empty(); }
  std::vector<uint8_t> GetPacket(Packet which) override { return Ref(which); }
  EfiStatus TftpGetFileSize(const uint8_t[4], const std::string& name, uint64_t,
                            uint64_t& size) override {
    struct stat st;
    const std::string host = fw_.tftpRoot + "/" + name;
    if (name.empty() || ::stat(host.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
      return Status::NotFound;  // the firmware's answer to a TFTP error packet
    size = static_cast<uint64_t>(st.st_size);
    return Status::Success;
  }
  EfiStatus TftpReadFile(const uint8_t[4], const std::string& name, uint64_t, void* buffer,
                         uint64_t& size) override {
    const std::string host = fw_.tftpRoot + "/" + name;
    const int fd = ::open(host.c_str(), O_RDONLY);
    if (fd < 0) return Status::NotFound;
    ssize_t n = ::read(fd, buffer, size);
    ::close(fd);
    if (n < 0) return Status::DeviceError;
    size = static_cast<uint64_t>(n);
    return Status::Success;
  }

 private:
  const std::vector<uint8_t>& Ref(Packet which) {
    switch (which) {
      case Packet::PxeReply: return fw_.pxeReply;
      case Packet::ProxyOffer: return fw_.proxyOffer;
      default: return fw_.dhcpAck;
    }
  }
  SimFirmware& fw_;
};

}  // namespace

SimFirmware::SimFirmware() = default;
SimFirmware::~SimFirmware() = default;

bool SimFirmware::Resolve(const std::string& root, const std::u16string& path, std::string& host,
                          bool lastMayBeMissing) {
  host = root;
  const std::vector<std::string> parts = SplitPath(path);
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::string& part = parts[i];
    if (part == ".") continue;
    if (part == "..") return false;  // the firmware volume has no way above its root
    DIR* d = ::opendir(host.c_str());
    if (!d) return false;
    std::string found;
    while (dirent* e = ::readdir(d)) {
      if (::strcasecmp(e->d_name, part.c_str()) == 0) {
        found = e->d_name;
        break;
      }
    }
    ::closedir(d);
    if (found.empty()) {
      if (i + 1 == parts.size() && lastMayBeMissing) {
        host += "/" + part;
        return true;
      }
      return false;
    }
    host += "/" + found;
  }
  return true;
}

void SimFirmware::TypeKeys(const std::u16string& text, uint64_t at100ns) {
  for (char16_t c : text) keys.push_back({at100ns, InputKey{0, c}});
}

void SimFirmware::TypeScan(uint16_t scanCode, uint64_t at100ns) {
  keys.push_back({at100ns, InputKey{scanCode, 0}});
}

std::vector<uint8_t> SimFirmware::FilePathOf(const std::vector<std::u16string>& nodes) {
  std::vector<uint8_t> dp;
  for (const auto& n : nodes) {
    const size_t len = 4 + (n.size() + 1) * 2;
    dp.insert(dp.end(), {4, 4, static_cast<uint8_t>(len & 0xFF), static_cast<uint8_t>(len >> 8)});
    for (char16_t c : n) dp.insert(dp.end(), {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8)});
    dp.insert(dp.end(), {0, 0});
  }
  dp.insert(dp.end(), {0x7f, 0xff, 4, 0});
  return dp;
}

std::string SimFirmware::ConsoleUtf8() const { return Common::Utf16ToUtf8(console); }

void SimFirmware::SetCursorPosition(uint64_t column, uint64_t row) {
  cursorColumn_ = static_cast<int32_t>(column);
  cursorRow_ = static_cast<int32_t>(row);
}

void SimFirmware::CursorPosition(int32_t& column, int32_t& row) {
  column = cursorColumn_;
  row = cursorRow_;
}

EfiStatus SimFirmware::ConInReset(bool) {
  ++conInResets;
  // Keys typed before the reset are dropped, as the firmware does.
  while (!keys.empty() && keys.front().at100ns <= now100ns) keys.pop_front();
  return Status::Success;
}

EfiStatus SimFirmware::ReadKeyStroke(InputKey& key) {
  if (keys.empty() || keys.front().at100ns > now100ns) return Status::NotReady;
  key = keys.front().key;
  keys.pop_front();
  return Status::Success;
}

EfiStatus SimFirmware::CreateTimerEvent(EfiEvent& event) {
  timerStorage_.push_back(std::make_unique<int>(0));
  event = timerStorage_.back().get();
  timers_[event] = Timer{};
  ++openEvents;
  return Status::Success;
}

EfiStatus SimFirmware::SetTimerRelative(EfiEvent event, uint64_t trigger100ns) {
  auto it = timers_.find(event);
  if (it == timers_.end()) return Status::InvalidParameter;
  it->second.armed = true;
  // A relative timer of 0 fires at the next tick of the firmware's timer.
  it->second.deadline = now100ns + (trigger100ns ? trigger100ns : 1);
  return Status::Success;
}

EfiStatus SimFirmware::WaitForEvent(const EfiEvent* events, uint64_t count, uint64_t& index) {
  // Finds the earliest moment one of the events is signalled and moves the
  // simulated clock there.
  uint64_t best = ~0ull;
  uint64_t bestIndex = 0;
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t when = ~0ull;
    if (events[i] == &keyEvent_) {
      if (!keys.empty()) when = keys.front().at100ns > now100ns ? keys.front().at100ns : now100ns;
    } else {
      auto it = timers_.find(events[i]);
      if (it == timers_.end()) return Status::InvalidParameter;
      if (it->second.armed) when = it->second.deadline;
    }
    if (when < best) {
      best = when;
      bestIndex = i;
    }
  }
  if (best == ~0ull) {
    waitedForever = true;
    return Status::Aborted;
  }
  if (best > now100ns) now100ns = best;
  index = bestIndex;
  if (events[bestIndex] != &keyEvent_) timers_[events[bestIndex]].armed = false;
  return Status::Success;
}

EfiStatus SimFirmware::CloseEvent(EfiEvent event) {
  if (timers_.erase(event) == 0) return Status::InvalidParameter;
  --openEvents;
  return Status::Success;
}

void SimFirmware::Stall(uint64_t microseconds) {
  now100ns += microseconds * 10;
  stalled100ns += microseconds * 10;
}

std::pair<std::u16string, std::string> SimFirmware::Key(const std::u16string& name,
                                                        const Common::GUID& vendor) {
  return {name, Common::GuidToNarrowText(vendor)};
}

EfiStatus SimFirmware::GetVariable(const std::u16string& name, const Common::GUID& vendor,
                                   uint32_t* attributes, std::vector<uint8_t>& data) {
  auto it = variables.find(Key(name, vendor));
  if (it == variables.end()) return Status::NotFound;
  if (attributes) *attributes = it->second.attributes;
  data = it->second.data;
  return Status::Success;
}

EfiStatus SimFirmware::SetVariable(const std::u16string& name, const Common::GUID& vendor,
                                   uint32_t attributes, const void* data, uint64_t size) {
  if (size == 0) {
    return variables.erase(Key(name, vendor)) ? Status::Success : Status::NotFound;
  }
  auto* p = static_cast<const uint8_t*>(data);
  variables[Key(name, vendor)] = Variable{attributes, std::vector<uint8_t>(p, p + size)};
  return Status::Success;
}

EfiStatus SimFirmware::GetNextVariableName(std::u16string& name, Common::GUID& vendor) {
  auto it = name.empty() ? variables.begin() : variables.upper_bound(Key(name, vendor));
  if (it == variables.end()) return Status::NotFound;
  name = it->first.first;
  Common::TextToGuid(it->first.second.c_str(), vendor);
  return Status::Success;
}

std::unique_ptr<FirmwarePxe> SimFirmware::OpenPxe(EfiHandle device) {
  if (!hasPxe || device != &deviceHandle_) return nullptr;
  return std::make_unique<SimPxe>(*this);
}

EfiStatus SimFirmware::OpenVolume(EfiHandle device, std::unique_ptr<FirmwareFile>& root) {
  if (!hasFileSystem || device != &deviceHandle_ || diskRoot.empty()) return Status::Unsupported;
  const int fd = ::open(diskRoot.c_str(), O_RDONLY);
  if (fd < 0) return Status::DeviceError;
  root = std::make_unique<SimFile>(diskRoot, diskRoot, fd, true);
  return Status::Success;
}

bool SimFirmware::HasLoadFile(EfiHandle device) { return hasLoadFile && device == &deviceHandle_; }

EfiStatus SimFirmware::LoadFile(EfiHandle device, const std::vector<uint8_t>& devicePath,
                                void* buffer, uint64_t& size) {
  if (!HasLoadFile(device)) return Status::Unsupported;
  if (loadFileRefusal != Status::Success) return loadFileRefusal;
  // Join the file nodes of the path.
  std::u16string path;
  for (size_t i = 0; i + 4 <= devicePath.size();) {
    const uint16_t len = static_cast<uint16_t>(devicePath[i + 2] | (devicePath[i + 3] << 8));
    if (devicePath[i] == 0x7f || len < 4 || i + len > devicePath.size()) break;
    path += u'\\';
    for (size_t k = i + 4; k + 1 < i + len; k += 2) {
      const char16_t c = static_cast<char16_t>(devicePath[k] | (devicePath[k + 1] << 8));
      if (!c) break;
      path.push_back(c);
    }
    i += len;
  }
  std::string host;
  struct stat st;
  if (!Resolve(diskRoot, path, host, false) || ::stat(host.c_str(), &st) != 0 ||
      !S_ISREG(st.st_mode))
    return Status::NotFound;
  const uint64_t need = static_cast<uint64_t>(st.st_size);
  if (!buffer || size < need) {
    size = need;
    return Status::BufferTooSmall;
  }
  const int fd = ::open(host.c_str(), O_RDONLY);
  if (fd < 0) return Status::DeviceError;
  const ssize_t n = ::read(fd, buffer, need);
  ::close(fd);
  if (n < 0) return Status::DeviceError;
  size = static_cast<uint64_t>(n);
  return Status::Success;
}

EfiStatus SimFirmware::LoadImage(const std::vector<uint8_t>& devicePath, const void* buffer,
                                 uint64_t size, EfiHandle& image) {
  // Real firmware refuses anything that is not a PE image.
  auto* p = static_cast<const uint8_t*>(buffer);
  if (size < 2 || p[0] != 'M' || p[1] != 'Z') return Status::LoadError;
  loaded_.push_back(StartedImage{devicePath, std::vector<uint8_t>(p, p + size), nullptr});
  image = reinterpret_cast<EfiHandle>(loaded_.size());
  return Status::Success;
}

EfiStatus SimFirmware::SetImageDevice(EfiHandle image, EfiHandle device) {
  const auto index = reinterpret_cast<uintptr_t>(image);
  if (index == 0 || index > loaded_.size()) return Status::InvalidParameter;
  loaded_[index - 1].device = device;
  return Status::Success;
}

EfiStatus SimFirmware::StartImage(EfiHandle image) {
  const auto index = reinterpret_cast<uintptr_t>(image);
  if (index == 0 || index > loaded_.size()) return Status::InvalidParameter;
  started.push_back(loaded_[index - 1]);
  if (onStartImage) onStartImage(started.back());
  return startImageStatus;
}

ScopedFirmware::ScopedFirmware(Firmware& fw) { SetFirmware(&fw); }
ScopedFirmware::~ScopedFirmware() { SetFirmware(nullptr); }

}  // namespace EfiLoader::Sim
