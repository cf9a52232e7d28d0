#include "support/document_walk.h"

#include "host/moxhost.h"

void walkDocument(_MoxOleFile* h) {
  moxhost::PoolServices services;
  int status = 0;
  HostMemory* pool = services.createPool(4096, 0, &status);
  _MoxOleTreeNode* root = nullptr;
  iOLEGetStreamTree(h, pool, &root);
  services.destroyPool(pool);
}
