// moxole objects and moxole object: embedded objects of word-processing
// documents, which keep each one in a storage named "_" and its number.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/document.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

const char kMetafile[] = "\x03META";
const char kPicture[] = "\x03PIC";
constexpr int kPictureBytes = 76;

bool isObjectName(const std::string& name) {
  if (name.size() < 2 || name[0] != '_') return false;
  for (size_t i = 1; i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

struct ObjectStorage {
  const _MoxOleTreeNode* node;
  std::string shown;
};

void collectObjects(const _MoxOleTreeNode* node, const std::string& shown,
                    std::vector<ObjectStorage>* found) {
  for (const _MoxOleTreeNode* child : sortedChildren(node)) {
    std::string childShown = joinPath(shown, escapeName(nodeName(child)));
    if (!isStorage(child)) continue;
    if (isObjectName(nodeName(child))) found->push_back({child, childShown});
    collectObjects(child, childShown, found);
  }
}

const _MoxOleTreeNode* childNamed(const _MoxOleTreeNode* node,
                                  const std::string& name) {
  for (int i = 0; i < node->iChildCount; ++i) {
    if (nodeName(node->ppChildren[i]) == name) return node->ppChildren[i];
  }
  return nullptr;
}

bool parseNumber(const std::string& text, long long* number) {
  if (text.empty() || text.size() > 18) return false;
  *number = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    *number = *number * 10 + (c - '0');
  }
  return true;
}

// Opens OUT ourselves first, so that an unwritable path gets a real reason
// rather than the library's bare failure.
int checkOutput(const std::string& out) {
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return fail(kExitIo, out, errorText(errno));
  close(fd);
  return kExitOk;
}

int writePicture(const std::string& out, const unsigned char* record) {
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return fail(kExitIo, out, errorText(errno));
  bool ok = writeAll(fd, reinterpret_cast<const char*>(record), kPictureBytes);
  int error = errno;
  if (close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  return ok ? kExitOk : fail(kExitIo, out, errorText(error));
}

}  // namespace

int runObjects(const Library& library, const Invocation& call) {
  int status;
  std::unique_ptr<Document> doc =
      Document::open(library, call.operands[0], &status);
  if (!doc) return status;
  std::vector<ObjectStorage> objects;
  collectObjects(doc->root(), "", &objects);
  for (const ObjectStorage& object : objects) {
    std::string streams;
    for (const _MoxOleTreeNode* child : sortedChildren(object.node)) {
      if (!isStream(child)) continue;
      if (!streams.empty()) streams += ", ";
      streams += escapeName(nodeName(child)) + " " +
                 std::to_string(nodeSize(child));
    }
    printf("%-10s %s  %s\n", nodeName(object.node).c_str() + 1,
           object.shown.c_str(), streams.c_str());
  }
  return finishOutput(kExitOk);
}

int runObject(const Library& library, const Invocation& call) {
  const std::string& file = call.operands[0];
  const std::string& out = call.operands[2];
  long long number;
  if (!parseNumber(call.operands[1], &number)) {
    fail(kExitUsage, "object", "N must be a decimal object number");
    return kExitUsage;
  }
  int status;
  std::unique_ptr<Document> doc = Document::open(library, file, &status);
  if (!doc) return status;
  bool picture = call.has('p');
  const char* streamName = picture ? kPicture : kMetafile;
  // The library takes the first storage of that name anywhere in the file.
  std::vector<ObjectStorage> objects;
  collectObjects(doc->root(), "", &objects);
  const ObjectStorage* object = nullptr;
  std::string wanted = "_" + std::to_string(number);
  for (const ObjectStorage& candidate : objects) {
    if (nodeName(candidate.node) == wanted) {
      object = &candidate;
      break;
    }
  }
  if (object == nullptr) {
    return fail(kExitNotFound, file, "no object " + std::to_string(number));
  }
  if (childNamed(object->node, streamName) == nullptr) {
    return fail(kExitNotFound, file,
                "object " + std::to_string(number) + " has no " +
                    escapeName(streamName) + " stream");
  }
  const MoxOleInterface& api = library.api();
  if (!library.require(reinterpret_cast<const void*>(api.bOLEgetObject),
                       "bOLEgetObject") ||
      !library.require(reinterpret_cast<const void*>(api.bOLEopenStream),
                       "bOLEopenStream")) {
    return kExitIo;
  }
  // Extraction hands the document back positioned in its main text, so it
  // needs that stream current to begin with.
  if (!api.bOLEopenStream(doc->handle(), "WordDocument")) {
    return fail(kExitNotFound, file,
                "no WordDocument stream: not a word-processing document");
  }
  int done;
  unsigned char record[kPictureBytes];
  if (picture) {
    done = api.bOLEgetObject(doc->handle(), number, record, 0);
  } else {
    status = checkOutput(out);
    if (status != kExitOk) {
      api.bOLEcloseStream(doc->handle(), "");
      return status;
    }
    done = api.bOLEgetObject(doc->handle(), number,
                             const_cast<char*>(out.c_str()), 3);
  }
  api.bOLEcloseStream(doc->handle(), "");
  if (!done) {
    return fail(kExitBadDocument, file,
                "object " + std::to_string(number) + " cannot be extracted");
  }
  return picture ? writePicture(out, record) : kExitOk;
}

}  // namespace moxole
