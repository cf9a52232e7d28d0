// The red-black tree: its contract with derived classes, numbering,
// Flatten, and the red-black invariants under random insertion runs.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "tree/redblack.h"

namespace {

using Node = _MoxOleRedBlackNode;

// Items point to ints, ordered by value; the four operations log calls.
class IntTree final : public CMoxOleRedBlack {
 public:
  explicit IntTree(tag_TPVAPIServices* services) : CMoxOleRedBlack(services) {}

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
  std::vector<std::vector<long>> ordinals;  // key, ordinal, left, right
};

// Checks a subtree; returns its black height, or -1 after noting a fault.
int checkSubtree(IntTree& tree, Node* node, long low, long high, int* nodes,
                 std::string* fault) {
  if (node == &tree.nilNode) return 1;
  ++*nodes;
  int key = IntTree::keyOf(node->pData);
  std::string at = " at " + std::to_string(key);
  if (key <= low || key >= high) *fault = "order broken" + at;
  for (Node* child : {node->pLeft, node->pRight}) {
    if (child == &tree.nilNode) continue;
    if (child->pParent != node) *fault = "parent link broken" + at;
    if (node->byColour == kNodeRed && child->byColour == kNodeRed) *fault = "red-red" + at;
  }
  int left = checkSubtree(tree, node->pLeft, low, key, nodes, fault);
  int right = checkSubtree(tree, node->pRight, key, high, nodes, fault);
  if (left != right) *fault = "black heights differ" + at;
  return fault->empty() ? left + (node->byColour == kNodeBlack ? 1 : 0) : -1;
}

// Every rule a valid tree obeys; empty when all hold.
std::string validate(IntTree& tree) {
  Node* nil = &tree.nilNode;
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
  if (nodes != tree.iCount) return "iCount differs from the nodes linked";
  int walked = 0, previous = -1;
  for (Node* n = tree.FirstNode(); n != nil; n = tree.NextNode(n), ++walked) {
    if (IntTree::keyOf(n->pData) <= previous) return "in-order walk out of order";
    previous = IntTree::keyOf(n->pData);
  }
  return walked == tree.iCount ? "" : "in-order walk missed nodes";
}

class RedBlackTest : public ::testing::Test {
 protected:
  RedBlackTest() : keys(600) {
    for (int i = 0; i < 600; ++i) keys[i] = i;
  }
  void TearDown() override { EXPECT_EQ(moxtest::leakReport(host), ""); }

  int insert(IntTree& tree, int key) {
    Node* node = nullptr;
    return tree.InsertNode(&keys[key], node);
  }
  // A tree holding keys inserted in the given order, numbered from first
  // when first is not negative.
  std::unique_ptr<IntTree> makeTree(std::vector<int> order, int64_t first = -1) {
    auto tree = std::make_unique<IntTree>(host.services());
    counter = first;
    if (first >= 0) tree->plOrdinalCounter = &counter;
    for (int key : order) EXPECT_EQ(insert(*tree, key), 0);
    return tree;
  }

