// Opening, cloning and closing document handles.
#include <string.h>

#include "interface/failure.h"
#include "interface/mox_file.h"
#include "interface/mox_memory.h"
#include "writer/writer.h"
#include "reader/reader.h"
#include "reader/stream.h"

_MoxOleFile* moxNewHandle(HostMemory* memory) {
  _MoxOleFile* h = static_cast<_MoxOleFile*>(moxAllocate(memory, 1, sizeof(_MoxOleFile)));
  if (h == nullptr) return nullptr;
  memset(h, 0, sizeof *h);
  h->pMemory = memory;
  return h;
}

namespace {

// An I/O object and allocator a document can be read through: the slots a
// load calls must be there.
bool usableHost(const _ZqTPIOobj* io, const HostMemory* memory, int openIo) {
  if (io == nullptr || memory == nullptr) return false;
  if (memory->allocate == nullptr || memory->free == nullptr) return false;
  return io->read != nullptr && io->seek != nullptr && (!openIo || io->open != nullptr);
}

// A handle loaded from io, or null with the reason in *why (and its
// subject in *subject).
_MoxOleFile* openHandle(_ZqTPIOobj* io, HostMemory* memory, int openIo, MoxReason* why,
                        int64_t* subject) {
  *why = MoxReason::kBadArgument;
  *subject = -1;
  if (!usableHost(io, memory, openIo)) return nullptr;
  *why = MoxReason::kNoMemory;
  _MoxOleFile* h = moxNewHandle(memory);
  if (h == nullptr) return nullptr;
  h->pTableMemory = memory;
  h->lPosition = -1;
  h->pHostIo = io;
  h->pIo = io;
  if (openIo && !io->open(io)) {
    *why = MoxReason::kCannotOpenInput;
    iOLEclose(h);
    return nullptr;
  }
  if (moxLoadDocument(h) != 0) {
    *why = static_cast<MoxReason>(h->iFailure);
    *subject = h->lFailureSubject;
    iOLEcloseEXT(h, openIo ? 1 : 0);
    return nullptr;
  }
  *why = MoxReason::kNone;
  return h;
}

}  // namespace

extern "C" {

MOXOLE_API _MoxOleFile* hOLEopenEXT(_ZqTPIOobj* io, HostMemory* memory, int openIo) {
  MoxReason why;
  int64_t subject;
  return openHandle(io, memory, openIo, &why, &subject);
}

MOXOLE_API int moxoleOpenFailure(_ZqTPIOobj* io, HostMemory* memory, char* text, int size) {
  if (!usableHost(io, memory, 0) || size < 0 || (text == nullptr && size > 0)) return -1;
  MoxReason why;
  int64_t subject;
  _MoxOleFile* h = openHandle(io, memory, 0, &why, &subject);
  if (h != nullptr) iOLEcloseEXT(h, 0);
  const int length = moxDescribeFailure(why, subject, text, static_cast<size_t>(size));
  return why == MoxReason::kNone ? 0 : length;
}

MOXOLE_API int moxoleFailure(_MoxOleFile* h, char* text, int size) {
  if (h == nullptr || size < 0 || (text == nullptr && size > 0)) return -1;
  const MoxReason why = static_cast<MoxReason>(h->iFailure);
  const int length = moxDescribeFailure(why, h->lFailureSubject, text, static_cast<size_t>(size));
  return why == MoxReason::kNone ? 0 : length;
}

MOXOLE_API _MoxOleFile* hOLEopen(_ZqTPIOobj* io, HostMemory* memory) {
  return hOLEopenEXT(io, memory, 1);
}

MOXOLE_API _MoxOleFile* hOLEopenClone(_MoxOleFile* h) {
  if (h == nullptr || h->pHostIo == nullptr || h->pMemory == nullptr) return nullptr;
  return hOLEopenEXT(h->pHostIo, h->pMemory, 0);
}

MOXOLE_API int iOLEcloseEXT(_MoxOleFile* h, int closeIo) {
  if (h == nullptr) return -1;
  _ZqTPIOobj* io = h->pHostIo;
  if (closeIo && io != nullptr && io->close != nullptr) io->close(io);
  if (h->pDocument != nullptr) closeWriter(h);
  HostMemory* memory = h->pMemory;
  // A host that forgot to end its stream or its stream-backed object must
  // not leak them with the handle.
  moxReleaseChain(h);
  moxFree(memory, h->pSwitchIo);
  moxForgetMiniStream(h);
  moxFree(memory, h->plMiniFat);
  if (h->ppFat != nullptr) {
    for (int64_t i = 0; i < h->lFatCount; ++i) moxFree(memory, h->ppFat[i]);
    moxFree(memory, h->ppFat);
  }
  moxFree(memory, h->pDir);
  moxFree(memory, h);
  return 1;
}

MOXOLE_API int iOLEclose(_MoxOleFile* h) { return iOLEcloseEXT(h, 1); }

MOXOLE_API int iOLEcloseClone(_MoxOleFile* h) { return iOLEcloseEXT(h, 0); }

MOXOLE_API int64_t lOLEtell(_MoxOleFile* h) { return h == nullptr ? -1 : h->lPosition; }

}  // extern "C"
