// The writer as a host uses it: results of every call, creation order and
// refusals, documents opened for reading by path; the files it makes, byte
// for byte against the test-side layout (fill values, names at the field's
// limit, directory colours, the FAT and DIFAT boundaries); documents of
// many shapes read back by the strict test-side reader and by the
// library's own; and its files read by independent readers used as black
// boxes.  Failures of the host's output and of memory are swept in
// test_fault_sweeps.
#include <gtest/gtest.h>

#include <stdint.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/cfb_builder.h"
#include "support/cfb_reader.h"
#include "support/leak_report.h"
#include "support/program_run.h"
#include "support/sha256.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"
#include "support/write_kit.h"
#include "writer/moxoledoc.h"
#include "writer/writer.h"

namespace {

using cfb::Bytes;
using streamkit::pattern;
using writekit::NewFile;
using writekit::Shape;
using writekit::u32;

// The file as the strict test-side reader parses it; a file it refuses
// ends the test.
cfb::ParsedFile parsed(const Bytes& file) {
  cfb::ParsedFile p;
  std::string error;
  if (!cfb::parse(file, &p, &error)) throw std::runtime_error("unreadable file: " + error);
  return p;
}

// === Calls ===================================================================

TEST(WriterOpen, NewDocumentWritesNothingBeforeItsClose) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 1);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.writeCalls(), 0) << "nothing is written before the close";
  // A clone needs a host object the handle does not have; the host's close
  // ends a stream only while one is current.
  EXPECT_EQ(hOLEopenClone(h), nullptr);
  EXPECT_EQ(iCloseWriterStream(h), 34);
  EXPECT_EQ(iCloseWriterStream(nullptr), 34);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(io.bytes().size(), 1536u);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

// An object that cannot serve (its open fails, it has no open, write or
// close function, or, opened for reading, it holds no document) gives no
// handle: it is closed once if it can be, never written, and nothing stays
// allocated.
TEST(WriterOpen, HostObjectThatCannotServeIsRefusedAndClosedOnce) {
  const struct {
    const char* what;
    void (*spoil)(moxhost::MemoryIo&);
    int mode, opens, closes;
  } cases[] = {
      {"open fails", [](moxhost::MemoryIo& io) { io.failOpen(true); }, 1, 1, 1},
      {"no write", [](moxhost::MemoryIo& io) { io.setWritable(false); }, 1, 1, 1},
      {"no open", [](moxhost::MemoryIo& io) { io.io()->open = nullptr; }, 1, 0, 1},
      {"no close", [](moxhost::MemoryIo& io) { io.io()->close = nullptr; }, 1, 1, 0},
      {"no document to read", [](moxhost::MemoryIo& io) { io.bytes() = Bytes(1536, 0x11); }, 0, 1, 1},
  };
  for (const auto& c : cases) {
    moxhost::PoolServices host;
    moxhost::MemoryIo io;
    c.spoil(io);
    EXPECT_EQ(hOLEopenEx(io.io(), host.services(), c.mode), nullptr) << c.what;
    EXPECT_EQ(io.openCalls(), c.opens) << c.what;
    EXPECT_EQ(io.closeCalls(), c.closes) << c.what;
    EXPECT_EQ(io.writeCalls(), 0) << c.what;
    EXPECT_EQ(moxtest::leakReport(host), "") << c.what;
  }
}

TEST(WriterCalls, ParentsMustExistBeforeTheirChildren) {
  NewFile file;
  EXPECT_EQ(file.stream("Dir\\Data"), 6);
  EXPECT_EQ(file.storage("Dir"), 0);
  EXPECT_EQ(file.stream("Dir\\Data", {1, 2, 3}), 0);
  EXPECT_EQ(file.stream("\\Dir\\Other", {4}), 0) << "one leading backslash is allowed";
  EXPECT_EQ(file.stream("Missing\\Deeper\\X"), 6);
  const cfb::ParsedFile p = parsed(file.close());
  ASSERT_EQ(cfb::treeProblems(p), "");
  auto items = cfb::contents(p);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items["Dir"].type, 1);
  EXPECT_EQ(items["Dir\\Data"].data, (Bytes{1, 2, 3}));
  EXPECT_EQ(items["Dir\\Other"].data, (Bytes{4}));
}

