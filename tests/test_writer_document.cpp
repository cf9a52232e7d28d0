// The writer's document: set-up, paths, entry creation and numbering, the
// entry ordering, the block store, failure sweeps and memory per entry.
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

// --- Set-up and teardown -------------------------------------------------

TEST_F(DocumentTest, ANewDocumentHoldsOnlyTheRootAndAnOpenOutput) {
  makeDocument();
  CMoxOleEntry* root = doc->pRootEntry;
  EXPECT_STREQ(root->pszName, "Root Entry");
  EXPECT_EQ(root->iType, 5);
  EXPECT_EQ(root->iColour, 1);
  EXPECT_EQ(std::vector<int64_t>({root->lLeftSibling, root->lRightSibling, root->lChild}),
            std::vector<int64_t>(3, -1));
  EXPECT_EQ(std::vector<int64_t>({root->lStartSector, root->lMiniStartSector}),
            std::vector<int64_t>(2, -2));
  EXPECT_EQ(std::vector<int>({root->iBlockSize, root->iMiniSectorSize}),
            (std::vector<int>{512, 64}));
  EXPECT_EQ(root->pHeader, doc->pHeader);
  EXPECT_EQ(root->plOrdinalCounter, &doc->lNextOrdinal);
  EXPECT_EQ(doc->lNextOrdinal, 1);
  EXPECT_EQ(doc->vEntries.size(), 0);
  EXPECT_EQ(doc->iMode, 1);
  ASSERT_NE(doc->pOleIo, nullptr);
  EXPECT_EQ(doc->pOleIo->pIoObj, file.io());
  EXPECT_EQ(file.openCalls(), 1);

  const CMoxOleHeader& h = *doc->pHeader;
  EXPECT_EQ(std::vector<int>({h.minor_version, h.major_version, h.sector_shift,
                              h.mini_sector_shift}),
            (std::vector<int>{0x21, 3, 9, 6}));
  EXPECT_EQ(h.mini_cutoff, 4096u);
  EXPECT_EQ(std::vector<uint32_t>({h.dir_start, h.mini_fat_start, h.difat_start}),
            std::vector<uint32_t>(3, 0xFFFFFFFEu));

  // Teardown writes out nothing (nothing was buffered) and closes once.
  doc.reset();
  EXPECT_EQ(file.closeCalls(), 1);
  EXPECT_EQ(file.writeCalls(), 0);
}

TEST_F(DocumentTest, AReadOnlyDocumentHasNoOutputAndRefusesEntries) {
  makeDocument(0);
  EXPECT_EQ(doc->pOleIo, nullptr);
  EXPECT_EQ(doc->iMode, 0);
  EXPECT_EQ(file.openCalls(), 0);
  CMoxOleEntry* entry = doc->pRootEntry;
  EXPECT_EQ(doc->addEntry("A", 1, entry), 6);
  EXPECT_EQ(entry, nullptr);
  EXPECT_EQ(doc->lNextOrdinal, 1);
  doc.reset();
  EXPECT_EQ(file.closeCalls(), 0);
}

TEST_F(DocumentTest, InitKeepsOnlyBitZeroAndPassesOnOpenFailures) {
  makeDocument(3);
  EXPECT_EQ(doc->iMode, 1);
  EXPECT_NE(add("A", 2), nullptr);

  moxhost::MemoryIo refusing;
  refusing.failOpen(true);
  doc = std::make_unique<CMoxOleDocument>(host.services());
  EXPECT_EQ(doc->init(refusing.io(), 1), 14);
  doc = std::make_unique<CMoxOleDocument>(nullptr);  // no services: no pools
  EXPECT_EQ(doc->init(refusing.io(), 1), 2);
  doc.reset();
  EXPECT_EQ(refusing.openCalls(), 1);
  EXPECT_EQ(refusing.closeCalls(), 1);
}

