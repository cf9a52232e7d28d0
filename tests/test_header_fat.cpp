// The header, the FAT (from the header and along the DIFAT), FAT lookups
// and the chain loop guard.
#include <string.h>

#include <gtest/gtest.h>

#include "reader/reader.h"
#include "support/cfb_builder.h"
#include "support/open_doc.h"
#include "support/sparse_io.h"

namespace {

cfb::CfbLayout smallLayout() {
  cfb::CfbBuilder b;
  b.addStream(0, "One", cfb::Bytes(10, 1));
  return b.layout();
}

TEST(Header, AcceptsAnySignatureTailAfterTheFirstFourBytes) {
  cfb::CfbLayout l = smallLayout();
  memcpy(l.header.signature + 4, "\x01\x02\x03\x04", 4);
  OpenDoc doc(l.serialize());
  EXPECT_TRUE(doc.ok());
  l.header.signature[3] = 0xE1;
  OpenDoc broken(l.serialize());
  EXPECT_FALSE(broken.ok());
}

TEST(Header, ByteOrderMarkChoosesHowEveryFieldIsRead) {
  cfb::CfbBuilder b;
  b.addStream(0, "Stream", cfb::Bytes(100, 3));
  b.setBigEndian(true);
  cfb::Bytes big = b.build();
  EXPECT_EQ(big[0x1C], 0xFF);
  EXPECT_EQ(big[0x1D], 0xFE);
  EXPECT_EQ(big[0x1F], 0x09);  // sector shift bytes 00 09
  OpenDoc doc(big);
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->iByteOrder, 0u);
  EXPECT_EQ(doc->lSectorSize, 512);
  EXPECT_STREQ(doc->pDir[1].szName, "Stream");
  EXPECT_EQ(doc->pDir[1].lSize, 100);

  // Any mark other than FE FF reads big-endian, so a little-endian file
  // with a damaged mark no longer parses.
  cfb::CfbLayout l = smallLayout();
  l.header.byteOrder = 0x1234;
  OpenDoc damaged(l.serialize());
  EXPECT_FALSE(damaged.ok());
}

TEST(Header, VersionTextAndGeometry) {
  OpenDoc v3(smallLayout().serialize());
  ASSERT_TRUE(v3.ok());
  EXPECT_STREQ(v3->szVersion, "03 00");
  EXPECT_EQ(v3->iFatPerSector, 128);
  EXPECT_EQ(v3->lMiniSectorSize, 64);
  EXPECT_EQ(v3->lMiniPerSector, 8);
  EXPECT_EQ(v3->lMiniCutoff, 4096);

  cfb::CfbBuilder b(12);
  b.addStream(0, "Four", cfb::Bytes(5000, 4));
  OpenDoc v4(b.build());
  ASSERT_TRUE(v4.ok());
  EXPECT_STREQ(v4->szVersion, "04 00");
  EXPECT_EQ(v4->lSectorSize, 4096);
  EXPECT_EQ(v4->iFatPerSector, 1024);
  EXPECT_EQ(v4->lMiniPerSector, 64);
  EXPECT_EQ(v4->iDirCount, 32);
}

TEST(Header, SectorShiftsOutsideTheUsableRangeAreRefused) {
  struct Case { uint16_t shift, mini; bool opens; };
  for (Case c : {Case{9, 6, true}, Case{12, 6, true}, Case{6, 3, false},
                 Case{17, 6, false}, Case{9, 9, false}, Case{9, 0, false}, Case{0, 0, false}}) {
    cfb::Bytes bytes = smallLayout().serialize();
    bytes[0x1E] = static_cast<uint8_t>(c.shift);
    bytes[0x20] = static_cast<uint8_t>(c.mini);
    // Only the header changes: a file whose geometry is wrong for its
    // sectors may still fail later, but a bad shift is never accepted.
    OpenDoc doc(bytes);
    if (!c.opens) {
      EXPECT_FALSE(doc.ok()) << c.shift << "/" << c.mini;
    } else if (c.shift == 9) {
      EXPECT_TRUE(doc.ok());
    }
  }
}

TEST(Header, TruncatedHeaderFails) {
  cfb::CfbLayout l = smallLayout();
  l.truncateTo = 511;
  OpenDoc doc(l.serialize());
  EXPECT_FALSE(doc.ok());
}

// A bare handle over raw bytes, for driving the FAT builders directly.
struct RawFat {
  moxhost::MemoryIo io;
  moxhost::CountingMemory memory;
  _MoxOleFile h = {};
  uint32_t difat[109] = {};
  explicit RawFat(int64_t fatCount, size_t fileSize) : io(cfb::Bytes(fileSize, 0xEE)) {
    h.pIo = io.io();
    h.pTableMemory = memory.memory();
    h.iByteOrder = 1;
    h.iSectorShift = 9;
    h.lSectorSize = 512;
    h.iFatPerSector = 128;
    h.lFatCount = fatCount;
    for (uint32_t i = 0; i < 109; ++i) difat[i] = i;  // FAT sector i is sector i
  }
  ~RawFat() {
    if (h.ppFat != nullptr) {
      for (int64_t i = 0; i < h.lFatCount; ++i) memory.release(h.ppFat[i]);
      memory.release(h.ppFat);
    }
    EXPECT_EQ(memory.liveBlocks(), 0);
  }
};

