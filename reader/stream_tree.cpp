// The storage tree: the whole storage hierarchy as _MoxOleTreeNode
// records, every node and children array taken from the caller's pool.
//
// A node's children are listed in the pre-order of its sibling tree.  The
// walk counts steps along every path from the root; an entry reached after
// more than 3500 steps keeps its node but loses its links in the loaded
// directory, which ends cycles and absurdly deep trees for good.  Entries
// shared between paths of a damaged tree (a left and a right link to the
// same entry, level after level) could still multiply the work beyond any
// bound, so the walk also stops with status 4 once it has made far more
// nodes than one cycle cut at the step limit and a well-formed directory
// together ever need.
#include <string.h>

#include "interface/failure.h"
#include "interface/host_table.h"
#include "reader/structure.h"

namespace {

constexpr int kGrowth = 256;
constexpr int64_t kStepLimit = 3500;
// Nodes allowed per directory entry before the tree counts as damaged.
constexpr int64_t kVisitsPerEntry = 16;

struct Walk {
  _MoxOleFile* h;
  HostMemory* pool;
  int64_t nodesLeft;
};

// The children being collected for one node, in arrays from the pool
// that grow by kGrowth pointers at a time.
struct Children {
  Children(Walk* w, _MoxOleTreeNode* owner)
      : node(owner), list(w->pool, MoxGrowth::kPool, -1, kGrowth) {}
  _MoxOleTreeNode* node;
  MoxTable<_MoxOleTreeNode*> list;
};

// The loaded name holds up to 33 bytes and need not be terminated.
void copyName(char (&out)[36], const char (&name)[33]) {
  memset(out, 0, sizeof out);
  memcpy(out, name, strnlen(name, sizeof name));
}

_MoxOleTreeNode* newNode(Walk* w, int64_t entry, _MoxOleTreeNode* parent) {
  _MoxOleTreeNode* node = static_cast<_MoxOleTreeNode*>(
      w->pool->allocate(w->pool, static_cast<int>(sizeof(_MoxOleTreeNode))));
  if (node == nullptr) return nullptr;
  memset(node, 0, sizeof *node);
  const _MoxOleDirInfo& d = w->h->pDir[entry];
  copyName(node->szName, d.szName);
  node->iType = d.byType;
  node->iSize = static_cast<int>(static_cast<uint32_t>(d.lSize));
  node->iIndex = static_cast<int>(entry);
  node->pParent = parent;
  return node;
}

// Appends a node for `entry`.
int append(Walk* w, Children* c, int64_t entry) {
  if (--w->nodesLeft < 0) return MOXOLE_BAD_LINK;
  if (!c->list.reserve(c->list.size() + 1)) return MOXOLE_NO_MEMORY;
  c->node->ppChildren = c->list.data();
  _MoxOleTreeNode* child = newNode(w, entry, c->node);
  if (child == nullptr) return MOXOLE_NO_MEMORY;
  c->list.append(child);
  c->node->iChildCount = static_cast<int>(c->list.size());
  return MOXOLE_OK;
}

// The node made last for `c`.
_MoxOleTreeNode* lastChild(Children* c) { return c->list[c->list.size() - 1]; }

void cutLinks(Walk* w, int64_t entry) {
  _MoxOleDirInfo& d = w->h->pDir[entry];
  d.lLeft = d.lRight = d.lChild = -1;
}

int collect(Walk* w, _MoxOleTreeNode* node, int64_t top, int64_t steps);

// Adds the subtree at `x` (and its run of right siblings) to c.
int addSubtree(Walk* w, Children* c, int64_t x, int64_t steps) {
  for (;;) {
    if (x < 0) return MOXOLE_BAD_LINK;
    int status = append(w, c, x);
    if (status != 0) return status;
    if (steps > kStepLimit) cutLinks(w, x);
    const _MoxOleDirInfo& d = w->h->pDir[x];
    if (d.lChild != -1) {
      status = collect(w, lastChild(c), d.lChild, ++steps);
      if (status != 0) return status;
    }
    if (d.lLeft != -1) {
      status = addSubtree(w, c, d.lLeft, ++steps);
      if (status != 0) return status;
    }
    x = d.lRight;
    if (x == -1) return MOXOLE_OK;
    if (x < 0) return MOXOLE_BAD_LINK;
    ++steps;
  }
}

// Collects the children of `node` from the top of its sibling tree.  The
// node's iChildCount always ends equal to the children stored, also when
// the walk fails halfway.
int collect(Walk* w, _MoxOleTreeNode* node, int64_t top, int64_t steps) {
  node->iChildCount = 0;
  Children c(w, node);
  if (!c.list.reserve(1)) {
    node->ppChildren = nullptr;
    return MOXOLE_NO_MEMORY;
  }
  node->ppChildren = c.list.data();
  int status = append(w, &c, top);
  if (status != 0) return status;
  const _MoxOleDirInfo& d = w->h->pDir[top];
  if (d.lLeft != -1) {
    status = addSubtree(w, &c, d.lLeft, ++steps);
    if (status != 0) return status;
  }
  if (steps > kStepLimit) cutLinks(w, top);
  if (d.lRight != -1) {
    status = addSubtree(w, &c, d.lRight, ++steps);
    if (status != 0) return status;
  }
  if (d.lChild != -1) return collect(w, node->ppChildren[0], d.lChild, steps + 1);
  return MOXOLE_OK;
}

}  // namespace

namespace {

// Records why a walk failed; the status as it was.
int walkResult(_MoxOleFile* h, int status) {
  if (status == MOXOLE_NO_MEMORY) return moxFailWith(h, status, MoxReason::kNoMemory);
  if (status != MOXOLE_OK) return moxFailWith(h, status, MoxReason::kTreeDamaged);
  return status;
}

}  // namespace

int moxStreamTree(_MoxOleFile* h, HostMemory* pool, _MoxOleTreeNode** out) {
  Walk w = {h, pool, kVisitsPerEntry * (h->iDirCount + 1) + 2 * (kStepLimit + 1)};
  _MoxOleTreeNode* root = static_cast<_MoxOleTreeNode*>(
      pool->allocate(pool, static_cast<int>(sizeof(_MoxOleTreeNode))));
  if (root == nullptr) return walkResult(h, MOXOLE_NO_MEMORY);
  *out = root;
  memset(root, 0, sizeof *root);
  root->iType = kEntryRoot;
  if (h->iDirCount == 0) return MOXOLE_OK;
  copyName(root->szName, h->pDir[0].szName);
  if (h->pDir[0].lChild == -1) return MOXOLE_OK;
  return walkResult(h, collect(&w, root, h->pDir[0].lChild, 1));
}
