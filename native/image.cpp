#include "native/image.h"

#include <string.h>

#include <algorithm>
#include <unordered_set>

namespace mox::detail {

namespace {

using moxfmt::kEndOfChain;
using moxfmt::kFreeSector;
using moxfmt::kMaxRegularSector;

bool isRegular(std::uint32_t sector) { return sector <= kMaxRegularSector; }

std::string sectorText(std::uint64_t sector) { return "sector " + std::to_string(sector); }

}  // namespace

std::shared_ptr<const Image> Image::load(std::unique_ptr<ByteSource> source) {
  std::shared_ptr<Image> image(new Image(std::move(source)));
  image->loadHeader();
  image->loadFat();
  image->loadMiniFat();
  image->loadDirectory();
  image->loadMiniStream();
  return image;
}

std::shared_ptr<const Image> Image::loadCopyOf(const Image& like, std::unique_ptr<ByteSource> source) {
  std::shared_ptr<Image> image(new Image(std::move(source)));
  image->loadHeader();
  if (image->placesTablesAs(like)) {
    image->tables_ = like.tables_;
  } else {
    image->loadFat();
    image->loadMiniFat();
  }
  image->loadDirectory();
  image->loadMiniStream();
  return image;
}

bool Image::placesTablesAs(const Image& like) const {
  const moxfmt::HeaderRecord& a = header_;
  const moxfmt::HeaderRecord& b = like.header_;
  return like.load_defects_.empty() && load_defects_.empty() && sectors_in_file_ == like.sectors_in_file_ &&
         a.order == b.order && a.sector_shift == b.sector_shift && a.mini_sector_shift == b.mini_sector_shift &&
         a.fat_sector_count == b.fat_sector_count && a.difat_count == b.difat_count &&
         (a.difat_count == 0 || a.difat_start == b.difat_start) && a.mini_fat_start == b.mini_fat_start &&
         a.mini_fat_count == b.mini_fat_count && memcmp(a.fat_slots, b.fat_slots, sizeof a.fat_slots) == 0;
}

int Image::version() const {
  if (header_.major_version == 3 || header_.major_version == 4) return header_.major_version;
  return header_.sector_shift >= 12 ? 4 : 3;
}

void Image::noteDefect(Severity severity, std::string code, std::int64_t sector,
                       std::string message) {
  load_defects_.push_back(Defect{severity, std::move(code), "", sector, std::move(message)});
}

void Image::loadHeader() {
  unsigned char bytes[moxfmt::kHeaderSize] = {};
  const bool whole = source_->size() >= moxfmt::kHeaderSize &&
                     source_->readAt(0, bytes, sizeof bytes) == sizeof bytes;
  if (!whole || memcmp(bytes, moxfmt::kSignature, sizeof moxfmt::kSignature) != 0) {
    throw Error(Errc::not_a_compound_file, name() + ": not a compound file");
  }
  header_ = moxfmt::decodeHeader(bytes);
  const unsigned shift = header_.sector_shift;
  const unsigned mini = header_.mini_sector_shift;
  // Sectors below 128 bytes cannot hold a directory entry, and above 64 KiB
  // no writer has ever gone; the mini sector must be the smaller one.
  if (shift < 7 || shift > 16 || mini < 1 || mini >= shift) {
    throw Error(Errc::not_a_compound_file,
                name() + ": unusable sector sizes (shifts " + std::to_string(shift) + ", " +
                    std::to_string(mini) + ")");
  }
  sector_size_ = 1u << shift;
  mini_sector_size_ = 1u << mini;
  const std::uint64_t size = source_->size();
  sectors_in_file_ = size > sector_size_ ? (size - sector_size_ + sector_size_ - 1) / sector_size_ : 0;
}

bool Image::appendSectorLinks(std::uint32_t sector, std::vector<std::uint32_t>& table,
                              const SectorRun* run) const {
  const std::uint32_t links = moxfmt::linksPerSector(sector_size_);
  const std::size_t at = table.size();
  table.resize(at + links, kFreeSector);
  if (!isRegular(sector) || sector >= sectors_in_file_) return false;
  const std::uint64_t offset = (static_cast<std::uint64_t>(sector) + 1) * sector_size_;
  std::vector<unsigned char> scratch;
  const unsigned char* bytes = nullptr;
  std::size_t available = 0;
  if (source_->data() != nullptr) {
    bytes = source_->data() + offset;
    available = static_cast<std::size_t>(std::min<std::uint64_t>(sector_size_, source_->size() - offset));
  } else if (run != nullptr && offset >= run->from && offset < run->from + run->bytes.size()) {
    bytes = run->bytes.data() + (offset - run->from);
    available = static_cast<std::size_t>(std::min<std::uint64_t>(sector_size_, run->from + run->bytes.size() - offset));
  } else {
    scratch.resize(sector_size_);
    available = source_->readAt(offset, scratch.data(), sector_size_);
    bytes = scratch.data();
  }
  const std::size_t whole = available / 4;
  // Little-endian words copy as they are on the little-endian hosts this
  // library builds for.
  if (header_.order == moxfmt::ByteOrder::kLittle && whole > 0) {
    memcpy(table.data() + at, bytes, whole * 4);
  } else {
    for (std::size_t i = 0; i < whole; ++i) table[at + i] = moxfmt::get32(header_.order, bytes + 4 * i);
  }
  return true;
}

void Image::appendTable(const std::vector<std::uint32_t>& sectors, std::vector<std::uint32_t>& table,
                        const char* code, const char* what) {
  // A file read with pread gets each run of consecutive sectors (tables
  // are mostly laid out so) in one read: one per 512-byte sector cost
  // more than the bytes.  Only sectors of the list are read, so a table
  // scattered over the file costs no more than before.
  constexpr std::size_t kRunSectors = 256;
  SectorRun run;
  // Sized once: growing by doubling would copy, and touch, the table twice.
  table.reserve(table.size() + sectors.size() * moxfmt::linksPerSector(sector_size_));
  for (std::size_t i = 0; i < sectors.size(); ++i) {
    if (source_->data() == nullptr && (run.bytes.empty() || sectors[i] != sectors[i - 1] + 1 ||
                                       (sectors[i] + 1ull) * sector_size_ >= run.from + run.bytes.size())) {
      std::size_t n = 1;
      while (i + n < sectors.size() && n < kRunSectors && sectors[i + n] == sectors[i] + n &&
             sectors[i + n] < sectors_in_file_) {
        ++n;
      }
      run.bytes.clear();
      if (n > 1 && sectors[i] < sectors_in_file_) {
        run.from = (static_cast<std::uint64_t>(sectors[i]) + 1) * sector_size_;
        run.bytes.resize(n * sector_size_);
        run.bytes.resize(source_->readAt(run.from, run.bytes.data(), run.bytes.size()));
      }
    }
    if (!appendSectorLinks(sectors[i], table, &run) && code != nullptr) {
      noteDefect(Severity::error, code, sectors[i], std::string(what) + " " + sectorText(sectors[i]) + " cannot be read");
    }
  }
}

void Image::loadFat() {
  Tables& t = *tables_;
  std::uint64_t wanted = header_.fat_sector_count;
  // A FAT needs no more sectors than the file has: more could only repeat
  // sectors, and would cost memory the file does not account for.
  if (wanted > sectors_in_file_) {
    noteDefect(Severity::error, "fat-count", -1,
               "the header counts " + std::to_string(wanted) + " FAT sectors, the file has " +
                   std::to_string(sectors_in_file_) + " sectors");
    wanted = sectors_in_file_;
  }
  for (std::size_t i = 0; i < moxfmt::kHeaderFatSlots && t.fat_sectors.size() < wanted; ++i) {
    t.fat_sectors.push_back(header_.fat_slots[i]);
  }
  std::uint32_t next = header_.difat_start;
  std::unordered_set<std::uint32_t> seen;
  const std::uint32_t perSector = moxfmt::linksPerSector(sector_size_);
  std::vector<std::uint32_t> links;
  while (t.fat_sectors.size() < wanted && isRegular(next)) {
    if (next >= sectors_in_file_ || !seen.insert(next).second) {
      noteDefect(Severity::error, next >= sectors_in_file_ ? "difat-range" : "difat-cycle", next,
                 "DIFAT " + sectorText(next) +
                     (next >= sectors_in_file_ ? " lies past the end of the file" : " is visited twice"));
      break;
    }
    t.difat_sectors.push_back(next);
    links.clear();
    appendSectorLinks(next, links);
    for (std::uint32_t k = 0; k + 1 < perSector && t.fat_sectors.size() < wanted; ++k) {
      t.fat_sectors.push_back(links[k]);
    }
    next = links[perSector - 1];
  }
  if (t.fat_sectors.size() < wanted) {
    noteDefect(Severity::error, "fat-count", -1,
               "the header counts " + std::to_string(header_.fat_sector_count) +
                   " FAT sectors, the DIFAT lists " + std::to_string(t.fat_sectors.size()));
  }
  if (t.difat_sectors.size() != header_.difat_count) {
    noteDefect(Severity::warning, "difat-count", -1,
               "the header counts " + std::to_string(header_.difat_count) +
                   " DIFAT sectors, the chain has " + std::to_string(t.difat_sectors.size()));
  }
  t.fat.reserve(t.fat_sectors.size() * perSector);
  appendTable(t.fat_sectors, t.fat, "fat-sector-range", "FAT");
}

namespace {

// Whether two runs share a sector: sorted by start, each must end before
// the next begins.
bool runsOverlap(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.first < b.first; });
  for (std::size_t i = 1; i < runs.size(); ++i) {
    if (runs[i - 1].first + runs[i - 1].count > runs[i].first) return true;
  }
  return false;
}

}  // namespace

