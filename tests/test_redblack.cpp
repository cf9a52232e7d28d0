// The red-black tree: its contract with derived classes, numbering,
// Flatten, and the red-black invariants under random insert/delete runs.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "tree/redblack.h"

namespace {

// Items are pointers into `keys`, ordered by the int they point to.
// Calls of the four operations are logged when `logging` is on.
class IntTree final : public CMoxOleRedBlack {
 public:
  explicit IntTree(tag_TPVAPIServices* services) : CMoxOleRedBlack(services) {}

  struct Ordinal {
    int key;
    long ordinal, left, right;
    bool operator==(const Ordinal& o) const {
      return key == o.key && ordinal == o.ordinal && left == o.left && right == o.right;
    }
  };

  static int keyOf(void* item) { return item == nullptr ? -1 : *static_cast<int*>(item); }

  bool compLT(void* a, void* b) override {
    if (logging) log += "LT" + std::to_string(keyOf(b)) + " ";
    return keyOf(a) < keyOf(b);
  }
  bool compEQ(void* a, void* b) override {
    if (logging) log += "EQ" + std::to_string(keyOf(b)) + " ";
    return keyOf(a) == keyOf(b);
  }
  void deleteData(void* data) override { deleted.push_back(keyOf(data)); }
  void setOrdinal(void* data, long ordinal, long left, long right) override {
    ordinals.push_back({keyOf(data), ordinal, left, right});
  }

  bool logging = false;
  std::string log;
  std::vector<int> deleted;
  std::vector<Ordinal> ordinals;
};

// Keys 0..n-1 at stable addresses.
std::vector<int> makeKeys(int n) {
  std::vector<int> keys(n);
  for (int i = 0; i < n; ++i) keys[i] = i;
  return keys;
}

int insert(IntTree& tree, int& key) {
  _MoxOleRedBlackNode* node = nullptr;
  return tree.InsertNode(&key, node);
}

// Checks a subtree; returns its black height, or -1 after noting a fault.
int checkSubtree(IntTree& tree, _MoxOleRedBlackNode* node, long low, long high,
                 int* nodes, std::string* fault) {
  _MoxOleRedBlackNode* nil = &tree.nilNode;
  if (node == nil) return 1;
  ++*nodes;
  int key = IntTree::keyOf(node->pData);
  if (key <= low || key >= high) *fault = "order broken at " + std::to_string(key);
  for (_MoxOleRedBlackNode* child : {node->pLeft, node->pRight}) {
    if (child == nil) continue;
    if (child->pParent != node) *fault = "parent link broken below " + std::to_string(key);
    if (node->byColour == kNodeRed && child->byColour == kNodeRed) {
      *fault = "red node " + std::to_string(key) + " has a red child";
    }
  }
  if (node->byColour != kNodeRed && node->byColour != kNodeBlack) *fault = "bad colour";
  int left = checkSubtree(tree, node->pLeft, low, key, nodes, fault);
  int right = checkSubtree(tree, node->pRight, key, high, nodes, fault);
  if (left != right) *fault = "black heights differ below " + std::to_string(key);
  if (!fault->empty()) return -1;
  return left + (node->byColour == kNodeBlack ? 1 : 0);
}

// Every rule a valid tree obeys; empty when all hold.
std::string validate(IntTree& tree) {
  _MoxOleRedBlackNode* nil = &tree.nilNode;
  if (nil->pLeft != nil || nil->pRight != nil || nil->byColour != kNodeBlack ||
      nil->pData != nullptr || nil->lOrdinal != -1) {
    return "sentinel changed";
  }
  if (tree.pRoot != nil && (tree.pRoot->byColour != kNodeBlack || tree.pRoot->pParent != nil)) {
    return "root not black or has a parent";
  }
  std::string fault;
  int nodes = 0;
  checkSubtree(tree, tree.pRoot, -1, 1L << 40, &nodes, &fault);
  if (!fault.empty()) return fault;
  if (nodes != tree.iCount) return "iCount " + std::to_string(tree.iCount) + " but " +
                                    std::to_string(nodes) + " nodes";
  int walked = 0, previous = -1;
  for (auto* n = tree.FirstNode(); n != nil; n = tree.NextNode(n), ++walked) {
    if (IntTree::keyOf(n->pData) <= previous) return "in-order walk out of order";
    previous = IntTree::keyOf(n->pData);
  }
  if (walked != tree.iCount) return "in-order walk visited " + std::to_string(walked);
  return "";
}

class RedBlackTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(moxtest::leakReport(host), ""); }
  moxhost::PoolServices host;
  std::vector<int> keys = makeKeys(600);
};

