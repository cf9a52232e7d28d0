#include "tools/moxole/entries.h"

#include <strings.h>

#include <algorithm>

#include "tools/moxole/document.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

constexpr size_t kReadChunk = 1 << 20;

// The path the native interface gives a child of `parent` named `name`.
std::string childPath(const mox::Entry& parent, const std::string& name) {
  if (parent.type == mox::EntryType::root) return name.empty() ? "/" : name;
  return parent.path + "/" + name;
}

}  // namespace

std::unique_ptr<EntryTree> EntryTree::open(const std::string& path, int* status) {
  *status = checkInputFile(path);
  if (*status != kExitOk) return nullptr;
  try {
    std::unique_ptr<EntryTree> tree(new EntryTree(path, mox::CompoundFile::open(path)));
    std::vector<mox::Entry> entries = tree->file_.walk();
    tree->nodes_.resize(entries.size());
    // Depth first, so a parent is always among the ancestors of the entry
    // before: the one whose path, with the name appended, is the entry's.
    // Ancestors' paths differ in length, so only one can match.
    std::vector<EntryNode*> ancestors;
    for (size_t i = 0; i < entries.size(); ++i) {
      EntryNode* node = &tree->nodes_[i];
      node->entry = std::move(entries[i]);
      while (!ancestors.empty() &&
             childPath(ancestors.back()->entry, node->entry.name) != node->entry.path) {
        ancestors.pop_back();
      }
      if (!ancestors.empty()) ancestors.back()->children.push_back(node);
      if (node->isStorage()) ancestors.push_back(node);
    }
    for (EntryNode& node : tree->nodes_) {
      std::stable_sort(node.children.begin(), node.children.end(),
                       [](const EntryNode* a, const EntryNode* b) { return a->entry.name < b->entry.name; });
    }
    *status = kExitOk;
    return tree;
  } catch (const mox::Error& e) {
    switch (e.code()) {
      case mox::Errc::not_a_compound_file:
      case mox::Errc::damaged:
        *status = fail(kExitBadDocument, path, damagedText(withoutFileName(e.what(), path)));
        break;
      case mox::Errc::no_memory: *status = fail(kExitIo, path, "out of memory"); break;
      default: *status = fail(kExitIo, "", e.what());
    }
  } catch (const std::bad_alloc&) {
    *status = fail(kExitIo, path, "out of memory");
  }
  return nullptr;
}

const EntryNode* EntryTree::find(const std::string& path) const {
  std::vector<std::string> names;
  if (!splitPath(path, &names)) return nullptr;
  const EntryNode* node = &root();
  for (const std::string& name : names) {
    const EntryNode* exact = nullptr;
    const EntryNode* folded = nullptr;
    int foldedCount = 0;
    for (const EntryNode* child : node->children) {
      const std::string& childName = child->entry.name;
      if (childName == name) {
        exact = child;
        break;
      }
      if (childName.size() == name.size() &&
          strncasecmp(childName.data(), name.data(), name.size()) == 0) {
        folded = child;
        ++foldedCount;
      }
    }
    if (exact == nullptr && foldedCount != 1) return nullptr;
    node = exact != nullptr ? exact : folded;
  }
  return node;
}

int EntryTree::copyStream(const EntryNode& node, const std::string& shownAs,
                          const ByteSink& sink) const {
  std::vector<char> buffer(kReadChunk);
  uint64_t total = 0;
  bool opened = false;
  try {
    mox::Stream stream = file_.open_stream(node.entry);
    opened = true;
    size_t chunk = buffer.size();
    const size_t sector = file_.sector_size();
    for (;;) {
      size_t got;
      try {
        got = stream.read(buffer.data(), chunk);
      } catch (const mox::Error& e) {
        // A read that reaches a cut in the file fails whole: what comes
        // before the cut is still given out, a sector at a time.
        if (e.code() == mox::Errc::no_memory || chunk == sector) throw;
        chunk = sector;
        stream.seek(static_cast<int64_t>(total));
        continue;
      }
      if (got == 0) break;
      total += got;
      if (!sink(buffer.data(), got)) return kExitIo;
    }
  } catch (const mox::Error& e) {
    if (e.code() == mox::Errc::no_memory) return fail(kExitIo, path_, "out of memory");
    if (!opened) {
      return fail(kExitBadDocument, path_, "stream " + shownAs + " cannot be read (broken sector chain)");
    }
  } catch (const std::bad_alloc&) {
    return fail(kExitIo, path_, "out of memory");
  }
  if (total != node.entry.size) {
    return fail(kExitBadDocument, path_,
                "stream " + shownAs + " is cut short (" + std::to_string(total) + " of " +
                    std::to_string(node.entry.size) + " bytes)");
  }
  return kExitOk;
}

}  // namespace moxole
