// The writer as a host uses it: opening and refusing host objects, a
// failed allocation in the middle of a write, documents opened for reading
// by path; the files it makes, byte for byte against a model of its layout
// (fill values, names at the field's limit, directory colours, the FAT and
// DIFAT boundaries); documents of many shapes read back by the strict
// test-side reader and by the library's own; and its files read by
// independent readers used as black boxes.  Calls on random documents are
// the writer fuzz target's; failures of the host's output and of memory
// are swept in test_fault_sweeps.
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
#include "support/program_run.h"
#include "support/sha256.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"
#include "support/write_kit.h"
#include "writer/writer.h"

namespace {

using cfb::Bytes;
using streamkit::pattern;
using writekit::NewFile;
using writekit::Shape;

// The file as the strict test-side reader parses it; a file it refuses
// ends the test.
cfb::ParsedFile parsed(const Bytes& file) {
  cfb::ParsedFile p;
  std::string error;
  if (!cfb::parse(file, &p, &error)) throw std::runtime_error("unreadable file: " + error);
  return p;
}

// === Calls ===================================================================

// An object that cannot serve (it has no open or close function) gives no
// handle: it is closed once if it can be, never written, and nothing stays
// allocated.  One whose open fails, and one that cannot be written, are
// among the writer fuzz target's kept inputs; one that holds no document,
// opened for reading, among the read fuzz target's.
TEST(WriterOpen, HostObjectThatCannotServeIsRefusedAndClosedOnce) {
  const struct {
    const char* what;
    void (*spoil)(moxhost::MemoryIo&);
    int mode, opens, closes;
  } cases[] = {
      {"no open", [](moxhost::MemoryIo& io) { io.io()->open = nullptr; }, 1, 0, 1},
      {"no close", [](moxhost::MemoryIo& io) { io.io()->close = nullptr; }, 1, 1, 0},
  };
  for (const auto& c : cases) {
    moxhost::PoolServices host;
    moxhost::MemoryIo io;
    c.spoil(io);
    EXPECT_EQ(hOLEopenEx(io.io(), host.services(), c.mode), nullptr) << c.what;
    EXPECT_EQ(io.openCalls(), c.opens) << c.what;
    EXPECT_EQ(io.closeCalls(), c.closes) << c.what;
    EXPECT_EQ(io.writeCalls(), 0) << c.what;
    EXPECT_EQ(writekit::leakReport(host), "") << c.what;
  }
}

// A write of 1500 bytes into a stream holding 100 needs three blocks, two
// allocations each.  Failing each in turn, the stream keeps exactly the
// bytes its blocks hold (412 fill the first block, 512 more for each block
// gained), a later write goes on from there, and the last mini sector is
// padded with zeros.  Nothing reaches the host before the close.
TEST(WriterCalls, AFailedBlockAllocationKeepsWhatWasStored) {
  const Bytes head = pattern(100, 5), body = pattern(1500, 6), tail = pattern(30, 7);
  for (int attempt = 1; attempt <= 7; ++attempt) {
    SCOPED_TRACE(attempt);
    NewFile file;
    ASSERT_EQ(file.stream("S", head), 0);
    file.host().faults().failAt(attempt);
    const int status = iOLEwrite(file.handle(), const_cast<unsigned char*>(body.data()), 1500);
    file.host().faults().disarm();
    EXPECT_EQ(status, attempt == 7 ? 0 : 2);
    ASSERT_EQ(iOLEwrite(file.handle(), const_cast<unsigned char*>(tail.data()), 30), 0);
    EXPECT_EQ(file.io().writeCalls(), 0);
    Bytes want = head;
    want.insert(want.end(), body.begin(), body.begin() + (attempt == 7 ? 1500 : 412 + 512 * ((attempt - 1) / 2)));
    want.insert(want.end(), tail.begin(), tail.end());
    const cfb::ParsedFile p = parsed(file.close());
    EXPECT_EQ(p.streams[1], want);
    for (size_t i = want.size(); i < p.miniStream.size(); ++i) ASSERT_EQ(p.miniStream[i], 0) << i;
  }
}

// --- Open mode ---------------------------------------------------------------

// Paths are found whatever their letter case and the type asked, from the
// root's children down, and read from their first byte.  Of two storages
// whose names differ only in case (this writer never makes them) one is
// kept, the other is dropped with what it holds.
TEST(WriterOpenForReading, OpensStreamsByPathWhateverTheirCase) {
  cfb::CfbBuilder b;
  b.addStream(b.addStorage(0, "Dir"), "Data", pattern(300, 1));
  b.addStream(b.addStorage(0, "DIR"), "Lost", pattern(20, 2));
  b.addStream(0, "Top", pattern(10, 3));
  moxhost::PoolServices host;
  moxhost::MemoryIo io(b.build());
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(iOLEopenStreamEx(h, "\\tOP", 7, 0), 0);
  EXPECT_EQ(iOLEopenStreamEx(h, "Root Entry\\Top", 0, 0), 6);
  EXPECT_EQ(iOLEopenStreamEx(h, "Dir\\Missing", 0, 0), 6);
  const int data = iOLEopenStreamEx(h, "dir\\DATA", 0, 0);
  if (data == 0) { EXPECT_EQ(streamkit::readToEnd(h), pattern(300, 1)); }
  const int lost = iOLEopenStreamEx(h, "DIR\\lost", 0, 0);
  if (lost == 0) { EXPECT_EQ(streamkit::readToEnd(h), pattern(20, 2)); }
  EXPECT_TRUE((data == 0 && lost == 6) || (data == 6 && lost == 0)) << data << " " << lost;
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(writekit::leakReport(host), "");
}

// === Files byte for byte =====================================================

cfb::DirEntry entry(const std::string& name, uint8_t type, uint32_t size) {
  cfb::DirEntry e;
  e.name = cfb::units(name);
  e.type = type;
  e.sizeLow = size;
  return e;
}

using Links = std::function<void(std::vector<cfb::DirEntry>&)>;

// The file this writer makes of a shape, given its sibling trees: the
// DIFAT sectors first, then the FAT, the mini FAT, the directory, the
// regular streams in creation order and the mini stream; entries in
// creation order after the root, names cut to 31 characters; unused DIFAT
// slots, links included, are -2; every byte not otherwise set is zero.
Bytes fileOf(const Shape& shape, const Links& links) {
  cfb::CfbLayout want;
  want.header.minor = 0x21;
  want.dir = {entry("Root Entry", 5, 0)};
  Bytes mini;
  uint64_t t = 0;  // sectors besides the FAT's and DIFAT's own
  for (const writekit::Part& p : shape) {
    const size_t n = p.data.size(), name = p.path.rfind('\\') + 1;
    want.dir.push_back(entry(p.path.substr(name, 31), p.type, static_cast<uint32_t>(n)));
    if (n >= 4096) t += (n + 511) / 512;
    if (n == 0 || n >= 4096) continue;
    const uint32_t first = static_cast<uint32_t>(mini.size() / 64), end = first + static_cast<uint32_t>((n + 63) / 64);
    want.dir.back().start = first;
    for (uint32_t k = first; k < end; ++k) want.miniFat.push_back(k + 1 < end ? k + 1 : cfb::kEnd);
    mini.insert(mini.end(), p.data.begin(), p.data.end());
    mini.resize(end * 64u, 0);
  }
  links(want.dir);
  const uint32_t miniFatN = static_cast<uint32_t>((want.miniFat.size() + 127) / 128);
  const uint32_t dirN = static_cast<uint32_t>((want.dir.size() + 3) / 4);
  t += miniFatN + dirN + (mini.size() + 511) / 512;
  uint32_t f = 1, d = 0;
  while (128u * f < t + f + d) d = ++f > 109 ? (f - 109 + 126) / 127 : 0;
  uint32_t next = 0;
  const auto chain = [&](uint64_t count, uint32_t mark, std::vector<uint32_t>* list) {
    const uint32_t first = count > 0 ? next : cfb::kEnd;
    for (uint64_t k = 0; k < count; ++k, ++next) {
      want.fat.push_back(mark ? mark : k + 1 < count ? next + 1 : cfb::kEnd);
      if (list) list->push_back(next);
    }
    return first;
  };
  const auto place = [&](cfb::DirEntry& e, const Bytes& data) {
    e.start = chain((data.size() + 511) / 512, 0, nullptr);
    for (size_t at = 0; at < data.size(); at += 512) {
      std::copy_n(data.begin() + at, std::min<size_t>(512, data.size() - at), want.sector(e.start + at / 512).begin());
    }
  };
  chain(d, cfb::kDifSect, nullptr);
  want.header.fatSectors = f;
  chain(f, cfb::kFatSect, &want.fatSectors);
  want.header.miniFatSectors = miniFatN;
  want.header.miniFatStart = chain(miniFatN, 0, &want.miniFatSectors);
  want.header.dirStart = chain(dirN, 0, &want.dirSectors);
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i].data.size() >= 4096) place(want.dir[i + 1], shape[i].data);
  }
  if (!mini.empty()) place(want.dir[0], mini);
  want.dir[0].sizeLow = static_cast<uint32_t>(mini.size());
  want.deriveDifat = false;
  want.header.difatSectors = d;
  want.header.difatStart = d > 0 ? 0 : cfb::kEnd;
  for (uint32_t i = 0; i < 109; ++i) want.header.difat[i] = i < f ? d + i : cfb::kFree;
  for (uint32_t j = 0; j < d; ++j) {
    for (uint32_t k = 0, i = 109 + 127 * j; k < 128; ++k, ++i) {
      const uint32_t v = k == 127 ? (j + 1 < d ? j + 1 : cfb::kEnd) : i < f ? d + i : cfb::kEnd;
      for (int b = 0; b < 4; ++b) want.sector(j)[4 * k + b] = static_cast<uint8_t>(v >> (8 * b));
    }
  }
  return want.serialize();
}

