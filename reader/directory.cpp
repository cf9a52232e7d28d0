// The directory: every entry of the directory chain, loaded once into
// _MoxOleDirInfo records that all later lookups work on.
//
// The chain is counted in the FAT before anything is read, and a FAT can
// chain far more sectors than the file holds; the table of records
// therefore grows as sectors are read, so that a chain running past the
// end of a small file fails there without having taken memory for all of
// it.
#include "format/records.h"
#include "interface/host_table.h"
#include "reader/reader.h"

namespace {

using moxfmt::EntryRecord;
using DirectoryTable = MoxTable<_MoxOleDirInfo>;

// Counts the sectors of the directory chain; -1 when it is broken.  A chain
// that visits each sector once cannot be longer than the sectors the FAT
// describes, so a longer walk is a cycle and fails instead of looping; the
// circle check usually notices one long before.
int64_t countDirectorySectors(_MoxOleFile* h) {
  const int64_t bound = moxFatSectorCapacity(h);
  int64_t sector = h->lDirStart;
  int64_t from = sector;  // the sector whose link led here
  int64_t count = 1;
  MoxCircleCheck circle(sector);
  for (;;) {
    int found = 0;
    int64_t next = lGetSect(h, sector, &found);
    if (!found) return moxFail(h, MoxReason::kDirectoryChainBroken, from);
    if (next == kSectorEndOfChain) return count;
    if (next == sector || count + 1 > bound || circle.closes(next)) {
      return moxFail(h, MoxReason::kDirectoryChainBroken, sector);
    }
    ++count;
    from = sector;
    sector = next;
  }
}

// Copies raw bytes as a zero-terminated string of at most `length`.
void copyString(char* out, const unsigned char* field, int length) {
  int i = 0;
  for (; i < length && field[i] != 0; ++i) out[i] = static_cast<char>(field[i]);
  out[i] = 0;
}

// The size as this reader has always taken it: the field's first stored
// 32-bit word, with sign (the low half in a little-endian file).
int64_t firstSizeWord(const EntryRecord& e, moxfmt::ByteOrder order) {
  const uint64_t word = order == moxfmt::ByteOrder::kLittle ? e.size : e.size >> 32;
  return moxSigned(static_cast<uint32_t>(word));
}

// Fills one record from its raw bytes.  -1 when the entry cannot be kept
// (a storage, stream or root whose name overflows its field).
int keepEntry(_MoxOleFile* h, const unsigned char* raw, int64_t index, _MoxOleDirInfo* d) {
  const moxfmt::ByteOrder order = moxByteOrder(h->iByteOrder);
  const EntryRecord e = moxfmt::decodeEntry(order, raw);
  d->uiNameLen = e.name_bytes;
  // The low byte of each UTF-16 unit, as far as the stored length reaches
  // (one byte further in a big-endian file, whose low bytes come second).
  // The 33rd is the low byte of the length field itself.
  const unsigned start = order == moxfmt::ByteOrder::kLittle ? 0 : 1;
  unsigned j = 0;
  for (; j <= moxfmt::kNameUnits && start + 2 * j <= d->uiNameLen; ++j) {
    const unsigned unit = j < moxfmt::kNameUnits ? e.name[j] : e.name_bytes;
    d->szName[j] = static_cast<char>(unit & 0xFF);
  }
  d->byType = e.type;
  d->byColour = e.colour;
  d->lIndex = index;
  d->lLeft = moxSigned(e.left);
  d->lRight = moxSigned(e.right);
  d->lChild = moxSigned(e.child);
  const bool named = d->byType == kEntryStorage || d->byType == kEntryStream ||
                     d->byType == kEntryRoot;
  if (d->uiNameLen != 0 && j == moxfmt::kNameUnits + 1 && d->uiNameLen >= start + 2 * j) {
    if (named) return -1;
    d->szName[0] = 0;
  }
  if (d->byType == kEntryStorage || d->byType == kEntryRoot) {
    copyString(d->szClsid, e.clsid, sizeof e.clsid);
    d->lState = moxSigned(e.state_bits);
    // The time stamps are kept as their stored bytes.
    copyString(d->szCreated, raw + moxfmt::entry_at::kCreated, 8);
    copyString(d->szModified, raw + moxfmt::entry_at::kModified, 8);
  }
  d->lStart = -1;
  d->lSize = 0;
  if (d->byType == kEntryStream || d->byType == kEntryRoot) {
    d->lStart = moxSigned(e.start);
    if (d->lStart < kSectorDifat) {
      d->lStart = kSectorEndOfChain;
    } else {
      d->lSize = firstSizeWord(e, order);
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

int readEntries(_MoxOleFile* h, DirectoryTable& table, int64_t total, int64_t perSector) {
  unsigned char raw[moxfmt::kEntrySize];
  const int size = static_cast<int>(sizeof raw);
  int64_t sector = h->lDirStart;
  for (int64_t i = 0; i < total; ++i) {
    if (h->pIo->read(h->pIo, raw, size) != size) {
      return moxFail(h, MoxReason::kDirectorySectorUnreadable, sector);
    }
    if (!table.reserve(i + 1)) return moxFail(h, MoxReason::kNoMemory);
    if (keepEntry(h, raw, i, &table[i]) != 0) return moxFail(h, MoxReason::kEntryNameTooLong, i);
    h->iDirCount = static_cast<int32_t>(i + 1);
    if ((i + 1) % perSector != 0) continue;
    int found = 0;
    const int64_t read = sector;
    sector = lGetSect(h, sector, &found);
    if (!found) return moxFail(h, MoxReason::kDirectoryChainBroken, read);
    if (sector == kSectorEndOfChain) break;
    if (moxSeekSector(h, sector) != 0) {
      return moxFail(h, MoxReason::kDirectorySectorUnreadable, sector);
    }
  }
  return 0;
}

}  // namespace

int iBldDirInfo(_MoxOleFile* h) {
  const int64_t sectors = countDirectorySectors(h);
  if (sectors < 0) return -1;
  const int64_t perSector = h->lSectorSize / static_cast<int64_t>(moxfmt::kEntrySize);
  const int64_t total = sectors * perSector;
  // A table no host could be asked for fails as its allocation would.
  if (moxHostSize(total, sizeof(_MoxOleDirInfo)) < 0) {
    return moxFail(h, MoxReason::kDirectoryTooLarge, sectors);
  }
  DirectoryTable table(h->pTableMemory, MoxGrowth::kCopy, total);
  // The first sector's records, or all of them when that is less.
  if (!table.allocate(perSector < total ? perSector : total)) {
    return moxFail(h, MoxReason::kNoMemory);
  }
  h->iDirCount = 0;
  if (moxSeekSector(h, h->lDirStart) != 0) {
    return moxFail(h, MoxReason::kDirectorySectorUnreadable, h->lDirStart);
  }
  if (readEntries(h, table, total, perSector) != 0) {
    h->iDirCount = 0;
    return -1;
  }
  h->pDir = table.release();
  cleanLinks(h);
  return 0;
}
