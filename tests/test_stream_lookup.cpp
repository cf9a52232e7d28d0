// Finding streams: the two name rules, sibling-tree descents, the scan that
// backs them up, storage paths, the presentation stream walk, and what a
// failed lookup leaves on the handle.
#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>

#include "reader/lookup.h"
#include "support/stream_kit.h"

namespace {

using cfb::Bytes;
using streamkit::OpenDocument;
using streamkit::pattern;
using streamkit::readToEnd;

// Storage paths are arrays of 36-byte slots.
struct Path {
  char slots[4][36] = {};
  explicit Path(std::initializer_list<const char*> names) {
    int i = 0;
    for (const char* name : names) strncpy(slots[i++], name, 35);
  }
};

Bytes contentOf(OpenDocument& d) {
  EXPECT_EQ(lOLEtell(d.h()), 0);
  return readToEnd(d.h());
}

TEST(StreamLookup, NameRulesDifferBetweenTheOpens) {
  cfb::CfbBuilder b;
  const Bytes word = pattern(5000, 1);
  b.addStream(0, "WordDocument", word);
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);

  ASSERT_EQ(bOLEopenStream(d.h(), "worddocument"), 1);
  EXPECT_EQ(contentOf(d), word);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(d.h(), "worddocument"), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(d.h(), "WordDocument"), 1);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "worddocument"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "WordDocument"), 1);
  EXPECT_EQ(contentOf(d), word);
  EXPECT_TRUE(d.closeCleanly());
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
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  for (size_t i = 0; i < wanted.size(); ++i) {
    EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), names[i], 0), wanted[i]) << names[i];
    std::string swapped = names[i];
    for (char& c : swapped) c = isupper(c) ? tolower(c) : toupper(c);
    EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), swapped.c_str(), 0), wanted[i]) << swapped;
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
    OpenDocument d(l.serialize());
    ASSERT_NE(d.h(), nullptr);
    EXPECT_EQ(moxFindChildExact(d.h(), 0, moxNameOf("Zz")), byteOrder ? zz : -1);
    EXPECT_EQ(moxFindChildExact(d.h(), 0, moxNameOf("zz")), -1);
    EXPECT_EQ(moxFindChildExact(d.h(), 0, moxNameOf("aa")), aa);
    // The tolerant search folds, so it descends the other way, and its scan
    // finds the stream either way.
    EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "zz", 0), zz);
  }
}

TEST(StreamLookup, StreamMissingFromTheTreeIsFoundByScanningEverything) {
  cfb::CfbBuilder b;
  int sub = b.addStorage(0, "Sub");
  int empty = b.addStorage(0, "Empty");
  const Bytes deep = pattern(300, 2);
  int deepEntry = b.addStream(sub, "Deep", deep);
  b.addStream(0, "Top", pattern(20, 3));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  const int count = d.h()->iDirCount;

  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "deep", 0), deepEntry);
  ASSERT_EQ(bOLEopenStream(d.h(), "Deep"), 1);
  EXPECT_EQ(contentOf(d), deep);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Nowhere", 0), count);
  EXPECT_EQ(bOLEopenStream(d.h(), "Nowhere"), 0);
  // Only a descent that ends at a missing link scans: a storage without
  // children or an invalid storage number is an error.
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Deep", empty), -1);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Deep", -1), -1);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Deep", -5), -1);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Deep", count), -1);
  // The stream is not under the root, so the exact search does not scan.
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "Deep"), 0);
  // A storage of the wanted name is passed over by the stream search.
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Sub", 0), count);
  (void)sub;
}

TEST(StreamLookup, SiblingLinkBelowMinusOneIsABadLink) {
  cfb::CfbBuilder b;
  for (const char* name : {"a", "bb", "ccc", "dddd", "eeeee"}) b.addStream(0, name, pattern(50, 4));
  cfb::CfbLayout l = b.layout();
  const uint32_t top = l.dir[0].child;
  l.dir[top].left = 0xFFFFFFFDu;  // -3: a descent to a shorter name meets it
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(d.h()->iError, 0);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "a", 0), -1);
  EXPECT_EQ(d.h()->iError, MOXOLE_BAD_LINK);
  EXPECT_EQ(bOLEopenStream(d.h(), "a"), 0);
  // The other side of the tree is still reachable.
  EXPECT_EQ(bOLEopenStream(d.h(), "eeeee"), 1);
}

