// Where the mini stream's sectors lie in the file.
//
// Locating mini sector m means following m / lMiniPerSector FAT links from
// the root's start sector.  Done afresh on every seek that costs a walk of
// the chain per 64-byte piece read, quadratic in the mini stream's size, so
// the chain is walked once and kept in the handle.  When that memory cannot
// be had the walk is simply made each time: the answers are the same.
#include "interface/mox_memory.h"
#include "reader/reader.h"
#include "reader/stream.h"

namespace {

// Follows the chain from lRootStart, storing up to `limit` sectors into
// `out` (when given); returns how many sectors the chain has before a link
// cannot be looked up, bounded by `limit`.
int64_t walkMiniStream(_MoxOleFile* h, int64_t limit, int64_t* out) {
  int64_t current = h->lRootStart;
  int64_t count = 0;
  while (count < limit) {
    if (out != nullptr) out[count] = current;
    ++count;
    int found = 0;
    current = lGetSect(h, current, &found);
    if (!found) break;
  }
  return count;
}

bool walkSteps(_MoxOleFile* h, int64_t steps, int64_t* sector) {
  int64_t current = h->lRootStart;
  for (int64_t i = 0; i < steps; ++i) {
    int found = 0;
    current = lGetSect(h, current, &found);
    if (!found) return false;
  }
  *sector = current;
  return true;
}

void remember(_MoxOleFile* h) {
  const int64_t limit = moxFatSectorCapacity(h) + 1;
  const int64_t count = walkMiniStream(h, limit, nullptr);
  int64_t* sectors = static_cast<int64_t*>(moxAllocate(h->pMemory, count, sizeof(int64_t)));
  if (sectors == nullptr) return;
  walkMiniStream(h, count, sectors);
  h->plMiniStreamSectors = sectors;
  h->lMiniStreamSectors = count;
}

}  // namespace

bool moxMiniStreamSectorSlow(_MoxOleFile* h, int64_t steps, int64_t* sector) {
  if (steps < 0 || steps > moxFatSectorCapacity(h)) return false;
  if (h->plMiniStreamSectors == nullptr) remember(h);
  if (h->plMiniStreamSectors == nullptr) return walkSteps(h, steps, sector);
  if (steps >= h->lMiniStreamSectors) return false;
  *sector = h->plMiniStreamSectors[steps];
  return true;
}

void moxForgetMiniStream(_MoxOleFile* h) {
  moxFree(h->pMemory, h->plMiniStreamSectors);
  h->plMiniStreamSectors = nullptr;
  h->lMiniStreamSectors = 0;
}
