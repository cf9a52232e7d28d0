// mox::CompoundFile's writing side: files made or opened for editing, the
// edits on the tree, and commits.
//
// Edits change only the tree and the edited streams; nothing reaches the
// file before commit(), which writes the whole new file beside it and
// renames it over.  Streams nobody wrote are copied from the old file at
// that moment, straight from its mapping.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "format/names.h"
#include "format/records.h"
#include "moxolefio/moxolefio.hpp"
#include "native/edit/atomic_write.h"
#include "native/check.h"
#include "native/edit/edited_stream.h"
#include "native/edit/patch.h"
#include "native/edit/scratch.h"
#include "native/edit/serializer.h"
#include "native/file_impl.h"
#include "native/stream_impl.h"

namespace mox {

using detail::EditedStream;
using detail::kNoNode;
using detail::Node;
using detail::Tree;

namespace {

using Impl = CompoundFile::Impl;

int checkedVersion(int version) {
  if (version != 3 && version != 4) {
    throw Error(Errc::invalid_argument, "version " + std::to_string(version) + ": only 3 and 4 exist");
  }
  return version;
}

void makeWritable(Impl& impl, int version) {
  impl.version = version;
  impl.sector_size = version == 3 ? 512 : 4096;
  impl.writable = true;
  if (impl.path.empty()) {
    impl.scratch = detail::Scratch::inMemory();
  } else {
    std::filesystem::path folder = impl.path.parent_path();
    impl.scratch = detail::Scratch::inFolder(folder.empty() ? std::filesystem::path(".") : folder);
  }
}

// Files keep their version; a sector size other than the two the format
// names is written as its version's own.
int versionOf(const detail::Image& image) {
  if (image.sectorSize() == 512) return 3;
  if (image.sectorSize() == 4096) return 4;
  return image.version() == 4 ? 4 : 3;
}

void requireWritable(const Impl& impl) {
  if (!impl.writable) throw Error(Errc::read_only, impl.name() + ": the file is open for reading");
}

std::u16string checkedName(const Impl& impl, std::string_view name) {
  const std::u16string units = moxfmt::utf8ToUtf16(name);
  std::string why;
  if (units.empty()) why = "names cannot be empty";
  if (units.size() > moxfmt::kNameUnits - 1) why = "names have at most 31 UTF-16 units";
  if (units.find_first_of(u"/\\:!") != std::u16string::npos) why = "names cannot hold '/', '\\', ':' or '!'";
  if (!why.empty()) throw Error(Errc::invalid_argument, impl.name() + ": " + std::string(name) + ": " + why);
  return units;
}

// The sibling under `parent` whose name the format takes for the same one
// (letter case aside), other than `except`; kNoNode when there is none.
std::uint32_t sameName(const Tree& tree, std::uint32_t parent, const std::u16string& name,
                       std::uint32_t except = kNoNode) {
  for (std::uint32_t child : tree.children(parent)) {
    if (child != except && moxfmt::compareSiblingNames(tree.node(child).name, name) == 0) return child;
  }
  return kNoNode;
}

bool isStorage(const Node& n) { return n.type == EntryType::storage || n.type == EntryType::root; }

EditedStream* edited(const Node& n) { return dynamic_cast<EditedStream*>(n.data.get()); }

// The storage at `parts`, made (with the storages above it) where missing.
std::uint32_t makeStorages(Impl& impl, const std::vector<std::string_view>& parts, std::size_t count) {
  std::uint32_t at = 0;
  std::size_t i = 0;
  for (; i < count; ++i) {
    const std::uint32_t next = impl.tree.findChild(at, parts[i]);
    if (next == kNoNode) break;
    if (!isStorage(impl.tree.node(next))) {
      throw Error(Errc::exists, impl.name() + ": " + impl.tree.pathOf(next) + ": is a stream, not a storage");
    }
    at = next;
  }
  // Every name still to be made is checked before the first is added, so
  // that a refused edit leaves the tree as it was.
  std::vector<std::u16string> names;
  for (std::size_t k = i; k < count; ++k) names.push_back(checkedName(impl, parts[k]));
  if (i < count) impl.layout_changed = true;
  for (std::size_t k = i; k < count; ++k) {
    Node n;
    n.name = std::move(names[k - i]);
    n.utf8 = moxfmt::utf16ToUtf8(n.name);
    n.type = EntryType::storage;
    at = impl.tree.addChild(at, std::move(n));
  }
  return at;
}

std::shared_ptr<EditedStream> newStream(const Impl& impl, std::shared_ptr<detail::StreamData> base,
                                        const std::string& path) {
  return std::make_shared<EditedStream>(impl.scratch, std::move(base), detail::maxStreamSize(impl.version),
                                        impl.name() + ": " + path);
}

void detachAll(const Tree& tree, std::uint32_t from) {
  std::vector<std::uint32_t> stack{from};
  while (!stack.empty()) {
    const std::uint32_t i = stack.back();
    stack.pop_back();
    if (EditedStream* s = edited(tree.node(i))) s->detach();
    for (std::uint32_t c : tree.children(i)) stack.push_back(c);
  }
}

Stream makeNewStream(Impl& impl, std::string_view path, bool replace) {
  requireWritable(impl);
  const std::vector<std::string_view> parts = detail::splitPath(path);
  if (parts.empty()) throw Error(Errc::invalid_argument, impl.name() + ": the root is not a stream");
  const std::u16string name = checkedName(impl, parts.back());
  const std::uint32_t parent = makeStorages(impl, parts, parts.size() - 1);
  const std::uint32_t existing = sameName(impl.tree, parent, name);
  if (existing != kNoNode) {
    Node& n = impl.tree.node(existing);
    const std::string where = impl.tree.pathOf(existing);
    if (!replace || n.type != EntryType::stream) {
      throw Error(Errc::exists, impl.name() + ": " + where + ": exists");
    }
    if (EditedStream* old = edited(n)) old->detach();
    n.data = newStream(impl, nullptr, where);
    return makeStream(n.data, where);
  }
  Node n;
  n.name = name;
  n.utf8 = moxfmt::utf16ToUtf8(n.name);
  n.type = EntryType::stream;
  impl.layout_changed = true;
  const std::uint32_t added = impl.tree.addChild(parent, std::move(n));
  const std::string where = impl.tree.pathOf(added);
  impl.tree.node(added).data = newStream(impl, nullptr, where);
  return makeStream(impl.tree.node(added).data, where);
}

// Node `i` of `impl`'s tree, required to be something other than the root.
std::uint32_t requireNotRoot(const Impl& impl, std::string_view path, const char* what) {
  const std::uint32_t node = impl.require(path);
  if (node == 0) throw Error(Errc::invalid_argument, impl.name() + ": the root cannot be " + what);
  return node;
}

// The bytes of a source node, for a copy: stored streams are shared (the
// old file never changes), edited ones copied now, since their file may
// go on changing them.
std::shared_ptr<EditedStream> copiedStream(const Impl& to, const Impl& from, std::uint32_t node,
                                           const std::string& path) {
  const Node& n = from.tree.node(node);
  if (!n.data) return newStream(to, detail::openStoredStream(from.image, n.id, path), path);
  if (!n.data->writable()) return newStream(to, n.data, path);
  auto copy = newStream(to, nullptr, path);
  std::vector<unsigned char> buffer(1 << 20);
  const std::uint64_t size = n.data->size();
  for (std::uint64_t at = 0; at < size;) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size - at));
    const std::size_t got = n.data->readAt(at, buffer.data(), want);
    if (got != want) throw Error(Errc::damaged, from.name() + ": " + path + ": short stream");
    copy->writeAt(at, buffer.data(), got);
    at += got;
  }
  return copy;
}

