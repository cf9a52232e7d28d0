// The writer's part of closing: the current writer stream, and the whole
// document when its handle goes.
#include "writer/writer.h"
#include "writer/moxoledoc.h"

int iCloseWriterStream(_MoxOleFile* h) {
  if (h == nullptr || h->pWriterStream == nullptr) return MOXOLE_BAD_ARGUMENT;
  h->pWriterStream = nullptr;
  return MOXOLE_OK;
}

// The host learns nothing of a failed write here: it has already let go of
// the handle.  Destroying the document flushes and closes the output.
void closeWriter(_MoxOleFile* h) {
  if (h == nullptr || h->pDocument == nullptr) return;
  h->pDocument->writeDisk();
  delete h->pDocument;
  h->pDocument = nullptr;
  h->pWriterStream = nullptr;
}
