// The name hash of the ext directory index: half-MD4 and TEA over the
// name in fixed portions, each portion padded with a word made from the
// remaining length.
#include "extfs.h"

namespace extfs {

namespace {

uint32_t Rol(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }

// `words` words from the `length` bytes left at `p`.
void BuildPortion(const uint8_t* p, size_t length, uint32_t* words, int count, bool isSigned) {
  uint32_t pad = uint32_t(length) | uint32_t(length) << 8;
  pad |= pad << 16;
  size_t take = length < size_t(count) * 4 ? length : size_t(count) * 4;
  uint32_t value = pad;
  int filled = 0;
  for (size_t i = 0; i < take; ++i) {
    const uint32_t byte = isSigned ? uint32_t(int32_t(int8_t(p[i]))) : p[i];
    value = byte + (value << 8);
    if (i % 4 == 3) {
      words[filled++] = value;
      value = pad;
    }
  }
  if (filled < count) words[filled++] = value;
  while (filled < count) words[filled++] = pad;
}

void HalfMd4(uint32_t state[4], const uint32_t in[8]) {
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  auto f = [](uint32_t x, uint32_t y, uint32_t z) { return z ^ (x & (y ^ z)); };
  auto g = [](uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (x & z) | (y & z); };
  auto h = [](uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; };
  // Each step updates one word with the next three in a rotating order.
  auto round = [&](auto fn, uint32_t k, const int (&order)[8], const int (&shift)[4]) {
    for (int i = 0; i < 8; ++i) {
      uint32_t* w[4] = {&a, &b, &c, &d};
      const int r = (4 - i % 4) % 4;  // a, d, c, b in turn
      uint32_t& t = *w[r];
      t = Rol(t + fn(*w[(r + 1) % 4], *w[(r + 2) % 4], *w[(r + 3) % 4]) + in[order[i]] + k, shift[i % 4]);
    }
  };
  round(f, 0, {0, 1, 2, 3, 4, 5, 6, 7}, {3, 7, 11, 19});
  round(g, 0x5A827999u, {1, 3, 5, 7, 0, 2, 4, 6}, {3, 5, 9, 13});
  round(h, 0x6ED9EBA1u, {3, 7, 2, 6, 1, 5, 0, 4}, {3, 9, 11, 15});
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void Tea(uint32_t state[4], const uint32_t in[4]) {
  uint32_t sum = 0, b0 = state[0], b1 = state[1];
  for (int n = 0; n < 16; ++n) {
    sum += 0x9E3779B9u;
    b0 += ((b1 << 4) + in[0]) ^ (b1 + sum) ^ ((b1 >> 5) + in[1]);
    b1 += ((b0 << 4) + in[2]) ^ (b0 + sum) ^ ((b0 >> 5) + in[3]);
  }
  state[0] += b0;
  state[1] += b1;
}

}  // namespace

uint32_t DirEntryHash(const uint8_t* name, size_t length, uint32_t version, const uint8_t seed[16]) {
  uint32_t state[4] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u};
  bool zero = true;
  for (int i = 0; i < 16; ++i) zero = zero && seed[i] == 0;
  if (!zero)
    for (int i = 0; i < 4; ++i) state[i] = Format::Get32(seed + 4 * i);
  const bool isSigned = version == 1 || version == 2;
  const bool md4 = version == 1 || version == 4;
  const size_t portion = md4 ? 32 : 16;
  uint32_t in[8];
  for (size_t at = 0; at < length; at += portion) {
    BuildPortion(name + at, length - at, in, int(portion / 4), isSigned);
    if (md4) HalfMd4(state, in); else Tea(state, in);
  }
  uint32_t hash = (md4 ? state[1] : state[0]) & ~1u;
  if (hash == 0xFFFFFFFEu) hash = 0xFFFFFFFCu;
  return hash;
}

}  // namespace extfs
