#include "writer/header.h"

#include <string.h>

#include "interface/mox_file.h"

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
