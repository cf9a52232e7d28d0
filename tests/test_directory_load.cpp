// The mini FAT and the directory as loaded into the handle.
#include <string.h>

#include <gtest/gtest.h>

#include "reader/reader.h"
#include "support/cfb_builder.h"
#include "support/open_doc.h"

namespace {

// Root, a mini stream "M" (entry 1) and enough mini streams to need
// `miniFatSectors` mini FAT sectors.
cfb::CfbLayout miniLayout(int miniFatSectors) {
  cfb::CfbBuilder b;
  b.addStream(0, "M", cfb::Bytes(100, 1));
  // 63 mini sectors each; 128 entries per mini FAT sector.
  for (int i = 1; i < 2 * miniFatSectors; ++i) {
    b.addStream(0, "S" + std::to_string(i), cfb::Bytes(4000, 2));
  }
  cfb::CfbLayout l = b.layout();
  EXPECT_EQ(l.miniFatSectors.size(), static_cast<size_t>(miniFatSectors));
  return l;
}

TEST(MiniFat, NoMiniFatLeavesTheTableNull) {
  cfb::CfbBuilder b;
  b.addStream(0, "Big", cfb::Bytes(5000, 1));
  OpenDoc doc(b.build());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->lMiniFatCount, 0);
  EXPECT_EQ(doc->plMiniFat, nullptr);
}

TEST(MiniFat, EntriesAreWidenedInChainOrder) {
  cfb::CfbLayout l = miniLayout(2);
  // Swap the two mini FAT sectors on disk; the chain order must win.
  std::swap(l.miniFatSectors[0], l.miniFatSectors[1]);
  l.fat[l.miniFatSectors[0]] = l.miniFatSectors[1];
  l.fat[l.miniFatSectors[1]] = cfb::kEnd;
  l.header.miniFatStart = l.miniFatSectors[0];
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  ASSERT_EQ(doc->lMiniFatCount, 2);
  EXPECT_EQ(doc->plMiniFat[0], 1);
  EXPECT_EQ(doc->plMiniFat[1], kSectorEndOfChain);
  EXPECT_EQ(doc->plMiniFat[2], 3);
  for (int i = 0; i < 256; ++i) {
    int64_t want = i < static_cast<int>(l.miniFat.size())
                       ? int64_t{static_cast<int32_t>(l.miniFat[i])} : int64_t{kSectorFree};
    ASSERT_EQ(doc->plMiniFat[i], want) << i;
  }
}

TEST(MiniFat, ChainEndingEarlyFailsTheOpen) {
  cfb::CfbLayout l = miniLayout(2);
  l.fat[l.miniFatSectors[0]] = cfb::kEnd;
  OpenDoc doc(l.serialize());
  EXPECT_FALSE(doc.ok());
}

TEST(MiniFat, NegativeStartMeansNoMiniFat) {
  cfb::CfbLayout l = miniLayout(1);
  l.header.miniFatStart = cfb::kEnd;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->plMiniFat, nullptr);
}

TEST(MiniFat, StartPastTheFileFails) {
  cfb::CfbLayout l = miniLayout(1);
  l.header.miniFatStart = 5000;
  OpenDoc doc(l.serialize());
  EXPECT_FALSE(doc.ok());
}

// A directory with one hand-made entry at index 1 under the root.
cfb::CfbLayout oneEntry(const cfb::DirEntry& e) {
  cfb::CfbBuilder b;
  b.addStream(0, "X", cfb::Bytes(10, 1));
  cfb::CfbLayout l = b.layout();
  cfb::DirEntry keep = l.dir[1];
  l.dir[1] = e;
  l.dir[1].left = keep.left;
  l.dir[1].right = keep.right;
  return l;
}

cfb::DirEntry stream(const std::u16string& name) {
  cfb::DirEntry e;
  e.name = name;
  e.type = 2;
  e.start = 0;
  e.sizeLow = 10;
  return e;
}

TEST(Directory, RootNameKeepsTenCharacters) {
  OpenDoc doc(oneEntry(stream(u"X")).serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->pDir[0].uiNameLen, 22u);
  EXPECT_STREQ(doc->pDir[0].szName, "Root Entry");
  EXPECT_EQ(doc->pDir[0].byType, 5);
  EXPECT_EQ(doc->pDir[0].lIndex, 0);
  EXPECT_EQ(doc->pDir[1].lIndex, 1);
  EXPECT_EQ(doc->iDirCount, 4);
  EXPECT_EQ(doc->pDir[2].byType, 0);
  EXPECT_EQ(doc->pDir[2].lStart, -1);
}

TEST(Directory, NamesKeepTheLowByteOfEachUnit) {
  std::u16string name = u"\x0005Summary";
  name += char16_t{0x4E2D};  // keeps 0x2D
  for (bool big : {false, true}) {
    cfb::CfbLayout l = oneEntry(stream(name));
    l.bigEndian = big;
    OpenDoc doc(l.serialize());
    ASSERT_TRUE(doc.ok());
    EXPECT_STREQ(doc->pDir[1].szName, "\x05Summary-");
  }
}