// One stream of (T - 1) sectors and the directory sector: T sectors
// besides the FAT's and the DIFAT's own, on either side of the points
// where the header's FAT slots run out and where one DIFAT sector does.
Shape bigStream(size_t t) { return {{"big", 2, pattern((t - 1) * 512, 11)}}; }

// Byte for byte, with the host's pools handing out scribbled memory, so
// that any byte the writer forgets to set shows up as 0xA5.
TEST(WriterOutput, DocumentsByteForByte) {
  const std::string name31 = "abcdefghijklmnopqrstuvwxyz01234";
  const Links only = [](std::vector<cfb::DirEntry>& d) { d[0].child = 1; };
  const struct {
    const char* what;
    Shape shape;
    Links links;
  } cases[] = {
      {"root only", {}, [](std::vector<cfb::DirEntry>&) {}},
      // Inserted in ascending order, the names end up as b at the top, a
      // to its left, d to its right with c and e below it; each entry
      // carries the colour its node had right after its own insertion
      // (only "a" was black then), not the final colours.
      {"five entries", {{"a", 2, {}}, {"b", 2, {}}, {"c", 2, {}}, {"d", 2, {}}, {"e", 2, {}}},
       [](std::vector<cfb::DirEntry>& d) {
         for (int i = 2; i <= 5; ++i) d[i].colour = 0;
         d[0].child = 2;
         d[2].left = 1;
         d[2].right = 4;
         d[4].left = 3;
         d[4].right = 5;
       }},
      // Regular streams and mini streams interleaved, in two storages,
      // with and without tails in their last sectors and mini sectors, on
      // both sides of the 4096-byte cut; the empty stream's name is as long
      // as the field holds.
      {"regions", {{"s1", 2, pattern(4095, 1)}, {"b1", 2, pattern(4097, 2)}, {name31, 2, {}}, {"D", 1, {}},
                   {"D\\s2", 2, pattern(64, 3)}, {"D\\b2", 2, pattern(4096, 4)}},
       [](std::vector<cfb::DirEntry>& d) {
         for (int i : {2, 3, 4, 6}) d[i].colour = 0;
         d[0].child = 1;
         d[1].left = 2;
         d[1].right = 3;
         d[2].left = 4;
         d[4].child = 5;
         d[5].left = 6;
       }},
      {"T13843, 109 FAT sectors", bigStream(13843), only},
      {"T13844, 110 FAT sectors, a DIFAT sector", bigStream(13844), only},
      {"T29971, 236 FAT sectors", bigStream(29971), only},
      {"T29972, 237 FAT sectors, two DIFAT sectors", bigStream(29972), only},
  };
  for (const auto& c : cases) {
    const Bytes got = writekit::write(c.shape, 65536), want = fileOf(c.shape, c.links);
    const size_t at = std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first - got.begin();
    EXPECT_EQ(at, std::max(got.size(), want.size())) << c.what << ", sizes " << got.size() << " and " << want.size()
        << "\ngot      " << cfb::hex(got, at & ~size_t{15}, 32) << "\nexpected " << cfb::hex(want, at & ~size_t{15}, 32);
  }
}

