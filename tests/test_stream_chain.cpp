// Building sector lists: where links come from, how chains must agree with
// their sizes under the lenient and the exact rules, how cycles end, and
// how long lists are split.
#include <gtest/gtest.h>

#include "reader/reader.h"
#include "reader/stream.h"
#include "support/stream_kit.h"

namespace {

using cfb::Bytes;
using streamkit::OpenDocument;
using streamkit::pattern;
using streamkit::readToEnd;

// The current sector list up to and including its terminator.
std::vector<int64_t> currentList(const _MoxOleFile* h) {
  std::vector<int64_t> list;
  for (int64_t i = 0;; ++i) {
    list.push_back(moxChainEntry(h, i));
    if (list.back() == -2) return list;
  }
}

TEST(StreamChain, EmptyStreamHasOnlyTheTerminatorAndTouchesNoFile) {
  // Nothing else in the document is small, so there is no mini stream at
  // all: its first sector is -2, and no file position exists to seek to.
  cfb::CfbBuilder b;
  b.addStream(0, "Empty", {});
  b.addStream(0, "Big", pattern(4096, 1));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  EXPECT_EQ(h->lRootStart, -2);
  ASSERT_EQ(bOLEopenStream(h, "Empty"), 1);
  EXPECT_EQ(currentList(h), std::vector<int64_t>{-2});
  EXPECT_EQ(lOLEtell(h), 0);
  char buffer[16];
  EXPECT_EQ(iOLEread(h, buffer, sizeof buffer), 0u);
  EXPECT_EQ(lOLEseek(h, 100, 0), 0);
  EXPECT_EQ(lOLEseek(h, 0, 2), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(h, nullptr, 0, "Empty"), 1);  // 0 sectors needed
}

TEST(StreamChain, CutoffSeparatesMiniFromRegularStreams) {
  for (unsigned shift : {9u, 12u}) {
    cfb::CfbBuilder b(shift);
    const Bytes mini = pattern(4095, 2), regular = pattern(4096, 3);
    b.addStream(0, "Mini", mini);
    b.addStream(0, "Regular", regular);
    OpenDocument d(b.build());
    ASSERT_NE(d.h(), nullptr) << shift;
    ASSERT_EQ(bOLEopenStream(d.h(), "Mini"), 1);
    EXPECT_EQ(readToEnd(d.h()), mini);
    ASSERT_EQ(bOLEopenStream(d.h(), "Regular"), 1);
    EXPECT_EQ(readToEnd(d.h()), regular);
  }
}

// A document with one regular stream of ten sectors and free sectors to
// lengthen it with.
struct TenSectorStream {
  cfb::CfbLayout layout;
  int entry = 0;
  Bytes data = pattern(5000, 4);
  TenSectorStream() {
    cfb::CfbBuilder b;
    b.setPaddingSectors(4);
    entry = b.addStream(0, "S", data);
    layout = b.layout();
  }
  uint32_t last() const { return streamkit::chainOf(layout, entry).back(); }
};

TEST(StreamChain, FreeLinkEndsAChainOnlyUnderTheLenientRules) {
  TenSectorStream s;
  s.layout.fat[s.last()] = cfb::kFree;
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  ASSERT_EQ(bOLEopenStream(d.h(), "S"), 1);
  EXPECT_EQ(readToEnd(d.h()), s.data);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "S"), 0);
  EXPECT_EQ(lOLEseek(d.h(), 0, 0), -1);  // the failed build released the old list
}

TEST(StreamChain, LongerChainThanTheSizeNeedsIsLenientOnly) {
  TenSectorStream s;
  const uint32_t extra = streamkit::firstPaddingSector(s.layout);
  s.layout.fat[s.last()] = extra;
  s.layout.fat[extra] = cfb::kEnd;
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  ASSERT_EQ(bOLEopenStream(d.h(), "S"), 1);
  EXPECT_EQ(readToEnd(d.h()), s.data);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "S"), 0);
}

TEST(StreamChain, ShorterChainThanTheSizeFailsEveryOpen) {
  TenSectorStream s;
  s.layout.dir[s.entry].sizeLow = 10 * 512 + 1;
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEopenStream(d.h(), "S"), 0);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "S"), 0);
  EXPECT_EQ(iReadStreamChain(s.entry, d.h()), -1);
}

TEST(StreamChain, ChainReturningToAnEarlierSectorFails) {
  TenSectorStream s;
  s.layout.fat[s.last()] = s.layout.dir[s.entry].start;
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEopenStream(d.h(), "S"), 0);
}

