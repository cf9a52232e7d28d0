// Planning a file before it is written: region sizes in closed form, the
// order of the regions, every chain in the FAT, the mini sector lists.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "writer/moxoledoc.h"
#include "writer/sector_math.h"

namespace {

// --- Closed forms ----------------------------------------------------------

TEST(SectorMath, CeilDivRoundsUpForBothSignednesses) {
  EXPECT_EQ(ceil_div(int64_t{0}, int64_t{4}), 0);
  EXPECT_EQ(ceil_div(int64_t{1}, int64_t{4}), 1);
  EXPECT_EQ(ceil_div(int64_t{8}, int64_t{4}), 2);
  EXPECT_EQ(ceil_div(int64_t{9}, int64_t{4}), 3);
  EXPECT_EQ(ceil_div(uint64_t{5}, uint64_t{4}), 2u);
  EXPECT_EQ(ceil_div(uint64_t{1} << 40, uint64_t{512}), uint64_t{1} << 31);
}

TEST(SectorMath, FatAndDifatSizesAtTheDocumentedBoundaries) {
  struct Case {
    int64_t others, fat, difat;
  } cases[] = {{1, 1, 0},         {127, 1, 0},       {128, 2, 0},
               {13843, 109, 0},   {13844, 110, 1},   {29971, 236, 1},
               {29972, 237, 2}};
  for (const Case& c : cases) {
    MoxFatSizes s = moxSolveFatSizes(c.others, 128);
    EXPECT_EQ(s.fatSectors, c.fat) << "T = " << c.others;
    EXPECT_EQ(s.difatSectors, c.difat) << "T = " << c.others;
  }
}

// The three properties the file depends on, over every T up to well past
// a few DIFAT sectors, and at a few large sizes: the FAT covers every
// sector including its own and the DIFAT's; the DIFAT holds every FAT
// sector the header cannot; and no DIFAT sector is wasted (the last one
// holds at least one number, so every earlier link is really written).
TEST(SectorMath, FatCoversTheFileAndDifatFitsForEveryT) {
  auto check = [](int64_t t) {
    MoxFatSizes s = moxSolveFatSizes(t, 128);
    int64_t f = s.fatSectors, d = s.difatSectors;
    ASSERT_GE(f * 128, t + d + f) << "T = " << t;
    ASSERT_GE(127 * d, f - 109) << "T = " << t;
    if (d > 0) {
      ASSERT_GT(f - 109, 127 * (d - 1)) << "T = " << t;
    }
    // Not more FAT sectors than needed.
    ASSERT_LT((f - 1) * 128, t + d + f) << "T = " << t;
  };
  for (int64_t t = 1; t <= 200000; ++t) check(t);
  for (int64_t t : {int64_t{2097152} + 20, int64_t{1} << 26, (int64_t{1} << 31) - 5}) check(t);
}

TEST(SectorMath, ChainRunLinksConsecutiveSectorsAndEndsWithMinusTwo) {
  std::vector<int64_t> table(8, -1);
  moxChainRun(table.data(), 2, 3);
  EXPECT_EQ(table, (std::vector<int64_t>{-1, -1, 3, 4, -2, -1, -1, -1}));
  moxChainRun(table.data(), 6, 1);
  EXPECT_EQ(table[6], -2);
  moxChainRun(table.data(), 7, 0);
  EXPECT_EQ(table[7], -1);
}

// --- Planning a document ---------------------------------------------------

class LayoutTest : public ::testing::Test {
 protected:
  void SetUp() override {
    doc = std::make_unique<CMoxOleDocument>(host.services());
    ASSERT_EQ(doc->init(file.io(), 1), 0);
  }
  void TearDown() override {
    doc.reset();
    EXPECT_EQ(moxtest::leakReport(host), "");
  }

  CMoxOleDirectory* stream(const char* path, int64_t size) {
    CMoxOleDirectory* entry = nullptr;
    EXPECT_EQ(doc->addDirectory(path, 2, entry), 0) << path;
    std::vector<unsigned char> bytes(static_cast<size_t>(size), 0x5A);
    if (size > 0) {
      EXPECT_EQ(entry->write(bytes.data(), static_cast<int>(size)), 0);
    }
    return entry;
  }

  struct Counts {
    long f, m, d;
  };
  Counts counts() {
    Counts c{-9, -9, -9};
    long result = doc->getAllBlockCount(c.f, c.m, c.d);
    EXPECT_EQ(result, c.f);
    return c;
  }

