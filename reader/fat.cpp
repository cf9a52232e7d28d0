// The FAT: loaded from the header's slots and along the DIFAT chain, then
// looked up entry by entry in the document's byte order.
//
// Beyond the header's slots the header's count is checked against nothing
// but the sectors themselves, so the table of FAT sectors grows as sectors
// are loaded instead of being taken at the size the header claims: a file
// of a few kilobytes that claims a FAT of a million sectors fails at its
// first missing sector, having taken memory only for what it really holds.
#include <string.h>

#include "format/records.h"
#include "interface/host_table.h"
#include "reader/reader.h"

namespace {

constexpr int64_t kHeaderSlots = moxfmt::kHeaderFatSlots;

// What a short read of a FAT sector means while loading from the header.
enum class ShortRead { kFail, kTolerate };

using FatTable = MoxTable<unsigned char*>;

// Frees every sector buffer the table holds (empty slots are null).
void freeSectors(_MoxOleFile* h, const FatTable& table) {
  for (int64_t i = 0; i < table.capacity(); ++i) moxFree(h->pTableMemory, table[i]);
}

// Loads FAT sector `sector` into slot `slot`.  Returns 0 when the slot is
// loaded, 1 when the FAT ends early at this slot (tolerated short read),
// -1 on failure.
int loadFatSector(_MoxOleFile* h, FatTable& table, int64_t slot, int64_t sector,
                  ShortRead rule) {
  if (!table.reserve(slot + 1)) return moxFail(h, MoxReason::kNoMemory);
  if (moxSeekSector(h, sector) != 0) return moxFail(h, MoxReason::kFatSectorUnreadable, sector);
  unsigned char* buffer =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (buffer == nullptr) return moxFail(h, MoxReason::kNoMemory);
  table[slot] = buffer;
  const bool last = slot == h->lFatCount - 1;
  if (last) memset(buffer, 0, h->lSectorSize);
  const int size = static_cast<int>(h->lSectorSize);
  if (h->pIo->read(h->pIo, buffer, size) == size) return 0;
  if (rule == ShortRead::kFail) return moxFail(h, MoxReason::kFatSectorUnreadable, sector);
  // A file cut inside its FAT: the last slot keeps what was read (the rest
  // reads as zeros); a middle slot ends the FAT there, zeroed; the first
  // slot with more to come cannot be trusted at all.
  if (last) return 0;
  if (slot == 0) return moxFail(h, MoxReason::kFatSectorUnreadable, sector);
  h->lFatCount = slot + 1;
  memset(buffer, 0, h->lSectorSize);
  return 1;
}

// Hands a loaded table to the handle, or frees it with its sectors.
int finish(_MoxOleFile* h, FatTable& table, bool loaded) {
  if (!loaded) {
    freeSectors(h, table);
    return -1;
  }
  h->ppFat = table.release();
  return 0;
}

// The DIFAT chain's FAT sectors from slot kHeaderSlots on, read through
// `difat`, one sector long.  A chain that comes back to a DIFAT sector it
// has read fails: it could only list the same FAT sectors again, up to a
// count the header may claim in the millions.
bool loadAlongDifat(_MoxOleFile* h, FatTable& table, unsigned char* difat) {
  const int size = static_cast<int>(h->lSectorSize);
  const int perSector = h->iFatPerSector;
  int64_t loaded = kHeaderSlots;
  MoxCircleCheck circle(h->lDifatStart);
  for (;;) {
    if (moxSeekSector(h, h->lDifatStart) != 0 || h->pIo->read(h->pIo, difat, size) != size) {
      moxFail(h, MoxReason::kDifatSectorUnreadable, h->lDifatStart);
      return false;
    }
    if (loaded >= h->lFatCount) return true;
    for (int k = 0; k < perSector - 1 && loaded < h->lFatCount; ++k, ++loaded) {
      const int64_t sector = lGetLong(h->iByteOrder, difat + 4 * k);
      if (loadFatSector(h, table, loaded, sector, ShortRead::kFail) != 0) return false;
    }
    if (loaded >= h->lFatCount) return true;
    h->lDifatStart = lGetLong(h->iByteOrder, difat + 4 * (perSector - 1));
    if (circle.closes(h->lDifatStart)) {
      moxFail(h, MoxReason::kDifatCycle, h->lDifatStart);
      return false;
    }
  }
}

}  // namespace

int iBldSmallFat(_MoxOleFile* h, const uint32_t* headerSlots) {
  FatTable table(h->pTableMemory, MoxGrowth::kCopy, h->lFatCount);
  if (!table.allocate(h->lFatCount)) {
    if (h->lFatCount < 0) return moxFail(h, MoxReason::kFatCountImpossible, h->lFatCount);
    return moxFail(h, MoxReason::kNoMemory);
  }
  for (int64_t i = 0; i < h->lFatCount; ++i) {
    const int loaded =
        loadFatSector(h, table, i, moxSigned(headerSlots[i]), ShortRead::kTolerate);
    if (loaded < 0) return finish(h, table, false);
    if (loaded > 0) break;
  }
  return finish(h, table, true);
}

int iBldDIF_Fat(_MoxOleFile* h, const uint32_t* headerSlots) {
  if (h->lDifatStart <= kSectorFree && h->lDifatStart >= kSectorDifat) {
    return moxFail(h, MoxReason::kDifatStartInvalid, h->lDifatStart);
  }
  if (h->lDifatCount <= 0) return moxFail(h, MoxReason::kDifatCountInvalid, h->lDifatCount);
  // A count whose table no host could be asked for fails as its
  // allocation would.
  if (moxHostSize(h->lFatCount, sizeof(unsigned char*)) < 0) {
    return moxFail(h, MoxReason::kFatCountImpossible, h->lFatCount);
  }
  FatTable table(h->pTableMemory, MoxGrowth::kCopy, h->lFatCount);
  if (!table.allocate(kHeaderSlots)) return moxFail(h, MoxReason::kNoMemory);
  for (int64_t i = 0; i < kHeaderSlots; ++i) {
    if (loadFatSector(h, table, i, moxSigned(headerSlots[i]), ShortRead::kFail) != 0) {
      return finish(h, table, false);
    }
  }
  unsigned char* difat =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (difat == nullptr) {
    moxFail(h, MoxReason::kNoMemory);
    return finish(h, table, false);
  }
  const bool loaded = loadAlongDifat(h, table, difat);
  moxFree(h->pTableMemory, difat);
  return finish(h, table, loaded);
}

int64_t lGetSect(_MoxOleFile* h, int64_t sector, int* found) {
  int64_t link = 0;
  *found = MoxFatView(h).next(sector, &link) ? 1 : 0;
  return *found ? link : sector;
}

void vSectorCheckConstructor(_MoxOleFile* h) { h->iCheckCount = 0; }

int bSectorCheckForInfiniteLoop(_MoxOleFile* h, int64_t current, int64_t next) {
  if (next > current) return 0;
  if (next == current) return 1;
  for (int i = 0; i < h->iCheckCount; ++i) {
    if (h->alCheck[i] == next) return 1;
  }
  if (h->iCheckCount < kLoopGuardSlots) h->alCheck[h->iCheckCount++] = next;
  return 0;
}
