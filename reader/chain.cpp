// Building the current stream's sector list from the FAT or the mini FAT.
//
// A chain is walked twice over tables already in memory: once to check it
// and count its sectors, once to store them into a list of exactly that
// size.  Both walks follow links read from the file, so the count pass is
// bounded twice over: by the loop guard, which catches a return to any of
// the first 128 sectors jumped back to, and by the number of sectors the
// table can describe, which no chain visiting each sector once can exceed.

#include "interface/mox_memory.h"
#include "reader/reader.h"
#include "reader/stream.h"

namespace {

// Where the links of a chain are looked up.
enum LinkSource {
  kLinksInFat,
  kLinksInMiniFat,
  kLinksNowhere,  // a mini chain under the exact rules, without a mini FAT
};

// Where a chain's links come from and what its sectors are.  The tables
// are copied out of the handle once per walk: a stream of a million
// sectors looks up a million links twice.
struct ChainWalk {
  _MoxOleFile* h;
  MoxChainRules rules;
  bool mini;          // the sectors are mini sectors
  LinkSource links;
  int64_t bound;      // most sectors a chain without a cycle can have
  MoxFatView fat;
  const int64_t* miniFat;
  int64_t miniFatEntries;
};

int64_t miniFatEntries(const _MoxOleFile* h) {
  return h->plMiniFat == nullptr ? 0 : h->lMiniFatCount * h->iFatPerSector;
}

bool endsChain(int64_t link) { return link == kSectorEndOfChain || link == kSectorFat; }

// The link after `sector`; false when the chain is broken there.
inline bool nextLink(const ChainWalk& w, int64_t sector, int64_t* link) {
  if (w.links == kLinksInMiniFat) {
    if (sector < 0 || sector >= w.miniFatEntries) return false;
    *link = w.miniFat[sector];
    return true;
  }
  if (w.links == kLinksNowhere) return false;
  int64_t next = 0;
  if (!w.fat.next(sector, &next)) return false;
  // Some writers end chains with a free link; only the exact rules refuse.
  if (next == kSectorFree && w.rules == kChainLenient) next = kSectorEndOfChain;
  *link = next;
  return true;
}

// Sets up the walk for a stream entry; false when it cannot be walked.
bool planWalk(_MoxOleFile* h, const _MoxOleDirInfo& d, MoxChainRules rules, ChainWalk* w) {
  w->h = h;
  w->rules = rules;
  w->mini = d.lSize < h->lMiniCutoff;
  // lRootStart stays -1 when no root entry was read: there is no mini
  // stream to hold the sectors.
  if (w->mini && h->lRootStart == -1) return false;
  w->links = kLinksInFat;
  if (w->mini && h->plMiniFat != nullptr) {
    w->links = kLinksInMiniFat;
  } else if (w->mini && rules == kChainExact) {
    // Only an empty stream, which has no link to look up, gets through.
    w->links = kLinksNowhere;
  }
  w->bound = w->links == kLinksInMiniFat ? miniFatEntries(h) : moxFatSectorCapacity(h);
  w->miniFat = h->plMiniFat;
  w->miniFatEntries = miniFatEntries(h);
  return true;
}

// The sector after `sector` given its link.  Chains are mostly runs of
// consecutive sectors; continuing at sector + 1 on a predicted branch lets
// the processor fetch the next link before this one has arrived, where
// taking the loaded value would make every step wait for the last load.
inline int64_t followLink(int64_t sector, int64_t link) {
  if (__builtin_expect(link == sector + 1, 1)) {
    // The empty asm hides that the result equals the loaded value, so that
    // the compiler computes it from `sector` instead of reusing `link`.
    int64_t base = sector;
    asm("" : "+r"(base));
    return base + 1;
  }
  return link;
}

// Results of the count pass besides a count.
constexpr int64_t kBroken = -1;
constexpr int64_t kCircle = -2;

// The count pass: the number of sectors from `start`, kBroken or kCircle.
int64_t countSectors(const ChainWalk& w, int64_t start) {
  vSectorCheckConstructor(w.h);
  if (endsChain(start)) return 0;
  int64_t count = 0;
  for (int64_t sector = start;;) {
    int64_t link = 0;
    if (!nextLink(w, sector, &link)) return kBroken;
    // The guard neither reports nor records a forward step.
    if (link <= sector && bSectorCheckForInfiniteLoop(w.h, sector, link)) return kCircle;
    if (++count > w.bound) return kCircle;
    if (endsChain(link)) return count;
    sector = followLink(sector, link);
  }
}

bool lengthFits(const ChainWalk& w, int64_t size, int64_t sectors) {
  const int64_t unit = w.mini ? w.h->lMiniSectorSize : w.h->lSectorSize;
  if (w.rules == kChainExact) return sectors == (size + unit - 1) / unit;
  return size <= sectors * unit;
}

int64_t* chainSlot(const _MoxOleFile* h, int64_t index) {
  return index < kChainFirstPart ? &h->plChain[index] : &h->plChainMore[index - kChainFirstPart];
}

// Allocates a list of `entries` entries in the split layout.
bool allocateList(_MoxOleFile* h, int64_t entries) {
  const int64_t first = entries < kChainFirstPart ? entries : kChainFirstPart;
  h->plChain = static_cast<int64_t*>(moxAllocate(h->pMemory, first, sizeof(int64_t)));
  if (h->plChain == nullptr) return false;
  if (entries < kChainFirstPart) return true;
  h->plChainMore = static_cast<int64_t*>(
      moxAllocate(h->pMemory, entries - kChainFirstPart, sizeof(int64_t)));
  if (h->plChainMore != nullptr) return true;
  moxReleaseChain(h);
  return false;
}

// Stores `count` sectors of the chain from `sector` on into `out` and
// returns the sector that follows them.  The walk is copied so that the
// compiler can see the stores into the list never change it.
int64_t storeRun(ChainWalk walk, int64_t sector, int64_t count, int64_t* out) {
  for (int64_t i = 0; i < count; ++i) {
    out[i] = sector;
    int64_t link = 0;
    nextLink(walk, sector, &link);
    sector = followLink(sector, link);
  }
  return sector;
}

// The fill pass: the count pass has already proved every step.
void storeSectors(const ChainWalk& w, int64_t start, int64_t sectors) {
  const int64_t inFirst = sectors < kChainFirstPart ? sectors : kChainFirstPart;
  const int64_t next = storeRun(w, start, inFirst, w.h->plChain);
  if (sectors > inFirst) storeRun(w, next, sectors - inFirst, w.h->plChainMore);
  *chainSlot(w.h, sectors) = kSectorEndOfChain;
}

// Checks entry `entry` and counts its chain: the sector count, or -1 with
// the reason recorded.
int64_t checkChain(_MoxOleFile* h, int64_t entry, MoxChainRules rules, ChainWalk* w) {
  if (entry < 0 || entry >= h->iDirCount) return moxFail(h, MoxReason::kNoSuchEntry, entry);
  const _MoxOleDirInfo& d = h->pDir[entry];
  if (d.byType != kEntryStream) return moxFail(h, MoxReason::kNotAStream, entry);
  if (!planWalk(h, d, rules, w)) return moxFail(h, MoxReason::kNoMiniStream, entry);
  const int64_t sectors = countSectors(*w, d.lStart);
  if (sectors == kBroken) return moxFail(h, MoxReason::kChainBroken, entry);
  if (sectors == kCircle) return moxFail(h, MoxReason::kChainCycle, entry);
  if (!lengthFits(*w, d.lSize, sectors)) return moxFail(h, MoxReason::kChainTooShort, entry);
  return sectors;
}

}  // namespace

bool moxReleaseChain(_MoxOleFile* h) {
  const bool had = h->plChain != nullptr;
  moxFree(h->pMemory, h->plChain);
  moxFree(h->pMemory, h->plChainMore);
  h->plChain = nullptr;
  h->plChainMore = nullptr;
  return had;
}

int moxBuildChain(_MoxOleFile* h, int64_t entry, MoxChainRules rules) {
  ChainWalk walk = {h, rules, false, kLinksNowhere, 0, MoxFatView(h), nullptr, 0};
  const int64_t sectors = checkChain(h, entry, rules, &walk);
  // The old stream goes whether or not the new one can be built, so that a
  // failed open never leaves a stale stream looking current.
  moxReleaseChain(h);
  if (sectors < 0) return -1;
  if (!allocateList(h, sectors + 1)) return moxFail(h, MoxReason::kNoMemory);
  const _MoxOleDirInfo& d = h->pDir[entry];
  storeSectors(walk, d.lStart, sectors);
  h->lStreamSize = d.lSize;
  h->iInMini = walk.mini ? 1 : 0;
  return 0;
}