// After the file's content became `image` (a commit) or went back to it (a
// revert): the tree is the image's, and edited streams still in the file
// now show what is stored, so that Streams open on them go on working;
// the others can no longer be written.  `where` finds an old node's entry
// in the new tree (kNoNode: none).
template <typename Where>
void adopt(Impl& impl, std::shared_ptr<const detail::Image> image, Where&& where) {
  Tree fresh = image ? Tree::fromImage(image) : Tree::empty();
  Tree& old = impl.tree;
  // Edited nodes were all made before: nodes made so far are enough.
  for (std::uint32_t i = 0; i < old.size(); ++i) {
    EditedStream* s = edited(old.node(i));
    if (s == nullptr) continue;
    const std::uint32_t now = old.node(i).live ? where(fresh, i) : kNoNode;
    if (now == kNoNode || fresh.node(now).type != EntryType::stream) {
      s->detach();
      continue;
    }
    s->rebase(detail::openStoredStream(image, fresh.node(now).id, fresh.pathOf(now)));
    fresh.node(now).data = old.node(i).data;
  }
  impl.tree = std::move(fresh);
  impl.image = std::move(image);
}

// What a commit wrote: every live node under its own path.
void adoptCommitted(Impl& impl, std::shared_ptr<const detail::Image> image) {
  adopt(impl, std::move(image), [&](const Tree& fresh, std::uint32_t i) {
    return fresh.find(impl.tree.pathOf(i));
  });
}

