// Until the writer lands, no handle carries a writer document or stream.
#include "interface/writer_hooks.h"

void moxCloseWriter(_MoxOleFile* h) { h->pDocument = nullptr; }

int moxCloseWriterStream(_MoxOleFile*) { return 34; }
