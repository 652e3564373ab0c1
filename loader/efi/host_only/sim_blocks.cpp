#include "efi/host_only/sim_blocks.h"

#include <cstring>

#include "fdisk/partition_table.h"
#include "fdisk/ver2/stream_disk.h"
#include "file/posix_file.h"

namespace EfiLoader::Sim {

namespace {

void PutLe(std::vector<uint8_t>& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(value >> (8 * i)));
}

class SimBlockIo final : public FirmwareBlockIo {
 public:
  explicit SimBlockIo(SimBlockDevice& d) : d_(d) { ++d_.openNow; }
  ~SimBlockIo() override { --d_.openNow; }

  BlockMedia Media() override { return d_.media; }

  EfiStatus ReadBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes, void* buffer) override {
    ++d_.reads;
    if (d_.readStatus != Status::Success) return d_.readStatus;
    int64_t offset = 0;
    const EfiStatus s = Check(mediaId, lba, bytes, buffer, offset);
    if (s != Status::Success) return s;
    if (d_.image->Seek(offset) != offset) return Fail();
    uint64_t got = 0;
    d_.image->Read(buffer, bytes, got);
    return got == bytes && !d_.image->HasError() ? Status::Success : Fail();
  }

  EfiStatus WriteBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes, const void* buffer) override {
    if (d_.media.ReadOnly) return Status::WriteProtected;
    int64_t offset = 0;
    const EfiStatus s = Check(mediaId, lba, bytes, buffer, offset);
    if (s != Status::Success) return s;
    auto* out = dynamic_cast<ro_file*>(d_.image.get());
    if (out == nullptr) return Status::WriteProtected;
    if (out->Seek(offset) != offset) return Fail();
    uint64_t written = 0;
    out->Write(buffer, bytes, written);
    return written == bytes && !out->HasError() ? Status::Success : Fail();
  }

  EfiStatus FlushBlocks() override { return Status::Success; }

 private:
  // The checks of the firmware's Block I/O, in its order.
  EfiStatus Check(uint32_t mediaId, uint64_t lba, uint64_t bytes, const void* buffer,
                  int64_t& offset) {
    if (!d_.image || !d_.media.MediaPresent) return 0x800000000000000Cull;  // no media
    if (mediaId != d_.media.MediaId) return 0x800000000000000Dull;        // media changed
    if (buffer == nullptr) return Status::InvalidParameter;
    if (bytes == 0) return Status::Success;
    const uint32_t bs = d_.media.BlockSize;
    if (bs == 0 || bytes % bs != 0) return Status::BadBufferSize;
    const uint64_t blocks = bytes / bs;
    if (lba > d_.media.LastBlock || blocks - 1 > d_.media.LastBlock - lba)
      return Status::InvalidParameter;
    offset = int64_t(d_.imageOffset + lba * bs);
    return Status::Success;
  }
  EfiStatus Fail() {
    d_.image->TakeError();
    return Status::DeviceError;
  }

  SimBlockDevice& d_;
};

}  // namespace

SimBlockDevice& SimBlocks::Add(const std::vector<uint8_t>& devicePath) {
  devices.push_back(std::make_unique<SimBlockDevice>());
  devices.back()->devicePath = devicePath;
  return *devices.back();
}

std::vector<uint8_t> SimBlocks::Node(uint8_t type, uint8_t subtype,
                                     const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> node{type, subtype};
  PutLe(node, payload.size() + 4, 2);
  node.insert(node.end(), payload.begin(), payload.end());
  return node;
}

std::vector<uint8_t> SimBlocks::PciNode(uint8_t device, uint8_t function) {
  return Node(1, 1, {function, device});
}

std::vector<uint8_t> SimBlocks::SataNode(uint16_t port) {
  std::vector<uint8_t> payload;
  PutLe(payload, port, 2);
  PutLe(payload, 0xFFFF, 2);  // no port multiplier
  PutLe(payload, 0, 2);       // LUN
  return Node(3, 18, payload);
}

