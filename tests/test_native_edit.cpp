// Editing through the native interface: random programs of edits checked
// against the edit fuzz target's model (which, with its kept inputs
// replayed, also covers clashing names, copies, stream gaps and regrown
// tails), what the model leaves out of the naming rules, and what commit,
// revert, save_as and the destructor do to the file and to open Streams.
// (Entry fields and files opened from memory are edited in
// test_native_api.)  Every file written is audited for structure
// (support/cfb_audit) and read back.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_audit.h"
#include "support/cfb_builder.h"
#include "support/native_kit.h"
#include "support/program_run.h"

// fuzz/edit_target.cpp, linked in.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern std::string (*moxfuzzEditAudit)(const std::vector<std::uint8_t>&);

namespace {

using Bytes = std::vector<std::uint8_t>;
using moxtest::pattern;
const auto codeOf = moxtest::errorOf;

Bytes readAll(const mox::CompoundFile& f, const std::string& path) { return f.open_stream(path).read_all(); }

void put(mox::CompoundFile& f, const std::string& path, const Bytes& bytes) {
  f.create_stream(path).write(bytes.data(), bytes.size());
}

void expectWellFormed(const Bytes& file) {
  EXPECT_EQ(cfbaudit::audit(file), "");
  EXPECT_TRUE(mox::CompoundFile::open_memory(file.data(), file.size()).check().empty());
}

// --- Random programs -----------------------------------------------------------

// The edit fuzz target's model (names matched by the format's case rule,
// the error code of every refused edit, streams and writes far past their
// end, handles kept across removals, copies from the last commit, revert)
// on pseudo-random programs: it aborts, naming the difference, where the
// file leaves it.  Here every file it writes also passes the strict audit.
class FuzzPrograms : public ::testing::TestWithParam<unsigned> {};

TEST_P(FuzzPrograms, MatchTheModel) {
  moxfuzzEditAudit = cfbaudit::audit;
  std::mt19937 rng(GetParam());
  std::vector<uint8_t> input(4000);
  for (auto& b : input) b = static_cast<uint8_t>(rng());
  EXPECT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, FuzzPrograms, ::testing::Range(1u, 81u));

// --- Streams ------------------------------------------------------------------

TEST(EditStreams, PagesOfAFileBackedEditReadBackWhateverErrnoHeld) {
  moxtest::ScratchDir folder;
  mox::CompoundFile f = mox::CompoundFile::create(folder.file("doc.cfb"));
  mox::Stream s = f.create_stream("s");
  const Bytes piece = pattern(100, 1);
  s.seek(196608);  // the start of a page, the first put in the scratch file
  s.write(piece.data(), piece.size());
  s.set_size(250000);  // the rest of that page lies past the scratch file's end
  Bytes expected(250000, 0);
  std::copy(piece.begin(), piece.end(), expected.begin() + 196608);
  // A stale EINTR, as a signal handled earlier leaves it, is no failure of
  // the reads; a read that took it for one would never end.
  EXPECT_EQ(moxtest::runInChild([&] {
    alarm(10);
    s.seek(0);
    errno = EINTR;
    return s.read_all() == expected ? 0 : 1;
  }), 0);
}

// --- Sizes and names ------------------------------------------------------------

// Sizes the version cannot hold and characters the format cannot store are
// refused, a bad name deep in a path before any storage is made on the way
// to it; names that cannot be UTF-8 are stored all the same.
TEST(EditNames, RefusedSizesAndNamesAndReplacementCharactersForBadUtf8) {
  mox::CompoundFile v3 = mox::CompoundFile::create_memory(mox::CreateOptions{3});
  mox::Stream s = v3.create_stream("s");
  EXPECT_EQ(codeOf([&] { s.set_size(std::uint64_t{1} << 32); }), mox::Errc::invalid_argument);
  s.set_size(0xFFFFFFFFull);
  EXPECT_EQ(s.size(), 0xFFFFFFFFull);
  for (const char* bad : {"x!y", "a:b", "back\\slash", "new/a:b/s"}) {
    EXPECT_EQ(codeOf([&] { v3.create_stream(bad); }), mox::Errc::invalid_argument) << bad;
  }
  EXPECT_FALSE(v3.exists("new"));
  mox::CompoundFile v4 = mox::CompoundFile::create_memory();
  mox::Stream t = v4.create_stream("s");
  t.set_size(std::uint64_t{5} << 30);
  EXPECT_EQ(t.size(), std::uint64_t{5} << 30);
  EXPECT_EQ(codeOf([] { mox::CompoundFile::create_memory(mox::CreateOptions{5}); }), mox::Errc::invalid_argument);

  // Bad UTF-8 is stored as replacement characters, and entries give the
  // UTF-8 of what is stored; a renamed entry takes its place in the order,
  // before the commit as after.  The mini FAT takes the sectors its
  // entries need: 110 mini sectors, 440 bytes of links, one 512-byte sector.
  mox::CompoundFile f = mox::CompoundFile::create_memory(mox::CreateOptions{3});
  put(f, "a\xFFz", pattern(55 * 64, 1));
  f.create_stream(std::string_view("c\xE2\x82\xAC").substr(0, 2));  // cut inside the sequence
  f.create_storage("Inner");
  put(f, "zz", pattern(55 * 64, 2));
  f.rename("zz", "ZZ");      // its own name in another case
  f.rename("Inner", "a");    // now sorts first
  const std::vector<std::string> names = {"a", "c\xEF\xBF\xBD", "ZZ", "a\xEF\xBF\xBDz"};
  EXPECT_EQ(moxtest::namesOf(f.children("")), names);
  const Bytes bytes = f.bytes();
  EXPECT_EQ(moxtest::namesOf(mox::CompoundFile::open_memory(bytes.data(), bytes.size()).children("")), names);
  EXPECT_EQ(cfbaudit::audit(bytes), "");
  EXPECT_EQ(Bytes(bytes.begin() + 0x40, bytes.begin() + 0x44), (Bytes{1, 0, 0, 0})) << "mini FAT sectors";
}

// --- Files, commits and Streams ----------------------------------------------------

using moxtest::readFile;

// Nothing reaches the file without a commit (not the destructor, not
// save_as, not a revert), and no temporary file is left; a file opened
// read-only refuses edits, and a commit keeps the file's permissions.
// Streams stay usable across commits and reverts.
TEST(EditFiles, NothingReachesTheFileWithoutCommitAndStreamsStayUsable) {
  moxtest::ScratchDir folder;
  const std::string path = folder.file("doc.cfb");
  {
    mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{3});
    put(f, "a", pattern(10000, 1));
    EXPECT_FALSE(moxtest::exists(path));
    f.commit();
    put(f, "b", pattern(10, 2));  // dropped by the destructor
  }
  const std::string committed = readFile(path);
  {
    mox::CompoundFile f = mox::CompoundFile::open_rw(path);
    EXPECT_FALSE(f.exists("b"));
    f.remove("a");
    put(f, "c", pattern(10, 3));
    f.save_as(folder.file("copy.cfb"));
    f.revert();
    EXPECT_TRUE(f.exists("a"));
    put(f, "d", pattern(10, 4));
  }
  EXPECT_EQ(readFile(path), committed);
  const mox::CompoundFile copy = mox::CompoundFile::open(folder.file("copy.cfb"));
  EXPECT_FALSE(copy.exists("a"));
  EXPECT_TRUE(readAll(copy, "c") == pattern(10, 3));
  EXPECT_EQ(moxtest::snapshotTree(folder.path()).size(), 2u);

  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  mox::CompoundFile r = mox::CompoundFile::open(path);
  EXPECT_FALSE(r.writable());
  EXPECT_EQ(codeOf([&] { r.create_stream("t"); }), mox::Errc::read_only);
  EXPECT_EQ(codeOf([&] { r.commit(); }), mox::Errc::read_only);
  mox::CompoundFile w = mox::CompoundFile::open_rw(path);
  put(w, "t", pattern(10, 2));
  w.commit();
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u);

  mox::Stream log = w.create_stream("log");
  const Bytes first = pattern(100000, 1), second = pattern(5000, 2);
  log.write(first.data(), first.size());
  put(w, "other", pattern(50, 3));
  w.commit();
  mox::Stream old = w.open_stream("other");
  log.write(second.data(), second.size());  // the same Stream, after the commit
  w.remove("other");
  w.commit();
  Bytes both = first;
  both.insert(both.end(), second.begin(), second.end());
  EXPECT_TRUE(readAll(w, "log") == both);
  EXPECT_TRUE(old.read_all() == pattern(50, 3));  // from the replaced file's mapping
  log.write("tail", 4);
  w.revert();
  log.seek(0);
  EXPECT_TRUE(log.read_all() == both);  // back to what was committed
  EXPECT_TRUE(readAll(mox::CompoundFile::open(path), "log") == both);
  expectWellFormed(w.bytes());
}

