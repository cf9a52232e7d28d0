#include "native/edit/patch.h"

#include <algorithm>
#include <cstring>

#include "native/edit/edited_stream.h"

namespace mox::detail {

namespace {

// Bytes that go through this process at all (edited streams not in the
// scratch file, sources without a mapping) go in pieces this large; most
// go file to file.  Fresh memory costs a page fault per page touched.
constexpr std::size_t kBufferSize = 64 * 1024;

bool sameFields(const moxfmt::EntryRecord& a, const moxfmt::EntryRecord& b) {
  return a.size == b.size && a.state_bits == b.state_bits && a.created == b.created && a.modified == b.modified &&
         a.name_bytes == b.name_bytes && memcmp(a.clsid, b.clsid, sizeof a.clsid) == 0 &&
         memcmp(a.name, b.name, sizeof a.name) == 0;
}

// Nothing reads the root's name, and some writers leave it without its
// terminator; the writer always ends it, and so does a patched copy.
void terminateName(moxfmt::EntryRecord& e) {
  const std::size_t units = std::min<std::size_t>(e.nameLength(), moxfmt::kNameUnits - 1);
  if (e.name_bytes == (units + 1) * 2 && e.name[units] == 0) return;
  std::fill(e.name + units, e.name + moxfmt::kNameUnits, 0);
  e.name_bytes = static_cast<std::uint16_t>((units + 1) * 2);
}

}  // namespace

PatchedCopy::PatchedCopy(std::shared_ptr<const Image> image)
    : image_(std::move(image)), size_(image_->source().size()) {}

std::unique_ptr<PatchedCopy> PatchedCopy::plan(const Tree& tree, std::shared_ptr<const Image> image) {
  // A last sector cut short would stay cut short: a new layout mends it.
  if (!image || image->source().size() % image->sectorSize() != 0) return nullptr;
  std::unique_ptr<PatchedCopy> copy(new PatchedCopy(std::move(image)));
  const Image& old = *copy->image_;
  for (std::uint32_t i = 0; i < tree.size(); ++i) {
    const Node& n = tree.node(i);
    if (!n.live || n.id == kNoNode || n.id >= old.entryCount()) return nullptr;
    const moxfmt::EntryRecord stored = old.entry(n.id);
    moxfmt::EntryRecord e = stored;
    std::copy(n.clsid.begin(), n.clsid.end(), e.clsid);
    e.state_bits = n.state_bits;
    e.created = n.created;
    e.modified = n.modified;
    if (i == 0) terminateName(e);
    if (n.data) {
      const auto* edited = dynamic_cast<const EditedStream*>(n.data.get());
      if (edited == nullptr || stored.type != moxfmt::kTypeStream) return nullptr;
      if (edited->changed()) {
        if (!copy->addStream(*edited, stored)) return nullptr;
        if (old.entrySize(stored) != edited->size()) e.size = edited->size();
      }
    }
    if (!sameFields(e, stored)) copy->addEntry(n.id, e);
  }
  copy->mendHeader();
  return copy->finishPlan() ? std::move(copy) : nullptr;
}

bool PatchedCopy::addStream(const StreamData& data, const moxfmt::EntryRecord& old) {
  const Image& image = *image_;
  const std::uint64_t oldSize = image.entrySize(old);
  const std::uint64_t newSize = data.size();
  if (oldSize == 0 || newSize == 0) return oldSize == newSize;
  const bool mini = image.inMiniStream(old);
  if (mini != (newSize < image.header().mini_cutoff)) return false;
  const unsigned shift = mini ? image.header().mini_sector_shift : image.header().sector_shift;
  const std::uint64_t unit = std::uint64_t{1} << shift;
  const std::uint64_t sectors = (newSize + unit - 1) >> shift;
  if (sectors != (oldSize + unit - 1) >> shift) return false;
  const Chain chain = image.chain(old.start, mini, sectors);
  if (chain.sectors < sectors) return false;

  // Each run of the chain in turn, the last sector's tail zeroed.
  const std::uint64_t fileSector = image.sectorSize();
  std::uint64_t from = 0;
  auto place = [&](std::uint64_t at, std::uint64_t count) {
    const std::uint64_t bytes = from < newSize ? std::min(count, newSize - from) : 0;
    if (bytes > 0) pieces_.push_back(Piece{at, bytes, From::stream, &data, from});
    if (bytes < count) pieces_.push_back(Piece{at + bytes, count - bytes, From::zeros, nullptr, 0});
    from += count;
  };
  for (const Run& run : chain.runs) {
    const std::uint64_t count = std::min(run.count, sectors - (from >> shift)) << shift;
    if (!mini) {
      place((run.first + 1) * fileSector, count);
      continue;
    }
    const std::uint64_t at = run.first << shift;
    const RunMap& map = image.miniStreamMap();
    if (at + count > image.miniStreamSize() || at + count > map.bytes()) return false;
    map.each(at, count, [&](std::uint64_t position, std::uint64_t n) { place(position + fileSector, n); });
  }
  return true;
}

void PatchedCopy::addEntry(std::uint32_t id, const moxfmt::EntryRecord& e) {
  const Image& image = *image_;
  const std::uint32_t perSector = image.sectorSize() / moxfmt::kEntrySize;
  const std::uint64_t sector = image.directorySectors()[id / perSector];
  std::vector<unsigned char> bytes(moxfmt::kEntrySize);
  moxfmt::encodeEntry(e, bytes.data());
  addBytes((sector + 1) * image.sectorSize() + std::uint64_t{id % perSector} * moxfmt::kEntrySize, std::move(bytes));
}

void PatchedCopy::addBytes(std::uint64_t at, std::vector<unsigned char> bytes) {
  pieces_.push_back(Piece{at, bytes.size(), From::bytes, nullptr, bytes_.size()});
  bytes_.push_back(std::move(bytes));
}

void PatchedCopy::mendHeader() {
  // A file without DIFAT sectors should say so with an end of chain; some
  // writers put a free mark there, which the writer would not.
  const moxfmt::HeaderRecord& h = image_->header();
  if (h.difat_count == 0 && h.difat_start != moxfmt::kEndOfChain) {
    std::vector<unsigned char> end(4);
    moxfmt::put32(end.data(), moxfmt::kEndOfChain);
    addBytes(moxfmt::header_at::kDifatStart, std::move(end));
  }
}

bool PatchedCopy::finishPlan() {
  std::sort(pieces_.begin(), pieces_.end(), [](const Piece& a, const Piece& b) { return a.at < b.at; });
  // A file in which check() finds nothing shares no sector; this is the
  // last guard against writing one piece over another.
  for (std::size_t i = 1; i < pieces_.size(); ++i) {
    if (pieces_[i - 1].at + pieces_[i - 1].count > pieces_[i].at) return false;
  }
  if (!pieces_.empty()) size_ = std::max(size_, pieces_.back().at + pieces_.back().count);
  return true;
}

void PatchedCopy::write(Sink& sink) {
  buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kBufferSize, std::max<std::uint64_t>(size_, 4096))));
  const ByteSource& source = image_->source();
  std::uint64_t at = 0;
  auto copyOld = [&](std::uint64_t end) {
    const std::uint64_t stored = std::min(end, source.size());
    if (at < stored && !copySourceBytes(source, at, stored - at, buffer_, sink)) {
      throw Error(Errc::io, image_->name() + ": the file cannot be read");
    }
    if (end > std::max(at, stored)) sink.zeros(end - std::max(at, stored));
    at = end;
  };
  for (const Piece& p : pieces_) {
    copyOld(p.at);
    switch (p.from) {
      case From::stream:
        if (!copyStreamBytes(*p.data, p.offset, p.count, buffer_, sink)) {
          throw Error(Errc::damaged, image_->name() + ": an edited stream is shorter than its size");
        }
        break;
      case From::bytes:
        sink.write(bytes_[p.offset].data(), bytes_[p.offset].size());
        break;
      case From::zeros:
        sink.zeros(p.count);
        break;
    }
    at += p.count;
  }
  copyOld(size_);
  buffer_.clear();
  buffer_.shrink_to_fit();
}

}  // namespace mox::detail
