#include "native/check.h"

#include <vector>

#include "format/names.h"
#include "native/check_report.h"
#include "native/tree.h"

namespace mox::detail {

namespace check {

namespace {

// Enough of one kind to show the pattern; a damaged file can otherwise
// repeat the same defect for every sector it has.
constexpr std::size_t kListedPerCode = 100;
// Paths quoted in messages longer than this name the entry by number.
constexpr std::size_t kQuotedPathLimit = 1024;

}  // namespace

std::string counted(std::uint64_t n, const char* singular, const char* plural) {
  return std::to_string(n) + " " + (n == 1 ? singular : plural);
}

bool Report::full(const char* code) const {
  auto it = tallies_.find(code);
  return it != tallies_.end() && it->second.listed >= kListedPerCode;
}

bool Report::has(const std::string& code) const { return tallies_.count(code) != 0; }

void Report::drop(const std::string& code, Severity severity) {
  Tally& tally = tallies_[code];
  tally.severity = severity;
  ++tally.dropped;
}

void Report::addDefect(Defect defect) {
  const std::size_t bytes = defect.path.size() + defect.message.size();
  if (full(defect.code.c_str()) || bytes > budget_) {
    drop(defect.code, defect.severity);
    return;
  }
  budget_ -= bytes;
  Tally& tally = tallies_[defect.code];
  tally.severity = defect.severity;
  ++tally.listed;
  defects_.push_back(std::move(defect));
}

void Report::add(Severity severity, const char* code, std::uint32_t entry, std::int64_t sector,
                 std::string message) {
  std::string path;
  if (full(code) || (entry != kNone && !spellPath(entry, budget_, path))) {
    drop(code, severity);
    return;
  }
  addDefect(Defect{severity, code, std::move(path), sector, std::move(message)});
}

bool Report::spellPath(std::uint32_t entry, std::size_t limit, std::string& path) const {
  path.clear();
  if (scan_ == nullptr || entry == 0 || entry >= scan_->reached.size() || !scan_->reached[entry]) return true;
  // Every level adds at least a byte, so the climb stops as soon as the
  // path cannot fit: a hostile file can nest entries as deep as it has them.
  std::vector<std::uint32_t> line;
  for (std::uint32_t at = entry; at != 0 && at != kNone; at = scan_->parent[at]) {
    if (line.size() >= limit) return false;
    line.push_back(at);
  }
  auto nameOf = [&](std::uint32_t id) {
    const moxfmt::EntryRecord e = image_.entry(id);
    return moxfmt::utf16ToUtf8(e.name, e.nameLength());
  };
  path = childPath(std::string(), true, nameOf(line.back()));
  // Appending, not childPath per level: a deep path stays linear to build.
  for (auto it = line.rbegin() + 1; it != line.rend() && path.size() <= limit; ++it) {
    path += '/';
    path += nameOf(*it);
  }
  return path.size() <= limit;
}

std::string Report::describe(std::uint32_t entry) const {
  if (entry == 0) return "the root";
  std::string path;
  if (scan_ != nullptr && entry < scan_->reached.size() && scan_->reached[entry] &&
      spellPath(entry, kQuotedPathLimit, path)) {
    return "'" + path + "'";
  }
  return "entry " + std::to_string(entry);
}

std::vector<Defect> Report::finish() {
  for (const auto& [code, tally] : tallies_) {
    if (tally.dropped == 0) continue;
    defects_.push_back(Defect{tally.severity, code, "", -1,
                              counted(tally.dropped, "more defect", "more defects") + " of this kind not listed"});
  }
  return std::move(defects_);
}

void checkHeader(const Image& image, Report& report) {
  const moxfmt::HeaderRecord& h = image.header();
  if (h.byte_order_mark != moxfmt::kByteOrderMark) {
    // This library honours the mark; every other reader reads
    // little-endian regardless, so the two disagree on every number.
    report.add(Severity::error, "header-byte-order", kNone, -1,
               "the byte-order mark is not little-endian: other readers disagree on every field");
  }
  if (h.major_version != 3 && h.major_version != 4) {
    report.add(Severity::warning, "header-version", kNone, -1,
               "major version " + std::to_string(h.major_version) + " (3 or 4 expected)");
  }
  const unsigned expectedShift = h.major_version == 4 ? 12 : h.major_version == 3 ? 9 : 0;
  if (expectedShift != 0 ? h.sector_shift != expectedShift : h.sector_shift != 9 && h.sector_shift != 12) {
    report.add(Severity::warning, "header-sector-size", kNone, -1,
               std::to_string(image.sectorSize()) + "-byte sectors in a version " +
                   std::to_string(h.major_version) + " file");
  }
  if (h.mini_sector_shift != 6) {
    report.add(Severity::warning, "header-mini-sector-size", kNone, -1,
               std::to_string(image.miniSectorSize()) + "-byte mini sectors (64 expected)");
  }
  if (h.mini_cutoff != moxfmt::kMiniStreamCutoff) {
    // Readers that assume the usual cutoff look for small streams in the
    // wrong place, but the common ones take the header's word.
    report.add(Severity::warning, "header-mini-cutoff", kNone, -1,
               "mini stream cutoff " + std::to_string(h.mini_cutoff) + " (4096 expected)");
  }
  const std::uint64_t directorySectors = image.directorySectors().size();
  if (image.sectorSize() == 512 ? h.dir_sector_count != 0
                                : h.dir_sector_count != 0 && h.dir_sector_count != directorySectors) {
    report.add(Severity::warning, "header-dir-count", kNone, -1,
               "the header counts " + counted(h.dir_sector_count, "directory sector", "directory sectors") +
                   ", the chain has " + std::to_string(directorySectors) +
                   (image.sectorSize() == 512 ? " (512-byte sectors: 0 expected)" : ""));
  }

  // DIFAT slots past the FAT's last sector should be free (some writers
  // end the list with an end-of-chain mark instead).  Readers stop at the
  // count, so a stale slot is only an oddity.
  auto unused = [](std::uint32_t v) { return v == moxfmt::kFreeSector || v == moxfmt::kEndOfChain; };
  std::uint64_t stale = 0;
  std::int64_t firstStale = -1;
  for (std::size_t i = h.fat_sector_count; i < moxfmt::kHeaderFatSlots; ++i) {
    if (unused(h.fat_slots[i])) continue;
    if (stale++ == 0) firstStale = h.fat_slots[i];
  }
  const std::vector<std::uint32_t>& difat = image.difatSectors();
  const std::uint32_t perSector = moxfmt::linksPerSector(image.sectorSize());
  if (!difat.empty() && !report.has("fat-count") && image.fatSectors().size() > moxfmt::kHeaderFatSlots) {
    const std::uint64_t inSectors = image.fatSectors().size() - moxfmt::kHeaderFatSlots;
    const std::uint64_t usedInLast = inSectors - (difat.size() - 1) * (perSector - 1);
    std::vector<unsigned char> bytes(image.sectorSize());
    const std::uint64_t offset = (static_cast<std::uint64_t>(difat.back()) + 1) * image.sectorSize();
    if (image.source().readAt(offset, bytes.data(), bytes.size()) == bytes.size()) {
      for (std::uint64_t k = usedInLast; k + 1 < perSector; ++k) {
        const std::uint32_t v = moxfmt::get32(h.order, bytes.data() + 4 * k);
        if (unused(v)) continue;
        if (stale++ == 0) firstStale = v;
      }
      const std::uint32_t next = moxfmt::get32(h.order, bytes.data() + 4 * (perSector - 1));
      if (next <= moxfmt::kMaxRegularSector) {
        report.add(Severity::warning, "difat-slot", kNone, difat.back(),
                   "the last DIFAT sector links on to sector " + std::to_string(next));
      }
    }
  }
  if (stale != 0) {
    report.add(Severity::warning, "difat-slot", kNone, firstStale,
               counted(stale, "DIFAT slot", "DIFAT slots") + " past the FAT's last sector not free");
  }
}

}  // namespace check

std::vector<Defect> checkImage(const Image& image) {
  check::Report report(image);
  for (const Defect& d : image.loadDefects()) report.addDefect(d);
  check::checkHeader(image, report);
  check::DirectoryScan scan;
  report.setDirectory(&scan);
  check::checkDirectory(image, scan, report);
  check::checkSectors(image, scan, report);
  return report.finish();
}

}  // namespace mox::detail