// A commit that changes only stream bytes (each stream keeping its number
// of sectors) and entry fields writes them over a copy of the old file;
// an edit that needs a new layout gets one.
TEST(EditFiles, EditsThatKeepTheLayoutChangeOnlyTheirOwnSectors) {
  cfb::CfbBuilder builder;
  builder.setPaddingSectors(2);
  const int data = builder.addStream(builder.addStorage(0, "Obj"), "Data", pattern(5000, 1));
  builder.addStream(0, "Small", pattern(100, 2));
  builder.addStream(0, "Other", pattern(8000, 3));
  cfb::CfbLayout layout = builder.layout();
  // Free sectors holding bytes of their own: a file the writer would
  // never make, so that a new layout would show.
  const std::size_t sectors = layout.serialize().size() / 512 - 1;
  for (std::uint32_t s = 0; s < sectors; ++s) {
    if (s >= layout.fat.size() || layout.fat[s] == cfb::kFree) layout.sectors[s] = Bytes(512, 0xEE);
  }
  const Bytes old = layout.serialize();
  moxtest::ScratchDir folder;
  const std::string path = folder.file("doc.cfb");
  moxtest::writeBytes(path, old);

  // The sectors the edits below may touch: Data's chain, the mini stream
  // (Small) and the directory (sizes, a class id).
  std::vector<bool> mayChange(sectors, false);
  for (std::uint32_t s : {layout.dir[data].start, layout.dir[0].start, layout.header.dirStart}) {
    for (; s < sectors; s = layout.fat[s]) mayChange[s] = true;
  }

  mox::CompoundFile f = mox::CompoundFile::open_rw(path);
  const Bytes small = pattern(100, 4);
  f.open_stream("Small").write(small.data(), small.size());
  mox::Stream d = f.open_stream("Obj/Data");
  d.set_size(4700);
  d.write("edit", 4);
  std::array<std::uint8_t, 16> clsid{};
  clsid[0] = 0x42;
  f.set_clsid("Obj", clsid);
  f.commit();

  const Bytes now = moxtest::fileBytes(path);
  ASSERT_EQ(now.size(), old.size());
  for (std::size_t at = 512; at < old.size(); ++at) {
    ASSERT_TRUE(now[at] == old[at] || mayChange[at / 512 - 1]) << "byte " << at << " of sector " << at / 512 - 1;
  }
  EXPECT_EQ(cfbaudit::audit(now), "");
  Bytes expected = pattern(5000, 1);
  expected.resize(4700);
  std::copy_n("edit", 4, expected.begin());
  // Opened afresh, and through the committed object, whose image of the
  // new file took the old one's tables over.
  const mox::CompoundFile again = mox::CompoundFile::open(path);
  for (const mox::CompoundFile* file : {&again, static_cast<const mox::CompoundFile*>(&f)}) {
    EXPECT_TRUE(readAll(*file, "Obj/Data") == expected);
    EXPECT_TRUE(readAll(*file, "Small") == small);
    EXPECT_TRUE(readAll(*file, "Other") == pattern(8000, 3));
    EXPECT_TRUE(file->entry("Obj")->clsid == clsid);
    EXPECT_TRUE(file->check().empty());
  }

  // A stream that moves out of the mini stream needs a new layout: the
  // free sectors go.
  const Bytes grown = pattern(6000, 5);
  f.open_stream("Small").write(grown.data(), grown.size());
  f.commit();
  EXPECT_EQ(readFile(path).find(std::string(512, '\xEE')), std::string::npos);
  const mox::CompoundFile last = mox::CompoundFile::open(path);
  EXPECT_TRUE(readAll(last, "Small") == grown);
  EXPECT_TRUE(readAll(last, "Obj/Data") == expected);
  expectWellFormed(f.bytes());
}

