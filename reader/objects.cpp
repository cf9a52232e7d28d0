// Objects embedded in a word-processing document: storages named "_" and
// a number, holding a metafile stream "\x03META" and a picture header
// stream "\x03PIC".
#include <stdio.h>

#include "interface/mox_memory.h"
#include "moxvos.h"
#include "reader/stream.h"

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
  if (iOLEread(h, buffer, 2) == 2) {
    const uint32_t headerLength = buffer[0] + 256u * buffer[1];
    // Taken as unsigned: a stored length below 2 jumps past the end, and
    // the copy below then finds nothing to write.
    const uint32_t skip = headerLength - 2;
    if (lOLEseek(h, static_cast<int64_t>(skip), 1) != -1) {
      ok = 1;
      for (;;) {
        const uint32_t got = iOLEread(h, buffer, kCopyBuffer);
        const int64_t written = moxvos_fwrite(fd, buffer, 1, got);
        if (written != static_cast<int64_t>(got)) ok = 0;  // disk full, quota...
        if (written != static_cast<int64_t>(got) || got != kCopyBuffer) break;
      }
    }
  }
  moxFree(h->pMemory, buffer);
  return ok;
}

// Opens the object's stream and copies it to the file or the target.
int extract(_MoxOleFile* h, const char* stream, const char* storage, int fd, void* target,
            int type) {
  if (iGetStreamChain(h, stream, storage, 0) != 0 || lOLEseek(h, 0, 0) == -1) return 0;
  int copied = 0;
  if (type == kTypeMetafile) {
    copied = copyMetafile(h, fd);
  } else {
    copied = iOLEread(h, target, kPictureHeader) == kPictureHeader;
  }
  if (!copied) return 0;
  return bOLEcloseStream(h, nullptr) != 0 ? 1 : 0;
}

}  // namespace

extern "C" MOXOLE_API int64_t lOLEopenObject(_MoxOleFile* h, const char* storage, int type) {
  if (h == nullptr) return 0;
  const char* stream = type == kTypeMetafile ? kMetafileStream : nullptr;
  if (iGetStreamChain(h, stream, storage, 0) != 0) return 0;
  if (lOLEseek(h, 0, 0) == -1) return 0;
  return h->lStreamSize;
}

extern "C" MOXOLE_API int bOLEgetObject(_MoxOleFile* h, int64_t number, void* target, int type) {
  if (h == nullptr || target == nullptr) return 0;
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
  const int64_t position = lOLEtell(h);
  int result = 0;
  if (bOLEcloseStream(h, nullptr) != 0) {
    result = extract(h, stream, storage, fd, target, type);
  }
  if (fd != -1) moxvos_fclose(fd);
  if (!bOLEopenStream(h, kMainStream)) return 0;
  if (lOLEseek(h, position, 0) == -1) return 0;
  return result;
}