// What the image held: entries by their index in its directory, wherever
// an edit had moved them.
void adoptReverted(Impl& impl) {
  std::vector<std::uint32_t> byId;
  auto where = [&](const Tree& fresh, std::uint32_t i) {
    const std::uint32_t id = impl.tree.node(i).id;
    if (byId.empty() && impl.image) {
      byId.assign(impl.image->entryCount(), kNoNode);
      std::vector<std::uint32_t> stack{0};
      while (!stack.empty()) {
        const std::uint32_t n = stack.back();
        stack.pop_back();
        if (fresh.node(n).id != kNoNode) byId[fresh.node(n).id] = n;
        for (std::uint32_t c : fresh.children(n)) stack.push_back(c);
      }
    }
    return id < byId.size() ? byId[id] : kNoNode;
  };
  adopt(impl, impl.image, where);
}

}  // namespace

Stream CompoundFile::Impl::openWritable(std::uint32_t node, const std::string& p) {
  Node& n = tree.node(node);
  if (n.type != EntryType::stream) throw Error(Errc::invalid_argument, name() + ": " + p + ": not a stream");
  if (!n.data) n.data = newStream(*this, detail::openStoredStream(image, n.id, p), p);
  return makeStream(n.data, p);
}

// --- Making and opening ----------------------------------------------------

CompoundFile CompoundFile::create(const std::filesystem::path& path, CreateOptions options) {
  auto impl = std::make_shared<Impl>();
  impl->tree = Tree::empty();
  impl->path = path;
  makeWritable(*impl, checkedVersion(options.version));
  return CompoundFile(std::move(impl));
}

CompoundFile CompoundFile::create_memory(CreateOptions options) {
  auto impl = std::make_shared<Impl>();
  impl->tree = Tree::empty();
  makeWritable(*impl, checkedVersion(options.version));
  return CompoundFile(std::move(impl));
}

CompoundFile CompoundFile::open_rw(const std::filesystem::path& path) {
  auto impl = std::make_shared<Impl>();
  impl->image = detail::Image::load(detail::openFileSource(path, true, true));
  impl->tree = Tree::fromImage(impl->image);
  impl->path = path;
  makeWritable(*impl, versionOf(*impl->image));
  return CompoundFile(std::move(impl));
}

CompoundFile CompoundFile::open_memory_rw(const void* data, std::size_t size) {
  if (data == nullptr && size != 0) throw Error(Errc::invalid_argument, "<memory>: null data");
  const auto* bytes = static_cast<const unsigned char*>(data);
  auto impl = std::make_shared<Impl>();
  impl->image = detail::Image::load(detail::ownBytes(std::vector<unsigned char>(bytes, bytes + size), "<memory>"));
  impl->tree = Tree::fromImage(impl->image);
  makeWritable(*impl, versionOf(*impl->image));
  return CompoundFile(std::move(impl));
}

