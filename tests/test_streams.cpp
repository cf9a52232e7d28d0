// Streams of a document as a host reads them: finding them (the two name
// rules, sibling-tree descents, the scan that backs them up, storage
// paths, the presentation stream), building their sector lists under the
// lenient and the exact rules, seeking and reading (cut short by the host,
// big-endian, large sectors, past 2 GiB), the current stream as an I/O
// object, the storage tree, object lists and types, and embedded objects.
// Arguments that are null are refused in test_interface.
#include <gtest/gtest.h>

#include <ctype.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "reader/lookup.h"
#include "reader/reader.h"
#include "reader/stream.h"
#include "support/document_walk.h"
#include "support/fault_sweep.h"
#include "support/patched_io.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"

namespace {

using cfb::Bytes;
using streamkit::pattern;
using streamkit::readToEnd;

// --- Finding streams ---------------------------------------------------------

// Storage paths are arrays of 36-byte slots; slots and bytes not given
// are zero.
struct Path {
  char slots[4][36];
};

// What an open made current, read from where the open left it (which
// must be the start); nothing when the open failed.
Bytes opened(OpenDoc& d, int result) {
  if (result != 1) return {};
  EXPECT_EQ(lOLEtell(d.handle()), 0);
  return readToEnd(d.handle());
}

// One document for the lookups that need no hand-made sibling tree:
//   WordDocument, Top, S, Current     streams under the root
//   Sub {Deep, Inner}, Empty {}       a stream only found by the scan
//   Other {Data}, Obj {Data}          the same name in two storages
//   A {B {S}, T}                      a storage path, S again deeper
TEST(StreamLookup, NamesScansAndStoragePaths) {
  const Bytes word = pattern(5000, 1), deep = pattern(300, 2), other = pattern(100, 8),
              obj = pattern(100, 9), deepS = pattern(700, 10), topS = pattern(70, 11),
              current = pattern(3000, 41);
  cfb::CfbBuilder b;
  b.addStream(0, "WordDocument", word);
  const int sub = b.addStorage(0, "Sub"), empty = b.addStorage(0, "Empty");
  const int deepEntry = b.addStream(sub, "Deep", deep);
  b.addStream(sub, "Inner", pattern(10, 40));
  b.addStream(0, "Top", pattern(20, 3));
  b.addStream(b.addStorage(0, "Other"), "Data", other);
  b.addStream(b.addStorage(0, "Obj"), "Data", obj);
  const int a = b.addStorage(0, "A"), bEntry = b.addStorage(a, "B");
  b.addStream(bEntry, "S", deepS);
  b.addStream(0, "S", topS);
  b.addStream(a, "T", pattern(10, 12));
  b.addStream(0, "Current", current);
  cfb::CfbLayout l = b.layout();
  OpenDoc d(l.serialize());
  _MoxOleFile* h = d.handle();
  ASSERT_NE(h, nullptr);
  const int count = h->iDirCount;
  // The name rules differ between the opens.
  EXPECT_EQ(opened(d, bOLEopenStream(h, "worddocument")), word);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(h, "worddocument"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, nullptr, 0, "worddocument"), 0);

  // A stream missing from the root's tree is found by scanning everything.
  EXPECT_EQ(iFindIStreamGivenIStorage(h, "deep", 0), deepEntry);
  // Only a descent that ends at a missing link scans: a storage without
  // children or an invalid storage number is an error.
  for (int storage : {empty, -1, -5, count}) EXPECT_EQ(iFindIStreamGivenIStorage(h, "Deep", storage), -1) << storage;
  // A storage of the wanted name is passed over by the stream search.
  EXPECT_EQ(iFindIStreamGivenIStorage(h, "Sub", 0), count);

  // The embedded stream's storage is named exactly; without one the root
  // is the storage, and the scan finds Other's stream first.
  EXPECT_EQ(opened(d, bOLEopenEmbeddedStream(h, "data", "Obj")), obj);
  EXPECT_EQ(bOLEopenEmbeddedStream(h, "Data", "obj"), 0);
  EXPECT_EQ(opened(d, bOLEopenEmbeddedStream(h, "Data", nullptr)), other);

  // Storage paths: A holds no S of its own.
  Path ab{{"A", "B"}};
  EXPECT_EQ(opened(d, bOLEopenEmbeddedStreamEx(h, ab.slots, 2, "S")), deepS);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 1, "S"), 0);
  // "Root Entry" first, no path or no depth: the root, other slots unread.
  Path rooted{{"Root Entry", "nothing", "here"}};
  const std::pair<const char (*)[36], int> roots[] = {
      {rooted.slots, 3}, {nullptr, 5}, {ab.slots, 0}};
  for (auto [path, depth] : roots) EXPECT_EQ(opened(d, bOLEopenEmbeddedStreamEx(h, path, depth, "S")), topS);
  Path lower{{"a"}}, throughStream{{"A", "T"}}, full{};
  memset(full.slots[0], 'A', 36);  // no terminator in its 36 bytes: matches nothing
  const std::pair<const Path*, int> walks[] = {{&lower, 1}, {&throughStream, 2}, {&full, 1}};
  for (auto [path, depth] : walks) EXPECT_EQ(moxWalkStoragePath(h, path->slots, depth), -1) << depth;

  // Failed lookups keep the current stream and its position.
  ASSERT_EQ(bOLEopenStream(h, "Current"), 1);
  ASSERT_EQ(lOLEseek(h, 1000, 0), 1000);
  Path missing{{"Missing"}};
  EXPECT_EQ(bOLEopenStream(h, "Missing"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStream(h, "Inner", "Missing"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, missing.slots, 1, "Inner"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, nullptr, 0, "Sub"), 0);  // a storage
  EXPECT_EQ(iGetStreamChain(h, "Missing", nullptr, 0), -1);
  EXPECT_EQ(readToEnd(h), Bytes(current.begin() + 1000, current.end()));

  // The root is found by its type or by its name.  A storage named "Root
  // Entry" is never read as the root, so no mini stream is there to read
  // Top from.
  l.dir[0].type = 1;
  OpenDoc storageRoot(l.serialize());
  EXPECT_EQ(bOLEopenStream(storageRoot.handle(), "WordDocument"), 1);
  EXPECT_EQ(bOLEopenStream(storageRoot.handle(), "Top"), 0);
  l.dir[0].name = cfb::units("Root Entrx");
  OpenDoc renamed(l.serialize());
  EXPECT_EQ(bOLEopenStream(renamed.handle(), "WordDocument"), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(renamed.handle(), "WordDocument"), 1);
}

