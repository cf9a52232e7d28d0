// The writer's parts below the host calls: the document (path splitting,
// memory per entry), the buffered output (buffering and flushing as the
// host sees them, the ways opening can fail) and the red-black tree the
// sibling trees are built with.  What hosts see of the same is in
// test_writer, and the writer fuzz target's model checks every file its
// kept inputs make.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "tree/redblack.h"
#include "writer/moxoledoc.h"
#include "writer/oleio.h"

namespace {

// === The document ============================================================

// A host and an output in memory; whatever the test made must be gone at
// its end.
template <typename Made>
class HostTest : public ::testing::Test {
 protected:
  void TearDown() override {
    made.reset();
    EXPECT_EQ(moxtest::leakReport(host), "");
  }
  moxhost::PoolServices host;
  moxhost::MemoryIo file;
  std::unique_ptr<Made> made;
};

class DocumentTest : public HostTest<CMoxOleDocument> {
 protected:
  std::unique_ptr<CMoxOleDocument>& doc = made;

  // A document that init has built with the given flags.
  void makeDocument(int flags = 1) {
    doc = std::make_unique<CMoxOleDocument>(host.services());
    ASSERT_EQ(doc->init(file.io(), flags), 0);
  }
};

// --- Paths ---------------------------------------------------------------

// Names are cut to 36 characters, and the path to 1023 before it is
// split: a backslash beyond that point is never seen.
TEST_F(DocumentTest, ParseKeySplitsAtTheLastBackslashAndCuts) {
  makeDocument();
  char parent[kPathBufferSize] = "junk";
  char name[kNameBufferSize] = "junk";
  doc->parseKey(nullptr, parent, name);
  EXPECT_STREQ(parent, "");
  EXPECT_STREQ(name, "");
  std::string forty(40, 'x');
  for (int i = 0; i < 40; ++i) forty[i] = static_cast<char>('a' + i % 26);
  const struct {
    std::string path, parent, name;
  } cases[] = {
      {"\\A\\B", "\\A", "B"}, {"A\\B", "A", "B"}, {"B", "", "B"}, {"\\B", "", "B"},
      {"A\\", "A", ""}, {"", "", ""}, {"S\\" + forty, "S", forty.substr(0, 36)},
      {std::string(1030, 'p') + "\\tail", "", std::string(36, 'p')},
      {std::string(1000, 'q') + "\\n", std::string(1000, 'q'), "n"},
  };
  for (const auto& c : cases) {
    doc->parseKey(c.path.c_str(), parent, name);
    EXPECT_EQ(parent, c.parent) << c.path;
    EXPECT_EQ(name, c.name) << c.path;
  }
}

// --- Memory ---------------------------------------------------------------

// 100 000 entries: 100 storages of 999 streams each.  What an entry costs
// is its object on the process heap plus its share of pool memory (its own
// pool holds its name, its node sits in its parent's pool).
TEST_F(DocumentTest, ManyEntriesCostLittleMemoryEach) {
  makeDocument();
  const int kStorages = 100, kStreamsEach = 999;
  const int64_t kEntries = kStorages + int64_t{kStorages} * kStreamsEach;
  char path[64];
  CMoxOleEntry* entry = nullptr;
  for (int s = 0; s < kStorages; ++s) {
    snprintf(path, sizeof path, "Storage%03d", s);
    ASSERT_EQ(doc->addEntry(path, 1, entry), 0);
    ASSERT_NE(entry, nullptr);
    for (int e = 0; e < kStreamsEach; ++e) {
      snprintf(path, sizeof path, "Storage%03d\\Stream%04d", s, e);
      ASSERT_EQ(doc->addEntry(path, 2, entry), 0);
    }
  }
  ASSERT_EQ(doc->vEntries.size(), kEntries);
  EXPECT_EQ(doc->lNextOrdinal, kEntries + 1);
  EXPECT_EQ(doc->findEntry("storage042\\STREAM0998")->iType, 2);

  const double perEntry = double(host.poolBytes() - kOleIoBufferSize + host.heap().liveBytes()) / kEntries;
  EXPECT_LT(perEntry + sizeof(CMoxOleEntry), 1024.0);
  EXPECT_EQ(host.livePools(), kEntries + 2);  // every entry, the root, the output
  EXPECT_EQ(host.poolFrees(), 0);
}

// === The buffered output =====================================================

using moxhost::IoCall;

constexpr int kBuffer = kOleIoBufferSize;

// One host call as the tests compare them: kind, position and count.
using Call = std::tuple<IoCall::Kind, int64_t, int64_t>;

class OleIoTest : public HostTest<CMoxOleIo> {
 protected:
  void SetUp() override { file.record(true); }

