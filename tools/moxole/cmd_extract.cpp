// moxole extract: a document as a directory tree.
//
// Everything is created relative to directory descriptors with O_EXCL and
// O_NOFOLLOW, and every name passes through escapeName, so neither a hostile
// entry name nor a symbolic link planted in DIR can send a write outside it.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/entries.h"
#include "tools/moxole/names.h"
#include "tools/moxole/progress.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

// Each level keeps one directory descriptor open; damaged files can nest
// storages thousands deep.
constexpr int kMaxDepth = 200;

void countEntries(const EntryNode* node, int64_t* entries, int64_t* bytes) {
  for (const EntryNode* child : node->children) {
    ++*entries;
    if (child->isStream()) *bytes += static_cast<int64_t>(child->entry.size);
    countEntries(child, entries, bytes);
  }
}

bool isEmptyDirectory(int fd) {
  int copy = dup(fd);
  DIR* dir = copy < 0 ? nullptr : fdopendir(copy);
  if (dir == nullptr) {
    if (copy >= 0) close(copy);
    return false;
  }
  bool empty = true;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") empty = false;
  }
  closedir(dir);
  return empty;
}

// Creates DIR (or accepts an empty one) and opens it; -1 after reporting.
int openTarget(const std::string& dir) {
  bool created = mkdir(dir.c_str(), 0777) == 0;
  if (!created && errno != EEXIST) {
    int error = errno;
    fail(kExitIo, dir, errorText(error));
    return -1;
  }
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    fail(kExitIo, dir, error == ENOTDIR ? "exists and is not a directory"
                                        : errorText(error));
    return -1;
  }
  if (!created && !isEmptyDirectory(fd)) {
    close(fd);
    fail(kExitIo, dir, "directory is not empty");
    return -1;
  }
  return fd;
}

class Extractor {
 public:
  Extractor(const EntryTree* doc, std::string dir, Progress* progress)
      : doc_(doc), dir_(std::move(dir)), progress_(progress) {}

  int storage(const EntryNode* node, int fd, const std::string& shown,
              int depth) {
    if (depth > kMaxDepth) {
      return fail(kExitBadDocument, doc_->path(),
                  "storages nested more than " + std::to_string(kMaxDepth) +
                      " deep at " + shown);
    }
    for (const EntryNode* child : node->children) {
      std::string name = escapeName(child->entry.name);
      std::string childShown = joinPath(shown, name);
      int status = kExitOk;
      if (child->isStorage()) {
        status = subStorage(child, fd, name, childShown, depth);
      } else if (child->isStream()) {
        status = stream(child, fd, name, childShown);
      } else {
        Progress::clearLine();
        fprintf(stderr, "moxole: %s: skipped %s, neither a storage nor a stream\n",
                doc_->path().c_str(), childShown.c_str());
      }
      if (status != kExitOk) return status;
      progress_->entryDone();
    }
    return kExitOk;
  }

 private:
  int subStorage(const EntryNode* node, int parent,
                 const std::string& name, const std::string& shown,
                 int depth) {
    if (mkdirat(parent, name.c_str(), 0777) != 0) return createFailed(shown);
    int fd = openat(parent, name.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return createFailed(shown);
    int status = storage(node, fd, shown, depth + 1);
    close(fd);
    return status;
  }

  int stream(const EntryNode* node, int parent, const std::string& name,
             const std::string& shown) {
    int fd = openat(parent, name.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return createFailed(shown);
    std::string target = dir_ + "/" + shown;
    int status = doc_->copyStream(
        *node, shown, [&](const char* data, size_t size) {
          if (!writeAll(fd, data, size)) {
            int error = errno;
            fail(kExitIo, target, errorText(error));
            return false;
          }
          progress_->addBytes(static_cast<int64_t>(size));
          return true;
        });
    if (close(fd) != 0 && status == kExitOk) {
      int error = errno;
      status = fail(kExitIo, target, errorText(error));
    }
    return status;
  }

  // Two entries that escape to one name can only be duplicates, which a
  // sound document does not have.
  int createFailed(const std::string& shown) {
    int error = errno;
    if (error == EEXIST) {
      return fail(kExitBadDocument, doc_->path(),
                  "entry " + shown + " appears twice");
    }
    return fail(kExitIo, dir_ + "/" + shown, errorText(error));
  }

  const EntryTree* doc_;
  std::string dir_;
  Progress* progress_;
};

}  // namespace

int runExtract(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  const std::string& dir = call.operands[1];
  int status;
  std::unique_ptr<EntryTree> doc = EntryTree::open(file, &status);
  if (!doc) return status;
  int fd = openTarget(dir);
  if (fd < 0) return kExitIo;
  int64_t entries = 0, bytes = 0;
  countEntries(&doc->root(), &entries, &bytes);
  Progress progress("extract", entries, bytes);
  status = Extractor(doc.get(), dir, &progress).storage(&doc->root(), fd, "", 0);
  close(fd);
  return status;
}

}  // namespace moxole
