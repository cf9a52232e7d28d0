// moxole cat: one stream's bytes to standard output.
#include <errno.h>
#include <unistd.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/entries.h"
#include "tools/moxole/report.h"

namespace moxole {

int runCat(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  const std::string& path = call.operands[1];
  int status;
  std::unique_ptr<EntryTree> doc = EntryTree::open(file, &status);
  if (!doc) return status;
  const EntryNode* node = doc->find(path);
  if (node == nullptr) return fail(kExitNotFound, file, "no entry " + path);
  if (!node->isStream()) {
    return fail(kExitNotFound, file, path + (node->isStorage() ? " is a storage" : " is not a stream"));
  }
  return doc->copyStream(*node, path, [](const char* data, size_t size) {
    if (writeAll(STDOUT_FILENO, data, size)) return true;
    int error = errno;
    fail(kExitIo, "standard output", errorText(error));
    return false;
  });
}

}  // namespace moxole