TEST(StreamLookup, DescentOrdersByLengthThenLowerCaseFolding) {
  // Every name also exists, earlier in the directory, inside a storage of
  // decoys: a descent that goes the wrong way falls back to the scan and
  // returns the decoy instead of the root's own entry.
  const char* names[] = {"_z", "Zz", "a_", "b", "ABC", "x_y", "Y", "__", "aa", "Q_Q"};
  cfb::CfbBuilder b;
  int decoys = b.addStorage(0, "Decoys");
  for (const char* name : names) b.addStream(decoys, name, pattern(10, 0));
  std::vector<int> wanted;
  for (const char* name : names) wanted.push_back(b.addStream(0, name, pattern(10, 1)));
  OpenDoc d(b.build());
  for (size_t i = 0; i < wanted.size(); ++i) {
    EXPECT_EQ(iFindIStreamGivenIStorage(d.handle(), names[i], 0), wanted[i]) << names[i];
    std::string swapped = names[i];
    for (char& c : swapped) c = isupper(c) ? tolower(c) : toupper(c);
    EXPECT_EQ(iFindIStreamGivenIStorage(d.handle(), swapped.c_str(), 0), wanted[i]) << swapped;
  }
}

TEST(StreamLookup, ExactSearchOrdersEqualLengthsCaseSensitively) {
  // "Zz" sorts after "aa" once folded to lower case but before it byte for
  // byte; the exact search takes the byte order and has no scan to fall
  // back on, so only the tree linked that way leads it to "Zz".
  cfb::CfbBuilder b;
  const int aa = b.addStream(0, "aa", pattern(10, 1));
  const int zz = b.addStream(0, "Zz", pattern(10, 2));
  cfb::CfbLayout l = b.layout();
  l.dir[0].child = aa;
  l.dir[zz].left = l.dir[zz].right = cfb::kNone;
  for (bool byteOrder : {true, false}) {
    l.dir[aa].left = byteOrder ? zz : cfb::kNone;
    l.dir[aa].right = byteOrder ? cfb::kNone : zz;
    OpenDoc d(l.serialize());
    ASSERT_NE(d.handle(), nullptr);
    EXPECT_EQ(moxFindChildExact(d.handle(), 0, moxNameOf("Zz")), byteOrder ? zz : -1);
  }
}

// A sibling link below -1 is a bad link that ends the descent; a descent
// that comes back to an entry ends as not found, and the tolerant search
// then scans.
TEST(StreamLookup, BadLinksAndCyclicSiblingTreesEndTheDescent) {
  cfb::CfbBuilder b;
  int sub = b.addStorage(0, "Sub");
  const int elsewhere = b.addStream(sub, "Elsewhere", pattern(30, 5));
  b.addStream(sub, "Inner", pattern(30, 6));
  for (const char* name : {"a", "bb", "ccc", "dddd", "eeeee"}) b.addStream(0, name, pattern(50, 4));
  cfb::CfbLayout l = b.layout();
  const uint32_t top = l.dir[0].child;
  l.dir[top].left = 0xFFFFFFFDu;  // -3: a descent to a shorter name meets it
  l.dir[top].right = top;         // every descent to a longer name comes back here
  const uint32_t inner = l.dir[sub].child;
  l.dir[inner].left = l.dir[inner].right = inner;
  OpenDoc d(l.serialize());
  ASSERT_NE(d.handle(), nullptr);
  EXPECT_EQ(d.handle()->iError, 0);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.handle(), "a", 0), -1);
  EXPECT_EQ(d.handle()->iError, MOXOLE_BAD_LINK);
  // Neither stops the next lookup.
  EXPECT_EQ(bOLEopenStream(d.handle(), "eeeee"), 1);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.handle(), "LongerThanAll", 0), d.handle()->iDirCount);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.handle(), "Elsewhere", 0), elsewhere);
  EXPECT_EQ(moxFindChildExact(d.handle(), 0, moxNameOf("LongerThanAll")), -1);
  Path path{{"Sub"}};
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.handle(), path.slots, 1, "Missing"), 0);
  EXPECT_EQ(moxFindPresentationStream(d.handle(), sub), -1);
}

