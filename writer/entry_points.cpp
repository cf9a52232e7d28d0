// hOLEopenEx, iOLEopenStreamEx, iOLEwrite: the host's way to write a new
// compound file, or to open the streams of an existing one by path.
#include <string.h>

#include <new>

#include "interface/mox_memory.h"
#include "interface/mox_pool.h"
#include "writer/moxoledoc.h"
#include "writer/writer.h"

namespace {

constexpr int kCreateFlag = 1;

// A zero-filled handle that carries nothing but its allocator: none of the
// reader's state exists for a document that is still to be written.
_MoxOleFile* newWriterHandle(HostMemory* memory) {
  _MoxOleFile* h = static_cast<_MoxOleFile*>(moxAllocate(memory, 1, sizeof(_MoxOleFile)));
  if (h == nullptr) return nullptr;
  memset(h, 0, sizeof *h);
  h->pMemory = memory;
  return h;
}

// Gives the read-only document the source file's names.  Without a pool
// the document keeps only its root, and no path resolves.
void mirrorSourceTree(_MoxOleFile* h, tag_TPVAPIServices* services) {
  HostMemory* pool = moxCreatePool(services);
  if (pool == nullptr) return;
  _MoxOleTreeNode* tree = nullptr;
  iOLEGetStreamTree(h, pool, &tree);
  if (tree != nullptr) copyStreamTree(services, tree, h->pDocument->pRootEntry);
  moxDestroyPool(services, pool);  // the source tree goes with it
}

// Undoes a half-made handle.  In open mode the reader's close releases its
// tables and closes the host's I/O object; in create mode the document's
// destruction has already closed whatever its output had opened.
void discardHandle(_MoxOleFile* h, bool create) {
  delete h->pDocument;
  h->pDocument = nullptr;
  if (create) {
    moxFree(h->pMemory, h);
  } else {
    iOLEcloseEXT(h, 1);
  }
}

}  // namespace

extern "C" {

MOXOLE_API _MoxOleFile* hOLEopenEx(_ZqTPIOobj* io, tag_TPVAPIServices* services, int flags) {
  if (io == nullptr || services == nullptr) return nullptr;
  if (flags != 0 && (flags & kCreateFlag) == 0) return nullptr;
  const bool create = (flags & kCreateFlag) != 0;
  _MoxOleFile* h = create ? newWriterHandle(&services->memory)
                          : hOLEopenEXT(io, &services->memory, 1);
  if (h == nullptr) return nullptr;

  h->pDocument = new (std::nothrow) CMoxOleDocument(services);
  int status = h->pDocument == nullptr ? MOXOLE_NO_MEMORY : h->pDocument->init(io, flags);
  if (status != MOXOLE_OK) {
    discardHandle(h, create);
    return nullptr;
  }
  if (!create) mirrorSourceTree(h, services);
  return h;
}

MOXOLE_API int iOLEopenStreamEx(_MoxOleFile* h, const char* path, int type, unsigned flags) {
  if (h == nullptr || path == nullptr || flags > 1) return MOXOLE_BAD_ARGUMENT;
  if (h->pDocument == nullptr) return MOXOLE_NOT_FOUND;
  // Whatever happens next, the stream written so far is finished: it keeps
  // its bytes but cannot become current again.
  h->pWriterStream = nullptr;
  if (flags == 0) return moxOpenStreamForReading(h, path);
  CMoxOleDirectory* entry = nullptr;
  int status = h->pDocument->addDirectory(path, type, entry);
  if (status == MOXOLE_OK) h->pWriterStream = entry;
  return status;
}

MOXOLE_API int iOLEwrite(_MoxOleFile* h, unsigned char* data, int length) {
  if (h == nullptr || h->pWriterStream == nullptr || h->pDocument == nullptr) {
    return MOXOLE_BAD_ARGUMENT;
  }
  return h->pWriterStream->write(data, length);
}

}  // extern "C"
