// Name comparison, sibling-tree descents and directory scans.
#include "reader/lookup.h"

#include <string.h>

#include "format/records.h"

namespace {

const char kPresentationName[] = "\x02OlePres000";

// One step of a descent: the link to follow from `entry` once `wanted`
// has compared as `order` with the entry's name.
int64_t nextSibling(const _MoxOleFile* h, int64_t entry, int order) {
  const _MoxOleDirInfo& d = h->pDir[entry];
  return order < 0 ? d.lLeft : d.lRight;
}

}  // namespace

MoxName moxEntryName(const _MoxOleFile* h, int64_t index) {
  const char* name = h->pDir[index].szName;
  return MoxName{name, strnlen(name, sizeof h->pDir[index].szName)};
}

int64_t moxFindRoot(const _MoxOleFile* h) {
  const MoxName root = moxNameOf(moxfmt::kRootName);
  for (int64_t i = 0; i < h->iDirCount; ++i) {
    if (h->pDir[i].byType == kEntryRoot || moxNamesEqual(moxEntryName(h, i), root, kNameExact)) {
      return i;
    }
  }
  return -1;
}

int64_t moxScanByName(const _MoxOleFile* h, MoxName name, int type, MoxNameRule rule) {
  for (int64_t i = 0; i < h->iDirCount; ++i) {
    if (type != kAnyType && h->pDir[i].byType != type) continue;
    if (moxNamesEqual(moxEntryName(h, i), name, rule)) return i;
  }
  return -1;
}

int64_t moxFindChildExact(const _MoxOleFile* h, int64_t storage, MoxName name) {
  if (!moxIsEntry(h, storage)) return -1;
  int64_t entry = h->pDir[storage].lChild;
  for (int32_t steps = 0; moxIsEntry(h, entry) && steps < h->iDirCount; ++steps) {
    const int order = moxSiblingOrder(name, moxEntryName(h, entry), kNameExact);
    if (order == 0) return entry;
    entry = nextSibling(h, entry, order);
  }
  return -1;
}

int64_t moxWalkStoragePath(const _MoxOleFile* h, const char (*path)[36], int depth) {
  // A handle of a new document has no directory, so no root to name.
  if (!moxIsEntry(h, 0)) return -1;
  if (path == nullptr || depth < 1) return 0;
  MoxName first = {path[0], strnlen(path[0], sizeof path[0])};
  if (moxNamesEqual(first, moxNameOf(moxfmt::kRootName), kNameExact)) return 0;
  int64_t storage = 0;
  for (int slot = 0; slot < depth; ++slot) {
    MoxName name = {path[slot], strnlen(path[slot], sizeof path[slot])};
    storage = moxFindChildExact(h, storage, name);
    if (storage < 0 || h->pDir[storage].byType != kEntryStorage) return -1;
  }
  return storage;
}

int64_t moxFindPresentationStream(const _MoxOleFile* h, int64_t storage) {
  if (!moxIsEntry(h, storage)) return -1;
  int64_t entry = h->pDir[storage].lChild;
  if (!moxIsEntry(h, entry)) return -1;
  if (h->pDir[entry].lRight == kSectorFree) return 0;
  const MoxName wanted = moxNameOf(kPresentationName);
  // Every entry but the last of the right spine is a candidate; the last
  // one's name is never looked at, and the one before it is the fallback.
  for (int32_t steps = 0; steps < h->iDirCount; ++steps) {
    if (moxNamesEqual(moxEntryName(h, entry), wanted, kNameExact)) return entry;
    const int64_t previous = entry;
    entry = h->pDir[entry].lRight;
    if (!moxIsEntry(h, entry)) return -1;
    if (h->pDir[entry].lRight == kSectorFree) return previous;
  }
  return -1;
}

int moxFindStreamInStorage(_MoxOleFile* h, const char* stream, int storage) {
  if (stream == nullptr || !moxIsEntry(h, storage)) return -1;
  const MoxName wanted = moxNameOf(stream);
  int64_t entry = static_cast<int32_t>(h->pDir[storage].lChild);
  if (!moxIsEntry(h, entry)) return -1;
  // A cyclic tree ends the descent as a missing link would: by the scan.
  for (int32_t steps = 0; steps < h->iDirCount; ++steps) {
    const int order = moxSiblingOrder(wanted, moxEntryName(h, entry), kNameTolerant);
    if (order == 0 && h->pDir[entry].byType == kEntryStream) return static_cast<int>(entry);
    entry = nextSibling(h, entry, order);
    if (entry < -1) {
      h->iError = MOXOLE_BAD_LINK;
      return -1;
    }
    if (entry == -1) break;
  }
  // The descent missed: the stream may be anywhere, or stored by a writer
  // that orders siblings differently.
  const int64_t found = moxScanByName(h, wanted, kEntryStream, kNameTolerant);
  return found >= 0 ? static_cast<int>(found) : h->iDirCount;
}
