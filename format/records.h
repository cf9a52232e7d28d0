// The on-disk format in one place: its constants, and the two records
// every reader and writer of this library decodes and encodes (the
// 512-byte header and the 128-byte directory entry), each with its decode
// beside its encode so that the two cannot drift apart.
//
// Records hold the fields as stored, unsigned and unvalidated: deciding
// what a value means for a damaged file is the caller's business (the
// host interface and the native interface decide differently).
#ifndef MOXOLEFIO_FORMAT_RECORDS_H_
#define MOXOLEFIO_FORMAT_RECORDS_H_

#include <stddef.h>
#include <stdint.h>

#include "format/byte_order.h"

namespace moxfmt {

// --- Constants --------------------------------------------------------------

constexpr unsigned char kSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr size_t kHeaderSize = 512;
constexpr size_t kHeaderFatSlots = 109;  // FAT sector numbers the header holds itself
constexpr size_t kEntrySize = 128;
constexpr size_t kNameUnits = 32;        // UTF-16 units of a name field, terminator included
constexpr uint16_t kByteOrderMark = 0xFFFE;
constexpr uint32_t kMiniStreamCutoff = 4096;
constexpr char kRootName[] = "Root Entry";

// Sector numbers with a meaning of their own, as stored.
constexpr uint32_t kMaxRegularSector = 0xFFFFFFFA;
constexpr uint32_t kDifatSector = 0xFFFFFFFC;
constexpr uint32_t kFatSector = 0xFFFFFFFD;
constexpr uint32_t kEndOfChain = 0xFFFFFFFE;
constexpr uint32_t kFreeSector = 0xFFFFFFFF;
constexpr uint32_t kNoStream = 0xFFFFFFFF;  // an absent sibling or child link

// Object types of a directory entry.
enum EntryType : uint8_t {
  kTypeEmpty = 0,
  kTypeStorage = 1,
  kTypeStream = 2,
  kTypeRoot = 5,
};

enum EntryColour : uint8_t { kRed = 0, kBlack = 1 };

// Field offsets of the header.
namespace header_at {
constexpr size_t kSignature = 0x00;
constexpr size_t kClsid = 0x08;
constexpr size_t kMinorVersion = 0x18;
constexpr size_t kMajorVersion = 0x1A;
constexpr size_t kByteOrder = 0x1C;
constexpr size_t kSectorShift = 0x1E;
constexpr size_t kMiniSectorShift = 0x20;
constexpr size_t kDirSectorCount = 0x28;
constexpr size_t kFatSectorCount = 0x2C;
constexpr size_t kDirStart = 0x30;
constexpr size_t kTransaction = 0x34;
constexpr size_t kMiniCutoff = 0x38;
constexpr size_t kMiniFatStart = 0x3C;
constexpr size_t kMiniFatCount = 0x40;
constexpr size_t kDifatStart = 0x44;
constexpr size_t kDifatCount = 0x48;
constexpr size_t kFatSlots = 0x4C;
}  // namespace header_at

// Field offsets of a directory entry.
namespace entry_at {
constexpr size_t kName = 0x00;
constexpr size_t kNameLength = 0x40;
constexpr size_t kType = 0x42;
constexpr size_t kColour = 0x43;
constexpr size_t kLeft = 0x44;
constexpr size_t kRight = 0x48;
constexpr size_t kChild = 0x4C;
constexpr size_t kClsid = 0x50;
constexpr size_t kStateBits = 0x60;
constexpr size_t kCreated = 0x64;
constexpr size_t kModified = 0x6C;
constexpr size_t kStart = 0x74;
constexpr size_t kSize = 0x78;
}  // namespace entry_at

// --- The header -------------------------------------------------------------

struct HeaderRecord {
  bool signature_ok = false;
  ByteOrder order = ByteOrder::kLittle;  // taken from the byte-order mark
  uint16_t byte_order_mark = kByteOrderMark;
  uint16_t minor_version = 0x3E;
  uint16_t major_version = 3;
  uint16_t sector_shift = 9;
  uint16_t mini_sector_shift = 6;
  uint32_t dir_sector_count = 0;  // version 4 only; 0 in version 3
  uint32_t fat_sector_count = 0;
  uint32_t dir_start = kEndOfChain;
  uint32_t transaction = 0;
  uint32_t mini_cutoff = kMiniStreamCutoff;
  uint32_t mini_fat_start = kEndOfChain;
  uint32_t mini_fat_count = 0;
  uint32_t difat_start = kEndOfChain;
  uint32_t difat_count = 0;
  uint32_t fat_slots[kHeaderFatSlots];  // the first FAT sectors

  HeaderRecord();
};

// Decodes the first kHeaderSize bytes of a file.  Never fails: a wrong
// signature shows as signature_ok == false.
HeaderRecord decodeHeader(const unsigned char* bytes);
// Writes the record as kHeaderSize little-endian bytes (the signature and
// byte-order mark always as the format wants them).
void encodeHeader(const HeaderRecord& header, unsigned char* bytes);

// --- Directory entries -----------------------------------------------------

struct EntryRecord {
  uint16_t name[kNameUnits] = {};
  uint16_t name_bytes = 0;  // stored length in bytes, terminator included
  uint8_t type = kTypeEmpty;
  uint8_t colour = kBlack;
  uint32_t left = kNoStream;
  uint32_t right = kNoStream;
  uint32_t child = kNoStream;
  unsigned char clsid[16] = {};
  uint32_t state_bits = 0;
  uint64_t created = 0;
  uint64_t modified = 0;
  uint32_t start = kEndOfChain;
  uint64_t size = 0;  // all 64 stored bits; version 3 readers use the low 32

  // Units of the name before its terminator, as the stored length says,
  // clamped to the field: what other readers show as the name.
  size_t nameLength() const;
};

EntryRecord decodeEntry(ByteOrder order, const unsigned char* bytes);
void encodeEntry(const EntryRecord& entry, unsigned char* bytes);

// A FAT, mini FAT or DIFAT sector holds this many 32-bit entries.
inline uint32_t linksPerSector(uint32_t sectorSize) { return sectorSize / 4; }

}  // namespace moxfmt

#endif  // MOXOLEFIO_FORMAT_RECORDS_H_
