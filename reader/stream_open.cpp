// Opening a stream by name, by storage and name, or by storage path.
//
// Every open is a lookup followed by a chain build and a seek to 0.  A
// lookup that finds nothing leaves the current stream alone; once an entry
// is found, the old stream is released whatever happens next.  A null
// name cannot be looked up, so an open that needs one fails.
#include "reader/lookup.h"
#include "reader/stream.h"

namespace {

// A stream search result as an entry number, or -1 for "not there".
int64_t foundEntry(const _MoxOleFile* h, int result) {
  return moxIsEntry(h, result) ? result : -1;
}

}  // namespace

int64_t moxLookUpStream(_MoxOleFile* h, const char* stream, const char* storage,
                        int ignoreStorage) {
  if (ignoreStorage) {
    if (stream == nullptr) return -1;
    return moxScanByName(h, moxNameOf(stream), kEntryStream, kNameExact);
  }
  if (storage != nullptr) {
    const int64_t parent = moxScanByName(h, moxNameOf(storage), kAnyType, kNameExact);
    if (parent < 0) return -1;
    if (stream == nullptr) return moxFindPresentationStream(h, parent);
    return foundEntry(h, moxFindStreamInStorage(h, stream, static_cast<int>(parent)));
  }
  if (stream == nullptr) return -1;
  const int64_t root = moxFindRoot(h);
  if (root < 0) return -1;
  return foundEntry(h, moxFindStreamInStorage(h, stream, static_cast<int>(root)));
}

int moxFinishOpen(_MoxOleFile* h) {
  if (moxSeek(h, 0, 0) != -1) return 1;
  moxReleaseChain(h);
  return 0;
}

int moxOpenStream(_MoxOleFile* h, const char* stream, const char* storage, int ignoreStorage) {
  const int64_t entry = moxLookUpStream(h, stream, storage, ignoreStorage);
  if (entry < 0) return moxFailWith(h, 0, MoxReason::kNoSuchEntry);
  if (moxBuildChain(h, entry, kChainLenient) != 0) return 0;
  return moxFinishOpen(h);
}

int moxOpenStreamByPath(_MoxOleFile* h, const char (*path)[36], int depth, const char* stream) {
  const int64_t storage = moxWalkStoragePath(h, path, depth);
  if (storage < 0) return moxFailWith(h, 0, MoxReason::kNoSuchEntry);
  const int64_t entry = moxFindChildExact(h, storage, moxNameOf(stream));
  if (entry < 0) return moxFailWith(h, 0, MoxReason::kNoSuchEntry);
  if (h->pDir[entry].byType != kEntryStream) return moxFailWith(h, 0, MoxReason::kNotAStream, entry);
  if (moxBuildChain(h, entry, kChainExact) != 0) return 0;
  return moxFinishOpen(h);
}
