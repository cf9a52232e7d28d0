// Loading a document: the header, the FAT (from the header and along the
// DIFAT), the mini FAT and the directory as the handle holds them; opening,
// cloning and closing as the host's objects see it; tables claimed far
// larger than the file and chains in circles, which must cost memory and
// host calls in proportion to the file; and the reason a host is given
// for each failure.  Failures of memory and host calls at every step are
// swept in test_fault_sweeps.
#include <string.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "reader/reader.h"
#include "support/cfb_builder.h"
#include "support/document_walk.h"
#include "support/fault_sweep.h"
#include "support/open_doc.h"
#include "support/patched_io.h"
#include "support/write_kit.h"

namespace {

// A document with a mini stream, a regular stream and a storage with a
// stream of its own.
cfb::CfbLayout document(unsigned shift = 9) {
  cfb::CfbBuilder b(shift);
  b.addStream(0, "Small", cfb::Bytes(300, 1));
  b.addStream(0, "Large", cfb::Bytes(9000, 2));
  b.addStream(b.addStorage(0, "Box"), "Inner", cfb::Bytes(700, 3));
  return b.layout();
}

// --- The FAT -----------------------------------------------------------------------

// The header lists `count` FAT sectors: slot `slot` names a sector of
// 0xEE bytes that the end of the file cuts `kept` bytes in, every other
// slot the document's real FAT sector.  Returns the cut sector.
uint32_t cutFatSector(cfb::CfbLayout& l, uint32_t count, uint32_t slot, size_t kept) {
  const uint32_t cut = l.sectorCount();
  l.sector(cut).assign(512, 0xEE);
  l.deriveDifat = false;
  l.header.fatSectors = count;
  for (uint32_t i = 0; i < count; ++i) l.header.difat[i] = i == slot ? cut : l.fatSectors[0];
  l.truncateTo = (cut + 1) * 512 + kept;
  return cut;
}

// The last FAT sector may be cut short and reads as zeros past the cut; a
// middle one cut short ends the FAT there, zeroed.  (The first one cut
// short fails: see FailureReasons.)
TEST(SmallFat, SectorsCutShort) {
  int found = 0;
  cfb::CfbLayout l = document();
  cutFatSector(l, 3, 2, 100);
  OpenDoc last(l.serialize());
  ASSERT_TRUE(last.ok());
  EXPECT_EQ(last->lFatCount, 3);
  EXPECT_EQ(lGetSect(last.handle(), 2 * 128 + 24, &found), static_cast<int32_t>(0xEEEEEEEE));
  EXPECT_EQ(lGetSect(last.handle(), 2 * 128 + 25, &found), 0);
  EXPECT_EQ(lGetSect(last.handle(), 3 * 128 - 1, &found), 0);
  l = document();
  cutFatSector(l, 5, 3, 200);
  OpenDoc middle(l.serialize());
  ASSERT_TRUE(middle.ok());
  EXPECT_EQ(middle->lFatCount, 4);
  EXPECT_EQ(lGetSect(middle.handle(), 3 * 128, &found), 0);
  EXPECT_EQ(found, 1);
}

// With `fat` FAT sectors (more than 109), the file carries DIFAT sectors.
cfb::CfbLayout layoutWithFatSectors(unsigned shift, uint32_t fat) {
  cfb::CfbBuilder b(shift);
  b.addStream(0, "Stream", cfb::Bytes(5000, 5));
  uint32_t per = (1u << shift) / 4;
  uint32_t difat = fat > 109 ? (fat - 109 + per - 2) / (per - 1) : 0;
  // Sectors besides FAT and DIFAT just past what fat - 1 FAT sectors cover.
  b.setPaddingSectors((fat - 1) * per + 1 - fat - difat);
  return b.layout();
}

// 109 FAT sectors fit the header, so its DIFAT start is never consulted;
// one more takes a DIFAT sector, and a DIFAT sector lists one FAT sector
// fewer than its size holds links.
TEST(DifatFat, DifatSectorsAt512And4096ByteSectorsAndFatLookups) {
  for (unsigned shift : {9u, 12u}) {
    uint32_t per = (1u << shift) / 4;
    for (uint32_t fat : {109u, 110u, 109u + per - 1, 109u + per}) {
      cfb::CfbLayout l = layoutWithFatSectors(shift, fat);
      if (fat == 109) l.header.difatStart = 0xFFFFFFFF;  // would be refused if it were consulted
      PatchedIo io(l.serializeSparse(), static_cast<int64_t>(l.sectorCount() + 1) * l.sectorSize());
      moxhost::CountingMemory memory;
      _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
      ASSERT_NE(h, nullptr) << shift << " " << fat;
      EXPECT_EQ(h->lFatCount, fat);
      // The last FAT sector marks itself as a FAT sector; past the sectors
      // the FAT is free, and special and out-of-range numbers have no entry.
      int found = 0;
      EXPECT_EQ(lGetSect(h, l.fatSectors.back(), &found), kSectorFat);
      EXPECT_EQ(found, 1);
      EXPECT_EQ(lGetSect(h, int64_t{fat} * per - 1, &found), kSectorFree);
      for (int64_t s : {int64_t{-1}, int64_t{-2}, int64_t{-4}, int64_t{fat} * per, int64_t{1} << 40}) {
        found = 7;
        EXPECT_EQ(lGetSect(h, s, &found), s);
        EXPECT_EQ(found, 0) << s;
      }
      iOLEclose(h);
      EXPECT_EQ(memory.liveBlocks(), 0);
    }
  }
}

// --- The mini FAT and the directory -------------------------------------------------

TEST(MiniFat, EntriesAreWidenedInChainOrderAndANegativeStartMeansNone) {
  // Enough mini streams for two mini FAT sectors: 63 mini sectors each, 128
  // entries a mini FAT sector.
  cfb::CfbBuilder b;
  for (int i = 0; i < 4; ++i) b.addStream(0, "S" + std::to_string(i), cfb::Bytes(i == 0 ? 100 : 4000, 2));
  cfb::CfbLayout l = b.layout();
  // Swap the two mini FAT sectors on disk; the chain order must win.
  std::swap(l.miniFatSectors[0], l.miniFatSectors[1]);
  l.fat[l.miniFatSectors[0]] = l.miniFatSectors[1];
  l.fat[l.miniFatSectors[1]] = cfb::kEnd;
  l.header.miniFatStart = l.miniFatSectors[0];
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  ASSERT_EQ(doc->lMiniFatCount, 2);
  l.miniFat.resize(256, cfb::kFree);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(doc->plMiniFat[i], static_cast<int32_t>(l.miniFat[i])) << i;
  l.header.miniFatStart = cfb::kEnd;  // a negative start means no mini FAT
  OpenDoc negative(l.serialize());
  ASSERT_TRUE(negative.ok());
  EXPECT_EQ(negative->plMiniFat, nullptr);
}

// A directory whose one stream, 10 bytes at mini sector 0, is entry 1
// under the root, for the test to edit.
cfb::CfbLayout oneEntry() {
  cfb::CfbBuilder b;
  b.addStream(0, "X", cfb::Bytes(10, 1));
  return b.layout();
}

// Names keep the low byte of each unit, in either byte order.  A length
// past the field fails an entry of a named type and empties the name of
// any other; read big-endian the limit is one byte higher.
TEST(Directory, NamesKeepTheLowByteAndOverlongNamesFailForNamedTypes) {
  std::u16string name = u"\x0005Summary";
  name += char16_t{0x4E2D};  // keeps 0x2D
  name.resize(31, u'a');
  const std::string kept = "\x05Summary-" + std::string(22, 'a');
  for (bool big : {false, true}) {
    SCOPED_TRACE(big);
    cfb::CfbLayout l = oneEntry();
    l.dir[1].name = name;
    l.dir[1].nameLength = big ? 66 : 64;
    l.bigEndian = big;
    OpenDoc ok(l.serialize());
    ASSERT_TRUE(ok.ok());
    EXPECT_EQ(ok->pDir[1].szName, kept);
    l.dir[1].nameLength = big ? 67 : 66;
    EXPECT_FALSE(OpenDoc(l.serialize()).ok());
    l.dir[1].type = 0;
    OpenDoc empty(l.serialize());
    ASSERT_TRUE(empty.ok());
    EXPECT_EQ(empty->pDir[1].szName[0], 0);
  }
}

TEST(Directory, RootStartsSizesLinksAndEmptySlots) {
  const struct {
    uint8_t type;
    uint32_t start, size;
    int64_t wantStart, wantSize;
  } cases[] = {
      {2, 0, 3000000000u, 0, 0},                     // a size past 2 GiB
      {2, static_cast<uint32_t>(-6), 10, -2, 0},     // a start that is no sector
      {1, 7, 10, -1, 0},                             // a storage has neither
  };
  for (const auto& c : cases) {
    cfb::CfbLayout l = oneEntry();
    l.dir[1].type = c.type;
    l.dir[1].start = c.start;
    l.dir[1].sizeLow = c.size;
    OpenDoc doc(l.serialize());
    ASSERT_TRUE(doc.ok());
    EXPECT_EQ(doc->pDir[1].lStart, c.wantStart) << c.start;
    EXPECT_EQ(doc->pDir[1].lSize, c.wantSize) << c.size;
  }
  // Links past the last entry, and a child link below -1, become none; a
  // second root entry (2) gives the mini stream's start: the last one does;
  // the directory's last sector ends in an empty slot.
  cfb::CfbLayout l = oneEntry();
  l.dir[1].child = 4;
  l.dir[1].left = static_cast<uint32_t>(-3);
  l.dir[1].right = 4;
  l.dir[0].child = static_cast<uint32_t>(-5);
  l.dir.resize(3);
  l.dir[2].type = 5;
  l.dir[2].name = u"Second";
  l.dir[2].start = 42;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc->pDir[1].lIndex, 1);
  EXPECT_EQ(doc->iDirCount, 4);
  EXPECT_EQ(doc->pDir[3].byType, 0);
  EXPECT_EQ(doc->pDir[3].lStart, -1);
  EXPECT_EQ(doc->lRootStart, 42);
  EXPECT_EQ(doc->pDir[1].lChild, -1);
  EXPECT_EQ(doc->pDir[1].lLeft, -3);
  EXPECT_EQ(doc->pDir[1].lRight, -1);
  EXPECT_EQ(doc->pDir[0].lChild, -1);
}

