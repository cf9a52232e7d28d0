// Multi-byte fields in the document's byte order.
//
// byteOrder 1 reads the first byte as the low one; any other value reads
// most significant byte first.  Inline, because every FAT link a chain
// walk follows is decoded through them: assembled from bytes this way, the
// little-endian case compiles to a single load.
#ifndef MOXOLEFIO_READER_BYTE_ORDER_H_
#define MOXOLEFIO_READER_BYTE_ORDER_H_

#include <stdint.h>

inline unsigned uiGetShort(uint32_t byteOrder, const unsigned char* bytes) {
  if (byteOrder == 1) return bytes[0] | (static_cast<unsigned>(bytes[1]) << 8);
  return (static_cast<unsigned>(bytes[0]) << 8) | bytes[1];
}

// A 32-bit field, sign-extended.
inline int64_t lGetLong(uint32_t byteOrder, const unsigned char* bytes) {
  uint32_t value = 0;
  if (byteOrder == 1) {
    value = bytes[0] | (static_cast<uint32_t>(bytes[1]) << 8) |
            (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
  } else {
    value = (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
            (static_cast<uint32_t>(bytes[2]) << 8) | bytes[3];
  }
  return static_cast<int32_t>(value);
}

#endif  // MOXOLEFIO_READER_BYTE_ORDER_H_
