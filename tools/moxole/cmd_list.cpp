// moxole ls and moxole tree: listings of the storage tree.
#include <stdio.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/entries.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

std::string typeWord(const EntryNode* node) {
  switch (node->entry.type) {
    case mox::EntryType::root: return "root";
    case mox::EntryType::storage: return "storage";
    case mox::EntryType::stream: return "stream";
    default: return "other";
  }
}

void printEntry(const EntryNode* node, const std::string& shown, bool longForm) {
  if (!longForm) {
    printf("%s\n", shown.c_str());
    return;
  }
  std::string size = node->isStream() ? std::to_string(node->entry.size) : "-";
  printf("%-8s %12s  %s\n", typeWord(node).c_str(), size.c_str(), shown.c_str());
}

void listStorage(const EntryNode* node, const std::string& prefix, bool recursive, bool longForm) {
  for (const EntryNode* child : node->children) {
    std::string shown = joinPath(prefix, escapeName(child->entry.name));
    printEntry(child, shown, longForm);
    if (recursive && child->isStorage()) listStorage(child, shown, recursive, longForm);
  }
}

std::string treeLabel(const EntryNode* node) {
  std::string name = escapeName(node->entry.name);
  if (node->isStorage()) return name + "/";
  if (node->isStream()) return name + "  (" + std::to_string(node->entry.size) + " bytes)";
  return name + "  (" + typeWord(node) + ")";
}

void drawChildren(const EntryNode* node, const std::string& indent) {
  for (size_t i = 0; i < node->children.size(); ++i) {
    bool last = i + 1 == node->children.size();
    printf("%s%s%s\n", indent.c_str(), last ? "`-- " : "|-- ", treeLabel(node->children[i]).c_str());
    drawChildren(node->children[i], indent + (last ? "    " : "|   "));
  }
}

}  // namespace

int runList(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string path = call.operands.size() > 1 ? call.operands[1] : "";
  int status;
  std::unique_ptr<EntryTree> doc = EntryTree::open(file, &status);
  if (!doc) return status;
  const EntryNode* node = doc->find(path);
  if (node == nullptr) return fail(kExitNotFound, file, "no entry " + path);
  if (node->isStorage()) {
    listStorage(node, "", call.has('R'), call.has('l'));
  } else {
    printEntry(node, escapeName(node->entry.name), call.has('l'));
  }
  return finishOutput(kExitOk);
}

int runTree(const Library&, const Invocation& call) {
  int status;
  std::unique_ptr<EntryTree> doc = EntryTree::open(call.operands[0], &status);
  if (!doc) return status;
  printf("%s\n", treeLabel(&doc->root()).c_str());
  drawChildren(&doc->root(), "");
  return finishOutput(kExitOk);
}

}  // namespace moxole
