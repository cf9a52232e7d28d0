// The native interface on files made by the test-side builder: how paths
// find names, what an Entry reports, how Streams and istream read, which
// errors come out, and several threads reading one file.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_builder.h"
#include "support/native_kit.h"

namespace {

using cfb::Bytes;
using moxtest::errorOf;
using moxtest::namesOf;
using moxtest::pattern;

mox::CompoundFile openBytes(const Bytes& bytes, mox::OpenOptions options = {}) {
  return mox::CompoundFile::open_memory(bytes.data(), bytes.size(), options);
}

// --- Paths and names -----------------------------------------------------

// Stored names and their UTF-8 (three bytes, surrogate pairs at both ends
// of their range, an unpaired one as U+FFFD, an empty name as an empty step
// of the path), found by exact then case-insensitive match, folding unit
// by unit; children in the format's order whatever order the file stored.
TEST(NativePaths, FindEveryNameByExactThenCaseInsensitiveMatchAndListInTheFormatOrder) {
  const std::pair<std::u16string, std::string> spelled[] = {
      {u"\u20AC", "\xE2\x82\xAC"}, {u"\U00010000", "\xF0\x90\x80\x80"}, {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
      {std::u16string(u"a") + char16_t(0xD800) + u"b", "a\xEF\xBF\xBD" "b"}};
  cfb::CfbBuilder b;
  b.addStream(0, "Abc", pattern(10, 1));
  b.addStream(0, "ABC", pattern(11, 2));
  b.addStream(0, "Only", pattern(12, 3));
  b.addEntry(0, u"\u0416ar", 2, pattern(13, 4));  // Cyrillic capital Zhe
  b.addEntry(0, u"\u0391\u03A3", 2, {});          // Greek capitals
  b.addEntry(0, u"\u01CB", 2, {});
  for (const auto& [stored, utf8] : spelled) b.addEntry(0, stored, 2, {});
  const int storage = b.addStorage(0, "Folder");
  b.addStream(storage, "Inner", pattern(14, 5));
  // Stored by lower-case folding: "b_" before "ba".
  for (const char* n : {"b_", "BA", "z", "Bb", "a1", "B"}) b.addStream(storage, n, pattern(3, 9));
  const int empty = b.addEntry(0, u"", 1, {});
  b.addStream(empty, "x", pattern(5, 1));
  b.addEntry(empty, u"", 2, pattern(6, 2));
  const Bytes file = b.build();
  mox::CompoundFile doc = openBytes(file);

  EXPECT_EQ(doc.entry("Abc")->size, 10u);
  EXPECT_EQ(doc.entry("ABC")->size, 11u);
  EXPECT_FALSE(doc.exists("abc")) << "two names fit: no guess";
  EXPECT_EQ(doc.entry("ONLY")->size, 12u);
  EXPECT_EQ(doc.entry("\xD0\xB6" "AR")->size, 13u) << "the format's upper-casing of U+0436";
  EXPECT_EQ(doc.entry("/folder/INNER")->path, "Folder/Inner");
  EXPECT_TRUE(doc.exists("\xCE\xB1\xCF\x83")) << "Greek small letters";
  EXPECT_FALSE(doc.exists("\xC7\x8C")) << "U+01CC folds to no U+01CB";
  for (const auto& [stored, utf8] : spelled) EXPECT_EQ(doc.entry(utf8).value_or(mox::Entry{}).name, utf8);
  EXPECT_EQ(namesOf(doc.children("Folder")), (std::vector<std::string>{"B", "z", "a1", "BA", "Bb", "b_", "Inner"}));
  std::vector<std::string> paths;
  for (const mox::Entry& e : doc.walk()) {
    paths.push_back(e.path);
    EXPECT_EQ(doc.entry(e.path).value_or(mox::Entry{}).id, e.id) << e.path << " is found by its path";
  }
  for (const char* path : {"/", "//", "//x"}) EXPECT_EQ(std::count(paths.begin(), paths.end(), path), 1) << path;
}

// --- Entries -------------------------------------------------------------

// Fields as stored, read back, set where the format allows them and kept
// through the editor's rewrite of the file in memory, which keeps the
// version: also for a version 4 file of 1024-byte sectors, written with
// its version's own.
TEST(NativeEntries, StoredFieldsAreReadSetAndKept) {
  for (unsigned shift : {9u, 12u, 10u}) {
    SCOPED_TRACE(shift);
    const int version = shift == 9 ? 3 : 4;
    cfb::CfbBuilder b(shift);
    const int s = b.addStorage(0, "S");
    const int t = b.addStream(0, "T", pattern(100, 1));
    b.addStream(0, "kept", pattern(5000, 2));
    const std::array<uint8_t, 16> clsid = {1, 0, 0, 2, 0xFF, 0, 3, 4, 5, 6, 7, 8, 9, 0, 0, 10};
    std::copy(clsid.begin(), clsid.end(), b.entry(s).clsid);
    b.entry(s).state = 0x12345678;
    const uint8_t stamp[8] = {0x00, 0x80, 0x3E, 0xD5, 0xDE, 0xB1, 0x9D, 0x01};  // 1970-01-01
    std::copy(stamp, stamp + 8, b.entry(s).modified);
    cfb::CfbLayout l = b.layout();
    l.dir[t].sizeHigh = 1;  // only 4096-byte-sector files read the high half
    l.header.major[0] = static_cast<uint8_t>(version);
    const Bytes file = l.serialize();
    mox::CompoundFile doc = mox::CompoundFile::open_memory_rw(file.data(), file.size());
    EXPECT_EQ(doc.version(), version);  // as the editor will write it
    const mox::Entry e = *doc.entry("S");
    EXPECT_EQ(e.clsid, clsid);
    EXPECT_EQ(e.state_bits, 0x12345678u);
    EXPECT_EQ(e.created, 0u);
    EXPECT_EQ(mox::to_time_point(e.modified), std::chrono::system_clock::time_point{});
    EXPECT_EQ(mox::to_filetime(mox::to_time_point(e.modified)), e.modified);
    EXPECT_EQ(doc.entry("T")->size, shift == 12 ? (uint64_t{1} << 32) + 100 : 100u);

    doc.remove("T");  // its claimed size is not there to be copied
    doc.set_clsid("", clsid);
    doc.set_modified("", 0x01D0000000000003ull);
    doc.set_state_bits("S", 0xA5A5);
    doc.set_created("S", 0x01D0000000000001ull);
    doc.create_stream("U");
    EXPECT_EQ(errorOf([&] { doc.set_created("", 1); }), mox::Errc::invalid_argument);
    EXPECT_EQ(errorOf([&] { doc.set_clsid("U", clsid); }), mox::Errc::invalid_argument);
    EXPECT_EQ(errorOf([&] { doc.set_modified("U", 1); }), mox::Errc::invalid_argument);
    const Bytes after = doc.bytes();
    const mox::CompoundFile g = openBytes(after);
    EXPECT_EQ(g.version(), version);
    EXPECT_EQ(g.sector_size(), version == 3 ? 512u : 4096u);
    EXPECT_EQ(g.open_stream("kept").read_all(), pattern(5000, 2));
    EXPECT_EQ(g.root().clsid, clsid);
    EXPECT_EQ(g.root().modified, 0x01D0000000000003ull);
    const mox::Entry kept = *g.entry("S");
    EXPECT_EQ(kept.clsid, clsid);
    EXPECT_EQ(kept.state_bits, 0xA5A5u);
    EXPECT_EQ(kept.created, 0x01D0000000000001ull);
    EXPECT_EQ(kept.modified, e.modified);
  }
}

// --- Streams -------------------------------------------------------------

// Pieces read at any position of a stream, across the runs of its chain,
// are left to the corpus walk (pread in uneven pieces) and the native fuzz
// target (pieces at several positions against the whole).
TEST(NativeStreams, SeeksFromEveryOriginRefusalsAndAnIstreamThatOutlivesTheFile) {
  cfb::CfbBuilder b;
  const Bytes big = pattern(40000, 7), small = pattern(3000, 8);
  b.addStream(0, "Big", big);
  b.addStream(0, "Small", small);
  b.addStream(0, "Text", Bytes{'o', 'n', 'e', '\n', 't', 'w', 'o', '\n'});
  const Bytes file = b.build();
  std::optional<mox::istream> in;
  {
    mox::CompoundFile doc = openBytes(file);
    for (const auto& [name, expected] : {std::pair{"Big", big}, std::pair{"Small", small}}) {
      mox::Stream s = doc.open_stream(name);
      EXPECT_EQ(s.seek(-10, std::ios_base::end), expected.size() - 10);
      EXPECT_EQ(s.seek(4, std::ios_base::cur), expected.size() - 6);
      Bytes got(100);
      got.resize(s.read(got.data(), got.size()));
      EXPECT_TRUE(got == Bytes(expected.end() - 6, expected.end()));
      EXPECT_EQ(s.tell(), expected.size());
      EXPECT_EQ(errorOf([&] { s.seek(-1, std::ios_base::beg); }), mox::Errc::invalid_argument);
      EXPECT_EQ(errorOf([&] { s.write("x", 1); }), mox::Errc::read_only);
    }
    in.emplace(doc.open_stream("Text"));
  }
  std::string line;
  ASSERT_TRUE(std::getline(*in, line));
  EXPECT_EQ(line, "one");
  in->seekg(-4, std::ios_base::end);
  EXPECT_EQ(in->tellg(), 4);
  ASSERT_TRUE(std::getline(*in, line));
  EXPECT_EQ(line, "two");
  EXPECT_FALSE(std::getline(*in, line));
}

// --- Errors --------------------------------------------------------------

// Also hostile counts and sizes: the file fails or opens without taking
// their word.
TEST(NativeErrors, CodesAndMessagesNameTheFileAndThePath) {
  const std::string dir = ::testing::TempDir();
  EXPECT_EQ(errorOf([&] { mox::CompoundFile::open(dir + "/no-such-file"); }), mox::Errc::not_found);
  const std::string text = dir + "/plain.txt";
  std::ofstream(text) << std::string(1000, 'x');
  EXPECT_EQ(errorOf([&] { mox::CompoundFile::open(text); }), mox::Errc::not_a_compound_file);
  EXPECT_EQ(errorOf([&] { mox::CompoundFile::open_memory(nullptr, 10); }), mox::Errc::invalid_argument);

  cfb::CfbBuilder b;
  b.addStorage(0, "Store");
  b.addStream(0, "Good", pattern(5000, 1));
  const int bad = b.addStream(0, "Bad", pattern(5000, 2));
  const int small = b.addStream(0, "Small", pattern(100, 1));
  cfb::CfbLayout l = b.layout();
  l.fat[l.dir[bad].start + 1] = l.dir[bad].start;  // a circle
  const std::string path = dir + "/circle.doc";
  const Bytes bytes = l.serialize();
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());

  mox::CompoundFile doc = mox::CompoundFile::open(path);
  EXPECT_EQ(doc.open_stream("Good").read_all(), pattern(5000, 1));
  try {
    doc.open_stream("Bad");
    ADD_FAILURE() << "a circular chain opened";
  } catch (const mox::Error& e) {
    EXPECT_EQ(e.code(), mox::Errc::damaged);
    EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("Bad"), std::string::npos) << e.what();
  }
  EXPECT_EQ(errorOf([&] { doc.open_stream("Store"); }), mox::Errc::invalid_argument);
  EXPECT_EQ(errorOf([&] { doc.children("Missing"); }), mox::Errc::not_found);

