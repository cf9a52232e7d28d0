// Every file of the shared corpus, once, through both faces of the library;
// what each reads is what an independent reader saw (MANIFEST.tsv: names as
// whole UTF-16, paths, types, sizes, every stream's SHA-256).
//  - The 22-slot ABI (see checkThroughTheAbi).
//  - The native interface: opened with pread (OpenOptions::map = false)
//    it reads what the mapping reads, in uneven pieces; check()
//    finds no error in a clean file and some defect in every damaged one
//    that opens, exactly when a strict open fails.  Damaged files must open
//    permissively or fail with mox::Error.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "format/names.h"
#include "moxolefio/moxolefio.hpp"
#include "support/native_kit.h"
#include "support/document_walk.h"
#include "support/sha256.h"
#include "support/stream_kit.h"

namespace {

using Names = std::vector<std::string>;
// (names from the root, type, size) of one entry.
using Seen = std::tuple<Names, int, int64_t>;

Seen seen(const Names& path, const char* name, int type, int64_t size) {
  Names full = path;
  full.push_back(name);
  return Seen{full, type, type == 2 ? size : 0};
}

// The object list of the storage at `path` as sorted (name, type, size).
std::vector<Seen> objectList(OpenDoc& doc, const Names& path, int* count) {
  std::vector<char> slots(36 * (path.size() + 1), 0);
  for (size_t i = 0; i < path.size(); ++i) strncpy(&slots[36 * i], path[i].c_str(), 35);
  _MoxOleObjectEntry* list = nullptr;
  *count = moxoleGetObjectList(doc.handle(), reinterpret_cast<const char(*)[36]>(slots.data()),
                               static_cast<int>(path.size()), &list);
  std::vector<Seen> out;
  for (int i = 0; i < *count; ++i) {
    out.push_back(seen({}, list[i].szName, static_cast<int>(list[i].uiType), list[i].uiSize));
  }
  if (list != nullptr) doc.memory().memory()->free(doc.memory().memory(), list);
  std::sort(out.begin(), out.end());
  return out;
}

// Every entry below `node` into `out`; the object list of `node` and of
// every storage below it that has children must list its children.
// Counts the storages listed and those the exact path walk missed.
void collect(OpenDoc& doc, const _MoxOleTreeNode* node, Names& path, std::set<Seen>* out, int* lists, int* misses) {
  std::vector<Seen> children;
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    out->insert(seen(path, child->szName, child->iType, child->iSize));
    children.push_back(seen({}, child->szName, child->iType, child->iSize));
    if (child->iChildCount == 0) continue;
    path.push_back(child->szName);
    collect(doc, child, path, out, lists, misses);
    path.pop_back();
  }
  std::sort(children.begin(), children.end());
  int count = 0;
  const std::vector<Seen> listed = objectList(doc, path, &count);
  // Siblings ordered by another writer's case folding can hide a storage
  // from the exact path walk; then the list is empty.
  if (count == 0 && !path.empty()) {
    ++*misses;
  } else {
    ++*lists;
    EXPECT_EQ(listed, children) << "object list of a storage " << path.size() << " deep";
  }
}

// SHA-256 of every stream entry the library reads whole, by entry number.
std::map<int, std::string> streamDigests(_MoxOleFile* h) {
  std::map<int, std::string> digests;
  for (int entry = 0; entry < h->iDirCount; ++entry) {
    if (h->pDir[entry].byType != 2) continue;
    if (iReadStreamChain(entry, h) != 0 || lOLEseek(h, 0, 0) != 0) continue;
    const cfb::Bytes data = streamkit::readToEnd(h, 65536);
    if (static_cast<int64_t>(data.size()) != h->lStreamSize) continue;
    digests[entry] = sha256Hex(data.data(), data.size());
  }
  bOLEcloseStream(h, nullptr);
  return digests;
}

// The file through the 22-slot ABI, from bytes in memory: the header
// geometry and directory size, the storage tree and every storage's object
// list, and every stream read by entry number (other writers may order
// siblings by upper-case folding, where a descent by name can legitimately
// miss).  Damaged files only have to come out cleanly.
void checkThroughTheAbi(const manifest::File& m) {
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(moxhost::readFile(std::string(MOX_CORPUS_DIR) + "/" + m.path, &bytes));
  OpenDoc doc(bytes);  // checks on destruction that nothing leaked
  if (m.damaged()) {
    if (doc.ok()) streamDigests(doc.handle());
    return;
  }
  ASSERT_EQ(doc.ok(), m.opens);
  if (!doc.ok()) return;
  ASSERT_TRUE(m.hasHeader);
  EXPECT_EQ(doc->lSectorSize, m.header.sectorSize);
  EXPECT_EQ(doc->lMiniSectorSize, m.header.miniSectorSize);
  EXPECT_EQ(doc->lFatCount, m.header.fatSectors);
  EXPECT_EQ(doc->lDifatCount, m.header.difatSectors);
  EXPECT_EQ(doc->iDirCount, m.header.dirEntries);
  moxhost::PoolServices services;
  const StreamTree built(doc.handle(), services);
  ASSERT_EQ(built.status(), 0);
  std::set<Seen> tree, expected;
  Names path;
  int lists = 0, misses = 0;
  collect(doc, built.root(), path, &tree, &lists, &misses);
  EXPECT_GT(lists, 5 * misses) << "most storages resolve by exact name";
  for (const auto& [sid, e] : m.entries) {
    const int type = e.type == "storage" ? 1 : e.type == "stream" ? 2 : std::stoi("0" + e.type.substr(4));
    if (e.type != "root") expected.insert(Seen{e.path, type, e.type == "stream" ? e.size : 0});
  }
  EXPECT_EQ(tree, expected);
  const std::map<int, std::string> digests = streamDigests(doc.handle());
  for (const auto& [sid, e] : m.entries) {
    if (e.type != "stream" || e.note != "-") continue;
    auto found = digests.find(sid);
    EXPECT_EQ(found == digests.end() ? "unreadable" : found->second, e.sha) << "entry " << sid;
  }
}


