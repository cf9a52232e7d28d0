#include "writer/header.h"

#include <string.h>

#include "interface/mox_file.h"
#include "writer/oleio.h"

namespace {

const unsigned char kSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

}  // namespace

CMoxOleHeader::CMoxOleHeader()
    : iMinorVersion(0x21),
      iMajorVersion(3),
      iByteOrderMark(0xFFFE),
      iSectorShift(9),
      iMiniSectorShift(6),
      iReserved(0),
      lReserved(0),
      lDirSectorCount(0),
      lFatCount(0),
      lDirStart(kSectorEndOfChain),
      lTransaction(0),
      lMiniCutoff(4096),
      lMiniFatStart(kSectorEndOfChain),
      lMiniFatCount(0),
      lDifatStart(kSectorEndOfChain),
      lDifatCount(0) {
  memcpy(abSignature, kSignature, sizeof abSignature);
  memset(alClassId, 0, sizeof alClassId);
  memset(alDifat, 0, sizeof alDifat);
}

// Field widths on disk are narrower than in memory: the 16-bit run from the
// minor version to the first reserved word, then ten 32-bit fields, then the
// 109 FAT sector slots.
int CMoxOleHeader::writeDisk(CMoxOleIo* io) {
  int status = io->writeBytes(abSignature, sizeof abSignature);
  for (int i = 0; i < 4 && status == MOXOLE_OK; ++i) status = io->write4ByteInt(alClassId[i]);
  const int32_t shortFields[] = {iMinorVersion,   iMajorVersion,    iByteOrderMark,
                                 iSectorShift,    iMiniSectorShift, iReserved};
  for (int32_t value : shortFields) {
    if (status == MOXOLE_OK) status = io->write2ByteInt(value);
  }
  const int64_t longFields[] = {lReserved,    lDirSectorCount, lFatCount,     lDirStart,
                                lTransaction, lMiniCutoff,     lMiniFatStart, lMiniFatCount,
                                lDifatStart,  lDifatCount};
  for (int64_t value : longFields) {
    if (status == MOXOLE_OK) status = io->write4ByteInt(value);
  }
  for (int i = 0; i < kHeaderDifatSlots && status == MOXOLE_OK; ++i) {
    status = io->write4ByteInt(alDifat[i]);
  }
  return status;
}
