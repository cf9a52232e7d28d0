// A compound file as read: its header, FAT, mini FAT and directory,
// loaded once and never changed, so that any number of streams and
// threads can read through one Image at once.
//
// Loading is permissive and bounded by the file: a table grows only with
// sectors that exist, a FAT sector or DIFAT sector listed twice is loaded
// once, and every chain walk stops after as many links as its table has
// entries.  What loading had to step over is kept as defects, so that
// check() and strict opens can report it.
#ifndef MOXOLEFIO_NATIVE_IMAGE_H_
#define MOXOLEFIO_NATIVE_IMAGE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "format/records.h"
#include "moxolefio/moxolefio.hpp"
#include "native/run_map.h"
#include "native/source.h"

namespace mox::detail {

// How a chain walk ended.
enum class ChainEnd {
  end_of_chain,  // reached the end mark
  enough,        // had the sectors the caller asked for
  cycle,         // came back to a sector it had visited
  out_of_range,  // a link past the table or the file
  broken,        // a free or other special link in the middle
};

class Image;

// The directory as stored, decoded entry by entry on demand: an open
// touches none of it, and a mapped file's directory is never copied.
class EntryTable {
 public:
  explicit EntryTable(const Image& image) : image_(&image) {}
  std::uint32_t size() const;
  bool empty() const { return size() == 0; }
  moxfmt::EntryRecord operator[](std::uint32_t index) const;

 private:
  const Image* image_;
};

struct Chain {
  std::vector<Run> runs;
  std::uint64_t sectors = 0;
  ChainEnd end = ChainEnd::end_of_chain;
  std::uint32_t last = moxfmt::kEndOfChain;  // the last sector read, or the bad link
};

class Image {
 public:
  // Throws Error(not_a_compound_file) for anything without the signature
  // and a usable header, Error(damaged) when no directory can be read.
  static std::shared_ptr<const Image> load(std::unique_ptr<ByteSource> source);
  // The image of a copy of `like` in which only stream sectors, directory
  // entries and header fields that do not place the tables changed (what
  // a patched commit writes): the FAT and mini FAT are shared with `like`
  // instead of read again, when `like` loaded them without a defect.
  static std::shared_ptr<const Image> loadCopyOf(const Image& like, std::unique_ptr<ByteSource> source);

  const ByteSource& source() const { return *source_; }
  const std::string& name() const { return source_->name(); }
  const moxfmt::HeaderRecord& header() const { return header_; }
  int version() const;
  std::uint32_t sectorSize() const { return sector_size_; }
  std::uint32_t miniSectorSize() const { return mini_sector_size_; }
  // Sectors after the header, the last one possibly cut short.
  std::uint64_t sectorsInFile() const { return sectors_in_file_; }

  // The tables as loaded, in host byte order.  Entries of FAT sectors that
  // could not be read are free.
  const std::vector<std::uint32_t>& fat() const { return tables_->fat; }
  const std::vector<std::uint32_t>& miniFat() const { return tables_->mini_fat; }
  const std::vector<std::uint32_t>& fatSectors() const { return tables_->fat_sectors; }
  const std::vector<std::uint32_t>& difatSectors() const { return tables_->difat_sectors; }
  const std::vector<std::uint32_t>& miniFatSectors() const { return tables_->mini_fat_sectors; }
  const std::vector<std::uint32_t>& directorySectors() const { return directory_sectors_; }
  EntryTable entries() const { return EntryTable(*this); }
  std::uint32_t entryCount() const { return entry_count_; }
  // The 128 stored bytes of entry `index` (< entryCount()).
  const unsigned char* rawEntry(std::uint32_t index) const;
  moxfmt::EntryRecord entry(std::uint32_t index) const {
    return moxfmt::decodeEntry(header_.order, rawEntry(index));
  }
  // The mini stream: the root entry's chain of regular sectors.
  const Chain& miniStream() const { return mini_stream_; }
  std::uint64_t miniStreamSize() const { return mini_stream_size_; }
  // The same runs for reading, shared by every mini stream's reads.
  const RunMap& miniStreamMap() const { return mini_stream_map_; }

  // What loading stepped over.
  const std::vector<Defect>& loadDefects() const { return load_defects_; }

  // Walks a chain of the FAT (mini == false) or the mini FAT.  `wanted`
  // stops the walk once that many sectors are found (0: walk to the end).
  Chain chain(std::uint32_t start, bool mini, std::uint64_t wanted = 0) const;

  // An entry's size as readers see it: all 64 bits with 4096-byte sectors,
  // the low 32 with smaller ones.
  std::uint64_t entrySize(const moxfmt::EntryRecord& e) const;
  // Whether a stream of this entry lives in the mini stream.
  bool inMiniStream(const moxfmt::EntryRecord& e) const;

 private:
  explicit Image(std::unique_ptr<ByteSource> source) : source_(std::move(source)) {}
  void loadHeader();
  bool placesTablesAs(const Image& like) const;
  void loadFat();
  void loadMiniFat();
  void loadDirectory();
  void loadMiniStream();
  // Appends the sector's links to `table`; false when it lies past the file.
  // Consecutive sectors read at once from a file without a mapping.
  struct SectorRun {
    std::uint64_t from = 0;  // the file offset of bytes[0]
    std::vector<unsigned char> bytes;
  };
  bool appendSectorLinks(std::uint32_t sector, std::vector<std::uint32_t>& table,
                         const SectorRun* run = nullptr) const;
  // Appends the links of every sector of `sectors`; a sector that cannot
  // be read is a defect of `code` (none when null), its links free.
  void appendTable(const std::vector<std::uint32_t>& sectors, std::vector<std::uint32_t>& table,
                   const char* code, const char* what);
  void noteDefect(Severity severity, std::string code, std::int64_t sector, std::string message);

  std::unique_ptr<ByteSource> source_;
  moxfmt::HeaderRecord header_;
  std::uint32_t sector_size_ = 512;
  std::uint32_t mini_sector_size_ = 64;
  std::uint64_t sectors_in_file_ = 0;
  struct Tables {
    std::vector<std::uint32_t> fat;
    std::vector<std::uint32_t> mini_fat;
    std::vector<std::uint32_t> fat_sectors;
    std::vector<std::uint32_t> difat_sectors;
    std::vector<std::uint32_t> mini_fat_sectors;
  };
  // Written while this image loads, then shared and never changed.
  std::shared_ptr<Tables> tables_ = std::make_shared<Tables>();
  std::vector<std::uint32_t> directory_sectors_;
  // Where each directory sector's bytes are: in the mapping or memory, or
  // in directory_copy_ for files read with pread.
  std::vector<const unsigned char*> directory_data_;
  std::vector<unsigned char> directory_copy_;
  std::uint32_t entries_per_sector_ = 4;
  std::uint32_t entry_count_ = 0;
  Chain mini_stream_;
  RunMap mini_stream_map_;
  std::uint64_t mini_stream_size_ = 0;
  std::vector<Defect> load_defects_;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_IMAGE_H_
