#include "native/edit/serializer.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "format/records.h"
#include "native/edit/edited_stream.h"

namespace mox::detail {

using moxfmt::kEndOfChain;
using moxfmt::kFreeSector;
using moxfmt::kNoStream;

namespace {

constexpr std::uint32_t kMiniShift = 6;
constexpr std::uint64_t kMiniSize = 64;
// Bytes that go through this process at all (edited streams not in the
// scratch file, sources without a mapping) go in pieces this large; most
// go file to file.  Fresh memory costs a page fault per page touched.
constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::uint64_t kKernelCopyFrom = 64 * 1024;
// The largest sector number a chain may use, with room for the tables.
constexpr std::uint64_t kMaxSectors = moxfmt::kMaxRegularSector - 1;

std::uint64_t ceilDiv(std::uint64_t a, std::uint64_t b) { return (a + b - 1) / b; }

std::uint8_t storedType(const Node& n, const Image* image) {
  switch (n.type) {
    case EntryType::root: return moxfmt::kTypeRoot;
    case EntryType::storage: return moxfmt::kTypeStorage;
    case EntryType::stream: return moxfmt::kTypeStream;
    default: break;
  }
  if (image != nullptr && n.id != kNoNode) return image->entries()[n.id].type;
  return moxfmt::kTypeEmpty;
}

}  // namespace

void Sink::zeros(std::uint64_t count) {
  static const unsigned char block[4096] = {};
  while (count > 0) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, sizeof block));
    write(block, n);
    count -= n;
  }
}

void Sink::copyFrom(int fd, std::uint64_t offset, std::uint64_t count) {
  std::vector<unsigned char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(count, 1 << 20)));
  while (count > 0) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(count, buffer.size()));
    const ssize_t n = ::pread(fd, buffer.data(), want, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Error(Errc::io, std::string("scratch file for stream data: read: ") + strerror(errno));
    if (n == 0) {
      zeros(count);
      return;
    }
    write(buffer.data(), static_cast<std::size_t>(n));
    offset += static_cast<std::uint64_t>(n);
    count -= static_cast<std::uint64_t>(n);
  }
}

void Sink::skip(std::uint64_t count) {
  // Only a file that already holds the bytes can be moved over.
  if (count > 0) throw Error(Errc::invalid_argument, "this output cannot be written out of order");
}

void MemorySink::write(const void* data, std::size_t count) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  out_.insert(out_.end(), bytes, bytes + count);
}

bool copyStreamBytes(const StreamData& data, std::uint64_t from, std::uint64_t count,
                     std::vector<unsigned char>& buffer, Sink& sink) {
  const auto* edited = dynamic_cast<const EditedStream*>(&data);
  const std::uint64_t end = from + count;
  for (std::uint64_t at = from; at < end;) {
    int fd = -1;
    std::uint64_t where = 0, run = 0;
    if (edited != nullptr && edited->scratchRun(at, &fd, &where, &run)) {
      // Written pages go file to file, not through this process.
      run = std::min(run, end - at);
      sink.copyFrom(fd, where, run);
      at += run;
      continue;
    }
    std::uint64_t limit = std::min<std::uint64_t>(buffer.size(), end - at);
    if (edited != nullptr) limit = std::min<std::uint64_t>(limit, Scratch::kPageSize - at % Scratch::kPageSize);
    const std::size_t want = static_cast<std::size_t>(limit);
    if (data.readAt(at, buffer.data(), want) != want) return false;
    sink.write(buffer.data(), want);
    at += want;
  }
  return true;
}

bool copySourceBytes(const ByteSource& source, std::uint64_t offset, std::uint64_t count,
                     std::vector<unsigned char>& buffer, Sink& sink) {
  if (offset > source.size() || count > source.size() - offset) return false;
  // Large pieces are copied by the kernel, page cache to page cache, as cp
  // does; small ones (a mini stream each) cost less as a memcpy than as a
  // system call.
  if (count >= kKernelCopyFrom && source.descriptor() >= 0) {
    sink.copyFrom(source.descriptor(), offset, count);
    return true;
  }
  if (source.data() != nullptr) {
    sink.write(source.data() + offset, static_cast<std::size_t>(count));
    return true;
  }
  while (count > 0) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), count));
    if (source.readAt(offset, buffer.data(), want) != want) return false;
    sink.write(buffer.data(), want);
    offset += want;
    count -= want;
  }
  return true;
}

std::uint64_t maxStreamSize(int version) {
  // Version 3 readers take the low 32 bits of a size; version 4 is bounded
  // by the sector numbers.
  return version == 3 ? 0xFFFFFFFFull : (kMaxSectors - 1024) << 12;
}