  moxhost::PoolServices host;
  std::vector<int> keys;  // items at stable addresses
  int64_t counter = 0;
};

TEST_F(RedBlackTest, EmptyTreeHasSentinelPoolAndNothingInIt) {
  {
    IntTree tree(host.services());
    EXPECT_EQ(host.livePools(), 1);
    EXPECT_EQ(host.lastInitialSize(), 4096);
    EXPECT_EQ(host.lastFlags(), 0);
    EXPECT_EQ(validate(tree), "");
    EXPECT_EQ(tree.FindNode(&keys[3]), &tree.nilNode);
    void* items[2] = {&keys[7], &keys[8]};
    long index = 1;
    EXPECT_EQ(tree.Flatten(items, 2, index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(items[1], &keys[8]);
    tree.DeleteAllNodes();
    EXPECT_TRUE(tree.deleted.empty());
    EXPECT_EQ(validate(tree), "");
  }
  EXPECT_EQ(host.livePools(), 0);
}

TEST_F(RedBlackTest, InsertionWithoutMemoryChangesNothing) {
  IntTree poolless(nullptr);
  counter = 5;
  poolless.plOrdinalCounter = &counter;
  Node* node = &poolless.nilNode;
  EXPECT_EQ(poolless.InsertNode(&keys[1], node), 2);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(poolless.iCount, 0);
  EXPECT_EQ(counter, 5);

  auto tree = makeTree({1}, 1);
  host.faults().failAt(1);
  node = &tree->nilNode;
  EXPECT_EQ(tree->InsertNode(&keys[2], node), 2);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(tree->iCount, 1);
  EXPECT_EQ(counter, 2);
  EXPECT_EQ(validate(*tree), "");
  host.faults().disarm();
  EXPECT_EQ(insert(*tree, 2), 0);
  EXPECT_EQ(tree->FindNode(&keys[2])->lOrdinal, 2);
}

TEST_F(RedBlackTest, InsertionDrawsOrdinalsOnlyForNewItems) {
  auto tree = makeTree({10}, 1);
  Node* first = tree->pRoot;
  EXPECT_EQ(first->byColour, kNodeBlack);
  EXPECT_EQ(first->lOrdinal, 1);
  EXPECT_EQ(counter, 2);

  int sameKey = 10;  // a different object with an equal key
  Node* node = nullptr;
  EXPECT_EQ(tree->InsertNode(&sameKey, node), 6);
  EXPECT_EQ(node, first);
  EXPECT_EQ(node->pData, &keys[10]);
  EXPECT_EQ(tree->iCount, 1);
  EXPECT_EQ(counter, 2);

  auto unnumbered = makeTree({3, 1, 2});
  for (int k : {1, 2, 3}) EXPECT_EQ(unnumbered->FindNode(&keys[k])->lOrdinal, -1);
}

TEST_F(RedBlackTest, EqualityIsAskedBeforeOrderAtEveryNode) {
  auto tree = makeTree({1, 2, 3});
  tree->logging = true;
  ASSERT_EQ(insert(*tree, 4), 0);
  EXPECT_EQ(tree->log, "EQ2 LT2 EQ3 LT3 LT3 ");  // the last: placing under 3
  tree->log.clear();
  EXPECT_EQ(tree->FindNode(&keys[3])->pData, &keys[3]);
  EXPECT_EQ(tree->log, "EQ2 LT2 EQ3 ");
  tree->log.clear();
  EXPECT_EQ(insert(*tree, 1), 6);
  EXPECT_EQ(tree->log, "EQ2 LT2 EQ1 ");
}

TEST_F(RedBlackTest, AscendingThreeFlattenIntoTheirOrdinalSlots) {
  auto tree = makeTree({1, 2, 3}, 1);
  EXPECT_EQ(tree->pRoot->pData, &keys[2]);
  EXPECT_EQ(tree->pRoot->pLeft->byColour, kNodeRed);
  EXPECT_EQ(tree->pRoot->pRight->byColour, kNodeRed);

  int untouched = 99;
  void* items[4] = {&untouched, nullptr, nullptr, nullptr};
  long index = 0;
  EXPECT_EQ(tree->Flatten(items, 4, index), 3);
  EXPECT_EQ(index, 3);
  std::vector<std::vector<long>> expected = {{1, 1, -1, -1}, {2, 2, 1, 3}, {3, 3, -1, -1}};
  EXPECT_EQ(tree->ordinals, expected);
  EXPECT_EQ(items[0], &untouched);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(items[i], &keys[i]);
}

TEST_F(RedBlackTest, FlattenFilesUnfittingOrdinalsByIndexAndStopsAtSize) {
  auto unnumbered = makeTree({5, 6, 7});
  auto farOut = makeTree({8, 9}, 10);  // ordinals 10 and 11 fit no slot
  void* items[4] = {};
  long index = 0;
  EXPECT_EQ(unnumbered->Flatten(items, 4, index), 3);
  EXPECT_EQ(farOut->Flatten(items, 4, index), 2);  // only one node laid out
  EXPECT_EQ(index, 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(items[i], &keys[5 + i]);
  EXPECT_EQ(unnumbered->ordinals.back(), (std::vector<long>{7, -1, -1, -1}));
  EXPECT_EQ(farOut->ordinals, (std::vector<std::vector<long>>{{8, 10, -1, 11}}));

  farOut->ordinals.clear();
  EXPECT_EQ(farOut->Flatten(items, 4, index), 2);  // a full table hears nothing
  EXPECT_TRUE(farOut->ordinals.empty());
  EXPECT_EQ(index, 4);
}

TEST_F(RedBlackTest, DeleteAllNodesDisposesInOrderAndKeepsTheNodes) {
  auto tree = makeTree({4, 2, 6, 1, 3, 5});
  tree->DeleteAllNodes();
  EXPECT_EQ(tree->deleted, (std::vector<int>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(tree->iCount, 6);
  tree->deleted.clear();
  tree->DeleteAllNodes();
  EXPECT_EQ(tree->deleted, std::vector<int>(6, -1));  // every item is null now
}

// Random runs against a std::set, checking every invariant after every
// insertion.
TEST_F(RedBlackTest, RandomInsertionRunsKeepEveryInvariant) {
  std::mt19937 random(20240611);
  const int kKeyRanges[] = {8, 64, 600};
  for (int run = 0; run < 1500; ++run) {
    auto tree = makeTree({}, 1);
    std::set<int> model;
    int range = kKeyRanges[run % 3];
    int operations = 20 + static_cast<int>(random() % 180);
    for (int op = 0; op < operations; ++op) {
      int key = static_cast<int>(random() % range);
      int64_t before = counter;
      bool fresh = model.insert(key).second;
      ASSERT_EQ(insert(*tree, key), fresh ? 0 : 6);
      ASSERT_EQ(counter, before + (fresh ? 1 : 0));
      ASSERT_EQ(validate(*tree), "") << "run " << run << " op " << op;
      ASSERT_EQ(tree->iCount, static_cast<int>(model.size()));
    }
    for (int key : model) ASSERT_EQ(tree->FindNode(&keys[key])->pData, &keys[key]);
  }
  EXPECT_EQ(host.poolFrees(), 0);
}

}  // namespace
