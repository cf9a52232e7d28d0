// Every file of the shared corpus, once, through the native interface:
// what it reads is what an independent reader saw (MANIFEST.tsv: names as
// whole UTF-16, paths, types, sizes, every stream's SHA-256); opened with
// pread (OpenOptions::map = false) and read in uneven pieces it reads what
// the mapping reads whole; and check() finds no error in a clean file and
// some defect in every damaged one that opens, exactly when a strict open
// fails.  Damaged files must open permissively or fail with mox::Error.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>

#include "format/names.h"
#include "moxolefio/moxolefio.hpp"
#include "support/native_kit.h"
#include "support/sha256.h"

namespace {

// The error code of `work`, 0 when it throws none.
int failureOf(const std::function<void()>& work) { return static_cast<int>(moxtest::errorOf(work)); }

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

// A stream's bytes whole, or in pieces of 1, 7, 4093 ... bytes.
std::vector<std::uint8_t> readStream(const mox::CompoundFile& doc, const std::string& path, bool pieces,
                                     int* code) {
  std::vector<std::uint8_t> bytes;
  *code = failureOf([&] {
    mox::Stream s = doc.open_stream(path);
    if (!pieces) {
      bytes = s.read_all();
      EXPECT_EQ(bytes.size(), s.size()) << path;
      return;
    }
    const std::size_t sizes[] = {1, 7, 4093, 65536, 1 << 20};
    static std::vector<std::uint8_t> buffer(1 << 20);
    for (std::size_t k = 0;; ++k) {
      const std::size_t n = s.read(buffer.data(), sizes[k % 5]);
      if (n == 0) break;
      bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
    }
  });
  return bytes;
}

// Warnings that files written by other programs carry, each an oddity
// every reader tolerates: Office, Outlook and the installer tools balance
// sibling trees loosely (rb-*); PHPExcel runs the mini stream's chain on
// into the next stream's sectors (ministream-long); a Zeiss image has
// 4096-byte sectors under version 3 (header-sector-size); and two test
// files of another reader mark spare sectors as FAT sectors (table-mark).
const std::set<std::string> kCleanFileWarnings = {"rb-black-height", "rb-red-red", "ministream-long",
                                                  "header-sector-size", "table-mark"};

class NativeCorpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(NativeCorpus, ReadsWhatTheIndependentReaderReadMappedOrNot) {
  const manifest::File& file = moxtest::corpusFiles()[GetParam()];
  SCOPED_TRACE(file.path);
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + file.path;
  mox::OpenOptions unmapped;
  unmapped.map = false;
  std::optional<mox::CompoundFile> doc, pread;
  const int failure = failureOf([&] { doc.emplace(mox::CompoundFile::open(full)); });
  ASSERT_EQ(failureOf([&] { pread.emplace(mox::CompoundFile::open(full, unmapped)); }), failure);
  const int strictFailure = failureOf([&] { mox::CompoundFile::open(full, mox::OpenOptions{true}); });
  if (failure != 0) {
    EXPECT_TRUE(file.damaged());
    EXPECT_NE(strictFailure, 0);
    return;
  }

  const std::vector<mox::Entry> entries = doc->walk();
  const std::vector<mox::Entry> preadEntries = pread->walk();
  ASSERT_FALSE(entries.empty());
  ASSERT_EQ(preadEntries.size(), entries.size());
  EXPECT_EQ(entries[0].type, mox::EntryType::root);
  std::map<std::uint32_t, const mox::Entry*> byId;
  std::map<std::string, std::vector<std::uint8_t>> streams;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const mox::Entry& e = entries[i];
    EXPECT_EQ(preadEntries[i].path, e.path);
    EXPECT_EQ(preadEntries[i].size, e.size);
    EXPECT_TRUE(byId.emplace(e.id, &e).second) << "listed twice: " << e.path;
    // Every listed entry is reachable by its own path (among siblings with
    // the same name, which only damaged files have, the first one).
    const std::optional<mox::Entry> found = doc->entry(e.path);
    ASSERT_TRUE(found.has_value()) << e.path;
    EXPECT_TRUE(file.damaged() || found->id == e.id) << e.path;
    if (!e.is_stream()) continue;
    int code = 0, preadCode = 0, piecesCode = 0;
    streams[e.path] = readStream(*doc, e.path, false, &code);
    const std::vector<std::uint8_t> pieces = readStream(*pread, e.path, true, &preadCode);
    EXPECT_EQ(preadCode, code) << e.path;
    EXPECT_TRUE(code == 0 || file.damaged()) << e.path;
    // A stream that fails part way gives the pieces before the failure.
    EXPECT_TRUE(pieces == (code == 0 ? streams[e.path] : readStream(*doc, e.path, true, &piecesCode))) << e.path;
  }

  const std::vector<mox::Defect> defects = doc->check();
  EXPECT_EQ(pread->check().size(), defects.size());
  EXPECT_EQ(strictFailure, moxtest::hasError(defects) ? static_cast<int>(mox::Errc::damaged) : 0);
  // Defects name entries by the paths a walk of the tree gives them, even
  // in files that link an entry twice.
  std::set<std::string> paths;
  for (const mox::Entry& e : entries) paths.insert(e.path);
  for (const mox::Defect& d : defects) {
    EXPECT_TRUE(d.path.empty() || paths.count(d.path) == 1) << d.code << " " << d.path;
    if (file.damaged()) continue;
    EXPECT_EQ(d.severity, mox::Severity::warning) << d.code << " " << d.message;
    EXPECT_EQ(kCleanFileWarnings.count(d.code), 1u) << d.code << " " << d.message;
  }
  // Every damaged file of the corpus that opens at all breaks a rule the
  // scan looks at; none is damaged only inside a stream's bytes.
  EXPECT_TRUE(!file.damaged() || !defects.empty());
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
    const std::vector<std::uint8_t>& bytes = streams[e.path];
    EXPECT_EQ(sha256Hex(bytes.data(), bytes.size()), expected.sha) << e.path;
  }
}

MOX_TEST_EACH_FILE(Corpus, NativeCorpus, moxtest::corpusFiles);

}  // namespace
