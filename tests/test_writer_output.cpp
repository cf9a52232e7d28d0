// Files the writer makes, byte for byte: the documented small files
// against an independent encoder (the test-side layout), every fill value,
// names at the field's limit, two directory sectors with the colours of
// insertion time, and the FAT/DIFAT boundaries.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/cfb_builder.h"
#include "support/cfb_reader.h"
#include "support/stream_kit.h"
#include "support/write_kit.h"

namespace {

using cfb::Bytes;
using writekit::NewFile;
using writekit::u16;
using writekit::u32;

// Where two files first differ, or "" when they are equal.
std::string difference(const Bytes& got, const Bytes& want) {
  if (got.size() != want.size()) {
    return "size " + std::to_string(got.size()) + ", expected " + std::to_string(want.size());
  }
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i] != want[i]) {
      size_t from = i & ~size_t{15};
      return "offset " + std::to_string(i) + ": got " + cfb::hex(got, from, 32) +
             "\nexpected " + cfb::hex(want, from, 32);
    }
  }
  return "";
}

// A layout with this writer's constant header values and one FAT sector
// at sector 0.
cfb::CfbLayout layoutOfWriter() {
  cfb::CfbLayout l;
  l.header.minor = 0x21;
  l.header.fatSectors = 1;
  l.fatSectors = {0};
  return l;
}

cfb::DirEntry entry(const std::string& name, uint8_t type, uint8_t colour, uint32_t start,
                    uint32_t size) {
  cfb::DirEntry e;
  e.name = cfb::units(name);
  e.type = type;
  e.colour = colour;
  e.start = start;
  e.sizeLow = size;
  return e;
}

// --- The documented files ----------------------------------------------------

TEST(WriterOutput, RootOnlyDocumentIsExactly1536Bytes) {
  NewFile file;
  ASSERT_NE(file.h(), nullptr);
  const Bytes& got = file.close();

  cfb::CfbLayout want = layoutOfWriter();
  want.header.dirStart = 1;
  want.fat = {cfb::kFatSect, cfb::kEnd};
  want.dir = {entry("Root Entry", 5, 1, cfb::kEnd, 0)};
  want.dirSectors = {1};
  EXPECT_EQ(difference(got, want.serialize()), "");

  // The fields a reader depends on, spelled out.
  EXPECT_EQ(u16(got, 0x18), 0x21);  // not 0x3E
  EXPECT_EQ(u32(got, 0x3C), cfb::kEnd);
  EXPECT_EQ(u32(got, 0x44), cfb::kEnd);
  EXPECT_EQ(u32(got, 0x4C), 0u);
  EXPECT_EQ(u32(got, 0x4C + 4 * 108), cfb::kFree);
  EXPECT_EQ(u16(got, 1024 + 0x40), 22);
}

TEST(WriterOutput, OneHundredByteStreamIsExactly2560Bytes) {
  Bytes data = streamkit::pattern(100, 1);
  NewFile file;
  ASSERT_EQ(file.stream("A", data), 0);
  const Bytes& got = file.close();

  cfb::CfbLayout want = layoutOfWriter();
  want.fat = {cfb::kFatSect, cfb::kEnd, cfb::kEnd, cfb::kEnd};
  want.header.miniFatStart = 1;
  want.header.miniFatSectors = 1;
  want.miniFatSectors = {1};
  want.miniFat = {1, cfb::kEnd};
  want.header.dirStart = 2;
  want.dirSectors = {2};
  want.dir = {entry("Root Entry", 5, 1, 3, 128), entry("A", 2, 1, 0, 100)};
  want.dir[0].child = 1;
  want.sector(3).assign(data.begin(), data.end());
  EXPECT_EQ(difference(got, want.serialize()), "");
}

