// Opening a stream by name, by storage and name, by storage path or by
// entry number, and closing it.
//
// Every open is a lookup followed by a chain build and a seek to 0.  A
// lookup that finds nothing leaves the current stream alone; once an entry
// is found, the old stream is released whatever happens next.  A null
// name cannot be looked up, so an open that needs one fails.
#include "interface/writer_hooks.h"
#include "reader/lookup.h"
#include "reader/stream.h"

namespace {

// A stream search result as an entry number, or -1 for "not there".
int64_t foundEntry(const _MoxOleFile* h, int result) {
  return moxIsEntry(h, result) ? result : -1;
}

// The entry iGetStreamChain builds, or -1.  Changes nothing but iError.
int64_t lookUpStream(_MoxOleFile* h, const char* stream, const char* storage,
                     int ignoreStorage) {
  if (ignoreStorage) {
    if (stream == nullptr) return -1;
    return moxScanByName(h, moxNameOf(stream), kEntryStream, kNameExact);
  }
  if (storage != nullptr) {
    const int64_t parent = moxScanByName(h, moxNameOf(storage), kAnyType, kNameExact);
    if (parent < 0) return -1;
    if (stream == nullptr) return moxFindPresentationStream(h, parent);
    return foundEntry(h, iFindIStreamGivenIStorage(h, stream, static_cast<int>(parent)));
  }
  if (stream == nullptr) return -1;
  const int64_t root = moxFindRoot(h);
  if (root < 0) return -1;
  return foundEntry(h, iFindIStreamGivenIStorage(h, stream, static_cast<int>(root)));
}

int openStream(_MoxOleFile* h, const char* stream, const char* storage, int ignoreStorage) {
  if (iGetStreamChain(h, stream, storage, ignoreStorage) != 0) return 0;
  return moxFinishOpen(h);
}

}  // namespace

int moxFinishOpen(_MoxOleFile* h) {
  if (lOLEseek(h, 0, 0) != -1) return 1;
  bOLEcloseStream(h, nullptr);
  return 0;
}

int bOLEcloseStream_internal(_MoxOleFile* h, const char* stream) {
  return bOLEcloseStream(h, stream);
}

extern "C" {

MOXOLE_API int iGetStreamChain(_MoxOleFile* h, const char* stream, const char* storage,
                               int ignoreStorage) {
  if (h == nullptr) return -1;
  const int64_t entry = lookUpStream(h, stream, storage, ignoreStorage);
  if (entry < 0) return -1;
  return moxBuildChain(h, entry, kChainLenient);
}

MOXOLE_API int bOLEopenStream(_MoxOleFile* h, const char* stream) {
  return openStream(h, stream, nullptr, 0);
}

MOXOLE_API int bOLEopenStreamIgnoreStorage(_MoxOleFile* h, const char* stream) {
  return openStream(h, stream, nullptr, 1);
}

MOXOLE_API int bOLEopenEmbeddedStream(_MoxOleFile* h, const char* stream,
                                      const char* storage) {
  return openStream(h, stream, storage, 0);
}

MOXOLE_API int bOLEopenEmbeddedStreamEx(_MoxOleFile* h, const char (*path)[36], int depth,
                                        const char* stream) {
  if (h == nullptr || stream == nullptr) return 0;
  const int64_t storage = moxWalkStoragePath(h, path, depth);
  if (storage < 0) return 0;
  const int64_t entry = moxFindChildExact(h, storage, moxNameOf(stream));
  if (entry < 0 || h->pDir[entry].byType != kEntryStream) return 0;
  if (moxBuildChain(h, entry, kChainExact) != 0) return 0;
  return moxFinishOpen(h);
}

MOXOLE_API int bOLEcloseStream(_MoxOleFile* h, const char* /*stream*/) {
  if (h == nullptr) return 0;
  if (moxReleaseChain(h)) return 1;
  if (h->pWriterStream != nullptr) return iCloseWriterStream(h) == 0 ? 1 : 0;
  return 0;
}

}  // extern "C"
