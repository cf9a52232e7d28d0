// CMoxOleEntry: where one entry's bytes go in the file being planned.
#include "interface/mox_file.h"
#include "writer/entry.h"
#include "writer/sector_math.h"

// A stream's sectors are exactly its blocks, full or not, so the block
// count is also its sector count.
int CMoxOleEntry::assignStreamSectors(long& position, long* fat) {
  if (iType != kEntryStream) {
    lStartSector = kSectorEndOfChain;
    return MOXOLE_OK;
  }
  lStartSector = position / iBlockSize;
  moxChainRun(fat, lStartSector, iBlockCount);
  position += static_cast<long>(iBlockSize) * iBlockCount;
  return MOXOLE_OK;
}

// Mini sectors are handed out one after the other, stream after stream, in
// the order the caller visits the entries; the mini stream is later written
// in that same order, so the chain is always "the next mini sector".
int CMoxOleEntry::assignMiniStreamSectors(long& miniPosition) {
  if (iType != kEntryStream || lStreamSize == 0) {
    lStartSector = kSectorEndOfChain;
    return MOXOLE_OK;
  }
  const int64_t count = ceil_div(lStreamSize, static_cast<int64_t>(iMiniSectorSize));
  lMiniStartSector = miniPosition / iMiniSectorSize;
  // One value more than the chain needs, as the reader's sector lists have.
  plMiniSectors = static_cast<int64_t*>(pPool->allocateArray(
      pPool, static_cast<int>(sizeof(int64_t)), static_cast<int>(count + 1)));
  if (plMiniSectors == nullptr) return MOXOLE_NO_MEMORY;
  miniPosition += iMiniSectorSize;
  for (int64_t i = 0; i < count - 1; ++i) {
    plMiniSectors[i] = miniPosition / iMiniSectorSize;
    miniPosition += iMiniSectorSize;
  }
  plMiniSectors[count - 1] = kSectorEndOfChain;
  lMiniSectorCount = count;
  return MOXOLE_OK;
}

int CMoxOleEntry::collectMiniFATSectors(long* table, long entries) {
  if (plMiniSectors == nullptr) return MOXOLE_OK;
  int64_t sector = lMiniStartSector;
  for (int64_t i = 0; i < lMiniSectorCount; ++i) {
    if (sector < 0 || sector >= entries) return MOXOLE_NO_MEMORY;
    table[sector] = plMiniSectors[i];
    sector = plMiniSectors[i];
  }
  return MOXOLE_OK;
}
