// Numbers as they lie on a disk: byte arrays with an explicit byte order,
// so that a record made of them has no padding, no alignment needs and no
// dependence on the host's order.  Drivers declare their records with these
// and pin sizes and offsets with static_assert.
#pragma once

#include <cstddef>
#include <cstdint>

namespace OnDisk {

template <size_t N, bool BigEndian>
struct Number {
  uint8_t bytes[N];

  uint64_t Value() const {
    uint64_t v = 0;
    for (size_t i = 0; i < N; ++i) {
      const size_t k = BigEndian ? i : N - 1 - i;
      v = (v << 8) | bytes[k];
    }
    return v;
  }
};

struct Le16 : Number<2, false> {
  uint16_t get() const { return uint16_t(Value()); }
};
struct Le32 : Number<4, false> {
  uint32_t get() const { return uint32_t(Value()); }
};
struct Le64 : Number<8, false> {
  uint64_t get() const { return Value(); }
};
struct Be16 : Number<2, true> {
  uint16_t get() const { return uint16_t(Value()); }
};
struct Be32 : Number<4, true> {
  uint32_t get() const { return uint32_t(Value()); }
};
struct Be64 : Number<8, true> {
  uint64_t get() const { return Value(); }
};
static_assert(sizeof(Le16) == 2 && sizeof(Le32) == 4 && sizeof(Le64) == 8);
static_assert(sizeof(Be16) == 2 && sizeof(Be32) == 4 && sizeof(Be64) == 8);
static_assert(alignof(Le32) == 1 && alignof(Be64) == 1);

}  // namespace OnDisk
