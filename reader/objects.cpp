// Objects embedded in a word-processing document: storages named "_" and
// a number, holding a metafile stream "\x03META" and a picture header
// stream "\x03PIC".
#include <stdio.h>

#include "interface/mox_memory.h"
#include "moxvos.h"
#include "reader/stream.h"
#include "reader/structure.h"

namespace {

constexpr int kTypeMetafile = 3;
constexpr int kCopyBuffer = 10240;
constexpr int kPictureHeader = 76;
const char kMetafileStream[] = "\x03META";
const char kPictureStream[] = "\x03PIC";
const char kMainStream[] = "WordDocument";

// Copies the current "\x03META" stream, after the header whose length its
// first two bytes give, to descriptor `fd`.  1 done, 0 failed.
int copyMetafile(_MoxOleFile* h, int fd) {
  unsigned char* buffer =
      static_cast<unsigned char*>(moxAllocate(h->pMemory, 1, kCopyBuffer));
  if (buffer == nullptr) return 0;
  int ok = 0;
  if (moxRead(h, buffer, 2) == 2) {
    const uint32_t headerLength = buffer[0] + 256u * buffer[1];
    // Taken as unsigned: a stored length below 2 jumps past the end, and
    // the copy below then finds nothing to write.
    const uint32_t skip = headerLength - 2;
    if (moxSeek(h, static_cast<int64_t>(skip), 1) != -1) {
      ok = 1;
      for (;;) {
        const uint32_t got = moxRead(h, buffer, kCopyBuffer);
        const int64_t written = moxvos_fwrite(fd, buffer, 1, got);
        if (written != static_cast<int64_t>(got)) ok = 0;  // disk full, quota...
        if (written != static_cast<int64_t>(got) || got != kCopyBuffer) break;
      }
    }
  }
  moxFree(h->pMemory, buffer);
  return ok;
}

// Makes the object's stream current, without positioning it: 0, or -1.
int buildObjectChain(_MoxOleFile* h, const char* stream, const char* storage) {
  const int64_t entry = moxLookUpStream(h, stream, storage, 0);
  if (entry < 0) return -1;
  return moxBuildChain(h, entry, kChainLenient);
}

// Opens the object's stream and copies it to the file or the target.
int extract(_MoxOleFile* h, const char* stream, const char* storage, int fd, void* target,
            int type) {
  if (buildObjectChain(h, stream, storage) != 0 || moxSeek(h, 0, 0) == -1) return 0;
  int copied = 0;
  if (type == kTypeMetafile) {
    copied = copyMetafile(h, fd);
  } else {
    copied = moxRead(h, target, kPictureHeader) == kPictureHeader;
  }
  if (!copied) return 0;
  return moxReleaseChain(h) ? 1 : 0;
}

}  // namespace

int64_t moxOpenObject(_MoxOleFile* h, const char* storage, int type) {
  const char* stream = type == kTypeMetafile ? kMetafileStream : nullptr;
  if (buildObjectChain(h, stream, storage) != 0) return 0;
  if (moxSeek(h, 0, 0) == -1) return 0;
  return h->lStreamSize;
}

int moxGetObject(_MoxOleFile* h, int64_t number, void* target, int type,
                 bool (*closeStream)(_MoxOleFile*)) {
  const char* stream = kPictureStream;
  int fd = -1;
  if (type == kTypeMetafile) {
    stream = kMetafileStream;
    int64_t opened = moxvos_fopen(static_cast<const char*>(target), "wb", nullptr);
    if (opened == -1) return 0;
    fd = static_cast<int>(opened);
  }
  char storage[32];
  snprintf(storage, sizeof storage, "_%ld", static_cast<long>(number));
  const int64_t position = h->lPosition;
  int result = 0;
  if (closeStream(h)) result = extract(h, stream, storage, fd, target, type);
  if (fd != -1) moxvos_fclose(fd);
  if (!moxOpenStream(h, kMainStream, nullptr, 0)) return 0;
  if (moxSeek(h, position, 0) == -1) return 0;
  return result;
}
