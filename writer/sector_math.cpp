#include "writer/sector_math.h"

#include "interface/mox_file.h"

// Every FAT sector has perSector slots of which one, in effect, describes
// itself, leaving K = perSector - 1 for the others.  Past 109 FAT sectors
// each DIFAT sector adds K more FAT sectors, which describe K * K sectors,
// less the DIFAT sector itself.
MoxFatSizes moxSolveFatSizes(int64_t others, int64_t perSector) {
  const int64_t k = perSector - 1;
  const int64_t inHeader = kHeaderFatSlots * k;
  MoxFatSizes sizes;
  sizes.difatSectors = others > inHeader ? ceil_div(others - inHeader, k * k - 1) : 0;
  sizes.fatSectors = ceil_div(others + sizes.difatSectors, k);
  return sizes;
}

void moxChainRun(int64_t* table, int64_t first, int64_t count) {
  if (count <= 0) return;
  for (int64_t i = 0; i < count - 1; ++i) table[first + i] = first + i + 1;
  table[first + count - 1] = kSectorEndOfChain;
}
