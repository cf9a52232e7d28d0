#include "native/stream_data.h"

#include <string.h>

#include <algorithm>

namespace mox::detail {

void StreamData::writeAt(std::uint64_t, const void*, std::size_t) {
  throw Error(Errc::read_only, "the stream belongs to a file opened for reading");
}

void StreamData::resize(std::uint64_t) {
  throw Error(Errc::read_only, "the stream belongs to a file opened for reading");
}

namespace {

// Copies `count` bytes at `offset` of the file; a piece that the file does
// not hold whole means a chain pointing into its missing tail.
void copyFromFile(const Image& image, std::uint64_t offset, unsigned char* out, std::size_t count,
                  const std::string& path) {
  const ByteSource& source = image.source();
  if (offset + count > source.size() || offset + count < offset) {
    throw Error(Errc::damaged, image.name() + ": " + path + ": the stream's sectors lie past the end of the file");
  }
  if (source.data() != nullptr) {
    memcpy(out, source.data() + offset, count);
  } else if (source.readAt(offset, out, count) != count) {
    throw Error(Errc::io, image.name() + ": " + path + ": short read");
  }
}

class StoredStream : public StreamData {
 public:
  StoredStream(std::shared_ptr<const Image> image, RunMap runs, bool mini, std::uint64_t size,
               std::string path)
      : image_(std::move(image)), runs_(std::move(runs)), mini_(mini), size_(size),
        path_(std::move(path)) {}

  std::uint64_t size() const override { return size_; }

  std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const override {
    if (offset >= size_) return 0;
    if (count > size_ - offset) count = static_cast<std::size_t>(size_ - offset);
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint64_t sectorSize = image_->sectorSize();
    if (!mini_) {
      // Stored sector s starts at (s + 1) * sector size: the header fills sector -1.
      runs_.copy(offset, out, count, [&](std::uint64_t at, unsigned char* to, std::size_t n) {
        copyFromFile(*image_, at + sectorSize, to, n, path_);
      });
      return count;
    }
    runs_.copy(offset, out, count, [&](std::uint64_t at, unsigned char* to, std::size_t n) {
      const RunMap& miniStream = image_->miniStreamMap();
      if (at + n > miniStream.bytes() || at + n > image_->miniStreamSize()) {
        throw Error(Errc::damaged, image_->name() + ": " + path_ + ": the stream lies past the end of the mini stream");
      }
      miniStream.copy(at, to, n, [&](std::uint64_t fileAt, unsigned char* into, std::size_t len) {
        copyFromFile(*image_, fileAt + sectorSize, into, len, path_);
      });
    });
    return count;
  }

 private:
  std::shared_ptr<const Image> image_;
  RunMap runs_;
  bool mini_;
  std::uint64_t size_;
  std::string path_;
};

const char* chainEndText(ChainEnd end) {
  switch (end) {
    case ChainEnd::cycle: return "runs in a circle";
    case ChainEnd::out_of_range: return "points past the end of its table";
    case ChainEnd::broken: return "is broken by a free or special sector";
    default: return "ends early";
  }
}

}  // namespace

std::shared_ptr<StreamData> openStoredStream(std::shared_ptr<const Image> image, std::uint32_t id,
                                             const std::string& path) {
  const moxfmt::EntryRecord e = image->entry(id);
  return openStoredStream(std::move(image), e, path);
}

std::shared_ptr<StreamData> openStoredStream(std::shared_ptr<const Image> image, const moxfmt::EntryRecord& e,
                                             const std::string& path) {
  const std::uint64_t size = image->entrySize(e);
  const bool mini = image->inMiniStream(e);
  const unsigned shift = mini ? image->header().mini_sector_shift : image->header().sector_shift;
  const std::uint64_t wanted = (size + (std::uint64_t{1} << shift) - 1) >> shift;
  // A mini stream's sectors are distinct sectors of the mini stream, so a
  // size needing more than the mini stream holds cannot be read; taken at
  // its word, it would let a file of a few hundred kB claim (and read_all
  // take memory for) as much as the mini FAT can link, gigabytes.
  const std::uint64_t miniBytes = std::min(image->miniStreamMap().bytes(), image->miniStreamSize());
  if (mini && wanted > (miniBytes + (std::uint64_t{1} << shift) - 1) >> shift) {
    throw Error(Errc::damaged, image->name() + ": " + path + ": the stream is larger than the mini stream");
  }
  Chain chain;
  if (wanted > 0) chain = image->chain(e.start, mini, wanted);
  if (chain.sectors < wanted || chain.end == ChainEnd::cycle) {
    throw Error(Errc::damaged, image->name() + ": " + path + ": the stream's " +
                                   (mini ? "mini " : "") + "chain " + chainEndText(chain.end) +
                                   " (" + std::to_string(chain.sectors) + " of " +
                                   std::to_string(wanted) + " sectors)");
  }
  return std::make_shared<StoredStream>(image, RunMap(std::move(chain.runs), shift), mini, size, path);
}

}  // namespace mox::detail
