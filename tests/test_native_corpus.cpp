// Every file of the shared corpus read through the native interface and
// compared with what an independent reader saw (MANIFEST.tsv): names as
// whole UTF-16, paths, types, sizes and every stream's SHA-256.  Damaged
// files must open permissively or fail with mox::Error, never crash.
#include <gtest/gtest.h>

#include <map>

#include "format/names.h"
#include "moxolefio/moxolefio.hpp"
#include "support/manifest.h"
#include "support/sha256.h"

namespace {

const std::vector<manifest::File>& corpusFiles() {
  static const std::vector<manifest::File> files = manifest::load(MOX_CORPUS_DIR);
  return files;
}

std::string typeName(mox::EntryType type) {
  switch (type) {
    case mox::EntryType::root: return "root";
    case mox::EntryType::storage: return "storage";
    case mox::EntryType::stream: return "stream";
    default: return "other";
  }
}

// The names of a path as UTF-16, undoing the interface's rules: a path
// starting with '/' has an empty first name.
std::vector<std::u16string> namesOf(const std::string& path) {
  std::vector<std::u16string> names;
  if (path.empty()) return names;
  std::string rest = path[0] == '/' ? path.substr(1) : path;
  for (;;) {
    const std::size_t slash = rest.find('/');
    names.push_back(moxfmt::utf8ToUtf16(rest.substr(0, slash)));
    if (slash == std::string::npos) break;
    rest = rest.substr(slash + 1);
  }
  return names;
}

class NativeCorpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(NativeCorpus, ReadsWhatTheIndependentReaderRead) {
  const manifest::File& file = corpusFiles()[GetParam()];
  SCOPED_TRACE(file.path);
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + file.path;
  std::optional<mox::CompoundFile> doc;
  try {
    doc.emplace(mox::CompoundFile::open(full));
  } catch (const mox::Error& e) {
    EXPECT_TRUE(file.damaged()) << e.what();
    return;
  }
  const std::vector<mox::Entry> entries = doc->walk();
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries[0].type, mox::EntryType::root);
  std::map<std::uint32_t, const mox::Entry*> byId;
  for (const mox::Entry& e : entries) {
    EXPECT_TRUE(byId.emplace(e.id, &e).second) << "listed twice: " << e.path;
    // Every listed entry is reachable by its own path (among siblings with
    // the same name, which only damaged files have, the first one).
    const std::optional<mox::Entry> found = doc->entry(e.path);
    ASSERT_TRUE(found.has_value()) << e.path;
    if (!file.damaged()) EXPECT_EQ(found->id, e.id) << e.path;
  }
  for (const mox::Entry& e : entries) {
    if (e.type != mox::EntryType::stream) continue;
    try {
      mox::Stream s = doc->open_stream(e.path);
      const std::vector<std::uint8_t> bytes = s.read_all();
      EXPECT_EQ(bytes.size(), s.size()) << e.path;
    } catch (const mox::Error& error) {
      EXPECT_TRUE(file.damaged()) << e.path << ": " << error.what();
    }
  }
  if (file.damaged() || !file.opens) return;

  EXPECT_EQ(entries.size(), file.entries.size());
  for (const auto& [sid, expected] : file.entries) {
    auto it = byId.find(static_cast<std::uint32_t>(sid));
    ASSERT_NE(it, byId.end()) << "entry " << sid << " not listed";
    const mox::Entry& e = *it->second;
    EXPECT_EQ(namesOf(e.path), expected.names) << e.path;
    EXPECT_EQ(expected.names.empty() ? std::u16string(u"") : expected.names.back(),
              e.type == mox::EntryType::root ? std::u16string(u"") : moxfmt::utf8ToUtf16(e.name));
    EXPECT_EQ(typeName(e.type), expected.type.rfind("type", 0) == 0 ? "other" : expected.type) << e.path;
    if (expected.type != "stream") continue;
    EXPECT_EQ(static_cast<std::int64_t>(e.size), expected.size) << e.path;
    const std::vector<std::uint8_t> bytes = doc->open_stream(e.path).read_all();
    EXPECT_EQ(sha256Hex(bytes.data(), bytes.size()), expected.sha) << e.path;
  }
}

MOX_TEST_EACH_FILE(Corpus, NativeCorpus, corpusFiles);

}  // namespace
