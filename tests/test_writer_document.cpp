// The writer's document below the host calls: path splitting, entry
// creation and numbering, the entry ordering, what a failed block
// allocation keeps, and memory per entry.  What hosts see of the same
// (results, bytes, failures) is in test_writer_api and test_fault_sweeps.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "writer/moxoledoc.h"

namespace {

class DocumentTest : public ::testing::Test {
 protected:
  void TearDown() override {
    doc.reset();
    EXPECT_EQ(moxtest::leakReport(host), "");
  }

  // A document that init has built with the given flags.
  void makeDocument(int flags = 1) {
    doc = std::make_unique<CMoxOleDocument>(host.services());
    ASSERT_EQ(doc->init(file.io(), flags), 0);
  }

  CMoxOleEntry* add(const char* path, int type) {
    CMoxOleEntry* entry = nullptr;
    int status = doc->addEntry(path, type, entry);
    EXPECT_EQ(status, 0) << path;
    return entry;
  }

  // Numbers the directory as the file writer does: the root's tree, then
  // every entry's tree in creation order, into a table of N + 1 slots.
  std::vector<CMoxOleEntry*> numberEntries() {
    long n = static_cast<long>(doc->vEntries.size());
    std::vector<void*> table(n + 1, nullptr);
    long index = 0;
    doc->pRootEntry->Flatten(table.data(), n + 1, index);
    for (long i = 0; i < n; ++i) doc->vEntries[i]->Flatten(table.data(), n + 1, index);
    std::vector<CMoxOleEntry*> entries;
    for (void* item : table) entries.push_back(static_cast<CMoxOleEntry*>(item));
    return entries;
  }

