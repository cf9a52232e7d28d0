// The host functions over the document's structure: the storage tree,
// object lists and types, and embedded objects.
#include "interface/failure.h"
#include "interface/mox_file.h"
#include "reader/structure.h"

namespace {

bool closeEitherStream(_MoxOleFile* h) { return bOLEcloseStream(h, nullptr) != 0; }

int refuse(_MoxOleFile* h, int result) { return moxFailWith(h, result, MoxReason::kBadArgument); }

}  // namespace

extern "C" {

MOXOLE_API int iOLEGetStreamTree(_MoxOleFile* h, HostMemory* pool, _MoxOleTreeNode** out) {
  if (h == nullptr) return MOXOLE_BAD_ARGUMENT;
  if (pool == nullptr || out == nullptr || pool->allocate == nullptr ||
      pool->allocateArray == nullptr) {
    return refuse(h, MOXOLE_BAD_ARGUMENT);
  }
  return moxStreamTree(h, pool, out);
}

MOXOLE_API int moxoleGetObjectList(_MoxOleFile* h, const char (*path)[36], int depth,
                                   _MoxOleObjectEntry** out) {
  if (h == nullptr) return 0;
  if (out == nullptr) return refuse(h, 0);
  return moxObjectList(h, path, depth, out);
}

MOXOLE_API int iOLEobjectType(_MoxOleFile* h, const char (*path)[36], int depth,
                              const char* name) {
  if (h == nullptr) return 0;
  if (name == nullptr) return refuse(h, 0);
  return moxObjectType(h, path, depth, name);
}

MOXOLE_API int64_t lOLEopenObject(_MoxOleFile* h, const char* storage, int type) {
  if (h == nullptr) return 0;
  if (storage == nullptr) return refuse(h, 0);
  return moxOpenObject(h, storage, type);
}

MOXOLE_API int bOLEgetObject(_MoxOleFile* h, int64_t number, void* target, int type) {
  if (h == nullptr) return 0;
  // Objects are numbered from 0; a negative number names none.
  if (target == nullptr || number < 0) return refuse(h, 0);
  return moxGetObject(h, number, target, type, closeEitherStream);
}

}  // extern "C"