// --- Edits -----------------------------------------------------------------

void CompoundFile::create_storage(std::string_view path) {
  requireWritable(*impl_);
  const std::vector<std::string_view> parts = detail::splitPath(path);
  makeStorages(*impl_, parts, parts.size());
}

Stream CompoundFile::create_stream(std::string_view path) { return makeNewStream(*impl_, path, true); }

Stream CompoundFile::create_new_stream(std::string_view path) { return makeNewStream(*impl_, path, false); }

void CompoundFile::remove(std::string_view path) {
  requireWritable(*impl_);
  const std::uint32_t node = requireNotRoot(*impl_, path, "removed");
  detachAll(impl_->tree, node);
  impl_->layout_changed = true;
  impl_->tree.detach(node);
  std::vector<std::uint32_t> stack{node};
  while (!stack.empty()) {
    const std::uint32_t i = stack.back();
    stack.pop_back();
    impl_->tree.node(i).live = false;
    for (std::uint32_t c : impl_->tree.children(i)) stack.push_back(c);
  }
}

void CompoundFile::rename(std::string_view path, std::string_view new_name) {
  requireWritable(*impl_);
  const std::uint32_t node = requireNotRoot(*impl_, path, "renamed");
  const std::u16string name = checkedName(*impl_, new_name);
  Tree& tree = impl_->tree;
  const std::uint32_t parent = tree.node(node).parent;
  if (sameName(tree, parent, name, node) != kNoNode) {
    throw Error(Errc::exists, impl_->name() + ": " + std::string(new_name) + ": exists beside " + tree.pathOf(node));
  }
  impl_->layout_changed = true;
  tree.detach(node);
  tree.node(node).name = name;
  tree.node(node).utf8 = moxfmt::utf16ToUtf8(name);
  tree.attach(parent, node);
}

void CompoundFile::move(std::string_view path, std::string_view new_parent_path) {
  requireWritable(*impl_);
  const std::uint32_t node = requireNotRoot(*impl_, path, "moved");
  Tree& tree = impl_->tree;
  const std::uint32_t parent = impl_->require(new_parent_path);
  if (!isStorage(tree.node(parent))) {
    throw Error(Errc::invalid_argument, impl_->name() + ": " + std::string(new_parent_path) + ": not a storage");
  }
  for (std::uint32_t at = parent; at != kNoNode; at = tree.node(at).parent) {
    if (at == node) {
      throw Error(Errc::invalid_argument, impl_->name() + ": " + tree.pathOf(node) + " cannot move below itself");
    }
  }
  if (sameName(tree, parent, tree.node(node).name, node) != kNoNode) {
    throw Error(Errc::exists, impl_->name() + ": " + tree.node(node).utf8 + ": exists in " + std::string(new_parent_path));
  }
  impl_->layout_changed = true;
  tree.detach(node);
  tree.attach(parent, node);
}