  moxhost::PoolServices host;
  moxhost::MemoryIo file;
  std::unique_ptr<CMoxOleDocument> doc;
};

// --- Paths ---------------------------------------------------------------

TEST_F(DocumentTest, ParseKeySplitsAtTheLastBackslashAndCuts) {
  makeDocument();
  char parent[kPathBufferSize];
  char name[kNameBufferSize];
  struct Case {
    const char* path;
    const char* parent;
    const char* name;
  } cases[] = {
      {"\\A\\B", "\\A", "B"}, {"A\\B", "A", "B"}, {"B", "", "B"},
      {"\\B", "", "B"},       {"A\\", "A", ""},   {"", "", ""},
  };
  for (const Case& c : cases) {
    doc->parseKey(c.path, parent, name);
    EXPECT_STREQ(parent, c.parent) << c.path;
    EXPECT_STREQ(name, c.name) << c.path;
  }

  strcpy(parent, "junk");
  strcpy(name, "junk");
  doc->parseKey(nullptr, parent, name);
  EXPECT_STREQ(parent, "");
  EXPECT_STREQ(name, "");

  std::string forty(40, 'x');
  for (int i = 0; i < 40; ++i) forty[i] = static_cast<char>('a' + i % 26);
  doc->parseKey(("S\\" + forty).c_str(), parent, name);
  EXPECT_EQ(std::string(name), forty.substr(0, 36));

  // The path is cut to 1023 characters before it is split: a backslash
  // beyond that point is never seen.
  std::string longPath = std::string(1030, 'p') + "\\tail";
  doc->parseKey(longPath.c_str(), parent, name);
  EXPECT_STREQ(parent, "");
  EXPECT_EQ(std::string(name), std::string(36, 'p'));
  std::string longParent = std::string(1000, 'q') + "\\n";
  doc->parseKey(longParent.c_str(), parent, name);
  EXPECT_EQ(std::string(parent), std::string(1000, 'q'));
  EXPECT_STREQ(name, "n");
}

TEST_F(DocumentTest, CreationNeedsAnExistingParentAndAFreeName) {
  makeDocument();
  CMoxOleEntry* entry = doc->pRootEntry;
  EXPECT_EQ(doc->addEntry("X\\S", 2, entry), 6);
  EXPECT_EQ(entry, nullptr);
  EXPECT_EQ(doc->addEntry("Root Entry\\A", 2, entry), 6);
  EXPECT_EQ(doc->addEntry("A", 3, entry), 34);
  EXPECT_EQ(doc->addEntry("A", 5, entry), 34);
  EXPECT_EQ(doc->lNextOrdinal, 1);
  EXPECT_EQ(doc->vEntries.size(), 0);
  EXPECT_EQ(doc->pRootEntry->iCount, 0);

  CMoxOleEntry* a = add("A", 2);
  EXPECT_EQ(doc->addEntry("a", 1, entry), 6);
  EXPECT_EQ(entry, nullptr);
  EXPECT_EQ(doc->findEntry("A"), a);
  CMoxOleEntry* b = add("B", 2);

  // A parent may be a stream, and an empty name is a name like any other.
  CMoxOleEntry* under = add("A\\", 2);
  EXPECT_EQ(doc->findEntry("A\\"), under);

  // A name cut to 36 characters collides with its own cut form.
  std::string longName(40, 'L');
  CMoxOleEntry* cut = add(longName.c_str(), 1);
  EXPECT_EQ(std::string(cut->pszName), std::string(36, 'L'));
  EXPECT_EQ(doc->addEntry(std::string(37, 'l').c_str(), 1, entry), 6);

  auto numbered = numberEntries();
  ASSERT_EQ(numbered.size(), 5u);
  EXPECT_EQ(numbered[1], a);
  EXPECT_EQ(numbered[2], b);  // the refused "a" used up no index
  EXPECT_EQ(numbered[3], under);
  EXPECT_EQ(numbered[4], cut);
  for (long i = 1; i < 5; ++i) EXPECT_EQ(numbered[i]->lIndex, i);
}

// --- Numbering and the sibling trees --------------------------------------

TEST_F(DocumentTest, EntriesAreNumberedInCreationOrderOverTheWholeDocument) {
  makeDocument();
  const char* paths[] = {"S", "S\\one", "T", "S\\two", "T\\x", "S\\three", "T\\x\\deep"};
  std::vector<CMoxOleEntry*> created;
  for (const char* path : paths) created.push_back(add(path, strchr(path, 'o') ? 2 : 1));
  EXPECT_EQ(doc->lNextOrdinal, 8);
  ASSERT_EQ(doc->vEntries.size(), 7);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(doc->vEntries[i], created[i]);

  auto table = numberEntries();
  EXPECT_EQ(table[0], nullptr);  // the root's slot, filled by the writer
  for (long i = 1; i <= 7; ++i) {
    EXPECT_EQ(table[i], created[i - 1]);
    EXPECT_EQ(table[i]->lIndex, i);
  }

  // Sibling links are the shape of each parent's tree, in entry numbers.
  CMoxOleEntry* s = created[0];
  _MoxOleRedBlackNode* top = s->pRoot;
  EXPECT_EQ(static_cast<CMoxOleEntry*>(top->pData)->pszName, std::string("two"));
  EXPECT_EQ(created[1]->lIndex, top->pLeft->lOrdinal);    // "one" < "two"
  EXPECT_EQ(created[5]->lIndex, top->pRight->lOrdinal);   // "three" is longer
  EXPECT_EQ(created[3]->lLeftSibling, created[1]->lIndex);
  EXPECT_EQ(created[3]->lRightSibling, created[5]->lIndex);
  EXPECT_EQ(created[1]->lLeftSibling, -1);
  EXPECT_EQ(created[6]->lLeftSibling, -1);
  EXPECT_EQ(created[6]->lRightSibling, -1);
}

TEST_F(DocumentTest, SiblingsSortShorterFirstThenByLowerCaseBytes) {
  auto entry = [this](const char* name) {
    std::vector<char> copy(name, name + strlen(name) + 1);
    return std::make_unique<CMoxOleEntry>(copy.data(), 2, host.services(), nullptr);
  };
  // For each pair: a < b, b < a, a == b.
  struct Case {
    const char *a, *b;
    bool less, greater, equal;
  } cases[] = {
      {"B", "AA", true, false, false},   {"ab", "AC", true, false, false},
      {"Data", "DATA", false, false, true}, {"A_", "Aa", true, false, false},
      {"A_", "AZ", true, false, false},  {"a\x7f", "a\x80", true, false, false},
      {"", "a", true, false, false},     {"", "", false, false, true},
  };
  for (const Case& c : cases) {
    auto a = entry(c.a), b = entry(c.b);
    EXPECT_EQ(a->compLT(a.get(), b.get()), c.less) << c.a << " < " << c.b;
    EXPECT_EQ(a->compLT(b.get(), a.get()), c.greater) << c.b << " < " << c.a;
    EXPECT_EQ(a->compEQ(a.get(), b.get()), c.equal) << c.a << " == " << c.b;
  }
  // An entry without a name (or without a pool for it) compares as "".
  auto unnamed = std::make_unique<CMoxOleEntry>(nullptr, 2, host.services(), nullptr);
  auto empty = entry("");
  EXPECT_FALSE(unnamed->ready());
  EXPECT_TRUE(unnamed->compEQ(unnamed.get(), empty.get()));
  EXPECT_EQ(unnamed->iBlockSize, 512);
}

// --- The block store -----------------------------------------------------

class BlockStoreTest : public DocumentTest {
 protected:
  void SetUp() override {
    makeDocument();
    stream = add("S", 2);
  }

