// A compound document opened for reading through the library, with its
// storage tree.
//
// What the host ABI offers beyond the native interface ('info' and the
// embedded objects) is read through this; its names are 8-bit only.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_
#define MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "tools/moxole/library.h"

namespace moxole {

// Entry types as the tree reports them.
enum { kStorage = 1, kStream = 2, kRoot = 5 };

// The node's name in UTF-8, each of its stored 8-bit characters taken as
// the character of that number (what the host ABI keeps of a name is the
// low byte of each UTF-16 unit).
std::string nodeName(const _MoxOleTreeNode* node);
// A stream's size as the tree reports it (the low 32 bits).
uint32_t nodeSize(const _MoxOleTreeNode* node);
bool isStorage(const _MoxOleTreeNode* node);  // storage or root
bool isStream(const _MoxOleTreeNode* node);
// Children in byte order of their names, for stable, readable listings.
std::vector<const _MoxOleTreeNode*> sortedChildren(const _MoxOleTreeNode* node);

class Document {
 public:
  // Opens `path`.  On failure prints one line and stores the exit status.
  static std::unique_ptr<Document> open(const Library& library,
                                        const std::string& path, int* status);
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  const std::string& path() const { return path_; }
  const _MoxOleTreeNode* root() const { return root_; }
  _MoxOleFile* handle() const { return handle_; }

 private:
  Document(const Library& library, const std::string& path);

  const Library& library_;
  std::string path_;
  moxhost::CountingMemory memory_;
  moxhost::PoolServices services_;
  moxhost::FileIo io_;
  HostMemory* pool_ = nullptr;  // holds the tree
  _MoxOleFile* handle_ = nullptr;
  _MoxOleTreeNode* root_ = nullptr;
};

// Checks that `path` is a readable file that starts like a compound file;
// otherwise reports why and returns the exit status.
int checkInputFile(const std::string& path);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_