  // Opens a fresh output on file and forgets the open call.
  void openOutput() {
    out = std::make_unique<CMoxOleIo>(host.services());
    ASSERT_EQ(out->open(file.io()), 0);
    file.clearCalls();
  }

  // The host calls since the last clear, without tells.
  std::vector<Call> hostCalls() const {
    std::vector<Call> calls;
    for (const IoCall& c : file.calls()) {
      if (c.kind != IoCall::kTell) calls.emplace_back(c.kind, c.position, c.count);
    }
    return calls;
  }

  // Bytes 0, 1, 2, ... wrapping at 251 so that a shifted copy shows.
  static std::vector<unsigned char> pattern(size_t n) {
    std::vector<unsigned char> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(i % 251);
    return bytes;
  }

  std::unique_ptr<CMoxOleIo>& out = made;
};

// A record that does not fit sends the buffered bytes first and starts the
// next buffer; it is kept even when that hand-over fails.
TEST_F(OleIoTest, ARecordGoesWholeIntoTheBuffer) {
  openOutput();
  auto data = pattern(kBuffer - 100);
  auto record = pattern(128);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 100), 0);
  ASSERT_EQ(out->writeRecord(record.data(), 128), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer - 100}}));
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 200), 0);
  file.failWriteAt(1);  // the hand-over this record needs
  EXPECT_EQ(out->writeRecord(record.data(), 128), 16);
  EXPECT_EQ(out->writeRecord(record.data(), kBuffer + 1), 16);
  EXPECT_EQ(out->iBufferUsed, 128) << "a refused record hands nothing over";
  out.reset();
  ASSERT_EQ(file.bytes().size(), static_cast<size_t>(kBuffer - 100 + 128));
  EXPECT_TRUE(std::equal(record.begin(), record.end(), file.bytes().end() - 128));
}

// An integer that does not fit sends the buffered bytes first; one that
// exactly fits stays buffered until more comes.
TEST_F(OleIoTest, AnIntegerIsNeverSplitAcrossHostWrites) {
  openOutput();
  auto data = pattern(kBuffer);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 2), 0);
  EXPECT_EQ(file.writeCalls(), 0);
  ASSERT_EQ(out->write4ByteInt(0x0A0B0C0D), 0);
  EXPECT_EQ(out->getPos(), kBuffer + 2);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 8), 0);
  ASSERT_EQ(out->write4ByteInt(1), 0);
  EXPECT_EQ(file.writeCalls(), 1);
  ASSERT_EQ(out->write4ByteInt(0x05060708), 0);
  out.reset();
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer - 2},
                                            {IoCall::kWrite, kBuffer - 2, kBuffer},
                                            {IoCall::kWrite, 2 * kBuffer - 2, 4},
                                            {IoCall::kClose, 2 * kBuffer + 2, 0}}));
  const auto& got = file.bytes();
  ASSERT_EQ(got.size(), static_cast<size_t>(2 * kBuffer + 2));
  EXPECT_EQ(got[kBuffer - 3], data[kBuffer - 3]);
  EXPECT_EQ(got[kBuffer - 2], 0x0D);
  EXPECT_EQ(got[kBuffer + 1], 0x0A);
  EXPECT_EQ(got[2 * kBuffer - 2], 0x08);
  EXPECT_EQ(got[2 * kBuffer + 1], 0x05);
}