TEST(StreamChain, LinkPastTheFatFails) {
  TenSectorStream s;
  const uint32_t first = s.layout.dir[s.entry].start;
  s.layout.fat[first] = 100000;  // no FAT sector describes it
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  ASSERT_LT(moxFatSectorCapacity(d.h()), 100000);
  EXPECT_EQ(bOLEopenStream(d.h(), "S"), 0);
  EXPECT_EQ(iReadStreamChain(s.entry, d.h()), -1);
}

TEST(StreamChain, HostRefusingTheSeekToZeroClosesTheNewStream) {
  TenSectorStream s;
  OpenDocument d(s.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  d.io().failSeekAt(1);
  EXPECT_EQ(bOLEopenStream(d.h(), "S"), 0);
  EXPECT_EQ(lOLEseek(d.h(), 0, 0), -1);  // the position was set before the host said no
  ASSERT_EQ(bOLEopenStream(d.h(), "S"), 1);
  EXPECT_EQ(readToEnd(d.h()), s.data);
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

TEST(StreamChain, CycleThatEscapesTheLoopGuardStillEnds) {
  cfb::CfbBuilder b;
  b.setPaddingSectors(300);
  const int regular = b.addStream(0, "Regular", pattern(5000, 5));
  int minis[5];
  for (int i = 0; i < 5; ++i) minis[i] = b.addStream(0, "M" + std::to_string(i), pattern(4000, i));
  cfb::CfbLayout l = b.layout();
  ASSERT_GE(l.miniFat.size(), 300u);
  l.dir[regular].start = zigZagCycle(&l.fat, streamkit::firstPaddingSector(l), 300);
  l.dir[minis[0]].start = zigZagCycle(&l.miniFat, 0, 300);
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEopenStream(d.h(), "Regular"), 0);
  EXPECT_EQ(bOLEopenStream(d.h(), "M0"), 0);
  EXPECT_EQ(bOLEopenStream(d.h(), "M4"), 0);  // its sectors are inside the cycle now
}

TEST(StreamChain, MiniChainFollowsTheFatWhenThereIsNoMiniFat) {
  cfb::CfbBuilder b;
  const Bytes first = pattern(60, 6), second = pattern(100, 7);
  b.addStream(0, "A", first);   // mini sector 0
  b.addStream(0, "B", second);  // mini sectors 1 and 2
  cfb::CfbLayout l = b.layout();
  // FAT sector 0, mini FAT sector 1, directory sector 2: drop the mini FAT
  // and let the FAT links of sectors 0, 1 and 2 stand in for the chains.
  ASSERT_EQ(l.fatSectors, std::vector<uint32_t>{0});
  ASSERT_EQ(l.miniFatSectors, std::vector<uint32_t>{1});
  ASSERT_EQ(l.dirSectors, std::vector<uint32_t>{2});
  l.header.miniFatSectors = 0;
  l.fat[1] = 2;
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  ASSERT_EQ(d.h()->plMiniFat, nullptr);
  ASSERT_EQ(bOLEopenStream(d.h(), "A"), 1);  // FAT[0] is -3: the chain ends
  EXPECT_EQ(currentList(d.h()), (std::vector<int64_t>{0, -2}));
  EXPECT_EQ(readToEnd(d.h()), first);
  ASSERT_EQ(bOLEopenStream(d.h(), "B"), 1);
  EXPECT_EQ(currentList(d.h()), (std::vector<int64_t>{1, 2, -2}));
  EXPECT_EQ(readToEnd(d.h()), second);
  EXPECT_EQ(bOLEopenEmbeddedStreamEx(d.h(), nullptr, 0, "A"), 0);
}

TEST(StreamChain, MiniLinksMustNameMiniFatEntries) {
  cfb::CfbBuilder b;
  const int a = b.addStream(0, "A", pattern(200, 8));
  b.addStream(0, "Fine", pattern(200, 9));
  cfb::CfbLayout good = b.layout();
  const uint32_t start = good.dir[a].start;
  for (uint32_t badLink : {4096u, cfb::kFree, 0xFFFFFFFCu}) {
    cfb::CfbLayout l = good;
    l.miniFat[start + 1] = badLink;
    OpenDocument d(l.serialize());
    ASSERT_NE(d.h(), nullptr);
    EXPECT_EQ(bOLEopenStream(d.h(), "A"), 0) << badLink;
    EXPECT_EQ(bOLEopenStream(d.h(), "Fine"), 1);
  }
}

TEST(StreamChain, ListsSplitAfter16383Entries) {
  // Lists of 16382, 16383, 16384 and 16385 entries: one array, then a
  // second one of 0, 1 and 2 entries.
  const uint32_t sectors[] = {16381, 16382, 16383, 16384};
  cfb::CfbBuilder b;
  int entries[4];
  for (int i = 0; i < 4; ++i) {
    entries[i] = b.addStream(0, "S" + std::to_string(sectors[i]), pattern(sectors[i] * 512, i));
  }
  cfb::CfbLayout l = b.layout();
  OpenDocument d(l.serialize());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(sectors[i]);
    ASSERT_EQ(iReadStreamChain(entries[i], h), 0);
    std::vector<int64_t> list = currentList(h);
    std::vector<uint32_t> chain = streamkit::chainOf(l, entries[i]);
    ASSERT_EQ(list.size(), chain.size() + 1);
    EXPECT_TRUE(std::equal(chain.begin(), chain.end(), list.begin()));
  }
  // The last sector is listed in the second array: read across the split.
  ASSERT_EQ(bOLEopenStream(h, "S16384"), 1);
  const Bytes data = pattern(16384 * 512, 3);
  const int64_t split = 16382 * 512 + 500;
  ASSERT_EQ(lOLEseek(h, split, 0), split);
  EXPECT_EQ(readToEnd(h), Bytes(data.begin() + split, data.end()));
  ASSERT_EQ(lOLEseek(h, 0, 0), 0);
  EXPECT_EQ(readToEnd(h, 65536), data);

  // An allocator that refuses the empty second array fails the open.
  d.memory().faults().failAt(2);
  EXPECT_EQ(bOLEopenStream(h, "S16382"), 0);
  EXPECT_EQ(lOLEseek(h, 0, 0), -1);
  EXPECT_TRUE(d.closeCleanly());
}