// Megabytes of new stream data are not copied by a commit: the scratch
// file they were written to becomes the file, its pages the streams'
// sectors, and the header's page (sectors the header leaves over) is
// free.  Streams whose pages interleave, a gap never written, a tail
// inside a page, and a removed stream still open (its pages must not go
// to the file) all come out whole.
TEST(EditFiles, LargeNewStreamsBecomeTheFileWhereTheyWereWritten) {
  moxtest::ScratchDir folder;
  const mode_t mask = umask(022);
  umask(mask);
  for (int version : {3, 4}) {
    SCOPED_TRACE("version " + std::to_string(version));
    const std::string path = folder.file("doc" + std::to_string(version) + ".cfb");
    mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{version});
    const Bytes a = pattern(3 << 20, 1);
    Bytes b = pattern((2 << 20) + 777, 2);
    mox::Stream sa = f.create_stream("A"), sb = f.create_stream("Store/B");
    for (std::size_t at = 0; at < a.size(); at += 65536) {
      sa.write(a.data() + at, 65536);
      if (at < b.size()) sb.write(b.data() + at, std::min<std::size_t>(65536, b.size() - at));
    }
    sb.seek(3 << 20);
    sb.write("end", 3);
    b.resize(3 << 20);
    b.insert(b.end(), {'e', 'n', 'd'});
    put(f, "mini", pattern(100, 3));
    f.commit();

    const Bytes file = moxtest::fileBytes(path);
    EXPECT_EQ(cfbaudit::audit(file), "");
    auto u32 = [&](std::size_t at) {
      return static_cast<std::uint32_t>(file[at] | file[at + 1] << 8 | file[at + 2] << 16 | file[at + 3] << 24);
    };
    const std::size_t sectorSize = std::size_t{1} << file[0x1E];
    EXPECT_EQ(u32((u32(0x4C) + 1) * sectorSize), cfb::kFree) << "the streams were copied, not kept where written";
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u & ~mask);
    const mox::CompoundFile again = mox::CompoundFile::open(path);
    for (const mox::CompoundFile* g : {&again, static_cast<const mox::CompoundFile*>(&f)}) {
      EXPECT_TRUE(readAll(*g, "A") == a);
      EXPECT_TRUE(readAll(*g, "Store/B") == b);
      EXPECT_TRUE(readAll(*g, "mini") == pattern(100, 3));
      EXPECT_TRUE(g->check().empty());
    }

    // The object goes on: its Streams write to a scratch file of its own
    // again, and a removed stream's pages stay its own.
    sa.seek(10);
    sa.write("x", 1);
    mox::Stream removed = f.create_stream("C");
    const Bytes c = pattern(5 << 20, 4), d = pattern(5 << 20, 5);
    removed.write(c.data(), c.size());
    f.remove("C");
    put(f, "D", d);
    f.commit();
    removed.seek(0);
    EXPECT_TRUE(removed.read_all() == c);
    const mox::CompoundFile third = mox::CompoundFile::open(path);
    EXPECT_TRUE(readAll(third, "D") == d);
    EXPECT_EQ(readAll(third, "A")[10], 'x');
    EXPECT_TRUE(readAll(third, "Store/B") == b);
    expectWellFormed(moxtest::fileBytes(path));
  }
}

}  // namespace
