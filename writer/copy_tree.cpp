// copyStreamTree: the name index of a document opened for reading.
#include <string.h>

#include "writer/entry.h"
#include "writer/writer.h"

namespace {

constexpr size_t kTreeNameSize = sizeof(static_cast<_MoxOleTreeNode*>(nullptr)->szName);

// The entry standing for node under parent, or null when it cannot be
// made or its name is taken there.  Copies need no type of their own: only
// names are looked up, and the source file says what each entry is.
CMoxOleEntry* copyOf(tag_TPVAPIServices* services, const _MoxOleTreeNode* node,
                         CMoxOleEntry* parent) {
  char name[kTreeNameSize + 1];
  size_t length = strnlen(node->szName, kTreeNameSize);
  memcpy(name, node->szName, length);
  name[length] = 0;
  CMoxOleEntry* entry = CMoxOleEntry::create(name, kEntryStream, services, nullptr);
  if (entry == nullptr) return nullptr;
  entry->lIndex = node->iIndex;
  if (parent->addChild(entry) != MOXOLE_OK) {
    delete entry;
    return nullptr;
  }
  return entry;
}

}  // namespace

// Recursion follows storage nesting only, which the storage tree has
// already bounded by its step limit.
int copyStreamTree(tag_TPVAPIServices* services, _MoxOleTreeNode* node,
                   CMoxOleEntry* parent) {
  if (node == nullptr) return MOXOLE_BAD_LINK;
  CMoxOleEntry* below = parent;
  if (node->iType != kEntryRoot) {
    below = copyOf(services, node, parent);
    if (below == nullptr) return MOXOLE_OK;
  }
  for (int i = 0; node->ppChildren != nullptr && i < node->iChildCount; ++i) {
    if (node->ppChildren[i] != nullptr) copyStreamTree(services, node->ppChildren[i], below);
  }
  return MOXOLE_OK;
}
