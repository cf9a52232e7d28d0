// Does everything a host can do with an open document, without caring
// about the answers: the tree, the object list and types of every storage,
// every stream opened each way and read in uneven pieces with seeks, a
// document nested in a stream, a clone.  Used by sweeps and fuzzers whose
// only question is "no crash, no hang, no leak".
#ifndef MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
#define MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_

#include "moxolefio.h"

// `memory` is the interface the document was opened with (object lists
// are returned to it); `depth` counts nested documents already entered.
// With `objectFile`, every storage named "_" and a number is also
// extracted as an embedded object: its metafile to that file, its picture
// header to a buffer.
void walkDocument(_MoxOleFile* h, HostMemory* memory, int depth = 0,
                  const char* objectFile = nullptr);

#endif  // MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
