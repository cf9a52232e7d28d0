// A compound file opened for reading through the native interface, with
// its tree of entries, for the commands that show or copy what it holds.
//
// The tree is rebuilt from walk() rather than asked for storage by
// storage: a path cannot spell a name holding '/', but walk() lists every
// reachable entry, and streams are opened by the entry itself.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_ENTRIES_H_
#define MOXOLEFIO_TOOLS_MOXOLE_ENTRIES_H_

#include <stddef.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "moxolefio/moxolefio.hpp"

namespace moxole {

struct EntryNode {
  mox::Entry entry;
  std::vector<const EntryNode*> children;  // in byte order of their names
  bool isStorage() const { return entry.is_storage(); }
  bool isStream() const { return entry.is_stream(); }
};

// Receives stream bytes; returns false after reporting its own failure.
using ByteSink = std::function<bool(const char* data, size_t size)>;

class EntryTree {
 public:
  // Opens `path`.  On failure prints one line and stores the exit status.
  static std::unique_ptr<EntryTree> open(const std::string& path, int* status);

  const std::string& path() const { return path_; }
  const EntryNode& root() const { return nodes_.front(); }

  // The entry at a '/' path (escapes accepted; "" is the root).  An exact
  // name wins; otherwise a name differing only in ASCII case is taken when
  // it is the only one.  Null when there is none.
  const EntryNode* find(const std::string& path) const;

  // Feeds the bytes of stream `node` to `sink`.  `shownAs` names it in
  // messages.  Returns an exit status; failures are reported.
  int copyStream(const EntryNode& node, const std::string& shownAs, const ByteSink& sink) const;

 private:
  EntryTree(std::string path, mox::CompoundFile file)
      : path_(std::move(path)), file_(std::move(file)) {}

  std::string path_;
  mox::CompoundFile file_;
  std::vector<EntryNode> nodes_;  // walk() order: the root first
};

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_ENTRIES_H_
