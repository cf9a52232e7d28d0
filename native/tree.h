// The storage tree as the native interface sees it: one node per entry
// reachable from the root, each storage's children kept in the format's
// sibling order.  The editor changes it in place.
//
// Nodes are made as they are needed: a storage's children are read from
// the file the first time anything asks for them, so an open costs no
// memory per entry, and a lookup only what lies on its path.  Lookups
// binary-search a storage's children, so a path costs a descent per
// element whatever order the file's own sibling trees were in.
//
// Const methods may run on several threads at once: each holds the tree's
// lock (expansion adds nodes behind them), and nodes never move once made,
// so a reference to one stays valid.
#ifndef MOXOLEFIO_NATIVE_TREE_H_
#define MOXOLEFIO_NATIVE_TREE_H_

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "native/image.h"
#include "native/stream_data.h"

namespace mox::detail {

constexpr std::uint32_t kNoNode = 0xFFFFFFFF;

struct Node {
  std::u16string name;
  std::string utf8;  // the name as callers see it
  EntryType type = EntryType::other;
  std::array<std::uint8_t, 16> clsid{};
  std::uint32_t state_bits = 0;
  std::uint64_t created = 0;
  std::uint64_t modified = 0;
  std::uint64_t size = 0;
  std::uint32_t id = kNoNode;      // the entry in the file's directory, if any
  std::uint32_t parent = kNoNode;
  std::shared_ptr<StreamData> data;     // content set by an editor; null: as stored
  bool live = true;                     // false once removed

 private:
  friend class Tree;
  std::vector<std::uint32_t> kids;  // in sibling order, once expanded
  bool expanded = false;            // kids read from the file
};

class Tree {
 public:
  static Tree fromImage(std::shared_ptr<const Image> image);
  static Tree empty();
  Tree();
  Tree(const Tree& other);
  Tree& operator=(const Tree& other);
  Tree(Tree&&) noexcept;
  Tree& operator=(Tree&&) noexcept;
  ~Tree();

  const Node& node(std::uint32_t i) const {
    std::lock_guard<std::recursive_mutex> hold(*lock_);
    return nodes_[i];
  }
  // For editors, which own the tree alone.
  Node& node(std::uint32_t i) { return nodes_[i]; }
  // Nodes made so far (every node once walk() has run).
  std::uint32_t size() const;
  // The children of node `i` in sibling order, read from the file the
  // first time they are asked for.
  const std::vector<std::uint32_t>& children(std::uint32_t i) const;

  // The node a path names, or kNoNode.  The rules of the header: a leading
  // '/' ignored, empty elements are empty names, exact name first, else the
  // one name equal ignoring case.
  std::uint32_t find(std::string_view path) const;
  std::uint32_t findChild(std::uint32_t parent, std::string_view name) const;
  std::string pathOf(std::uint32_t i) const;

  // Node `i` in pre-order: the root, then each child's subtree in order.
  // Calls visit(node, path, depth) for the root (depth 0), then every
  // node below it, depth first, children in order.
  template <typename Visit>
  void walk(Visit&& visit) const;

  // Editing: adds a node under `parent` in order, or takes one out.  A
  // node's children are all read from the file before it changes.
  std::uint32_t addChild(std::uint32_t parent, Node child);
  void detach(std::uint32_t i);
  void attach(std::uint32_t parent, std::uint32_t i);

 private:
  void expand(std::uint32_t i) const;

  // Mutable: expansion adds nodes behind const lookups.  A deque, so that
  // references to nodes stay valid as nodes are added.
  mutable std::deque<Node> nodes_;
  std::shared_ptr<const Image> image_;
  mutable std::vector<bool> claimed_;  // entries already listed somewhere
  std::unique_ptr<std::recursive_mutex> lock_;
};

// Splits "a/b/c" into its elements after dropping one leading '/'; ""
// alone names the root, "/" the child with an empty name.
std::vector<std::string_view> splitPath(std::string_view path);
// The path of a child named `name` under a node with path `parentPath`;
// appendChildPath turns the parent's path into the child's in place.
std::string childPath(const std::string& parentPath, bool parentIsRoot, const std::string& name);
void appendChildPath(std::string& path, bool parentIsRoot, const std::string& name);

template <typename Visit>
void Tree::walk(Visit&& visit) const {
  // An explicit stack: a damaged file can nest entries thousands deep.
  // One path buffer serves the whole walk: every node met between a
  // parent and its next child lies below that parent, so the buffer
  // still starts with the parent's path, which is cut back to.
  struct Frame {
    std::uint32_t node;
    std::uint32_t depth;
    std::uint32_t parent;         // kNoNode for the root
    std::size_t parentPathSize;
  };
  std::lock_guard<std::recursive_mutex> hold(*lock_);
  std::vector<Frame> stack;
  std::string path;
  stack.push_back(Frame{0, 0, kNoNode, 0});
  while (!stack.empty()) {
    const Frame f = stack.back();
    stack.pop_back();
    if (f.parent != kNoNode) {
      path.resize(f.parentPathSize);
      appendChildPath(path, f.parent == 0, nodes_[f.node].utf8);
    }
    visit(f.node, path, f.depth);
    const std::vector<std::uint32_t>& kids = children(f.node);
    for (auto it = kids.rbegin(); it != kids.rend(); ++it) {
      stack.push_back(Frame{*it, f.depth + 1, f.node, path.size()});
    }
  }
}

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_TREE_H_