// The walk, and the two entries that open what it picks, in a storage
// "_1234" whose children are linked as a right spine, first to last; child
// i holds 90 + i bytes.
TEST(StreamLookup, PresentationStreamWalk) {
  const std::string pres = "\x02OlePres000";
  // The spine, and the index in it of the stream picked (-1: the root).
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"A", pres, "Z"}, 1},          // found, and it has a right sibling
      {{"A", pres}, 0},               // the last entry's name is never compared
      {{"A"}, -1},                    // no right sibling at all: the root
      {{"A", "Q", "Z", "W"}, 2},      // none found: the entry before the last
      {{pres, "Q"}, 0},               // the first child itself
  };
  for (const auto& [spine, chosen] : cases) {
    SCOPED_TRACE(spine.size());
    cfb::CfbBuilder b;
    const int storage = b.addStorage(0, "_1234");
    for (size_t i = 0; i < spine.size(); ++i) b.addStream(storage, spine[i], pattern(90 + i, 20 + i));
    cfb::CfbLayout l = b.layout();
    l.dir[storage].child = storage + 1;
    for (size_t i = 1; i <= spine.size(); ++i) {
      l.dir[storage + i].left = cfb::kNone;
      l.dir[storage + i].right = i < spine.size() ? storage + i + 1 : cfb::kNone;
    }
    OpenDoc d(l.serialize());
    EXPECT_EQ(lOLEopenObject(d.handle(), "_1234", 0), chosen < 0 ? 0 : 90 + chosen);
    // Something is current beforehand.  The root is no stream: picking it
    // fails the build, and the old stream is gone.
    ASSERT_EQ(bOLEopenStream(d.handle(), spine[0].c_str()), 1);
    const Bytes want = chosen < 0 ? Bytes() : pattern(90 + chosen, 20 + chosen);
    EXPECT_EQ(opened(d, bOLEopenEmbeddedStream(d.handle(), nullptr, "_1234")), want);
    EXPECT_EQ(d.handle()->plChain == nullptr, chosen < 0);
  }
}

// --- Sector lists ------------------------------------------------------------

// A free link ends a chain, and a chain may run longer than its size
// needs, under the lenient rules only (bOLEopenStream; entry numbers
// share its build); a
// chain too short, one that comes back to its start or one that leaves
// the FAT fails under both.  A failed exact build releases the old list.
// The stream is entry 1, of ten sectors, with free sectors after it to
// lengthen it with; `last` is its last sector.
TEST(StreamChain, DamagedChainsUnderTheLenientAndTheExactRules) {
  const Bytes data = pattern(5000, 4);
  const struct {
    const char* what;
    void (*damage)(cfb::CfbLayout& l, uint32_t last);
    bool lenient;
  } cases[] = {
      {"free link", [](cfb::CfbLayout& l, uint32_t last) { l.fat[last] = cfb::kFree; }, true},
      {"longer chain", [](cfb::CfbLayout& l, uint32_t last) {
         l.fat[last] = streamkit::firstPaddingSector(l);
         l.fat[l.fat[last]] = cfb::kEnd;
       }, true},
      {"shorter chain", [](cfb::CfbLayout& l, uint32_t) { l.dir[1].sizeLow = 10 * 512 + 1; }, false},
      {"back to the start", [](cfb::CfbLayout& l, uint32_t last) { l.fat[last] = l.dir[1].start; }, false},
      {"past the FAT", [](cfb::CfbLayout& l, uint32_t) { l.fat[l.dir[1].start] = 100000; }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    cfb::CfbBuilder b;
    b.setPaddingSectors(4);
    b.addStream(0, "S", data);
    cfb::CfbLayout l = b.layout();
    c.damage(l, streamkit::chainOf(l, 1).back());
    OpenDoc d(l.serialize());
    EXPECT_EQ(bOLEopenStream(d.handle(), "S"), c.lenient ? 1 : 0);
    EXPECT_EQ(readToEnd(d.handle()), c.lenient ? data : Bytes());
    EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.handle(), nullptr, 0, "S"), 0);
    EXPECT_EQ(lOLEseek(d.handle(), 0, 0), -1);
  }
}

// Links `count` table slots from `base` into a chain that steps back one
// slot at a time from the top and, at the bottom, jumps forward into its
// own middle: more backward targets than the loop guard keeps, then a
// cycle none of whose targets it kept.  Returns the chain's start.
uint32_t zigZagCycle(std::vector<uint32_t>* table, uint32_t base, uint32_t count) {
  if (table->size() < base + count) table->resize(base + count, cfb::kFree);
  for (uint32_t i = 1; i < count; ++i) (*table)[base + i] = base + i - 1;
  (*table)[base] = base + count / 2;
  return base + count - 1;
}

// The loop guard, asked about backward steps: a target is noted on its
// first arrival and is a circle on its second.  So backward steps to
// sectors never arrived at before are no circle: a chain laid out from the
// end of the file to its start reads whole.  A chain that runs round a
// circle the guard cannot see still ends.
TEST(StreamChain, LoopGuardAndBackwardChains) {
  _MoxOleFile guard = {};
  vSectorCheckConstructor(&guard);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&guard, 10, 5), 0);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&guard, 12, 7), 0);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&guard, 9, 5), 1);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&guard, 6, 6), 1);

  cfb::CfbBuilder b;
  b.setPaddingSectors(308);
  const Bytes data = pattern(8 * 512, 8);
  const int backwards = b.addStream(0, "Backwards", data);
  const int regular = b.addStream(0, "Regular", pattern(5000, 5));
  for (int i = 0; i < 5; ++i) b.addStream(0, "M" + std::to_string(i), pattern(4000, i));
  cfb::CfbLayout l = b.layout();
  const uint32_t p = streamkit::firstPaddingSector(l);
  streamkit::relocateChain(&l, backwards, {p + 7, p + 6, p + 5, p + 4, p + 3, p + 2, p + 1, p});
  l.dir[regular].start = zigZagCycle(&l.fat, p + 8, 300);
  l.dir[regular + 1].start = zigZagCycle(&l.miniFat, 0, 300);
  OpenDoc d(l.serialize());
  EXPECT_EQ(opened(d, bOLEopenStream(d.handle(), "Backwards")), data);
  EXPECT_EQ(bOLEopenStream(d.handle(), "Regular"), 0);
  EXPECT_EQ(bOLEopenStream(d.handle(), "M0"), 0);
}