using moxtest::errorOf;

// The manifest's name of each EntryType.
const char* const kTypeNames[] = {"root", "storage", "stream", "other"};

// A stream's bytes, read in pieces of 1, 7, 4093 ... bytes (read_all is
// the fuzz targets' and the edit tests').
std::vector<std::uint8_t> readStream(const mox::CompoundFile& doc, const std::string& path, mox::Errc* code) {
  std::vector<std::uint8_t> bytes;
  *code = errorOf([&] {
    mox::Stream s = doc.open_stream(path);
    const std::size_t sizes[] = {1, 7, 4093, 65536, 1 << 20};
    static std::vector<std::uint8_t> buffer(1 << 20);
    for (std::size_t k = 0;; ++k) {
      const std::size_t n = s.read(buffer.data(), sizes[k % 5]);
      if (n == 0) break;
      bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
    }
    EXPECT_EQ(bytes.size(), s.size()) << path;
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

// By index: a File parameter is copied, entries and all, several times
// over for every test of every process.
class Corpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Corpus, ReadsWhatTheIndependentReaderReadThroughTheAbiAndNatively) {
  const manifest::File& file = moxtest::corpusFiles()[GetParam()];
  SCOPED_TRACE(file.path);
  checkThroughTheAbi(file);
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + file.path;
  mox::OpenOptions unmapped;
  unmapped.map = false;
  std::optional<mox::CompoundFile> doc, pread;
  const mox::Errc failure = errorOf([&] { doc.emplace(mox::CompoundFile::open(full)); });
  ASSERT_EQ(errorOf([&] { pread.emplace(mox::CompoundFile::open(full, unmapped)); }), failure);
  const mox::Errc strictFailure = errorOf([&] { mox::CompoundFile::open(full, mox::OpenOptions{true}); });
  if (failure != mox::Errc{}) {
    EXPECT_TRUE(file.damaged());
    EXPECT_NE(strictFailure, mox::Errc{});
    return;
  }

  const std::vector<mox::Entry> entries = doc->walk();
  const std::vector<mox::Entry> preadEntries = pread->walk();
  ASSERT_EQ(preadEntries.size(), entries.size());
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
    mox::Errc code{}, preadCode{};
    streams[e.path] = readStream(*doc, e.path, &code);
    // A stream that fails part way gives the pieces before the failure.
    EXPECT_TRUE(readStream(*pread, e.path, &preadCode) == streams[e.path]) << e.path;
    EXPECT_EQ(preadCode, code) << e.path;
    EXPECT_TRUE(code == mox::Errc{} || file.damaged()) << e.path;
  }

  const std::vector<mox::Defect> defects = doc->check();
  EXPECT_EQ(pread->check().size(), defects.size());
  EXPECT_EQ(strictFailure, moxtest::hasError(defects) ? mox::Errc::damaged : mox::Errc{});
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
    // A path starting with '/' has an empty first name.
    std::string want = !expected.names.empty() && expected.names[0].empty() ? "/" : "";
    for (std::size_t i = 0; i < expected.names.size(); ++i) want += (i ? "/" : "") + moxfmt::utf16ToUtf8(expected.names[i]);
    EXPECT_EQ(e.path, want);
    EXPECT_EQ(expected.names.empty() ? std::u16string(u"") : expected.names.back(),
              e.type == mox::EntryType::root ? std::u16string(u"") : moxfmt::utf8ToUtf16(e.name));
    EXPECT_EQ(kTypeNames[static_cast<int>(e.type)], expected.type.rfind("type", 0) == 0 ? "other" : expected.type) << e.path;
    if (expected.type != "stream") continue;
    EXPECT_EQ(static_cast<std::int64_t>(e.size), expected.size) << e.path;
    const std::vector<std::uint8_t>& bytes = streams[e.path];
    EXPECT_EQ(sha256Hex(bytes.data(), bytes.size()), expected.sha) << e.path;
  }
}

MOX_TEST_EACH_FILE(Manifest, Corpus, moxtest::corpusFiles);

// The walk above must have had something to walk: a manifest read short
// would otherwise pass unseen.  (The digests need no check of their own:
// the manifest's came from another reader.)
TEST(CorpusManifest, CoversManyFilesAndStreams) {
  if (moxtest::corpusFiles().empty()) GTEST_SKIP() << "no corpus";
  int files = 0, streams = 0;
  for (const manifest::File& m : moxtest::corpusFiles()) {
    if (m.damaged() || !m.opens) continue;
    ++files;
    for (const auto& [sid, e] : m.entries) streams += e.type == "stream" && e.note == "-";
  }
  EXPECT_GT(files, 40);
  EXPECT_GT(streams, 1000);
}

}  // namespace
