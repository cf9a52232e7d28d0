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
#include <tuple>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "tree/redblack.h"
#include "writer/moxoledoc.h"
#include "writer/oleio.h"

namespace {

// A host whose memory must all be given back by the end of each test.
class HostTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(moxtest::leakReport(host), ""); }
  moxhost::PoolServices host;
};

// === The document ============================================================

// The path is cut to 1023 characters before it is split, so a backslash
// beyond that point is never seen, and the name to 36.  Shorter paths and
// names are left to the writer fuzz target's model.
TEST_F(HostTest, ParseKeySplitsAtTheLastBackslashAndCuts) {
  CMoxOleDocument doc(host.services());
  char parent[kPathBufferSize];
  char name[kNameBufferSize];
  const struct {
    std::string path, parent, name;
  } cases[] = {
      {std::string(1030, 'p') + "\\tail", "", std::string(36, 'p')},
      {std::string(1000, 'q') + "\\n", std::string(1000, 'q'), "n"},
      {"A\\", "A", ""},
  };
  for (const auto& c : cases) {
    doc.parseKey(c.path.c_str(), parent, name);
    EXPECT_EQ(parent, c.parent) << c.path;
    EXPECT_EQ(name, c.name) << c.path;
  }
}

// --- Memory ---------------------------------------------------------------

// 100 000 entries: 100 storages of 999 streams each.  What an entry costs
// is its object on the process heap plus its share of pool memory (its own
// pool holds its name, its node sits in its parent's pool).
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
  EXPECT_EQ(host.livePools(), kEntries + 2);  // every entry, the root, the output
  EXPECT_EQ(host.poolFrees(), 0);
}

// === The buffered output =====================================================

using moxhost::IoCall;

constexpr int kBuffer = kOleIoBufferSize;

// One host call as the tests compare them: kind, position and count.
using Call = std::tuple<IoCall::Kind, int64_t, int64_t>;

// The host calls recorded on io, without tells.
std::vector<Call> hostCalls(const moxhost::MemoryIo& io) {
  std::vector<Call> calls;
  for (const IoCall& c : io.calls()) {
    if (c.kind != IoCall::kTell) calls.emplace_back(c.kind, c.position, c.count);
  }
  return calls;
}

// Random runs of byte runs, integers, records, flushes and position
// queries, with one host write failing in most runs, against an account of
// what is buffered and what the host holds.  A hand-over sends the whole
// buffer, even an empty one, and empties it whether or not the host took
// it; a failed hand-over ends the call that needed it, losing the rest of
// a run or the integer, but keeping the record; the destructor hands over
// what is left.  Refused arguments hand nothing over.
TEST_F(HostTest, BufferedOutputRandomRunsMatchAnAccountOfBufferAndHost) {
  std::mt19937 random(11);
  std::vector<unsigned char> source(5 * kBuffer);
  for (unsigned char& b : source) b = static_cast<unsigned char>(random());
  const int sizes[] = {-1, 0, 1, 3, 4, 128, 1000, kBuffer - 2, kBuffer, kBuffer + 1, 3 * kBuffer + 5};
  for (int run = 0; run < 300; ++run) {
    SCOPED_TRACE(run);
    moxhost::MemoryIo io;
    io.record(true);
    std::vector<Call> calls;
    std::vector<uint8_t> held, pending;
    int writes = 0;
    const int failAt = random() % 4 ? 1 + static_cast<int>(random() % 8) : 0;
    const auto handOver = [&] {
      calls.emplace_back(IoCall::kWrite, held.size(), pending.size());
      if (++writes != failAt) held.insert(held.end(), pending.begin(), pending.end());
      pending.clear();
      return writes == failAt ? 16 : 0;
    };
    const auto keep = [&](const unsigned char* data, size_t n) { pending.insert(pending.end(), data, data + n); };
    {
      CMoxOleIo out(host.services());
      ASSERT_EQ(out.open(io.io()), 0);
      io.clearCalls();
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
    calls.emplace_back(IoCall::kClose, held.size(), 0);
    EXPECT_EQ(hostCalls(io), calls);
    EXPECT_EQ(io.bytes(), held);
  }
}

// Out of memory for the pool, then for the buffer: open says so (nothing
// else would: the document's close cannot report it), and the destructor
// still closes the object once and frees what was made.
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
    EXPECT_EQ(moxtest::leakReport(host), "");
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

// Checks the subtree at node, whose parent is `parent` and whose keys lie
// in (low, high): order, parent links, no red node under a red one, equal
// black heights.  Returns its black height and counts its nodes; notes a
// fault otherwise.
int checkSubtree(IntTree& tree, Node* node, Node* parent, long low, long high, int* nodes, std::string* fault) {
  if (node == &tree.nilNode) return 1;
  ++*nodes;
  const int key = IntTree::keyOf(node->pData);
  const std::string at = " at " + std::to_string(key);
  if (key <= low || key >= high) *fault = "order broken" + at;
  if (node->pParent != parent) *fault = "parent link broken" + at;
  if (node->byColour == kNodeRed && parent->byColour == kNodeRed) *fault = "red-red" + at;
  const int left = checkSubtree(tree, node->pLeft, node, low, key, nodes, fault);
  if (left != checkSubtree(tree, node->pRight, node, key, high, nodes, fault)) *fault = "black heights differ" + at;
  return left + (node->byColour == kNodeBlack ? 1 : 0);
}

// Every rule a valid tree obeys; empty when all hold.  The in-order walk
// is checked when the items are disposed of.
std::string validate(IntTree& tree) {
  Node* nil = &tree.nilNode;
  if (nil->pLeft != nil || nil->pRight != nil || nil->byColour != kNodeBlack ||
      nil->pData != nullptr || nil->lOrdinal != -1) {
    return "sentinel changed";
  }
  if (tree.pRoot->byColour != kNodeBlack) return "root not black";
  std::string fault;
  int nodes = 0;
  checkSubtree(tree, tree.pRoot, nil, -1, 1L << 40, &nodes, &fault);
  return fault.empty() && nodes != tree.iCount ? "iCount differs from the nodes linked" : fault;
}

class RedBlackTest : public HostTest {
 protected:
  RedBlackTest() : keys(600) {
    for (int i = 0; i < 600; ++i) keys[i] = i;
  }
  int insert(IntTree& tree, int key) {
    Node* node = nullptr;
    return tree.InsertNode(&keys[key], node);
  }

  std::vector<int> keys;  // items at stable addresses
};

// Random runs against a std::set, checking every invariant after every
// insertion; at the end every item is found, and disposed of in order.
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
    int absent = range;
    ASSERT_EQ(tree.FindNode(&absent), &tree.nilNode);
    tree.DeleteAllNodes();
    ASSERT_EQ(tree.deleted, std::vector<int>(model.begin(), model.end()));
  }
  EXPECT_EQ(host.poolFrees(), 0);
}

}  // namespace