// The cutoff: 4096 bytes are a regular stream of eight sectors, 4095 bytes
// a mini stream of 64 mini sectors whose last one is padded with one zero.
TEST(WriterOutput, StreamsAtAndBelowTheCutoff) {
  for (size_t size : {size_t{4096}, size_t{4095}}) {
    SCOPED_TRACE(size);
    Bytes data = streamkit::pattern(size, 7);
    NewFile file;
    ASSERT_EQ(file.stream("S", data), 0);
    const Bytes& got = file.close();

    cfb::CfbLayout want = layoutOfWriter();
    const bool regular = size == 4096;
    const uint32_t dirSector = regular ? 1 : 2;
    want.header.dirStart = dirSector;
    want.dirSectors = {dirSector};
    want.fat = {cfb::kFatSect};
    if (!regular) {
      want.fat.push_back(cfb::kEnd);  // the mini FAT
      want.header.miniFatStart = 1;
      want.header.miniFatSectors = 1;
      want.miniFatSectors = {1};
      for (uint32_t i = 0; i < 64; ++i) want.miniFat.push_back(i < 63 ? i + 1 : cfb::kEnd);
    }
    want.fat.push_back(cfb::kEnd);  // the directory
    const uint32_t first = dirSector + 1;
    for (uint32_t i = 0; i < 8; ++i) want.fat.push_back(i < 7 ? first + i + 1 : cfb::kEnd);
    want.dir = {entry("Root Entry", 5, 1, regular ? cfb::kEnd : first, regular ? 0 : 4096),
                entry("S", 2, 1, regular ? first : 0, static_cast<uint32_t>(size))};
    want.dir[0].child = 1;
    for (uint32_t i = 0; i < 8; ++i) {
      Bytes& s = want.sector(first + i);
      size_t n = std::min<size_t>(512, size - 512 * i);
      std::copy(data.begin() + 512 * i, data.begin() + 512 * i + n, s.begin());
    }
    EXPECT_EQ(difference(got, want.serialize()), "");
  }
}

TEST(WriterOutput, NamesAreCutToThirtyOneCharactersOnDisk) {
  const std::string name31 = "abcdefghijklmnopqrstuvwxyz01234";
  const std::string name36 = name31 + "56789";
  for (const std::string& name : {name31, name36}) {
    NewFile file;
    ASSERT_EQ(file.stream(name), 0);
    const Bytes& got = file.close();
    const size_t e = 1024 + 128;  // entry 1
    for (size_t i = 0; i < 31; ++i) {
      ASSERT_EQ(u16(got, e + 2 * i), static_cast<unsigned char>(name31[i])) << i;
    }
    EXPECT_EQ(u16(got, e + 62), 0);
    EXPECT_EQ(u16(got, e + 0x40), 64);
  }
}

// Five entries and the root need two directory sectors; the last two
// slots are all zeros, links included.  Inserted in ascending order, the
// names end up as b at the top, a to its left, d to its right with c and e
// below it; each entry carries the colour its node had right after its own
// insertion (only "a" was black then), not the final colours.
TEST(WriterOutput, FiveEntriesTakeTwoDirectorySectorsWithInsertionColours) {
  NewFile file;
  for (const char* name : {"a", "b", "c", "d", "e"}) ASSERT_EQ(file.stream(name), 0);
  const Bytes& got = file.close();

  cfb::CfbLayout want = layoutOfWriter();
  want.header.dirStart = 1;
  want.dirSectors = {1, 2};
  want.fat = {cfb::kFatSect, 2, cfb::kEnd};
  want.dir = {entry("Root Entry", 5, 1, cfb::kEnd, 0), entry("a", 2, 1, cfb::kEnd, 0),
              entry("b", 2, 0, cfb::kEnd, 0),          entry("c", 2, 0, cfb::kEnd, 0),
              entry("d", 2, 0, cfb::kEnd, 0),          entry("e", 2, 0, cfb::kEnd, 0)};
  want.dir[0].child = 2;
  want.dir[2].left = 1;
  want.dir[2].right = 4;
  want.dir[4].left = 3;
  want.dir[4].right = 5;
  EXPECT_EQ(difference(got, want.serialize()), "");
}

// --- Fill values ---------------------------------------------------------------

// The host's pools hand out scribbled memory, so any byte the writer
// forgets to set shows up here as 0xA5 instead of the fill.
TEST(WriterOutput, EveryFillValueOfAMixedDocument) {
  Bytes small = streamkit::pattern(70, 3);  // 2 mini sectors, 58 bytes of tail
  Bytes big = streamkit::pattern(4100, 4);  // 9 sectors, 508 bytes of tail
  NewFile file;
  ASSERT_EQ(file.storage("S"), 0);
  ASSERT_EQ(file.stream("S\\small", small), 0);
  ASSERT_EQ(file.stream("big", big), 0);
  ASSERT_EQ(file.stream("e"), 0);
  const Bytes& got = file.close();

  cfb::ParsedFile parsed;
  std::string error;
  ASSERT_TRUE(cfb::parse(got, &parsed, &error)) << error;
  // 0 FAT, 1 mini FAT, 2-3 directory, 4-12 big, 13 mini stream.
  ASSERT_EQ(got.size(), 15u * 512);
  for (size_t i = 14; i < 128; ++i) ASSERT_EQ(parsed.fat[i], cfb::kFree) << i;
  for (size_t i = 2; i < 128; ++i) ASSERT_EQ(parsed.miniFat[i], cfb::kFree) << i;
  // Five entries in two directory sectors: three slots of 128 zero bytes,
  // links included.
  for (size_t i = 512 * 4 + 128; i < 512 * 5; ++i) ASSERT_EQ(got[i], 0) << i;
  // Tail of big's last sector, tail of small's last mini sector and the
  // rest of the mini stream's sector.
  for (size_t i = 512 * 5 + 4100; i < 512 * 14; ++i) ASSERT_EQ(got[i], 0) << i;
  for (size_t i = 512 * 14 + 70; i < got.size(); ++i) ASSERT_EQ(got[i], 0) << i;
  // The root: the mini stream's first sector and the size of the mini
  // sectors in use; the storage: start -2, size 0.
  EXPECT_EQ(parsed.dir[0].start, 13u);
  EXPECT_EQ(parsed.dir[0].size, 128u);
  EXPECT_EQ(parsed.dir[1].start, cfb::kEnd);
  EXPECT_EQ(parsed.dir[1].size, 0u);
  EXPECT_EQ(parsed.streams[2], small);
  EXPECT_EQ(parsed.streams[3], big);
}

