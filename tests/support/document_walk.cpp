#include "support/document_walk.h"

#include <stdlib.h>
#include <string.h>

#include <vector>


namespace {

using Path = std::vector<std::string>;

// The name-based lookups scan the whole directory when a descent misses;
// a few dozen per document reach every lookup path without making a walk
// of a large file quadratic.
constexpr int kNamedLookups = 48;

struct Walk {
  _MoxOleFile* h;
  HostMemory* memory;
  int depth;
  const char* objectFile;
  int namedLookupsLeft = kNamedLookups;
  bool mayLookUp() { return namedLookupsLeft-- > 0; }
};

// Reads the current stream in uneven pieces with seeks in between.
void readAround(_MoxOleFile* h) {
  static const uint32_t kPieces[] = {1, 63, 64, 65, 511, 512, 4096, 70000};
  std::vector<unsigned char> buffer(70000);
  int64_t size = lOLEseek(h, 0, 2);
  lOLEseek(h, size / 2, 0);
  lOLEseek(h, -3, 1);
  lOLEseek(h, -1, 2);
  lOLEseek(h, 0, 0);
  for (int i = 0; i < 1 << 16 && iOLEread(h, buffer.data(), kPieces[i % 8]) != 0; ++i) continue;
}

// Opens a document nested in the current stream, if there is one.  It
// takes its memory from the outer document's interface, so that a leak in
// it shows in the caller's count.
void openNested(Walk& w) {
  _ZqTPIOobj* io = hSwitchToOLE(w.h);
  if (io == nullptr) return;
  // The slots the library's own open does not use.
  io->open(io);
  io->tell(io);
  io->write(io, "x", 1);
  io->error(io);
  io->close(io);
  _MoxOleFile* inner = hOLEopenEXT(io, w.memory, 0);
  if (inner != nullptr) {
    if (w.depth < 2) walkDocument(inner, w.memory, w.depth, w.objectFile);
    iOLEcloseClone(inner);
  }
  hSwitchFromOLE(w.h);
}

// Extracts the object of a storage named "_" and a number n.
void extractObject(Walk& w, const char* name) {
  if (w.objectFile == nullptr || name[0] != '_' || name[1] < '0' || name[1] > '9') return;
  char* end = nullptr;
  const long long n = strtoll(name + 1, &end, 10);
  if (*end != 0) return;
  unsigned char picture[76];
  bOLEgetObject(w.h, n, picture, 0);
  bOLEgetObject(w.h, n, const_cast<char*>(w.objectFile), 3);
}

void walkStorage(Walk& w, const _MoxOleTreeNode* node, Path& path) {
  _MoxOleFile* h = w.h;
  std::vector<char> slots(36 * (path.size() + 1), 0);
  for (size_t i = 0; i < path.size(); ++i) strncpy(&slots[36 * i], path[i].c_str(), 35);
  auto* typed = reinterpret_cast<const char(*)[36]>(slots.data());
  _MoxOleObjectEntry* list = nullptr;
  if (moxoleGetObjectList(h, typed, static_cast<int>(path.size()), &list) > 0) {
    w.memory->free(w.memory, list);
  }
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    iOLEobjectType(h, typed, static_cast<int>(path.size()), child->szName);
    if (child->iType == 2) {
      if (iReadStreamChain(child->iIndex, h) == 0 && lOLEseek(h, 0, 0) == 0) {
        readAround(h);
        if (i == 0) openNested(w);
      }
      if (w.mayLookUp()) {
        bOLEopenStream(h, child->szName);
        bOLEopenEmbeddedStreamEx(h, typed, static_cast<int>(path.size()), child->szName);
        bOLEopenStreamIgnoreStorage(h, child->szName);
      }
    } else if (child->iType == 1 && path.size() < 8) {
      if (w.mayLookUp()) {
        bOLEopenEmbeddedStream(h, nullptr, child->szName);
        lOLEopenObject(h, child->szName, 3);
        extractObject(w, child->szName);
      }
      path.push_back(child->szName);
      walkStorage(w, child, path);
      path.pop_back();
    }
  }
  bOLEcloseStream(h, nullptr);
}

}  // namespace

void walkDocument(_MoxOleFile* h, HostMemory* memory, int depth, const char* objectFile) {
  moxhost::PoolServices services;
  {
    const StreamTree tree(h, services);
    if (tree.root() != nullptr) {
      Path path;
      Walk w{h, memory, depth + 1, objectFile};
      walkStorage(w, tree.root(), path);
    }
  }
  _MoxOleFile* clone = hOLEopenClone(h);
  if (clone != nullptr) {
    bOLEopenStream(clone, "WordDocument");
    iOLEcloseClone(clone);
  }
}
