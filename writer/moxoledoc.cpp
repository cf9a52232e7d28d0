// CMoxOleDocument: building, entry creation and teardown.
#include "writer/moxoledoc.h"

#include <string.h>

#include <new>

#include "interface/mox_file.h"

CMoxOleDocument::CMoxOleDocument(tag_TPVAPIServices* services)
    : pRootEntry(nullptr),
      pHeader(nullptr),
      pServices(services),
      pOleIo(nullptr),
      lNextOrdinal(1),  // 0 is the root's, which sits in no tree
      iMode(kDocumentWritable) {}

CMoxOleDocument::~CMoxOleDocument() {
  delete pHeader;
  delete pRootEntry;
  delete pOleIo;
}

int CMoxOleDocument::init(_ZqTPIOobj* io, int flags) {
  iMode = flags;
  pHeader = new (std::nothrow) CMoxOleHeader();
  if (pHeader == nullptr) return MOXOLE_NO_MEMORY;
  char rootName[sizeof moxfmt::kRootName];
  memcpy(rootName, moxfmt::kRootName, sizeof rootName);
  pRootEntry = CMoxOleEntry::create(rootName, kEntryRoot, pServices, pHeader);
  if (pRootEntry == nullptr) return MOXOLE_NO_MEMORY;
  pRootEntry->plOrdinalCounter = &lNextOrdinal;
  if ((flags & kDocumentWritable) == 0) return MOXOLE_OK;

  pOleIo = new (std::nothrow) CMoxOleIo(pServices);
  if (pOleIo == nullptr) return MOXOLE_NO_MEMORY;
  iMode = kDocumentWritable;
  return pOleIo->open(io);
}

int CMoxOleDocument::addEntry(char const* path, int type, CMoxOleEntry*& entry) {
  entry = nullptr;
  if ((iMode & kDocumentWritable) == 0) return MOXOLE_NOT_FOUND;
  if (type != kEntryStorage && type != kEntryStream) return MOXOLE_BAD_ARGUMENT;
  char parentPath[kPathBufferSize];
  char name[kNameBufferSize];
  parseKey(path, parentPath, name);
  CMoxOleEntry* parent = findParent(parentPath);
  if (parent == nullptr) return MOXOLE_NOT_FOUND;

  // Room in the list first: once the child is in its parent's tree and has
  // drawn its index, nothing may fail any more.
  if (!vEntries.reserve(vEntries.size() + 1)) return MOXOLE_NO_MEMORY;
  CMoxOleEntry* child = CMoxOleEntry::create(name, type, pServices, pHeader);
  if (child == nullptr) return MOXOLE_NO_MEMORY;
  child->plOrdinalCounter = &lNextOrdinal;
  int status = parent->addChild(child);
  if (status != MOXOLE_OK) {
    delete child;
    return status;
  }
  vEntries.append(child);
  entry = child;
  return MOXOLE_OK;
}
