// iOLEopenStreamEx with flags 0: a stream of the source document, found by
// path in the writer's mirror of its tree and handed to the reader.
#include "reader/stream.h"
#include "writer/moxoledoc.h"
#include "writer/writer.h"

namespace {

constexpr int kFromStart = 0;

}  // namespace

// Entries of a document being created have no index yet (-1), which the
// reader refuses like any entry that is not a stream of the source file.
int moxOpenStreamForReading(_MoxOleFile* h, const char* path) {
  CMoxOleDirectory* entry = h->pDocument->findDirectory(path);
  if (entry == nullptr) return MOXOLE_NOT_FOUND;
  // Copies carry the source's entry numbers, which are ints.
  int status = iReadStreamChain(static_cast<int>(entry->lIndex), h);
  if (status != 0) return status;
  if (lOLEseek_internal(h, 0, kFromStart) == -1) {
    bOLEcloseStream_internal(h, path);
    return MOXOLE_NOT_FOUND;
  }
  return MOXOLE_OK;
}
