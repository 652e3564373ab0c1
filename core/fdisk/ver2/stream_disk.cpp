#include "fdisk/ver2/stream_disk.h"

namespace Fdisk {

namespace {

Common::Error ParameterError(const Common::ErrorLocation& where) {
  return Common::Error(where, Codes::InvalidParameter,
                       u"One of the parameters has an invalid value.");
}

Common::Error DeviceError(const Common::ErrorLocation& where, file_object& stream) {
  Common::Error e(where, Codes::DeviceError, u"A device error.");
  if (stream.HasError()) e.SetCause(stream.TakeError());
  return e;
}

}  // namespace

StreamDisk::StreamDisk(std::shared_ptr<ri_file> stream, uint32_t sectorSize, Common::Error& error,
                       bool writable)
    : stream_(std::move(stream)) {
  error = Common::Error();
  geometry_ = Geometry{63, 255, 0};
  if (sectorSize < 512 || sectorSize > 65536 || (sectorSize & (sectorSize - 1)) != 0) {
    error = ParameterError(ERROR_HERE);
    return;
  }
  sectorSize_ = sectorSize;
  const int64_t size = stream_ ? stream_->GetSize() : -1;
  if (size < 0) {
    error = stream_ ? DeviceError(ERROR_HERE, *stream_) : ParameterError(ERROR_HERE);
    return;
  }
  sectors_ = uint64_t(size) / sectorSize;
  if (sectors_ == 0) {
    error = Common::Error(ERROR_HERE, 0x10D00C, u"There is no media.");
    return;
  }
  lastSector_ = sectors_ - 1;
  geometry_.cylinders = sectors_ / (63 * 255);
  if (writable) writable_ = dynamic_cast<ro_file*>(stream_.get());
}

Common::Error StreamDisk::IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t sectorCount) {
  if (!IsValidDiskOp(op)) return InvalidOperationError(ERROR_HERE);
  if (op != DiskRead && op != DiskWrite && op != DiskFlush) return Common::Error();
  if (op == DiskFlush) {
    if (writable_) writable_->Flush();
    return stream_->HasError() ? DeviceError(ERROR_HERE, *stream_) : Common::Error();
  }
  if (sector >= sectors_ || sectorCount > sectors_ - sector) return ParameterError(ERROR_HERE);
  // Both products are below the stream's size, which fits in 63 bits.
  const int64_t offset = int64_t(sector * sectorSize_);
  const uint64_t bytes = sectorCount * sectorSize_;
  if (op == DiskWrite && writable_ == nullptr)
    return Common::Error(ERROR_HERE, Codes::WriteProtected, u"Write protected.");
  if (stream_->Seek(offset) != offset) return DeviceError(ERROR_HERE, *stream_);
  if (op == DiskRead) {
    uint64_t got = 0;
    stream_->Read(buffer, bytes, got);
    if (stream_->HasError() || got != bytes) return DeviceError(ERROR_HERE, *stream_);
  } else {
    uint64_t written = 0;
    writable_->Write(buffer, bytes, written);
    if (stream_->HasError() || written != bytes) return DeviceError(ERROR_HERE, *stream_);
  }
  return Common::Error();
}

}  // namespace Fdisk
