// The hash index of ext directories: its checks, its checksum and the
// walk from the root to the leaves that may hold a name.
#include <cstring>

#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

void ExtfsDriver::ExtfsDirectory::VerifyDXBlockChecksum(const uint8_t* block, uint32_t index) {
  const uint32_t bs = Ext().BlockSize();
  uint32_t header;
  if (index == 0) {
    if (Get16(block + 4) != 12 || Get16(block + 12 + 4) != bs - 12) THROW_ERROR(Corrupted);
    header = kDxRootTable;
  } else {
    if (Get32(block) != 0 || Get16(block + 4) != bs || block[6] != 0 || block[7] != 0) THROW_ERROR(Corrupted);
    header = kDxNodeTable;
  }
  const uint32_t limit = Get16(block + header);
  const uint32_t count = Get16(block + header + 2);
  const uint64_t tail = header + uint64_t(limit) * 8;
  if (tail > bs - 8) return;
  if (count > limit) THROW_ERROR(Corrupted);
  static const uint8_t kZero[4] = {0, 0, 0, 0};
  uint32_t c = Crc32c(inode_->Seed(), block, header + size_t(count) * 8);
  c = Crc32c(c, block + tail, 4);
  c = Crc32c(c, kZero, 4);
  if (c != Get32(block + tail + 4)) THROW_ERROR(Corrupted);
}


uint32_t ExtfsDriver::ExtfsDirectory::ChooseHashVersion(uint32_t version) {
  if (version > 2) THROW_ERROR(Corrupted);
  if (Ext().SuperBlock()[kSbDefHashVersion] >= 3) version += 3;
  if (version != 1 && version != 2 && version != 4 && version != 5) THROW_ERROR(NotSupported);
  return version;
}

namespace {

// The table entry to follow for `hash`, then every entry that continues a
// collision of it.
void CollectBlocks(const uint8_t* table, uint32_t count, uint32_t hash, std::vector<uint32_t>& out) {
  const auto* t = reinterpret_cast<const DxEntry*>(table);
  uint32_t lo = 1, hi = count;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (t[mid].hash.get() > hash) hi = mid; else lo = mid + 1;
  }
  out.push_back(t[lo - 1].block.get());
  for (uint32_t i = lo; i < count && t[i].hash.get() == (hash | 1); ++i) out.push_back(t[i].block.get());
}

}  // namespace

bool ExtfsDriver::ExtfsDirectory::CheckNodeLimits(uint32_t block, uint32_t hash, std::vector<uint32_t>& list) {
  const uint32_t bs = Ext().BlockSize();
  if (uint64_t(block) * bs >= inode_->GetSize()) THROW_ERROR(Corrupted);
  const uint8_t* node = GetBuffer(block * bs, 1);
  if (Get32(node) != 0 || Get16(node + 4) != bs || node[6] != 0 || node[7] != 0) return false;
  const uint32_t expected = (bs - 8) / 8;
  const uint32_t limit = Get16(node + kDxNodeTable);
  const uint32_t count = Get16(node + kDxNodeTable + 2);
  if ((limit != expected && !(Ext().HasMetadataCsum() && limit == expected - 1)) || count == 0 || count > limit)
    THROW_ERROR(Corrupted);
  CollectBlocks(node + kDxNodeTable, count, hash, list);
  return true;
}

bool ExtfsDriver::ExtfsDirectory::LookupInDXTree(const std::string& name, const DirEntry*& entry,
                                                 uint32_t& offset) {
  ExtfsDriver& ext = Ext();
  const uint32_t bs = ext.BlockSize();
  const uint8_t* root = GetBuffer(0, 1);
  const uint32_t version = ChooseHashVersion(root[kDxHashVersion]);
  if (root[kDxIndirectLevels] > 1) THROW_ERROR(NotSupported);
  const uint32_t levels = root[kDxIndirectLevels];

  // The root's limits, in the name of the check.
  const uint32_t infoLength = root[kDxInfoLength];
  const uint32_t limit = Get16(root + kDxRootTable);
  const uint32_t count = Get16(root + kDxRootTable + 2);
  if (bs < 24 + infoLength) throw Common::MakeError(ERROR_IN("CheckRootLimits"), Corrupted);
  const uint32_t expected = (bs - 24 - infoLength) / 8;
  if ((limit != expected && !(ext.HasMetadataCsum() && limit == expected - 1)) || count == 0 ||
      count > limit || kDxRootTable + uint64_t(limit) * 8 > bs)
    throw Common::MakeError(ERROR_IN("CheckRootLimits"), Corrupted);

  const uint32_t hash = DirEntryHash(reinterpret_cast<const uint8_t*>(name.data()), name.size(), version,
                                     ext.SuperBlock() + kSbHashSeed);
  std::vector<uint32_t> candidates;
  CollectBlocks(root + kDxRootTable, count, hash, candidates);
  if (levels == 1) {
    std::vector<uint32_t> leaves;
    for (uint32_t node : candidates)
      if (!CheckNodeLimits(node, hash, leaves)) THROW_ERROR(Corrupted);
    candidates.swap(leaves);
  }
  for (uint32_t leaf : candidates) {
    const uint64_t start = uint64_t(leaf) * bs;
    if (start >= inode_->GetSize()) THROW_ERROR(Corrupted);
    uint32_t at = uint32_t(start);
    if (LinearSearch(name, entry, at, start + bs)) {
      offset = at;
      return true;
    }
  }
  return false;
}

}  // namespace extfs
