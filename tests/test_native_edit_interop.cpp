// Files this library writes and edits, read by independent readers used
// as black boxes: olefile, libgsf's gsf, libolecf's olecfexport, Apache
// POI, SheetJS cfb, and this library's own 22-slot ABI (through moxole).
// One table: documents x versions x readers; each reader must list the
// same storages and streams, with the same sizes and bytes, as this
// library reads back.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "moxolefio/moxolefio.hpp"
#include "support/native_kit.h"
#include "support/program_run.h"
#include "support/sha256.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using moxtest::pattern;

// Path below the root -> a stream's bytes; nothing for a storage.
using Contents = std::map<std::string, std::optional<Bytes>>;

void put(mox::CompoundFile& f, const std::string& path, const Bytes& bytes) {
  f.create_stream(path).write(bytes.data(), bytes.size());
}

// Storages, mini and regular streams on both sides of the cutoff, an
// empty stream and storage, and names with a control character, Latin-1
// letters and the full 31 units.
void mixed(mox::CompoundFile& f) {
  const std::pair<const char*, std::size_t> streams[] = {
      {"Doc/Body", 9000}, {"Doc/Notes", 100}, {"Doc/Inner/Deep", 4096}, {"Doc/Inner/Mini", 4095},
      {"\x05SummaryInformation", 300}, {"caf\xC3\xA9", 64}, {"Zero", 0}, {"Name_with_thirty_one_characters", 1}};
  for (const auto& [path, size] : streams) put(f, path, pattern(size, static_cast<unsigned>(size)));
  f.create_storage("Doc/EmptyStorage");
}

// The mixed document committed, reopened and changed every way (what
// each edit must give is the edit fuzz model's to check; here, that
// other readers read what this library reads).
void edited(mox::CompoundFile& f, const std::string& path, int version) {
  mixed(f);
  f.commit();
  mox::CompoundFile e = mox::CompoundFile::open_rw(path);
  EXPECT_EQ(e.version(), version);
  e.remove("Doc/Notes");
  e.rename("Doc/Inner", "Moved");
  e.move("Doc/Moved", "");
  mox::Stream body = e.open_stream("Doc/Body");
  body.seek(5000);
  const Bytes patch = pattern(7000, 8);
  body.write(patch.data(), patch.size());
  e.copy(e, "Moved", "Doc/Copy");
  e.open_stream("Moved/Mini").set_size(5000);
  e.commit();
  f = std::move(e);
}

void siblings(mox::CompoundFile& f) {
  for (int i = 0; i < 60; ++i) put(f, "Many/n" + std::to_string(i * 37 % 1000), pattern(i * 13 % 600, i));
}

// Megabytes of new data, which a commit leaves where they were written:
// two streams written in turns (their sectors interleave), one with a gap
// never written.  With 512-byte sectors, over 109 FAT sectors: the DIFAT
// is needed.
void large(mox::CompoundFile& f) {
  const Bytes large = pattern(13843u * 512 + 100000, 9), other = pattern(1 << 20, 11);
  mox::Stream a = f.create_stream("Large"), b = f.create_stream("Store/Other");
  for (std::size_t at = 0; at < large.size(); at += 65536) {
    a.write(large.data() + at, std::min<std::size_t>(65536, large.size() - at));
    if (at < other.size()) b.write(other.data() + at, 65536);
  }
  b.seek(3 << 20);
  b.write(other.data(), 5000);
  put(f, "a", pattern(10, 10));
}

// Every entry as this library reads the committed file back.
Contents contentsOf(const mox::CompoundFile& f) {
  Contents c;
  for (const mox::Entry& e : f.walk()) {
    if (!e.path.empty()) c[e.path] = e.is_stream() ? std::optional<Bytes>(f.open_stream(e.path).read_all()) : std::nullopt;
  }
  return c;
}

enum class Kinds { all, not_for_empty_items, none };

struct Reader {
  const char* tool;
  Kinds kinds;
};

const Reader kReaders[] = {{"olefile", Kinds::all}, {"gsf", Kinds::not_for_empty_items},
                           {"olecf", Kinds::none},  {"poi", Kinds::all},
                           {"cfb", Kinds::all},     {"moxole", Kinds::all}};

std::string expectedListing(const Contents& c, Kinds kinds) {
  std::set<std::string> lines;  // sorted, as the listing is
  for (const auto& [path, bytes] : c) {
    const Bytes data = bytes.value_or(Bytes());
    const auto below = c.lower_bound(path + "/");  // a storage's first child
    const bool empty = bytes ? data.empty() : below == c.end() || below->first.compare(0, path.size() + 1, path + "/") != 0;
    const bool shown = kinds == Kinds::all || (kinds == Kinds::not_for_empty_items && !empty);
    lines.insert((shown ? bytes ? "f" : "d" : "-") + std::string(" ") + std::to_string(data.size()) + " " +
                 sha256Hex(data.data(), data.size()) + " " + path);
  }
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

using Case = std::tuple<std::string, int, Reader>;  // document, version, reader
class Interop : public ::testing::TestWithParam<Case> {};

TEST_P(Interop, ReaderSeesWhatWasWritten) {
  const auto& [name, version, reader] = GetParam();
  const std::string python = moxtest::olefilePython();
  if (python.empty()) GTEST_SKIP() << "no Python with olefile to run the listing script";
  moxtest::ScratchDir dir;
  const std::string path = dir.file(name + ".cfb");
  {
    mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{version});
    if (name == "mixed") mixed(f);
    if (name == "edited") edited(f, path, version);
    if (name == "siblings") siblings(f);
    if (name == "large") large(f);
    f.commit();
  }
  static const moxtest::ScratchDir shared;  // for the whole run: POI's reader is compiled there once
  moxtest::ProgramOptions options;
  options.setEnv["MOXOLE_PROGRAM"] = MOXOLE_PROGRAM;
  const moxtest::ProgramResult run = moxtest::runProgram(
      {python, MOX_SOURCE_DIR "/tests/oracles/listing.py", reader.tool, path, shared.path()}, options);
  if (run.status == 2) GTEST_SKIP() << reader.tool << " is not installed (scripts/test.sh installs it)";
  ASSERT_EQ(run.status, 0) << reader.tool << " refused the file: " << run.err;
  EXPECT_EQ(run.out, expectedListing(contentsOf(mox::CompoundFile::open(path)), reader.kinds));
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  const auto& [name, version, reader] = info.param;
  return name + "_v" + std::to_string(version) + "_" + reader.tool;
}

INSTANTIATE_TEST_SUITE_P(Table, Interop,
                         ::testing::Combine(::testing::Values("mixed", "edited", "siblings", "large"),
                                            ::testing::Values(3, 4), ::testing::ValuesIn(kReaders)),
                         caseName);

}  // namespace
