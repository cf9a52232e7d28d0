// The FAT: loaded from the header's 109 slots and along the DIFAT chain,
// then looked up entry by entry in the document's byte order.
//
// Beyond 109 FAT sectors the header's count is checked against nothing
// but the sectors themselves, so the table of FAT sectors grows as sectors
// are loaded instead of being taken at the size the header claims: a file
// of a few kilobytes that claims a FAT of a million sectors fails at its
// first missing sector, having taken memory only for what it really holds.
#include <string.h>

#include "interface/mox_memory.h"
#include "reader/reader.h"

namespace {

constexpr int64_t kHeaderDifatSlots = 109;

// What a short read of a FAT sector means while loading from the header.
enum class ShortRead { kFail, kTolerate };

// Allocates ppFat for `slots` sectors with every slot empty, so that a
// close after a partial load frees exactly the buffers that exist.
int allocateFatTable(_MoxOleFile* h, int64_t slots) {
  h->ppFat = static_cast<unsigned char**>(
      moxAllocate(h->pTableMemory, slots, sizeof(unsigned char*)));
  if (h->ppFat == nullptr) return -1;
  if (slots > 0) memset(h->ppFat, 0, sizeof(unsigned char*) * slots);
  return 0;
}

// Frees the buffers of the first `slots` slots and the table.
void freeFat(_MoxOleFile* h, int64_t slots) {
  if (h->ppFat == nullptr) return;
  for (int64_t i = 0; i < slots; ++i) moxFree(h->pTableMemory, h->ppFat[i]);
  moxFree(h->pTableMemory, h->ppFat);
  h->ppFat = nullptr;
}

int fail(_MoxOleFile* h, int64_t slots) {
  freeFat(h, slots);
  return -1;
}

// Makes room in the DIFAT path's table for slot `slot`, doubling it up to
// lFatCount; `slots` is the room there is.  0, or -1 when memory runs out.
int makeRoom(_MoxOleFile* h, int64_t* slots, int64_t slot) {
  if (slot < *slots) return 0;
  int64_t grown = *slots * 2;
  if (grown > h->lFatCount) grown = h->lFatCount;
  unsigned char** old = h->ppFat;
  if (allocateFatTable(h, grown) != 0) {
    h->ppFat = old;
    return -1;
  }
  memcpy(h->ppFat, old, sizeof(unsigned char*) * *slots);
  moxFree(h->pTableMemory, old);
  *slots = grown;
  return 0;
}

// Loads FAT sector `sector` into slot `slot`.  Returns 0 when the slot is
// loaded, 1 when the FAT ends early at this slot (tolerated short read),
// -1 on failure.
int loadFatSector(_MoxOleFile* h, int64_t slot, int64_t sector, ShortRead rule) {
  if (moxSeekSector(h, sector) != 0) return -1;
  unsigned char* buffer =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (buffer == nullptr) return -1;
  h->ppFat[slot] = buffer;
  const bool last = slot == h->lFatCount - 1;
  if (last) memset(buffer, 0, h->lSectorSize);
  const int size = static_cast<int>(h->lSectorSize);
  if (h->pIo->read(h->pIo, buffer, size) == size) return 0;
  if (rule == ShortRead::kFail) return -1;
  // A file cut inside its FAT: the last slot keeps what was read (the rest
  // reads as zeros); a middle slot ends the FAT there, zeroed; the first
  // slot with more to come cannot be trusted at all.
  if (last) return 0;
  if (slot == 0) return -1;
  h->lFatCount = slot + 1;
  memset(buffer, 0, h->lSectorSize);
  return 1;
}

}  // namespace

int iBldSmallFat(_MoxOleFile* h, const unsigned char* headerDifat) {
  if (allocateFatTable(h, h->lFatCount) != 0) return -1;
  for (int64_t i = 0; i < h->lFatCount; ++i) {
    int64_t sector = lGetLong(h->iByteOrder, headerDifat + 4 * i);
    int loaded = loadFatSector(h, i, sector, ShortRead::kTolerate);
    if (loaded < 0) return fail(h, h->lFatCount);
    if (loaded > 0) break;
  }
  return 0;
}

int iBldDIF_Fat(_MoxOleFile* h, const unsigned char* headerDifat) {
  if (h->lDifatStart <= -1 && h->lDifatStart >= -4) return -1;
  if (h->lDifatCount <= 0) return -1;
  // A count whose table no host could be asked for fails as its
  // allocation would.
  if (moxHostSize(h->lFatCount, sizeof(unsigned char*)) < 0) return -1;
  int64_t slots = kHeaderDifatSlots;
  if (allocateFatTable(h, slots) != 0) return -1;
  auto load = [&](int64_t slot, int64_t sector) {
    return makeRoom(h, &slots, slot) == 0 &&
           loadFatSector(h, slot, sector, ShortRead::kFail) == 0;
  };
  for (int64_t i = 0; i < kHeaderDifatSlots; ++i) {
    if (!load(i, lGetLong(h->iByteOrder, headerDifat + 4 * i))) return fail(h, slots);
  }
  unsigned char* difat =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (difat == nullptr) return fail(h, slots);

  // Every DIFAT sector yields at least one FAT sector (shifts are checked),
  // so the walk ends after at most lFatCount sectors even on a cyclic chain.
  const int size = static_cast<int>(h->lSectorSize);
  const int perSector = h->iFatPerSector;
  int64_t loaded = kHeaderDifatSlots;
  int result = 0;
  for (;;) {
    if (moxSeekSector(h, h->lDifatStart) != 0 || h->pIo->read(h->pIo, difat, size) != size) {
      result = -1;
      break;
    }
    if (loaded >= h->lFatCount) break;
    int k = 0;
    for (; k < perSector - 1 && loaded < h->lFatCount; ++k, ++loaded) {
      if (!load(loaded, lGetLong(h->iByteOrder, difat + 4 * k))) {
        result = -1;
        break;
      }
    }
    if (result != 0 || loaded >= h->lFatCount) break;
    h->lDifatStart = lGetLong(h->iByteOrder, difat + 4 * (perSector - 1));
  }
  moxFree(h->pTableMemory, difat);
  return result == 0 ? 0 : fail(h, slots);
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