  // The stream's bytes as its blocks hold them, and a check of the block
  // invariants: every block full but the last, which holds the fill.
  std::string contents() {
    std::string bytes;
    int blocks = 0;
    for (_MoxOleBlock* b = stream->pFirstBlock; b != nullptr; b = b->pNext) {
      bool last = b == stream->pLastBlock;
      EXPECT_EQ(last, b->pNext == nullptr);
      int used = last ? stream->iLastBlockFill : stream->iBlockSize;
      bytes.append(reinterpret_cast<char*>(b->pbData), static_cast<size_t>(used));
      if (last) {
        for (int i = used; i < stream->iBlockSize; ++i) EXPECT_EQ(b->pbData[i], 0) << i;
      }
      ++blocks;
    }
    EXPECT_EQ(blocks, stream->iBlockCount);
    EXPECT_EQ(static_cast<int64_t>(bytes.size()), stream->lStreamSize);
    EXPECT_EQ(stream->iBlockCount, (stream->lStreamSize + 511) / 512);
    return bytes;
  }

  static std::string pattern(size_t n, int seed) {
    std::string bytes(n, 0);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>((i * 7 + seed) % 253 + 1);
    return bytes;
  }

  int write(std::string& bytes) {
    return stream->write(reinterpret_cast<unsigned char*>(&bytes[0]),
                         static_cast<int>(bytes.size()));
  }

  CMoxOleEntry* stream = nullptr;
};

// A write of 1500 bytes into a stream holding 100 takes three blocks, two
// pool allocations each; failing each in turn leaves a stream whose size
// is exactly the bytes its blocks hold, and a later write goes on from
// there.
TEST_F(BlockStoreTest, AFailedBlockAllocationKeepsWhatWasStored) {
  for (int attempt = 1; attempt <= 7; ++attempt) {
    doc.reset();
    SetUp();
    std::string head = pattern(100, 5), body = pattern(1500, 6), tail = pattern(30, 7);
    ASSERT_EQ(write(head), 0);
    host.faults().failAt(attempt);
    int status = write(body);
    host.faults().disarm();
    if (attempt == 7) {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(contents(), head + body);
      break;
    }
    EXPECT_EQ(status, 2) << "attempt " << attempt;
    int blocksGained = (attempt - 1) / 2;  // record, then data, per block
    int64_t stored = 412 + 512 * blocksGained;
    EXPECT_EQ(stream->lStreamSize, 100 + stored) << "attempt " << attempt;
    EXPECT_EQ(contents(), head + body.substr(0, static_cast<size_t>(stored)));
    ASSERT_EQ(write(tail), 0);
    EXPECT_EQ(contents(), head + body.substr(0, static_cast<size_t>(stored)) + tail);
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
  for (int s = 0; s < kStorages; ++s) {
    snprintf(path, sizeof path, "Storage%03d", s);
    ASSERT_NE(add(path, 1), nullptr);
    for (int e = 0; e < kStreamsEach; ++e) {
      snprintf(path, sizeof path, "Storage%03d\\Stream%04d", s, e);
      CMoxOleEntry* entry = nullptr;
      ASSERT_EQ(doc->addEntry(path, 2, entry), 0);
    }
  }
  ASSERT_EQ(doc->vEntries.size(), kEntries);
  EXPECT_EQ(doc->lNextOrdinal, kEntries + 1);
  EXPECT_EQ(doc->findEntry("storage042\\STREAM0998")->iType, 2);

  const int64_t outputBuffer = kOleIoBufferSize;
  double poolPerEntry = double(host.poolBytes() - outputBuffer) / kEntries;
  double heapPerEntry = double(host.heap().liveBytes()) / kEntries;
  double objectPerEntry = sizeof(CMoxOleEntry);
  printf("[ memory   ] %lld entries: %.1f pool bytes + %.0f object bytes + %.1f services-heap "
         "bytes per entry (pools live: %lld)\n",
         static_cast<long long>(kEntries), poolPerEntry, objectPerEntry, heapPerEntry,
         static_cast<long long>(host.livePools()));
  EXPECT_LT(poolPerEntry + objectPerEntry + heapPerEntry, 1024.0);
  EXPECT_EQ(host.livePools(), kEntries + 2);  // every entry, the root, the output
  EXPECT_EQ(host.poolFrees(), 0);
}

}  // namespace