TEST(StreamChain, BuildByEntryNumberChecksTheEntry) {
  cfb::CfbBuilder b;
  const int storage = b.addStorage(0, "Storage");
  const int stream = b.addStream(storage, "S", pattern(700, 10));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  ASSERT_EQ(iReadStreamChain(stream, h), 0);
  EXPECT_EQ(lOLEtell(h), -1);  // building does not position the stream
  // An entry that is there but no stream: the old list goes all the same.
  for (int bad : {0, storage}) {
    ASSERT_EQ(iReadStreamChain(stream, h), 0);
    EXPECT_EQ(iReadStreamChain(bad, h), -1) << bad;
    EXPECT_EQ(lOLEseek(h, 0, 0), -1) << bad;
  }
  // A number outside the directory names nothing and changes nothing.
  for (int bad : {-1, h->iDirCount, h->iDirCount + 7}) {
    ASSERT_EQ(iReadStreamChain(stream, h), 0);
    EXPECT_EQ(iReadStreamChain(bad, h), -1) << bad;
    EXPECT_EQ(lOLEseek(h, 0, 0), 0) << bad;
  }
  ASSERT_EQ(iReadStreamChain(stream, h), 0);
  ASSERT_EQ(lOLEseek(h, 0, 0), 0);
  EXPECT_EQ(readToEnd(h), pattern(700, 10));
}

TEST(StreamChain, CloseReleasesTheListAndKeepsThePosition) {
  cfb::CfbBuilder b;
  b.addStream(0, "S", pattern(900, 11));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEcloseStream(d.h(), "S"), 0);
  // A first open lets the handle remember where its mini stream lies; that
  // stays until the handle closes.
  ASSERT_EQ(bOLEopenStream(d.h(), "S"), 1);
  ASSERT_EQ(bOLEcloseStream(d.h(), "S"), 1);
  const int64_t blocks = d.memory().liveBlocks();
  ASSERT_EQ(bOLEopenStream(d.h(), "S"), 1);
  EXPECT_EQ(lOLEseek(d.h(), 333, 0), 333);
  EXPECT_EQ(bOLEcloseStream(d.h(), "whatever"), 1);
  EXPECT_EQ(d.memory().liveBlocks(), blocks);
  EXPECT_EQ(bOLEcloseStream(d.h(), nullptr), 0);
  EXPECT_EQ(lOLEtell(d.h()), 333);
  // Nothing to read or seek in any more.
  char buffer[8];
  EXPECT_EQ(lOLEseek(d.h(), 0, 0), -1);
  EXPECT_EQ(iOLEread(d.h(), buffer, sizeof buffer), 0u);
}

}  // namespace
