// iOLEGetStreamTree: shape, order, the step cut, failures, and the rule
// that everything comes from the caller's pool.
#include <gtest/gtest.h>

#include <set>

#include "support/cfb_builder.h"
#include "support/open_doc.h"

namespace {

struct Tree {
  moxhost::PoolServices services;
  HostMemory* pool = nullptr;
  _MoxOleTreeNode* root = nullptr;
  int status = -1;
  explicit Tree(_MoxOleFile* h) {
    int ignored = 0;
    pool = services.createPool(4096, 0, &ignored);
    status = iOLEGetStreamTree(h, pool, &root);
  }
  ~Tree() {
    EXPECT_EQ(services.poolFrees(), 0) << "tree memory is never freed piecemeal";
    EXPECT_EQ(services.heap().allocations(), 0) << "tree memory comes from the pool only";
    services.destroyPool(pool);
  }
};

std::vector<std::string> childNames(const _MoxOleTreeNode* n) {
  std::vector<std::string> names;
  for (int i = 0; i < n->iChildCount; ++i) names.push_back(n->ppChildren[i]->szName);
  return names;
}

TEST(StreamTree, RootOnlyDocumentIsOneNode) {
  OpenDoc doc(cfb::CfbBuilder().build());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  ASSERT_EQ(t.status, 0);
  EXPECT_STREQ(t.root->szName, "Root Entry");
  EXPECT_EQ(t.root->iType, 5);
  EXPECT_EQ(t.root->iSize, 0);
  EXPECT_EQ(t.root->iIndex, 0);
  EXPECT_EQ(t.root->iChildCount, 0);
  EXPECT_EQ(t.root->ppChildren, nullptr);
  EXPECT_EQ(t.root->pParent, nullptr);
}

TEST(StreamTree, ChildrenFollowThePreOrderOfTheSiblingTree) {
  cfb::CfbBuilder b;
  int a = b.addStream(0, "A", cfb::Bytes(5, 1));
  int bb = b.addStorage(0, "B");
  int c = b.addStream(0, "C", cfb::Bytes(7000, 1));
  int inner = b.addStream(bb, "Inner", cfb::Bytes(3, 1));
  cfb::CfbLayout l = b.layout();
  // B at the top, A to its left, C to its right.
  l.dir[0].child = bb;
  l.dir[bb].left = a;
  l.dir[bb].right = c;
  l.dir[a].left = l.dir[a].right = l.dir[c].left = l.dir[c].right = cfb::kNone;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(childNames(t.root), (std::vector<std::string>{"B", "A", "C"}));
  const _MoxOleTreeNode* storage = t.root->ppChildren[0];
  EXPECT_EQ(storage->iType, 1);
  EXPECT_EQ(storage->iIndex, bb);
  EXPECT_EQ(storage->pParent, t.root);
  ASSERT_EQ(storage->iChildCount, 1);
  EXPECT_STREQ(storage->ppChildren[0]->szName, "Inner");
  EXPECT_EQ(storage->ppChildren[0]->iIndex, inner);
  EXPECT_EQ(storage->ppChildren[0]->pParent, storage);
  EXPECT_EQ(t.root->ppChildren[2]->iSize, 7000);
}

TEST(StreamTree, ThreeHundredChildrenGrowTheArrayOnce) {
  cfb::CfbBuilder b;
  for (int i = 0; i < 300; ++i) b.addStream(0, "S" + std::to_string(i), cfb::Bytes(1, 1));
  OpenDoc doc(b.build());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.root->iChildCount, 300);
  EXPECT_EQ(t.services.poolArrayCalls(), 2);       // 256 places, then 512
  EXPECT_EQ(t.services.poolAllocateCalls(), 301);  // root and one per child
  std::set<int> seen;
  for (int i = 0; i < 300; ++i) seen.insert(t.root->ppChildren[i]->iIndex);
  EXPECT_EQ(seen.size(), 300u);
}

// A run of right siblings longer than the step limit.
cfb::CfbLayout longChain(int length) {
  cfb::CfbBuilder b;
  for (int i = 0; i < length; ++i) b.addStream(0, "S" + std::to_string(i), {});
  cfb::CfbLayout l = b.layout();
  l.dir[0].child = 1;
  for (int i = 1; i <= length; ++i) {
    l.dir[i].left = cfb::kNone;
    l.dir[i].right = i < length ? static_cast<uint32_t>(i + 1) : cfb::kNone;
  }
  return l;
}

TEST(StreamTree, WalkCutsLinksPastThirtyFiveHundredSteps) {
  OpenDoc doc(longChain(3600).serialize());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  ASSERT_EQ(t.status, 0);
  // The top entry is step 1, so the 3501st entry is the last one reached.
  ASSERT_EQ(t.root->iChildCount, 3501);
  EXPECT_EQ(doc->pDir[3501].lRight, -1);
  EXPECT_EQ(doc->pDir[3500].lRight, 3501);
  EXPECT_EQ(doc->pDir[3502].lRight, 3503);
}

TEST(StreamTree, CyclicSiblingsEndAtTheStepLimit) {
  cfb::CfbLayout l = longChain(10);
  l.dir[10].right = 1;  // back to the top
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.root->iChildCount, 3501);
  EXPECT_EQ(doc->pDir[t.root->ppChildren[3500]->iIndex].lRight, -1);
}

TEST(StreamTree, EntriesSharedBetweenPathsStopTheWalk) {
  // Every entry's left and right link lead to the same next entry: the
  // number of paths doubles at each level.
  cfb::CfbLayout l = longChain(60);
  for (int i = 1; i < 60; ++i) l.dir[i].left = l.dir[i].right;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  Tree t(doc.handle());
  EXPECT_EQ(t.status, 4);
  EXPECT_LT(t.services.poolAllocateCalls(), 20000);
}

TEST(StreamTree, FailuresReportTheirCodeAndLeaveCountsTrue) {
  OpenDoc doc(longChain(5).serialize());
  ASSERT_TRUE(doc.ok());
  moxhost::PoolServices services;
  int ignored = 0;
  HostMemory* pool = services.createPool(4096, 0, &ignored);
  _MoxOleTreeNode* root = nullptr;
  EXPECT_EQ(iOLEGetStreamTree(nullptr, pool, &root), 34);
  EXPECT_EQ(iOLEGetStreamTree(doc.handle(), nullptr, &root), 34);
  for (int n = 1; n <= 7; ++n) {
    services.faults().failAt(n);
    root = nullptr;
    EXPECT_EQ(iOLEGetStreamTree(doc.handle(), pool, &root), 2) << n;
    if (n > 1) {
      ASSERT_NE(root, nullptr);
      ASSERT_LE(root->iChildCount, 5);
      for (int i = 0; i < root->iChildCount; ++i) ASSERT_NE(root->ppChildren[i], nullptr);
    }
  }
  services.faults().disarm();
  doc->pDir[3].lRight = -3;
  EXPECT_EQ(iOLEGetStreamTree(doc.handle(), pool, &root), 4);
  EXPECT_EQ(root->iChildCount, 3);
  services.destroyPool(pool);
}

}  // namespace
