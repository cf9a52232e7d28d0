// CMoxOleRedBlack: an ordered set of untyped items kept as a red-black tree.
//
// A compound file stores the children of every storage as a red-black tree
// of sibling links, so the writer keeps each storage's children in one of
// these: while the document is built the tree keeps names unique and
// ordered, and when the file is written Flatten hands every item its entry
// number and the numbers of its left and right neighbours in the tree,
// exactly as they go to disk.
//
// The tree knows nothing about its items.  A derived class supplies the
// ordering (compLT), the key equality (compEQ), the disposal of an item
// (deleteData) and the numbering callback (setOrdinal).  In every
// comparison the first argument is the item being inserted or looked up and
// the second one an item already in the tree.
//
// Every node carries an ordinal drawn at insertion from a counter that the
// owner may share between trees, so that one counter numbers the items of
// many trees in creation order.
//
// Items are never removed: a document being written only grows.  Memory:
// nodes come from a pool that the tree makes from the host's services and
// releases whole in its destructor; nothing is freed node by node.  The tree never fails by throwing: a missing pool or an exhausted
// one shows up as status 2 from InsertNode.
#ifndef MOXOLEFIO_TREE_REDBLACK_H_
#define MOXOLEFIO_TREE_REDBLACK_H_

#include <stdint.h>

#include "moxolefio.h"

// Colours, chosen to equal the colour flag of a compound-file directory
// entry so that a node's colour can be copied into its entry as is.
enum : uint8_t {
  kNodeRed = 0,
  kNodeBlack = 1,
};

// Ordinal of the sentinel; it stands for "no child" in Flatten's reports.
constexpr int64_t kNoOrdinal = -1;

struct _MoxOleRedBlackNode {
  _MoxOleRedBlackNode* pLeft;    // nilNode when none
  _MoxOleRedBlackNode* pRight;   // nilNode when none
  _MoxOleRedBlackNode* pParent;  // nilNode for the root
  uint8_t byColour;              // kNodeRed or kNodeBlack
  void* pData;                   // the item
  int64_t lOrdinal;              // drawn from the owner's counter
};

class CMoxOleRedBlack {
 public:
  // Makes the node pool when services is not null.  Without a pool the
  // tree is still a valid empty tree, but every insertion fails with 2.
  explicit CMoxOleRedBlack(tag_TPVAPIServices* services);

  // Releases every node with the pool.  Items are not disposed of: a
  // derived class that owns them calls DeleteAllNodes in its own
  // destructor.  Not virtual: derived objects are destroyed through their
  // own type.
  ~CMoxOleRedBlack();

  CMoxOleRedBlack(const CMoxOleRedBlack&) = delete;
  CMoxOleRedBlack& operator=(const CMoxOleRedBlack&) = delete;

  // The four operations of the derived class, in this order.
  virtual bool compLT(void* a, void* b) = 0;
  virtual bool compEQ(void* a, void* b) = 0;
  virtual void deleteData(void* data) = 0;
  // Receives an item's ordinal and the ordinals of its left and right
  // child nodes (kNoOrdinal for a missing child).
  virtual void setOrdinal(void* data, long ordinal, long left, long right) = 0;

  // Inserts data.  0: inserted, node is the new node.  6: an equal item is
  // present, node is its node and nothing changed.  2: no memory, node is
  // null and nothing changed (the ordinal counter included).
  int InsertNode(void* data, _MoxOleRedBlackNode*& node);

  // The node whose item equals data, or nilNode (whose pData is null) when
  // there is none.  Never null.
  _MoxOleRedBlackNode* FindNode(void* data);

  // Lays the items into items[] in order of their ordinals and reports
  // each item's place through setOrdinal.  Nodes whose ordinal does not fit
  // in 0..size-1 go to items[index].  index counts every node laid out and
  // may be shared across several trees; the walk stops once index reaches
  // size.  Returns iCount (0 for an empty tree, which touches nothing).
  long Flatten(void** items, long size, long& index);

  // Disposes of every item through deleteData and clears the nodes' items;
  // the nodes themselves stay linked and counted.
  void DeleteAllNodes();

  // In-order walk without recursion or stack: the first node, and the node
  // after a given one; both return nilNode at the end.
  _MoxOleRedBlackNode* FirstNode();
  _MoxOleRedBlackNode* NextNode(_MoxOleRedBlackNode* node);

  int64_t* plOrdinalCounter;  // set by the owner; null: no ordinals drawn
  _MoxOleRedBlackNode nilNode;
  _MoxOleRedBlackNode* pRoot;
  int32_t iCount;
  HostMemory* pPool;
  tag_TPVAPIServices* pServices;

 private:
  // Names one child link of a node, so that a rebalancing case and its
  // mirror image are one piece of code.
  using Side = _MoxOleRedBlackNode* _MoxOleRedBlackNode::*;

  // Restores the colours' rules after x was inserted red.
  void InsertFixup(_MoxOleRedBlackNode* x);
  // Lifts x's child on side `rising` into x's place; x sinks to that
  // child's `sinking` side.
  void Rotate(_MoxOleRedBlackNode* x, Side rising, Side sinking);
  _MoxOleRedBlackNode* Leftmost(_MoxOleRedBlackNode* node);
  // Puts child where node was under node's parent (or at the root).
  void ReplaceInParent(_MoxOleRedBlackNode* node, _MoxOleRedBlackNode* child);
};

#endif  // MOXOLEFIO_TREE_REDBLACK_H_
