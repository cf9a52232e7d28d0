// The mini FAT: the chain table of the small sectors inside the mini
// stream, widened to 64-bit entries once at load.
//
// The header's sector count is checked against nothing but the chain, so
// the table grows as sectors are read instead of being taken at the size
// the header claims: a small file that claims a mini FAT of a million
// sectors fails at its first missing sector, having taken memory only for
// what it really holds.  Each sector is decoded straight from a buffer of
// one sector.
#include "interface/host_table.h"
#include "reader/reader.h"

namespace {

using MiniFatTable = MoxTable<int64_t>;

// Reads the mini FAT sectors through `buffer`, one sector long, and
// decodes them into `table`.  0, or -1; *keep says whether the table
// stays with the handle (until its close) or goes now.  A chain that comes
// back to a sector it has read fails, as one that breaks does: it could
// only repeat what was read, up to a count the header may claim in the
// millions.
int readMiniFatChain(_MoxOleFile* h, MiniFatTable& table, unsigned char* buffer, bool* keep) {
  const int size = static_cast<int>(h->lSectorSize);
  const int perSector = h->iFatPerSector;
  int64_t sector = h->lMiniFatStart;
  MoxCircleCheck circle(sector);
  *keep = true;
  for (int64_t k = 0; k < h->lMiniFatCount; ++k) {
    if (moxSeekSector(h, sector) != 0) {
      *keep = false;
      // A start before the file means "no mini FAT", not a broken file.
      return sector >= 0 ? moxFail(h, MoxReason::kMiniFatSectorUnreadable, sector) : 0;
    }
    if (h->pIo->read(h->pIo, buffer, size) != size) {
      *keep = false;
      return moxFail(h, MoxReason::kMiniFatSectorUnreadable, sector);
    }
    if (!table.reserve((k + 1) * perSector)) {
      *keep = false;
      return moxFail(h, MoxReason::kNoMemory);
    }
    int64_t* entries = table.data() + k * perSector;
    for (int i = 0; i < perSector; ++i) entries[i] = lGetLong(h->iByteOrder, buffer + 4 * i);
    int found = 0;
    const int64_t read = sector;
    sector = lGetSect(h, sector, &found);
    if (!found || (sector < 0 && k < h->lMiniFatCount - 1)) {
      return moxFail(h, MoxReason::kMiniFatChainBroken, read);
    }
    if (k < h->lMiniFatCount - 1 && circle.closes(sector)) {
      return moxFail(h, MoxReason::kMiniFatCycle, sector);
    }
  }
  return 0;
}

}  // namespace

int iBldMiniFat(_MoxOleFile* h) {
  h->plMiniFat = nullptr;
  if (h->lMiniFatCount == 0) return 0;
  // Counts whose tables no host could be asked for (negative, or past 31
  // bits) fail as their allocations would.
  const int64_t entries = h->lMiniFatCount * h->iFatPerSector;
  if (moxHostSize(h->lMiniFatCount, h->lSectorSize) < 0 ||
      moxHostSize(entries, sizeof(int64_t)) < 0) {
    return moxFail(h, MoxReason::kMiniFatCountImpossible, h->lMiniFatCount);
  }
  unsigned char* buffer =
      static_cast<unsigned char*>(moxAllocate(h->pTableMemory, 1, h->lSectorSize));
  if (buffer == nullptr) return moxFail(h, MoxReason::kNoMemory);
  MiniFatTable table(h->pTableMemory, MoxGrowth::kCopy, entries);
  bool keep = true;
  const int result = readMiniFatChain(h, table, buffer, &keep);
  // A chain that broke after its sectors were read leaves the table to the
  // handle's close, as it always has.
  if (keep) {
    h->plMiniFat = table.release();
  } else {
    moxFree(h->pTableMemory, table.release());
  }
  moxFree(h->pTableMemory, buffer);
  return result;
}
