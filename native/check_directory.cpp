// The directory half of the check: links, names, object types, and each
// storage's sibling tree (order, duplicates, red-black shape).
#include <algorithm>
#include <string_view>

#include "format/names.h"
#include "native/check_report.h"

namespace mox::detail::check {

namespace {

using moxfmt::EntryRecord;

std::u16string_view nameOf(const EntryRecord& e) {
  return std::u16string_view(reinterpret_cast<const char16_t*>(e.name), e.nameLength());
}

bool isStorage(std::uint32_t id, const EntryRecord& e) {
  return id == 0 || e.type == moxfmt::kTypeStorage;
}

bool isRed(const EntryRecord& e) { return e.colour == moxfmt::kRed; }

class DirectoryChecker {
 public:
  DirectoryChecker(const Image& image, DirectoryScan& scan, Report& report)
      : entries_(image.entries()), scan_(scan), report_(report) {
    const std::size_t n = entries_.size();
    scan_.parent.assign(n, kNone);
    scan_.reached.assign(n, false);
    left_.assign(n, kNone);
    right_.assign(n, kNone);
    blackHeight_.assign(n, 0);
  }

  void run();

 private:
  std::uint32_t follow(std::uint32_t from, std::uint32_t link, const char* which);
  void meet(std::uint32_t id, std::uint32_t parent);
  void readSiblings(std::uint32_t parent);
  void checkShape(std::uint32_t parent);
  void checkOrder();
  void checkEntry(std::uint32_t id);