Serializer::Serializer(const Tree& tree, std::shared_ptr<const Image> image, int version,
                       const Scratch* overScratch)
    : tree_(tree), image_(std::move(image)), version_(version), shift_(version == 3 ? 9 : 12),
      sectorSize_(1u << shift_), scratch_(overScratch) {
  lay();
}

std::uint64_t Serializer::layStream(std::size_t d, std::uint64_t sector) {
  const std::uint64_t size = size_[d];
  auto append = [&](std::uint64_t count) {
    if (sector + count > kMaxSectors) throw Error(Errc::invalid_argument, "the file would be too large");
    const auto first = static_cast<std::uint32_t>(sector);
    sector += count;
    return first;
  };
  if (scratch_ == nullptr) {
    const std::uint64_t count = ceilDiv(size, sectorSize_);
    start_[d] = append(count);
    fatRegions_.push_back(Region{start_[d], static_cast<std::uint32_t>(count), kEndOfChain});
    return sector;
  }
  // Pages in the scratch file stay as they are; what lies elsewhere (the
  // old file, or never written) goes after them, a piece per gap.
  const auto* edited = dynamic_cast<const EditedStream*>(tree_.node(order_[d]).data.get());
  const std::size_t from = pieces_.size();
  for (std::uint64_t at = 0; at < size;) {
    int fd = -1;
    std::uint64_t where = 0, run = 0;
    auto inScratch = [&](std::uint64_t offset) {
      return edited != nullptr && edited->scratchRun(offset, &fd, &where, &run) &&
             fd == scratch_->descriptor();
    };
    if (inScratch(at)) {
      pieces_.push_back(Piece{at, run, static_cast<std::uint32_t>(where / sectorSize_ - 1), true});
      pagesKept_ += ceilDiv(run, Scratch::kPageSize);
    } else {
      std::uint64_t end = at + Scratch::kPageSize;
      while (end < size && !inScratch(end)) end += Scratch::kPageSize;
      run = std::min(end, size) - at;
      pieces_.push_back(Piece{at, run, append(ceilDiv(run, sectorSize_)), false});
    }
    at += run;
  }
  start_[d] = pieces_[from].first;
  pieceRange_[d] = {static_cast<std::uint32_t>(from), static_cast<std::uint32_t>(pieces_.size())};
  for (std::size_t i = from; i < pieces_.size(); ++i) {
    const Piece& p = pieces_[i];
    fatRegions_.push_back(Region{p.first, static_cast<std::uint32_t>(ceilDiv(p.bytes, sectorSize_)), kEndOfChain,
                                 i + 1 < pieces_.size() ? pieces_[i + 1].first : kEndOfChain});
  }
  return sector;
}

void Serializer::linkSiblings(const std::vector<std::uint32_t>& sorted, std::size_t lo, std::size_t hi,
                              unsigned depth, unsigned redDepth, std::uint32_t* root) {
  // Middle elements at every level give a tree whose empty links all lie
  // on the last two levels: black above, red on the last (partial) one,
  // every path then passes the same number of black entries.
  if (lo >= hi) {
    *root = kNoStream;
    return;
  }
  const std::size_t mid = lo + (hi - lo) / 2;
  const std::uint32_t at = sorted[mid];
  colour_[at] = depth == redDepth && depth > 0 ? moxfmt::kRed : moxfmt::kBlack;
  linkSiblings(sorted, lo, mid, depth + 1, redDepth, &left_[at]);
  linkSiblings(sorted, mid + 1, hi, depth + 1, redDepth, &right_[at]);
  *root = at;
}