// A write of 1500 bytes into a stream holding 100 needs three blocks, two
// allocations each.  Failing each in turn, the stream keeps exactly the
// bytes its blocks hold (412 fill the first block, 512 more for each block
// gained), a later write goes on from there, and the last mini sector is
// padded with zeros.
TEST(WriterCalls, AFailedBlockAllocationKeepsWhatWasStored) {
  const Bytes head = pattern(100, 5), body = pattern(1500, 6), tail = pattern(30, 7);
  for (int attempt = 1; attempt <= 7; ++attempt) {
    SCOPED_TRACE(attempt);
    NewFile file;
    ASSERT_EQ(file.stream("S", head), 0);
    file.host().faults().failAt(attempt);
    const int status = iOLEwrite(file.h(), const_cast<unsigned char*>(body.data()), 1500);
    file.host().faults().disarm();
    EXPECT_EQ(status, attempt == 7 ? 0 : 2);
    ASSERT_EQ(iOLEwrite(file.h(), const_cast<unsigned char*>(tail.data()), 30), 0);
    Bytes want = head;
    want.insert(want.end(), body.begin(), body.begin() + (attempt == 7 ? 1500 : 412 + 512 * ((attempt - 1) / 2)));
    want.insert(want.end(), tail.begin(), tail.end());
    const cfb::ParsedFile p = parsed(file.close());
    EXPECT_EQ(p.streams[1], want);
    for (size_t i = want.size(); i < p.miniStream.size(); ++i) ASSERT_EQ(p.miniStream[i], 0) << i;
  }
}

// A reader's handle has no writer document.
TEST(WriterCalls, ReaderHandlesCreateAndWriteNothing) {
  NewFile file;
  ASSERT_EQ(file.stream("A", {1, 2}), 0);
  unsigned char byte = 1;
  moxhost::CountingMemory memory;
  moxhost::MemoryIo io(file.close());
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 2, 1), 6);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 2, 0), 6);
  EXPECT_EQ(iOLEwrite(h, &byte, 1), 34);
  iOLEclose(h);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

// --- Open mode ---------------------------------------------------------------

TEST(WriterOpenForReading, OpensStreamsByPathAndWritesNothing) {
  const Bytes data = pattern(5000, 1), small = pattern(300, 2), top = pattern(10, 3), none;
  const Bytes source = writekit::write(
      {{"Dir", 1, {}}, {"Dir\\Data", 2, data}, {"Dir\\Small", 2, small}, {"Top", 2, top}, {"Empty", 2, {}}});
  moxhost::PoolServices host;
  moxhost::MemoryIo io(source);
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 0);
  ASSERT_NE(h, nullptr);
  const struct {
    const char* path;
    int type, create, status;
    const Bytes* data;  // read from the stream opened
  } opens[] = {
      {"Dir\\Data", 0, 0, 0, &data},     {"\\dir\\small", 7, 0, 0, &small},  // case and type do not matter
      {"Top", 0, 0, 0, &top},            {"Empty", 0, 0, 0, &none},
      {"Dir", 0, 0, -1, nullptr},        // a storage is no stream
      {"Dir\\Missing", 0, 0, 6, nullptr}, {"Root Entry\\Top", 0, 0, 6, nullptr},
      {"New", 2, 1, 6, nullptr},         {"Dir\\New", 1, 1, 6, nullptr},  // nothing is created
  };
  for (const auto& o : opens) {
    EXPECT_EQ(iOLEopenStreamEx(h, o.path, o.type, o.create), o.status) << o.path;
    if (o.data == nullptr) continue;
    EXPECT_EQ(lOLEtell(h), 0) << o.path;
    EXPECT_EQ(streamkit::readToEnd(h, 777), *o.data) << o.path;
  }
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(h, &byte, 1), 34);
  EXPECT_EQ(iOLEopenStreamEx(h, "Top", 0, 0), 0);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 0);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.writeCalls(), 0);
  EXPECT_EQ(io.bytes(), source);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