TEST(StreamChain, MiniLinksNameMiniFatEntriesOrTheFatWhenThereIsNoMiniFat) {
  cfb::CfbBuilder b;
  const Bytes first = pattern(60, 6), second = pattern(100, 7);
  b.addStream(0, "A", first);   // mini sector 0
  b.addStream(0, "B", second);  // mini sectors 1 and 2
  cfb::CfbLayout l = b.layout();
  // A link past the mini FAT, a free one and an end-of-FAT mark fail the
  // chain that holds them and no other.
  for (uint32_t badLink : {4096u, cfb::kFree, 0xFFFFFFFCu}) {
    cfb::CfbLayout bad = l;
    bad.miniFat[1] = badLink;
    OpenDoc d(bad.serialize());
    EXPECT_EQ(bOLEopenStream(d.handle(), "B"), 0) << badLink;
    EXPECT_EQ(bOLEopenStream(d.handle(), "A"), 1);
  }
  // FAT sector 0, mini FAT sector 1, directory sector 2: drop the mini FAT
  // and let the FAT links of sectors 0, 1 and 2 stand in for the chains.
  l.header.miniFatSectors = 0;
  l.fat[1] = 2;
  OpenDoc d(l.serialize());
  ASSERT_NE(d.handle(), nullptr);
  ASSERT_EQ(d.handle()->plMiniFat, nullptr);
  // FAT[0] is -3, so A's chain ends after one sector; B's runs 1, 2.
  EXPECT_EQ(opened(d, bOLEopenStream(d.handle(), "A")), first);
  EXPECT_EQ(opened(d, bOLEopenStream(d.handle(), "B")), second);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.handle(), nullptr, 0, "A"), 0);
}

// Lists of 16382, 16383, 16384 and 16385 entries (streams 1 to 4): one
// array, then a second one of 0, 1 and 2 entries.  The empty stream's list
// (stream 5) is the terminator alone; nothing in the document is small, so there is
// no mini stream at all, and no file position exists to seek to.
TEST(StreamChain, ListsFromTheTerminatorAloneToSplitArrays) {
  const uint32_t sectors[] = {16381, 16382, 16383, 16384};
  cfb::CfbBuilder b;
  for (uint32_t n : sectors) b.addStream(0, "S" + std::to_string(n), pattern(n * 512, n));
  b.addStream(0, "Empty", {});
  cfb::CfbLayout l = b.layout();
  OpenDoc d(l.serialize());
  _MoxOleFile* h = d.handle();
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->lRootStart, -2);
  ASSERT_EQ(bOLEopenStream(h, "Empty"), 1);
  EXPECT_EQ(readToEnd(h), Bytes());
  EXPECT_EQ(lOLEseek(h, 100, 0), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, nullptr, 0, "Empty"), 1);  // 0 sectors needed
  for (int entry = 1; entry <= 5; ++entry) {
    ASSERT_EQ(iReadStreamChain(entry, h), 0) << entry;
    const std::vector<uint32_t> chain = streamkit::chainOf(l, entry);
    for (size_t i = 0; i <= chain.size(); ++i) {
      ASSERT_EQ(moxChainEntry(h, i), i < chain.size() ? int64_t{chain[i]} : -2) << entry << " at " << i;
    }
  }
  // An allocator that refuses the empty second array fails the open.
  d.memory().faults().failAt(2);
  EXPECT_EQ(bOLEopenStream(h, "S16382"), 0);
  EXPECT_EQ(lOLEseek(h, 0, 0), -1);
}

// Building by entry number checks the entry; closing releases the list
// and keeps the position.
TEST(StreamChain, BuildByEntryNumberAndClose) {
  cfb::CfbBuilder b;
  const int storage = b.addStorage(0, "Storage");
  const int stream = b.addStream(storage, "S", pattern(700, 10));
  OpenDoc d(b.build());
  _MoxOleFile* h = d.handle();
  ASSERT_EQ(iReadStreamChain(stream, h), 0);
  // An entry that is there but no stream: the old list goes all the same.
  // A number outside the directory names nothing and changes nothing.
  const std::pair<int, bool> bad[] = {
      {0, false}, {storage, false}, {-1, true}, {h->iDirCount, true}, {h->iDirCount + 7, true}};
  for (auto [entry, kept] : bad) {
    ASSERT_EQ(iReadStreamChain(stream, h), 0);
    EXPECT_EQ(iReadStreamChain(entry, h), -1) << entry;
    EXPECT_EQ(lOLEseek(h, 0, 0), kept ? 0 : -1) << entry;
  }
  // The first open let the handle remember where its mini stream lies;
  // that stays until the handle closes.
  ASSERT_EQ(bOLEcloseStream(h, "S"), 1);
  const int64_t blocks = d.memory().liveBlocks();
  ASSERT_EQ(bOLEopenStream(h, "S"), 1);
  EXPECT_EQ(lOLEseek(h, 333, 0), 333);
  EXPECT_EQ(bOLEcloseStream(h, "whatever"), 1);
  EXPECT_EQ(d.memory().liveBlocks(), blocks);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 0);
  EXPECT_EQ(lOLEtell(h), 333);
}

// --- Seeking and reading -----------------------------------------------------

