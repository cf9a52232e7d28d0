#include "native/tree.h"

#include <algorithm>
#include <utility>

#include "format/names.h"

namespace mox::detail {

namespace {

EntryType typeOf(std::uint8_t stored) {
  switch (stored) {
    case moxfmt::kTypeRoot: return EntryType::root;
    case moxfmt::kTypeStorage: return EntryType::storage;
    case moxfmt::kTypeStream: return EntryType::stream;
    default: return EntryType::other;
  }
}

Node nodeOf(const Image& image, std::uint32_t id, const moxfmt::EntryRecord& e) {
  Node n;
  n.name.assign(reinterpret_cast<const char16_t*>(e.name), e.nameLength());
  n.utf8 = moxfmt::utf16ToUtf8(e.name, e.nameLength());
  n.type = id == 0 ? EntryType::root : typeOf(e.type);
  if (id != 0 && n.type == EntryType::root) n.type = EntryType::other;
  std::copy(std::begin(e.clsid), std::end(e.clsid), n.clsid.begin());
  n.state_bits = e.state_bits;
  n.created = e.created;
  n.modified = e.modified;
  n.size = n.type == EntryType::stream || n.type == EntryType::root ? image.entrySize(e) : 0;
  n.id = id;
  return n;
}

bool siblingLess(const Node& a, const Node& b) {
  return moxfmt::compareSiblingNames(a.name, b.name) < 0;
}

}  // namespace

void appendChildPath(std::string& path, bool parentIsRoot, const std::string& name) {
  // Below the root a path is just the name, but an empty first name would
  // make it "" (the root) or lose its leading empty element: it keeps a '/'.
  if (parentIsRoot) {
    path.assign(name.empty() ? "/" : name);
    return;
  }
  path += '/';
  path += name;
}

std::string childPath(const std::string& parentPath, bool parentIsRoot, const std::string& name) {
  std::string path = parentIsRoot ? std::string() : parentPath;
  appendChildPath(path, parentIsRoot, name);
  return path;
}

std::vector<std::string_view> splitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  if (path.empty()) return parts;
  if (path.front() == '/') path.remove_prefix(1);
  for (;;) {
    const std::size_t slash = path.find('/');
    parts.push_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return parts;
}

Tree::Tree() : lock_(std::make_unique<std::recursive_mutex>()) {}
Tree::Tree(const Tree& other)
    : nodes_(other.nodes_), image_(other.image_), claimed_(other.claimed_),
      lock_(std::make_unique<std::recursive_mutex>()) {}
Tree& Tree::operator=(const Tree& other) {
  if (this != &other) {
    nodes_ = other.nodes_;
    image_ = other.image_;
    claimed_ = other.claimed_;
  }
  return *this;
}
Tree::Tree(Tree&&) noexcept = default;
Tree& Tree::operator=(Tree&&) noexcept = default;
Tree::~Tree() = default;

std::uint32_t Tree::size() const {
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  return static_cast<std::uint32_t>(nodes_.size());
}

Tree Tree::empty() {
  Tree t;
  Node root;
  root.name = u"Root Entry";
  root.utf8 = moxfmt::kRootName;
  root.type = EntryType::root;
  root.expanded = true;
  t.nodes_.push_back(std::move(root));
  return t;
}

Tree Tree::fromImage(std::shared_ptr<const Image> image) {
  Tree t;
  t.nodes_.push_back(nodeOf(*image, 0, image->entry(0)));
  t.image_ = std::move(image);
  return t;
}

const std::vector<std::uint32_t>& Tree::children(std::uint32_t i) const {
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  if (!nodes_[i].expanded) expand(i);
  return nodes_[i].kids;
}

void Tree::expand(std::uint32_t parent) const {
  nodes_[parent].expanded = true;
  if (!image_ || nodes_[parent].id == kNoNode) return;
  const Image& image = *image_;
  const std::uint32_t count = image.entryCount();
  if (claimed_.empty()) {
    claimed_.assign(count, false);
    claimed_[0] = true;
  }
  // The sibling tree read in order (left, self, right).  An entry met a
  // second time (only damaged files link one twice) is listed once, where
  // first met; a link back to an entry already listed ends the descent.
  // Each entry is decoded once: the record waits on the stack for its
  // node and its right link.
  std::vector<std::uint32_t> kids;
  std::vector<std::pair<std::uint32_t, moxfmt::EntryRecord>> stack;
  std::uint32_t at = image.entry(nodes_[parent].id).child;
  while (at < count || !stack.empty()) {
    if (at < count && !claimed_[at]) {
      claimed_[at] = true;
      stack.emplace_back(at, image.entry(at));
      at = stack.back().second.left;
      continue;
    }
    if (stack.empty()) break;
    const std::uint32_t id = stack.back().first;
    const moxfmt::EntryRecord record = stack.back().second;
    stack.pop_back();
    const auto index = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back(nodeOf(image, id, record));
    nodes_.back().parent = parent;
    kids.push_back(index);
    at = record.right;
  }
  auto less = [&](std::uint32_t a, std::uint32_t b) { return siblingLess(nodes_[a], nodes_[b]); };
  if (!std::is_sorted(kids.begin(), kids.end(), less)) std::stable_sort(kids.begin(), kids.end(), less);
  nodes_[parent].kids = std::move(kids);
}

std::uint32_t Tree::findChild(std::uint32_t parent, std::string_view name) const {
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  const std::vector<std::uint32_t>& kids = children(parent);
  const std::u16string wanted = moxfmt::utf8ToUtf16(name);
  auto lower = std::lower_bound(kids.begin(), kids.end(), wanted, [&](std::uint32_t i, const std::u16string& w) {
    return moxfmt::compareSiblingNames(nodes_[i].name, w) < 0;
  });
  auto upper = lower;
  while (upper != kids.end() && moxfmt::compareSiblingNames(nodes_[*upper].name, wanted) == 0) ++upper;
  for (auto it = lower; it != upper; ++it) {
    if (nodes_[*it].utf8 == name) return *it;
  }
  if (upper - lower == 1) return *lower;
  // Names with unpaired surrogates read as U+FFFD, which sorts elsewhere
  // than the stored unit: such a name is found by its UTF-8 form.
  if (lower == upper && name.find("\xEF\xBF\xBD") != std::string_view::npos) {
    for (std::uint32_t i : kids) {
      if (nodes_[i].utf8 == name) return i;
    }
  }
  return kNoNode;
}

std::uint32_t Tree::find(std::string_view path) const {
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  std::uint32_t at = 0;
  for (std::string_view part : splitPath(path)) {
    at = findChild(at, part);
    if (at == kNoNode) return kNoNode;
  }
  return at;
}

std::string Tree::pathOf(std::uint32_t i) const {
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  std::vector<std::uint32_t> chain;
  for (std::uint32_t at = i; at != 0 && at != kNoNode; at = nodes_[at].parent) chain.push_back(at);
  std::string path;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    path = childPath(path, it == chain.rbegin(), nodes_[*it].utf8);
  }
  return path;
}

std::uint32_t Tree::addChild(std::uint32_t parent, Node child) {
  const auto index = static_cast<std::uint32_t>(nodes_.size());
  child.parent = kNoNode;
  child.expanded = true;
  nodes_.push_back(std::move(child));
  attach(parent, index);
  return index;
}

void Tree::attach(std::uint32_t parent, std::uint32_t i) {
  children(parent);
  std::vector<std::uint32_t>& kids = nodes_[parent].kids;
  auto at = std::upper_bound(kids.begin(), kids.end(), i, [&](std::uint32_t a, std::uint32_t b) {
    return siblingLess(nodes_[a], nodes_[b]);
  });
  kids.insert(at, i);
  nodes_[i].parent = parent;
}

void Tree::detach(std::uint32_t i) {
  const std::uint32_t parent = nodes_[i].parent;
  if (parent == kNoNode) return;
  children(parent);
  std::vector<std::uint32_t>& kids = nodes_[parent].kids;
  kids.erase(std::remove(kids.begin(), kids.end(), i), kids.end());
  nodes_[i].parent = kNoNode;
}

}  // namespace mox::detail
