// Real files, one test per file of the corpus manifest (what olefile saw
// in each): whether it opens, the header geometry and directory size the
// loader reads, the storage tree and every storage's object list, and
// every stream read by entry number, compared by SHA-256.  Streams are
// read by entry number because other writers may order siblings by
// upper-case folding, where a descent by name can legitimately miss.
// Damaged files, and streams olefile could not read whole, only have to
// come out cleanly.
#include <string.h>

#include <algorithm>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "support/corpus_files.h"
#include "support/manifest.h"
#include "support/sha256.h"
#include "support/stream_kit.h"

namespace {

using Names = std::vector<std::string>;
// (names from the root, type, size) of one entry.
using Seen = std::tuple<Names, int, int64_t>;

const std::vector<manifest::File>& manifestFiles() {
  static const std::vector<manifest::File> files =
      corpus::directory().empty() ? std::vector<manifest::File>()
                                  : manifest::load(corpus::directory());
  return files;
}

int typeCode(const std::string& type) {
  if (type == "root") return 5;
  if (type == "storage") return 1;
  if (type == "stream") return 2;
  return type.rfind("type", 0) == 0 ? std::stoi(type.substr(4)) : -1;
}

Seen seen(const Names& path, const char* name, int type, int64_t size) {
  Names full = path;
  full.push_back(name);
  return Seen{full, type, type == 2 ? size : 0};
}

void collect(const _MoxOleTreeNode* node, Names& path, std::set<Seen>* out,
             std::vector<std::pair<Names, const _MoxOleTreeNode*>>* storages) {
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    out->insert(seen(path, child->szName, child->iType, child->iSize));
    path.push_back(child->szName);
    if (child->iChildCount > 0) {
      storages->push_back({path, child});
      collect(child, path, out, storages);
    }
    path.pop_back();
  }
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

// Counts the storages listed and those the exact path walk missed.
void checkTreeAndObjectLists(OpenDoc& doc, const manifest::File& m, int* lists, int* misses) {
  moxhost::PoolServices services;
  int status = 0;
  HostMemory* pool = services.createPool(4096, 0, &status);
  _MoxOleTreeNode* root = nullptr;
  ASSERT_EQ(iOLEGetStreamTree(doc.handle(), pool, &root), 0);
  std::set<Seen> tree, expected;
  std::vector<std::pair<Names, const _MoxOleTreeNode*>> storages = {{{}, root}};
  Names path;
  collect(root, path, &tree, &storages);
  for (const auto& [sid, e] : m.entries) {
    if (e.type != "root") expected.insert(Seen{e.path, typeCode(e.type), e.type == "stream" ? e.size : 0});
  }
  EXPECT_EQ(tree, expected);

  for (const auto& [where, node] : storages) {
    std::vector<Seen> children;
    for (int i = 0; i < node->iChildCount; ++i) {
      const _MoxOleTreeNode* c = node->ppChildren[i];
      children.push_back(seen({}, c->szName, c->iType, c->iSize));
    }
    std::sort(children.begin(), children.end());
    int count = 0;
    std::vector<Seen> listed = objectList(doc, where, &count);
    // Siblings ordered by another writer's case folding can hide a storage
    // from the exact path walk; then the list is empty.
    if (count == 0 && !where.empty()) {
      ++*misses;
      continue;
    }
    ++*lists;
    EXPECT_EQ(listed, children) << "object list of a storage " << where.size() << " deep";
  }
  services.destroyPool(pool);
}

// By index: a File parameter is copied, entries and all, several times
// over for every test of every process.
class Corpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Corpus, ReadsAsOlefileReadIt) {
  const manifest::File& m = manifestFiles()[GetParam()];
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(moxhost::readFile(corpus::directory() + "/" + m.path, &bytes));
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
  int lists = 0, misses = 0;
  checkTreeAndObjectLists(doc, m, &lists, &misses);

  const std::map<int, std::string> digests = streamDigests(doc.handle());
  for (const auto& [sid, e] : m.entries) {
    if (e.type != "stream" || e.note != "-") continue;
    auto found = digests.find(sid);
    EXPECT_EQ(found == digests.end() ? "unreadable" : found->second, e.sha) << "entry " << sid;
  }
}

MOX_TEST_EACH_FILE(Manifest, Corpus, manifestFiles);

// The walk above must have had something to walk, its digests must be
// SHA-256, and a miss of the exact path walk must stay the exception:
// a walk that found no storage at all would otherwise pass unseen.
TEST(CorpusManifest, CoversManyFilesStreamsAndStorages) {
  EXPECT_EQ(sha256Hex("abc", 3), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  if (manifestFiles().empty()) GTEST_SKIP() << "no corpus";
  int files = 0, streams = 0, lists = 0, misses = 0;
  for (const manifest::File& m : manifestFiles()) {
    if (m.damaged() || !m.opens) continue;
    ++files;
    for (const auto& [sid, e] : m.entries) streams += e.type == "stream" && e.note == "-";
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(moxhost::readFile(corpus::directory() + "/" + m.path, &bytes));
    OpenDoc doc(bytes);
    ASSERT_TRUE(doc.ok()) << m.path;
    checkTreeAndObjectLists(doc, m, &lists, &misses);
  }
  EXPECT_GT(files, 40);
  EXPECT_GT(streams, 1000);
  EXPECT_GT(lists, 5 * misses) << "most storages resolve by exact name";
}

}  // namespace