TEST_F(RedBlackTest, EmptyTreeHasSentinelPoolAndNothingToFind) {
  {
    IntTree tree(host.services());
    EXPECT_EQ(host.livePools(), 1);
    EXPECT_EQ(host.lastInitialSize(), 4096);
    EXPECT_EQ(host.lastFlags(), 0);
    EXPECT_EQ(validate(tree), "");
    EXPECT_EQ(tree.pRoot, &tree.nilNode);
    EXPECT_EQ(tree.FindNode(&keys[3]), &tree.nilNode);

    void* items[2] = {&keys[7], &keys[8]};
    long index = 1;
    EXPECT_EQ(tree.Flatten(items, 2, index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(items[0], &keys[7]);
    EXPECT_EQ(items[1], &keys[8]);

    tree.DeleteNode(nullptr);
    tree.DeleteNode(&tree.nilNode);
    tree.DeleteAllNodes();
    EXPECT_TRUE(tree.deleted.empty());
    EXPECT_EQ(validate(tree), "");
  }
  EXPECT_EQ(host.livePools(), 0);
}

TEST_F(RedBlackTest, WithoutServicesEveryInsertionRunsOutOfMemory) {
  IntTree tree(nullptr);
  int64_t counter = 5;
  tree.plOrdinalCounter = &counter;
  _MoxOleRedBlackNode* node = &tree.nilNode;
  EXPECT_EQ(tree.InsertNode(&keys[1], node), 2);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(tree.iCount, 0);
  EXPECT_EQ(counter, 5);
  EXPECT_EQ(host.poolsCreated(), 0);
}

TEST_F(RedBlackTest, FailedNodeAllocationChangesNothing) {
  IntTree tree(host.services());
  int64_t counter = 1;
  tree.plOrdinalCounter = &counter;
  ASSERT_EQ(insert(tree, keys[1]), 0);
  host.faults().failAt(1);
  _MoxOleRedBlackNode* node = &tree.nilNode;
  EXPECT_EQ(tree.InsertNode(&keys[2], node), 2);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(tree.iCount, 1);
  EXPECT_EQ(counter, 2);
  EXPECT_EQ(tree.FindNode(&keys[2]), &tree.nilNode);
  host.faults().disarm();
  EXPECT_EQ(insert(tree, keys[2]), 0);
  EXPECT_EQ(tree.FindNode(&keys[2])->lOrdinal, 2);
}

TEST_F(RedBlackTest, InsertionDrawsOrdinalsAndRefusesDuplicates) {
  IntTree tree(host.services());
  int64_t counter = 1;
  tree.plOrdinalCounter = &counter;
  _MoxOleRedBlackNode* first = nullptr;
  ASSERT_EQ(tree.InsertNode(&keys[10], first), 0);
  EXPECT_EQ(tree.pRoot, first);
  EXPECT_EQ(first->byColour, kNodeBlack);
  EXPECT_EQ(first->lOrdinal, 1);
  EXPECT_EQ(counter, 2);

  // An equal item that is a different object still counts as a duplicate.
  int sameKey = 10;
  _MoxOleRedBlackNode* node = nullptr;
  EXPECT_EQ(tree.InsertNode(&sameKey, node), 6);
  EXPECT_EQ(node, first);
  EXPECT_EQ(node->pData, &keys[10]);
  EXPECT_EQ(tree.iCount, 1);
  EXPECT_EQ(counter, 2);

  ASSERT_EQ(insert(tree, keys[20]), 0);
  EXPECT_EQ(tree.FindNode(&keys[20])->lOrdinal, 2);
  EXPECT_EQ(counter, 3);
}

TEST_F(RedBlackTest, WithoutCounterNodesHaveNoOrdinal) {
  IntTree tree(host.services());
  for (int k : {3, 1, 2}) ASSERT_EQ(insert(tree, keys[k]), 0);
  for (int k : {1, 2, 3}) EXPECT_EQ(tree.FindNode(&keys[k])->lOrdinal, -1);
}

TEST_F(RedBlackTest, EqualityIsAskedBeforeOrderAtEveryNode) {
  IntTree tree(host.services());
  for (int k : {1, 2, 3}) ASSERT_EQ(insert(tree, keys[k]), 0);
  tree.logging = true;
  ASSERT_EQ(insert(tree, keys[4]), 0);
  // Down through 2 and 3, then the order against the parent once more.
  EXPECT_EQ(tree.log, "EQ2 LT2 EQ3 LT3 LT3 ");
  tree.log.clear();
  EXPECT_EQ(tree.FindNode(&keys[3])->pData, &keys[3]);
  EXPECT_EQ(tree.log, "EQ2 LT2 EQ3 ");
  tree.log.clear();
  EXPECT_EQ(insert(tree, keys[1]), 6);
  EXPECT_EQ(tree.log, "EQ2 LT2 EQ1 ");
}

TEST_F(RedBlackTest, AscendingThreeFlattenInOrdinalSlots) {
  IntTree tree(host.services());
  int64_t counter = 1;
  tree.plOrdinalCounter = &counter;
  int& a = keys[1];
  int& b = keys[2];
  int& c = keys[3];
  for (int* k : {&a, &b, &c}) ASSERT_EQ(insert(tree, *k), 0);
  EXPECT_EQ(tree.pRoot->pData, &b);
  EXPECT_EQ(tree.pRoot->byColour, kNodeBlack);
  EXPECT_EQ(tree.pRoot->pLeft->pData, &a);
  EXPECT_EQ(tree.pRoot->pLeft->byColour, kNodeRed);
  EXPECT_EQ(tree.pRoot->pRight->pData, &c);
  EXPECT_EQ(tree.pRoot->pRight->byColour, kNodeRed);

  int untouched = 99;
  void* items[4] = {&untouched, nullptr, nullptr, nullptr};
  long index = 0;
  EXPECT_EQ(tree.Flatten(items, 4, index), 3);
  EXPECT_EQ(index, 3);
  std::vector<IntTree::Ordinal> expected = {{1, 1, -1, -1}, {2, 2, 1, 3}, {3, 3, -1, -1}};
  EXPECT_EQ(tree.ordinals, expected);
  EXPECT_EQ(items[0], &untouched);
  EXPECT_EQ(items[1], &a);
  EXPECT_EQ(items[2], &b);
  EXPECT_EQ(items[3], &c);
}

TEST_F(RedBlackTest, FlattenFilesUnnumberedNodesByIndexAndStopsAtSize) {
  IntTree unnumbered(host.services());
  for (int k : {5, 6, 7}) ASSERT_EQ(insert(unnumbered, keys[k]), 0);
  IntTree farOut(host.services());  // ordinals 10, 11: beyond any slot below
  int64_t counter = 10;
  farOut.plOrdinalCounter = &counter;
  for (int k : {8, 9}) ASSERT_EQ(insert(farOut, keys[k]), 0);

  void* items[4] = {};
  long index = 0;
  EXPECT_EQ(unnumbered.Flatten(items, 4, index), 3);
  EXPECT_EQ(farOut.Flatten(items, 4, index), 2);  // stopped after one node
  EXPECT_EQ(index, 4);
  EXPECT_EQ(items[0], &keys[5]);
  EXPECT_EQ(items[1], &keys[6]);
  EXPECT_EQ(items[2], &keys[7]);
  EXPECT_EQ(items[3], &keys[8]);
  std::vector<IntTree::Ordinal> expected = {{5, -1, -1, -1}, {6, -1, -1, -1}, {7, -1, -1, -1}};
  EXPECT_EQ(unnumbered.ordinals, expected);
  ASSERT_EQ(farOut.ordinals.size(), 1u);
  EXPECT_EQ(farOut.ordinals[0], (IntTree::Ordinal{8, 10, -1, 11}));

  // A full table takes nothing more and hears nothing.
  farOut.ordinals.clear();
  EXPECT_EQ(farOut.Flatten(items, 4, index), 2);
  EXPECT_TRUE(farOut.ordinals.empty());
  EXPECT_EQ(index, 4);
}

TEST_F(RedBlackTest, DeleteAllNodesDisposesInOrderAndKeepsNodes) {
  IntTree tree(host.services());
  for (int k : {4, 2, 6, 1, 3, 5}) ASSERT_EQ(insert(tree, keys[k]), 0);
  tree.DeleteAllNodes();
  EXPECT_EQ(tree.deleted, (std::vector<int>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(tree.iCount, 6);
  for (auto* n = tree.FirstNode(); n != &tree.nilNode; n = tree.NextNode(n)) {
    EXPECT_EQ(n->pData, nullptr);
  }
  tree.deleted.clear();
  tree.DeleteAllNodes();
  EXPECT_EQ(tree.deleted, std::vector<int>(6, -1));  // -1: a null item
  EXPECT_EQ(host.poolFrees(), 0);
}

TEST_F(RedBlackTest, DeletingAnInnerNodeMovesTheSuccessorsItemIntoIt) {
  IntTree tree(host.services());
  int64_t counter = 1;
  tree.plOrdinalCounter = &counter;
  for (int k : {1, 2, 3}) ASSERT_EQ(insert(tree, keys[k]), 0);
  _MoxOleRedBlackNode* root = tree.pRoot;
  tree.DeleteNode(root);
  EXPECT_EQ(tree.pRoot, root);
  EXPECT_EQ(root->pData, &keys[3]);
  EXPECT_EQ(root->lOrdinal, 2);
  EXPECT_EQ(tree.iCount, 2);
  EXPECT_EQ(tree.FindNode(&keys[2]), &tree.nilNode);
  EXPECT_TRUE(tree.deleted.empty());
  EXPECT_EQ(validate(tree), "");
}

// Thousands of random runs against a std::set, checking every invariant
// after every single insertion and deletion.
TEST_F(RedBlackTest, RandomInsertDeleteRunsKeepEveryInvariant) {
  std::mt19937 random(20240611);
  const int kRuns = 1500;
  const int kKeyRanges[] = {8, 64, 600};
  for (int run = 0; run < kRuns; ++run) {
    IntTree tree(host.services());
    int64_t counter = 1;
    tree.plOrdinalCounter = &counter;
    std::set<int> model;
    int range = kKeyRanges[run % 3];
    int operations = 20 + static_cast<int>(random() % 180);
    for (int op = 0; op < operations; ++op) {
      int key = static_cast<int>(random() % range);
      bool inserting = random() % 3 != 0;  // trees grow, then shrink at times
      if (inserting) {
        int64_t before = counter;
        int status = insert(tree, keys[key]);
        bool fresh = model.insert(key).second;
        ASSERT_EQ(status, fresh ? 0 : 6);
        ASSERT_EQ(counter, before + (fresh ? 1 : 0));
      } else {
        _MoxOleRedBlackNode* node = tree.FindNode(&keys[key]);
        ASSERT_EQ(node->pData != nullptr, model.count(key) == 1);
        tree.DeleteNode(node);
        model.erase(key);
      }
      std::string fault = validate(tree);
      ASSERT_EQ(fault, "") << "run " << run << " op " << op;
      ASSERT_EQ(tree.iCount, static_cast<int>(model.size()));
    }
    for (int key : model) ASSERT_EQ(tree.FindNode(&keys[key])->pData, &keys[key]);
  }
  EXPECT_EQ(host.poolFrees(), 0);
}

}  // namespace