void Serializer::lay() {
  // Directory order: breadth first, so that the children of a storage
  // are neighbours.  A reader that looks up one path then touches a few
  // directory pages instead of one page per sibling, and a storage's
  // streams lie together in the file too.
  order_.push_back(0);
  for (std::size_t d = 0; d < order_.size(); ++d) {
    const auto& kids = tree_.children(order_[d]);
    order_.insert(order_.end(), kids.begin(), kids.end());
  }
  // Nodes are made as the walk reads them: the index is sized after it.
  index_.assign(tree_.size(), kNoNode);
  for (std::size_t d = 0; d < order_.size(); ++d) index_[order_[d]] = static_cast<std::uint32_t>(d);
  const std::size_t entries = order_.size();
  left_.assign(entries, kNoStream);
  right_.assign(entries, kNoStream);
  child_.assign(entries, kNoStream);
  colour_.assign(entries, moxfmt::kBlack);
  start_.assign(entries, kEndOfChain);
  size_.assign(entries, 0);

  std::vector<std::uint32_t> sorted;
  for (std::size_t d = 0; d < entries; ++d) {
    const auto& kids = tree_.children(order_[d]);
    if (kids.empty()) continue;
    sorted.clear();
    for (std::uint32_t k : kids) sorted.push_back(index_[k]);
    unsigned deepest = 0;
    while ((std::size_t{2} << deepest) <= sorted.size()) ++deepest;
    linkSiblings(sorted, 0, sorted.size(), 0, deepest, &child_[d]);
  }

  // Regular streams first, then the mini stream and the tables; over a
  // scratch file, all of them after its pages.
  const std::uint64_t maxSize = maxStreamSize(version_);
  if (scratch_ != nullptr) {
    appendFrom_ = scratch_->pageLimit() * (Scratch::kPageSize / sectorSize_) - 1;
    if (appendFrom_ > kMaxSectors) throw Error(Errc::invalid_argument, "the file would be too large");
    pieceRange_.assign(entries, {0, 0});
  }
  std::uint64_t sector = appendFrom_;
  for (std::size_t d = 0; d < entries; ++d) {
    const Node& n = tree_.node(order_[d]);
    if (n.type == EntryType::root || n.type != EntryType::stream) {
      if (n.type == EntryType::storage) start_[d] = 0;
      continue;
    }
    const std::uint64_t size = n.data ? n.data->size() : n.size;
    if (size > maxSize) {
      throw Error(Errc::invalid_argument, tree_.pathOf(order_[d]) + ": a stream of a version " +
                                              std::to_string(version_) + " file holds at most " +
                                              std::to_string(maxSize) + " bytes");
    }
    size_[d] = size;
    if (size == 0) continue;
    if (size < moxfmt::kMiniStreamCutoff) {
      const std::uint64_t count = ceilDiv(size, kMiniSize);
      start_[d] = static_cast<std::uint32_t>(miniSectors_);
      miniRegions_.push_back(Region{static_cast<std::uint32_t>(miniSectors_),
                                    static_cast<std::uint32_t>(count), kEndOfChain});
      miniSectors_ += count;
    } else {
      sector = layStream(d, sector);
    }
  }
  auto region = [&](std::uint64_t count, std::uint32_t mark, std::uint32_t* first) {
    *first = count == 0 ? kEndOfChain : static_cast<std::uint32_t>(sector);
    if (count > 0) {
      fatRegions_.push_back(Region{static_cast<std::uint32_t>(sector), static_cast<std::uint32_t>(count), mark});
    }
    sector += count;
  };
  miniStreamSectors_ = static_cast<std::uint32_t>(ceilDiv(miniSectors_ * kMiniSize, sectorSize_));
  region(miniStreamSectors_, kEndOfChain, &miniStreamStart_);
  miniFatSectors_ = static_cast<std::uint32_t>(ceilDiv(miniSectors_ * 4, sectorSize_));
  region(miniFatSectors_, kEndOfChain, &miniFatStart_);
  dirSectors_ = static_cast<std::uint32_t>(ceilDiv(entries * moxfmt::kEntrySize, sectorSize_));
  region(dirSectors_, kEndOfChain, &dirStart_);
  // The FAT covers itself and the DIFAT: grow both until they fit.
  const std::uint64_t links = sectorSize_ / 4;
  std::uint64_t fat = 0, difat = 0;
  for (;;) {
    const std::uint64_t needFat = ceilDiv(sector + fat + difat, links);
    const std::uint64_t needDifat =
        needFat > moxfmt::kHeaderFatSlots ? ceilDiv(needFat - moxfmt::kHeaderFatSlots, links - 1) : 0;
    if (needFat == fat && needDifat == difat) break;
    fat = needFat;
    difat = needDifat;
  }
  if (sector + fat + difat > kMaxSectors) throw Error(Errc::invalid_argument, "the file would be too large");
  fatSectors_ = static_cast<std::uint32_t>(fat);
  difatSectors_ = static_cast<std::uint32_t>(difat);
  region(fat, moxfmt::kFatSector, &fatStart_);
  region(difat, moxfmt::kDifatSector, &difatStart_);
  sectors_ = static_cast<std::uint32_t>(sector);
  // Kept pages lie before everything appended, in the order they were
  // written: the table is written in sector order.
  if (scratch_ != nullptr) {
    std::sort(fatRegions_.begin(), fatRegions_.end(),
              [](const Region& a, const Region& b) { return a.start < b.start; });
  }

}