TEST(SmallFat, LastSectorMayBeCutShortAndReadsAsZeros) {
  RawFat raw(3, 512 + 2 * 512 + 100);  // sector 2 holds 100 bytes
  ASSERT_EQ(iBldSmallFat(&raw.h, raw.difat), 0);
  EXPECT_EQ(raw.h.lFatCount, 3);
  EXPECT_EQ(raw.h.ppFat[2][99], 0xEE);
  EXPECT_EQ(raw.h.ppFat[2][100], 0);
  EXPECT_EQ(raw.h.ppFat[2][511], 0);
}

TEST(SmallFat, MiddleSectorCutShortEndsTheFatThere) {
  RawFat raw(5, 512 + 3 * 512 + 200);  // file ends inside FAT sector 3
  ASSERT_EQ(iBldSmallFat(&raw.h, raw.difat), 0);
  EXPECT_EQ(raw.h.lFatCount, 4);
  for (int i = 0; i < 512; ++i) ASSERT_EQ(raw.h.ppFat[3][i], 0) << i;
  EXPECT_EQ(raw.h.ppFat[2][0], 0xEE);
}

TEST(SmallFat, FirstSectorCutShortFailsAndFreesEverything) {
  RawFat raw(5, 512 + 100);
  EXPECT_EQ(iBldSmallFat(&raw.h, raw.difat), -1);
  EXPECT_EQ(raw.h.ppFat, nullptr);
}

TEST(SmallFat, EmptyAndNegativeCounts) {
  RawFat empty(0, 1024);
  EXPECT_EQ(iBldSmallFat(&empty.h, empty.difat), 0);
  RawFat negative(-1, 1024);
  EXPECT_EQ(iBldSmallFat(&negative.h, negative.difat), -1);
}

// With `fat` FAT sectors (more than 109), the file carries DIFAT sectors.
cfb::CfbLayout layoutWithFatSectors(unsigned shift, uint32_t fat) {
  cfb::CfbBuilder b(shift);
  b.addStream(0, "Stream", cfb::Bytes(5000, 5));
  uint32_t per = (1u << shift) / 4;
  uint32_t difat = fat > 109 ? (fat - 109 + per - 2) / (per - 1) : 0;
  // Sectors besides FAT and DIFAT just past what fat - 1 FAT sectors cover.
  b.setPaddingSectors((fat - 1) * per + 1 - fat - difat);
  cfb::CfbLayout l = b.layout();
  EXPECT_EQ(l.fatSectors.size(), fat);
  return l;
}

std::unique_ptr<SparseIo> sparse(const cfb::CfbLayout& l) {
  return std::make_unique<SparseIo>(l.serializeSparse(),
                                    static_cast<int64_t>(l.sectorCount() + 1) * l.sectorSize());
}

TEST(DifatFat, ExactlyOneHundredNineFatSectorsNeedNoDifat) {
  cfb::CfbLayout l = layoutWithFatSectors(9, 109);
  EXPECT_TRUE(l.difatSectors.empty());
  l.header.difatStart = 0xFFFFFFFF;  // would be refused if it were consulted
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->lFatCount, 109);
}

TEST(DifatFat, OneDifatSectorAt512And4096ByteSectors) {
  for (unsigned shift : {9u, 12u}) {
    uint32_t per = (1u << shift) / 4;
    for (uint32_t fat : {110u, 109u + per - 1, 109u + per}) {
      cfb::CfbLayout l = layoutWithFatSectors(shift, fat);
      EXPECT_EQ(l.difatSectors.size(), fat <= 109 + per - 1 ? 1u : 2u);
      auto io = sparse(l);
      moxhost::CountingMemory memory;
      _MoxOleFile* h = hOLEopen(io->io(), memory.memory());
      ASSERT_NE(h, nullptr) << shift << " " << fat;
      EXPECT_EQ(h->lFatCount, fat);
      // The last FAT sector marks itself as a FAT sector.
      int found = 0;
      EXPECT_EQ(lGetSect(h, l.fatSectors.back(), &found), kSectorFat);
      EXPECT_EQ(found, 1);
      EXPECT_EQ(h->pDir[1].lSize, 5000);
      iOLEclose(h);
      EXPECT_EQ(memory.liveBlocks(), 0);
    }
  }
}