void CompoundFile::copy(const CompoundFile& from, std::string_view from_path, std::string_view to_path) {
  requireWritable(*impl_);
  const Impl& source = *from.impl_;
  const std::uint32_t top = source.require(from_path);
  const std::vector<std::string_view> parts = detail::splitPath(to_path);
  if (parts.empty()) throw Error(Errc::exists, impl_->name() + ": the root exists");
  const std::u16string name = checkedName(*impl_, parts.back());
  // What to copy is listed before anything is added: the target may lie
  // inside the source.
  struct Item {
    std::uint32_t node;
    std::size_t parent;  // index in `items` of the parent copy
    std::string path;
  };
  std::vector<Item> items{{top, 0, source.tree.pathOf(top)}};
  for (std::size_t k = 0; k < items.size(); ++k) {
    for (std::uint32_t c : source.tree.children(items[k].node)) {
      // Entries of no known kind have nothing a copy could keep.
      if (source.tree.node(c).type == EntryType::other) continue;
      items.push_back(Item{c, k, detail::childPath(items[k].path, items[k].node == 0, source.tree.node(c).utf8)});
    }
  }
  std::vector<std::shared_ptr<EditedStream>> contents(items.size());
  for (std::size_t k = 0; k < items.size(); ++k) {
    if (source.tree.node(items[k].node).type == EntryType::stream) {
      contents[k] = copiedStream(*impl_, source, items[k].node, items[k].path);
    }
  }
  const std::uint32_t parent = makeStorages(*impl_, parts, parts.size() - 1);
  if (sameName(impl_->tree, parent, name) != kNoNode) {
    throw Error(Errc::exists, impl_->name() + ": " + std::string(to_path) + ": exists");
  }
  impl_->layout_changed = true;
  std::vector<std::uint32_t> made(items.size());
  for (std::size_t k = 0; k < items.size(); ++k) {
    const Node& s = source.tree.node(items[k].node);
    Node n;
    n.name = k == 0 ? name : s.name;
    n.utf8 = k == 0 ? moxfmt::utf16ToUtf8(name) : s.utf8;
    n.type = s.type == EntryType::root ? EntryType::storage : s.type;
    n.clsid = s.clsid;
    n.state_bits = s.state_bits;
    n.created = s.created;
    n.modified = s.modified;
    n.data = contents[k];
    made[k] = impl_->tree.addChild(k == 0 ? parent : made[items[k].parent], std::move(n));
  }
}

namespace {

Node& settable(Impl& impl, std::string_view path, const char* what, bool rootAllowed) {
  requireWritable(impl);
  const std::uint32_t node = impl.require(path);
  Node& n = impl.tree.node(node);
  if (n.type == EntryType::stream || (node == 0 && !rootAllowed)) {
    throw Error(Errc::invalid_argument, impl.name() + ": " + (node == 0 ? std::string("the root") : impl.tree.pathOf(node)) +
                                            ": " + what + " belongs to storages" +
                                            (rootAllowed ? " and the root" : " other than the root"));
  }
  return n;
}

}  // namespace

void CompoundFile::set_clsid(std::string_view path, const std::array<std::uint8_t, 16>& clsid) {
  settable(*impl_, path, "a class id", true).clsid = clsid;
}

void CompoundFile::set_state_bits(std::string_view path, std::uint32_t bits) {
  settable(*impl_, path, "state bits", true).state_bits = bits;
}

void CompoundFile::set_created(std::string_view path, std::uint64_t filetime) {
  settable(*impl_, path, "a creation time", false).created = filetime;
}

void CompoundFile::set_modified(std::string_view path, std::uint64_t filetime) {
  settable(*impl_, path, "a modification time", true).modified = filetime;
}

// --- Commits ---------------------------------------------------------------

namespace {

// The old file with its edited sectors and entries overwritten (see
// patch.h), when the edits allow it and the old file is not known to fail
// the check; else null.
std::unique_ptr<detail::FileWriter> patchFor(const Impl& impl) {
  if (!impl.image || impl.layout_changed || impl.image_clean == 0) return nullptr;
  return detail::PatchedCopy::plan(impl.tree, impl.image);
}

// What save_as and bytes() write: a patched copy only of a file known to
// pass the check (they do not run it), else the whole file laid out anew.
std::unique_ptr<detail::FileWriter> writerFor(const Impl& impl) {
  if (impl.image_clean == 1) {
    if (auto patched = patchFor(impl)) return patched;
  }
  return std::make_unique<detail::Serializer>(impl.tree, impl.image, impl.version);
}

// Streams written since the last commit that make up most of the new
// file need not be copied: the scratch file they were written to becomes
// the file.  Worth it from a few megabytes on (below that the copy costs
// little and the header's page would be a large share of the file), and
// only while every page in the scratch file belongs to a stream of the
// tree (a removed stream's pages, still readable through its Stream, must
// stay where they are) and most of it is in use (else the file would
// carry the free pages).
bool commitOverScratch(Impl& impl) {
  constexpr std::uint64_t kWorthFrom = (4 << 20) / detail::Scratch::kPageSize;
  detail::Scratch& scratch = *impl.scratch;
  if (impl.path.empty() || !scratch.canBecomeDocument() || scratch.pagesInUse() < kWorthFrom ||
      scratch.pagesInUse() * 2 < scratch.pageLimit()) {
    return false;
  }
  detail::Serializer serializer(impl.tree, impl.image, impl.version, &scratch);
  if (serializer.pagesKept() != scratch.pagesInUse()) return false;
  return detail::makeScratchTheFile(impl.path, serializer, scratch, [&](const std::filesystem::path& placed) {
    adoptCommitted(impl, detail::Image::load(detail::openFileSource(placed, true, true)));
  });
}

}  // namespace