// Streams at sectors chosen by the test, so that file positions are known:
//   "R"  1000 bytes in regular sectors p+7, p+3 (p: first padding sector)
//   "E"  1024 bytes in regular sectors p+12, p+11
//   "Pa", "Pb", "M", "M2": mini streams at mini sectors 0-4, 5-9, 10-11,
//        12-13; the mini stream itself lies in regular sectors p+5, p+9.
// The cutoff is lowered to 512 so that small regular streams exist.
struct KnownPlaces {
  cfb::CfbLayout layout;
  uint32_t p = 0;
  Bytes r = pattern(1000, 1), e = pattern(1024, 2), pb = pattern(320, 6), m = pattern(100, 3),
        m2 = pattern(128, 4);
  KnownPlaces() {
    cfb::CfbBuilder b;
    b.setMiniCutoff(512);
    b.setPaddingSectors(16);
    int rEntry = b.addStream(0, "R", r);
    int eEntry = b.addStream(0, "E", e);
    b.addStream(0, "Pa", pattern(320, 5));
    b.addStream(0, "Pb", pb);
    b.addStream(0, "M", m);
    b.addStream(0, "M2", m2);
    layout = b.layout();
    p = streamkit::firstPaddingSector(layout);
    streamkit::relocateChain(&layout, rEntry, {p + 7, p + 3});
    streamkit::relocateChain(&layout, eEntry, {p + 12, p + 11});
    streamkit::relocateChain(&layout, 0, {p + 5, p + 9});
  }
};

// Seeking clamps into the stream, reads stop at its end, a host failure
// ends a read after the whole pieces before it, and a stream built but
// never sought has no position to read from.  Positions on both sides of
// every sector and mini sector boundary, in streams whose sectors are out
// of order, give the stream's own bytes.
TEST(StreamSeek, SeekingAndReadingOneStream) {
  KnownPlaces k;
  OpenDoc d(k.layout.serialize());
  _MoxOleFile* h = d.handle();
  Bytes buffer(2000);
  ASSERT_EQ(iGetStreamChain(h, "R", nullptr, 0), 0);
  EXPECT_EQ(lOLEtell(h), -1);
  EXPECT_EQ(iOLEread(h, buffer.data(), 10), 0u);
  EXPECT_EQ(lOLEseek(h, 3, 0), 3);
  EXPECT_EQ(readToEnd(h), Bytes(k.r.begin() + 3, k.r.end()));

  ASSERT_EQ(bOLEopenStream(h, "R"), 1);
  const struct { int64_t offset; int whence; int64_t expected; } seeks[] = {
      {-5, 0, 0}, {1010, 0, 1000}, {0, 2, 1000}, {-1, 2, 999}, {5, 0, 5}, {10, 1, 15},
      {0, 3, -1}, {0, -1, -1}, {INT64_MAX, 1, 1000}, {INT64_MIN, 1, 0}, {INT64_MAX, 2, 1000},
      {INT64_MIN, 0, 0}, {300, 0, 300}};
  for (const auto& c : seeks) {
    EXPECT_EQ(lOLEseek(h, c.offset, c.whence), c.expected) << c.offset << " from " << c.whence;
    EXPECT_EQ(lOLEtell(h), c.expected < 0 ? 15 : c.expected) << "a refused seek moves nothing";
  }
  EXPECT_EQ(iOLEread(h, buffer.data(), 0), 0u);

  struct Case { const char* name; const Bytes& data; int64_t offset; } cases[] = {
      {"R", k.r, 0},    {"R", k.r, 511},  {"R", k.r, 512}, {"R", k.r, 600}, {"R", k.r, 999},
      {"E", k.e, 511},  {"E", k.e, 512},  {"E", k.e, 1023}, {"M", k.m, 63}, {"M", k.m, 70},
      {"Pb", k.pb, 191},  {"Pb", k.pb, 192},  {"M2", k.m2, 127}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " at " << c.offset);
    ASSERT_EQ(bOLEopenStream(h, c.name), 1);
    ASSERT_EQ(lOLEseek(h, c.offset, 0), c.offset);
    EXPECT_EQ(readToEnd(h, 100), Bytes(c.data.begin() + c.offset, c.data.end()));
  }

  ASSERT_EQ(bOLEopenStream(h, "R"), 1);
  d.io().shortReadAt(2, 100);  // the second piece comes back short
  EXPECT_EQ(iOLEread(h, buffer.data(), 1000), 512u);
  EXPECT_EQ(readToEnd(h), Bytes(k.r.begin() + 512, k.r.end()));
  ASSERT_EQ(bOLEopenStream(h, "M"), 1);
  d.io().failSeekAt(2);  // the host refuses the second mini sector's seek
  EXPECT_EQ(iOLEread(h, buffer.data(), 1000), 64u);
  EXPECT_EQ(lOLEtell(h), 64);
}

TEST(StreamSeek, MiniStreamChainTooShortForTheSectorFails) {
  KnownPlaces k;
  k.layout.fat[k.p + 5] = cfb::kEnd;  // the mini stream loses its second sector
  // "M2" moves to mini sectors 20-21, past even the sector lost.
  k.layout.miniFat.resize(22, cfb::kFree);
  k.layout.miniFat[20] = 21;
  k.layout.miniFat[21] = cfb::kEnd;
  k.layout.dir[6].start = 20;  // M2, the last entry KnownPlaces adds
  OpenDoc d(k.layout.serialize());
  EXPECT_EQ(bOLEopenStream(d.handle(), "Pb"), 1);
  EXPECT_EQ(lOLEseek(d.handle(), 3 * 64, 0), -1);
  EXPECT_EQ(lOLEtell(d.handle()), 3 * 64);  // the position moved all the same
  EXPECT_EQ(bOLEopenStream(d.handle(), "M"), 0);  // its seek to 0 fails: closed again
  EXPECT_EQ(d.handle()->plChain, nullptr);
  EXPECT_EQ(bOLEopenStream(d.handle(), "M2"), 0);
}