std::vector<uint8_t> SimBlocks::HardDriveNode(uint32_t number, uint64_t start, uint64_t size,
                                              const uint8_t signature[16], uint8_t signatureType) {
  std::vector<uint8_t> payload;
  PutLe(payload, number, 4);
  PutLe(payload, start, 8);
  PutLe(payload, size, 8);
  payload.insert(payload.end(), signature, signature + 16);
  payload.push_back(signatureType == 2 ? 2 : 1);  // partition format: GPT or MBR
  payload.push_back(signatureType);
  return Node(4, 1, payload);
}

std::vector<uint8_t> SimBlocks::PathOf(const std::vector<std::vector<uint8_t>>& nodes) {
  std::vector<uint8_t> path;
  for (const auto& n : nodes) path.insert(path.end(), n.begin(), n.end());
  const std::vector<uint8_t> end = Node(0x7F, 0xFF);
  path.insert(path.end(), end.begin(), end.end());
  return path;
}

Common::Error SimBlocks::AddDiskImage(const std::string& path, uint16_t port, uint32_t blockSize) {
  Common::Error error;
  std::shared_ptr<ri_file> file = PosixFile::Open(path, PosixFile::Mode::Read, error);
  if (!file) return error;
  Fdisk::StreamDisk disk(file, blockSize, error);
  if (error.IsError()) return error;
  Fdisk::PartitionTable table;
  error = Fdisk::ReadPartitionTable(disk, table);
  if (error.IsError()) return error;

  const std::vector<uint8_t> pci = PciNode(0x1F, 2), sata = SataNode(port);
  static uint32_t nextMediaId = 1;
  SimBlockDevice& whole = Add(PathOf({pci, sata}));
  whole.media = BlockMedia{nextMediaId++, false, true, false, true, blockSize, disk.GetLastSector()};
  whole.image = file;
  for (const Fdisk::PartitionEntry& p : table.entries) {
    uint8_t signature[16] = {};
    uint8_t type = 2;
    if (table.kind == Fdisk::PartitionTable::Kind::Gpt) {
      std::memcpy(signature, &p.uniqueGuid, 16);
    } else {
      std::memcpy(signature, &table.mbrSignature, 4);
      type = 1;
    }
    SimBlockDevice& part =
        Add(PathOf({pci, sata, HardDriveNode(p.number, p.firstSector, p.sectorCount, signature, type)}));
    part.media = BlockMedia{nextMediaId++, false, true, true, true, blockSize, p.sectorCount - 1};
    part.image = file;
    part.imageOffset = p.firstSector * blockSize;
  }
  return Common::Error();
}

SimBlockDevice* SimBlocks::Find(EfiHandle handle) {
  for (auto& d : devices)
    if (d.get() == handle) return d.get();
  return nullptr;
}

EfiStatus SimBlocks::LocateDevicePathHandles(uint64_t& bytes, EfiHandle* handles) {
  if (locateStatus != Status::Success) return locateStatus;
  std::vector<EfiHandle> listed;
  for (auto& d : devices)
    if (d->listed) listed.push_back(d.get());
  if (listed.empty()) return Status::NotFound;
  const uint64_t needed = listed.size() * sizeof(EfiHandle);
  if (bytes < needed || handles == nullptr) {
    bytes = needed;
    return Status::BufferTooSmall;
  }
  std::memcpy(handles, listed.data(), needed);
  bytes = needed;
  return Status::Success;
}

EfiStatus SimBlocks::DevicePath(EfiHandle handle, std::vector<uint8_t>& path) {
  path.clear();
  SimBlockDevice* d = Find(handle);
  if (d == nullptr) return Status::InvalidParameter;
  if (d->devicePathStatus != Status::Success) return d->devicePathStatus;
  path = d->devicePath;
  return Status::Success;
}

EfiStatus SimBlocks::OpenBlockIo(EfiHandle handle, std::unique_ptr<FirmwareBlockIo>& io) {
  io.reset();
  SimBlockDevice* d = Find(handle);
  if (d == nullptr) return Status::InvalidParameter;
  bool fail = d->openStatus != Status::Success;
  if (d->opensBeforeFailure >= 0) {
    fail = d->opensBeforeFailure == 0;
    if (!fail) --d->opensBeforeFailure;
  }
  if (fail) return d->openStatus != Status::Success ? d->openStatus : Status::Unsupported;
  ++d->opensTotal;
  io = std::make_unique<SimBlockIo>(*d);
  return Status::Success;
}

}  // namespace EfiLoader::Sim
