#include "format/records.h"

#include <string.h>

namespace moxfmt {

HeaderRecord::HeaderRecord() {
  for (uint32_t& slot : fat_slots) slot = kFreeSector;
}

HeaderRecord decodeHeader(const unsigned char* bytes) {
  HeaderRecord h;
  h.signature_ok = memcmp(bytes, kSignature, 4) == 0;
  h.byte_order_mark = get16(ByteOrder::kLittle, bytes + header_at::kByteOrder);
  h.order = h.byte_order_mark == kByteOrderMark ? ByteOrder::kLittle : ByteOrder::kBig;
  const ByteOrder o = h.order;
  h.minor_version = get16(o, bytes + header_at::kMinorVersion);
  h.major_version = get16(o, bytes + header_at::kMajorVersion);
  h.sector_shift = get16(o, bytes + header_at::kSectorShift);
  h.mini_sector_shift = get16(o, bytes + header_at::kMiniSectorShift);
  h.dir_sector_count = get32(o, bytes + header_at::kDirSectorCount);
  h.fat_sector_count = get32(o, bytes + header_at::kFatSectorCount);
  h.dir_start = get32(o, bytes + header_at::kDirStart);
  h.transaction = get32(o, bytes + header_at::kTransaction);
  h.mini_cutoff = get32(o, bytes + header_at::kMiniCutoff);
  h.mini_fat_start = get32(o, bytes + header_at::kMiniFatStart);
  h.mini_fat_count = get32(o, bytes + header_at::kMiniFatCount);
  h.difat_start = get32(o, bytes + header_at::kDifatStart);
  h.difat_count = get32(o, bytes + header_at::kDifatCount);
  for (size_t i = 0; i < kHeaderFatSlots; ++i) {
    h.fat_slots[i] = get32(o, bytes + header_at::kFatSlots + 4 * i);
  }
  return h;
}

void encodeHeader(const HeaderRecord& h, unsigned char* bytes) {
  memset(bytes, 0, kHeaderSize);
  memcpy(bytes + header_at::kSignature, kSignature, sizeof kSignature);
  put16(bytes + header_at::kMinorVersion, h.minor_version);
  put16(bytes + header_at::kMajorVersion, h.major_version);
  put16(bytes + header_at::kByteOrder, kByteOrderMark);
  put16(bytes + header_at::kSectorShift, h.sector_shift);
  put16(bytes + header_at::kMiniSectorShift, h.mini_sector_shift);
  put32(bytes + header_at::kDirSectorCount, h.dir_sector_count);
  put32(bytes + header_at::kFatSectorCount, h.fat_sector_count);
  put32(bytes + header_at::kDirStart, h.dir_start);
  put32(bytes + header_at::kTransaction, h.transaction);
  put32(bytes + header_at::kMiniCutoff, h.mini_cutoff);
  put32(bytes + header_at::kMiniFatStart, h.mini_fat_start);
  put32(bytes + header_at::kMiniFatCount, h.mini_fat_count);
  put32(bytes + header_at::kDifatStart, h.difat_start);
  put32(bytes + header_at::kDifatCount, h.difat_count);
  for (size_t i = 0; i < kHeaderFatSlots; ++i) {
    put32(bytes + header_at::kFatSlots + 4 * i, h.fat_slots[i]);
  }
}

size_t EntryRecord::nameLength() const {
  if (name_bytes < 2) return 0;
  size_t units = name_bytes / 2 - 1;
  return units < kNameUnits ? units : kNameUnits;
}

EntryRecord decodeEntry(ByteOrder o, const unsigned char* bytes) {
  EntryRecord e;
  if (o == ByteOrder::kLittle) {
    // One pass the compiler turns into a plain copy on little-endian hosts:
    // a directory walk decodes every entry, and the name is half of it.
    for (size_t i = 0; i < kNameUnits; ++i) {
      e.name[i] = static_cast<uint16_t>(bytes[entry_at::kName + 2 * i] | (bytes[entry_at::kName + 2 * i + 1] << 8));
    }
  } else {
    for (size_t i = 0; i < kNameUnits; ++i) e.name[i] = get16(o, bytes + entry_at::kName + 2 * i);
  }
  e.name_bytes = get16(o, bytes + entry_at::kNameLength);
  e.type = bytes[entry_at::kType];
  e.colour = bytes[entry_at::kColour];
  e.left = get32(o, bytes + entry_at::kLeft);
  e.right = get32(o, bytes + entry_at::kRight);
  e.child = get32(o, bytes + entry_at::kChild);
  memcpy(e.clsid, bytes + entry_at::kClsid, sizeof e.clsid);
  e.state_bits = get32(o, bytes + entry_at::kStateBits);
  e.created = get64(o, bytes + entry_at::kCreated);
  e.modified = get64(o, bytes + entry_at::kModified);
  e.start = get32(o, bytes + entry_at::kStart);
  e.size = get64(o, bytes + entry_at::kSize);
  return e;
}

void encodeEntry(const EntryRecord& e, unsigned char* bytes) {
  memset(bytes, 0, kEntrySize);
  for (size_t i = 0; i < kNameUnits; ++i) put16(bytes + entry_at::kName + 2 * i, e.name[i]);
  put16(bytes + entry_at::kNameLength, e.name_bytes);
  bytes[entry_at::kType] = e.type;
  bytes[entry_at::kColour] = e.colour;
  put32(bytes + entry_at::kLeft, e.left);
  put32(bytes + entry_at::kRight, e.right);
  put32(bytes + entry_at::kChild, e.child);
  memcpy(bytes + entry_at::kClsid, e.clsid, sizeof e.clsid);
  put32(bytes + entry_at::kStateBits, e.state_bits);
  put64(bytes + entry_at::kCreated, e.created);
  put64(bytes + entry_at::kModified, e.modified);
  put32(bytes + entry_at::kStart, e.start);
  put64(bytes + entry_at::kSize, e.size);
}

}  // namespace moxfmt
