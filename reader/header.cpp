// The 512-byte header: byte order, geometry, and the start of every table.
#include <stdio.h>

#include "format/records.h"
#include "reader/reader.h"

namespace {

// Sector shifts the arithmetic can live with.  Real files carry 9 or 12
// (and 6 for mini sectors); below 7 a sector cannot hold one directory
// entry, above 16 a sector no longer fits the host's 32-bit read count
// comfortably, and a mini sector must be smaller than a sector.
bool shiftsUsable(uint32_t sectorShift, uint32_t miniShift) {
  if (sectorShift < 7 || sectorShift > 16) return false;
  return miniShift >= 1 && miniShift < sectorShift;
}

}  // namespace

int moxSeekSector(_MoxOleFile* h, int64_t sector) {
  // A multiplication, not a shift: sectors before the file are negative.
  int64_t position = (sector + 1) * h->lSectorSize;
  return h->pIo->seek(h->pIo, position, 0) ? 0 : -1;
}

int iParseHeader(_MoxOleFile* h) {
  unsigned char bytes[moxfmt::kHeaderSize];
  h->lRootStart = -1;
  h->pIo->seek(h->pIo, 0, 0);
  const int size = static_cast<int>(sizeof bytes);
  if (h->pIo->read(h->pIo, bytes, size) != size) return moxFail(h, MoxReason::kHeaderUnreadable);
  // Only the first four bytes of the signature are checked: files whose
  // tail differs open in the hosts this library serves.
  const moxfmt::HeaderRecord header = moxfmt::decodeHeader(bytes);
  if (!header.signature_ok) return moxFail(h, MoxReason::kNotCompoundFile);

  h->iByteOrder = header.order == moxfmt::ByteOrder::kLittle ? 1 : 0;
  // The major version's two bytes as stored, whatever the byte order.
  const unsigned char* major = bytes + moxfmt::header_at::kMajorVersion;
  snprintf(h->szVersion, sizeof h->szVersion, "%.2x %.2x", major[0], major[1]);

  h->iSectorShift = header.sector_shift;
  h->iMiniSectorShift = header.mini_sector_shift;
  h->lFatCount = moxSigned(header.fat_sector_count);
  h->lDirStart = moxSigned(header.dir_start);
  h->lTransaction = moxSigned(header.transaction);
  h->lMiniCutoff = moxSigned(header.mini_cutoff);
  h->lMiniFatStart = moxSigned(header.mini_fat_start);
  h->lMiniFatCount = moxSigned(header.mini_fat_count);
  h->lDifatStart = moxSigned(header.difat_start);
  h->lDifatCount = moxSigned(header.difat_count);

  if (!shiftsUsable(h->iSectorShift, h->iMiniSectorShift)) {
    return moxFail(h, MoxReason::kSectorShiftUnusable,
                   int64_t{h->iSectorShift} << 16 | h->iMiniSectorShift);
  }
  h->lSectorSize = int64_t{1} << h->iSectorShift;
  h->lMiniSectorSize = int64_t{1} << h->iMiniSectorShift;
  h->lMiniPerSector = int64_t{1} << (h->iSectorShift - h->iMiniSectorShift);
  h->iFatPerSector = static_cast<int32_t>(moxfmt::linksPerSector(static_cast<uint32_t>(h->lSectorSize)));

  if (h->lFatCount > static_cast<int64_t>(moxfmt::kHeaderFatSlots)) {
    return iBldDIF_Fat(h, header.fat_slots);
  }
  return iBldSmallFat(h, header.fat_slots);
}

int moxLoadDocument(_MoxOleFile* h) {
  if (iParseHeader(h) != 0 || iBldMiniFat(h) != 0 || iBldDirInfo(h) != 0) return -1;
  return 0;
}
