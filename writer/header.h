// CMoxOleHeader: the values of the 512-byte file header of a new document.
//
// The defaults fix the geometry of every file the writer makes: 512-byte
// sectors (shift 9), 64-byte mini sectors (shift 6) and a mini stream
// cutoff of 4096 bytes.  The layout step fills in the region fields (FAT
// count, first directory, mini FAT and DIFAT sectors and the header's 109
// FAT sector slots) just before the file is written.
#ifndef MOXOLEFIO_WRITER_HEADER_H_
#define MOXOLEFIO_WRITER_HEADER_H_

#include <stdint.h>

class CMoxOleIo;

// FAT sector numbers kept in the header itself; further ones go to DIFAT
// sectors.
constexpr int kHeaderDifatSlots = 109;

class CMoxOleHeader {
 public:
  CMoxOleHeader();

  // Writes the 512 bytes of the file header, every field little-endian.
  // 0, or the first nonzero status of io (nothing after it is written).
  int writeDisk(CMoxOleIo* io);

  CMoxOleHeader(const CMoxOleHeader&) = delete;
  CMoxOleHeader& operator=(const CMoxOleHeader&) = delete;

  unsigned char abSignature[8];
  int64_t alClassId[4];
  int32_t iMinorVersion;
  int32_t iMajorVersion;
  int32_t iByteOrderMark;
  int32_t iSectorShift;
  int32_t iMiniSectorShift;
  int32_t iReserved;
  int64_t lReserved;
  int64_t lDirSectorCount;  // always 0 in files with 512-byte sectors
  int64_t lFatCount;
  int64_t lDirStart;
  int64_t lTransaction;
  int64_t lMiniCutoff;
  int64_t lMiniFatStart;
  int64_t lMiniFatCount;
  int64_t lDifatStart;
  int64_t lDifatCount;
  int64_t alDifat[kHeaderDifatSlots];
};

#endif  // MOXOLEFIO_WRITER_HEADER_H_
