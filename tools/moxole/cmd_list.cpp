// moxole ls and moxole tree: listings of the storage tree.
#include <stdio.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/document.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

std::string typeWord(const _MoxOleTreeNode* node) {
  switch (node->iType) {
    case kRoot: return "root";
    case kStorage: return "storage";
    case kStream: return "stream";
    default: return "type" + std::to_string(node->iType);
  }
}

void printEntry(const _MoxOleTreeNode* node, const std::string& shown,
                bool longForm) {
  if (!longForm) {
    printf("%s\n", shown.c_str());
    return;
  }
  std::string size = isStream(node) ? std::to_string(nodeSize(node)) : "-";
  printf("%-8s %12s  %s\n", typeWord(node).c_str(), size.c_str(),
         shown.c_str());
}

void listStorage(const _MoxOleTreeNode* node, const std::string& prefix,
                 bool recursive, bool longForm) {
  for (const _MoxOleTreeNode* child : sortedChildren(node)) {
    std::string shown = joinPath(prefix, escapeName(nodeName(child)));
    printEntry(child, shown, longForm);
    if (recursive && isStorage(child)) {
      listStorage(child, shown, recursive, longForm);
    }
  }
}

std::string treeLabel(const _MoxOleTreeNode* node) {
  std::string name = escapeName(nodeName(node));
  if (isStorage(node)) return name + "/";
  if (isStream(node)) {
    return name + "  (" + std::to_string(nodeSize(node)) + " bytes)";
  }
  return name + "  (" + typeWord(node) + ")";
}

void drawChildren(const _MoxOleTreeNode* node, const std::string& indent) {
  std::vector<const _MoxOleTreeNode*> children = sortedChildren(node);
  for (size_t i = 0; i < children.size(); ++i) {
    bool last = i + 1 == children.size();
    printf("%s%s%s\n", indent.c_str(), last ? "`-- " : "|-- ",
           treeLabel(children[i]).c_str());
    drawChildren(children[i], indent + (last ? "    " : "|   "));
  }
}

}  // namespace

int runList(const Library& library, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string path = call.operands.size() > 1 ? call.operands[1] : "";
  int status;
  std::unique_ptr<Document> doc = Document::open(library, file, &status);
  if (!doc) return status;
  const _MoxOleTreeNode* node = doc->find(path);
  if (node == nullptr) return fail(kExitNotFound, file, "no entry " + path);
  if (isStorage(node)) {
    listStorage(node, "", call.has('R'), call.has('l'));
  } else {
    printEntry(node, escapeName(nodeName(node)), call.has('l'));
  }
  return finishOutput(kExitOk);
}

int runTree(const Library& library, const Invocation& call) {
  int status;
  std::unique_ptr<Document> doc =
      Document::open(library, call.operands[0], &status);
  if (!doc) return status;
  printf("%s\n", treeLabel(doc->root()).c_str());
  drawChildren(doc->root(), "");
  return finishOutput(kExitOk);
}

}  // namespace moxole
