#include "tools/moxole/document.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "format/records.h"
#include "tools/moxole/report.h"

namespace moxole {

std::string nodeName(const _MoxOleTreeNode* node) {
  std::string name;
  for (size_t i = 0; i < sizeof node->szName && node->szName[i] != 0; ++i) {
    unsigned char c = static_cast<unsigned char>(node->szName[i]);
    if (c >= 0x80) name += static_cast<char>(0xC0 | c >> 6);
    name += static_cast<char>(c >= 0x80 ? 0x80 | (c & 0x3F) : c);
  }
  return name;
}

uint32_t nodeSize(const _MoxOleTreeNode* node) {
  return static_cast<uint32_t>(node->iSize);
}

bool isStorage(const _MoxOleTreeNode* node) {
  return node->iType == kStorage || node->iType == kRoot;
}

bool isStream(const _MoxOleTreeNode* node) { return node->iType == kStream; }

std::vector<const _MoxOleTreeNode*> sortedChildren(const _MoxOleTreeNode* node) {
  std::vector<const _MoxOleTreeNode*> children;
  if (node->ppChildren != nullptr) {
    children.assign(node->ppChildren, node->ppChildren + node->iChildCount);
  }
  std::stable_sort(children.begin(), children.end(),
                   [](const _MoxOleTreeNode* a, const _MoxOleTreeNode* b) {
                     return nodeName(a) < nodeName(b);
                   });
  return children;
}

int checkInputFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    return fail(error == ENOENT ? kExitNotFound : kExitIo, path,
                errorText(error));
  }
  struct stat st;
  unsigned char head[8];
  ssize_t got = 0;
  bool directory = fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
  if (!directory) got = pread(fd, head, sizeof head, 0);
  int error = errno;
  close(fd);
  if (directory) return fail(kExitBadDocument, path, "is a directory");
  if (got < 0) return fail(kExitIo, path, errorText(error));
  if (got < 8 || memcmp(head, moxfmt::kSignature, sizeof head) != 0) {
    return fail(kExitBadDocument, path, "not a compound file");
  }
  return kExitOk;
}

Document::Document(const Library& library, const std::string& path)
    : library_(library), path_(path), io_(path, moxhost::FileIo::kRead) {}

std::unique_ptr<Document> Document::open(const Library& library,
                                         const std::string& path,
                                         int* status) {
  *status = checkInputFile(path);
  if (*status != kExitOk) return nullptr;
  const MoxOleInterface& api = library.api();
  if (!library.require(reinterpret_cast<const void*>(api.iOLEGetStreamTree),
                       "iOLEGetStreamTree")) {
    *status = kExitIo;
    return nullptr;
  }
  std::unique_ptr<Document> doc(new Document(library, path));
  doc->handle_ = api.hOLEopen(doc->io_.io(), doc->memory_.memory());
  if (doc->handle_ == nullptr) {
    *status = doc->io_.openError() != 0
                  ? fail(kExitIo, path, errorText(doc->io_.openError()))
                  : fail(kExitBadDocument, path,
                         damagedText(library.openFailure(doc->io_.io(), doc->memory_.memory())));
    return nullptr;
  }
  int poolStatus = 0;
  doc->pool_ = doc->services_.createPool(4096, 0, &poolStatus);
  int treeStatus =
      doc->pool_ == nullptr
          ? MOXOLE_NO_MEMORY
          : api.iOLEGetStreamTree(doc->handle_, doc->pool_, &doc->root_);
  if (treeStatus != MOXOLE_OK || doc->root_ == nullptr) {
    *status = fail(treeStatus == MOXOLE_NO_MEMORY ? kExitIo : kExitBadDocument,
                   path,
                   treeStatus == MOXOLE_NO_MEMORY
                       ? "out of memory reading the directory"
                       : "damaged directory (broken sibling links)");
    return nullptr;
  }
  *status = kExitOk;
  return doc;
}

Document::~Document() {
  if (handle_ != nullptr) library_.api().iOLEclose(handle_);
  if (pool_ != nullptr) services_.destroyPool(pool_);
}

}  // namespace moxole
