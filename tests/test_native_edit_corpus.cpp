// Every undamaged file of the shared corpus, opened for editing and
// committed: unchanged, every name, property and stream's bytes must
// survive; with one stream changed, every other entry must be as before.
// The committed files must pass the structural audit.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <tuple>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_audit.h"
#include "support/native_kit.h"

namespace {

// Type, class id, state bits, times and a stream's bytes.  The root's own
// stream is the mini stream, which a writer lays out anew: not compared.
using Seen = std::tuple<mox::EntryType, std::array<std::uint8_t, 16>, std::uint32_t, std::uint64_t,
                        std::uint64_t, std::vector<std::uint8_t>>;

std::map<std::string, Seen> snapshot(const mox::CompoundFile& f) {
  std::map<std::string, Seen> out;
  for (const mox::Entry& e : f.walk()) {
    out.emplace(e.path, Seen{e.type, e.clsid, e.state_bits, e.created, e.modified,
                             e.is_stream() ? f.open_stream(e.path).read_all() : std::vector<std::uint8_t>()});
  }
  return out;
}

class EditCorpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(EditCorpus, CommitsKeepEveryOtherEntry) {
  const manifest::File& file = moxtest::corpusFiles()[GetParam()];
  if (file.damaged() || !file.opens) GTEST_SKIP() << "damaged files are not edited";
  SCOPED_TRACE(file.path);
  moxtest::ScratchDir dir;
  const std::string path = dir.file("doc");
  std::filesystem::copy_file(std::string(MOX_CORPUS_DIR) + "/" + file.path, path);
  std::map<std::string, Seen> before = snapshot(mox::CompoundFile::open(path));
  std::string changed;
  {
    mox::CompoundFile f = mox::CompoundFile::open_rw(path);
    f.commit();
    EXPECT_EQ(cfbaudit::audit(moxtest::fileBytes(path)), "");
    EXPECT_TRUE(f.check().empty());
    EXPECT_TRUE(snapshot(f) == before) << "an entry changed";
    for (const auto& [p, seen] : before) {
      if (!std::get<5>(seen).empty() && changed.empty()) changed = p;  // only streams have bytes
    }
    if (changed.empty()) return;
    mox::Stream s = f.open_stream(changed);
    s.seek(static_cast<std::int64_t>(s.size() / 2));
    s.write("\xFF\x00\xFF", 3);
    f.commit();
  }
  std::vector<std::uint8_t>& expected = std::get<5>(before.at(changed));
  const std::size_t at = expected.size() / 2;
  expected.resize(std::max(expected.size(), at + 3));
  std::copy_n("\xFF\x00\xFF", 3, expected.begin() + at);
  EXPECT_TRUE(snapshot(mox::CompoundFile::open(path)) == before) << "after the edit of " << changed;
  EXPECT_EQ(cfbaudit::audit(moxtest::fileBytes(path)), "");
}

MOX_TEST_EACH_FILE(Corpus, EditCorpus, moxtest::corpusFiles);

}  // namespace