TEST(DifatFat, BadDifatStartOrCountFails) {
  for (uint32_t start : {0xFFFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFDu, 0xFFFFFFFCu}) {
    cfb::CfbLayout l = layoutWithFatSectors(9, 110);
    l.deriveDifat = false;
    l.header.difatStart = start;
    l.header.difatSectors = 1;
    for (int i = 0; i < 109; ++i) l.header.difat[i] = l.fatSectors[i];
    OpenDoc doc(l.serialize());
    EXPECT_FALSE(doc.ok());
  }
  cfb::CfbLayout zero = layoutWithFatSectors(9, 110);
  cfb::CfbLayout derived = zero;
  derived.deriveDifat = true;
  cfb::Bytes bytes = derived.serialize();
  bytes[0x48] = 0;  // DIFAT sector count 0
  OpenDoc doc(bytes);
  EXPECT_FALSE(doc.ok());
}

TEST(DifatFat, DifatChainComingBackToASectorItReadFails) {
  cfb::CfbLayout l = layoutWithFatSectors(9, 400);  // three DIFAT sectors
  ASSERT_EQ(l.difatSectors.size(), 3u);
  for (int back : {0, 1}) {
    cfb::Bytes bytes = l.serialize();
    // The second DIFAT sector's link leads back to the first, or to itself.
    uint32_t second = l.difatSectors[1];
    uint32_t target = l.difatSectors[back];
    size_t link = (second + 1) * 512 + 127 * 4;
    memcpy(&bytes[link], &target, 4);
    // A count the chain must go on for: without the check it would go round
    // until the count is reached.
    const uint32_t claimed = 100000;
    memcpy(&bytes[0x2C], &claimed, 4);
    OpenDoc doc(bytes);
    EXPECT_FALSE(doc.ok()) << back;
    // The header's FAT sectors, the three DIFAT sectors and what they list,
    // and at most one more round of the circle before it is noticed.
    EXPECT_LE(doc.io().readCalls(), 1 + 109 + 3 * 128 + 2 * 128) << back;
  }
}

TEST(FatLookup, SpecialAndOutOfRangeSectorsHaveNoEntry) {
  OpenDoc doc(smallLayout().serialize());
  ASSERT_TRUE(doc.ok());
  for (int64_t s : {int64_t{-1}, int64_t{-2}, int64_t{-4}, int64_t{128}, int64_t{1} << 40}) {
    int found = 7;
    EXPECT_EQ(lGetSect(doc.handle(), s, &found), s);
    EXPECT_EQ(found, 0);
  }
  int found = 0;
  EXPECT_EQ(lGetSect(doc.handle(), 0, &found), kSectorFat);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(lGetSect(doc.handle(), 127, &found), kSectorFree);
}

TEST(ByteOrder, FieldsDecodeInBothOrders) {
  const unsigned char b[4] = {0x01, 0x02, 0xFE, 0xFF};
  EXPECT_EQ(lGetLong(1, b), static_cast<int32_t>(0xFFFE0201u));
  EXPECT_EQ(lGetLong(0, b), 0x0102FEFF);
  const unsigned char minus2[4] = {0xFE, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(lGetLong(1, minus2), -2);
}

TEST(LoopGuard, ReportsTheSecondArrivalAtABackwardTarget) {
  _MoxOleFile h = {};
  vSectorCheckConstructor(&h);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 5, 9), 0);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 9, 2), 0);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 2, 7), 0);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 7, 2), 1);
  vSectorCheckConstructor(&h);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 5, 5), 1);
  vSectorCheckConstructor(&h);
  for (int64_t s = 0; s < 100000; ++s) ASSERT_EQ(bSectorCheckForInfiniteLoop(&h, s, s + 1), 0);
  EXPECT_EQ(h.iCheckCount, 0);
}

TEST(LoopGuard, RemembersOnlyTheFirst128BackwardTargets) {
  _MoxOleFile h = {};
  vSectorCheckConstructor(&h);
  for (int64_t t = 0; t < 200; ++t) {
    ASSERT_EQ(bSectorCheckForInfiniteLoop(&h, 1000 + t, t), 0);
  }
  EXPECT_EQ(h.iCheckCount, 128);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 5000, 127), 1);
  EXPECT_EQ(bSectorCheckForInfiniteLoop(&h, 5000, 150), 0);
}

// A document whose sectors reach past 2 GiB opens through 64-bit
// positions: the mini stream sits beyond the 4-millionth sector.
TEST(BigFiles, DocumentLargerThanTwoGibOpens) {
  cfb::CfbBuilder b;
  b.addStream(0, "Far", cfb::Bytes(300, 6));
  b.setPaddingSectors(5u << 20);
  cfb::CfbLayout l = b.layout();
  EXPECT_GT(l.difatSectors.size(), 300u);
  auto io = sparse(l);
  ASSERT_GT(io->size(), int64_t{5} << 29);  // 2.5 GiB
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io->io(), memory.memory());
  ASSERT_NE(h, nullptr);
  EXPECT_GT(h->lRootStart, 5 << 20);
  int found = 0;
  EXPECT_EQ(lGetSect(h, h->lRootStart, &found), kSectorEndOfChain);
  EXPECT_EQ(found, 1);
  iOLEclose(h);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

}  // namespace