  l = b.layout();
  l.deriveDifat = false;
  l.header.fatSectors = 0x7FFFFFFF;
  l.header.difatStart = 0;
  l.header.difatSectors = 0x7FFFFFFF;
  const Bytes counts = l.serialize();
  try {
    EXPECT_FALSE(openBytes(counts).check().empty());
    EXPECT_EQ(errorOf([&] { openBytes(counts, mox::OpenOptions{true}); }), mox::Errc::damaged);
  } catch (const mox::Error& e) {
    EXPECT_EQ(e.code(), mox::Errc::damaged);
  }
  // A mini stream size beyond the mini stream: 63 distinct mini sectors
  // linked in a row, in a mini stream of two.
  l = b.layout();
  l.dir[small].sizeLow = 4000;
  l.miniFat.resize(63);
  for (uint32_t i = 0; i < 62; ++i) l.miniFat[i] = i + 1;
  l.miniFat[62] = cfb::kEnd;
  const std::vector<uint8_t> mini = l.serialize();  // borrowed by the file
  mox::CompoundFile minis = openBytes(mini);
  EXPECT_EQ(errorOf([&] { minis.open_stream("Small"); }), mox::Errc::damaged);
}

// --- Threads -------------------------------------------------------------

TEST(NativeThreads, ManyThreadsReadStreamsOfOneFile) {
  cfb::CfbBuilder b;
  std::vector<Bytes> contents;
  for (int f = 0; f < 8; ++f) {
    const int storage = b.addStorage(0, "F" + std::to_string(f));
    for (int m = 0; m < 20; ++m) {
      contents.push_back(pattern(static_cast<size_t>(100 + 997 * m), f * 100 + m));
      b.addStream(storage, "M" + std::to_string(m), contents.back());
    }
  }
  const Bytes file = b.build();
  mox::CompoundFile doc = openBytes(file);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round) {
        for (int k = (t + round) % 3; k < 160; k += 3) {
          const std::string path = "F" + std::to_string(k / 20) + "/M" + std::to_string(k % 20);
          mismatches[t] += doc.open_stream(path).read_all() != contents[static_cast<size_t>(k)];
        }
        mismatches[t] += doc.walk().size() != 1 + 8 * 21;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