Chain Image::chain(std::uint32_t start, bool mini, std::uint64_t wanted) const {
  const std::vector<std::uint32_t>& table = mini ? tables_->mini_fat : tables_->fat;
  const std::uint64_t limit = mini ? table.size() : std::min<std::uint64_t>(table.size(), sectors_in_file_);
  // A walk to the end (the tables, once per open) marks what it visits and
  // stops at the first sector it meets again; a walk for a stream's
  // `wanted` sectors checks its runs for overlaps at the end instead, which
  // costs nothing per link and no memory the size of the table per stream.
  std::vector<bool> visited(wanted == 0 ? limit : 0, false);
  Chain c;
  std::uint32_t s = start;
  for (;;) {
    if (wanted != 0 && c.sectors == wanted) {
      c.end = ChainEnd::enough;
      break;
    }
    if (s == kEndOfChain) {
      c.end = ChainEnd::end_of_chain;
      break;
    }
    if (!isRegular(s)) {
      c.end = ChainEnd::broken;
      c.last = s;
      break;
    }
    if (s >= limit) {
      c.end = ChainEnd::out_of_range;
      c.last = s;
      break;
    }
    // More links than the table has entries can only be going round.
    if (c.sectors >= table.size() || (wanted == 0 && visited[s])) {
      c.end = ChainEnd::cycle;
      c.last = s;
      break;
    }
    if (wanted == 0) visited[s] = true;
    if (!c.runs.empty() && c.runs.back().first + c.runs.back().count == s) {
      ++c.runs.back().count;
    } else {
      c.runs.push_back(Run{s, 1});
    }
    ++c.sectors;
    c.last = s;
    s = table[s];
  }
  if (wanted != 0 && c.runs.size() > 1 && runsOverlap(c.runs)) c.end = ChainEnd::cycle;
  return c;
}

