// The red-black tree: insertion, lookup, rebalancing and the in-order
// walks that Flatten and DeleteAllNodes share.
//
// Each rebalancing case exists twice in textbook form, once for a node on
// the left and once mirrored for the right.  Here every case is written
// once, over a pair of member pointers naming "this side" and "the other
// side", so the two mirrors cannot drift apart.
#include "tree/redblack.h"

#include "interface/mox_pool.h"

namespace {

using Node = _MoxOleRedBlackNode;
using Side = Node* Node::*;  // the same type as CMoxOleRedBlack's Side

constexpr Side kLeft = &Node::pLeft;
constexpr Side kRight = &Node::pRight;

Side opposite(Side side) { return side == kLeft ? kRight : kLeft; }

bool isRed(const Node* node) { return node->byColour == kNodeRed; }

}  // namespace

CMoxOleRedBlack::CMoxOleRedBlack(tag_TPVAPIServices* services)
    : plOrdinalCounter(nullptr),
      pRoot(&nilNode),
      iCount(0),
      pPool(moxCreatePool(services)),
      pServices(services) {
  nilNode.pLeft = &nilNode;
  nilNode.pRight = &nilNode;
  nilNode.pParent = &nilNode;
  nilNode.byColour = kNodeBlack;
  nilNode.pData = nullptr;
  nilNode.lOrdinal = kNoOrdinal;
}

CMoxOleRedBlack::~CMoxOleRedBlack() { moxDestroyPool(pServices, pPool); }

void CMoxOleRedBlack::Rotate(Node* x, Side rising, Side sinking) {
  Node* y = x->*rising;
  x->*rising = y->*sinking;
  if (y->*sinking != &nilNode) (y->*sinking)->pParent = x;
  if (y != &nilNode) y->pParent = x->pParent;
  ReplaceInParent(x, y);
  y->*sinking = x;
  if (x != &nilNode) x->pParent = y;
}

int CMoxOleRedBlack::InsertNode(void* data, Node*& node) {
  node = nullptr;
  Node* parent = &nilNode;
  for (Node* x = pRoot; x != &nilNode;) {
    if (compEQ(data, x->pData)) {
      node = x;
      return MOXOLE_NOT_FOUND;  // the "name exists" meaning of 6
    }
    parent = x;
    x = compLT(data, x->pData) ? x->pLeft : x->pRight;
  }
  if (pPool == nullptr) return MOXOLE_NO_MEMORY;
  Node* fresh = static_cast<Node*>(pPool->allocate(pPool, sizeof(Node)));
  if (fresh == nullptr) return MOXOLE_NO_MEMORY;

  // A node drawn without a counter is not part of any numbering; the
  // sentinel's "no ordinal" keeps Flatten from filing it under a number
  // that belongs to some other entry.
  fresh->lOrdinal = kNoOrdinal;
  if (plOrdinalCounter != nullptr) fresh->lOrdinal = (*plOrdinalCounter)++;
  fresh->pData = data;
  fresh->pParent = parent;
  fresh->pLeft = &nilNode;
  fresh->pRight = &nilNode;
  fresh->byColour = kNodeRed;
  if (parent == &nilNode) {
    pRoot = fresh;
    fresh->byColour = kNodeBlack;
  } else if (compLT(data, parent->pData)) {
    parent->pLeft = fresh;
  } else {
    parent->pRight = fresh;
  }
  InsertFixup(fresh);
  ++iCount;
  node = fresh;
  return MOXOLE_OK;
}

void CMoxOleRedBlack::InsertFixup(Node* x) {
  while (x != pRoot && isRed(x->pParent)) {
    Node* parent = x->pParent;
    Node* grand = parent->pParent;
    Side side = parent == grand->pLeft ? kLeft : kRight;
    Side other = opposite(side);
    Node* uncle = grand->*other;
    if (isRed(uncle)) {
      parent->byColour = kNodeBlack;
      uncle->byColour = kNodeBlack;
      grand->byColour = kNodeRed;
      x = grand;
      continue;
    }
    if (x == parent->*other) {
      x = parent;
      Rotate(x, other, side);
    }
    x->pParent->byColour = kNodeBlack;
    x->pParent->pParent->byColour = kNodeRed;
    Rotate(x->pParent->pParent, side, other);
  }
  pRoot->byColour = kNodeBlack;
}

Node* CMoxOleRedBlack::FindNode(void* data) {
  Node* x = pRoot;
  while (x != &nilNode && !compEQ(data, x->pData)) {
    x = compLT(data, x->pData) ? x->pLeft : x->pRight;
  }
  return x;
}

void CMoxOleRedBlack::ReplaceInParent(Node* node, Node* child) {
  Node* parent = node->pParent;
  if (parent == &nilNode) {
    pRoot = child;
  } else if (node == parent->pLeft) {
    parent->pLeft = child;
  } else {
    parent->pRight = child;
  }
}

Node* CMoxOleRedBlack::Leftmost(Node* node) {
  while (node->pLeft != &nilNode) node = node->pLeft;
  return node;
}

Node* CMoxOleRedBlack::FirstNode() {
  return pRoot == &nilNode ? &nilNode : Leftmost(pRoot);
}

Node* CMoxOleRedBlack::NextNode(Node* node) {
  if (node->pRight != &nilNode) return Leftmost(node->pRight);
  Node* parent = node->pParent;
  while (parent != &nilNode && node == parent->pRight) {
    node = parent;
    parent = parent->pParent;
  }
  return parent;
}

long CMoxOleRedBlack::Flatten(void** items, long size, long& index) {
  if (iCount == 0) return 0;
  for (Node* n = FirstNode(); n != &nilNode && index < size; n = NextNode(n)) {
    bool numbered = n->lOrdinal >= 0 && n->lOrdinal < size;
    items[numbered ? n->lOrdinal : index] = n->pData;
    setOrdinal(n->pData, n->lOrdinal, n->pLeft->lOrdinal, n->pRight->lOrdinal);
    ++index;
  }
  return iCount;
}

void CMoxOleRedBlack::DeleteAllNodes() {
  if (iCount == 0) return;
  for (Node* n = FirstNode(); n != &nilNode; n = NextNode(n)) {
    deleteData(n->pData);
    n->pData = nullptr;
  }
}
