// Little-endian field access and the object layout constants shared by the
// BLF writer and reader.
#pragma once

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

inline uint16_t rd16(const uint8_t* p) { return (uint16_t)(p[0] | (p[1] << 8)); }
inline uint32_t rd32(const uint8_t* p) {
  return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}
inline uint64_t rd64(const uint8_t* p) { return (uint64_t)rd32(p) | ((uint64_t)rd32(p + 4) << 32); }
inline void wr16(uint8_t* p, uint16_t v) {
  p[0] = (uint8_t)v;
  p[1] = (uint8_t)(v >> 8);
}
inline void wr32(uint8_t* p, uint32_t v) {
  wr16(p, (uint16_t)v);
  wr16(p + 2, (uint16_t)(v >> 16));
}
inline void wr64(uint8_t* p, uint64_t v) {
  wr32(p, (uint32_t)v);
  wr32(p + 4, (uint32_t)(v >> 32));
}
inline uint32_t pad4(uint64_t size) { return (uint32_t)(-size & 3u); }
inline bool is_lobj(const uint8_t* p) { return memcmp(p, "LOBJ", 4) == 0; }

}  // namespace blf
