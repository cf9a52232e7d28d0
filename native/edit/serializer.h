// Writes a whole compound file from a tree, front to back, in one pass:
// the layout (every sector's place) is worked out from the sizes first,
// so the bytes can go to the output as they are read, and only the
// tables are ever held.
//
// The file it writes: the header; each regular stream's sectors in
// directory order; the mini stream; the mini FAT; the directory; the FAT;
// the DIFAT.  Every chain is one run, every sector belongs to exactly one
// chain or table, and each storage's children form a red-black tree in
// the format's sibling order.
//
// Written over the scratch file instead, the pages of stream data stay
// where they are, as the sectors of their streams: the header goes in
// front of them (page 0), everything else after them, and sectors of the
// scratch file that no stream uses are marked free.  A stream written
// there is then never copied.
#ifndef MOXOLEFIO_NATIVE_EDIT_SERIALIZER_H_
#define MOXOLEFIO_NATIVE_EDIT_SERIALIZER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "native/edit/scratch.h"
#include "native/image.h"
#include "native/source.h"
#include "native/stream_data.h"
#include "native/tree.h"

namespace mox::detail {

// Where the bytes go, in order.
class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const void* data, std::size_t count) = 0;
  // `count` zero bytes; a file may leave a hole instead.
  virtual void zeros(std::uint64_t count);
  // `count` bytes of the file `fd` from `offset` (zeros past its end).
  virtual void copyFrom(int fd, std::uint64_t offset, std::uint64_t count);
  // Moves on `count` bytes, leaving what the output holds there.
  virtual void skip(std::uint64_t count);
};

class MemorySink : public Sink {
 public:
  explicit MemorySink(std::vector<unsigned char>& out) : out_(out) {}
  void write(const void* data, std::size_t count) override;
  void zeros(std::uint64_t count) override { out_.resize(out_.size() + count, 0); }

 private:
  std::vector<unsigned char>& out_;
};

// The largest stream a file of this version may hold.
std::uint64_t maxStreamSize(int version);

// Bytes [from, from + count) of a stream into `sink`; pages that wait in
// the scratch file go file to file, the rest through `buffer`.  False
// when the stream ends early.
bool copyStreamBytes(const StreamData& data, std::uint64_t from, std::uint64_t count,
                     std::vector<unsigned char>& buffer, Sink& sink);
// Bytes [offset, offset + count) of the old file into `sink`, straight
// from its mapping where it has one.  False when the file is shorter.
bool copySourceBytes(const ByteSource& source, std::uint64_t offset, std::uint64_t count,
                     std::vector<unsigned char>& buffer, Sink& sink);

// A whole file, written front to back.
class FileWriter {
 public:
  virtual ~FileWriter() = default;
  virtual std::uint64_t fileSize() const = 0;
  virtual void write(Sink& sink) = 0;
};

class Serializer : public FileWriter {
 public:
  // `image` is where nodes without data of their own are read from (null
  // when there are none).  Throws Error(invalid_argument) for a tree the
  // version cannot hold.  With `overScratch`, the file is laid out over
  // that scratch file's pages (see above); write() then expects a sink
  // over that file, from its start.
  Serializer(const Tree& tree, std::shared_ptr<const Image> image, int version,
             const Scratch* overScratch = nullptr);

  // Pages of the scratch file the layout keeps as stream sectors.
  std::uint64_t pagesKept() const { return pagesKept_; }

  std::uint64_t fileSize() const override { return (static_cast<std::uint64_t>(sectors_) + 1) << shift_; }
  // Directory index in the output of each node written, kNoNode for the
  // others.
  const std::vector<std::uint32_t>& directoryIndex() const { return index_; }

  void write(Sink& sink) override;

 private:
  struct Region {
    std::uint32_t start;
    std::uint32_t count;
    std::uint32_t mark;  // kEndOfChain for a chain, else the value of each entry
    std::uint32_t next = moxfmt::kEndOfChain;  // a chain's last entry
  };
  // Bytes [offset, offset + bytes) of a regular stream, as one run of
  // sectors; kept pieces lie in the scratch file already.
  struct Piece {
    std::uint64_t offset;
    std::uint64_t bytes;
    std::uint32_t first;
    bool kept;
  };

  void lay();
  std::uint64_t layStream(std::size_t d, std::uint64_t sector);
  void linkSiblings(const std::vector<std::uint32_t>& sorted, std::size_t lo, std::size_t hi,
                    unsigned depth, unsigned redDepth, std::uint32_t* root);
  void writeHeader(Sink& sink);
  void writeContent(std::uint32_t node, Sink& sink);
  void writePieces(std::size_t d, Sink& sink);
  void copyStored(std::uint32_t node, Sink& sink);
  void writeTable(const std::vector<Region>& regions, std::uint64_t entries, Sink& sink);
  void writeDirectory(Sink& sink);
  void writeDifat(Sink& sink);
  [[noreturn]] void damaged(std::uint32_t node, const std::string& what) const;

  const Tree& tree_;
  std::shared_ptr<const Image> image_;
  int version_;
  unsigned shift_;
  std::uint32_t sectorSize_;

  std::vector<std::uint32_t> order_;  // nodes in directory order
  std::vector<std::uint32_t> index_;  // node -> directory index
  std::vector<std::uint32_t> left_, right_, child_;  // by directory index
  std::vector<std::uint8_t> colour_;
  std::vector<std::uint32_t> start_;  // first sector (or mini sector) by directory index
  std::vector<std::uint64_t> size_;

  const Scratch* scratch_;
  std::uint64_t pagesKept_ = 0;
  std::uint64_t appendFrom_ = 0;  // first sector after the scratch file's pages
  std::vector<Piece> pieces_;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> pieceRange_;  // by directory index, into pieces_

  std::vector<Region> fatRegions_;
  std::vector<Region> miniRegions_;
  std::uint64_t miniSectors_ = 0;
  std::uint32_t miniStreamStart_ = 0, miniStreamSectors_ = 0;
  std::uint32_t miniFatStart_ = 0, miniFatSectors_ = 0;
  std::uint32_t dirStart_ = 0, dirSectors_ = 0;
  std::uint32_t fatStart_ = 0, fatSectors_ = 0;
  std::uint32_t difatStart_ = 0, difatSectors_ = 0;
  std::uint32_t sectors_ = 0;
  std::vector<unsigned char> buffer_;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_SERIALIZER_H_
