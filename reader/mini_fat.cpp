// The mini FAT: the chain table of the 64-byte sectors inside the mini
// stream, widened to 64-bit entries once at load.
#include <string.h>

#include "interface/mox_memory.h"
#include "reader/reader.h"

namespace {

void dropMiniFat(_MoxOleFile* h) {
  moxFree(h->pTableMemory, h->plMiniFat);
  h->plMiniFat = nullptr;
}

// Reads the mini FAT sectors into `buffer` and decodes them.  0, or -1.
int readMiniFatChain(_MoxOleFile* h, unsigned char* buffer) {
  const int size = static_cast<int>(h->lSectorSize);
  const int perSector = h->iFatPerSector;
  int64_t sector = h->lMiniFatStart;
  for (int64_t k = 0; k < h->lMiniFatCount; ++k) {
    if (moxSeekSector(h, sector) != 0) {
      dropMiniFat(h);
      // A start before the file means "no mini FAT", not a broken file.
      return sector >= 0 ? -1 : 0;
    }
    unsigned char* raw = buffer + k * h->lSectorSize;
    if (h->pIo->read(h->pIo, raw, size) != size) {
      dropMiniFat(h);
      return -1;
    }
    int64_t* entries = h->plMiniFat + k * perSector;
    for (int i = 0; i < perSector; ++i) entries[i] = lGetLong(h->iByteOrder, raw + 4 * i);
    int found = 0;
    sector = lGetSect(h, sector, &found);
    if (!found) return -1;
    if (sector < 0 && k < h->lMiniFatCount - 1) return -1;
  }
  return 0;
}

}  // namespace

int iBldMiniFat(_MoxOleFile* h) {
  if (h->lMiniFatCount == 0) {
    h->plMiniFat = nullptr;
    return 0;
  }
  unsigned char* buffer = static_cast<unsigned char*>(
      moxAllocate(h->pTableMemory, h->lMiniFatCount, h->lSectorSize));
  h->plMiniFat = static_cast<int64_t*>(moxAllocate(
      h->pTableMemory, h->lMiniFatCount * h->iFatPerSector, sizeof(int64_t)));
  if (buffer == nullptr) {
    dropMiniFat(h);
    return -1;
  }
  if (h->plMiniFat == nullptr) {
    moxFree(h->pTableMemory, buffer);
    return -1;
  }
  memset(h->plMiniFat, 0, sizeof(int64_t) * h->lMiniFatCount * h->iFatPerSector);
  int result = readMiniFatChain(h, buffer);
  moxFree(h->pTableMemory, buffer);
  return result;
}
