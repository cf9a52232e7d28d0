// CMoxOleDocument: writing the planned file, front to back, in one pass.
#include "interface/mox_file.h"
#include "writer/moxoledoc.h"
#include "writer/sector_math.h"

int CMoxOleDocument::writeDisk() {
  if ((iMode & kDocumentWritable) == 0 || pOleIo == nullptr) return MOXOLE_NOT_FOUND;
  long fatSectors = 0;
  long miniFatSectors = 0;
  long difatSectors = 0;
  countTableSectors(fatSectors, miniFatSectors, difatSectors);
  long position = 0;
  if (!setUpRegions(fatSectors, miniFatSectors, difatSectors, position)) {
    return MOXOLE_NO_MEMORY;
  }
  int status = assignSectors(position);
  if (status != MOXOLE_OK) return status;
  fillHeaderDifat(fatSectors, difatSectors);

  const long perSector = static_cast<long>(fatPerSector());
  status = writeHeader();
  if (status == MOXOLE_OK) status = writeDIFATSectors(fatSectors - kHeaderFatSlots, difatSectors);
  if (status == MOXOLE_OK) {
    status = writeFATSectors(fatSectors * perSector, miniFatSectors * perSector, miniFatSectors);
  }
  if (status == MOXOLE_OK) status = writeDirSectors();
  if (status == MOXOLE_OK) status = writeStreamSectors();
  return status;
}

int CMoxOleDocument::writeHeader() { return pHeader->writeDisk(pOleIo); }

// The FAT sectors start right after the DIFAT sectors, at sector d, so FAT
// sector 109 (the first one the header has no slot for) is sector d + 109.
// DIFAT sector j is sector j, which makes its link simply j + 1.
int CMoxOleDocument::writeDIFATSectors(long rest, long difatSectors) {
  const long perSector = static_cast<long>(fatPerSector());
  const long numbersPerSector = perSector - 1;
  long values = difatSectors * perSector;
  long next = difatSectors + kHeaderFatSlots;
  long links = 0;
  int status = MOXOLE_OK;
  for (long i = 0; i < values && status == MOXOLE_OK; ++i) {
    if (i >= rest) {
      status = pOleIo->write4ByteInt(kSectorEndOfChain);
      continue;
    }
    if (i > 0 && i % numbersPerSector == 0) {
      status = pOleIo->write4ByteInt(++links);
      --values;  // the link took one of the slots
      if (status != MOXOLE_OK) break;
    }
    status = pOleIo->write4ByteInt(next++);
  }
  return status;
}

int CMoxOleDocument::writeFATSectors(long fatEntries, long miniEntries, long miniFatSectors) {
  if (fatEntries == 0) return MOXOLE_OK;
  if (miniEntries > 0) {
    // Only the header and the DIFAT sectors precede the FAT, so the output
    // position says where the mini FAT, which follows the FAT, begins.
    const int64_t first = (pOleIo->getPos() + 4 * fatEntries - sectorSize()) / sectorSize();
    if (first < 0 || first + miniFatSectors > vFat.size()) return MOXOLE_NO_MEMORY;
    moxChainRun(vFat.data(), first, miniFatSectors);
  }
  int status = MOXOLE_OK;
  for (long i = 0; i < fatEntries && status == MOXOLE_OK; ++i) {
    status = pOleIo->write4ByteInt(vFat[i]);
  }
  if (status != MOXOLE_OK || miniEntries == 0) return status;

  MoxTable<int64_t> miniFat(moxProcessHeap(), MoxGrowth::kCopy);
  if (!miniFat.assign(miniEntries, kSectorFree)) return MOXOLE_NO_MEMORY;
  for (int64_t i = 0; i < vEntries.size(); ++i) {
    status = vEntries[i]->collectMiniFATSectors(miniFat.data(), miniEntries);
    if (status != MOXOLE_OK) return status;
  }
  long inUse = 0;
  for (long i = 0; i < miniEntries && status == MOXOLE_OK; ++i) {
    if (miniFat[i] != kSectorFree) ++inUse;
    status = pOleIo->write4ByteInt(miniFat[i]);
  }
  if (status != MOXOLE_OK) return status;
  pRootEntry->setStreamSize(inUse * pRootEntry->iMiniSectorSize);
  return MOXOLE_OK;
}

// Entries were numbered at creation; flattening every storage's tree puts
// each one at its number and gives it the sibling links of its node.
int CMoxOleDocument::writeDirSectors() {
  int status = pRootEntry->writeDirEntry(pOleIo);
  const long count = static_cast<long>(vEntries.size());
  MoxTable<void*> table(moxProcessHeap(), MoxGrowth::kCopy);
  if (!table.assign(count + 1, nullptr)) return MOXOLE_NO_MEMORY;
  long index = 0;
  pRootEntry->Flatten(table.data(), count + 1, index);
  for (long i = 0; i < count; ++i) vEntries[i]->Flatten(table.data(), count + 1, index);
  for (long i = 1; i <= count && status == MOXOLE_OK; ++i) {
    CMoxOleEntry* entry = static_cast<CMoxOleEntry*>(table[i]);
    // Every slot is filled when each entry drew its number from the
    // document's counter; an empty one would still keep the layout.
    status = entry != nullptr ? entry->writeDirEntry(pOleIo)
                              : moxWriteZeros(pOleIo, moxfmt::kEntrySize);
  }
  const long entrySize = static_cast<long>(moxfmt::kEntrySize);
  const long perSector = static_cast<long>(sectorSize()) / entrySize;
  if (status == MOXOLE_OK && (count + 1) % perSector != 0) {
    status = moxWriteZeros(pOleIo, (perSector - (count + 1) % perSector) * entrySize);
  }
  return status;
}

int CMoxOleDocument::padTo(int64_t unit) {
  const int64_t used = pOleIo->getPos() % unit;
  return used == 0 ? MOXOLE_OK : moxWriteZeros(pOleIo, unit - used);
}

int CMoxOleDocument::writeStreamSectors() {
  int status = MOXOLE_OK;
  for (int64_t i = 0; i < vEntries.size() && status == MOXOLE_OK; ++i) {
    CMoxOleEntry* entry = vEntries[i];
    if (entry->lStreamSize >= miniCutoff()) status = entry->writeStreamEntry(pOleIo);
  }
  for (int64_t i = 0; i < vEntries.size() && status == MOXOLE_OK; ++i) {
    CMoxOleEntry* entry = vEntries[i];
    if (entry->lStreamSize < miniCutoff()) status = entry->writeMiniStreamEntry(pOleIo);
  }
  if (status == MOXOLE_OK) status = padTo(sectorSize());
  return status;
}