void Serializer::write(Sink& sink) {
  // A small file needs no more buffer than itself: zeroing a whole one for
  // each bytes() of a few kB costs more than the writing.
  buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kBufferSize, std::max<std::uint64_t>(fileSize(), 4096))));
  writeHeader(sink);
  sink.skip(appendFrom_ << shift_);
  std::vector<std::size_t> mini;
  for (std::size_t d = 0; d < order_.size(); ++d) {
    if (tree_.node(order_[d]).type != EntryType::stream || size_[d] == 0) continue;
    if (size_[d] < moxfmt::kMiniStreamCutoff) {
      mini.push_back(d);
      continue;
    }
    if (scratch_ != nullptr) {
      writePieces(d, sink);
      continue;
    }
    writeContent(order_[d], sink);
    const std::uint64_t tail = size_[d] % sectorSize_;
    if (tail != 0) sink.zeros(sectorSize_ - tail);
  }
  for (std::size_t d : mini) {
    writeContent(order_[d], sink);
    const std::uint64_t tail = size_[d] % kMiniSize;
    if (tail != 0) sink.zeros(kMiniSize - tail);
  }
  const std::uint64_t miniBytes = miniSectors_ * kMiniSize;
  if (miniBytes % sectorSize_ != 0) sink.zeros(sectorSize_ - miniBytes % sectorSize_);
  writeTable(miniRegions_, static_cast<std::uint64_t>(miniFatSectors_) * (sectorSize_ / 4), sink);
  writeDirectory(sink);
  writeTable(fatRegions_, static_cast<std::uint64_t>(fatSectors_) * (sectorSize_ / 4), sink);
  writeDifat(sink);
  buffer_.clear();
  buffer_.shrink_to_fit();
}

void Serializer::writeHeader(Sink& sink) {
  moxfmt::HeaderRecord h;
  h.major_version = static_cast<std::uint16_t>(version_);
  h.minor_version = 0x3E;
  h.sector_shift = static_cast<std::uint16_t>(shift_);
  h.mini_sector_shift = kMiniShift;
  h.dir_sector_count = version_ == 4 ? dirSectors_ : 0;
  h.fat_sector_count = fatSectors_;
  h.dir_start = dirStart_;
  h.mini_cutoff = moxfmt::kMiniStreamCutoff;
  h.mini_fat_start = miniFatStart_;
  h.mini_fat_count = miniFatSectors_;
  h.difat_start = difatStart_;
  h.difat_count = difatSectors_;
  for (std::uint32_t i = 0; i < fatSectors_ && i < moxfmt::kHeaderFatSlots; ++i) h.fat_slots[i] = fatStart_ + i;
  unsigned char bytes[moxfmt::kHeaderSize];
  moxfmt::encodeHeader(h, bytes);
  sink.write(bytes, sizeof bytes);
  if (sectorSize_ > sizeof bytes) sink.zeros(sectorSize_ - sizeof bytes);
}

void Serializer::damaged(std::uint32_t node, const std::string& what) const {
  throw Error(Errc::damaged, (image_ ? image_->name() : std::string("<memory>")) + ": " +
                                 tree_.pathOf(node) + ": " + what);
}

void Serializer::writeContent(std::uint32_t node, Sink& sink) {
  const Node& n = tree_.node(node);
  if (!n.data) {
    copyStored(node, sink);
    return;
  }
  if (!copyStreamBytes(*n.data, 0, size_[index_[node]], buffer_, sink)) {
    damaged(node, "the stream is shorter than its size");
  }
}

void Serializer::writePieces(std::size_t d, Sink& sink) {
  const Node& n = tree_.node(order_[d]);
  for (std::uint32_t i = pieceRange_[d].first; i < pieceRange_[d].second; ++i) {
    const Piece& p = pieces_[i];
    if (p.kept) continue;
    if (!n.data) {
      copyStored(order_[d], sink);
    } else if (!copyStreamBytes(*n.data, p.offset, p.bytes, buffer_, sink)) {
      damaged(order_[d], "the stream is shorter than its size");
    }
    const std::uint64_t tail = p.bytes % sectorSize_;
    if (tail != 0) sink.zeros(sectorSize_ - tail);
  }
}

