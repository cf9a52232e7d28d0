// The 512-byte header: byte order, geometry, and the start of every table.
#include <stdio.h>
#include <string.h>

#include "reader/reader.h"

namespace {

constexpr int kHeaderSize = 512;
constexpr int kHeaderDifatOffset = 0x4C;
constexpr int64_t kHeaderDifatSlots = 109;

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
  unsigned char header[kHeaderSize];
  h->lRootStart = -1;
  h->pIo->seek(h->pIo, 0, 0);
  if (h->pIo->read(h->pIo, header, kHeaderSize) != kHeaderSize) return -1;
  static const unsigned char kSignature[4] = {0xD0, 0xCF, 0x11, 0xE0};
  if (memcmp(header, kSignature, sizeof kSignature) != 0) return -1;

  h->iByteOrder = 1;
  if (uiGetShort(1, header + 0x1C) != 0xFFFE) h->iByteOrder = 0;
  const uint32_t order = h->iByteOrder;

  (void)uiGetShort(order, header + 0x18);  // minor version: not kept
  snprintf(h->szVersion, sizeof h->szVersion, "%.2x %.2x", header[0x1A], header[0x1B]);

  h->iSectorShift = uiGetShort(order, header + 0x1E);
  h->iMiniSectorShift = uiGetShort(order, header + 0x20);
  h->lFatCount = lGetLong(order, header + 0x2C);
  h->lDirStart = lGetLong(order, header + 0x30);
  h->lTransaction = lGetLong(order, header + 0x34);
  h->lMiniCutoff = lGetLong(order, header + 0x38);
  h->lMiniFatStart = lGetLong(order, header + 0x3C);
  h->lMiniFatCount = lGetLong(order, header + 0x40);
  h->lDifatStart = lGetLong(order, header + 0x44);
  h->lDifatCount = lGetLong(order, header + 0x48);

  if (!shiftsUsable(h->iSectorShift, h->iMiniSectorShift)) return -1;
  h->lSectorSize = int64_t{1} << h->iSectorShift;
  h->lMiniSectorSize = int64_t{1} << h->iMiniSectorShift;
  h->lMiniPerSector = int64_t{1} << (h->iSectorShift - h->iMiniSectorShift);
  h->iFatPerSector = static_cast<int32_t>(h->lSectorSize) / 4;

  const unsigned char* difat = header + kHeaderDifatOffset;
  if (h->lFatCount > kHeaderDifatSlots) return iBldDIF_Fat(h, difat);
  return iBldSmallFat(h, difat);
}