void Image::loadMiniFat() {
  if (header_.mini_fat_count == 0 && !isRegular(header_.mini_fat_start)) return;
  Chain c = chain(header_.mini_fat_start, false);
  if (c.end != ChainEnd::end_of_chain) {
    noteDefect(Severity::error, "minifat-chain", c.last, "the mini FAT's chain is broken");
  }
  if (c.sectors != header_.mini_fat_count) {
    noteDefect(Severity::warning, "minifat-count", -1,
               "the header counts " + std::to_string(header_.mini_fat_count) +
                   " mini FAT sectors, the chain has " + std::to_string(c.sectors));
  }
  // The walk bounded the chain by the file's sectors: sized once, the
  // table is not copied again and again as it grows.
  Tables& t = *tables_;
  t.mini_fat.reserve(c.sectors * moxfmt::linksPerSector(sector_size_));
  t.mini_fat_sectors.reserve(c.sectors);
  for (const Run& run : c.runs) {
    for (std::uint64_t k = 0; k < run.count; ++k) t.mini_fat_sectors.push_back(static_cast<std::uint32_t>(run.first + k));
  }
  // The chain's walk already said what is wrong with it.
  appendTable(t.mini_fat_sectors, t.mini_fat, nullptr, nullptr);
}

void Image::loadDirectory() {
  Chain c = chain(header_.dir_start, false);
  if (c.end != ChainEnd::end_of_chain) {
    noteDefect(Severity::error, "directory-chain", c.last, "the directory's chain is broken");
  }
  entries_per_sector_ = sector_size_ / static_cast<std::uint32_t>(moxfmt::kEntrySize);
  for (const Run& run : c.runs) {
    for (std::uint64_t k = 0; k < run.count; ++k) directory_sectors_.push_back(static_cast<std::uint32_t>(run.first + k));
  }
  // Only whole entries count: the file may end inside its last sector.
  std::uint64_t count = 0;
  for (std::uint32_t sector : directory_sectors_) {
    const std::uint64_t base = (static_cast<std::uint64_t>(sector) + 1) * sector_size_;
    const std::uint64_t present = source_->size() > base ? source_->size() - base : 0;
    const std::uint64_t whole = std::min<std::uint64_t>(present / moxfmt::kEntrySize, entries_per_sector_);
    count += whole;
    if (whole < entries_per_sector_) break;
  }
  entry_count_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, moxfmt::kMaxRegularSector));
  const std::size_t sectors = (entry_count_ + entries_per_sector_ - 1) / entries_per_sector_;
  if (source_->data() == nullptr) {
    directory_copy_.resize(sectors * sector_size_);
    for (std::size_t i = 0; i < sectors; ++i) {
      const std::uint64_t base = (static_cast<std::uint64_t>(directory_sectors_[i]) + 1) * sector_size_;
      source_->readAt(base, directory_copy_.data() + i * sector_size_, sector_size_);
    }
  }
  directory_data_.reserve(sectors);
  for (std::size_t i = 0; i < sectors; ++i) {
    directory_data_.push_back(source_->data() != nullptr
                                  ? source_->data() + (static_cast<std::uint64_t>(directory_sectors_[i]) + 1) * sector_size_
                                  : directory_copy_.data() + i * sector_size_);
  }
  if (entry_count_ == 0) throw Error(Errc::damaged, name() + ": the directory cannot be read");
  if (entry(0).type != moxfmt::kTypeRoot) {
    noteDefect(Severity::error, "root-type", -1, "the first directory entry is not the root");
  }
}

