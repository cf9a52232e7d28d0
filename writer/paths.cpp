// CMoxOleDocument: splitting backslash paths and resolving them to entries.
#include <string.h>

#include "writer/moxoledoc.h"

namespace {

// Copies at most max characters of text and terminates the copy.
void copyCut(char* out, const char* text, size_t max) {
  size_t n = strnlen(text, max);
  memcpy(out, text, n);
  out[n] = 0;
}

}  // namespace

void CMoxOleDocument::parseKey(char const* path, char* parent, char* name) {
  parent[0] = 0;
  name[0] = 0;
  if (path == nullptr) return;
  char copy[kPathBufferSize];
  copyCut(copy, path, kPathBufferSize - 1);
  char* lastSeparator = strrchr(copy, '\\');
  const char* last = copy;
  if (lastSeparator != nullptr) {
    *lastSeparator = 0;
    copyCut(parent, copy, kPathBufferSize - 1);
    last = lastSeparator + 1;
  }
  copyCut(name, last, kNameMaxLength);
}

CMoxOleEntry* CMoxOleDocument::findParent(char* parent) {
  if (parent == nullptr || parent[0] == 0) return pRootEntry;
  char* component = parent[0] == '\\' ? parent + 1 : parent;
  CMoxOleEntry* entry = pRootEntry;
  for (;;) {
    char* separator = strchr(component, '\\');
    if (separator != nullptr) *separator = 0;
    entry = entry->findChild(component);
    if (entry == nullptr || separator == nullptr) return entry;
    component = separator + 1;
  }
}

CMoxOleEntry* CMoxOleDocument::findEntry(char const* path) {
  char parentPath[kPathBufferSize];
  char name[kNameBufferSize];
  parseKey(path, parentPath, name);
  CMoxOleEntry* parent = findParent(parentPath);
  return parent == nullptr ? nullptr : parent->findChild(name);
}
