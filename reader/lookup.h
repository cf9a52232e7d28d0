// Finding entries in the loaded directory by name.
//
// Names are the 8-bit names of the directory records (the low byte of each
// UTF-16 unit).  Two rules compare them:
//
//   kNameExact     byte for byte, case-sensitive (as strcmp).
//   kNameTolerant  ASCII letters folded to lower case (as strcasecmp), so
//                  "_" orders before every letter.
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

enum MoxNameRule { kNameExact, kNameTolerant };

// A name as bytes and a length.  Directory names are not trusted to carry
// a terminator inside their 33-byte field, so they are measured with a
// bound instead of strlen.
struct MoxName {
  const char* bytes;
  size_t length;
};

// A zero-terminated name from the host.
MoxName moxNameOf(const char* text);
// The name of directory record `index`.
MoxName moxEntryName(const _MoxOleFile* h, int64_t index);

bool moxNamesEqual(MoxName a, MoxName b, MoxNameRule rule);

// Negative when `wanted` lies to the left of `entry` in a sibling tree,
// otherwise zero or positive (right, or the same name).
int moxSiblingOrder(MoxName wanted, MoxName entry, MoxNameRule rule);

// True when `index` names a record of the loaded directory.
inline bool moxIsEntry(const _MoxOleFile* h, int64_t index) {
  return index >= 0 && index < h->iDirCount;
}

// The root storage: the first record of type root or named "Root Entry".
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
// A null path, a depth below 1 or a first slot "Root Entry" all mean the
// root, entry 0, when the handle has a directory.  Every step must reach a
// storage (type 1).
int64_t moxWalkStoragePath(const _MoxOleFile* h, const char (*path)[36], int depth);

// The stream a storage named without a stream name stands for: the entry
// "\x02OlePres000" along the right spine of the storage's sibling tree,
// else the entry before the last one of that spine, else entry 0 when the
// first child has no right sibling.  The choice is not checked for type.
int64_t moxFindPresentationStream(const _MoxOleFile* h, int64_t storage);

#endif  // MOXOLEFIO_READER_LOOKUP_H_
