// CMoxOleEntry: construction, name ordering and the children's tree.
#include "writer/entry.h"

#include <string.h>

#include <new>

#include "interface/mox_file.h"
#include "interface/sibling_names.h"
#include "writer/header.h"

namespace {

// Sibling order: <0, 0 or >0 as a sorts before, with or after b.
int compareNames(const CMoxOleEntry* a, const CMoxOleEntry* b) {
  return moxSiblingOrder(moxNameOf(a->pszName), moxNameOf(b->pszName), kNameTolerant);
}

CMoxOleEntry* entryOf(void* item) { return static_cast<CMoxOleEntry*>(item); }

}  // namespace

CMoxOleEntry::CMoxOleEntry(char* name, int type, tag_TPVAPIServices* services,
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

CMoxOleEntry::CMoxOleEntry(ProbeTag, char* name) : CMoxOleRedBlack(nullptr) {
  setDefaults(kEntryStream, nullptr);
  pszName = name;
}

void CMoxOleEntry::setDefaults(int type, CMoxOleHeader* header) {
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
    iBlockSize = 1 << header->sector_shift;
    iMiniSectorSize = 1 << header->mini_sector_shift;
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

CMoxOleEntry::~CMoxOleEntry() { DeleteAllNodes(); }

bool CMoxOleEntry::ready() const { return pPool != nullptr && pszName != nullptr; }

CMoxOleEntry* CMoxOleEntry::create(char* name, int type, tag_TPVAPIServices* services,
                                           CMoxOleHeader* header) {
  CMoxOleEntry* entry = new (std::nothrow) CMoxOleEntry(name, type, services, header);
  if (entry != nullptr && !entry->ready()) {
    delete entry;
    entry = nullptr;
  }
  return entry;
}

int CMoxOleEntry::addChild(CMoxOleEntry* child) {
  _MoxOleRedBlackNode* node = nullptr;
  int status = InsertNode(child, node);
  if (status == MOXOLE_OK) child->iColour = node->byColour;
  return status;
}

CMoxOleEntry* CMoxOleEntry::findChild(char* name) {
  CMoxOleEntry probe(ProbeTag{}, name);
  return entryOf(FindNode(&probe)->pData);
}

bool CMoxOleEntry::compLT(void* a, void* b) {
  return compareNames(entryOf(a), entryOf(b)) < 0;
}

bool CMoxOleEntry::compEQ(void* a, void* b) {
  return compareNames(entryOf(a), entryOf(b)) == 0;
}

void CMoxOleEntry::deleteData(void* data) { delete entryOf(data); }

void CMoxOleEntry::setOrdinal(void* data, long index, long left, long right) {
  CMoxOleEntry* entry = entryOf(data);
  entry->lIndex = index;
  entry->lLeftSibling = left;
  entry->lRightSibling = right;
}