// === Round trips =============================================================

void roundTrip(const Shape& shape, size_t piece = 0) {
  const Bytes file = writekit::write(shape, piece);
  const auto want = writekit::expected(shape);
  const cfb::ParsedFile p = parsed(file);
  ASSERT_EQ(cfb::treeProblems(p), "");
  EXPECT_TRUE(cfb::contents(p) == want) << "the file holds another tree";
  writekit::checkWithLibrary(file, want);
}

// A storage path sixty deep, and three hundred siblings in one storage with names of every length and
// letter case, with underscores (which sort before letters once letters are
// folded to lower case) and bytes past ASCII (which sort after 0x7F, and are
// not folded).  The tree check reads the file's order with the test-side rule.
TEST(WriterRoundTrip, DeepPathsAndManySiblings) {
  Shape shape;
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
  ASSERT_TRUE(moxtest::writeFile(path, std::string(file.begin(), file.end())));
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

// A mixed document with storages and every kind of stream (the sibling
// trees of many entries are the round trips' strict check); and a file
// large enough for DIFAT sectors:
// one directory sector and 13843 stream sectors make T = 13844, one DIFAT
// sector and 110 FAT sectors, and a second stream and a few mini streams
// make it a little larger still.
TEST(WriterOracles, ReadersListWhatWasWritten) {
  const Shape large = {{"Large", 2, pattern(13843u * 512 + 100000, 7)}, {"Second", 2, pattern(300000, 8)},
                       {"a", 2, pattern(10, 9)}, {"b", 2, pattern(3000, 10)}};
  ASSERT_GT(writekit::u32(writekit::write(large), 0x48), 0u) << "the file should need DIFAT sectors";
  const Shape shapes[] = {
      {{"Doc", 1, {}}, {"Doc\\Body", 2, pattern(9000, 1)}, {"Doc\\Notes", 2, pattern(100, 2)}, {"Doc\\Inner", 1, {}},
       {"Doc\\Inner\\Deep", 2, pattern(4096, 3)}, {"Doc\\Inner\\Mini", 2, pattern(4095, 4)},
       {"Doc\\EmptyStorage", 1, {}}, {"Thumbnail", 2, pattern(64, 5)}, {"Zero", 2, {}},
       {"Name_with_thirty_one_characters", 2, pattern(1, 6)}},
      large};
  for (const Shape& shape : shapes) checkWithOracles(shape);
}

}  // namespace
