// The writer as the host functions reach it.
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

class CMoxOleEntry;

// Copies node and everything below it under parent, by name only: every
// copy is a header-less entry that remembers its entry number in the
// source file.  A node of type 5 (the source's root) adds no entry of its
// own; its children go straight under parent.  A copy whose name is
// already taken among its siblings is dropped with its whole subtree.
// MOXOLE_BAD_LINK when node is null, otherwise MOXOLE_OK.
int copyStreamTree(tag_TPVAPIServices* services, _MoxOleTreeNode* node, CMoxOleEntry* parent);

// Lays out and writes the document, destroys it (which closes the output)
// and clears pDocument and pWriterStream.  Nothing happens for a handle
// without a document.
void closeWriter(_MoxOleFile* h);

// Ends the current writer stream: 0, or MOXOLE_BAD_ARGUMENT when there is
// none.
int iCloseWriterStream(_MoxOleFile* h);

#endif  // MOXOLEFIO_WRITER_WRITER_H_
