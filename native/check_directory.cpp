// The directory half of the check: links, names, object types, and each
// storage's sibling tree (order, duplicates, red-black shape).
#include <algorithm>
#include <array>
#include <string_view>

#include "format/names.h"
#include "native/check_report.h"

namespace mox::detail::check {

namespace {

using moxfmt::EntryRecord;

// A name held in place: a storage can have as many children as the
// directory has entries, and a heap string each would cost more than the
// rest of the check.
struct HeldName {
  explicit HeldName(const EntryRecord& e) : length(e.nameLength()) {
    std::copy(e.name, e.name + length, units.begin());
  }
  std::u16string_view view() const { return std::u16string_view(units.data(), length); }
  std::array<char16_t, moxfmt::kNameUnits> units;
  std::size_t length;
};

bool isStorage(std::uint32_t id, const EntryRecord& e) {
  return id == 0 || e.type == moxfmt::kTypeStorage;
}

class DirectoryChecker {
 public:
  DirectoryChecker(const Image& image, DirectoryScan& scan, Report& report)
      : image_(image), count_(image.entryCount()), scan_(scan), report_(report) {
    scan_.parent.assign(count_, kNone);
    scan_.reached.assign(count_, false);
    red_.assign(count_, false);
    left_.assign(count_, kNone);
    right_.assign(count_, kNone);
    blackHeight_.assign(count_, 0);
    // At most one per entry: sized once, not copied as it grows.
    scan_.streams.reserve(count_);
    scan_.order.reserve(count_);
  }

  void run();

 private:
  struct Member {
    std::uint32_t id;
    HeldName name;
  };
  struct Frame {
    std::uint32_t id;
    std::uint32_t right;
    HeldName name;
  };

  std::uint32_t follow(std::uint32_t from, std::uint32_t link, const char* which);
  EntryRecord meet(std::uint32_t id, std::uint32_t parent);
  void readSiblings(std::uint32_t parent);
  void checkShape(std::uint32_t parent);
  void checkOrder();
  void checkEntry(std::uint32_t id, const EntryRecord& e);

