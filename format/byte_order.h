// Multi-byte fields as stored on disk.
//
// Compound files are little-endian, but the header's byte-order mark can
// say otherwise and the reader honours it, so every decoder takes the
// order as a parameter.  Assembled from bytes this way, the little-endian
// case compiles to a single load.
#ifndef MOXOLEFIO_FORMAT_BYTE_ORDER_H_
#define MOXOLEFIO_FORMAT_BYTE_ORDER_H_

#include <stdint.h>

namespace moxfmt {

enum class ByteOrder : uint8_t { kBig = 0, kLittle = 1 };

inline uint16_t get16(ByteOrder order, const unsigned char* p) {
  if (order == ByteOrder::kLittle) return static_cast<uint16_t>(p[0] | (p[1] << 8));
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t get32(ByteOrder order, const unsigned char* p) {
  if (order == ByteOrder::kLittle) {
    return p[0] | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
  }
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

inline uint64_t get64(ByteOrder order, const unsigned char* p) {
  const uint64_t first = get32(order, p);
  const uint64_t second = get32(order, p + 4);
  return order == ByteOrder::kLittle ? first | (second << 32) : (first << 32) | second;
}

inline void put16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

inline void put32(unsigned char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

inline void put64(unsigned char* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace moxfmt

#endif  // MOXOLEFIO_FORMAT_BYTE_ORDER_H_