namespace {

void releaseAside(Impl& impl, std::shared_ptr<const detail::Image> replaced) {
  if (!replaced || impl.path.empty()) return;
  try {
    impl.releasing = std::async(std::launch::async, [old = std::move(replaced)]() mutable { old.reset(); });
  } catch (const std::system_error&) {
    // No thread to spare: let go of it here.
  }
}

}  // namespace

void CompoundFile::commit() {
  Impl& impl = *impl_;
  requireWritable(impl);
  std::shared_ptr<const detail::Image> replaced = impl.image;
  std::unique_ptr<detail::FileWriter> writer = patchFor(impl);
  std::future<bool> clean;
  if (writer && impl.image_clean < 0) {
    // Whether the copy may stand is known only once the old file is
    // checked; the check runs beside the copy and its flush, which are
    // the kernel's work, and a file that fails it is laid out anew.
    clean = std::async(std::launch::async, [image = impl.image] { return detail::checkImage(*image).empty(); });
  }
  auto confirmed = [&] {
    if (!clean.valid()) return true;
    impl.image_clean = clean.get() ? 1 : 0;
    return impl.image_clean == 1;
  };
  // A patched copy keeps the old file's tables where they were: the new
  // image shares them rather than reading them again.
  auto reload = [&](std::unique_ptr<detail::ByteSource> source, bool patched) {
    return patched ? detail::Image::loadCopyOf(*impl.image, std::move(source))
                   : detail::Image::load(std::move(source));
  };
  auto place = [&](detail::FileWriter& w, bool patched) {
    if (impl.path.empty()) {
      std::vector<unsigned char> bytes;
      bytes.reserve(static_cast<std::size_t>(w.fileSize()));
      detail::MemorySink sink(bytes);
      w.write(sink);
      if (patched && !confirmed()) return false;
      adoptCommitted(impl, reload(detail::ownBytes(std::move(bytes), "<memory>"), patched));
      return true;
    }
    return detail::writeAtomically(
        impl.path, w,
        [&](const std::filesystem::path& placed) {
          adoptCommitted(impl, reload(detail::openFileSource(placed, true, true), patched));
        },
        patched ? std::function<bool()>(confirmed) : nullptr);
  };
  if ((!writer || !place(*writer, true)) && !commitOverScratch(impl)) {
    detail::Serializer serializer(impl.tree, impl.image, impl.version);
    place(serializer, false);
  }
  impl.sector_size = impl.image->sectorSize();
  // Both writers leave a file check() finds nothing in.
  impl.image_clean = 1;
  impl.layout_changed = false;
  releaseAside(impl, std::move(replaced));
}

void CompoundFile::revert() {
  Impl& impl = *impl_;
  requireWritable(impl);
  adoptReverted(impl);
  impl.layout_changed = false;
}

void CompoundFile::save_as(const std::filesystem::path& path) const {
  std::unique_ptr<detail::FileWriter> writer = writerFor(*impl_);
  detail::writeAtomically(path, *writer);
}

std::vector<std::uint8_t> CompoundFile::bytes() const {
  std::unique_ptr<detail::FileWriter> writer = writerFor(*impl_);
  std::vector<std::uint8_t> out;
  out.reserve(static_cast<std::size_t>(writer->fileSize()));
  detail::MemorySink sink(out);
  writer->write(sink);
  return out;
}

}  // namespace mox
