// ext files: one object per open inode, reading whole blocks around the
// cache and partial ones through it.
#include <cstring>

#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

ExtfsFile* ExtfsDriver::OpenFile(const InodeRef& inode) {
  auto it = files_.find(inode->Number());
  if (it != files_.end()) return it->second;
  auto file = std::make_unique<ExtfsFile>(*this, inode);
  files_.emplace(inode->Number(), file.get());
  return file.release();
}

namespace {
const InodeRef& RegularFile(const InodeRef& inode) {
  if ((inode->Mode() & kModeType) != kModeRegular) throw Common::MakeError(ERROR_IN("ExtfsFile"), Corrupted);
  return inode;
}
}  // namespace

ExtfsFile::ExtfsFile(ExtfsDriver& driver, const InodeRef& inode) : driver_(driver), inode_(RegularFile(inode)) {}

ExtfsFile::~ExtfsFile() { driver_.ForgetFile(inode_->Number()); }

uint64_t ExtfsFile::GetSize() { return inode_->GetSize(); }

void ExtfsFile::Read(void* buffer, uint64_t offset, uint64_t size, uint64_t& read) {
  read = 0;
  const uint64_t fileSize = inode_->GetSize();
  if (size == 0 || offset >= fileSize) return;
  if (size > fileSize - offset) size = fileSize - offset;
  const uint32_t bs = driver_.BlockSize();
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t logical = offset / bs;
  uint64_t run = 0;
  uint64_t physical = 0;
  uint64_t pos = offset;
  uint64_t remaining = size;
  while (remaining > 0) {
    if (run == 0) physical = inode_->Lookup(logical, run);
    const bool hole = physical == ~uint64_t(0);
    const uint64_t inBlock = pos % bs;
    uint64_t part;
    if (inBlock == 0 && remaining >= bs) {
      const uint64_t whole = run < remaining / bs ? run : remaining / bs;
      part = whole * bs;
      if (hole)
        std::memset(out + read, 0, size_t(part));
      else
        driver_.ReadBlocksNoCache(out + read, physical, whole);
    } else {
      part = bs - inBlock < remaining ? bs - inBlock : remaining;
      if (hole) {
        std::memset(out + read, 0, size_t(part));
      } else {
        SectorBufferRef b = driver_.GetBlockBuffer(physical);
        std::memcpy(out + read, b.Data() + inBlock, size_t(part));
      }
    }
    const uint64_t consumed = (part + bs - 1) / bs;
    logical += consumed;
    if (!hole) physical += consumed;
    run -= consumed;
    pos += part;
    read += part;
    remaining -= part;
  }
}

void ExtfsFile::GetPhysLocation(uint64_t offset, uint64_t& sector, uint64_t& count) {
  sector = count = 0;
  if (int64_t(offset) < 0 || offset >= inode_->GetSize() || offset % driver_.SectorSize() != 0)
    throw Common::MakeError(ERROR_IN("GetPhysLocation"), EndOfFile);
  const uint32_t bs = driver_.BlockSize();
  const uint64_t inner = (offset % bs) / driver_.SectorSize();
  uint64_t run = 0;
  const uint64_t block = inode_->Lookup(offset / bs, run);
  sector = block == ~uint64_t(0) ? ~uint64_t(0) : block * driver_.SectorsPerBlock() + inner;
  count = run * driver_.SectorsPerBlock() - inner;
}

}  // namespace extfs