// Every stream, in both sector sizes and both byte orders, read in odd
// steps (a seek and a read for each sector's piece).  "far" pushes the
// streams and the mini stream past 2 GiB with zero padding sectors: the
// file exists only as the runs the layout writes, and with 512-byte
// sectors its FAT is some 32000 sectors, DIFAT included.
TEST(StreamRead, SectorSizesByteOrdersAndPositionsPastTwoGigabytes) {
  const std::vector<std::pair<std::string, Bytes>> streams = {
      {"Mini1", pattern(3000, 6)}, {"Mini2", pattern(4095, 7)},
      {"Regular", pattern(20000, 8)}, {"Exact", pattern(8192, 9)}, {"Cutoff", pattern(4096, 12)}};
  for (unsigned shift : {9u, 12u}) {
    for (const char* variant : {"little-endian", "big-endian", "far"}) {
      SCOPED_TRACE(testing::Message() << "shift " << shift << " " << variant);
      cfb::CfbBuilder b(shift);
      b.setBigEndian(strcmp(variant, "big-endian") == 0);
      if (strcmp(variant, "far") == 0) b.setPaddingSectors(static_cast<uint32_t>((int64_t{1} << 31) >> shift) + 3);
      for (const auto& [name, data] : streams) b.addStream(0, name, data);
      cfb::CfbLayout l = b.layout();
      PatchedIo io(l.serializeSparse(), (int64_t{l.sectorCount()} + 1) << shift);
      moxhost::CountingMemory memory;
      _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
      for (const auto& [name, data] : streams) {
        ASSERT_EQ(bOLEopenStream(h, name.c_str()), 1) << name;
        EXPECT_EQ(readToEnd(h, 777), data) << name;
      }
      iOLEclose(h);
    }
  }
}

// --- The stream as an I/O object ---------------------------------------------

// The object's fields and fixed answers, and its reads and seeks on
// whatever stream is current, here mini streams.  (A document nested in a
// regular stream, big stream included, is opened and read whole through
// the object in the fault sweeps.)
TEST(StreamObject, FieldsAndFixedResults) {
  KnownPlaces k;
  OpenDoc d(k.layout.serialize());
  _MoxOleFile* h = d.handle();
  ASSERT_EQ(bOLEopenStream(h, "Pb"), 1);
  EXPECT_EQ(h->iInMini, 1);
  d.memory().faults().failAt(1);
  EXPECT_EQ(hSwitchToOLE(h), nullptr);
  _ZqTPIOobj* io = hSwitchToOLE(h);
  ASSERT_NE(io, nullptr);
  EXPECT_EQ(io->uiKind, 3u);
  EXPECT_EQ(io->uiKind2, 5u);
  EXPECT_EQ(io->ulWord, 0u);
  EXPECT_EQ(io->pParent, d.io().io());
  EXPECT_EQ(io->error(io), 0);
  EXPECT_EQ(io->write(io, "xyz", 3), 1);
  EXPECT_EQ(io->close(io), 1);

  // Seeks clamp as the stream's own do.
  EXPECT_EQ(io->seek(io, 100000, 0), 1);
  EXPECT_EQ(io->tell(io), 320);
  EXPECT_EQ(io->seek(io, -100, 1), 1);
  Bytes buffer(2000);
  EXPECT_EQ(io->read(io, buffer.data(), 2000), 100);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 100), Bytes(k.pb.end() - 100, k.pb.end()));
  EXPECT_EQ(io->read(io, buffer.data(), -1), 0);
  ASSERT_EQ(bOLEopenStream(h, "M2"), 1);
  EXPECT_EQ(io->read(io, buffer.data(), 2000), 128);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 128), k.m2);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  EXPECT_EQ(io->seek(io, 0, 0), 0);  // no stream: the seek fails
  // Switching back frees the object once and returns the host's.
  const int64_t withObject = d.memory().liveBlocks();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(hSwitchFromOLE(h), d.io().io());
    EXPECT_EQ(d.memory().liveBlocks(), withObject - 1);
  }
}

// --- The storage tree, object lists and types -------------------------------

// An object list, returned to the document's memory when it goes.
struct List {
  HostMemory* memory;
  _MoxOleObjectEntry* records = nullptr;
  const int count;
  List(OpenDoc& doc, const char (*path)[36], int depth)
      : memory(doc.memory().memory()), count(moxoleGetObjectList(doc.handle(), path, depth, &records)) {}
  ~List() { memory->free(memory, records); }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (int i = 0; i < count; ++i) out.push_back(records[i].szName);
    return out;
  }
};

// The tree below `node` as "name type entry size [children]"; a child
// that does not name `node` as its parent is marked "!".
std::string describe(const _MoxOleTreeNode* node) {
  std::string out = std::string(node->szName) + " " + std::to_string(node->iType) + " " +
                    std::to_string(node->iIndex) + " " + std::to_string(node->iSize);
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    out += (i == 0 ? " [" : ", ") + std::string(child->pParent == node ? "" : "!") + describe(child);
  }
  return node->iChildCount > 0 ? out + "]" : out;
}