TEST(StreamLookup, CyclicSiblingTreesEndAsNotFound) {
  cfb::CfbBuilder b;
  int sub = b.addStorage(0, "Sub");
  const int elsewhere = b.addStream(sub, "Elsewhere", pattern(30, 5));
  b.addStream(sub, "Inner", pattern(30, 6));
  for (const char* name : {"a", "bb", "ccc"}) b.addStream(0, name, pattern(30, 7));
  cfb::CfbLayout l = b.layout();
  const uint32_t top = l.dir[0].child;
  l.dir[top].right = top;  // every descent to a longer name comes back here
  const uint32_t inner = l.dir[sub].child;
  l.dir[inner].left = inner;
  l.dir[inner].right = inner;
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  const int count = d.h()->iDirCount;

  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "LongerThanAll", 0), count);
  EXPECT_EQ(iFindIStreamGivenIStorage(d.h(), "Elsewhere", 0), elsewhere);
  EXPECT_EQ(moxFindChildExact(d.h(), 0, moxNameOf("LongerThanAll")), -1);
  EXPECT_EQ(moxFindChildExact(d.h(), sub, moxNameOf("Missing")), -1);
  Path path({"Sub"});
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), path.slots, 1, "Missing"), 0);
  EXPECT_EQ(moxFindPresentationStream(d.h(), sub), -1);
}

TEST(StreamLookup, EmbeddedStreamNamesTheStorageExactly) {
  cfb::CfbBuilder b;
  int other = b.addStorage(0, "Other");
  b.addStream(other, "Data", pattern(100, 8));
  int obj = b.addStorage(0, "Obj");
  const Bytes data = pattern(100, 9);
  b.addStream(obj, "Data", data);
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);

  ASSERT_EQ(bOLEopenEmbeddedStream(d.h(), "data", "Obj"), 1);
  EXPECT_EQ(contentOf(d), data);
  EXPECT_EQ(bOLEopenEmbeddedStream(d.h(), "Data", "obj"), 0);
  // No storage: the root is the storage, and the scan finds Other's stream.
  ASSERT_EQ(bOLEopenEmbeddedStream(d.h(), "Data", nullptr), 1);
  EXPECT_EQ(contentOf(d), pattern(100, 8));
}

TEST(StreamLookup, StoragePathWalk) {
  cfb::CfbBuilder b;
  int a = b.addStorage(0, "A");
  int inner = b.addStorage(a, "B");
  const Bytes deep = pattern(700, 10), top = pattern(70, 11);
  b.addStream(inner, "S", deep);
  b.addStream(0, "S", top);
  b.addStream(a, "T", pattern(10, 12));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();

  Path ab({"A", "B"});
  EXPECT_EQ(moxWalkStoragePath(h, ab.slots, 2), inner);
  EXPECT_EQ(moxWalkStoragePath(h, ab.slots, 1), a);
  ASSERT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 2, "S"), 1);
  EXPECT_EQ(contentOf(d), deep);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 1, "S"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 2, "s"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 1, "B"), 0);  // a storage

  // "Root Entry" first, no path or no depth: the root, other slots unread.
  Path rooted({"Root Entry", "nothing", "here"});
  const std::pair<const char (*)[36], int> roots[] = {
      {rooted.slots, 3}, {nullptr, 5}, {ab.slots, 0}};
  for (auto [path, depth] : roots) {
    ASSERT_EQ(bOLEopenEmbeddedStreamEx(h, path, depth, "S"), 1);
    EXPECT_EQ(contentOf(d), top);
  }
  Path lower({"a"}), throughStream({"A", "T"});
  EXPECT_EQ(moxWalkStoragePath(h, lower.slots, 1), -1);
  EXPECT_EQ(moxWalkStoragePath(h, throughStream.slots, 2), -1);
  // A slot with no terminator in its 36 bytes matches nothing.
  Path full({""});
  memset(full.slots[0], 'A', 36);
  EXPECT_EQ(moxWalkStoragePath(h, full.slots, 1), -1);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, ab.slots, 2, nullptr), 0);
}

// A storage whose children are linked as a right spine, first to last.
cfb::CfbLayout presentationLayout(const std::vector<std::string>& spine, int* storage) {
  cfb::CfbBuilder b;
  *storage = b.addStorage(0, "_1234");
  std::vector<int> entries;
  for (size_t i = 0; i < spine.size(); ++i) {
    entries.push_back(b.addStream(*storage, spine[i], pattern(90, 20 + i)));
  }
  cfb::CfbLayout l = b.layout();
  l.dir[*storage].child = entries[0];
  for (size_t i = 0; i < entries.size(); ++i) {
    l.dir[entries[i]].left = cfb::kNone;
    l.dir[entries[i]].right = i + 1 < entries.size() ? entries[i + 1] : cfb::kNone;
  }
  return l;
}

