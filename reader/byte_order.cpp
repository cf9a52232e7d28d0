// Multi-byte fields in the document's byte order.
#include "reader/reader.h"

unsigned uiGetShort(uint32_t byteOrder, const unsigned char* bytes) {
  if (byteOrder == 1) return bytes[0] | (static_cast<unsigned>(bytes[1]) << 8);
  return (static_cast<unsigned>(bytes[0]) << 8) | bytes[1];
}

int64_t lGetLong(uint32_t byteOrder, const unsigned char* bytes) {
  uint32_t first = uiGetShort(byteOrder, bytes);
  uint32_t second = uiGetShort(byteOrder, bytes + 2);
  uint32_t value = byteOrder == 1 ? (first | (second << 16)) : ((first << 16) | second);
  return static_cast<int32_t>(value);
}