// Every allocation of init fails in turn; each failure is 2, and deleting
// the half-built document releases all of it.
TEST_F(DocumentTest, InitSurvivesEveryAllocationFailure) {
  for (int attempt = 1;; ++attempt) {
    moxhost::MemoryIo target;
    doc = std::make_unique<CMoxOleDocument>(host.services());
    host.faults().failAt(attempt);
    int status = doc->init(target.io(), 1);
    bool fired = host.faults().attempts() >= attempt;  // the armed attempt came
    host.faults().disarm();
    doc.reset();
    ASSERT_EQ(moxtest::leakReport(host), "") << "attempt " << attempt;
    EXPECT_EQ(target.closeCalls(), target.openCalls());
    if (!fired) {
      EXPECT_EQ(status, 0);
      EXPECT_GT(attempt, 2);  // root pool, name, output pool, buffer at least
      break;
    }
    EXPECT_EQ(status, 2) << "attempt " << attempt;
  }
}

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

TEST_F(DocumentTest, PathsResolveWithOrWithoutLeadingBackslashAndAnyCase) {
  makeDocument();
  CMoxOleEntry* a = add("A", 1);
  CMoxOleEntry* b = add("\\A\\B", 2);
  CMoxOleEntry* top = add("B", 2);
  EXPECT_EQ(doc->findEntry("\\A\\B"), b);
  EXPECT_EQ(doc->findEntry("A\\B"), b);
  EXPECT_EQ(doc->findEntry("a\\b"), b);
  EXPECT_EQ(doc->findEntry("B"), top);
  EXPECT_EQ(doc->findEntry("\\B"), top);
  EXPECT_EQ(doc->findEntry("A"), a);
  EXPECT_EQ(doc->findEntry("A\\C"), nullptr);
  EXPECT_EQ(doc->findEntry("C\\B"), nullptr);
  EXPECT_EQ(doc->findEntry(nullptr), nullptr);

  char parent[] = "\\A";
  EXPECT_EQ(doc->findParent(parent), a);
  EXPECT_EQ(doc->findParent(nullptr), doc->pRootEntry);
  char empty[] = "";
  EXPECT_EQ(doc->findParent(empty), doc->pRootEntry);
  EXPECT_EQ(std::string(a->pszName), "A");
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

TEST_F(DocumentTest, AChildKeepsTheColourItsNodeHadWhenInserted) {
  makeDocument();
  CMoxOleEntry* a = add("A", 2);
  CMoxOleEntry* b = add("B", 2);
  CMoxOleEntry* c = add("C", 2);
  // The third insertion rotated B to the top: A's node is red by now, but
  // its entry keeps the black it was given as the first root.
  EXPECT_EQ(doc->pRootEntry->pRoot->pData, b);
  EXPECT_EQ(doc->pRootEntry->pRoot->pLeft->byColour, kNodeRed);
  EXPECT_EQ(a->iColour, 1);
  EXPECT_EQ(b->iColour, 0);
  EXPECT_EQ(c->iColour, 0);
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

TEST_F(BlockStoreTest, WritesFillTheLastBlockBeforeOpeningAnother) {
  std::string first = pattern(700, 1), second = pattern(400, 2);
  ASSERT_EQ(write(first), 0);
  EXPECT_EQ(stream->iBlockCount, 2);
  EXPECT_EQ(stream->iLastBlockFill, 188);
  EXPECT_EQ(stream->lStreamSize, 700);
  ASSERT_EQ(write(second), 0);
  EXPECT_EQ(stream->iBlockCount, 3);
  EXPECT_EQ(stream->iLastBlockFill, 76);
  EXPECT_EQ(stream->lStreamSize, 1100);
  EXPECT_EQ(contents(), first + second);
  EXPECT_EQ(host.poolFrees(), 0);
}

TEST_F(BlockStoreTest, AFullBlockStaysFullUntilTheNextByte) {
  std::string block = pattern(512, 3), one = "z";
  ASSERT_EQ(write(block), 0);
  EXPECT_EQ(stream->iBlockCount, 1);
  EXPECT_EQ(stream->iLastBlockFill, 512);
  ASSERT_EQ(write(one), 0);
  EXPECT_EQ(stream->iBlockCount, 2);
  EXPECT_EQ(stream->iLastBlockFill, 1);
  EXPECT_EQ(contents(), block + one);
}

TEST_F(BlockStoreTest, EmptyNegativeAndMisdirectedWritesChangeNothing) {
  std::string some = pattern(10, 4);
  ASSERT_EQ(write(some), 0);
  unsigned char* data = reinterpret_cast<unsigned char*>(&some[0]);
  EXPECT_EQ(stream->write(data, 0), 0);
  EXPECT_EQ(stream->write(nullptr, 5), 0);
  EXPECT_EQ(stream->write(data, -1), 34);
  EXPECT_EQ(stream->write(nullptr, -5), 34);
  EXPECT_EQ(contents(), some);
  EXPECT_EQ(stream->iBlockCount, 1);

  CMoxOleEntry* storage = add("D", 1);
  EXPECT_EQ(storage->write(data, 5), 6);
  EXPECT_EQ(doc->pRootEntry->write(data, 5), 6);
  EXPECT_EQ(storage->lStreamSize, 0);
  EXPECT_EQ(storage->pFirstBlock, nullptr);
}

TEST_F(BlockStoreTest, OnlyTheRootTakesAStreamSize) {
  EXPECT_EQ(doc->pRootEntry->setStreamSize(128), 0);
  EXPECT_EQ(doc->pRootEntry->lStreamSize, 128);
  EXPECT_EQ(stream->setStreamSize(128), 34);
  EXPECT_EQ(stream->lStreamSize, 0);
  EXPECT_EQ(add("D", 1)->setStreamSize(1), 34);
}

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

// --- Failure sweeps and memory --------------------------------------------

// Every allocation that creating an entry makes fails in turn; the failed
// call leaves entry list, counter and trees as they were, and the next
// creation still gets the next index.
TEST_F(DocumentTest, AFailedCreationUsesUpNothing) {
  for (int attempt = 1;; ++attempt) {
    doc.reset();
    makeDocument();
    CMoxOleEntry* storage = add("S", 1);
    host.faults().failAt(attempt);
    CMoxOleEntry* entry = nullptr;
    int status = doc->addEntry("S\\T", 2, entry);
    bool fired = host.faults().attempts() >= attempt;  // the armed attempt came
    host.faults().disarm();
    if (!fired) {
      EXPECT_EQ(status, 0);
      EXPECT_GT(attempt, 2);  // the pool, the name, the node at least
      break;
    }
    ASSERT_EQ(status, 2) << "attempt " << attempt;
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(doc->vEntries.size(), 1);
    EXPECT_EQ(doc->lNextOrdinal, 2);
    EXPECT_EQ(storage->iCount, 0);
    EXPECT_EQ(doc->findEntry("S\\T"), nullptr);
    EXPECT_EQ(host.livePools(), 3);  // output, root and S
    CMoxOleEntry* again = add("S\\T", 2);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(numberEntries()[2], again);
  }
}

TEST_F(DocumentTest, DestroyingTheDocumentReleasesEveryEntryAndClosesOnce) {
  makeDocument();
  add("A", 1);
  add("A\\B", 1);
  CMoxOleEntry* s = add("A\\B\\S", 2);
  std::vector<unsigned char> bytes(5000, 9);
  ASSERT_EQ(s->write(bytes.data(), 5000), 0);
  EXPECT_EQ(host.livePools(), 5);
  doc.reset();
  EXPECT_EQ(host.livePools(), 0);
  EXPECT_EQ(host.poolFrees(), 0);
  EXPECT_EQ(file.closeCalls(), 1);
}

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