  const Image& image_;
  const std::uint32_t count_;
  DirectoryScan& scan_;
  Report& report_;
  std::vector<bool> red_;
  // Links as followed: kNone where the stored link was absent or rejected.
  BulkVector<std::uint32_t> left_, right_;
  BulkVector<std::uint32_t> blackHeight_;
  // Entries whose children are still to read, the next one last.
  std::vector<std::uint32_t> pending_;
  // One sibling tree at a time: its entries as met (every parent before
  // its children), and its members in order (left, self, right).
  std::vector<std::uint32_t> met_;
  std::vector<Member> members_;
  std::vector<Frame> stack_;
};

void DirectoryChecker::run() {
  scan_.reached[0] = true;
  scan_.order.push_back(0);
  const EntryRecord root = image_.entry(0);
  if (root.left != moxfmt::kNoStream || root.right != moxfmt::kNoStream) {
    report_.add(Severity::warning, "root-siblings", 0, -1,
                "the root has sibling links; readers ignore them");
  }
  checkEntry(0, root);
  // Depth first, each storage's children in sibling order: the order in
  // which a walk of the tree lists entries, so that an entry linked twice
  // is reported under the path the walk gives it.
  pending_.push_back(0);
  while (!pending_.empty()) {
    const std::uint32_t parent = pending_.back();
    pending_.pop_back();
    readSiblings(parent);
  }

  std::uint64_t lost = 0;
  std::int64_t first = -1;
  for (std::uint32_t id = 0; id < count_; ++id) {
    if (scan_.reached[id] || image_.rawEntry(id)[moxfmt::entry_at::kType] == moxfmt::kTypeEmpty) continue;
    if (lost++ == 0) first = id;
  }
  if (lost != 0) {
    report_.add(Severity::warning, "entry-unreachable", kNone, -1,
                counted(lost, "directory entry in use is", "directory entries in use are") +
                    " linked from nowhere (first: entry " + std::to_string(first) + ")");
  }
}

std::uint32_t DirectoryChecker::follow(std::uint32_t from, std::uint32_t link, const char* which) {
  if (link == moxfmt::kNoStream) return kNone;
  if (link >= count_) {
    if (!report_.full("dir-link-range")) {
      report_.add(Severity::error, "dir-link-range", from, -1,
                  std::string("the ") + which + " link points to entry " + std::to_string(link) +
                      ", past the directory's " + std::to_string(count_) + " entries");
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

EntryRecord DirectoryChecker::meet(std::uint32_t id, std::uint32_t parent) {
  scan_.reached[id] = true;
  scan_.parent[id] = parent;
  scan_.order.push_back(id);
  met_.push_back(id);
  EntryRecord e = image_.entry(id);
  red_[id] = e.colour == moxfmt::kRed;
  if (e.type == moxfmt::kTypeStream && image_.entrySize(e) != 0) {
    scan_.streams.push_back(DirectoryScan::Stream{id, e.start, image_.entrySize(e), image_.inMiniStream(e)});
  }
  checkEntry(id, e);
  return e;
}

void DirectoryChecker::readSiblings(std::uint32_t parent) {
  const EntryRecord p = image_.entry(parent);
  if (!isStorage(parent, p) && p.child != moxfmt::kNoStream) {
    report_.add(Severity::error, "entry-child", parent, -1,
                "an entry that is not a storage has a child link (to entry " + std::to_string(p.child) + ")");
  }
  met_.clear();
  members_.clear();
  stack_.clear();
  std::uint32_t at = follow(parent, p.child, "child");
  while (at != kNone || !stack_.empty()) {
    if (at != kNone) {
      const EntryRecord e = meet(at, parent);
      stack_.push_back(Frame{at, e.right, HeldName(e)});
      const std::uint32_t next = follow(at, e.left, "left");
      left_[at] = next;
      at = next;
      continue;
    }
    Frame f = std::move(stack_.back());
    stack_.pop_back();
    members_.push_back(Member{f.id, f.name});
    at = follow(f.id, f.right, "right");
    right_[f.id] = at;
  }
  if (members_.empty()) return;
  checkShape(parent);
  checkOrder();
  for (auto it = members_.rbegin(); it != members_.rend(); ++it) pending_.push_back(it->id);
}

// Red-black rules: no red entry with a red child, and as many black
// entries on every path down.  Readers never rely on them (and Office's
// own files often break the second), but a writer that edits the file in
// place may.
void DirectoryChecker::checkShape(std::uint32_t parent) {
  bool redRed = false, uneven = false;
  for (auto it = met_.rbegin(); it != met_.rend(); ++it) {
    const std::uint32_t id = *it;
    const std::uint32_t l = left_[id], r = right_[id];
    const std::uint32_t lh = l == kNone ? 1 : blackHeight_[l];
    const std::uint32_t rh = r == kNone ? 1 : blackHeight_[r];
    if (lh != rh) uneven = true;
    if (red_[id] && ((l != kNone && red_[l]) || (r != kNone && red_[r]))) redRed = true;
    blackHeight_[id] = std::max(lh, rh) + (red_[id] ? 0 : 1);
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
// that compare equal make a name ambiguous.  Leaves the members in
// sibling order.
void DirectoryChecker::checkOrder() {
  bool sorted = true;
  for (std::size_t i = 1; i < members_.size(); ++i) {
    const int c = moxfmt::compareSiblingNames(members_[i - 1].name.view(), members_[i].name.view());
    if (c < 0) continue;
    sorted = false;
    if (c > 0) {
      report_.add(Severity::error, "sibling-order", members_[i].id, -1,
                  "sorts before its left neighbour " + report_.describe(members_[i - 1].id) +
                      " in the sibling tree");
      break;
    }
  }
  if (sorted) return;
  auto less = [](const Member& a, const Member& b) {
    return moxfmt::compareSiblingNames(a.name.view(), b.name.view()) < 0;
  };
  std::stable_sort(members_.begin(), members_.end(), less);
  for (std::size_t i = 1; i < members_.size(); ++i) {
    if (less(members_[i - 1], members_[i]) || report_.full("sibling-duplicate")) continue;
    report_.add(Severity::error, "sibling-duplicate", members_[i].id, -1,
                "has the same name as its sibling entry " + std::to_string(members_[i - 1].id) +
                    " under the format's comparison");
  }
}

void DirectoryChecker::checkEntry(std::uint32_t id, const EntryRecord& e) {
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
