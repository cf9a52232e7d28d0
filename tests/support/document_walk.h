// Does everything a host can do with an open document, without caring
// about the answers: the storage tree now, more as the library grows.
// Used by sweeps whose only question is "no crash, no hang, no leak".
#ifndef MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
#define MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_

#include "moxolefio.h"

void walkDocument(_MoxOleFile* h);

#endif  // MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
