// Finding entries in the loaded directory by name.
//
// Names are the 8-bit names of the directory records (the low byte of each
// UTF-16 unit), compared by the rules of interface/sibling_names.h.
//
// The children of a storage form a binary tree through lLeft/lRight,
// rooted at the storage's lChild.  Every descent orders names the same way:
// a shorter name lies to the left, a longer one to the right, and names of
// equal length go left when the wanted name compares less, else right.
// Files written by other libraries may fold case differently, so a descent
// can miss an entry that is there; callers that must find it anyway scan.
//
// A damaged file can link a sibling tree into a cycle.  A descent through
// a tree of iDirCount entries that visits each entry once takes at most
// iDirCount steps, so every walk here stops after that many and reports
// "not found": the bound changes nothing on a file without cycles.
//
// Entry numbers are returned as int64_t; -1 always means "not found".
#ifndef MOXOLEFIO_READER_LOOKUP_H_
#define MOXOLEFIO_READER_LOOKUP_H_

#include <stddef.h>
#include <stdint.h>

#include "interface/mox_file.h"
#include "interface/sibling_names.h"

// The name of directory record `index`, measured within its field.
MoxName moxEntryName(const _MoxOleFile* h, int64_t index);

// True when `index` names a record of the loaded directory.
inline bool moxIsEntry(const _MoxOleFile* h, int64_t index) {
  return index >= 0 && index < h->iDirCount;
}

// The root storage: the first record of type root or named as the root.
int64_t moxFindRoot(const _MoxOleFile* h);

// First record, in directory order, whose name equals `name` under `rule`
// and, when `type` is not kAnyType, whose type is `type`.
constexpr int kAnyType = -1;
int64_t moxScanByName(const _MoxOleFile* h, MoxName name, int type, MoxNameRule rule);

// The child of `storage` named `name`, found by descending the storage's
// sibling tree with exact names.  Any type; the caller checks it.  No scan
// when the descent misses.
int64_t moxFindChildExact(const _MoxOleFile* h, int64_t storage, MoxName name);

// The storage a path of 36-byte name slots (outermost first) leads to.
// A null path, a depth below 1 or a first slot naming the root all mean the
// root, entry 0, when the handle has a directory.  Every step must reach a
// storage (type 1).
int64_t moxWalkStoragePath(const _MoxOleFile* h, const char (*path)[36], int depth);

// The stream a storage named without a stream name stands for: the entry
// "\x02OlePres000" along the right spine of the storage's sibling tree,
// else the entry before the last one of that spine, else entry 0 when the
// first child has no right sibling.  The choice is not checked for type.
int64_t moxFindPresentationStream(const _MoxOleFile* h, int64_t storage);

// The stream named `stream` among the children of entry `storage`: the
// sibling tree is descended with the tolerant rule, and when the descent
// misses, the whole directory is scanned for a stream of that name.  The
// entry number; iDirCount when the scan finds nothing either; -1 when the
// arguments name nothing (and, for a link below -1 met on the way down,
// iError becomes MOXOLE_BAD_LINK).
int moxFindStreamInStorage(_MoxOleFile* h, const char* stream, int storage);

#endif  // MOXOLEFIO_READER_LOOKUP_H_
