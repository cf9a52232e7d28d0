// The storage tree as the native interface sees it: one node per entry
// reachable from the root, each storage's children kept in the format's
// sibling order.  Built once from an Image; the editor changes it in place.
//
// Lookups binary-search a storage's children, so a path costs a descent
// per element whatever order the file's own sibling trees were in.
#ifndef MOXOLEFIO_NATIVE_TREE_H_
#define MOXOLEFIO_NATIVE_TREE_H_

#include <array>
#include <cstdint>
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
  std::vector<std::uint32_t> children;  // in sibling order
  std::shared_ptr<StreamData> data;     // content set by an editor; null: as stored
  bool live = true;                     // false once removed
};

class Tree {
 public:
  static Tree fromImage(const Image& image);
  static Tree empty();

  const Node& node(std::uint32_t i) const { return nodes_[i]; }
  Node& node(std::uint32_t i) { return nodes_[i]; }
  std::uint32_t size() const { return static_cast<std::uint32_t>(nodes_.size()); }

  // The node a path names, or kNoNode.  The rules of the header: a leading
  // '/' ignored, empty elements are empty names, exact name first, else the
  // one name equal ignoring case.
  std::uint32_t find(std::string_view path) const;
  std::uint32_t findChild(std::uint32_t parent, std::string_view name) const;
  std::string pathOf(std::uint32_t i) const;

  // Node `i` in pre-order: the root, then each child's subtree in order.
  template <typename Visit>
  void walk(Visit&& visit) const;

  // Editing: adds a node under `parent` in order, or takes one out.
  std::uint32_t addChild(std::uint32_t parent, Node child);
  void detach(std::uint32_t i);
  void attach(std::uint32_t parent, std::uint32_t i);

 private:
  std::vector<Node> nodes_;
};

// Splits "a/b/c" into its elements after dropping one leading '/'; ""
// alone names the root, "/" the child with an empty name.
std::vector<std::string_view> splitPath(std::string_view path);
// The path of a child named `name` under a node with path `parentPath`.
std::string childPath(const std::string& parentPath, bool parentIsRoot, const std::string& name);

template <typename Visit>
void Tree::walk(Visit&& visit) const {
  // An explicit stack: a damaged file can nest entries thousands deep.
  struct Frame {
    std::uint32_t node;
    std::string path;
  };
  std::vector<Frame> stack;
  stack.push_back(Frame{0, std::string()});
  while (!stack.empty()) {
    Frame f = std::move(stack.back());
    stack.pop_back();
    const Node& n = nodes_[f.node];
    visit(f.node, f.path);
    for (auto it = n.children.rbegin(); it != n.children.rend(); ++it) {
      const Node& c = nodes_[*it];
      stack.push_back(Frame{*it, childPath(f.path, f.node == 0, c.utf8)});
    }
  }
}

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_TREE_H_
