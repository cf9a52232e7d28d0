// The writer's functions behind the host's table, as the rest of the
// library sees them.
//
// A handle made by hOLEopenEx carries a CMoxOleDocument in pDocument.  In
// create mode that is all it carries: the file is built in memory and
// written when the handle is closed.  In open mode the handle is a reader
// handle as hOLEopen makes it, and the document only mirrors the source
// file's storages and streams by name, so that streams can be opened by
// path; such a document is never written.
#ifndef MOXOLEFIO_WRITER_WRITER_H_
#define MOXOLEFIO_WRITER_WRITER_H_

#include "interface/mox_file.h"

class CMoxOleDirectory;

// Copies node and everything below it under parent, by name only: every
// copy is a header-less entry that remembers its entry number in the
// source file.  A node of type 5 (the source's root) adds no entry of its
// own; its children go straight under parent.  A copy whose name is
// already taken among its siblings is dropped with its whole subtree.
// 4 when node is null, otherwise 0.
int copyStreamTree(tag_TPVAPIServices* services, _MoxOleTreeNode* node,
                   CMoxOleDirectory* parent);

// Makes the stream at path the handle's current reader stream, positioned
// at 0: 0; 6 when the path names nothing or the stream cannot be
// positioned; the chain set-up's -1 when the entry is no stream of the
// source file.
int moxOpenStreamForReading(_MoxOleFile* h, const char* path);

#endif  // MOXOLEFIO_WRITER_WRITER_H_