// Two storages whose names differ only in case (this writer never makes
// them): one is kept, the other is dropped with what it holds.
TEST(WriterOpenForReading, OfTwoNamesDifferingInCaseOneIsDroppedWithItsChildren) {
  cfb::CfbBuilder b;
  b.addStream(b.addStorage(0, "Dir"), "Data", pattern(300, 1));
  b.addStream(b.addStorage(0, "DIR"), "Lost", pattern(20, 2));
  b.addStream(0, "Top", pattern(10, 3));
  moxhost::PoolServices host;
  moxhost::MemoryIo io(b.build());
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 0);
  ASSERT_NE(h, nullptr);
  const int data = iOLEopenStreamEx(h, "dir\\DATA", 0, 0);
  if (data == 0) { EXPECT_EQ(streamkit::readToEnd(h), pattern(300, 1)); }
  const int lost = iOLEopenStreamEx(h, "DIR\\lost", 0, 0);
  if (lost == 0) { EXPECT_EQ(streamkit::readToEnd(h), pattern(20, 2)); }
  EXPECT_TRUE((data == 0 && lost == 6) || (data == 6 && lost == 0)) << data << " " << lost;
  EXPECT_EQ(iOLEopenStreamEx(h, "Top", 0, 0), 0);
  EXPECT_EQ(streamkit::readToEnd(h), pattern(10, 3));
  bOLEcloseStream(h, nullptr);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

// === Files byte for byte =====================================================

// Where two files first differ, or "" when they are equal.
std::string difference(const Bytes& got, const Bytes& want) {
  if (got.size() != want.size()) return "size " + std::to_string(got.size()) + ", expected " + std::to_string(want.size());
  const size_t i = std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin();
  if (i == got.size()) return "";
  const size_t from = i & ~size_t{15};
  return "offset " + std::to_string(i) + ": got " + cfb::hex(got, from, 32) + "\nexpected " + cfb::hex(want, from, 32);
}

cfb::DirEntry entry(const std::string& name, uint8_t type, uint8_t colour, uint32_t start, uint32_t size) {
  cfb::DirEntry e;
  e.name = cfb::units(name);
  e.type = type;
  e.colour = colour;
  e.start = start;
  e.sizeLow = size;
  return e;
}

// A stream of `size` bytes at or below the cutoff: 4096 bytes are a regular
// stream of eight sectors, 4095 bytes a mini stream of 64 mini sectors
// whose last one is padded with one zero.
void cutoffLayout(cfb::CfbLayout& want, const Bytes& data) {
  const bool regular = data.size() == 4096;
  const uint32_t dirSector = regular ? 1 : 2, first = dirSector + 1;
  want.header.dirStart = dirSector;
  want.dirSectors = {dirSector};
  want.fat = {cfb::kFatSect};
  if (!regular) {
    want.fat.push_back(cfb::kEnd);  // the mini FAT
    want.header.miniFatStart = want.header.miniFatSectors = 1;
    want.miniFatSectors = {1};
    for (uint32_t i = 0; i < 64; ++i) want.miniFat.push_back(i < 63 ? i + 1 : cfb::kEnd);
  }
  want.fat.push_back(cfb::kEnd);  // the directory
  for (uint32_t i = 0; i < 8; ++i) want.fat.push_back(i < 7 ? first + i + 1 : cfb::kEnd);
  want.dir = {entry("Root Entry", 5, 1, regular ? cfb::kEnd : first, regular ? 0 : 4096),
              entry("S", 2, 1, regular ? first : 0, static_cast<uint32_t>(data.size()))};
  want.dir[0].child = 1;
  for (uint32_t i = 0; i < 8; ++i) {
    const size_t n = std::min<size_t>(512, data.size() - 512 * i);
    std::copy_n(data.begin() + 512 * i, n, want.sector(first + i).begin());
  }
}

// The root and empty streams in one directory sector, or two for more than
// three streams; an only stream is the root's child.
void emptyStreams(cfb::CfbLayout& want, const std::vector<std::string>& stored) {
  const bool two = stored.size() > 3;
  want.header.dirStart = 1;
  want.dirSectors = two ? std::vector<uint32_t>{1, 2} : std::vector<uint32_t>{1};
  want.fat = two ? std::vector<uint32_t>{cfb::kFatSect, 2, cfb::kEnd} : std::vector<uint32_t>{cfb::kFatSect, cfb::kEnd};
  want.dir = {entry("Root Entry", 5, 1, cfb::kEnd, 0)};
  for (const std::string& name : stored) want.dir.push_back(entry(name, 2, 1, cfb::kEnd, 0));
  if (stored.size() == 1) want.dir[0].child = 1;
}

