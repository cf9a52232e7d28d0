// The handle's byte-order flag over the format's field decoders.
//
// The handle records the order as the host sees it, 1 for little-endian
// and anything else for big-endian; FAT and mini FAT links are decoded
// from raw sector bytes with it.  Inline: every link a chain walk follows
// goes through lGetLong.
#ifndef MOXOLEFIO_READER_BYTE_ORDER_H_
#define MOXOLEFIO_READER_BYTE_ORDER_H_

#include <stdint.h>

#include "format/byte_order.h"

inline moxfmt::ByteOrder moxByteOrder(uint32_t flag) {
  return flag == 1 ? moxfmt::ByteOrder::kLittle : moxfmt::ByteOrder::kBig;
}

// A 32-bit field, sign-extended: sector numbers and links as the handle
// holds them.
inline int64_t lGetLong(uint32_t byteOrder, const unsigned char* bytes) {
  return static_cast<int32_t>(moxfmt::get32(moxByteOrder(byteOrder), bytes));
}

// A stored 32-bit field widened with sign.
inline int64_t moxSigned(uint32_t field) { return static_cast<int32_t>(field); }

#endif  // MOXOLEFIO_READER_BYTE_ORDER_H_