void Serializer::copyStored(std::uint32_t node, Sink& sink) {
  // Straight from the old file's sectors (mapped: no copy of our own).
  const Node& n = tree_.node(node);
  if (!image_ || n.id == kNoNode) damaged(node, "the stream has no content");
  const moxfmt::EntryRecord& e = image_->entries()[n.id];
  const std::uint64_t size = image_->entrySize(e);
  const bool mini = image_->inMiniStream(e);
  const unsigned shift = mini ? image_->header().mini_sector_shift : image_->header().sector_shift;
  const std::uint64_t wanted = (size + (std::uint64_t{1} << shift) - 1) >> shift;
  const Chain chain = image_->chain(e.start, mini, wanted);
  if (chain.sectors < wanted) damaged(node, "the stream's chain is shorter than its size");
  const ByteSource& source = image_->source();
  const std::uint64_t fileSector = image_->sectorSize();
  std::uint64_t left = size;
  bool whole = true;
  for (const Run& run : chain.runs) {
    const std::uint64_t bytes = std::min<std::uint64_t>(left, run.count << shift);
    left -= bytes;
    if (!mini) {
      whole = whole && copySourceBytes(source, (run.first + 1) * fileSector, bytes, buffer_, sink);
      continue;
    }
    const std::uint64_t at = run.first << shift;
    if (at + bytes > image_->miniStreamSize() || at + bytes > image_->miniStreamMap().bytes()) {
      damaged(node, "the stream lies past the end of the mini stream");
    }
    image_->miniStreamMap().each(at, bytes, [&](std::uint64_t position, std::uint64_t count) {
      whole = whole && copySourceBytes(source, position + fileSector, count, buffer_, sink);
    });
  }
  if (!whole) damaged(node, "the stream's sectors lie past the end of the file");
}

void Serializer::writeTable(const std::vector<Region>& regions, std::uint64_t entries, Sink& sink) {
  // Regions are in sector order and cover a prefix of the table; the rest
  // is free.
  std::vector<unsigned char> block(sectorSize_);
  std::size_t r = 0;
  std::uint64_t i = 0;
  while (i < entries) {
    for (std::uint32_t k = 0; k < sectorSize_ / 4; ++k, ++i) {
      while (r < regions.size() && i >= static_cast<std::uint64_t>(regions[r].start) + regions[r].count) ++r;
      std::uint32_t value = kFreeSector;
      if (r < regions.size() && i >= regions[r].start) {
        const Region& g = regions[r];
        if (g.mark != kEndOfChain) {
          value = g.mark;
        } else {
          value = i + 1 == static_cast<std::uint64_t>(g.start) + g.count ? g.next : static_cast<std::uint32_t>(i + 1);
        }
      }
      moxfmt::put32(block.data() + 4 * k, value);
    }
    sink.write(block.data(), block.size());
  }
}

void Serializer::writeDirectory(Sink& sink) {
  const std::size_t perSector = sectorSize_ / moxfmt::kEntrySize;
  const std::size_t total = static_cast<std::size_t>(dirSectors_) * perSector;
  unsigned char bytes[moxfmt::kEntrySize];
  const Image* image = image_.get();
  for (std::size_t d = 0; d < total; ++d) {
    moxfmt::EntryRecord e;
    if (d < order_.size()) {
      const Node& n = tree_.node(order_[d]);
      const std::size_t units = std::min<std::size_t>(n.name.size(), moxfmt::kNameUnits - 1);
      for (std::size_t k = 0; k < units; ++k) e.name[k] = static_cast<std::uint16_t>(n.name[k]);
      e.name_bytes = static_cast<std::uint16_t>((units + 1) * 2);
      e.type = storedType(n, image);
      e.colour = colour_[d];
      e.left = left_[d];
      e.right = right_[d];
      e.child = child_[d];
      std::copy(n.clsid.begin(), n.clsid.end(), e.clsid);
      e.state_bits = n.state_bits;
      e.created = n.created;
      e.modified = n.modified;
      if (d == 0) {
        e.start = miniStreamStart_;
        e.size = miniSectors_ * kMiniSize;
      } else {
        e.start = n.type == EntryType::stream ? start_[d] : 0;
        e.size = size_[d];
      }
    } else {
      e.start = 0;
    }
    moxfmt::encodeEntry(e, bytes);
    sink.write(bytes, sizeof bytes);
  }
}

void Serializer::writeDifat(Sink& sink) {
  const std::uint32_t links = sectorSize_ / 4;
  std::vector<unsigned char> block(sectorSize_);
  std::uint32_t next = static_cast<std::uint32_t>(moxfmt::kHeaderFatSlots);
  for (std::uint32_t s = 0; s < difatSectors_; ++s) {
    for (std::uint32_t k = 0; k + 1 < links; ++k) {
      moxfmt::put32(block.data() + 4 * k, next < fatSectors_ ? fatStart_ + next : kFreeSector);
      ++next;
    }
    moxfmt::put32(block.data() + 4 * (links - 1), s + 1 < difatSectors_ ? difatStart_ + s + 1 : kEndOfChain);
    sink.write(block.data(), block.size());
  }
}

}  // namespace mox::detail
