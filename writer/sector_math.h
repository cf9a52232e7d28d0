// Arithmetic of the sector layout, kept apart from the document so that the
// closed forms can be checked over whole ranges of sizes.
//
// The FAT must describe every sector of the file, its own sectors and the
// DIFAT's included, and the DIFAT must list every FAT sector that does not
// fit in the header.  Both sizes depend on each other; with 512-byte
// sectors they have a closed form instead of a fixed-point loop.
#ifndef MOXOLEFIO_WRITER_SECTOR_MATH_H_
#define MOXOLEFIO_WRITER_SECTOR_MATH_H_

#include <stdint.h>

#include "format/records.h"

// Rounding-up division; b must be positive.
inline int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }
inline uint64_t ceil_div(uint64_t a, uint64_t b) { return (a + b - 1) / b; }

// FAT sectors the header itself lists; the rest go to DIFAT sectors, which
// hold one number less than a FAT sector's links (the last links on).
constexpr int64_t kHeaderFatSlots = moxfmt::kHeaderFatSlots;

struct MoxFatSizes {
  int64_t fatSectors;    // f
  int64_t difatSectors;  // d
};

// f and d for a file whose other sectors (directory, streams, mini stream,
// mini FAT) number `others`, with `perSector` FAT entries per sector (128).
// Afterwards f * perSector >= others + d + f, and the DIFAT sectors hold
// the f - 109 FAT sector numbers beyond the header's.
MoxFatSizes moxSolveFatSizes(int64_t others, int64_t perSector);

// Chains count consecutive sectors from first: each entry points at the
// next sector and the last one ends the chain.  The caller keeps the run
// inside the table.
void moxChainRun(int64_t* table, int64_t first, int64_t count);

#endif  // MOXOLEFIO_WRITER_SECTOR_MATH_H_
