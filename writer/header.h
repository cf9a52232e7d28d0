// CMoxOleHeader: the file header of a new document, the format's header
// record with the values this writer always chooses.
//
// The defaults fix the geometry of every file the writer makes: 512-byte
// sectors (shift 9), 64-byte mini sectors (shift 6), a mini stream cutoff
// of 4096 bytes and minor version 0x21.  The layout step fills in the
// region fields (FAT count, first directory, mini FAT and DIFAT sectors
// and the header's FAT sector slots) just before the file is written.
#ifndef MOXOLEFIO_WRITER_HEADER_H_
#define MOXOLEFIO_WRITER_HEADER_H_

#include <stdint.h>

#include "format/records.h"

class CMoxOleIo;

class CMoxOleHeader : public moxfmt::HeaderRecord {
 public:
  CMoxOleHeader();

  CMoxOleHeader(const CMoxOleHeader&) = delete;
  CMoxOleHeader& operator=(const CMoxOleHeader&) = delete;

  // Writes the 512 bytes of the file header, every field little-endian:
  // 0, or io's status.
  int writeDisk(CMoxOleIo* io);
};

#endif  // MOXOLEFIO_WRITER_HEADER_H_
