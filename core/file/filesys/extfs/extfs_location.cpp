// Finding a file's blocks: block maps with up to three indirect levels,
// and extent trees.  Both answer with runs, and both keep the last block
// of every level pinned, since consecutive lookups walk the same path.
#include <cstring>

#include "extfs.h"

using namespace Common::Codes;
using namespace extfs::Format;

namespace extfs {

namespace {
constexpr uint64_t kHole = ~uint64_t(0);

// The answer at the last level of a block map: the run of words that go
// on by one block each, or the run of zero words.
uint64_t LeafRun(const uint8_t* words, uint64_t index, uint64_t limit, uint64_t& count) {
  const uint32_t first = Get32(words + 4 * index);
  uint64_t k = index + 1;
  if (first == 0) {
    while (k < limit && Get32(words + 4 * k) == 0) ++k;
    count = k - index;
    return kHole;
  }
  while (k < limit && Get32(words + 4 * k) == uint64_t(first) + (k - index)) ++k;
  count = k - index;
  return first;
}
}  // namespace

// ---- block maps

LegacyLocationProcessor::LegacyLocationProcessor(ExtfsDriver& driver)
    : driver_(driver), p_(driver.AddressesPerBlock()) {
  max_ = p_ * p_ * (p_ + 1) + p_ + 12;
}

const uint8_t* LegacyLocationProcessor::GetIndirect(IndirectCache& cache, uint32_t level, uint64_t block) {
  if (level >= cache.maxDepth || level >= cache.levels.size()) THROW_ERROR(Corrupted);
  IndirectCache::Level& l = cache.levels[level];
  if (!l.buffer || l.block != block) {
    l.buffer = driver_.GetBlockBuffer(block);
    l.block = block;
  }
  return l.buffer.Data();
}

uint64_t LegacyLocationProcessor::FirstPhysicalBlock(const uint8_t* map, IndirectCache&) {
  for (int i = 0; i < 15; ++i)
    if (uint32_t w = Get32(map + 4 * i)) return w;
  return 0;
}

uint64_t LegacyLocationProcessor::Lookup(const uint8_t* map, uint64_t logical, uint64_t& count,
                                         bool& unwritten, IndirectCache& cache) {
  unwritten = false;
  if (logical < 12) return LeafRun(map, logical, 12, count);

  // Which tree of the inode holds the block, and where that tree starts.
  uint32_t depth, slot;
  uint64_t base, cover;
  uint64_t r = logical - 12;
  if (r < p_) {
    depth = 2, slot = 12, base = 12, cover = p_;
  } else if ((r -= p_) < p_ * p_) {
    depth = 3, slot = 13, base = 12 + p_, cover = p_ * p_;
  } else if ((r -= p_ * p_) < p_ * p_ * p_) {
    depth = 4, slot = 14, base = 12 + p_ + p_ * p_, cover = p_ * p_ * p_;
  } else {
    throw Common::MakeError(ERROR_IN("GetPath"), SeekError);
  }

  uint32_t pointer = Get32(map + 4 * slot);
  if (pointer == 0) {
    count = base + cover - logical;
    return kHole;
  }
  uint64_t subtree = base;
  for (uint32_t level = 1; level < depth; ++level) {
    const uint8_t* words = GetIndirect(cache, level - 1, pointer);
    cover /= p_;
    const uint64_t index = (r / cover) % p_;
    if (level == depth - 1) return LeafRun(words, index, p_, count);
    pointer = Get32(words + 4 * index);
    if (pointer == 0) {
      // The hole goes on over the empty subtrees behind this one.
      uint64_t k = index + 1;
      while (k < p_ && Get32(words + 4 * k) == 0) ++k;
      count = subtree + k * cover - logical;
      return kHole;
    }
    subtree += index * cover;
  }
  THROW_ERROR(Corrupted);
}

// ---- extent trees

void ValidateHeader(const uint8_t* node, uint32_t capacity) {
  const auto* h = reinterpret_cast<const ExtentHeader*>(node);
  if (h->magic.get() != kExtentMagic) THROW_ERROR(Corrupted);
  if (h->entries.get() > h->capacity.get()) THROW_ERROR(Corrupted);
  if (12 + 12 * uint64_t(h->capacity.get()) > capacity) THROW_ERROR(Corrupted);
  if (h->depth.get() != 0 && h->entries.get() == 0) THROW_ERROR(Corrupted);
}

const uint8_t* ExtentsLocationProcessor::ReadChild(IndirectCache& cache, uint32_t level, uint64_t block) {
  if (level >= cache.maxDepth || level >= cache.levels.size()) THROW_ERROR(Corrupted);
  IndirectCache::Level& l = cache.levels[level];
  if (!l.buffer || l.block != block) {
    l.buffer = driver_.GetBlockBuffer(block);
    l.block = block;
  }
  uint8_t* data = l.buffer.Data();
  const uint32_t bs = driver_.BlockSize();
  // The byte behind the block records a passed checksum, as long as the
  // buffer is exactly the block.
  const bool padded = l.buffer.SectorCount() == driver_.SectorsPerBlock();
  if (driver_.HasMetadataCsum() && !(padded && data[bs] != 0)) {
    ValidateHeader(data, bs);
    const uint64_t bytes = 12 + 12 * uint64_t(reinterpret_cast<const ExtentHeader*>(data)->capacity.get());
    if (bytes + 4 > bs) THROW_ERROR(Corrupted);
    if (Crc32c(cache.seed, data, size_t(bytes)) != Get32(data + bytes))
      throw Common::MakeError(ERROR_IN("ValidateIndirectChecksum"), Corrupted);
    if (padded) data[bs] = 1;
  }
  return data;
}

uint64_t ExtentsLocationProcessor::FirstPhysicalBlock(const uint8_t* map, IndirectCache&) {
  ValidateHeader(map, kBlockMapBytes);
  const auto* h = reinterpret_cast<const ExtentHeader*>(map);
  if (h->entries.get() == 0) return 0;
  if (h->depth.get() == 0) {
    const auto* e = reinterpret_cast<const Extent*>(map + 12);
    return uint64_t(e->startHi.get()) << 32 | e->startLo.get();
  }
  const auto* ix = reinterpret_cast<const ExtentIndex*>(map + 12);
  return uint64_t(ix->childHi.get()) << 32 | ix->childLo.get();
}

uint64_t ExtentsLocationProcessor::Lookup(const uint8_t* map, uint64_t logical, uint64_t& count,
                                          bool& unwritten, IndirectCache& cache) {
  return LookupNode(map, 0, logical, count, unwritten, cache);
}

uint64_t ExtentsLocationProcessor::LookupNode(const uint8_t* node, uint32_t level, uint64_t logical,
                                              uint64_t& count, bool& unwritten, IndirectCache& cache) {
  if (level > 15) throw Common::MakeError(ERROR_IN("ExtentsTree"), Corrupted);
  ValidateHeader(node, level == 0 ? uint32_t(kBlockMapBytes) : driver_.BlockSize());
  const auto* h = reinterpret_cast<const ExtentHeader*>(node);
  const uint32_t entries = h->entries.get();
  const uint32_t depth = h->depth.get();

  if (depth != 0) {
    const uint64_t target = logical > 0xFFFFFFFFu ? 0xFFFFFFFFu : logical;
    const auto* ix = reinterpret_cast<const ExtentIndex*>(node + 12);
    // The last entry that starts at or below the target, else the first.
    uint32_t lo = 0, hi = entries;
    while (lo < hi) {
      const uint32_t mid = lo + (hi - lo) / 2;
      if (ix[mid].logical.get() <= target) lo = mid + 1; else hi = mid;
    }
    const uint32_t pick = lo == 0 ? 0 : lo - 1;
    const uint64_t child = uint64_t(ix[pick].childHi.get()) << 32 | ix[pick].childLo.get();
    const uint8_t* childNode = ReadChild(cache, level, child);
    ValidateHeader(childNode, driver_.BlockSize());
    if (reinterpret_cast<const ExtentHeader*>(childNode)->depth.get() >= depth)
      throw Common::MakeError(ERROR_IN("Lookup"), Corrupted);
    return LookupNode(childNode, level + 1, logical, count, unwritten, cache);
  }

  count = 1;
  unwritten = false;
  const auto* ex = reinterpret_cast<const Extent*>(node + 12);
  uint32_t lo = 0, hi = entries;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (ex[mid].logical.get() < logical) lo = mid + 1; else hi = mid;
  }
  for (uint32_t i : {lo - 1, lo}) {
    if (i >= entries) continue;  // lo - 1 wraps when lo is 0
    const uint64_t first = ex[i].logical.get();
    uint32_t length = ex[i].length.get();
    const bool pending = length > kMaxInitializedLength;
    if (pending) length -= kMaxInitializedLength;
    if (first > logical || logical >= first + length) continue;
    const uint64_t start = uint64_t(ex[i].startHi.get()) << 32 | ex[i].startLo.get();
    const uint64_t physical = logical - first + start;
    if (physical == 0) continue;
    count = first + length - logical;
    unwritten = pending;
    return physical;
  }
  return kHole;
}

}  // namespace extfs