TEST(WriterOutput, SmallDocumentsByteForByte) {
  const Bytes hundred = pattern(100, 1), full = pattern(4096, 7), under = pattern(4095, 7);
  const std::string name31 = "abcdefghijklmnopqrstuvwxyz01234";
  const struct {
    const char* what;
    Shape shape;
    std::function<void(cfb::CfbLayout&)> want;
  } cases[] = {
      {"root only", {}, [](cfb::CfbLayout& want) { emptyStreams(want, {}); }},
      {"100-byte stream", {{"A", 2, hundred}}, [&hundred](cfb::CfbLayout& want) {
         want.fat = {cfb::kFatSect, cfb::kEnd, cfb::kEnd, cfb::kEnd};
         want.header.miniFatStart = want.header.miniFatSectors = 1;
         want.miniFatSectors = {1};
         want.miniFat = {1, cfb::kEnd};
         want.header.dirStart = 2;
         want.dirSectors = {2};
         want.dir = {entry("Root Entry", 5, 1, 3, 128), entry("A", 2, 1, 0, 100)};
         want.dir[0].child = 1;
         want.sector(3).assign(hundred.begin(), hundred.end());
       }},
      {"4096 bytes", {{"S", 2, full}}, [&full](cfb::CfbLayout& want) { cutoffLayout(want, full); }},
      {"4095 bytes", {{"S", 2, under}}, [&under](cfb::CfbLayout& want) { cutoffLayout(want, under); }},
      // 1536 bytes; a name cut to 31 characters on disk.
      {"never written", {{"quiet", 2, {}}}, [](cfb::CfbLayout& want) { emptyStreams(want, {"quiet"}); }},
      {"31 characters", {{name31, 2, {}}}, [&](cfb::CfbLayout& want) { emptyStreams(want, {name31}); }},
      {"36 characters", {{name31 + "56789", 2, {}}}, [&](cfb::CfbLayout& want) { emptyStreams(want, {name31}); }},
      // Five entries and the root need two directory sectors; the last two
      // slots are all zeros, links included.  Inserted in ascending order,
      // the names end up as b at the top, a to its left, d to its right with
      // c and e below it; each entry carries the colour its node had right
      // after its own insertion (only "a" was black then), not the final
      // colours.
      {"five entries", {{"a", 2, {}}, {"b", 2, {}}, {"c", 2, {}}, {"d", 2, {}}, {"e", 2, {}}},
       [](cfb::CfbLayout& want) {
         emptyStreams(want, {"a", "b", "c", "d", "e"});
         for (int i = 2; i <= 5; ++i) want.dir[i].colour = 0;
         want.dir[0].child = 2;
         want.dir[2].left = 1;
         want.dir[2].right = 4;
         want.dir[4].left = 3;
         want.dir[4].right = 5;
       }},
  };
  for (const auto& c : cases) {
    // This writer's constant header values and one FAT sector at sector 0.
    cfb::CfbLayout want;
    want.header.minor = 0x21;
    want.header.fatSectors = 1;
    want.fatSectors = {0};
    c.want(want);
    EXPECT_EQ(difference(writekit::write(c.shape), want.serialize()), "") << c.what;
  }
}

