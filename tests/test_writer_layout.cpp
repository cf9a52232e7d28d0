// Planning a file before it is written: region sizes in closed form, the
// order of the regions and of the streams in them, the mini sector lists.
// The small documented files are checked byte for byte with the output.
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

  CMoxOleEntry* stream(const char* path, int64_t size) {
    CMoxOleEntry* entry = nullptr;
    EXPECT_EQ(doc->addEntry(path, 2, entry), 0) << path;
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
    long result = doc->countTableSectors(c.f, c.m, c.d);
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

  moxhost::PoolServices host;
  moxhost::MemoryIo file;
  std::unique_ptr<CMoxOleDocument> doc;
  long end = 0;
};

TEST_F(LayoutTest, RegionsFollowInFileOrderAndStreamsInCreationOrder) {
  CMoxOleEntry* small1 = stream("s1", 65);      // 2 mini sectors
  CMoxOleEntry* big1 = stream("b1", 5000);      // 10 sectors
  CMoxOleEntry* none = stream("empty", 0);
  CMoxOleEntry* dir = nullptr;
  ASSERT_EQ(doc->addEntry("D", 1, dir), 0);
  CMoxOleEntry* small2 = stream("D\\s2", 64);   // 1 mini sector
  CMoxOleEntry* big2 = stream("D\\b2", 4097);   // 9 sectors
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
  EXPECT_EQ(end, 24 * 512) << "the plan ends after the mini stream";
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
  for (int64_t i = 0; i < doc->vEntries.size(); ++i) {
    ASSERT_EQ(doc->vEntries[i]->collectMiniFATSectors(table.data(), 128), 0);
  }
  EXPECT_EQ(std::vector<int64_t>(table.begin(), table.begin() + 9),
            (std::vector<int64_t>{1, 2, -2, -2, 5, 6, 7, -2, -1}));
  // A chain that would leave the table is refused, not written past it.
  std::vector<int64_t> tooSmall(5, -1);
  EXPECT_EQ(doc->vEntries[2]->collectMiniFATSectors(tooSmall.data(), 5), 2);
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

}  // namespace
