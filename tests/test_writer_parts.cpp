// The writer's parts below the host calls: the document (path splitting,
// memory per entry), the buffered output (against an account of what is
// buffered and what the host holds, and its open's memory failures) and
// the red-black tree the sibling trees are built with.  What hosts see of
// the same is in test_writer, and the writer fuzz target's model checks
// every file its kept inputs make.
#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/write_kit.h"
#include "tree/redblack.h"
#include "writer/moxoledoc.h"
#include "writer/oleio.h"

namespace {

// A host whose memory must all be given back by the end of each test.
class HostTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(writekit::leakReport(host), ""); }
  moxhost::PoolServices host;
};

// === The document ============================================================

// The path is cut to 1023 characters before it is split, so a backslash
// beyond that point is never seen, and the name to 36.  Shorter paths and
// names are left to the writer fuzz target's model.
TEST_F(HostTest, ParseKeyCutsThePathBeforeSplittingIt) {
  CMoxOleDocument doc(host.services());
  char parent[kPathBufferSize];
  char name[kNameBufferSize];
  doc.parseKey((std::string(1030, 'p') + "\\tail").c_str(), parent, name);
  EXPECT_STREQ(parent, "");
  EXPECT_EQ(name, std::string(36, 'p'));
}

// --- Memory ---------------------------------------------------------------

// 100 000 entries: 100 storages of 999 streams each.  What an entry costs
// is its object on the process heap plus its share of pool memory; how the
// pools are shared out among entries is the writer's own business.
TEST_F(HostTest, ManyEntriesCostLittleMemoryEach) {
  moxhost::MemoryIo file;
  CMoxOleDocument doc(host.services());
  ASSERT_EQ(doc.init(file.io(), 1), 0);
  const int kStorages = 100, kStreamsEach = 999;
  const int64_t kEntries = kStorages + int64_t{kStorages} * kStreamsEach;
  char path[64];
  CMoxOleEntry* entry = nullptr;
  for (int s = 0; s < kStorages; ++s) {
    snprintf(path, sizeof path, "Storage%03d", s);
    ASSERT_EQ(doc.addEntry(path, 1, entry), 0);
    for (int e = 0; e < kStreamsEach; ++e) {
      snprintf(path, sizeof path, "Storage%03d\\Stream%04d", s, e);
      ASSERT_EQ(doc.addEntry(path, 2, entry), 0);
    }
  }
  const double perEntry = double(host.poolBytes() - kOleIoBufferSize + host.heap().liveBytes()) / kEntries;
  EXPECT_LT(perEntry + sizeof(CMoxOleEntry), 1024.0);
}

// === The buffered output =====================================================

constexpr int kBuffer = kOleIoBufferSize;