// The regions in file order (FAT, mini FAT, directory, regular streams,
// the mini stream), the streams in creation order within them, and every
// fill value: the host's pools hand out scribbled memory, so any byte the
// writer forgets to set shows up as 0xA5 instead of the fill.
TEST(WriterOutput, RegionsInFileOrderStreamsInCreationOrderAndEveryFillValue) {
  const Bytes s1 = pattern(65, 1), b1 = pattern(5000, 2), s2 = pattern(64, 3), b2 = pattern(4097, 4);
  NewFile file;
  ASSERT_EQ(file.stream("s1", s1), 0);  // 2 mini sectors, 63 bytes of tail
  ASSERT_EQ(file.stream("b1", b1), 0);  // 10 sectors, 120 bytes of tail
  ASSERT_EQ(file.stream("empty"), 0);
  ASSERT_EQ(file.storage("D"), 0);
  ASSERT_EQ(file.stream("D\\s2", s2), 0);  // 1 mini sector
  ASSERT_EQ(file.stream("D\\b2", b2), 0);  // 9 sectors, 511 bytes of tail
  const Bytes& got = file.close();
  const cfb::ParsedFile p = parsed(got);
  // 0 FAT, 1 mini FAT, 2-3 directory, 4-13 b1, 14-22 b2, 23 mini stream.
  ASSERT_EQ(got.size(), 25u * 512);
  EXPECT_EQ(p.fatSectors, std::vector<uint32_t>{0});
  EXPECT_EQ(p.header.miniFatStart, 1u);
  EXPECT_EQ(p.header.dirStart, 2u);
  EXPECT_EQ(p.fat[2], 3u);
  for (uint32_t s = 4; s < 23; ++s) EXPECT_EQ(p.fat[s], s == 13 || s == 22 ? cfb::kEnd : s + 1) << s;
  for (size_t i = 24; i < 128; ++i) ASSERT_EQ(p.fat[i], cfb::kFree) << i;
  for (size_t i = 3; i < 128; ++i) ASSERT_EQ(p.miniFat[i], cfb::kFree) << i;
  // The root: the mini stream's first sector and the size of the mini
  // sectors in use; the storage: start -2, size 0.
  EXPECT_EQ(p.dir[0].start, 23u);
  EXPECT_EQ(p.dir[0].size, 192u);
  const uint32_t starts[] = {0, 4, cfb::kEnd, cfb::kEnd, 2, 14};  // mini sectors for s1, s2
  for (int i = 0; i < 6; ++i) EXPECT_EQ(p.dir[i + 1].start, starts[i]) << i;
  EXPECT_EQ(p.dir[4].size, 0u);
  const Bytes* data[] = {&s1, &b1, nullptr, nullptr, &s2, &b2};
  for (int i = 0; i < 6; ++i) {
    if (data[i]) { EXPECT_EQ(p.streams[i + 1], *data[i]) << i; }
  }
  // Zeros: the last directory slot (links included), the tails of b1's and
  // b2's last sectors, of s1's last mini sector and of the mini stream's
  // sector.
  const size_t zeros[][2] = {{512 * 4 + 384, 512 * 5}, {512 * 5 + 5000, 512 * 15},  {512 * 15 + 4097, 512 * 24},
                             {512 * 24 + 65, 512 * 24 + 128}, {512 * 24 + 192, 512 * 25}};
  for (const auto& z : zeros) {
    for (size_t i = z[0]; i < z[1]; ++i) ASSERT_EQ(got[i], 0) << i;
  }
}

// One stream of (T - 1) sectors and the directory sector: T sectors
// besides the FAT's and the DIFAT's own.
struct Boundary {
  int64_t t;
  uint32_t fat, difat;
};

class WriterDifatBoundary : public ::testing::TestWithParam<Boundary> {};

TEST_P(WriterDifatBoundary, HeaderDifatSectorsAndFatMarksFollowTheClosedForm) {
  const Boundary b = GetParam();
  const Bytes data = pattern(static_cast<size_t>(b.t - 1) * 512, 11);
  NewFile file;
  ASSERT_EQ(file.stream("big", data, 65536), 0);
  const Bytes& got = file.close();
  const uint32_t d = b.difat, f = b.fat;
  ASSERT_EQ(got.size(), (1 + d + f + b.t) * 512u);
  EXPECT_EQ(u32(got, 0x2C), f);
  EXPECT_EQ(u32(got, 0x30), d + f);  // directory right after the FAT
  EXPECT_EQ(u32(got, 0x44), d > 0 ? 0u : cfb::kEnd);
  EXPECT_EQ(u32(got, 0x48), d);
  for (uint32_t i = 0; i < 109; ++i) ASSERT_EQ(u32(got, 0x4C + 4 * i), i < f ? d + i : cfb::kFree) << i;
  // DIFAT sector j at sector j: 127 FAT sector numbers, then the link to
  // sector j + 1; past the last number everything is -2, link slot too.
  uint32_t next = d + 109;
  for (uint32_t j = 0; j < d; ++j) {
    const size_t at = 512 * (1 + j);
    for (uint32_t k = 0; k < 127; ++k) {
      ASSERT_EQ(u32(got, at + 4 * k), next < d + f ? next++ : cfb::kEnd) << "DIFAT " << j << " slot " << k;
    }
    ASSERT_EQ(u32(got, at + 508), j + 1 < d ? j + 1 : cfb::kEnd) << "link of " << j;
  }
  EXPECT_EQ(next, d + f);
  const size_t fatAt = 512 * (1 + d);
  for (uint32_t i = 0; i < d + f; ++i) ASSERT_EQ(u32(got, fatAt + 4 * i), i < d ? cfb::kDifSect : cfb::kFatSect) << i;
  EXPECT_TRUE(parsed(got).streams[1] == data);
}