const unsigned char* Image::rawEntry(std::uint32_t index) const {
  return directory_data_[index / entries_per_sector_] + (index % entries_per_sector_) * moxfmt::kEntrySize;
}

std::uint32_t EntryTable::size() const { return image_->entryCount(); }

moxfmt::EntryRecord EntryTable::operator[](std::uint32_t index) const { return image_->entry(index); }

void Image::loadMiniStream() {
  const moxfmt::EntryRecord root = entry(0);
  mini_stream_size_ = entrySize(root);
  if (mini_stream_size_ == 0) return;
  const std::uint64_t wanted = (mini_stream_size_ + sector_size_ - 1) / sector_size_;
  mini_stream_ = chain(root.start, false, wanted);
  mini_stream_map_ = RunMap(mini_stream_.runs, header_.sector_shift);
  if (mini_stream_.end == ChainEnd::cycle) {
    noteDefect(Severity::error, "ministream-cycle", -1, "the mini stream's chain comes back to a sector");
  } else if (mini_stream_.sectors < wanted) {
    noteDefect(Severity::error, "ministream-chain", mini_stream_.last,
               "the mini stream's chain has " + std::to_string(mini_stream_.sectors) +
                   " sectors, its size needs " + std::to_string(wanted));
  }
}

std::uint64_t Image::entrySize(const moxfmt::EntryRecord& e) const {
  return header_.sector_shift >= 12 ? e.size : (e.size & 0xFFFFFFFFu);
}

bool Image::inMiniStream(const moxfmt::EntryRecord& e) const {
  return e.type == moxfmt::kTypeStream && entrySize(e) < header_.mini_cutoff;
}

}  // namespace mox::detail