TEST(Directory, OverlongNamesFailForNamedTypesAndEmptyOthers) {
  cfb::DirEntry e = stream(std::u16string(31, u'a'));
  e.nameLength = 64;
  OpenDoc ok(oneEntry(e).serialize());
  ASSERT_TRUE(ok.ok());
  EXPECT_EQ(strlen(ok->pDir[1].szName), 31u);

  e.nameLength = 66;
  OpenDoc bad(oneEntry(e).serialize());
  EXPECT_FALSE(bad.ok());

  e.type = 0;
  OpenDoc empty(oneEntry(e).serialize());
  ASSERT_TRUE(empty.ok());
  EXPECT_EQ(empty->pDir[1].szName[0], 0);

  // Read big-endian the limit is one byte higher.
  e.type = 2;
  cfb::CfbLayout l = oneEntry(e);
  l.bigEndian = true;
  OpenDoc big(l.serialize());
  EXPECT_TRUE(big.ok());
  l.dir[1].nameLength = 67;
  OpenDoc bigBad(l.serialize());
  EXPECT_FALSE(bigBad.ok());
}

TEST(Directory, StartAndSizeAreCleaned) {
  cfb::DirEntry huge = stream(u"X");
  huge.sizeLow = 3000000000u;
  OpenDoc a(oneEntry(huge).serialize());
  ASSERT_TRUE(a.ok());
  EXPECT_EQ(a->pDir[1].lSize, 0);

  cfb::DirEntry badStart = stream(u"X");
  badStart.start = static_cast<uint32_t>(-6);
  OpenDoc b(oneEntry(badStart).serialize());
  ASSERT_TRUE(b.ok());
  EXPECT_EQ(b->pDir[1].lStart, -2);
  EXPECT_EQ(b->pDir[1].lSize, 0);

  cfb::DirEntry empty = stream(u"X");
  empty.start = cfb::kEnd;
  empty.sizeLow = 0;
  OpenDoc c(oneEntry(empty).serialize());
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(c->pDir[1].lStart, -2);

  cfb::DirEntry storage = stream(u"X");
  storage.type = 1;
  storage.start = 7;
  OpenDoc d(oneEntry(storage).serialize());
  ASSERT_TRUE(d.ok());
  EXPECT_EQ(d->pDir[1].lStart, -1);
  EXPECT_EQ(d->pDir[1].lSize, 0);
}

TEST(Directory, LinksOutOfRangeBecomeNone) {
  cfb::CfbLayout l = oneEntry(stream(u"X"));
  l.dir[1].child = 7;
  l.dir[1].left = static_cast<uint32_t>(-3);
  l.dir[1].right = 4;
  l.dir[0].child = static_cast<uint32_t>(-5);
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->pDir[1].lChild, -1);
  EXPECT_EQ(doc->pDir[1].lLeft, -3);
  EXPECT_EQ(doc->pDir[1].lRight, -1);
  EXPECT_EQ(doc->pDir[0].lChild, -1);
}

TEST(Directory, StorageFieldsAreCopiedAsStrings) {
  cfb::DirEntry e = stream(u"S");
  e.type = 1;
  const uint8_t clsid[16] = {0x41, 0x42, 0, 0x43};
  memcpy(e.clsid, clsid, 16);
  e.state = 0x80000001u;
  memcpy(e.created, "ABCDEFGH", 8);
  OpenDoc doc(oneEntry(e).serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_STREQ(doc->pDir[1].szClsid, "AB");
  EXPECT_EQ(doc->pDir[1].lState, static_cast<int32_t>(0x80000001u));
  EXPECT_STREQ(doc->pDir[1].szCreated, "ABCDEFGH");
  EXPECT_STREQ(doc->pDir[1].szModified, "");
}

TEST(Directory, LastRootEntryGivesTheMiniStreamStart) {
  cfb::CfbLayout l = oneEntry(stream(u"X"));
  l.dir.resize(3);
  l.dir[2].type = 5;
  l.dir[2].name = u"Second";
  l.dir[2].start = 42;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->lRootStart, 42);
}

TEST(Directory, CyclicChainsFailTheOpen) {
  cfb::CfbBuilder b;
  for (int i = 0; i < 10; ++i) b.addStream(0, "S" + std::to_string(i), cfb::Bytes(10, 1));
  cfb::CfbLayout l = b.layout();
  ASSERT_GE(l.dirSectors.size(), 3u);
  cfb::CfbLayout self = l;
  self.fat[l.dirSectors[0]] = l.dirSectors[0];
  OpenDoc a(self.serialize());
  EXPECT_FALSE(a.ok());
  cfb::CfbLayout longer = l;
  longer.fat[l.dirSectors[2]] = l.dirSectors[0];
  OpenDoc c(longer.serialize());
  EXPECT_FALSE(c.ok());
  cfb::CfbLayout broken = l;
  broken.fat[l.dirSectors[1]] = 1u << 20;  // no FAT entry for the successor
  OpenDoc d(broken.serialize());
  EXPECT_FALSE(d.ok());
}

}  // namespace