  const std::vector<EntryRecord>& entries_;
  DirectoryScan& scan_;
  Report& report_;
  // Links as followed: kNone where the stored link was absent or rejected.
  std::vector<std::uint32_t> left_, right_;
  std::vector<std::uint32_t> blackHeight_;
  // The storages whose sibling trees are still to read.
  std::vector<std::uint32_t> pending_;
  // One sibling tree at a time: its entries as met (every parent before
  // its children) and in order (left, self, right).
  std::vector<std::uint32_t> met_, inOrder_, stack_;
};

void DirectoryChecker::run() {
  scan_.reached[0] = true;
  scan_.order.push_back(0);
  const EntryRecord& root = entries_[0];
  if (root.left != moxfmt::kNoStream || root.right != moxfmt::kNoStream) {
    report_.add(Severity::warning, "root-siblings", 0, -1,
                "the root has sibling links; readers ignore them");
  }
  checkEntry(0);
  // The same order as Tree::fromImage, so that an entry linked twice is
  // reported under the path the tree gives it.
  pending_.push_back(0);
  while (!pending_.empty()) {
    const std::uint32_t parent = pending_.back();
    pending_.pop_back();
    readSiblings(parent);
  }

  std::uint64_t lost = 0;
  std::int64_t first = -1;
  for (std::size_t id = 0; id < entries_.size(); ++id) {
    if (scan_.reached[id] || entries_[id].type == moxfmt::kTypeEmpty) continue;
    if (lost++ == 0) first = static_cast<std::int64_t>(id);
  }
  if (lost != 0) {
    report_.add(Severity::warning, "entry-unreachable", kNone, -1,
                counted(lost, "directory entry in use is", "directory entries in use are") +
                    " linked from nowhere (first: entry " + std::to_string(first) + ")");
  }
}

std::uint32_t DirectoryChecker::follow(std::uint32_t from, std::uint32_t link, const char* which) {
  if (link == moxfmt::kNoStream) return kNone;
  if (link >= entries_.size()) {
    if (!report_.full("dir-link-range")) {
      report_.add(Severity::error, "dir-link-range", from, -1,
                  std::string("the ") + which + " link points to entry " + std::to_string(link) +
                      ", past the directory's " + std::to_string(entries_.size()) + " entries");
    }
    return kNone;
  }
  if (scan_.reached[link]) {
    if (!report_.full("dir-link-shared")) {
      report_.add(Severity::error, "dir-link-shared", from, -1,
                  std::string("the ") + which + " link points to entry " + std::to_string(link) +
                      ", already in the tree as " + report_.describe(link));
    }
    return kNone;
  }
  return link;
}

void DirectoryChecker::meet(std::uint32_t id, std::uint32_t parent) {
  scan_.reached[id] = true;
  scan_.parent[id] = parent;
  scan_.order.push_back(id);
  met_.push_back(id);
  checkEntry(id);
}

void DirectoryChecker::readSiblings(std::uint32_t parent) {
  const EntryRecord& p = entries_[parent];
  if (!isStorage(parent, p) && p.child != moxfmt::kNoStream) {
    report_.add(Severity::error, "entry-child", parent, -1,
                "an entry that is not a storage has a child link (to entry " + std::to_string(p.child) + ")");
  }
  met_.clear();
  inOrder_.clear();
  stack_.clear();
  std::uint32_t at = follow(parent, p.child, "child");
  if (at != kNone) meet(at, parent);
  while (at != kNone || !stack_.empty()) {
    if (at != kNone) {
      stack_.push_back(at);
      at = left_[at] = follow(at, entries_[at].left, "left");
      if (at != kNone) meet(at, parent);
      continue;
    }
    const std::uint32_t id = stack_.back();
    stack_.pop_back();
    inOrder_.push_back(id);
    pending_.push_back(id);
    at = right_[id] = follow(id, entries_[id].right, "right");
    if (at != kNone) meet(at, parent);
  }
  if (inOrder_.empty()) return;
  checkShape(parent);
  checkOrder();
}

// Red-black rules: no red entry with a red child, and as many black
// entries on every path down.  Readers never rely on them, but a writer
// that edits the file in place does.
void DirectoryChecker::checkShape(std::uint32_t parent) {
  bool redRed = false, uneven = false;
  for (auto it = met_.rbegin(); it != met_.rend(); ++it) {
    const std::uint32_t id = *it;
    const std::uint32_t l = left_[id], r = right_[id];
    const std::uint32_t lh = l == kNone ? 1 : blackHeight_[l];
    const std::uint32_t rh = r == kNone ? 1 : blackHeight_[r];
    if (lh != rh) uneven = true;
    const bool red = isRed(entries_[id]);
    if (red && ((l != kNone && isRed(entries_[l])) || (r != kNone && isRed(entries_[r])))) redRed = true;
    blackHeight_[id] = std::max(lh, rh) + (red ? 0 : 1);
  }
  if (redRed) {
    report_.add(Severity::warning, "rb-red-red", parent, -1,
                "the children's sibling tree has a red entry with a red child");
  }
  if (uneven) {
    report_.add(Severity::warning, "rb-black-height", parent, -1,
                "the children's sibling tree has paths with different numbers of black entries");
  }
}

// Readers look names up by walking the sibling tree with the format's
// comparison, so an entry out of order is lost to them, and two entries
// that compare equal make a name ambiguous.
void DirectoryChecker::checkOrder() {
  bool sorted = true;
  for (std::size_t i = 1; i < inOrder_.size(); ++i) {
    const int c = moxfmt::compareSiblingNames(nameOf(entries_[inOrder_[i - 1]]), nameOf(entries_[inOrder_[i]]));
    if (c < 0) continue;
    sorted = false;
    if (c > 0) {
      report_.add(Severity::error, "sibling-order", inOrder_[i], -1,
                  "sorts before its left neighbour " + report_.describe(inOrder_[i - 1]) +
                      " in the sibling tree");
      break;
    }
  }
  if (sorted) return;
  std::vector<std::uint32_t> byName = inOrder_;
  auto less = [&](std::uint32_t a, std::uint32_t b) {
    return moxfmt::compareSiblingNames(nameOf(entries_[a]), nameOf(entries_[b])) < 0;
  };
  std::stable_sort(byName.begin(), byName.end(), less);
  for (std::size_t i = 1; i < byName.size(); ++i) {
    if (less(byName[i - 1], byName[i]) || report_.full("sibling-duplicate")) continue;
    report_.add(Severity::error, "sibling-duplicate", byName[i], -1,
                "has the same name as its sibling entry " + std::to_string(byName[i - 1]) +
                    " under the format's comparison");
  }
}

void DirectoryChecker::checkEntry(std::uint32_t id) {
  const EntryRecord& e = entries_[id];
  if (id != 0) {
    if (e.type == moxfmt::kTypeEmpty) {
      report_.add(Severity::error, "entry-empty", id, -1, "an unused directory entry is linked into the tree");
    } else if (e.type != moxfmt::kTypeStorage && e.type != moxfmt::kTypeStream) {
      report_.add(Severity::warning, "entry-type", id, -1,
                  "object type " + std::to_string(e.type) + " (listed, never opened)");
    }
  }
  if (e.colour != moxfmt::kRed && e.colour != moxfmt::kBlack) {
    report_.add(Severity::warning, "entry-colour", id, -1,
                "colour " + std::to_string(e.colour) + " (0 or 1 expected; read as black)");
  }
  // Nothing reads the root's name, and writers put anything there ("R"
  // without its terminator, say).
  if (id == 0) return;
  const unsigned bytes = e.name_bytes;
  if (bytes > 2 * moxfmt::kNameUnits || bytes % 2 != 0) {
    report_.add(Severity::error, "name-length", id, -1,
                "the name's stored length is " + std::to_string(bytes) + " bytes (an even number up to 64 expected)");
  } else if (bytes >= 2 && e.name[bytes / 2 - 1] != 0) {
    report_.add(Severity::error, "name-unterminated", id, -1,
                "the name has no terminating zero at its stored length of " + std::to_string(bytes) + " bytes");
  }
}

}  // namespace

void checkDirectory(const Image& image, DirectoryScan& scan, Report& report) {
  DirectoryChecker(image, scan, report).run();
}

}  // namespace mox::detail::check
