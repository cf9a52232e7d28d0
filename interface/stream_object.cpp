// The current stream as an I/O object of the host's own kind.
//
// The object keeps no state: it reads, seeks and tells through the handle
// named by its private pointer, so whatever stream is current on that
// handle when a function runs is the one it works on.  That lets any code
// written against I/O objects, this library's own open included, read a
// stream as if it were a file: a compound file stored in a stream opens as
// a document of its own.  Opening and closing the object touch nothing, so
// closing a document opened on it leaves the outer stream usable.
#include <string.h>

#include "interface/mox_file.h"
#include "interface/mox_memory.h"

namespace {

constexpr uint32_t kStreamObjectKind = 3;
constexpr uint32_t kStreamObjectKind2 = 5;

_MoxOleFile* handleOf(_ZqTPIOobj* self) { return static_cast<_MoxOleFile*>(self->pPrivate); }

int oleOpenFunc(_ZqTPIOobj*) { return 1; }

int oleReadFunc(_ZqTPIOobj* self, void* buffer, int count) {
  // A negative count would turn into a huge unsigned one.
  if (count < 0) return 0;
  return static_cast<int>(iOLEread(handleOf(self), buffer, static_cast<uint32_t>(count)));
}

int oleWriteFunc(_ZqTPIOobj*, const void*, int) { return 1; }

int oleSeekFunc(_ZqTPIOobj* self, int64_t offset, int whence) {
  return lOLEseek(handleOf(self), offset, whence) == -1 ? 0 : 1;
}

int64_t oleTellFunc(_ZqTPIOobj* self) { return lOLEtell(handleOf(self)); }

int oleCloseFunc(_ZqTPIOobj*) { return 1; }

int oleErrorFunc(_ZqTPIOobj*) { return 0; }

}  // namespace

extern "C" {

MOXOLE_API _ZqTPIOobj* hSwitchToOLE(_MoxOleFile* h) {
  if (h == nullptr) return nullptr;
  _ZqTPIOobj* io = static_cast<_ZqTPIOobj*>(moxAllocate(h->pMemory, 1, sizeof(_ZqTPIOobj)));
  if (io == nullptr) return nullptr;
  memset(io, 0, sizeof *io);
  io->uiKind = kStreamObjectKind;
  io->uiKind2 = kStreamObjectKind2;
  io->pPrivate = h;
  io->pParent = h->pHostIo;
  io->open = oleOpenFunc;
  io->read = oleReadFunc;
  io->write = oleWriteFunc;
  io->seek = oleSeekFunc;
  io->tell = oleTellFunc;
  io->close = oleCloseFunc;
  io->error = oleErrorFunc;
  h->pSwitchIo = io;
  return io;
}

MOXOLE_API _ZqTPIOobj* hSwitchFromOLE(_MoxOleFile* h) {
  if (h == nullptr) return nullptr;
  moxFree(h->pMemory, h->pSwitchIo);
  h->pSwitchIo = nullptr;
  return h->pHostIo;
}

}  // extern "C"