TEST_F(OleIoTest, LongRunsReachTheHostInBufferSizedPieces) {
  openOutput();
  auto data = pattern(3 * kBuffer);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer + 10), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer}}));
  // A partly filled buffer is completed first, then whole pieces follow.
  file.clearCalls();
  ASSERT_EQ(out->writeBytes(data.data() + kBuffer + 10, 2 * kBuffer - 10), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, kBuffer, kBuffer},
                                            {IoCall::kWrite, 2 * kBuffer, kBuffer}}));
  out.reset();
  EXPECT_EQ(file.bytes(), std::vector<uint8_t>(data.begin(), data.end()));
}

TEST_F(OleIoTest, EmptyAndBadWrites) {
  openOutput();
  unsigned char byte = 1;
  EXPECT_EQ(out->writeBytes(&byte, 0), 0);
  EXPECT_EQ(out->writeBytes(nullptr, 1), 16);
  EXPECT_EQ(out->writeBytes(&byte, -1), 16);

  // A zero-byte write on a full buffer hands the buffer over.
  auto data = pattern(kBuffer);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 4), 0);
  ASSERT_EQ(out->write4ByteInt(0), 0);
  EXPECT_EQ(out->writeBytes(&byte, -1), 16);
  EXPECT_EQ(out->iBufferUsed, kBuffer) << "a refused write hands nothing over";
  EXPECT_EQ(out->writeBytes(&byte, 0), 0);
  // flush hands over even an empty buffer; the destructor does not.
  EXPECT_EQ(out->flush(), 0);
  out.reset();
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer},
                                            {IoCall::kWrite, kBuffer, 0},
                                            {IoCall::kClose, kBuffer, 0}}));
}

TEST_F(OleIoTest, AFailedHostWriteInARunLosesThatPieceOnly) {
  openOutput();
  file.failWriteAt(2);
  auto data = pattern(3 * kBuffer + 5);
  EXPECT_EQ(out->writeBytes(data.data(), 3 * kBuffer + 5), 16);
  EXPECT_EQ(file.writeCalls(), 2);  // the third piece was never copied
  EXPECT_EQ(file.position(), kBuffer);

  // No lasting error: the next bytes go out after the first piece.
  ASSERT_EQ(out->writeBytes(data.data() + 3 * kBuffer, 5), 0);
  EXPECT_EQ(out->getPos(), kBuffer + 5);
  out.reset();
  ASSERT_EQ(file.bytes().size(), static_cast<size_t>(kBuffer + 5));
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + kBuffer, file.bytes().begin()));
  EXPECT_TRUE(std::equal(data.end() - 5, data.end(), file.bytes().end() - 5));
}

TEST_F(OleIoTest, AFailedFlushForAnIntegerDropsTheBufferAndTheValue) {
  openOutput();
  file.failWriteAt(1);
  auto data = pattern(kBuffer - 2);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 2), 0);
  EXPECT_EQ(out->write4ByteInt(0x11223344), 16);
  EXPECT_EQ(out->write4ByteInt(0x5566), 0);
  out.reset();
  EXPECT_EQ(file.bytes(), (std::vector<uint8_t>{0x66, 0x55, 0, 0}));
}

