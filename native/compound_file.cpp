// mox::CompoundFile: opening, the entry queries and streams.  Editing
// lives in native/edit/.
#include <algorithm>

#include "moxolefio/moxolefio.hpp"
#include "format/names.h"
#include "native/check.h"
#include "native/file_impl.h"
#include "native/stream_impl.h"

namespace mox {

using detail::kNoNode;

std::string CompoundFile::Impl::name() const {
  if (image) return image->name();
  return path.empty() ? std::string("<memory>") : path.string();
}

std::uint32_t CompoundFile::Impl::require(std::string_view p) const {
  const std::uint32_t node = tree.find(p);
  if (node == kNoNode) throw Error(Errc::not_found, name() + ": " + std::string(p) + ": no such entry");
  return node;
}

Entry CompoundFile::Impl::entryOf(std::uint32_t i, std::string p) const {
  std::uint32_t depth = 0;
  for (std::uint32_t at = tree.node(i).parent; at != detail::kNoNode; at = tree.node(at).parent) ++depth;
  Entry e;
  e.path = std::move(p);
  fillEntry(i, e.path, depth, e);
  return e;
}

void CompoundFile::Impl::fillEntry(std::uint32_t i, const std::string& p, std::uint32_t depth, Entry& e) const {
  const detail::Node& n = tree.node(i);
  e.name = n.utf8;
  if (&p != &e.path) e.path = p;
  e.type = n.type;
  e.size = n.data ? n.data->size() : n.size;
  e.clsid = n.clsid;
  e.state_bits = n.state_bits;
  e.created = n.created;
  e.modified = n.modified;
  e.id = n.id;
  e.depth = depth;
}

Stream CompoundFile::Impl::openStream(std::uint32_t i, const std::string& p) const {
  const detail::Node& n = tree.node(i);
  if (n.type != EntryType::stream) {
    throw Error(Errc::invalid_argument, name() + ": " + p + ": not a stream");
  }
  if (n.data) return makeStream(n.data, p);
  return makeStream(detail::openStoredStream(image, n.id, p), p);
}

namespace {

std::shared_ptr<CompoundFile::Impl> openImage(std::unique_ptr<detail::ByteSource> source,
                                              OpenOptions options) {
  auto impl = std::make_shared<CompoundFile::Impl>();
  impl->image = detail::Image::load(std::move(source));
  impl->tree = detail::Tree::fromImage(impl->image);
  impl->options = options;
  impl->version = impl->image->version();
  impl->sector_size = impl->image->sectorSize();
  if (options.strict) {
    for (const Defect& d : detail::checkImage(*impl->image)) {
      if (d.severity == Severity::error) {
        throw Error(Errc::damaged, impl->name() + ": " + (d.path.empty() ? "" : d.path + ": ") + d.message);
      }
    }
  }
  return impl;
}

}  // namespace

CompoundFile::CompoundFile(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
CompoundFile::CompoundFile(CompoundFile&&) noexcept = default;
CompoundFile& CompoundFile::operator=(CompoundFile&&) noexcept = default;
CompoundFile::~CompoundFile() = default;

CompoundFile CompoundFile::open(const std::filesystem::path& path, OpenOptions options) {
  auto impl = openImage(detail::openFileSource(path, options.map), options);
  impl->path = path;
  return CompoundFile(std::move(impl));
}

CompoundFile CompoundFile::open_memory(const void* data, std::size_t size, OpenOptions options) {
  if (data == nullptr && size != 0) throw Error(Errc::invalid_argument, "<memory>: null data");
  return CompoundFile(openImage(detail::borrowMemory(data, size), options));
}

int CompoundFile::version() const { return impl_->version; }
std::uint32_t CompoundFile::sector_size() const { return impl_->sector_size; }
bool CompoundFile::writable() const { return impl_->writable; }

Entry CompoundFile::root() const { return impl_->entryOf(0, std::string()); }

std::optional<Entry> CompoundFile::entry(std::string_view path) const {
  const std::uint32_t node = impl_->tree.find(path);
  if (node == kNoNode) return std::nullopt;
  return impl_->entryOf(node, impl_->tree.pathOf(node));
}

bool CompoundFile::exists(std::string_view path) const { return impl_->tree.find(path) != kNoNode; }

std::vector<Entry> CompoundFile::children(std::string_view path) const {
  const std::uint32_t node = impl_->require(path);
  const std::string base = impl_->tree.pathOf(node);
  std::vector<Entry> list;
  list.reserve(impl_->tree.children(node).size());
  for (std::uint32_t child : impl_->tree.children(node)) {
    list.push_back(impl_->entryOf(child, detail::childPath(base, node == 0, impl_->tree.node(child).utf8)));
  }
  return list;
}

std::vector<Entry> CompoundFile::walk() const {
  std::vector<Entry> list;
  list.reserve(impl_->image ? impl_->image->entryCount() : impl_->tree.size());
  Entry e;
  impl_->tree.walk([&](std::uint32_t node, const std::string& path, std::uint32_t depth) {
    impl_->fillEntry(node, path, depth, e);
    list.push_back(e);
  });
  return list;
}

void CompoundFile::walk(const std::function<void(const Entry&)>& visit) const {
  Entry e;
  impl_->tree.walk([&](std::uint32_t node, const std::string& path, std::uint32_t depth) {
    impl_->fillEntry(node, path, depth, e);
    visit(e);
  });
}

Stream CompoundFile::open_stream(std::string_view path) const {
  const std::uint32_t node = impl_->require(path);
  if (impl_->writable) return impl_->openWritable(node, impl_->tree.pathOf(node));
  return impl_->openStream(node, impl_->tree.pathOf(node));
}

Stream CompoundFile::open_stream(const Entry& entry) const {
  const std::shared_ptr<const detail::Image>& image = impl_->image;
  if (!impl_->writable && image && entry.type == EntryType::stream && entry.id != 0 &&
      entry.id < image->entryCount()) {
    const moxfmt::EntryRecord record = image->entry(entry.id);
    if (record.type == moxfmt::kTypeStream && moxfmt::utf16ToUtf8(record.name, record.nameLength()) == entry.name) {
      return makeStream(detail::openStoredStream(image, record, entry.path), entry.path);
    }
  }
  std::uint32_t node = impl_->tree.find(entry.path);
  if (node == kNoNode || impl_->tree.node(node).id != entry.id) {
    // Entries made by an editor have no id and are always reachable by path.
    node = kNoNode;
    if (entry.id != kNoNode) {
      impl_->tree.walk([&](std::uint32_t i, const std::string&, std::uint32_t) {
        if (node == kNoNode && impl_->tree.node(i).id == entry.id) node = i;
      });
    }
    if (node == kNoNode) throw Error(Errc::not_found, impl_->name() + ": " + entry.path + ": no such entry");
  }
  const std::string p = impl_->tree.pathOf(node);
  if (impl_->writable) return impl_->openWritable(node, p);
  return impl_->openStream(node, p);
}

std::vector<Defect> CompoundFile::check() const {
  if (!impl_->image) return {};
  return detail::checkImage(*impl_->image);
}

}  // namespace mox
