// The host functions that find, open, close, seek and read the current
// stream, and the lower-level lookups exported beside them.
#include "interface/failure.h"
#include "interface/mox_file.h"
#include "writer/writer.h"
#include "reader/lookup.h"
#include "reader/stream.h"

namespace {

// A bad argument on a live handle: recorded, nothing else changes.
int refuse(_MoxOleFile* h, int result) { return moxFailWith(h, result, MoxReason::kBadArgument); }

}  // namespace

extern "C" {

MOXOLE_API int iGetStreamChain(_MoxOleFile* h, const char* stream, const char* storage,
                               int ignoreStorage) {
  if (h == nullptr) return -1;
  const int64_t entry = moxLookUpStream(h, stream, storage, ignoreStorage);
  if (entry < 0) return moxFail(h, MoxReason::kNoSuchEntry);
  return moxBuildChain(h, entry, kChainLenient);
}

MOXOLE_API int iFindIStreamGivenIStorage(_MoxOleFile* h, const char* stream, int storage) {
  if (h == nullptr) return -1;
  if (stream == nullptr || !moxIsEntry(h, storage)) return refuse(h, -1);
  return moxFindStreamInStorage(h, stream, storage);
}

// An entry number outside the directory names nothing: the current
// stream stays.
MOXOLE_API int iReadStreamChain(int entry, _MoxOleFile* h) {
  if (h == nullptr) return -1;
  if (!moxIsEntry(h, entry)) return moxFail(h, MoxReason::kNoSuchEntry, entry);
  return moxBuildChain(h, entry, kChainLenient);
}

MOXOLE_API int bOLEopenStream(_MoxOleFile* h, const char* stream) {
  if (h == nullptr) return 0;
  if (stream == nullptr) return refuse(h, 0);
  return moxOpenStream(h, stream, nullptr, 0);
}

MOXOLE_API int bOLEopenStreamIgnoreStorage(_MoxOleFile* h, const char* stream) {
  if (h == nullptr) return 0;
  if (stream == nullptr) return refuse(h, 0);
  return moxOpenStream(h, stream, nullptr, 1);
}

// A storage without a stream name stands for its presentation stream.
MOXOLE_API int bOLEopenEmbeddedStream(_MoxOleFile* h, const char* stream,
                                      const char* storage) {
  if (h == nullptr) return 0;
  if (stream == nullptr && storage == nullptr) return refuse(h, 0);
  return moxOpenStream(h, stream, storage, 0);
}

MOXOLE_API int bOLEopenEmbeddedStreamEx(_MoxOleFile* h, const char (*path)[36], int depth,
                                        const char* stream) {
  if (h == nullptr) return 0;
  if (stream == nullptr) return refuse(h, 0);
  return moxOpenStreamByPath(h, path, depth, stream);
}

// Ends the reader's current stream or, on a handle without one, the
// writer's.
MOXOLE_API int bOLEcloseStream(_MoxOleFile* h, const char* /*stream*/) {
  if (h == nullptr) return 0;
  if (moxReleaseChain(h)) return 1;
  if (h->pWriterStream != nullptr) return iCloseWriterStream(h) == 0 ? 1 : 0;
  return 0;
}

MOXOLE_API int64_t lOLEseek(_MoxOleFile* h, int64_t offset, int whence) {
  if (h == nullptr) return -1;
  return moxSeek(h, offset, whence);
}

MOXOLE_API uint32_t iOLEread(_MoxOleFile* h, void* buffer, uint32_t count) {
  if (h == nullptr) return 0;
  if (buffer == nullptr && count > 0) return static_cast<uint32_t>(refuse(h, 0));
  return moxRead(h, buffer, count);
}

}  // extern "C"
