// What a CompoundFile holds: the file as read (absent for a new one) and
// the tree the interface answers from.  Editing keeps its state beside
// them; reading never changes either.
#ifndef MOXOLEFIO_NATIVE_FILE_IMPL_H_
#define MOXOLEFIO_NATIVE_FILE_IMPL_H_

#include <filesystem>
#include <future>
#include <memory>
#include <string>

#include "moxolefio/moxolefio.hpp"
#include "native/image.h"
#include "native/tree.h"

namespace mox::detail {
class Scratch;
}

namespace mox {

// Hidden: the class around it is exported, its inside is not.
struct __attribute__((visibility("hidden"))) CompoundFile::Impl {
  std::shared_ptr<const detail::Image> image;  // null for a file made by create
  detail::Tree tree;
  std::filesystem::path path;  // empty for files in memory
  OpenOptions options;
  int version = 4;
  std::uint32_t sector_size = 4096;
  bool writable = false;
  // Editing: where new stream bytes wait for the next commit.  A file from
  // create or open_rw has one; the committed state is `image` itself
  // (revert rebuilds the tree from it).
  std::shared_ptr<detail::Scratch> scratch;
  // Entries added, removed, renamed or moved since the last commit: the
  // next one lays the file out anew.
  bool layout_changed = false;
  // Whether check() finds nothing in `image`; -1 until a commit asks.
  int image_clean = -1;
  // The image a commit replaced, let go of on another thread: its file was
  // just unlinked by the rename, so closing it makes the kernel drop every
  // cached page of it, milliseconds the caller need not wait for.  Joined
  // by the next commit and by the destructor (last member: first to go).
  std::future<void> releasing;

  // For messages: the file's path, or "<memory>".
  std::string name() const;
  // The node a path names; throws Error(not_found).
  std::uint32_t require(std::string_view path) const;
  Entry entryOf(std::uint32_t node, std::string path) const;
  // The same into an Entry that a walk reuses, so that its strings keep
  // their storage from one entry to the next.
  void fillEntry(std::uint32_t node, const std::string& path, std::uint32_t depth, Entry& e) const;
  Stream openStream(std::uint32_t node, const std::string& path) const;
  // The stream of a writable file, turned into an edited stream (a view of
  // the stored one until written) on first use.
  Stream openWritable(std::uint32_t node, const std::string& path);
};

}  // namespace mox

#endif  // MOXOLEFIO_NATIVE_FILE_IMPL_H_