INSTANTIATE_TEST_SUITE_P(Boundaries, WriterDifatBoundary,
                         ::testing::Values(Boundary{13843, 109, 0}, Boundary{13844, 110, 1},
                                           Boundary{29971, 236, 1}, Boundary{29972, 237, 2}),
                         [](const ::testing::TestParamInfo<Boundary>& info) {
                           return "T" + std::to_string(info.param.t);
                         });

// === Round trips =============================================================

void roundTrip(const Shape& shape, size_t piece = 0) {
  const Bytes file = writekit::write(shape, piece);
  const auto want = writekit::expected(shape);
  const cfb::ParsedFile p = parsed(file);
  ASSERT_EQ(cfb::treeProblems(p), "");
  EXPECT_TRUE(cfb::contents(p) == want) << "the file holds another tree";
  EXPECT_EQ(p.dir.size() % 4, 0u);
  // Entries are numbered in creation order over the whole document.
  ASSERT_GT(p.dir.size(), shape.size());
  for (size_t i = 0; i < shape.size(); ++i) {
    const std::string& path = shape[i].path;
    EXPECT_EQ(p.dir[i + 1].name, cfb::units(path.substr(path.rfind('\\') + 1))) << path;
  }
  writekit::checkWithLibrary(file, want);
}

// Thousands of small streams in ten storages, a storage path sixty deep,
// and three hundred siblings in one storage with names of every length and
// letter case, with underscores (which sort before letters once letters are
// folded to lower case) and bytes past ASCII (which sort after 0x7F, and are
// not folded).  The tree check reads the file's order with the test-side rule.
TEST(WriterRoundTrip, ManyStreamsDeepPathsAndManySiblings) {
  Shape shape;
  for (int s = 0; s < 10; ++s) shape.push_back({"Store" + std::to_string(s), 1, {}});
  for (int i = 0; i < 3000; ++i) {
    shape.push_back({"Store" + std::to_string(i % 10) + "\\item" + std::to_string(i), 2,
                     pattern(static_cast<size_t>((i * 7919) % 700), static_cast<uint32_t>(i))});
  }
  std::string path;
  for (int depth = 0; depth < 60; ++depth) {
    path += (depth ? "\\L" : "L") + std::to_string(depth);
    shape.push_back({path, 1, {}});
    if (depth % 10 == 9) shape.push_back({path + "\\data", 2, pattern(100 * depth, depth)});
  }
  shape.push_back({path + "\\bottom", 2, pattern(5000, 99)});
  shape.push_back({"Many", 1, {}});
  std::set<std::string> taken;
  std::mt19937 random(3);
  const std::string alphabet = "abcXYZ_019\x7f\x80\xc9\xe9";
  for (int siblings = 0; siblings < 300;) {
    std::string name, folded;
    for (size_t i = 0, length = 1 + random() % 12; i < length; ++i) name += alphabet[random() % alphabet.size()];
    for (char c : name) folded += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!taken.insert(folded).second) continue;
    shape.push_back({"Many\\" + name, 2, pattern(random() % 300, random())});
    ++siblings;
  }
  roundTrip(shape);
}

// 81920 sectors: sector numbers past 16 bits, a FAT of 641 sectors and a
// chain of five DIFAT sectors.
TEST(WriterRoundTrip, FortyMegabyteStream) {
  roundTrip({{"Huge", 2, pattern(40u << 20, 42)}, {"Tail", 2, {1, 2, 3}}}, 65536);
}

