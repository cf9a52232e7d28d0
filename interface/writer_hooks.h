// The reader's two doors into the writer: finishing a writer document when
// its handle closes, and ending the current writer stream when the host
// closes a stream on a handle that has no reader stream open.
#ifndef MOXOLEFIO_INTERFACE_WRITER_HOOKS_H_
#define MOXOLEFIO_INTERFACE_WRITER_HOOKS_H_

#include "interface/mox_file.h"

// Lays out and writes the document, destroys it (which closes the output)
// and clears pDocument.  Nothing happens for a handle without a document.
void closeWriter(_MoxOleFile* h);

// Ends the current writer stream: 0, or 34 when there is none.
int iCloseWriterStream(_MoxOleFile* h);

#endif  // MOXOLEFIO_INTERFACE_WRITER_HOOKS_H_
