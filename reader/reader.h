// The reader's internal steps, shared between its files and the interface.
//
// Everything here works on a handle whose tables were loaded by the three
// loading steps (header and FAT, mini FAT, directory).  Results follow one
// convention: 0 success, -1 failure, unless a comment says otherwise.
#ifndef MOXOLEFIO_READER_READER_H_
#define MOXOLEFIO_READER_READER_H_

#include <stdint.h>

#include "interface/mox_file.h"

// --- Fields in the document's byte order --------------------------------
// byteOrder 1 reads the first byte as the low one; any other value reads
// most significant byte first.
unsigned uiGetShort(uint32_t byteOrder, const unsigned char* bytes);
int64_t lGetLong(uint32_t byteOrder, const unsigned char* bytes);

// --- Loading steps, run in this order by hOLEopenEXT ----------------------
int iParseHeader(_MoxOleFile* h);
int iBldSmallFat(_MoxOleFile* h, const unsigned char* headerDifat);
int iBldDIF_Fat(_MoxOleFile* h, const unsigned char* headerDifat);
int iBldMiniFat(_MoxOleFile* h);
int iBldDirInfo(_MoxOleFile* h);

// --- FAT lookup and the chain loop guard -------------------------------
// Next sector after `sector`; *found is 0 (and `sector` is returned) when
// the sector has no FAT entry.
int64_t lGetSect(_MoxOleFile* h, int64_t sector, int* found);
void vSectorCheckConstructor(_MoxOleFile* h);
int bSectorCheckForInfiniteLoop(_MoxOleFile* h, int64_t current, int64_t next);

// Number of sectors the loaded FAT describes: no chain that visits each
// sector once can be longer, so it bounds every walk over FAT links.
int64_t moxFatSectorCapacity(const _MoxOleFile* h);

// Seeks the handle's table I/O object to the start of `sector`.
int moxSeekSector(_MoxOleFile* h, int64_t sector);

#endif  // MOXOLEFIO_READER_READER_H_