// === Independent readers =====================================================

// The listing a reader must produce, in the listing script's format.  Where
// the tool cannot tell a storage from a stream, the kind column is "-":
// for every item with olecf, for empty streams and childless storages with
// gsf.
enum class Kinds { kAll, kNotForEmptyItems, kNone };

std::string expectedListing(const Shape& shape, Kinds kinds) {
  std::vector<std::string> lines;
  for (const writekit::Part& p : shape) {
    std::string path = p.path, kind = p.type == 1 ? "d" : "f";
    std::replace(path.begin(), path.end(), '\\', '/');
    const bool empty = p.type == 1 ? std::none_of(shape.begin(), shape.end(), [&](const writekit::Part& q) {
      return q.path.rfind(p.path + "\\", 0) == 0;
    }) : p.data.empty();
    if (kinds == Kinds::kNone || (kinds == Kinds::kNotForEmptyItems && empty)) kind = "-";
    lines.push_back(kind + " " + std::to_string(p.data.size()) + " " + sha256Hex(p.data.data(), p.data.size()) + " " + path);
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

void checkWithOracles(const Shape& shape) {
  const std::string python = moxtest::olefilePython();
  if (python.empty()) GTEST_SKIP() << "no Python with olefile";
  const Bytes file = writekit::write(shape);
  moxtest::ScratchDir scratch;
  const std::string path = scratch.file("written.cfb");
  ASSERT_TRUE(moxtest::spit(path, std::string(file.begin(), file.end())));
  int skipped = 0;
  const struct {
    const char* tool;
    Kinds kinds;
  } readers[] = {{"olefile", Kinds::kAll}, {"gsf", Kinds::kNotForEmptyItems}, {"olecf", Kinds::kNone}};
  for (const auto& reader : readers) {
    SCOPED_TRACE(reader.tool);
    // The script's exit status 2: the tool is missing.
    const moxtest::ProgramResult run = moxtest::runProgram(
        {python, MOX_SOURCE_DIR "/tests/oracles/listing.py", reader.tool, path, scratch.path()});
    if (run.status == 2) {
      ++skipped;
      continue;
    }
    ASSERT_EQ(run.status, 0) << "the reader refused the file";
    EXPECT_EQ(run.out, expectedListing(shape, reader.kinds));
  }
  if (skipped > 0) GTEST_SKIP() << skipped << " of the readers are not installed";
}

// A mixed document with storages and every kind of stream; a hundred
// siblings in one storage (gsf extracts each stream with a process of its
// own, so a hundred will do); and a file large enough for DIFAT sectors:
// one directory sector and 13843 stream sectors make T = 13844, one DIFAT
// sector and 110 FAT sectors, and a second stream and a few mini streams
// make it a little larger still.
TEST(WriterOracles, ReadersListWhatWasWritten) {
  Shape many = {{"Many", 1, {}}};
  for (int i = 0; i < 100; ++i) {
    many.push_back({"Many\\n" + std::to_string(i * 37 % 1000), 2, pattern(static_cast<size_t>(i * 13 % 600), i)});
  }
  const Shape large = {{"Large", 2, pattern(13843u * 512 + 100000, 7)}, {"Second", 2, pattern(300000, 8)},
                       {"a", 2, pattern(10, 9)}, {"b", 2, pattern(3000, 10)}};
  ASSERT_GT(u32(writekit::write(large), 0x48), 0u) << "the file should need DIFAT sectors";
  const Shape shapes[] = {
      {{"Doc", 1, {}}, {"Doc\\Body", 2, pattern(9000, 1)}, {"Doc\\Notes", 2, pattern(100, 2)}, {"Doc\\Inner", 1, {}},
       {"Doc\\Inner\\Deep", 2, pattern(4096, 3)}, {"Doc\\Inner\\Mini", 2, pattern(4095, 4)},
       {"Doc\\EmptyStorage", 1, {}}, {"Thumbnail", 2, pattern(64, 5)}, {"Zero", 2, {}},
       {"Name_with_thirty_one_characters", 2, pattern(1, 6)}},
      many, large};
  for (const Shape& shape : shapes) checkWithOracles(shape);
}

}  // namespace
