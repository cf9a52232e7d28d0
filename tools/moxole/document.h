// A compound document opened for reading through the library, with its
// storage tree.
//
// Entries are reached through the tree and read by directory entry number,
// never by name lookup: the library orders sibling names by lower-case
// folding while most writers fold to upper case, so a lookup by name can
// miss an entry that the tree shows.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_
#define MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "tools/moxole/library.h"

namespace moxole {

// Entry types as the tree reports them.
enum { kStorage = 1, kStream = 2, kRoot = 5 };

// The node's name as stored (8-bit, at most 36 bytes).
std::string nodeName(const _MoxOleTreeNode* node);
// A stream's size as the tree reports it (the low 32 bits).
uint32_t nodeSize(const _MoxOleTreeNode* node);
bool isStorage(const _MoxOleTreeNode* node);  // storage or root
bool isStream(const _MoxOleTreeNode* node);
// Children in byte order of their names, for stable, readable listings.
std::vector<const _MoxOleTreeNode*> sortedChildren(const _MoxOleTreeNode* node);

// Receives stream bytes; returns false after reporting its own failure.
using ByteSink = std::function<bool(const char* data, size_t size)>;

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

  // The entry at a '/' path (escapes accepted; "" is the root).  An exact
  // name wins; otherwise a name differing only in ASCII case is taken when
  // it is the only one.  Null when there is none.
  const _MoxOleTreeNode* find(const std::string& path) const;

  // Feeds the bytes of stream `node` to `sink`.  `shownAs` names it in
  // messages.  Returns an exit status; failures are reported.
  int copyStream(const _MoxOleTreeNode* node, const std::string& shownAs,
                 const ByteSink& sink);

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
  std::vector<char> buffer_;
};

// Checks that `path` is a readable file that starts like a compound file;
// otherwise reports why and returns the exit status.
int checkInputFile(const std::string& path);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_DOCUMENT_H_
