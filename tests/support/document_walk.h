// Does everything a host can do with an open document, without caring
// about the answers: the tree, the object list and types of every storage,
// every stream opened each way and read in uneven pieces with seeks, a
// document nested in a stream, a clone.  Used by sweeps and fuzzers whose
// only question is "no crash, no hang, no leak".
#ifndef MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
#define MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_

#include "host/moxhost.h"
#include "moxolefio.h"

// The storage tree as a host builds it, in a pool of its own that goes
// with this object.
class StreamTree {
 public:
  StreamTree(_MoxOleFile* h, moxhost::PoolServices& pools)
      : pools_(pools), pool_(pools.createPool(4096, 0, nullptr)) {
    status_ = iOLEGetStreamTree(h, pool_, &root_);
  }
  ~StreamTree() { pools_.destroyPool(pool_); }
  StreamTree(const StreamTree&) = delete;
  StreamTree& operator=(const StreamTree&) = delete;

  int status() const { return status_; }
  // Null unless status() is 0.
  _MoxOleTreeNode* root() const { return status_ == 0 ? root_ : nullptr; }

 private:
  moxhost::PoolServices& pools_;
  HostMemory* pool_;
  _MoxOleTreeNode* root_ = nullptr;
  int status_ = 0;
};

// `memory` is the interface the document was opened with (object lists
// are returned to it); `depth` counts nested documents already entered.
// With `objectFile`, every storage named "_" and a number is also
// extracted as an embedded object: its metafile to that file, its picture
// header to a buffer.
void walkDocument(_MoxOleFile* h, HostMemory* memory, int depth = 0,
                  const char* objectFile = nullptr);

#endif  // MOXOLEFIO_TESTS_SUPPORT_DOCUMENT_WALK_H_