TEST(WriterOutput, StreamCreatedButNeverWrittenHasSizeZeroAndNoSectors) {
  NewFile file;
  ASSERT_EQ(file.stream("quiet"), 0);
  const Bytes& got = file.close();
  EXPECT_EQ(got.size(), 1536u);
  EXPECT_EQ(u32(got, 1024 + 128 + 0x74), cfb::kEnd);
  EXPECT_EQ(u32(got, 1024 + 128 + 0x78), 0u);
  EXPECT_EQ(got[1024 + 128 + 0x42], 2);
}

// --- FAT and DIFAT boundaries ----------------------------------------------

// One stream of (T - 1) sectors and the directory sector: T sectors
// besides the FAT's and the DIFAT's own.
struct Boundary {
  int64_t t;
  uint32_t fat, difat;
};

class WriterDifatBoundary : public ::testing::TestWithParam<Boundary> {};

TEST_P(WriterDifatBoundary, HeaderDifatSectorsAndFatMarksFollowTheClosedForm) {
  const Boundary b = GetParam();
  Bytes data = streamkit::pattern(static_cast<size_t>(b.t - 1) * 512, 11);
  NewFile file;
  ASSERT_EQ(file.stream("big", data, 65536), 0);
  const Bytes& got = file.close();

  const uint32_t d = b.difat, f = b.fat;
  ASSERT_EQ(got.size(), (1 + d + f + b.t) * 512u);
  EXPECT_EQ(u32(got, 0x2C), f);
  EXPECT_EQ(u32(got, 0x30), d + f);  // directory right after the FAT
  EXPECT_EQ(u32(got, 0x44), d > 0 ? 0u : cfb::kEnd);
  EXPECT_EQ(u32(got, 0x48), d);
  for (uint32_t i = 0; i < 109; ++i) {
    ASSERT_EQ(u32(got, 0x4C + 4 * i), i < f ? d + i : cfb::kFree) << i;
  }
  // DIFAT sector j at sector j: 127 FAT sector numbers, then the link to
  // sector j + 1; past the last number everything is -2, link slot too.
  uint32_t next = d + 109;
  for (uint32_t j = 0; j < d; ++j) {
    const size_t at = 512 * (1 + j);
    for (uint32_t k = 0; k < 127; ++k) {
      uint32_t want = next < d + f ? next++ : cfb::kEnd;
      ASSERT_EQ(u32(got, at + 4 * k), want) << "DIFAT " << j << " slot " << k;
    }
    ASSERT_EQ(u32(got, at + 508), j + 1 < d ? j + 1 : cfb::kEnd) << "link of " << j;
  }
  EXPECT_EQ(next, d + f);
  const size_t fatAt = 512 * (1 + d);
  for (uint32_t i = 0; i < d; ++i) ASSERT_EQ(u32(got, fatAt + 4 * i), cfb::kDifSect);
  for (uint32_t i = d; i < d + f; ++i) ASSERT_EQ(u32(got, fatAt + 4 * i), cfb::kFatSect);

  cfb::ParsedFile parsed;
  std::string error;
  ASSERT_TRUE(cfb::parse(got, &parsed, &error)) << error;
  EXPECT_TRUE(parsed.streams[1] == data);
}

INSTANTIATE_TEST_SUITE_P(Boundaries, WriterDifatBoundary,
                         ::testing::Values(Boundary{13843, 109, 0}, Boundary{13844, 110, 1},
                                           Boundary{29971, 236, 1}, Boundary{29972, 237, 2}),
                         [](const ::testing::TestParamInfo<Boundary>& info) {
                           return "T" + std::to_string(info.param.t);
                         });

}  // namespace