// Random runs of byte runs, integers, records, flushes and position
// queries, with one host write failing in most runs, against an account of
// what is buffered and what the host holds.  A hand-over sends the whole
// buffer, even an empty one (the failing write is counted among the
// host's calls), and empties it whether or not the host took it; a failed
// hand-over ends the call that needed it, losing the rest of a run or the
// integer, but keeping the record; the destructor hands over what is left.
// Refused arguments hand nothing over.
TEST_F(HostTest, BufferedOutputRandomRunsMatchAnAccountOfBufferAndHost) {
  std::mt19937 random(11);
  std::vector<unsigned char> source(5 * kBuffer);
  for (unsigned char& b : source) b = static_cast<unsigned char>(random());
  const int sizes[] = {-1, 0, 1, 3, 4, 128, 1000, kBuffer - 2, kBuffer, kBuffer + 1, 3 * kBuffer + 5};
  for (int run = 0; run < 300; ++run) {
    SCOPED_TRACE(run);
    moxhost::MemoryIo io;
    std::vector<uint8_t> held, pending;
    int writes = 0;
    const int failAt = random() % 4 ? 1 + static_cast<int>(random() % 8) : 0;
    const auto handOver = [&] {
      if (++writes != failAt) held.insert(held.end(), pending.begin(), pending.end());
      pending.clear();
      return writes == failAt ? 16 : 0;
    };
    const auto keep = [&](const unsigned char* data, size_t n) { pending.insert(pending.end(), data, data + n); };
    {
      CMoxOleIo out(host.services());
      ASSERT_EQ(out.open(io.io()), 0);
      io.failWriteAt(failAt);
      for (int op = 0; op < 40; ++op) {
        SCOPED_TRACE(op);
        const int n = sizes[random() % (sizeof sizes / sizeof sizes[0])];
        unsigned char* data = random() % 10 ? source.data() + random() % kBuffer : nullptr;
        const size_t room = kBuffer - pending.size();
        int want = 0;
        switch (random() % 5) {
          case 0:
            if (n < 0 || data == nullptr) {
              want = 16;
            } else if (pending.size() == static_cast<size_t>(kBuffer)) {
              want = handOver();
            }
            for (int at = 0; want == 0 && at < n;) {
              const int piece = std::min<int>(n - at, kBuffer - static_cast<int>(pending.size()));
              keep(data + at, piece);
              at += piece;
              if (pending.size() == static_cast<size_t>(kBuffer)) want = handOver();
            }
            ASSERT_EQ(out.writeBytes(data, n), want);
            break;
          case 1: {
            const uint32_t value = random();
            const unsigned char bytes[] = {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
            if (room < 4) want = handOver();
            if (want == 0) keep(bytes, 4);
            ASSERT_EQ(out.write4ByteInt(static_cast<long>(value)), want);
            break;
          }
          case 2:
            if (n < 0 || n > kBuffer || data == nullptr) {
              want = 16;
            } else {
              if (room < static_cast<size_t>(n)) want = handOver();
              keep(data, n);
            }
            ASSERT_EQ(out.writeRecord(data, n), want);
            break;
          case 3:
            want = handOver();
            ASSERT_EQ(out.flush(), want);
            break;
          case 4: ASSERT_EQ(out.getPos(), static_cast<int64_t>(held.size() + pending.size())); break;
        }
      }
      if (!pending.empty()) handOver();
    }
    EXPECT_EQ(io.bytes(), held);
    EXPECT_EQ(io.closeCalls(), 1);
  }
}

// Out of memory for the pool, then for the buffer: open says so (nothing
// else would: the document's close cannot report it), and the destructor
// still closes the object once and frees what was made (the fixture's
// check).
TEST_F(HostTest, BufferedOutputReportsMemoryFailuresInOpen) {
  for (int attempt = 1; attempt <= 2; ++attempt) {
    moxhost::MemoryIo target;
    {
      CMoxOleIo out(host.services());
      host.faults().failAt(attempt);
      EXPECT_EQ(out.open(target.io()), 2) << "attempt " << attempt;
      host.faults().disarm();
    }
    EXPECT_EQ(target.closeCalls(), 1);
  }
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

// The black height of the subtree at node, whose parent is `parent` and
// whose keys lie in (low, high), counting its nodes; 0 when order, a parent
// link, the rule of no red node under a red one or equal black heights
// fail anywhere in it.
int blackHeight(IntTree& tree, Node* node, Node* parent, long low, long high, int* nodes) {
  if (node == &tree.nilNode) return 1;
  ++*nodes;
  const int key = IntTree::keyOf(node->pData);
  const bool red = node->byColour == kNodeRed;
  const int left = blackHeight(tree, node->pLeft, node, low, key, nodes);
  const int right = blackHeight(tree, node->pRight, node, key, high, nodes);
  if (key <= low || key >= high || node->pParent != parent || (red && parent->byColour == kNodeRed)) return 0;
  return left == 0 || left != right ? 0 : left + (red ? 0 : 1);
}

// Every rule a valid tree obeys, the sentinel's untouched fields and the
// count included.  The in-order walk is checked when the items are
// disposed of.
bool valid(IntTree& tree) {
  Node* nil = &tree.nilNode;
  int nodes = 0;
  return nil->pLeft == nil && nil->pRight == nil && nil->byColour == kNodeBlack && nil->pData == nullptr &&
         nil->lOrdinal == -1 && tree.pRoot->byColour == kNodeBlack &&
         blackHeight(tree, tree.pRoot, nil, -1, 1L << 40, &nodes) > 0 && nodes == tree.iCount;
}

// Random runs against a std::set, checking every invariant after every
// insertion; at the end every item is found, and disposed of in order.
// The numbers the tree draws for its nodes are the writer's directory
// entry numbers, which every byte-for-byte file in test_writer checks.
TEST_F(HostTest, RedBlackRandomInsertionRunsKeepEveryInvariant) {
  std::vector<int> keys(601);  // items at stable addresses
  for (int i = 0; i <= 600; ++i) keys[i] = i;
  std::mt19937 random(20240611);
  const int kKeyRanges[] = {8, 64, 600};
  for (int run = 0; run < 1500; ++run) {
    IntTree tree(host.services());
    std::set<int> model;
    const int range = kKeyRanges[run % 3];
    const int operations = 20 + static_cast<int>(random() % 180);
    for (int op = 0; op < operations; ++op) {
      const int key = static_cast<int>(random() % range);
      Node* node = nullptr;
      ASSERT_EQ(tree.InsertNode(&keys[key], node), model.insert(key).second ? 0 : 6);
      ASSERT_TRUE(valid(tree)) << "run " << run << " op " << op;
    }
    for (int key : model) ASSERT_EQ(tree.FindNode(&keys[key])->pData, &keys[key]);
    ASSERT_EQ(tree.FindNode(&keys[range]), &tree.nilNode);
    tree.DeleteAllNodes();
    ASSERT_EQ(tree.deleted, std::vector<int>(model.begin(), model.end()));
  }
}

}  // namespace