  // The planning steps of the file writer, without writing anything.
  void plan() {
    Counts c = counts();
    doc->vFat.assign(c.f * 128, -1);
    for (long i = 0; i < c.d; ++i) doc->vFat[i] = -4;
    for (long i = 0; i < c.f; ++i) doc->vFat[c.d + i] = -3;
    long p = (c.d + c.f + c.m) * 512;
    ASSERT_EQ(doc->assignSectors(p), 0);
    end = p;
  }

  std::vector<int64_t> fat(int64_t count) {
    return std::vector<int64_t>(doc->vFat.data(), doc->vFat.data() + count);
  }

  moxhost::PoolServices host;
  moxhost::MemoryIo file;
  std::unique_ptr<CMoxOleDocument> doc;
  long end = 0;
};

TEST_F(LayoutTest, RootOnlyDocumentIsOneFatAndOneDirectorySector) {
  Counts c = counts();
  EXPECT_EQ(c.f, 1);
  EXPECT_EQ(c.m, 0);
  EXPECT_EQ(c.d, 0);
  plan();
  EXPECT_EQ(fat(3), (std::vector<int64_t>{-3, -2, -1}));
  EXPECT_EQ(end, 2 * 512);
  EXPECT_EQ(doc->pRootEntry->lStartSector, -2);
}

TEST_F(LayoutTest, HundredByteStreamGoesToTheMiniStream) {
  CMoxOleDirectory* a = stream("A", 100);
  Counts c = counts();
  EXPECT_EQ(c.f, 1);
  EXPECT_EQ(c.m, 1);
  EXPECT_EQ(c.d, 0);
  plan();
  // 0 FAT, 1 mini FAT (chained later, while the FAT is written),
  // 2 directory, 3 mini stream.
  EXPECT_EQ(fat(5), (std::vector<int64_t>{-3, -1, -2, -2, -1}));
  EXPECT_EQ(doc->pRootEntry->lStartSector, 3);
  EXPECT_EQ(a->lMiniStartSector, 0);
  ASSERT_EQ(a->lMiniSectorCount, 2);
  EXPECT_EQ(a->plMiniSectors[0], 1);
  EXPECT_EQ(a->plMiniSectors[1], -2);
  EXPECT_EQ(a->lStartSector, -2);
  EXPECT_EQ(end, 4 * 512);
}

TEST_F(LayoutTest, CutoffDecidesBetweenRegularAndMiniStream) {
  CMoxOleDirectory* regular = stream("R", 4096);
  Counts c = counts();
  EXPECT_EQ(c.m, 0);
  plan();
  EXPECT_EQ(regular->lStartSector, 2);
  EXPECT_EQ(regular->lMiniStartSector, -2);
  EXPECT_EQ(fat(11), (std::vector<int64_t>{-3, -2, 3, 4, 5, 6, 7, 8, 9, -2, -1}));
  EXPECT_EQ(doc->pRootEntry->lStartSector, -2);
}

TEST_F(LayoutTest, JustBelowTheCutoffTakesSixtyFourMiniSectors) {
  CMoxOleDirectory* mini = stream("M", 4095);
  Counts c = counts();
  EXPECT_EQ(c.m, 1);
  EXPECT_EQ(c.f, 1);
  plan();
  EXPECT_EQ(mini->lMiniSectorCount, 64);
  for (int i = 0; i < 63; ++i) ASSERT_EQ(mini->plMiniSectors[i], i + 1);
  EXPECT_EQ(mini->plMiniSectors[63], -2);
  // Sectors 0 FAT, 1 mini FAT, 2 directory, 3..10 the mini stream.
  EXPECT_EQ(doc->pRootEntry->lStartSector, 3);
  EXPECT_EQ(fat(12), (std::vector<int64_t>{-3, -1, -2, 4, 5, 6, 7, 8, 9, 10, -2, -1}));
}

TEST_F(LayoutTest, RegionsFollowInFileOrderAndStreamsInCreationOrder) {
  CMoxOleDirectory* small1 = stream("s1", 65);      // 2 mini sectors
  CMoxOleDirectory* big1 = stream("b1", 5000);      // 10 sectors
  CMoxOleDirectory* none = stream("empty", 0);
  CMoxOleDirectory* dir = nullptr;
  ASSERT_EQ(doc->addDirectory("D", 1, dir), 0);
  CMoxOleDirectory* small2 = stream("D\\s2", 64);   // 1 mini sector
  CMoxOleDirectory* big2 = stream("D\\b2", 4097);   // 9 sectors
  Counts c = counts();
  // Six entries and the root: two directory sectors.
  EXPECT_EQ(c.f, 1);
  EXPECT_EQ(c.m, 1);
  plan();
  // 0 FAT, 1 mini FAT, 2-3 directory, 4-13 b1, 14-22 b2, 23 mini stream.
  EXPECT_EQ(doc->vFat[2], 3);
  EXPECT_EQ(doc->vFat[3], -2);
  EXPECT_EQ(big1->lStartSector, 4);
  EXPECT_EQ(doc->vFat[13], -2);
  EXPECT_EQ(big2->lStartSector, 14);
  EXPECT_EQ(doc->vFat[22], -2);
  EXPECT_EQ(doc->pRootEntry->lStartSector, 23);
  EXPECT_EQ(doc->vFat[23], -2);
  EXPECT_EQ(doc->vFat[24], -1);
  EXPECT_EQ(small1->lMiniStartSector, 0);
  EXPECT_EQ(small2->lMiniStartSector, 2);
  EXPECT_EQ(none->lMiniStartSector, -2);
  EXPECT_EQ(none->lStartSector, -2);
  EXPECT_EQ(dir->lStartSector, -2);
  EXPECT_EQ(dir->plMiniSectors, nullptr);
}

TEST_F(LayoutTest, MiniFatTableIsFilledFromEveryStreamsList) {
  stream("a", 130);  // 3 mini sectors: 0 1 2
  stream("b", 1);    // 1 mini sector: 3
  stream("c", 200);  // 4 mini sectors: 4..7
  plan();
  std::vector<int64_t> table(128, -1);
  for (int64_t i = 0; i < doc->vDirectories.size(); ++i) {
    ASSERT_EQ(doc->vDirectories[i]->collectMiniFATSectors(table.data(), 128), 0);
  }
  EXPECT_EQ(std::vector<int64_t>(table.begin(), table.begin() + 9),
            (std::vector<int64_t>{1, 2, -2, -2, 5, 6, 7, -2, -1}));
  // A chain that would leave the table is refused, not written past it.
  std::vector<int64_t> tooSmall(5, -1);
  EXPECT_EQ(doc->vDirectories[2]->collectMiniFATSectors(tooSmall.data(), 5), 2);
}

TEST_F(LayoutTest, DirectorySectorsFollowTheEntryCount) {
  for (const char* name : {"1", "2", "3"}) stream(name, 0);
  EXPECT_EQ(doc->vDirectories.size(), 3);
  plan();
  EXPECT_EQ(fat(3), (std::vector<int64_t>{-3, -2, -1}));  // four entries: one sector
  stream("4", 0);
  stream("5", 0);
  plan();
  EXPECT_EQ(fat(4), (std::vector<int64_t>{-3, 2, -2, -1}));  // six: two sectors
}

TEST_F(LayoutTest, MiniSectorListThatCannotBeHadFailsThePlan) {
  stream("a", 10);
  host.faults().failAt(1);  // the list is the next thing taken from a pool
  Counts c = counts();
  doc->vFat.assign(c.f * 128, -1);
  long p = (c.d + c.f + c.m) * 512;
  EXPECT_EQ(doc->assignSectors(p), 2);
  host.faults().disarm();
}

// A stream large enough that the FAT outgrows the header: the counts are
// those of the closed form, with d DIFAT sectors in front of the FAT.
TEST_F(LayoutTest, LargeStreamNeedsDifatSectors) {
  // One directory sector plus 13843 stream sectors: T = 13844.
  stream("big", int64_t{13843} * 512);
  Counts c = counts();
  EXPECT_EQ(c.d, 1);
  EXPECT_EQ(c.f, 110);
  plan();
  EXPECT_EQ(doc->vFat[0], -4);
  for (int i = 1; i <= 110; ++i) ASSERT_EQ(doc->vFat[i], -3);
  EXPECT_EQ(doc->vFat[111], -2);  // the directory
  EXPECT_EQ(doc->vDirectories[0]->lStartSector, 112);
  EXPECT_EQ(doc->vFat[112 + 13842], -2);
  EXPECT_EQ(doc->vFat[112 + 13843], -1);
}

}  // namespace