// The tree follows the pre-order of the sibling tree; object lists give
// direct children in name order, and types are of exact names.  Entries
// A (1), B (2), C (3), B's stream Inner (4) and B's storage Empty (5): the
// builder balances sibling trees, so B is at the top of the root's, A on
// its left and C on its right, and Inner is above Empty.
TEST(StreamTree, TreeInPreOrderListsInNameOrderTypesOfExactNames) {
  cfb::CfbBuilder b;
  b.addStream(0, "A", cfb::Bytes(5, 1));
  const int bb = b.addStorage(0, "B");
  b.addStream(0, "C", cfb::Bytes(7000, 1));
  b.addStream(bb, "Inner", cfb::Bytes(3, 1));
  b.addStorage(bb, "Empty");
  moxhost::PoolServices pools;
  OpenDoc doc(b.build());
  const StreamTree t(doc.handle(), pools);
  ASSERT_EQ(t.status(), 0);
  EXPECT_EQ(t.root()->pParent, nullptr);
  EXPECT_EQ(describe(t.root()), "Root Entry 5 0 0 [B 1 2 0 [Inner 2 4 3, Empty 1 5 0], A 2 1 5, C 2 3 7000]");
  EXPECT_EQ(List(doc, nullptr, 0).names(), (std::vector<std::string>{"A", "B", "C"}));
  EXPECT_EQ(List(doc, Path{{"B"}}.slots, 1).names(), (std::vector<std::string>{"Empty", "Inner"}));
  // Streams, empty storages and missing paths give nothing.
  const std::pair<Path, int> nothing[] = {
      {Path{{"A"}}, 1}, {Path{{"B", "Empty"}}, 2}, {Path{{"Nope"}}, 1}, {Path{{"b"}}, 1}};
  for (const auto& [path, depth] : nothing) {
    _MoxOleObjectEntry* out = reinterpret_cast<_MoxOleObjectEntry*>(0x1);
    EXPECT_EQ(moxoleGetObjectList(doc.handle(), path.slots, depth, &out), 0) << path.slots[depth - 1];
    EXPECT_EQ(out, reinterpret_cast<_MoxOleObjectEntry*>(0x1)) << "out is left alone";
  }
  // Types are of exact names under a storage path.
  _MoxOleFile* h = doc.handle();
  EXPECT_EQ(iOLEobjectType(h, nullptr, 0, "B"), 1);
  EXPECT_EQ(iOLEobjectType(h, nullptr, 0, ""), 5);
  EXPECT_EQ(iOLEobjectType(h, nullptr, 0, "c"), 0) << "names compare exactly";
  EXPECT_EQ(iOLEobjectType(h, Path{{"B"}}.slots, 1, "Inner"), 2);
  EXPECT_EQ(iOLEobjectType(h, Path{{"B"}}.slots, 1, ""), 0) << "only the root answers an empty name";
}

// A run of `length` siblings, each the right (or the left) child of the
// one before.
cfb::CfbLayout longChain(int length, bool leftward = false) {
  cfb::CfbBuilder b;
  for (int i = 0; i < length; ++i) b.addStream(0, "S" + std::to_string(i), {});
  cfb::CfbLayout l = b.layout();
  l.dir[0].child = leftward ? length : 1;
  for (int i = 1; i <= length; ++i) {
    const int next = leftward ? i - 1 : (i < length ? i + 1 : 0);  // 0: no sibling
    l.dir[i].left = leftward && next > 0 ? static_cast<uint32_t>(next) : cfb::kNone;
    l.dir[i].right = !leftward && next > 0 ? static_cast<uint32_t>(next) : cfb::kNone;
  }
  return l;
}

// Thousands of children outgrow the node arrays, in order.  A cycle is
// cut the same way, at the entry past the step limit.
TEST(StreamTree, WalkCutsLinksPastThirtyFiveHundredStepsAndStopsAtSharedEntries) {
  {
    moxhost::PoolServices pools;
    OpenDoc doc(longChain(3600).serialize());
    const StreamTree t(doc.handle(), pools);
    ASSERT_EQ(t.status(), 0);
    // The top entry is step 1, so the 3501st entry is the last one reached.
    ASSERT_EQ(t.root()->iChildCount, 3501);
    for (int i = 0; i < 3501; ++i) ASSERT_EQ(t.root()->ppChildren[i]->iIndex, i + 1) << i;
    EXPECT_EQ(doc->pDir[3501].lRight, -1);
    EXPECT_EQ(doc->pDir[3502].lRight, 3503) << "entries never reached keep their links";
    // However its arrays grow, the tree's memory comes from the pool alone
    // and is never freed piecemeal.
    EXPECT_EQ(pools.poolFrees(), 0);
    EXPECT_EQ(pools.heap().allocations(), 0);
  }
  // Every entry's left and right link lead to the same next entry: the
  // number of paths doubles at each level, and the walk stops at the first
  // entry met twice.  An object list takes it for a cycle.
  cfb::CfbLayout l = longChain(60);
  for (int i = 1; i < 60; ++i) l.dir[i].left = l.dir[i].right;
  OpenDoc doc(l.serialize());
  EXPECT_EQ(List(doc, nullptr, 0).count, -1);
  moxhost::PoolServices pools;
  EXPECT_EQ(StreamTree(doc.handle(), pools).status(), 4);
  EXPECT_LT(pools.poolAllocateCalls(), 20000);
}

// A tree that fails reports its code and leaves true counts; an object
// list that fails is -1.
TEST(StreamTree, FailuresOfTreesAndObjectLists) {
  OpenDoc doc(longChain(5).serialize());
  ASSERT_TRUE(doc.ok());
  moxhost::PoolServices services;
  HostMemory* pool = services.createPool(4096, 0, nullptr);
  _MoxOleTreeNode* root = nullptr;
  moxtest::sweep([&](int64_t n) {
    services.faults().failAt(n);
    root = nullptr;
    EXPECT_EQ(iOLEGetStreamTree(doc.handle(), pool, &root), n == 0 ? 0 : 2);
    if (n != 1) {
      EXPECT_NE(root, nullptr);
      EXPECT_LE(root->iChildCount, 5);
      for (int i = 0; root != nullptr && i < root->iChildCount; ++i) EXPECT_NE(root->ppChildren[i], nullptr);
    }
    return services.faults().attempts();
  });
  moxtest::sweep([&doc](int64_t n) {
    doc.memory().faults().failAt(n);
    EXPECT_EQ(List(doc, nullptr, 0).count, n == 0 ? 5 : -1);
    return doc.memory().faults().attempts();
  });
  doc->pDir[3].lRight = -3;
  EXPECT_EQ(iOLEGetStreamTree(doc.handle(), pool, &root), 4);
  EXPECT_EQ(root->iChildCount, 3);
  EXPECT_EQ(List(doc, nullptr, 0).count, -1);
  services.destroyPool(pool);
}


