// The directory: every 128-byte entry of the directory chain, loaded once
// into _MoxOleDirInfo records that all later lookups work on.
//
// The chain is counted in the FAT before anything is read, and a FAT can
// chain far more sectors than the file holds; the table of records
// therefore grows as sectors are read, so that a chain running past the
// end of a small file fails there without having taken memory for all of
// it.
#include <string.h>

#include "interface/mox_memory.h"
#include "reader/reader.h"

namespace {

constexpr int kEntrySize = 128;

// Counts the sectors of the directory chain; -1 when it is broken.  A chain
// that visits each sector once cannot be longer than the sectors the FAT
// describes, so a longer walk is a cycle and fails instead of looping.
int64_t countDirectorySectors(_MoxOleFile* h) {
  const int64_t bound = moxFatSectorCapacity(h);
  int64_t sector = h->lDirStart;
  int64_t count = 1;
  for (;;) {
    int found = 0;
    int64_t next = lGetSect(h, sector, &found);
    if (!found || next == sector) return -1;
    if (next == kSectorEndOfChain) return count;
    if (++count > bound) return -1;
    sector = next;
  }
}

// Copies a fixed field as a zero-terminated string of at most `length`.
void copyString(char* out, const unsigned char* field, int length) {
  int i = 0;
  for (; i < length && field[i] != 0; ++i) out[i] = static_cast<char>(field[i]);
  out[i] = 0;
}

// Fills one record from its 128 raw bytes.  -1 when the entry cannot be
// kept (a storage, stream or root whose name overflows its field).
int decodeEntry(_MoxOleFile* h, const unsigned char* raw, int64_t index, _MoxOleDirInfo* d) {
  const uint32_t order = h->iByteOrder;
  d->uiNameLen = uiGetShort(order, raw + 0x40);
  // The low byte of each UTF-16 unit: byte 0 of a unit when read
  // little-endian, byte 1 when read big-endian.
  const unsigned start = order == 1 ? 0 : 1;
  unsigned j = 0;
  for (; j <= 32 && start + 2 * j <= d->uiNameLen; ++j) {
    d->szName[j] = static_cast<char>(raw[start + 2 * j]);
  }
  d->byType = raw[0x42];
  d->byColour = raw[0x43];
  d->lIndex = index;
  d->lLeft = lGetLong(order, raw + 0x44);
  d->lRight = lGetLong(order, raw + 0x48);
  d->lChild = lGetLong(order, raw + 0x4C);
  const bool named = d->byType == kEntryStorage || d->byType == kEntryStream ||
                     d->byType == kEntryRoot;
  if (d->uiNameLen != 0 && j == 33 && d->uiNameLen >= start + 2 * j) {
    if (named) return -1;
    d->szName[0] = 0;
  }
  if (d->byType == kEntryStorage || d->byType == kEntryRoot) {
    copyString(d->szClsid, raw + 0x50, 16);
    d->lState = lGetLong(order, raw + 0x60);
    copyString(d->szCreated, raw + 0x64, 8);
    copyString(d->szModified, raw + 0x6C, 8);
  }
  d->lStart = -1;
  d->lSize = 0;
  if (d->byType == kEntryStream || d->byType == kEntryRoot) {
    d->lStart = lGetLong(order, raw + 0x74);
    if (d->lStart < kSectorDifat) {
      d->lStart = kSectorEndOfChain;
    } else {
      d->lSize = lGetLong(order, raw + 0x78);
      if (d->lSize < 0) d->lSize = 0;
    }
  }
  if (d->byType == kEntryRoot) h->lRootStart = d->lStart;
  return 0;
}

// Links to entries that do not exist become "none".
void cleanLinks(_MoxOleFile* h) {
  const int64_t count = h->iDirCount;
  for (int64_t i = 0; i < count; ++i) {
    _MoxOleDirInfo* d = &h->pDir[i];
    if (d->lLeft >= count) d->lLeft = -1;
    if (d->lRight >= count) d->lRight = -1;
    if (d->lChild < -1 || d->lChild >= count) d->lChild = -1;
  }
}

// Makes room in pDir for record `index`, doubling the table up to `total`
// records; `room` is the room there is.  New records are zero.  False when
// memory runs out.
bool makeRoom(_MoxOleFile* h, int64_t* room, int64_t index, int64_t total) {
  if (index < *room) return true;
  int64_t grown = *room * 2;
  if (grown < index + 1) grown = index + 1;
  if (grown > total) grown = total;
  _MoxOleDirInfo* table = static_cast<_MoxOleDirInfo*>(
      moxAllocate(h->pTableMemory, grown, sizeof(_MoxOleDirInfo)));
  if (table == nullptr) return false;
  memset(table, 0, sizeof(_MoxOleDirInfo) * grown);
  if (*room > 0) memcpy(table, h->pDir, sizeof(_MoxOleDirInfo) * *room);
  moxFree(h->pTableMemory, h->pDir);
  h->pDir = table;
  *room = grown;
  return true;
}

int readEntries(_MoxOleFile* h, int64_t total, int64_t perSector, int64_t room) {
  unsigned char raw[kEntrySize];
  int64_t sector = h->lDirStart;
  for (int64_t i = 0; i < total; ++i) {
    if (h->pIo->read(h->pIo, raw, kEntrySize) != kEntrySize) return -1;
    if (!makeRoom(h, &room, i, total)) return -1;
    ++h->iDirCount;
    if (decodeEntry(h, raw, i, &h->pDir[i]) != 0) return -1;
    if ((i + 1) % perSector != 0) continue;
    int found = 0;
    sector = lGetSect(h, sector, &found);
    if (!found) return -1;
    if (sector == kSectorEndOfChain) break;
    if (moxSeekSector(h, sector) != 0) return -1;
  }
  return 0;
}

}  // namespace

int iBldDirInfo(_MoxOleFile* h) {
  const int64_t sectors = countDirectorySectors(h);
  if (sectors < 0) return -1;
  const int64_t perSector = h->lSectorSize / kEntrySize;
  const int64_t total = sectors * perSector;
  // A table no host could be asked for fails as its allocation would.
  if (moxHostSize(total, sizeof(_MoxOleDirInfo)) < 0) return -1;
  // The first sector's records, or all of them when that is less.
  const int64_t room = perSector < total ? perSector : total;
  h->pDir = static_cast<_MoxOleDirInfo*>(
      moxAllocate(h->pTableMemory, room, sizeof(_MoxOleDirInfo)));
  if (h->pDir == nullptr) return -1;
  memset(h->pDir, 0, sizeof(_MoxOleDirInfo) * room);
  h->iDirCount = 0;
  if (moxSeekSector(h, h->lDirStart) != 0 || readEntries(h, total, perSector, room) != 0) {
    moxFree(h->pTableMemory, h->pDir);
    h->pDir = nullptr;
    h->iDirCount = 0;
    return -1;
  }
  cleanLinks(h);
  return 0;
}