// --- Opening, cloning, closing --------------------------------------------------------

TEST(OpenClose, CloneLoadsAgainAndNeverOpensOrClosesTheIo) {
  OpenDoc doc(document().serialize());
  ASSERT_TRUE(doc.ok());
  const int64_t blocksWithOne = doc.memory().liveBlocks();
  _MoxOleFile* clone = hOLEopenClone(doc.handle());
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(bOLEopenStream(clone, "Large"), 1);
  EXPECT_EQ(bOLEcloseStream(clone, nullptr), 1);
  EXPECT_EQ(doc.memory().liveBlocks(), 2 * blocksWithOne);
  EXPECT_EQ(iOLEcloseClone(clone), 1);
  EXPECT_EQ(doc.io().openCalls(), 1);
  EXPECT_EQ(doc.io().closeCalls(), 0);
  EXPECT_TRUE(doc.closeCleanly());
  EXPECT_EQ(doc.io().closeCalls(), 1);
}

// An I/O object that will not open is still closed once; asked for no
// open, the library neither opens nor closes it.  (That hOLEopen opens and
// closes it once on every other failed load is held by the read fuzz
// target on each of its inputs.)
TEST(OpenClose, FailedOpenClosesTheIoOnlyIfItOpenedIt) {
  cfb::Bytes bytes = document().serialize();
  moxhost::MemoryIo unopenable(bytes);
  unopenable.failOpen(true);
  bytes[2] = 0x12;  // breaks the signature
  moxhost::MemoryIo bad(bytes);
  moxhost::CountingMemory memory;
  EXPECT_EQ(hOLEopen(unopenable.io(), memory.memory()), nullptr);
  EXPECT_EQ(hOLEopenEXT(bad.io(), memory.memory(), 0), nullptr);
  EXPECT_EQ(unopenable.openCalls(), 1);
  EXPECT_EQ(unopenable.closeCalls(), 1);
  EXPECT_EQ(bad.openCalls() + bad.closeCalls(), 0);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

// --- Work in proportion to the file ------------------------------------------------

// The bound: a sector of the file may fan out into one FAT sector per link
// it holds (a DIFAT sector lists 127), and the header lists 109 FAT sectors
// whatever the file's size.
constexpr int64_t kMemoryPerByte = 130;
constexpr int64_t kMemoryConstant = 128 << 10;
constexpr int64_t kCallsPerByte = 2;
constexpr int64_t kCallsConstant = 4096;
constexpr int kHostMemory = 64 << 20;

// Why the file does not open, on a host with kHostMemory to give; "" when
// it opens.
std::string openFailure(const cfb::Bytes& bytes) {
  moxhost::MemoryIo io(bytes);
  moxhost::CountingMemory memory;
  memory.setLimit(kHostMemory);
  char text[120];
  int length = moxoleOpenFailure(io.io(), memory.memory(), text, sizeof text);
  EXPECT_EQ(memory.liveBlocks(), 0);
  EXPECT_EQ(io.openCalls() + io.closeCalls(), 0) << "the host's object is the host's";
  if (length == 0) return "";
  EXPECT_EQ(length, static_cast<int>(strlen(text)));
  return text;
}

// Opens the file on a host with kHostMemory to give and, if it opens,
// walks it and its storage tree; the peak of the allocator and the tree's
// pool, and the reads, seeks, allocations and pool requests, must stay in
// proportion to the file's size.  Returns why the file does not open (""
// when it does): a table asked for at its claimed size shows as the
// host's refusal.  The reads of the open and the walk go to *reads.
std::string measure(const cfb::Bytes& file, const std::string& what, int64_t* reads = nullptr) {
  const int64_t bytes = static_cast<int64_t>(file.size());
  moxhost::MemoryIo io(file);
  moxhost::CountingMemory memory;
  memory.setLimit(kHostMemory);
  moxhost::PoolServices pools;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  if (h != nullptr) {
    walkDocument(h, memory.memory());
    { const StreamTree tree(h, pools); }
    iOLEclose(h);
  }
  EXPECT_EQ(memory.liveBlocks(), 0) << what;
  EXPECT_LE(memory.peakBytes() + pools.peakPoolBytes(), kMemoryPerByte * bytes + kMemoryConstant) << what;
  EXPECT_LE(io.readCalls() + io.seekCalls() + memory.allocations() + pools.poolAllocateCalls() + pools.poolArrayCalls(),
            kCallsPerByte * bytes + kCallsConstant)
      << what;
  if (reads != nullptr) *reads = io.readCalls();
  return h != nullptr ? "" : openFailure(file);
}

// One real FAT sector in the header's slots, `count` claimed, and one
// DIFAT sector at `difat`.
void claimFat(cfb::CfbLayout& l, uint32_t count, uint32_t difat) {
  l.deriveDifat = false;
  for (int i = 0; i < 109; ++i) l.header.difat[i] = i == 0 ? l.fatSectors[0] : cfb::kFree;
  l.header.fatSectors = count;
  l.header.difatStart = difat;
  l.header.difatSectors = 1;
}

// Counts claimed far past the file take memory only for what is read, and
// chains in circles end: each file opens, or fails for its own reason,
// reading the file no more than `reads` times, within the bound.
TEST(BoundedWork, ClaimedCountsAndCircularChainsCostInProportionToTheFile) {
  const int64_t any = INT64_MAX;
  const struct {
    const char* what;
    unsigned shift;
    void (*craft)(cfb::CfbLayout&);
    const char* fails;
    int64_t reads;
  } cases[] = {
      // The fuzzer's file: a FAT count whose table alone is 1.7 GB, the
      // header's 109 slots all readable, a DIFAT sector past the end.
      {"FAT count", 9, [](cfb::CfbLayout& l) { claimFat(l, 218959117, 100000); }, "DIFAT sector 100000 cannot be read", any},
      // 16 GB of pointers, past 31 bits: refused before any FAT sector is read.
      {"FAT count past 31 bits", 9, [](cfb::CfbLayout& l) { claimFat(l, 0x7FFFFFFF, 0); }, "a FAT of 2147483647 sectors is impossible", 1},
      // 1.5 GB of mini FAT claimed; the chain ends after its one sector (1).
      {"mini FAT count", 9, [](cfb::CfbLayout& l) { l.header.miniFatSectors = 1000000; }, "the mini FAT chain breaks after sector 1", any},
      // Header, FAT sector, the mini FAT sector once.
      {"mini FAT chain in a circle", 9, [](cfb::CfbLayout& l) {
         l.fat[l.miniFatSectors[0]] = l.miniFatSectors[0];
         l.header.miniFatSectors = 2000000;
       }, "the mini FAT chain comes back to sector 1", 3},
      // A one-sector mini FAT whose link leads back to itself reads no
      // further and is kept: its chain is not followed.
      {"one mini FAT sector linked to itself", 9, [](cfb::CfbLayout& l) {
         l.fat[l.miniFatSectors[0]] = l.miniFatSectors[0];
       }, "", any},
      // 4096-byte sectors and 20 FAT sectors: the FAT describes 20480
      // sectors, and the directory's chain runs through nearly all of them,
      // past the end of a file of some 90 kB from its second sector (27) on.
      // Counted, that is 650000 records.
      {"directory chain", 12, [](cfb::CfbLayout& l) {
         const uint32_t next = l.growFat(20);
         uint32_t at = l.dirSectors.back();
         for (uint32_t s = next + 1; s < 20300; at = s++) l.fat[at] = s;
         l.fat[at] = cfb::kEnd;
       }, "directory sector 27 cannot be read", any},
      {"every entry points to itself but the directory's", 9, [](cfb::CfbLayout& l) {
         l.fat.resize(l.sectorSize() / 4 * l.fatSectors.size());
         for (uint32_t s = 0; s < l.fat.size(); ++s) l.fat[s] = s;
         for (uint32_t s : l.fatSectors) l.fat[s] = cfb::kFatSect;
         l.fat[l.dirSectors.back()] = cfb::kEnd;
         for (size_t i = 0; i + 1 < l.dirSectors.size(); ++i) l.fat[l.dirSectors[i]] = l.dirSectors[i + 1];
         l.header.miniFatSectors = 0;
       }, "", any},
  };
  for (const auto& c : cases) {
    cfb::CfbLayout l = document(c.shift);
    c.craft(l);
    int64_t reads = 0;
    EXPECT_EQ(measure(l.serialize(), c.what, &reads), c.fails) << c.what;
    EXPECT_LE(reads, c.reads) << c.what;
  }
}

// Each count and start of the header (0x28 to 0x48) at 2^31 - 1, one at a
// time and all together: the file opens or fails, and either way within
// the bound.
TEST(BoundedWork, HeaderFieldsAtTheirLargestCostInProportionToTheFile) {
  const cfb::Bytes file = document().serialize();
  cfb::Bytes all = file;
  for (size_t at = 0x28; at <= 0x48; at += 4) {
    cfb::Bytes one = file;
    for (cfb::Bytes* b : {&one, &all}) memcpy(b->data() + at, "\xFF\xFF\xFF\x7F", 4);
    const std::string what = "field at " + std::to_string(at);
    measure(one, what);
    measure(all, "up to the " + what);
  }
}

// --- Why a document does not open, or a call fails -------------------------------------

// A damaged file opens (""), or is refused with its reason.
struct OpenCase {
  const char* what;
  std::function<std::string(cfb::CfbLayout&)> damage;  // returns the expected line
  std::function<void(const cfb::CfbLayout&, cfb::Bytes&)> patch = nullptr;  // then applied to the bytes
};

TEST(FailureReasons, EachDamageToTheLoadedTablesIsNamed) {
  using L = cfb::CfbLayout;
  using S = std::string;
  // Only the header changes: the sectors stay 512 bytes.
  auto shifts = [](uint8_t shift, uint8_t mini) {
    return OpenCase{"sector shifts",
                    [=](L&) { return "sector shifts " + std::to_string(shift) + " and " + std::to_string(mini) + " cannot be used"; },
                    [=](const L&, cfb::Bytes& b) { b[0x1E] = shift; b[0x20] = mini; }};
  };
  // Of three DIFAT sectors, the second links back to the first (0) or to
  // itself (1), and the header claims a count the chain must go on for.
  auto difatBack = [](int back) {
    return [back](const L& l, cfb::Bytes& b) {
      memcpy(&b[(l.difatSectors[1] + 1) * 512 + 127 * 4], &l.difatSectors[back], 4);
      memcpy(&b[0x2C], "\xA0\x86\x01\x00", 4);  // 100000
    };
  };
  // Either way the circle is seen on the second sector's next arrival.
  auto difatCircle = [](L& l) {
    l = layoutWithFatSectors(9, 400);
    return "the DIFAT chain comes back to sector " + std::to_string(l.difatSectors[1]);
  };
  // Directory sector `from` links to `to`, in a directory of three sectors.
  auto dirLink = [](int from, int to) {
    return [from, to](L& l) {
      cfb::CfbBuilder b;
      for (int i = 0; i < 10; ++i) b.addStream(0, "S" + std::to_string(i), cfb::Bytes(10, 1));
      l = b.layout();
      l.fat[l.dirSectors.at(from)] = l.dirSectors.at(to);
      return "the directory chain breaks at sector " + std::to_string(l.dirSectors[from]);
    };
  };
  const OpenCase cases[] = {
      {"signature tail", [](L& l) { memcpy(&l.header.signature[4], "\x01\x02\x03\x04", 4); return S(); }},
      {"signature byte 3", [](L& l) { l.header.signature[3] = 0xE1; return S("not a compound file (no signature)"); }},
      // Any mark other than FE FF reads big-endian, so a little-endian file
      // with a damaged mark no longer parses: its shifts read as 0x0900 and 0x0600.
      {"byte order mark", [](L& l) { l.header.byteOrder = 0x1234; return S("sector shifts 2304 and 1536 cannot be used"); }},
      {"cut inside the header", [](L& l) { l.truncateTo = 511; return S("the header cannot be read"); }},
      shifts(17, 6),
      shifts(6, 3),
      shifts(9, 9),
      shifts(9, 0),
      // The first of two: a short last sector would be tolerated.
      {"FAT sector past the end", [](L& l) {
         l.deriveDifat = false;
         l.header.fatSectors = 2;
         l.header.difat[1] = l.header.difat[0];
         l.header.difat[0] = 5000;
         return S("FAT sector 5000 cannot be read");
       }},
      {"first FAT sector cut short", [](L& l) {
         return "FAT sector " + std::to_string(cutFatSector(l, 2, 0, 100)) + " cannot be read";
       }},
      {"FAT count -1", [](L& l) { l.header.fatSectors = cfb::kFree; l.deriveDifat = false; return S("a FAT of -1 sectors is impossible"); }},
      // No FAT is no error in itself: the first chain then breaks.
      {"FAT count 0", [](L& l) {
         l.header.fatSectors = 0;
         l.deriveDifat = false;
         return "the mini FAT chain breaks after sector " + std::to_string(l.miniFatSectors[0]);
       }},
      {"DIFAT start -1", [](L& l) { l = layoutWithFatSectors(9, 110); return S("the DIFAT start -1 is no sector"); },
       [](const L&, cfb::Bytes& b) { memcpy(&b[0x44], "\xFF\xFF\xFF\xFF", 4); }},
      {"DIFAT start -4", [](L& l) { l = layoutWithFatSectors(9, 110); return S("the DIFAT start -4 is no sector"); },
       [](const L&, cfb::Bytes& b) { memcpy(&b[0x44], "\xFC\xFF\xFF\xFF", 4); }},
      {"DIFAT count 0", [](L& l) { l = layoutWithFatSectors(9, 110); return S("a DIFAT of 0 sectors is impossible"); },
       [](const L&, cfb::Bytes& b) { b[0x48] = 0; }},
      {"DIFAT chain back to its first sector", difatCircle, difatBack(0)},
      {"DIFAT sector linked to itself", difatCircle, difatBack(1)},
      {"mini FAT past the end", [](L& l) { l.header.miniFatStart = 4000; return S("mini FAT sector 4000 cannot be read"); }},
      {"mini FAT chain short", [](L& l) {
         l.header.miniFatSectors = 2;
         return "the mini FAT chain breaks after sector " + std::to_string(l.miniFatSectors[0]);
       }},
      {"directory link", [](L& l) {
         l.fat[l.dirSectors[0]] = 1u << 20;
         return "the directory chain breaks at sector " + std::to_string(l.dirSectors[0]);
       }},
      {"directory sector to itself", dirLink(0, 0)},
      {"directory sector back to the first", dirLink(2, 0)},
      {"name length", [](L& l) { l.dir[2].nameLength = 70; return S("directory entry 2 has a name longer than its field"); }},
  };
  for (const OpenCase& c : cases) {
    SCOPED_TRACE(c.what);
    cfb::CfbLayout l = document();
    const std::string expected = c.damage(l);
    cfb::Bytes bytes = l.serialize();
    if (c.patch) c.patch(l, bytes);
    EXPECT_EQ(openFailure(bytes), expected);
  }
}

TEST(FailureReasons, EachRefusedAllocationOfTheLoadIsNamed) {
  // With a DIFAT, so that a buffer for its sectors is asked for too.
  const cfb::Bytes bytes = layoutWithFatSectors(9, 110).serialize();
  const int64_t allocations = moxtest::sweep([&](int64_t n) {
    moxhost::MemoryIo io(bytes);
    moxhost::CountingMemory memory;
    moxtest::arm(moxtest::Fault::kAllocation, n, io, memory.faults());
    char text[120];
    const int length = moxoleOpenFailure(io.io(), memory.memory(), text, sizeof text);
    EXPECT_STREQ(length > 0 ? text : "(opens)", n == 0 ? "(opens)" : "the host's memory refused a request") << "allocation " << n;
    return moxtest::occurrences(moxtest::Fault::kAllocation, io, memory.faults());
  });
  EXPECT_GT(allocations, 3);
}

// The failure reason of the last call on h, or "".
std::string failure(_MoxOleFile* h) {
  char text[120];
  return moxoleFailure(h, text, sizeof text) > 0 ? std::string(text) : std::string();
}

TEST(FailureReasons, CallsOnAnOpenDocumentSayWhatWentWrong) {
  cfb::CfbLayout l = document();
  // Large (entry 2 of root, Small, Large, Box) has a chain that returns to itself.
  l.fat[l.dir[2].start] = l.dir[2].start;
  OpenDoc s(l.serialize());
  ASSERT_TRUE(s.ok());
  EXPECT_EQ(failure(s.handle()), "");
  char small[8];
  EXPECT_EQ(iOLEread(s.handle(), small, sizeof small), 0u);
  EXPECT_EQ(failure(s.handle()), "no stream is open");
  EXPECT_EQ(bOLEopenStream(s.handle(), "Missing"), 0);
  EXPECT_EQ(failure(s.handle()), "no such entry");
  EXPECT_EQ(bOLEopenStream(s.handle(), "Large"), 0);
  EXPECT_EQ(failure(s.handle()), "the sector chain of entry 2 runs in a circle");
  EXPECT_EQ(iReadStreamChain(3, s.handle()), -1);
  EXPECT_EQ(failure(s.handle()), "entry 3 is not a stream");
  EXPECT_EQ(iReadStreamChain(40, s.handle()), -1);
  EXPECT_EQ(failure(s.handle()), "there is no entry 40");
  EXPECT_EQ(iOLEopenStreamEx(s.handle(), "Small", 2, 1), MOXOLE_NOT_FOUND);
  EXPECT_EQ(failure(s.handle()), "the document is not open for writing");

  // A stream whose bytes the file no longer holds.
  cfb::CfbLayout cut = document();
  cut.truncateTo = (cut.dir[2].start + 1) * 512 + 700;
  OpenDoc t(cut.serialize());
  ASSERT_TRUE(t.ok());
  ASSERT_EQ(bOLEopenStream(t.handle(), "Large"), 1);
  cfb::Bytes buffer(5000);
  EXPECT_EQ(iOLEread(t.handle(), buffer.data(), 5000), 512u);
  EXPECT_EQ(failure(t.handle()), "byte 512 of the stream cannot be read");
  // A line longer than the buffer is cut, and its whole length returned.
  char tiny[5];
  EXPECT_EQ(moxoleFailure(t.handle(), tiny, sizeof tiny), 37);
  EXPECT_STREQ(tiny, "byte");

  writekit::NewFile w;
  EXPECT_EQ(iOLEopenStreamEx(w.handle(), "Missing\\S", 2, 1), MOXOLE_NOT_FOUND);
  EXPECT_EQ(failure(w.handle()), "no such storage, or the name is taken");
  EXPECT_EQ(iOLEopenStreamEx(w.handle(), "S", 7, 1), MOXOLE_BAD_ARGUMENT);
  EXPECT_EQ(failure(w.handle()), "invalid argument");
}

}  // namespace
