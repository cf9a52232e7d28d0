// GetOLEInterface: the table of document functions, in slot order.
#include "interface/mox_file.h"

extern "C" MOXOLE_API void GetOLEInterface(void** table) {
  MoxOleInterface t = {};
  t.hOLEopen = hOLEopen;
  t.hOLEopenClone = hOLEopenClone;
  t.lOLEtell = lOLEtell;
  t.iOLEclose = iOLEclose;
  t.iOLEcloseClone = iOLEcloseClone;
  t.iOLEGetStreamTree = iOLEGetStreamTree;
  static_assert(sizeof t == MOXOLE_INTERFACE_SLOTS * sizeof(void*),
                "the table is 22 pointers, nothing else");
  __builtin_memcpy(table, &t, sizeof t);
}
