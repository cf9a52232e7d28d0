// hOLEopenEx, iOLEopenStreamEx, iOLEwrite: the host's way to write a new
// compound file, or to open the streams of an existing one by path.
#include <new>

#include "interface/failure.h"
#include "interface/mox_memory.h"
#include "interface/mox_pool.h"
#include "reader/stream.h"
#include "reader/structure.h"
#include "writer/moxoledoc.h"
#include "writer/writer.h"

namespace {

constexpr int kCreateFlag = 1;

// Gives the read-only document the source file's names.  Without a pool
// the document keeps only its root, and no path resolves.
void mirrorSourceTree(_MoxOleFile* h, tag_TPVAPIServices* services) {
  HostMemory* pool = moxCreatePool(services);
  if (pool == nullptr) return;
  _MoxOleTreeNode* tree = nullptr;
  moxStreamTree(h, pool, &tree);
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

// Records why a writer call failed; its status as it was.
int writerResult(_MoxOleFile* h, int status) {
  switch (status) {
    case MOXOLE_OK: return status;
    case MOXOLE_NO_MEMORY: return moxFailWith(h, status, MoxReason::kNoMemory);
    case MOXOLE_BAD_ARGUMENT: return moxFailWith(h, status, MoxReason::kBadArgument);
    default: break;
  }
  const bool writable = (h->pDocument->iMode & kDocumentWritable) != 0;
  // Entries being written have no number yet.
  if (h->pWriterStream != nullptr) return moxFailWith(h, status, MoxReason::kNotAStream);
  return moxFailWith(h, status, writable ? MoxReason::kCannotCreate : MoxReason::kNotWritable);
}

// Makes the stream at path the handle's current reader stream, positioned
// at 0: 0; 6 when the path names nothing or the stream cannot be
// positioned; the chain build's -1 when the entry is no stream of the
// source file.  Entries of a document being created have no index yet
// (-1), which the chain build refuses like any entry that is no stream.
int openStreamForReading(_MoxOleFile* h, const char* path) {
  CMoxOleEntry* entry = h->pDocument->findEntry(path);
  if (entry == nullptr) return moxFailWith(h, MOXOLE_NOT_FOUND, MoxReason::kNoSuchEntry);
  // Copies carry the source's entry numbers, which are ints.
  const int status = moxBuildChain(h, static_cast<int>(entry->lIndex), kChainLenient);
  if (status != 0) return status;
  if (moxSeek(h, 0, 0) == -1) {
    bOLEcloseStream(h, path);
    return MOXOLE_NOT_FOUND;  // the seek has said why
  }
  return MOXOLE_OK;
}

}  // namespace

extern "C" {

MOXOLE_API _MoxOleFile* hOLEopenEx(_ZqTPIOobj* io, tag_TPVAPIServices* services, int flags) {
  if (io == nullptr || services == nullptr) return nullptr;
  if (services->memory.allocate == nullptr || services->memory.free == nullptr ||
      services->createPool == nullptr || services->destroyPool == nullptr) {
    return nullptr;
  }
  if (flags != 0 && (flags & kCreateFlag) == 0) return nullptr;
  const bool create = (flags & kCreateFlag) != 0;
  // A handle for a document still to be written carries none of the
  // reader's state, only its allocator.
  _MoxOleFile* h = create ? moxNewHandle(&services->memory)
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
  if (h == nullptr) return MOXOLE_BAD_ARGUMENT;
  if (path == nullptr || flags > 1) {
    return moxFailWith(h, MOXOLE_BAD_ARGUMENT, MoxReason::kBadArgument);
  }
  if (h->pDocument == nullptr) return moxFailWith(h, MOXOLE_NOT_FOUND, MoxReason::kNotWritable);
  // A type nothing can be created as is refused before the current writer
  // stream is ended, so that the bad call changes nothing.
  const bool writable = (h->pDocument->iMode & kDocumentWritable) != 0;
  if (flags == 1 && writable && type != kEntryStorage && type != kEntryStream) {
    return moxFailWith(h, MOXOLE_BAD_ARGUMENT, MoxReason::kBadArgument);
  }
  // Whatever happens next, the stream written so far is finished: it keeps
  // its bytes but cannot become current again.
  h->pWriterStream = nullptr;
  if (flags == 0) return openStreamForReading(h, path);
  CMoxOleEntry* entry = nullptr;
  int status = h->pDocument->addEntry(path, type, entry);
  if (status == MOXOLE_OK) h->pWriterStream = entry;
  return writerResult(h, status);
}

MOXOLE_API int iOLEwrite(_MoxOleFile* h, unsigned char* data, int length) {
  if (h == nullptr) return MOXOLE_BAD_ARGUMENT;
  if (h->pWriterStream == nullptr || h->pDocument == nullptr || length < 0 ||
      (data == nullptr && length > 0)) {
    return moxFailWith(h, MOXOLE_BAD_ARGUMENT, MoxReason::kBadArgument);
  }
  return writerResult(h, h->pWriterStream->write(data, length));
}

}  // extern "C"
