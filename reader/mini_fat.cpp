// The mini FAT: the chain table of the 64-byte sectors inside the mini
// stream, widened to 64-bit entries once at load.
//
// The header's sector count is checked against nothing but the chain, so
// the table grows as sectors are read instead of being taken at the size
// the header claims: a small file that claims a mini FAT of a million
// sectors fails at its first missing sector, having taken memory only for
// what it really holds.  Each sector is decoded straight from a buffer of
// one sector.
#include <string.h>

#include "interface/mox_memory.h"
#include "reader/reader.h"

namespace {

void dropMiniFat(_MoxOleFile* h) {
  moxFree(h->pTableMemory, h->plMiniFat);
  h->plMiniFat = nullptr;
}

// Makes room in plMiniFat for the entries of mini FAT sector `k`, doubling
// the table up to lMiniFatCount sectors; `sectors` is the room there is.
// False when memory runs out.
bool makeRoom(_MoxOleFile* h, int64_t* sectors, int64_t k) {
  if (k < *sectors) return true;
  int64_t grown = *sectors == 0 ? 1 : *sectors * 2;
  if (grown > h->lMiniFatCount) grown = h->lMiniFatCount;
  const int64_t perSector = h->iFatPerSector;
  int64_t* table = static_cast<int64_t*>(
      moxAllocate(h->pTableMemory, grown * perSector, sizeof(int64_t)));
  if (table == nullptr) return false;
  const int64_t kept = *sectors * perSector;
  if (kept > 0) memcpy(table, h->plMiniFat, sizeof(int64_t) * kept);
  memset(table + kept, 0, sizeof(int64_t) * (grown * perSector - kept));
  moxFree(h->pTableMemory, h->plMiniFat);
  h->plMiniFat = table;
  *sectors = grown;
  return true;
}

// Reads the mini FAT sectors through `buffer`, one sector long, and
// decodes them.  0, or -1.
int readMiniFatChain(_MoxOleFile* h, unsigned char* buffer) {
  const int size = static_cast<int>(h->lSectorSize);
  const int perSector = h->iFatPerSector;
  int64_t room = 0;
  int64_t sector = h->lMiniFatStart;
  for (int64_t k = 0; k < h->lMiniFatCount; ++k) {
    if (moxSeekSector(h, sector) != 0) {
      dropMiniFat(h);
      // A start before the file means "no mini FAT", not a broken file.
      return sector >= 0 ? -1 : 0;
    }
    if (h->pIo->read(h->pIo, buffer, size) != size || !makeRoom(h, &room, k)) {
      dropMiniFat(h);
      return -1;
    }
    int64_t* entries = h->plMiniFat + k * perSector;
    for (int i = 0; i < perSector; ++i) entries[i] = lGetLong(h->iByteOrder, buffer + 4 * i);
    int found = 0;
    sector = lGetSect(h, sector, &found);
    if (!found) return -1;
    if (sector < 0 && k < h->lMiniFatCount - 1) return -1;
  }
  return 0;
}

}  // namespace

int iBldMiniFat(_MoxOleFile* h) {
  h->plMiniFat = nullptr;
  if (h->lMiniFatCount == 0) return 0;
  // Counts whose tables no host could be asked for (negative, or past 31
  // bits) fail as their allocations would.
  if (moxHostSize(h->lMiniFatCount, h->lSectorSize) < 0 ||
      moxHostSize(h->lMiniFatCount * h->iFatPerSector, sizeof(int64_t)) < 0) {
    return -1;
  }
  unsigned char* buffer =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (buffer == nullptr) return -1;
  int result = readMiniFatChain(h, buffer);
  moxFree(h->pTableMemory, buffer);
  return result;
}
