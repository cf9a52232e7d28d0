// The children of one storage: their list in name order, and the type of
// one of them.
#include <string.h>

#include "format/records.h"
#include "interface/failure.h"
#include "interface/host_table.h"
#include "reader/lookup.h"
#include "reader/structure.h"

namespace {

// Left links are followed on a stack.  Well-formed trees are shallow and
// fit in the local part; a degenerate or damaged tree that leans left for
// thousands of entries spills into a host allocation instead of the
// machine stack.
constexpr int kLocalDepth = 64;

struct EntryStack {
  HostMemory* memory;
  int32_t local[kLocalDepth];
  int32_t* items = local;
  int64_t size = 0;
  int64_t capacity = kLocalDepth;

  explicit EntryStack(HostMemory* owner) : memory(owner) {}
  ~EntryStack() {
    if (items != local) moxFree(memory, items);
  }
  // Room for the most entries a walk can hold: every record once.
  bool push(int32_t entry, int64_t limit) {
    if (size == capacity) {
      if (items != local) return false;
      int32_t* spill = static_cast<int32_t*>(moxAllocate(memory, limit, sizeof(int32_t)));
      if (spill == nullptr) return false;
      memcpy(spill, local, sizeof local);
      items = spill;
      capacity = limit;
    }
    items[size++] = entry;
    return true;
  }
};

// The index list grows by one element per entry, through the host's
// reallocate, as its hosts have always seen it grow.
using IndexList = MoxTable<int32_t>;

// The sibling tree under `top` in order (left subtree, entry, right
// subtree) into `list`.  False on a bad link, a cycle (more steps than the
// directory has records) or a failed allocation.
bool collectInOrder(const _MoxOleFile* h, int64_t top, IndexList* list) {
  EntryStack stack(h->pTableMemory);
  int64_t steps = 0;
  int64_t x = top;
  for (;;) {
    for (; x != -1; x = h->pDir[x].lLeft) {
      if (!moxIsEntry(h, x) || ++steps > h->iDirCount) return false;
      if (!stack.push(static_cast<int32_t>(x), h->iDirCount)) return false;
    }
    if (stack.size == 0) return true;
    x = stack.items[--stack.size];
    if (!list->append(static_cast<int32_t>(x))) return false;
    x = h->pDir[x].lRight;
  }
}

void fillRecord(const _MoxOleDirInfo& d, _MoxOleObjectEntry* record) {
  memset(record->szName, 0, sizeof record->szName);
  memcpy(record->szName, d.szName, strnlen(d.szName, sizeof record->szName - 1));
  record->uiType = d.byType;
  record->uiSize = static_cast<uint32_t>(d.lSize);
}

// True when a storage path names the root without walking anything.
bool namesRootDirectly(const char (*path)[36], int depth) {
  return depth < 1 || path == nullptr || strncmp(path[0], moxfmt::kRootName, 36) == 0;
}

}  // namespace

int moxObjectList(_MoxOleFile* h, const char (*path)[36], int depth, _MoxOleObjectEntry** out) {
  const int64_t storage = moxWalkStoragePath(h, path, depth);
  if (storage < 0) return 0;
  const int64_t top = h->pDir[storage].lChild;
  if (!moxIsEntry(h, top)) return 0;
  IndexList list(h->pTableMemory, MoxGrowth::kReallocate);
  const int64_t count = collectInOrder(h, top, &list) ? list.size() : -1;
  if (count <= 0) return moxFail(h, MoxReason::kTreeDamaged);
  _MoxOleObjectEntry* records = static_cast<_MoxOleObjectEntry*>(
      moxAllocate(h->pTableMemory, count, sizeof(_MoxOleObjectEntry)));
  if (records == nullptr) return moxFail(h, MoxReason::kNoMemory);
  for (int64_t k = 0; k < count; ++k) fillRecord(h->pDir[list[k]], &records[k]);
  *out = records;
  return static_cast<int>(count);
}

int moxObjectType(_MoxOleFile* h, const char (*path)[36], int depth, const char* name) {
  const int64_t storage = moxWalkStoragePath(h, path, depth);
  if (storage < 0) return 0;
  if (namesRootDirectly(path, depth) && name[0] == 0) return h->pDir[0].byType;
  const int64_t child = moxFindChildExact(h, storage, moxNameOf(name));
  return child >= 0 ? h->pDir[child].byType : 0;
}
