// The reader's internal steps, shared between its files and the interface.
//
// Everything here works on a handle whose tables were loaded by the three
// loading steps (header and FAT, mini FAT, directory).  Results follow one
// convention: 0 success, -1 failure, unless a comment says otherwise.
#ifndef MOXOLEFIO_READER_READER_H_
#define MOXOLEFIO_READER_READER_H_

#include <stdint.h>

#include "interface/failure.h"
#include "interface/mox_file.h"
#include "reader/byte_order.h"

// --- Loading ------------------------------------------------------------
// Loads a zero-filled handle whose pIo, pTableMemory and pMemory are set:
// header and FAT, then mini FAT, then directory, each step only when the
// one before succeeded.  0, or -1 with the tables of the steps that ran
// left for the handle's close.
int moxLoadDocument(_MoxOleFile* h);

// The steps.  The FAT builders take the header's FAT sector slots, as
// stored (moxfmt::kHeaderFatSlots of them).
int iParseHeader(_MoxOleFile* h);
int iBldSmallFat(_MoxOleFile* h, const uint32_t* headerSlots);
int iBldDIF_Fat(_MoxOleFile* h, const uint32_t* headerSlots);
int iBldMiniFat(_MoxOleFile* h);
int iBldDirInfo(_MoxOleFile* h);

// --- FAT lookup and the chain loop guard -------------------------------
// Next sector after `sector`; *found is 0 (and `sector` is returned) when
// the sector has no FAT entry.
int64_t lGetSect(_MoxOleFile* h, int64_t sector, int* found);

// The loaded FAT as a chain walk reads it.  The handle's fields are copied
// once, so that a walk over a million links keeps them in registers instead
// of reloading them around every store into a sector list; lookups answer
// exactly as lGetSect does.
class MoxFatView {
 public:
  explicit MoxFatView(const _MoxOleFile* h)
      : sectors_(h->ppFat),
        sectorCount_(h->lFatCount),
        perSector_(h->iFatPerSector),
        byteOrder_(moxByteOrder(h->iByteOrder)) {
    // Entries per FAT sector are a power of two in every file the header
    // step accepts; shifting then replaces a 64-bit division per link.
    const uint64_t per = static_cast<uint64_t>(perSector_);
    shift_ = perSector_ > 0 && (per & (per - 1)) == 0 ? __builtin_ctzll(per) : -1;
  }

  // The link after `sector`; false when the FAT has no entry for it (every
  // negative sector, the special values included).
  bool next(int64_t sector, int64_t* link) const {
    if (sector < 0 || perSector_ <= 0) return false;
    int64_t slot = 0;
    int64_t entry = 0;
    if (shift_ >= 0) {
      slot = sector >> shift_;
      entry = sector & (perSector_ - 1);
    } else {
      slot = sector / perSector_;
      entry = sector % perSector_;
    }
    if (slot >= sectorCount_) return false;
    *link = static_cast<int32_t>(moxfmt::get32(byteOrder_, sectors_[slot] + 4 * entry));
    return true;
  }

 private:
  unsigned char* const* sectors_;
  int64_t sectorCount_;
  int64_t perSector_;
  moxfmt::ByteOrder byteOrder_;
  int shift_;
};
// Notices that a chain read sector by sector has come back to a sector it
// passed, without remembering the sectors: the mark moves to the sector
// reached after 1, 2, 4, 8... steps (Brent's method), so a chain that runs
// into a circle is caught within a few times the length of the chain and
// its circle, and a chain without one never is.  The loader refuses such
// a chain, so that its work stays in proportion to the file, whatever
// count the header claims.
class MoxCircleCheck {
 public:
  explicit MoxCircleCheck(int64_t start) : mark_(start) {}

  // True when the step to `next` closes a circle.
  bool closes(int64_t next) {
    if (next == mark_) return true;
    if (++steps_ == span_) {
      mark_ = next;
      span_ *= 2;
      steps_ = 0;
    }
    return false;
  }

 private:
  int64_t mark_;
  int64_t span_ = 1;
  int64_t steps_ = 0;
};

void vSectorCheckConstructor(_MoxOleFile* h);
int bSectorCheckForInfiniteLoop(_MoxOleFile* h, int64_t current, int64_t next);

// Number of sectors the loaded FAT describes: no chain that visits each
// sector once can be longer, so it bounds every walk over FAT links.
inline int64_t moxFatSectorCapacity(const _MoxOleFile* h) {
  return h->lFatCount > 0 ? h->lFatCount * h->iFatPerSector : 0;
}

// Seeks the handle's table I/O object to the start of `sector`.
int moxSeekSector(_MoxOleFile* h, int64_t sector);

#endif  // MOXOLEFIO_READER_READER_H_
