// The document's structure as hosts receive it: the storage tree, the
// children of one storage, and the objects embedded in a word-processing
// document.  Results are those of the host functions of the same purpose.
#ifndef MOXOLEFIO_READER_STRUCTURE_H_
#define MOXOLEFIO_READER_STRUCTURE_H_

#include <stdint.h>

#include "interface/mox_file.h"

// The whole storage tree, every node and children array from `pool`; the
// root node is stored in *out.  MOXOLE_OK, MOXOLE_NO_MEMORY, or
// MOXOLE_BAD_LINK for a negative link or a tree too large to be sound.
int moxStreamTree(_MoxOleFile* h, HostMemory* pool, _MoxOleTreeNode** out);

// The children of the storage a path leads to, in name order, as records
// from pTableMemory stored in *out: their count; 0 when the storage is
// missing or has no children; -1 on a damaged tree or without memory.
int moxObjectList(_MoxOleFile* h, const char (*path)[36], int depth, _MoxOleObjectEntry** out);

// The type of child `name` (not null) of the storage a path leads to; 0
// when there is none.  An empty name with no path walked asks for the
// root's type.
int moxObjectType(_MoxOleFile* h, const char (*path)[36], int depth, const char* name);

// Makes the object's stream in `storage` current at 0 (its metafile for
// type 3, else its presentation stream): its size, or 0.
int64_t moxOpenObject(_MoxOleFile* h, const char* storage, int type);

// Copies object `number`'s metafile (type 3) to the file named by
// `target`, or its 76-byte picture header into the buffer `target`, then
// makes the main stream current again at its earlier position.
// `closeStream` ends whatever stream is current first (true when one was).
// 1 done, 0 not.
int moxGetObject(_MoxOleFile* h, int64_t number, void* target, int type,
                 bool (*closeStream)(_MoxOleFile*));

#endif  // MOXOLEFIO_READER_STRUCTURE_H_