// Detached, the output has nothing to write to; open takes one object and
// makes one buffer from a pool of its own, and nothing reaches the host
// before the destructor.
TEST_F(OleIoTest, OpenTakesOneObjectAndMakesOneBufferFromItsOwnPool) {
  out = std::make_unique<CMoxOleIo>(host.services());
  unsigned char byte = 0;
  EXPECT_EQ(out->flush(), 16);
  EXPECT_EQ(out->writeBytes(&byte, 1), 16);
  EXPECT_EQ(out->getPos(), -1);
  EXPECT_EQ(host.poolsCreated(), 0);  // the constructor takes nothing
  EXPECT_EQ(out->open(nullptr), 14);
  EXPECT_EQ(out->pIoObj, nullptr);
  ASSERT_EQ(out->open(file.io()), 0);
  moxhost::MemoryIo other;
  EXPECT_EQ(out->open(other.io()), 14);
  EXPECT_EQ(out->pIoObj, file.io());
  EXPECT_EQ(file.openCalls(), 1);
  EXPECT_EQ(host.livePools(), 1);
  EXPECT_EQ(host.poolsCreated(), 1);
  EXPECT_EQ(host.poolAllocateCalls(), 1);
  EXPECT_EQ(out->getPos(), 0);
  ASSERT_EQ(out->write4ByteInt(7), 0);
  EXPECT_EQ(out->getPos(), 4);
  EXPECT_EQ(file.writeCalls(), 0);
  out.reset();
  EXPECT_EQ(file.writeCalls(), 1);
  EXPECT_EQ(file.closeCalls(), 1);
  EXPECT_EQ(host.livePools(), 0);
  EXPECT_EQ(other.openCalls() + other.closeCalls(), 0);
}

TEST_F(OleIoTest, MemoryFailuresInOpenKeepTheObjectForTheDestructor) {
  for (int attempt = 1; attempt <= 2; ++attempt) {  // the pool, then the buffer
    moxhost::MemoryIo target;
    out = std::make_unique<CMoxOleIo>(host.services());
    host.faults().failAt(attempt);
    EXPECT_EQ(out->open(target.io()), 2) << "attempt " << attempt;
    EXPECT_EQ(out->write4ByteInt(1), 16);
    EXPECT_EQ(host.livePools(), attempt == 1 ? 0 : 1);
    out.reset();
    EXPECT_EQ(target.closeCalls(), 1);
    EXPECT_EQ(target.writeCalls(), 0);
    EXPECT_EQ(host.livePools(), 0);
  }
  host.faults().disarm();
}

// === The red-black tree ======================================================

using Node = _MoxOleRedBlackNode;

// Items point to ints, ordered by value; disposal is noted.
class IntTree final : public CMoxOleRedBlack {
 public:
  explicit IntTree(tag_TPVAPIServices* services) : CMoxOleRedBlack(services) {}

  static int keyOf(void* item) { return item == nullptr ? -1 : *static_cast<int*>(item); }

  bool compLT(void* a, void* b) override { return keyOf(a) < keyOf(b); }
  bool compEQ(void* a, void* b) override { return keyOf(a) == keyOf(b); }
  void deleteData(void* data) override { deleted.push_back(keyOf(data)); }
  void setOrdinal(void*, long, long, long) override {}

  std::vector<int> deleted;
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

  moxhost::PoolServices host;
  std::vector<int> keys;  // items at stable addresses
};

TEST_F(RedBlackTest, EmptyTreeHasSentinelPoolAndNothingInIt) {
  {
    IntTree tree(host.services());
    EXPECT_EQ(host.livePools(), 1);
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

// Random runs against a std::set, checking every invariant after every
// insertion.
TEST_F(RedBlackTest, RandomInsertionRunsKeepEveryInvariant) {
  std::mt19937 random(20240611);
  const int kKeyRanges[] = {8, 64, 600};
  for (int run = 0; run < 1500; ++run) {
    IntTree tree(host.services());
    int64_t counter = 1;
    tree.plOrdinalCounter = &counter;
    std::set<int> model;
    int range = kKeyRanges[run % 3];
    int operations = 20 + static_cast<int>(random() % 180);
    for (int op = 0; op < operations; ++op) {
      int key = static_cast<int>(random() % range);
      int64_t before = counter;
      bool fresh = model.insert(key).second;
      ASSERT_EQ(insert(tree, key), fresh ? 0 : 6);
      ASSERT_EQ(counter, before + (fresh ? 1 : 0));
      ASSERT_EQ(validate(tree), "") << "run " << run << " op " << op;
      ASSERT_EQ(tree.iCount, static_cast<int>(model.size()));
    }
    for (int key : model) ASSERT_EQ(tree.FindNode(&keys[key])->pData, &keys[key]);
  }
  EXPECT_EQ(host.poolFrees(), 0);
}

}  // namespace
