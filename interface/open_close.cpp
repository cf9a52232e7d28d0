// Opening, cloning and closing document handles.
#include <string.h>

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

extern "C" {

MOXOLE_API _MoxOleFile* hOLEopenEXT(_ZqTPIOobj* io, HostMemory* memory, int openIo) {
  _MoxOleFile* h = moxNewHandle(memory);
  if (h == nullptr) return nullptr;
  h->pTableMemory = memory;
  h->lPosition = -1;
  h->pHostIo = io;
  h->pIo = io;
  if (openIo && !io->open(io)) {
    iOLEclose(h);
    return nullptr;
  }
  if (moxLoadDocument(h) != 0) {
    iOLEcloseEXT(h, openIo ? 1 : 0);
    return nullptr;
  }
  return h;
}

MOXOLE_API _MoxOleFile* hOLEopen(_ZqTPIOobj* io, HostMemory* memory) {
  return hOLEopenEXT(io, memory, 1);
}

MOXOLE_API _MoxOleFile* hOLEopenClone(_MoxOleFile* h) {
  if (h == nullptr || h->pHostIo == nullptr || h->pMemory == nullptr) return nullptr;
  return hOLEopenEXT(h->pHostIo, h->pMemory, 0);
}

MOXOLE_API int iOLEcloseEXT(_MoxOleFile* h, int closeIo) {
  if (closeIo && h->pHostIo != nullptr) h->pHostIo->close(h->pHostIo);
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

MOXOLE_API int iOLEclose(_MoxOleFile* h) {
  if (h == nullptr) return -1;
  return iOLEcloseEXT(h, 1);
}

MOXOLE_API int iOLEcloseClone(_MoxOleFile* h) {
  if (h == nullptr) return -1;
  return iOLEcloseEXT(h, 0);
}

MOXOLE_API int64_t lOLEtell(_MoxOleFile* h) { return h == nullptr ? -1 : h->lPosition; }

}  // extern "C"
