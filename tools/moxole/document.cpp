#include "tools/moxole/document.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "format/records.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

constexpr size_t kReadChunk = 1 << 20;

}  // namespace

std::string nodeName(const _MoxOleTreeNode* node) {
  return std::string(node->szName, strnlen(node->szName, sizeof node->szName));
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
                         "damaged compound file (its header, allocation "
                         "tables or directory cannot be read)");
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

const _MoxOleTreeNode* Document::find(const std::string& path) const {
  std::vector<std::string> names;
  if (!splitPath(path, &names)) return nullptr;
  const _MoxOleTreeNode* node = root_;
  for (const std::string& name : names) {
    if (!isStorage(node)) return nullptr;
    const _MoxOleTreeNode* exact = nullptr;
    const _MoxOleTreeNode* folded = nullptr;
    int foldedCount = 0;
    for (int i = 0; i < node->iChildCount && exact == nullptr; ++i) {
      const _MoxOleTreeNode* child = node->ppChildren[i];
      std::string childName = nodeName(child);
      if (childName == name) {
        exact = child;
      } else if (childName.size() == name.size() &&
                 strncasecmp(childName.data(), name.data(), name.size()) == 0) {
        folded = child;
        ++foldedCount;
      }
    }
    if (exact == nullptr && foldedCount != 1) return nullptr;
    node = exact != nullptr ? exact : folded;
  }
  return node;
}

int Document::copyStream(const _MoxOleTreeNode* node,
                         const std::string& shownAs, const ByteSink& sink) {
  const MoxOleInterface& api = library_.api();
  if (!library_.require(reinterpret_cast<const void*>(library_.readStreamChain),
                        "iReadStreamChain") ||
      !library_.require(reinterpret_cast<const void*>(api.lOLEseek),
                        "lOLEseek") ||
      !library_.require(reinterpret_cast<const void*>(api.iOLEread),
                        "iOLEread") ||
      !library_.require(reinterpret_cast<const void*>(api.bOLEcloseStream),
                        "bOLEcloseStream")) {
    return kExitIo;
  }
  uint32_t expected = nodeSize(node);
  if (library_.readStreamChain(node->iIndex, handle_) != 0) {
    return fail(kExitBadDocument, path_,
                "stream " + shownAs + " cannot be read (broken sector chain)");
  }
  // An empty stream has no sector to stand on, so its seek may be refused;
  // there is nothing to read either way.
  if (api.lOLEseek(handle_, 0, 0) != 0 && expected != 0) {
    api.bOLEcloseStream(handle_, "");
    return fail(kExitBadDocument, path_,
                "stream " + shownAs + " cannot be read (bad sector)");
  }
  buffer_.resize(kReadChunk);
  uint64_t total = 0;
  for (;;) {
    uint32_t got = api.iOLEread(handle_, buffer_.data(),
                                static_cast<uint32_t>(buffer_.size()));
    if (got == 0) break;
    total += got;
    if (!sink(buffer_.data(), got)) {
      api.bOLEcloseStream(handle_, "");
      return kExitIo;
    }
  }
  api.bOLEcloseStream(handle_, "");
  if (static_cast<uint32_t>(total) != expected) {
    return fail(kExitBadDocument, path_,
                "stream " + shownAs + " is cut short (" +
                    std::to_string(total) + " of " + std::to_string(expected) +
                    " bytes)");
  }
  return kExitOk;
}

}  // namespace moxole
