// Seeking and reading: stream positions and the bytes read from them,
// reads cut short by the host, big-endian, large-sector and huge files.
#include <gtest/gtest.h>

#include <limits.h>

#include "reader/stream.h"
#include "support/sparse_io.h"
#include "support/stream_kit.h"

namespace {

using cfb::Bytes;
using streamkit::OpenDocument;
using streamkit::pattern;
using streamkit::readToEnd;

// Streams at sectors chosen by the test, so that file positions are known:
//   "R"  1000 bytes in regular sectors p+7, p+3 (p: first padding sector)
//   "E"  1024 bytes in regular sectors p+12, p+11
//   "Pa", "Pb", "M", "M2": mini streams at mini sectors 0-4, 5-9, 10-11,
//        12-13; the mini stream itself lies in regular sectors p+5, p+9.
// The cutoff is lowered to 512 so that small regular streams exist.
struct KnownPlaces {
  cfb::CfbLayout layout;
  uint32_t p = 0;
  Bytes r = pattern(1000, 1), e = pattern(1024, 2), m = pattern(100, 3), m2 = pattern(128, 4);
  KnownPlaces() {
    cfb::CfbBuilder b;
    b.setMiniCutoff(512);
    b.setPaddingSectors(16);
    int rEntry = b.addStream(0, "R", r);
    int eEntry = b.addStream(0, "E", e);
    b.addStream(0, "Pa", pattern(320, 5));
    b.addStream(0, "Pb", pattern(320, 6));
    b.addStream(0, "M", m);
    b.addStream(0, "M2", m2);
    layout = b.layout();
    p = streamkit::firstPaddingSector(layout);
    streamkit::relocateChain(&layout, rEntry, {p + 7, p + 3});
    streamkit::relocateChain(&layout, eEntry, {p + 12, p + 11});
    streamkit::relocateChain(&layout, 0, {p + 5, p + 9});
  }
};

TEST(StreamSeek, OriginsAndClamping) {
  KnownPlaces k;
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  ASSERT_EQ(bOLEopenStream(h, "R"), 1);
  EXPECT_EQ(lOLEseek(h, -5, 0), 0);
  EXPECT_EQ(lOLEseek(h, 1010, 0), 1000);
  EXPECT_EQ(lOLEseek(h, 0, 2), 1000);
  EXPECT_EQ(lOLEseek(h, -1, 2), 999);
  EXPECT_EQ(lOLEseek(h, 5, 0), 5);
  EXPECT_EQ(lOLEseek(h, 10, 1), 15);
  EXPECT_EQ(lOLEseek(h, 0, 3), -1);
  EXPECT_EQ(lOLEseek(h, 0, -1), -1);
  EXPECT_EQ(lOLEtell(h), 15);
  EXPECT_EQ(lOLEseek(h, INT64_MAX, 1), 1000);
  EXPECT_EQ(lOLEseek(h, INT64_MIN, 1), 0);
  EXPECT_EQ(lOLEseek(h, INT64_MAX, 2), 1000);
  EXPECT_EQ(lOLEseek(h, INT64_MIN, 0), 0);
}

// Positions on both sides of every sector and mini sector boundary, in
// streams whose sectors are out of order: the bytes read from there are
// the stream's own.
TEST(StreamSeek, ReadsFromAnyPositionGiveTheStreamsBytes) {
  KnownPlaces k;
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  const Bytes pb = pattern(320, 6);
  struct Case { const char* name; const Bytes& data; int64_t offset; } cases[] = {
      {"R", k.r, 0},    {"R", k.r, 511},  {"R", k.r, 512}, {"R", k.r, 600}, {"R", k.r, 999},
      {"E", k.e, 511},  {"E", k.e, 512},  {"E", k.e, 1023}, {"M", k.m, 63}, {"M", k.m, 70},
      {"Pb", pb, 191},  {"Pb", pb, 192},  {"M2", k.m2, 127}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " at " << c.offset);
    ASSERT_EQ(bOLEopenStream(d.h(), c.name), 1);
    ASSERT_EQ(lOLEseek(d.h(), c.offset, 0), c.offset);
    EXPECT_EQ(readToEnd(d.h(), 100), Bytes(c.data.begin() + c.offset, c.data.end()));
    ASSERT_EQ(lOLEseek(d.h(), 0, 2), static_cast<int64_t>(c.data.size()));
    EXPECT_EQ(readToEnd(d.h()), Bytes());
  }
}

TEST(StreamSeek, MiniStreamChainTooShortForTheSectorFails) {
  KnownPlaces k;
  k.layout.fat[k.p + 5] = cfb::kEnd;  // the mini stream loses its second sector
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  EXPECT_EQ(bOLEopenStream(d.h(), "Pb"), 1);
  EXPECT_EQ(lOLEseek(d.h(), 3 * 64, 0), -1);
  EXPECT_EQ(lOLEtell(d.h()), 3 * 64);  // the position moved all the same
  EXPECT_EQ(bOLEopenStream(d.h(), "M"), 0);  // its seek to 0 fails: closed again
  EXPECT_EQ(d.h()->plChain, nullptr);
}