// Listed on a thread with a 256 KiB stack: a walk that recursed once per
// sibling would need far more for 20 000 of them.  The last one listed
// has a name of 32 units with no terminator in its field: its record's
// name is cut to 35 bytes and ends in a zero.
TEST(ObjectList, LongLeftLeaningChainAndNamesCutToThirtyFiveBytes) {
  const int n = 20000;
  cfb::CfbLayout l = longChain(n, true);
  l.dir[n].name = std::u16string(32, u'x');
  l.dir[n].nameLength = 64;
  OpenDoc doc(l.serialize());
  using Job = std::pair<OpenDoc*, std::vector<std::string>>;  // the document, the names listed
  Job job{&doc, {}};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attr, [](void* arg) -> void* {
    Job* j = static_cast<Job*>(arg);
    j->second = List(*j->first, nullptr, 0).names();
    return nullptr;
  }, &job), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  ASSERT_EQ(job.second.size(), static_cast<size_t>(n));
  EXPECT_EQ(job.second.back().substr(0, 32), std::string(32, 'x'));
  EXPECT_LE(job.second.back().size(), 35u);
}

// --- Embedded objects ----------------------------------------------------------

// A metafile goes to a file after its header, a picture header to a
// buffer, and the main stream comes back as it was, failures included.
// Object _1 has a metafile larger than the copy buffer and a picture; _2
// a header length below 2 and a picture too short for its header.
TEST(GetObject, MetafilesAndPicturesLeaveTheMainStreamAsItWas) {
  const Bytes main = pattern(9000, 1), body1 = pattern(25000, 2), pic1 = pattern(100, 3),
              pic2 = pattern(50, 4);
  // A metafile stream starts with a header whose first two bytes give its length.
  Bytes meta1 = body1;
  meta1.insert(meta1.begin(), {8, 0, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB});
  cfb::CfbBuilder b;
  b.addStream(0, "WordDocument", main);
  b.addStream(0, "1Table", pattern(300, 5));
  int pool = b.addStorage(0, "ObjectPool");
  int one = b.addStorage(pool, "_1");
  b.addStream(one, "\x03META", meta1);
  b.addStream(one, "\x03PIC", pic1);
  int two = b.addStorage(pool, "_2");
  b.addStream(two, "\x03META", Bytes{1, 0, 7, 7, 7, 7});
  b.addStream(two, "\x03PIC", pic2);
  OpenDoc doc(b.build());
  _MoxOleFile* h = doc.handle();
  moxtest::ScratchDir dir;
  const std::string out = dir.file("object");
  ASSERT_EQ(bOLEopenStream(h, "WordDocument"), 1);
  EXPECT_EQ(bOLEgetObject(h, 1, const_cast<char*>(out.c_str()), 3), 1);
  Bytes written;
  EXPECT_TRUE(moxhost::readFile(out, &written));
  EXPECT_EQ(written, body1);
  EXPECT_EQ(readToEnd(h), main);
  // A header length below two copies nothing: the output is emptied.
  EXPECT_EQ(bOLEgetObject(h, 2, const_cast<char*>(out.c_str()), 3), 1);
  EXPECT_TRUE(moxhost::readFile(out, &written));
  EXPECT_TRUE(written.empty());
  // A full disk: the copy is cut short and the call fails; WordDocument
  // comes back read to its end.
  if (access("/dev/full", W_OK) == 0) {
    EXPECT_EQ(bOLEgetObject(h, 1, const_cast<char*>("/dev/full"), 3), 0);
    EXPECT_EQ(lOLEtell(h), 9000);
  }
  // An output that cannot be opened: not one host call is made.
  ASSERT_EQ(bOLEopenStream(h, "1Table"), 1);
  ASSERT_EQ(lOLEseek(h, 5, 0), 5);
  doc.io().record(true);
  EXPECT_EQ(bOLEgetObject(h, 1, const_cast<char*>("/nonexistent/dir/out.wmf"), 3), 0);
  EXPECT_TRUE(doc.io().calls().empty());
  EXPECT_EQ(doc->lStreamSize, 300) << "1Table is still current";
  EXPECT_EQ(lOLEtell(h), 5);

  // A picture's header is 76 bytes; with nothing open there is nothing to
  // come back to, but WordDocument is opened.
  bOLEcloseStream(h, nullptr);
  unsigned char target[100];
  EXPECT_EQ(bOLEgetObject(h, 1, target, 0), 0);
  EXPECT_EQ(doc->lStreamSize, 9000);
  ASSERT_EQ(lOLEseek(h, 10, 0), 10);
  memset(target, 0xEE, sizeof target);
  EXPECT_EQ(bOLEgetObject(h, 1, target, 0), 1);
  EXPECT_EQ(Bytes(target, target + 76), Bytes(pic1.begin(), pic1.begin() + 76));
  EXPECT_EQ(target[76], 0xEE);
  EXPECT_EQ(bOLEgetObject(h, 2, target, 0), 0) << "50 bytes are too few";
  EXPECT_EQ(Bytes(target, target + 50), pic2);
  EXPECT_EQ(bOLEgetObject(h, 9, target, 0), 0) << "no storage _9";
  EXPECT_EQ(lOLEtell(h), 10);
  // Opening an object's metafile stream leaves it current at its start.
  EXPECT_EQ(lOLEopenObject(h, "_1", 3), 25008);
  EXPECT_EQ(readToEnd(h), meta1);
  EXPECT_EQ(lOLEopenObject(h, "_8", 3), 0);
}

}  // namespace
