// CMoxOleDirectory: construction, name ordering and the children's tree.
#include "writer/directory.h"

#include <string.h>

#include <new>

#include "interface/mox_file.h"
#include "writer/header.h"

namespace {

size_t nameLength(const char* name) { return name == nullptr ? 0 : strlen(name); }

// Lower case, not upper: the choice decides where '_' (0x5F) sorts, and
// folding down puts it before every letter.  Done by hand rather than with
// strcasecmp so that the host's locale cannot change the order of a file.
unsigned char folded(char c) {
  unsigned char byte = static_cast<unsigned char>(c);
  return (byte >= 'A' && byte <= 'Z') ? static_cast<unsigned char>(byte + 32) : byte;
}

// Sibling order: <0, 0 or >0 as a sorts before, with or after b.
int compareNames(const CMoxOleDirectory* a, const CMoxOleDirectory* b) {
  size_t la = nameLength(a->pszName);
  size_t lb = nameLength(b->pszName);
  if (la != lb) return la < lb ? -1 : 1;
  for (size_t i = 0; i < la; ++i) {
    unsigned char ca = folded(a->pszName[i]);
    unsigned char cb = folded(b->pszName[i]);
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return 0;
}

CMoxOleDirectory* entryOf(void* item) { return static_cast<CMoxOleDirectory*>(item); }

}  // namespace

CMoxOleDirectory::CMoxOleDirectory(char* name, int type, tag_TPVAPIServices* services,
                                   CMoxOleHeader* header)
    : CMoxOleRedBlack(services) {
  setDefaults(type, header);
  if (name == nullptr || pPool == nullptr) return;
  size_t bytes = strlen(name) + 1;
  // Names come cut to a few dozen characters; anything near the host's
  // 32-bit size limit is simply not copied.
  if (bytes > 0x7fffffff) return;
  pszName = static_cast<char*>(pPool->allocate(pPool, static_cast<int>(bytes)));
  if (pszName != nullptr) memcpy(pszName, name, bytes);
}

CMoxOleDirectory::CMoxOleDirectory(ProbeTag, char* name) : CMoxOleRedBlack(nullptr) {
  setDefaults(kEntryStream, nullptr);
  pszName = name;
}

void CMoxOleDirectory::setDefaults(int type, CMoxOleHeader* header) {
  lLeftSibling = kNoOrdinal;
  lRightSibling = kNoOrdinal;
  lChild = kNoOrdinal;
  lIndex = kNoOrdinal;
  pHeader = header;
  pszName = nullptr;
  iType = type;
  iBlockSize = kDefaultBlockSize;
  iMiniSectorSize = 0;
  if (header != nullptr) {
    iBlockSize = 1 << header->iSectorShift;
    iMiniSectorSize = 1 << header->iMiniSectorShift;
  }
  lStartSector = kSectorEndOfChain;
  lMiniStartSector = kSectorEndOfChain;
  plMiniSectors = nullptr;
  lMiniSectorCount = 0;
  lStreamSize = 0;
  iBlockCount = 0;
  iLastBlockFill = iBlockSize;  // "last block full": the first write opens one
  iColour = kNodeBlack;
  pFirstBlock = nullptr;
  pLastBlock = nullptr;
}

CMoxOleDirectory::~CMoxOleDirectory() { DeleteAllNodes(); }

bool CMoxOleDirectory::ready() const { return pPool != nullptr && pszName != nullptr; }

CMoxOleDirectory* CMoxOleDirectory::create(char* name, int type, tag_TPVAPIServices* services,
                                           CMoxOleHeader* header) {
  CMoxOleDirectory* entry = new (std::nothrow) CMoxOleDirectory(name, type, services, header);
  if (entry != nullptr && !entry->ready()) {
    delete entry;
    entry = nullptr;
  }
  return entry;
}

int CMoxOleDirectory::addChild(CMoxOleDirectory* child) {
  _MoxOleRedBlackNode* node = nullptr;
  int status = InsertNode(child, node);
  if (status == MOXOLE_OK) child->iColour = node->byColour;
  return status;
}

CMoxOleDirectory* CMoxOleDirectory::findChild(char* name) {
  CMoxOleDirectory probe(ProbeTag{}, name);
  return entryOf(FindNode(&probe)->pData);
}

bool CMoxOleDirectory::compLT(void* a, void* b) {
  return compareNames(entryOf(a), entryOf(b)) < 0;
}

bool CMoxOleDirectory::compEQ(void* a, void* b) {
  return compareNames(entryOf(a), entryOf(b)) == 0;
}

void CMoxOleDirectory::deleteData(void* data) { delete entryOf(data); }

void CMoxOleDirectory::setOrdinal(void* data, long index, long left, long right) {
  CMoxOleDirectory* entry = entryOf(data);
  entry->lIndex = index;
  entry->lLeftSibling = left;
  entry->lRightSibling = right;
}