TEST(StreamRead, ReadsStopAtTheEndAndKeepThePosition) {
  KnownPlaces k;
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  ASSERT_EQ(bOLEopenStream(h, "R"), 1);
  Bytes buffer(2000);
  EXPECT_EQ(iOLEread(h, buffer.data(), 0), 0u);
  ASSERT_EQ(lOLEseek(h, 300, 0), 300);
  ASSERT_EQ(iOLEread(h, buffer.data(), 400), 400u);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 400),
            Bytes(k.r.begin() + 300, k.r.begin() + 700));
  EXPECT_EQ(lOLEtell(h), 700);
  EXPECT_EQ(iOLEread(h, buffer.data(), 2000), 300u);
  EXPECT_EQ(iOLEread(h, buffer.data(), 100), 0u);
  EXPECT_EQ(lOLEtell(h), 1000);
}

TEST(StreamRead, HostFailuresEndTheReadAfterWholePieces) {
  KnownPlaces k;
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  Bytes buffer(1000);
  ASSERT_EQ(bOLEopenStream(h, "R"), 1);
  d.io().shortReadAt(2, 100);  // the second piece comes back short
  EXPECT_EQ(iOLEread(h, buffer.data(), 1000), 512u);
  EXPECT_EQ(lOLEtell(h), 512);
  EXPECT_EQ(readToEnd(h), Bytes(k.r.begin() + 512, k.r.end()));

  ASSERT_EQ(bOLEopenStream(h, "M"), 1);
  d.io().failSeekAt(2);  // the host refuses the second mini sector's seek
  EXPECT_EQ(iOLEread(h, buffer.data(), 1000), 64u);
  EXPECT_EQ(lOLEtell(h), 64);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 64), Bytes(k.m.begin(), k.m.begin() + 64));
}

TEST(StreamRead, UnpositionedOrClosedStreamsReadNothing) {
  KnownPlaces k;
  OpenDocument d(k.layout.serialize());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  char buffer[10];
  EXPECT_EQ(lOLEseek(h, 0, 0), -1);
  EXPECT_EQ(iOLEread(h, buffer, 10), 0u);
  EXPECT_EQ(iOLEread(nullptr, buffer, 10), 0u);
  EXPECT_EQ(lOLEseek(nullptr, 0, 0), -1);
  // Built by entry number but never sought: there is no position yet.
  ASSERT_EQ(iGetStreamChain(h, "R", nullptr, 0), 0);
  EXPECT_EQ(lOLEtell(h), -1);
  EXPECT_EQ(iOLEread(h, buffer, 10), 0u);
  EXPECT_EQ(lOLEseek(h, 3, 0), 3);
  EXPECT_EQ(iOLEread(h, buffer, 10), 10u);
  EXPECT_EQ(Bytes(buffer, buffer + 10), Bytes(k.r.begin() + 3, k.r.begin() + 13));
}

// Every stream of a document read whole and in odd-sized steps.
void expectStreamsRead(OpenDocument& d, const std::vector<std::pair<std::string, Bytes>>& streams) {
  for (const auto& [name, data] : streams) {
    SCOPED_TRACE(name);
    ASSERT_EQ(bOLEopenStream(d.h(), name.c_str()), 1);
    EXPECT_EQ(readToEnd(d.h(), 777), data);
    ASSERT_EQ(lOLEseek(d.h(), -static_cast<int64_t>(data.size()) / 3, 2),
              static_cast<int64_t>(data.size() - data.size() / 3));
    EXPECT_EQ(readToEnd(d.h(), 100000), Bytes(data.end() - data.size() / 3, data.end()));
  }
}

TEST(StreamRead, BigEndianAndLargeSectorDocuments) {
  const std::vector<std::pair<std::string, Bytes>> streams = {
      {"Mini1", pattern(3000, 6)}, {"Mini2", pattern(4095, 7)},
      {"Regular", pattern(20000, 8)}, {"Exact", pattern(8192, 9)}};
  for (unsigned shift : {9u, 12u}) {
    for (bool big : {false, true}) {
      SCOPED_TRACE(testing::Message() << "shift " << shift << (big ? " big-endian" : ""));
      cfb::CfbBuilder b(shift);
      b.setBigEndian(big);
      for (const auto& [name, data] : streams) b.addStream(0, name, data);
      OpenDocument d(b.build());
      ASSERT_NE(d.h(), nullptr);
      EXPECT_EQ(d.h()->iByteOrder, big ? 0u : 1u);
      expectStreamsRead(d, streams);
    }
  }
}

// Zero padding sectors push the streams and the mini stream past 2 GiB;
// the file exists only as the runs the layout writes.
void readStreamsPastTwoGigabytes(unsigned shift) {
  SCOPED_TRACE(shift);
  const int64_t sectorSize = int64_t{1} << shift;
  const int64_t twoGiB = int64_t{1} << 31;
  cfb::CfbBuilder b(shift);
  b.setPaddingSectors(static_cast<uint32_t>(twoGiB / sectorSize) + 3);
  const std::vector<std::pair<std::string, Bytes>> streams = {
      {"Far", pattern(50000, 10)}, {"FarMini", pattern(3000, 11)}};
  for (const auto& [name, data] : streams) b.addStream(0, name, data);
  cfb::CfbLayout l = b.layout();
  SparseIo io(l.serializeSparse(), (int64_t{l.sectorCount()} + 1) * sectorSize);
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  for (const auto& [name, data] : streams) {
    SCOPED_TRACE(name);
    ASSERT_EQ(bOLEopenStream(h, name.c_str()), 1);
    EXPECT_GT(io.position(), twoGiB);
    EXPECT_EQ(readToEnd(h, 10000), data);
    EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  }
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(StreamRead, StreamsBeyondTwoGigabytes) {
  readStreamsPastTwoGigabytes(12);
  readStreamsPastTwoGigabytes(9);  // a FAT of some 32000 sectors, DIFAT included
}

}  // namespace
