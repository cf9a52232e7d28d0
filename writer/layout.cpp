// CMoxOleDocument: planning every sector of the file before writing it.
//
// Nothing reaches the host until the whole file is planned: the output is
// written front to back without seeking, so the FAT, which comes early,
// must already know where every stream will be.
#include "interface/mox_file.h"
#include "writer/moxoledoc.h"
#include "writer/sector_math.h"

// A regular stream's sector count is its block count; a small stream's
// mini sectors are counted here and packed eight to a sector in the mini
// stream.  Storages and the root have size 0 and count for nothing.
long CMoxOleDocument::countTableSectors(long& fatSectors, long& miniFatSectors,
                                       long& difatSectors) {
  const int64_t sector = sectorSize();
  const int64_t miniSector = int64_t{1} << pHeader->mini_sector_shift;
  int64_t regular = 0;
  int64_t mini = 0;
  for (int64_t i = 0; i < vEntries.size(); ++i) {
    const int64_t size = vEntries[i]->lStreamSize;
    if (size >= miniCutoff()) {
      regular += ceil_div(size, sector);
    } else if (size > 0) {
      mini += ceil_div(size, miniSector);
    }
  }
  miniFatSectors = ceil_div(mini, fatPerSector());
  const int64_t miniStreamSectors = ceil_div(mini, sector / miniSector);
  const int64_t others = directorySectors() + regular + miniStreamSectors + miniFatSectors;
  const MoxFatSizes sizes = moxSolveFatSizes(others, fatPerSector());
  difatSectors = sizes.difatSectors;
  fatSectors = sizes.fatSectors;
  return fatSectors;
}

bool CMoxOleDocument::setUpRegions(long fatSectors, long miniFatSectors, long difatSectors,
                                   long& position) {
  if (!vFat.assign(fatSectors * fatPerSector(), kSectorFree)) return false;
  for (long i = 0; i < difatSectors; ++i) vFat[i] = kSectorDifat;
  for (long i = 0; i < fatSectors; ++i) vFat[difatSectors + i] = kSectorFat;

  pHeader->fat_sector_count = static_cast<uint32_t>(fatSectors);
  position = (difatSectors + fatSectors) * sectorSize();
  if (miniFatSectors > 0) {
    pHeader->mini_fat_start = static_cast<uint32_t>(sectorAt(position));
    pHeader->mini_fat_count = static_cast<uint32_t>(miniFatSectors);
  }
  position += miniFatSectors * sectorSize();
  pHeader->dir_start = static_cast<uint32_t>(sectorAt(position));
  if (difatSectors > 0) {
    pHeader->difat_start = 0;
    pHeader->difat_count = static_cast<uint32_t>(difatSectors);
  }
  return true;
}

void CMoxOleDocument::fillHeaderDifat(long fatSectors, long difatSectors) {
  for (long i = 0; i < static_cast<long>(moxfmt::kHeaderFatSlots); ++i) {
    pHeader->fat_slots[i] = static_cast<uint32_t>(i < fatSectors ? difatSectors + i : kSectorFree);
  }
}

int64_t CMoxOleDocument::directorySectors() const {
  const uint64_t entries = static_cast<uint64_t>(vEntries.size()) + 1;
  const uint64_t perSector = static_cast<uint64_t>(sectorSize()) / moxfmt::kEntrySize;
  return static_cast<int64_t>(ceil_div(entries, perSector));
}

void CMoxOleDocument::assignDirectorySectors(long& position) {
  const int64_t count = directorySectors();
  moxChainRun(vFat.data(), sectorAt(position), count);
  position += sectorSize() * count;
}

// Regular streams first, then the small ones packed into the mini stream,
// each group in creation order; the file writer visits them the same way.
int CMoxOleDocument::assignSectors(long& position) {
  assignDirectorySectors(position);
  for (int64_t i = 0; i < vEntries.size(); ++i) {
    CMoxOleEntry* entry = vEntries[i];
    if (entry->lStreamSize < miniCutoff()) continue;
    int status = entry->assignStreamSectors(position, vFat.data());
    if (status != MOXOLE_OK) return status;
  }
  long miniPosition = 0;
  for (int64_t i = 0; i < vEntries.size(); ++i) {
    CMoxOleEntry* entry = vEntries[i];
    if (entry->lStreamSize >= miniCutoff()) continue;
    int status = entry->assignMiniStreamSectors(miniPosition);
    if (status != MOXOLE_OK) return status;
  }
  if (miniPosition > 0) {
    const int64_t first = sectorAt(position);
    const int64_t count = ceil_div(static_cast<int64_t>(miniPosition), sectorSize());
    pRootEntry->lStartSector = first;
    moxChainRun(vFat.data(), first, count);
    position += count * sectorSize();
  }
  return MOXOLE_OK;
}
