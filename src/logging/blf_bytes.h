// Little-endian field access and the object layout constants shared by the
// BLF writer and reader.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace blf {

enum : uint32_t {
  kFileHeaderSize = 144,
  kFileHeaderPrefix = 72,   // the part that carries data; the rest stays zero
  kBaseHeaderSize = 16,
  kObjectHeaderV1 = 32,
  kContainerCapacity = 2560,
  kContainerHeaderWord = 0x00010010,  // header size 16, header version 1
};

enum : uint32_t {
  kTypeCanMessage = 1,
  kTypeLogContainer = 10,
  kTypeLinMessage = 11,
  kTypeLinChecksumInfo = 42,
  kTypeLinMessage2 = 57,
  kTypeCanErrorExt = 73,
  kTypeCanMessage2 = 86,
  kTypeCanFdMessage = 100,
  kTypeCanFdMessage64 = 101,
  kTypeEthernetFrameEx = 120,
};

// Plain loads and stores on little-endian hosts, byte by byte elsewhere.
constexpr bool kLittle = std::endian::native == std::endian::little;

template <typename T>
inline T rd(const uint8_t* p) {
  T v;
  if constexpr (kLittle) {
    memcpy(&v, p, sizeof v);
  } else {
    v = 0;
    for (size_t i = sizeof(T); i-- > 0;) v = (T)((v << 8) | p[i]);
  }
  return v;
}
template <typename T>
inline void wr(uint8_t* p, T v) {
  if constexpr (kLittle) {
    memcpy(p, &v, sizeof v);
  } else {
    for (size_t i = 0; i < sizeof(T); i++) p[i] = (uint8_t)(v >> (8 * i));
  }
}
inline uint16_t rd16(const uint8_t* p) { return rd<uint16_t>(p); }
inline uint32_t rd32(const uint8_t* p) { return rd<uint32_t>(p); }
inline uint64_t rd64(const uint8_t* p) { return rd<uint64_t>(p); }
inline void wr16(uint8_t* p, uint16_t v) { wr(p, v); }
inline void wr32(uint8_t* p, uint32_t v) { wr(p, v); }
inline void wr64(uint8_t* p, uint64_t v) { wr(p, v); }
inline uint32_t pad4(uint64_t size) { return (uint32_t)(-size & 3u); }
inline bool is_lobj(const uint8_t* p) { return memcmp(p, "LOBJ", 4) == 0; }

}  // namespace blf
