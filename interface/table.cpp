// GetOLEInterface: the table of document functions, in slot order.
#include "interface/mox_file.h"

extern "C" MOXOLE_API void GetOLEInterface(void** table) {
  if (table == nullptr) return;
  MoxOleInterface t = {};
  t.hOLEopen = hOLEopen;
  t.hOLEopenClone = hOLEopenClone;
  t.bOLEopenStream = bOLEopenStream;
  t.bOLEopenStreamIgnoreStorage = bOLEopenStreamIgnoreStorage;
  t.bOLEopenEmbeddedStream = bOLEopenEmbeddedStream;
  t.lOLEseek = lOLEseek;
  t.lOLEtell = lOLEtell;
  t.iOLEread = iOLEread;
  t.iOLEclose = iOLEclose;
  t.iOLEcloseClone = iOLEcloseClone;
  t.bOLEcloseStream = bOLEcloseStream;
  t.hSwitchToOLE = hSwitchToOLE;
  t.hSwitchFromOLE = hSwitchFromOLE;
  t.bOLEopenEmbeddedStreamEx = bOLEopenEmbeddedStreamEx;
  t.bOLEgetObject = bOLEgetObject;
  t.lOLEopenObject = lOLEopenObject;
  t.iOLEobjectType = iOLEobjectType;
  t.moxoleGetObjectList = moxoleGetObjectList;
  t.hOLEopenEx = hOLEopenEx;
  t.iOLEopenStreamEx = iOLEopenStreamEx;
  t.iOLEwrite = iOLEwrite;
  t.iOLEGetStreamTree = iOLEGetStreamTree;
  static_assert(sizeof t == MOXOLE_INTERFACE_SLOTS * sizeof(void*),
                "the table is 22 pointers, nothing else");
  __builtin_memcpy(table, &t, sizeof t);
}