TEST(StreamLookup, PresentationStreamWalk) {
  const std::string pres = "\x02OlePres000";
  int storage = 0;
  struct Case {
    std::vector<std::string> spine;
    int chosen;  // index in the spine, -1: the walk picks the root
  };
  const Case cases[] = {
      {{"A", pres, "Z"}, 1},          // found, and it has a right sibling
      {{"A", pres}, 0},               // the last entry's name is never compared
      {{"A"}, -1},                    // no right sibling at all: the root
      {{"A", "Q", "Z", "W"}, 2},      // none found: the entry before the last
      {{pres, "Q"}, 0},               // the first child itself
  };
  for (const Case& c : cases) {
    OpenDocument d(presentationLayout(c.spine, &storage).serialize());
    ASSERT_NE(d.h(), nullptr);
    const int64_t first = d.h()->pDir[storage].lChild;
    EXPECT_EQ(moxFindPresentationStream(d.h(), storage), c.chosen < 0 ? 0 : first + c.chosen);
    // Something is current beforehand.
    ASSERT_EQ(bOLEopenStream(d.h(), c.spine[0].c_str()), 1);
    if (c.chosen < 0) {
      // The root is no stream: the build fails and the old stream is gone.
      EXPECT_EQ(bOLEopenEmbeddedStream(d.h(), nullptr, "_1234"), 0);
      EXPECT_EQ(d.h()->plChain, nullptr);
    } else {
      ASSERT_EQ(bOLEopenEmbeddedStream(d.h(), nullptr, "_1234"), 1);
      EXPECT_EQ(contentOf(d), pattern(90, 20 + c.chosen));
    }
    EXPECT_TRUE(d.closeCleanly());
  }
}

TEST(StreamLookup, RootIsFoundByTypeOrByName) {
  cfb::CfbBuilder b;
  b.addStream(0, "Big", pattern(5000, 30));
  b.addStream(0, "Small", pattern(50, 31));
  cfb::CfbLayout l = b.layout();
  l.dir[0].type = 1;  // a storage named "Root Entry": never read as the root
  {
    OpenDocument d(l.serialize());
    ASSERT_NE(d.h(), nullptr);
    EXPECT_EQ(d.h()->lRootStart, -1);
    EXPECT_EQ(bOLEopenStream(d.h(), "Big"), 1);
    EXPECT_EQ(bOLEopenStream(d.h(), "Small"), 0);  // no mini stream to read it from
  }
  l.dir[0].name = cfb::units("Root Entrx");
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEopenStream(d.h(), "Big"), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(d.h(), "Big"), 1);
}

TEST(StreamLookup, FailedLookupsKeepTheCurrentStream) {
  cfb::CfbBuilder b;
  int sub = b.addStorage(0, "Sub");
  b.addStream(sub, "Inner", pattern(10, 40));
  const Bytes data = pattern(3000, 41);
  b.addStream(0, "Data", data);
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  ASSERT_EQ(bOLEopenStream(h, "Data"), 1);
  Bytes head(1000);
  ASSERT_EQ(iOLEread(h, head.data(), 1000), 1000u);
  const int64_t* list = h->plChain;

  Path sub1({"Sub"}), missing({"Missing"});
  EXPECT_EQ(bOLEopenStream(h, "Missing"), 0);
  EXPECT_EQ(bOLEopenStream(h, nullptr), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(h, "data"), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(h, nullptr), 0);
  EXPECT_EQ(bOLEopenEmbeddedStream(h, "Inner", "Missing"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStream(h, nullptr, nullptr), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, missing.slots, 1, "Inner"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, sub1.slots, 1, "inner"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, sub1.slots, 1, nullptr), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, nullptr, 0, "Sub"), 0);  // a storage
  EXPECT_EQ(iGetStreamChain(h, "Missing", nullptr, 0), -1);

  EXPECT_EQ(h->plChain, list);
  EXPECT_EQ(lOLEtell(h), 1000);
  Bytes rest = readToEnd(h);
  head.insert(head.end(), rest.begin(), rest.end());
  EXPECT_EQ(head, data);
}

TEST(StreamLookup, NullHandleFailsEverywhere) {
  EXPECT_EQ(bOLEopenStream(nullptr, "x"), 0);
  EXPECT_EQ(bOLEopenStreamIgnoreStorage(nullptr, "x"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStream(nullptr, "x", "y"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(nullptr, nullptr, 0, "x"), 0);
  EXPECT_EQ(bOLEcloseStream(nullptr, "x"), 0);
  EXPECT_EQ(iGetStreamChain(nullptr, "x", nullptr, 0), -1);
  EXPECT_EQ(iFindIStreamGivenIStorage(nullptr, "x", 0), -1);
  EXPECT_EQ(iReadStreamChain(1, nullptr), -1);
}

}  // namespace
