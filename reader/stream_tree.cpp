// iOLEGetStreamTree: the whole storage hierarchy as _MoxOleTreeNode
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

#include "interface/mox_file.h"

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

// The children being collected for one node.
struct Children {
  _MoxOleTreeNode* node;
  int count;
  int capacity;
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

_MoxOleTreeNode** newArray(Walk* w, int capacity) {
  return static_cast<_MoxOleTreeNode**>(
      w->pool->allocateArray(w->pool, static_cast<int>(sizeof(_MoxOleTreeNode*)), capacity));
}

// Appends a node for `entry`; 0, 2 (no memory) or 4 (too many nodes).
int append(Walk* w, Children* c, int64_t entry) {
  if (--w->nodesLeft < 0) return 4;
  if (c->count == c->capacity) {
    _MoxOleTreeNode** grown = newArray(w, c->capacity + kGrowth);
    if (grown == nullptr) return 2;
    memcpy(grown, c->node->ppChildren, sizeof(_MoxOleTreeNode*) * c->count);
    c->node->ppChildren = grown;  // the old array stays in the pool
    c->capacity += kGrowth;
  }
  _MoxOleTreeNode* child = newNode(w, entry, c->node);
  if (child == nullptr) return 2;
  c->node->ppChildren[c->count++] = child;
  c->node->iChildCount = c->count;
  return 0;
}

void cutLinks(Walk* w, int64_t entry) {
  _MoxOleDirInfo& d = w->h->pDir[entry];
  d.lLeft = d.lRight = d.lChild = -1;
}

int collect(Walk* w, _MoxOleTreeNode* node, int64_t top, int64_t steps);

// Adds the subtree at `x` (and its run of right siblings) to c.
int addSubtree(Walk* w, Children* c, int64_t x, int64_t steps) {
  for (;;) {
    if (x < 0) return 4;
    int status = append(w, c, x);
    if (status != 0) return status;
    if (steps > kStepLimit) cutLinks(w, x);
    const _MoxOleDirInfo& d = w->h->pDir[x];
    if (d.lChild != -1) {
      status = collect(w, c->node->ppChildren[c->count - 1], d.lChild, ++steps);
      if (status != 0) return status;
    }
    if (d.lLeft != -1) {
      status = addSubtree(w, c, d.lLeft, ++steps);
      if (status != 0) return status;
    }
    x = d.lRight;
    if (x == -1) return 0;
    if (x < 0) return 4;
    ++steps;
  }
}

// Collects the children of `node` from the top of its sibling tree.  The
// node's iChildCount always ends equal to the children stored, also when
// the walk fails halfway.
int collect(Walk* w, _MoxOleTreeNode* node, int64_t top, int64_t steps) {
  node->iChildCount = 0;
  node->ppChildren = newArray(w, kGrowth);
  if (node->ppChildren == nullptr) return 2;
  Children c = {node, 0, kGrowth};
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
  return 0;
}

}  // namespace

extern "C" MOXOLE_API int iOLEGetStreamTree(_MoxOleFile* h, HostMemory* pool,
                                            _MoxOleTreeNode** out) {
  if (h == nullptr || pool == nullptr) return 34;
  Walk w = {h, pool, kVisitsPerEntry * (h->iDirCount + 1) + 2 * (kStepLimit + 1)};
  _MoxOleTreeNode* root = static_cast<_MoxOleTreeNode*>(
      pool->allocate(pool, static_cast<int>(sizeof(_MoxOleTreeNode))));
  if (root == nullptr) return 2;
  *out = root;
  memset(root, 0, sizeof *root);
  root->iType = kEntryRoot;
  if (h->iDirCount == 0) return 0;
  copyName(root->szName, h->pDir[0].szName);
  if (h->pDir[0].lChild == -1) return 0;
  return collect(&w, root, h->pDir[0].lChild, 1);
}
