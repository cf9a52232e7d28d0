// The sector half of the check: every chain of the FAT and of the mini FAT
// walked once, each sector claimed by the first chain or table that
// reaches it.  A walk stops at a sector claimed before, so the whole scan
// takes one step per table entry whatever the links do, and a second
// claim is exactly a sector in two chains (or a chain coming back to
// itself).
#include <algorithm>
#include <cstdio>

#include "native/check_report.h"

namespace mox::detail::check {

namespace {

using moxfmt::kDifatSector;
using moxfmt::kEndOfChain;
using moxfmt::kFatSector;
using moxfmt::kFreeSector;
using moxfmt::kMaxRegularSector;

// Claimants other than entries (which claim under their own number; the
// root's claim is the mini stream).
constexpr std::uint32_t kOwnFat = 0xFFFFFFF0;
constexpr std::uint32_t kOwnDifat = 0xFFFFFFF1;
constexpr std::uint32_t kOwnMiniFat = 0xFFFFFFF2;
constexpr std::uint32_t kOwnDirectory = 0xFFFFFFF3;

enum class End { end_of_chain, enough, cycle, shared, out_of_range, broken };

struct Walk {
  std::uint64_t sectors = 0;
  End end = End::end_of_chain;
  std::uint32_t at = 0;         // the sector or link the walk stopped at
  std::uint32_t other = kNone;  // the claimant of `at`, when shared
  std::int64_t last = -1;       // the last sector claimed
};

struct Codes {
  const char* shared;
  const char* cycle;
  const char* range;
  const char* broken;
  const char* tooShort;
  const char* tooLong;
};

constexpr Codes kRegularCodes{"sector-shared", "fat-cycle", "sector-range",
                              "chain-broken", "chain-short", "chain-long"};
constexpr Codes kMiniCodes{"mini-sector-shared", "minifat-cycle", "mini-sector-range",
                           "mini-chain-broken", "mini-chain-short", "mini-chain-long"};

std::string hexLink(std::uint32_t v) {
  char text[16];
  snprintf(text, sizeof text, "0x%08X", v);
  return text;
}

// Walks the chain from `start`, claiming each sector for `who`, until
// the end or `wanted` sectors (0: no limit); `visit` sees (position in the
// chain, sector) for every sector claimed.
template <typename Visit>
Walk claim(const std::vector<std::uint32_t>& table, std::uint64_t limit, BulkVector<std::uint32_t>& owner,
           std::uint32_t who, std::uint32_t start, std::uint64_t wanted, Visit&& visit) {
  Walk w;
  std::uint32_t s = start;
  for (;;) {
    if (s == kEndOfChain) break;
    if (wanted != 0 && w.sectors == wanted) {
      w.end = End::enough;
      break;
    }
    if (s > kMaxRegularSector) {
      w.end = End::broken;
      break;
    }
    if (s >= limit) {
      w.end = End::out_of_range;
      break;
    }
    if (owner[s] != kNone) {
      w.end = owner[s] == who ? End::cycle : End::shared;
      w.other = owner[s];
      break;
    }
    owner[s] = who;
    visit(w.sectors, s);
    ++w.sectors;
    w.last = s;
    s = table[s];
  }
  w.at = s;
  return w;
}

void noVisit(std::uint64_t, std::uint32_t) {}

class SectorChecker {
 public:
  SectorChecker(const Image& image, const DirectoryScan& scan, Report& report)
      : image_(image), scan_(scan), report_(report), fat_(image.fat()), miniFat_(image.miniFat()) {
    owner_.assign(fat_.size(), kNone);
    miniOwner_.assign(miniFat_.size(), kNone);
    limit_ = std::min<std::uint64_t>(fat_.size(), image.sectorsInFile());
    const std::uint64_t size = image.source().size();
    const std::uint64_t ss = image.sectorSize();
    if (image.sectorsInFile() > 0 && (size - ss) % ss != 0) {
      partial_ = static_cast<std::int64_t>(image.sectorsInFile() - 1);
      partialBytes_ = (size - ss) % ss;
    }
  }

  void run();

 private:
  // A chain with all the sectors its size needs, still to be followed
  // past them.
  struct Tail {
    std::uint32_t who;
    std::uint32_t next;
    std::uint64_t sectors;
    std::int64_t last;
    bool mini;
  };

  std::string ownerText(std::uint32_t who) const;
  std::vector<std::uint32_t> declaredDifat();
  std::uint32_t nextDifat(std::uint32_t sector) const;
  void claimListed(const std::vector<std::uint32_t>& sectors, std::uint32_t who, std::uint32_t mark,
                   const char* what);
  void claimTableChain(std::uint32_t start, std::uint32_t who, const char* what);
  void walkMiniStream();
  void walkStream(const DirectoryScan::Stream& stream);
  void walkMiniChain(const DirectoryScan::Stream& stream);
  void reportEnd(const Walk& w, std::uint64_t needed, std::uint64_t size, const Codes& codes, std::uint32_t who);
  void followTail(const Tail& tail);
  void reportStray();

  const Image& image_;
  const DirectoryScan& scan_;
  Report& report_;
  const std::vector<std::uint32_t>& fat_;
  const std::vector<std::uint32_t>& miniFat_;
  BulkVector<std::uint32_t> owner_, miniOwner_;
  std::uint64_t limit_ = 0;
  std::vector<Tail> tails_;
  // The file's last sector when the file ends inside it.
  std::int64_t partial_ = -1;
  std::uint64_t partialBytes_ = 0;
  // Bytes [lostFrom_, lostTo_) of the mini stream lie past the end of the file.
  std::uint64_t lostFrom_ = 0, lostTo_ = 0;
};

void SectorChecker::run() {
  claimListed(image_.fatSectors(), kOwnFat, kFatSector, "FAT");
  claimListed(declaredDifat(), kOwnDifat, kDifatSector, "DIFAT");
  const moxfmt::HeaderRecord& h = image_.header();
  if (h.mini_fat_count != 0 || h.mini_fat_start <= kMaxRegularSector) {
    claimTableChain(h.mini_fat_start, kOwnMiniFat, "mini FAT");
  }
  claimTableChain(h.dir_start, kOwnDirectory, "directory");
  // Every chain's needed sectors are claimed before any chain is followed
  // past its size: what lies beyond is read by no reader, so a sector
  // there that another chain needs is that chain's, not a conflict.
  walkMiniStream();
  for (const DirectoryScan::Stream& stream : scan_.streams) {
    if (stream.mini) {
      walkMiniChain(stream);
    } else {
      walkStream(stream);
    }
  }
  for (const Tail& tail : tails_) followTail(tail);
  reportStray();
}

std::string SectorChecker::ownerText(std::uint32_t who) const {
  switch (who) {
    case kOwnFat: return "the FAT";
    case kOwnDifat: return "the DIFAT";
    case kOwnMiniFat: return "the mini FAT";
    case kOwnDirectory: return "the directory";
    case 0: return "the mini stream";
    default: return report_.describe(who);
  }
}

std::uint32_t SectorChecker::nextDifat(std::uint32_t sector) const {
  const std::uint64_t ss = image_.sectorSize();
  unsigned char bytes[4];
  if (image_.source().readAt((static_cast<std::uint64_t>(sector) + 2) * ss - 4, bytes, 4) != 4) return kEndOfChain;
  return moxfmt::get32(image_.header().order, bytes);
}

// Loading reads only the DIFAT sectors the FAT needs; a header that
// declares more makes readers that go by its count walk them too.
std::vector<std::uint32_t> SectorChecker::declaredDifat() {
  std::vector<std::uint32_t> difat = image_.difatSectors();
  const moxfmt::HeaderRecord& h = image_.header();
  if (difat.size() >= h.difat_count || report_.has("difat-cycle") || report_.has("difat-range")) return difat;
  const std::uint64_t inFile = image_.sectorsInFile();
  std::vector<bool> seen(inFile, false);
  for (std::uint32_t s : difat) seen[s] = true;
  std::uint32_t next = difat.empty() ? h.difat_start : nextDifat(difat.back());
  while (difat.size() < h.difat_count && next <= kMaxRegularSector) {
    if (next >= inFile || seen[next]) {
      report_.add(Severity::error, next >= inFile ? "difat-range" : "difat-cycle", kNone, next,
                  "DIFAT sector " + std::to_string(next) +
                      (next >= inFile ? " lies past the end of the file" : " is visited twice"));
      break;
    }
    seen[next] = true;
    difat.push_back(next);
    next = nextDifat(next);
  }
  return difat;
}

// FAT and DIFAT sectors are listed rather than chained; the FAT marks each
// with a value of its own.
void SectorChecker::claimListed(const std::vector<std::uint32_t>& sectors, std::uint32_t who,
                                std::uint32_t mark, const char* what) {
  std::uint64_t unmarked = 0;
  std::int64_t first = -1;
  std::uint32_t firstValue = 0;
  for (std::uint32_t s : sectors) {
    // Loading reported sectors past the file; past the FAT there is no
    // entry to check.
    if (s >= limit_) continue;
    if (owner_[s] != kNone) {
      report_.add(Severity::error, "sector-shared", kNone, s,
                  std::string(what) + " sector " + std::to_string(s) + " is also " +
                      (owner_[s] == who ? "listed before" : "in " + ownerText(owner_[s])));
      continue;
    }
    owner_[s] = who;
    if (fat_[s] != mark && unmarked++ == 0) {
      first = s;
      firstValue = fat_[s];
    }
  }
  if (unmarked != 0) {
    // Readers go by the lists, not the marks; a writer reusing free
    // entries could overwrite the table, though.
    report_.add(Severity::warning, "table-mark", kNone, first,
                counted(unmarked, (std::string(what) + " sector is").c_str(),
                        (std::string(what) + " sectors are").c_str()) +
                    " not marked as such in the FAT (first: sector " + std::to_string(first) + ", marked " +
                    hexLink(firstValue) + ")");
  }
}

// The mini FAT's and the directory's chains: loading already reported how
// they end, so only a sector shared with another table is new here.
void SectorChecker::claimTableChain(std::uint32_t start, std::uint32_t who, const char* what) {
  const Walk w = claim(fat_, limit_, owner_, who, start, 0, noVisit);
  if (w.end == End::shared) {
    report_.add(Severity::error, "sector-shared", kNone, w.at,
                "sector " + std::to_string(w.at) + " of the " + what + " is also in " + ownerText(w.other));
  }
}

void SectorChecker::walkMiniStream() {
  const std::uint64_t size = image_.miniStreamSize();
  if (size == 0) return;
  const std::uint64_t ss = image_.sectorSize();
  const std::uint64_t needed = (size + ss - 1) / ss;
  const Walk w =
      claim(fat_, limit_, owner_, 0, image_.entry(0).start, needed, [&](std::uint64_t pos, std::uint32_t s) {
        if (static_cast<std::int64_t>(s) != partial_) return;
        lostFrom_ = pos * ss + partialBytes_;
        lostTo_ = (pos + 1) * ss;
      });
  // Loading reported a chain too short for the size.
  if (w.end == End::shared || !report_.has("ministream-chain")) reportEnd(w, needed, size, kRegularCodes, 0);
}

void SectorChecker::walkStream(const DirectoryScan::Stream& stream) {
  const std::uint32_t id = stream.id;
  const std::uint64_t size = stream.size;
  const std::uint64_t ss = image_.sectorSize();
  const std::uint64_t needed = (size + ss - 1) / ss;
  std::int64_t cut = -1;
  const Walk w =
      claim(fat_, limit_, owner_, id, stream.start, needed, [&](std::uint64_t pos, std::uint32_t s) {
        if (static_cast<std::int64_t>(s) == partial_ && pos * ss + partialBytes_ < size) cut = s;
      });
  reportEnd(w, needed, size, kRegularCodes, id);
  if (cut >= 0) {
    report_.add(Severity::error, "sector-truncated", id, cut,
                "the file ends " + std::to_string(partialBytes_) + " bytes into sector " + std::to_string(cut) +
                    ", inside the stream's data");
  }
}

void SectorChecker::walkMiniChain(const DirectoryScan::Stream& stream) {
  const std::uint32_t id = stream.id;
  const std::uint64_t size = stream.size;
  const std::uint64_t mss = image_.miniSectorSize();
  const std::uint64_t needed = (size + mss - 1) / mss;
  const std::uint64_t streamSize = image_.miniStreamSize();
  std::int64_t beyond = -1, cut = -1;
  const Walk w = claim(miniFat_, miniFat_.size(), miniOwner_, id, stream.start, needed,
                       [&](std::uint64_t pos, std::uint32_t m) {
                         const std::uint64_t from = m * mss;
                         const std::uint64_t to = from + std::min(mss, size - pos * mss);
                         if (to > streamSize && beyond < 0) beyond = m;
                         if (from < lostTo_ && to > lostFrom_ && cut < 0) cut = m;
                       });
  reportEnd(w, needed, size, kMiniCodes, id);
  if (beyond >= 0) {
    report_.add(Severity::error, "mini-beyond-stream", id, beyond,
                "mini sector " + std::to_string(beyond) + " lies past the end of the mini stream (" +
                    std::to_string(streamSize) + " bytes)");
  } else if (cut >= 0) {
    report_.add(Severity::error, "sector-truncated", id, partial_,
                "the file ends " + std::to_string(partialBytes_) + " bytes into sector " + std::to_string(partial_) +
                    ", inside mini sector " + std::to_string(cut) + " of the stream");
  }
}

void SectorChecker::reportEnd(const Walk& w, std::uint64_t needed, std::uint64_t size, const Codes& codes,
                              std::uint32_t who) {
  const bool mini = &codes == &kMiniCodes;
  // Most chains are sound: the words of a report are made only for one.
  if (w.end == End::enough) {
    if (w.at != kEndOfChain) tails_.push_back(Tail{who, w.at, w.sectors, w.last, mini});
    return;
  }
  if (w.end == End::end_of_chain && w.sectors >= needed) return;
  const std::string unit = mini ? "mini sector" : "sector";
  const std::string subject = who == 0 ? "the mini stream's chain" : "the chain";
  const std::string progress = " after " + std::to_string(w.sectors) + " of " + std::to_string(needed) + " " + unit + "s";
  const std::uint32_t entry = who == 0 ? kNone : who;
  switch (w.end) {
    case End::enough:
      return;
    case End::shared:
      if (report_.full(codes.shared)) return;
      report_.add(Severity::error, codes.shared, entry, w.at,
                  unit + " " + std::to_string(w.at) + " is also in " + ownerText(w.other) + progress);
      return;
    case End::cycle:
      report_.add(Severity::error, codes.cycle, entry, w.at,
                  subject + " comes back to " + unit + " " + std::to_string(w.at) + progress);
      return;
    case End::out_of_range: {
      const std::uint64_t tableSize = mini ? miniFat_.size() : fat_.size();
      report_.add(Severity::error, codes.range, entry, w.at,
                  subject + " goes to " + unit + " " + std::to_string(w.at) + ", past " +
                      (w.at >= tableSize ? std::string(mini ? "the mini FAT" : "the FAT")
                                         : std::string("the end of the file")) +
                      progress);
      return;
    }
    case End::broken:
      report_.add(Severity::error, codes.broken, entry, w.last,
                  subject + " holds the link " + hexLink(w.at) + progress);
      return;
    case End::end_of_chain:
      break;
  }
  if (w.sectors < needed) {
    report_.add(Severity::error, codes.tooShort, entry, w.last,
                subject + " has " + counted(w.sectors, unit.c_str(), (unit + "s").c_str()) + ", " +
                    std::to_string(size) + " bytes need " + std::to_string(needed));
  }
}

// Past its size a chain is read by nobody: whatever it does there (run
// on, end in a bad link, even loop or wander into another chain) loses no
// data, so it is one warning, telling how the chain goes on.
void SectorChecker::followTail(const Tail& tail) {
  const Walk w = tail.mini ? claim(miniFat_, miniFat_.size(), miniOwner_, tail.who, tail.next, 0, noVisit)
                           : claim(fat_, limit_, owner_, tail.who, tail.next, 0, noVisit);
  const std::string unit = tail.mini ? "mini sector" : "sector";
  std::string how;
  switch (w.end) {
    case End::enough:
    case End::end_of_chain: break;
    case End::cycle: how = ", then comes back to " + unit + " " + std::to_string(w.at); break;
    case End::shared: how = ", then runs into " + unit + " " + std::to_string(w.at) + " of " + ownerText(w.other); break;
    case End::out_of_range: how = ", then goes to " + unit + " " + std::to_string(w.at) + ", past the end"; break;
    case End::broken: how = ", then holds the link " + hexLink(w.at); break;
  }
  const char* code = tail.who == 0 ? "ministream-long" : (tail.mini ? kMiniCodes : kRegularCodes).tooLong;
  const std::string more = w.sectors == 0 ? "" : " for " + counted(w.sectors, unit.c_str(), (unit + "s").c_str());
  report_.add(Severity::warning, code, tail.who == 0 ? kNone : tail.who, w.sectors != 0 ? w.last : tail.last,
              std::string(tail.who == 0 ? "the mini stream's chain" : "the chain") + " goes on past the " +
                  counted(tail.sectors, unit.c_str(), (unit + "s").c_str()) + " its size needs" + more + how);
}

// Entries in use that no chain or table reached: space lost to every
// reader, but no data.
void SectorChecker::reportStray() {
  std::uint64_t stray = 0, marked = 0;
  std::int64_t firstStray = -1, firstMarked = -1;
  for (std::size_t s = 0; s < fat_.size(); ++s) {
    const std::uint32_t v = fat_[s];
    if (owner_[s] != kNone || v == kFreeSector) continue;
    if (v == kFatSector || v == kDifatSector) {
      if (marked++ == 0) firstMarked = static_cast<std::int64_t>(s);
    } else if (stray++ == 0) {
      firstStray = static_cast<std::int64_t>(s);
    }
  }
  if (marked != 0) {
    report_.add(Severity::warning, "table-mark", kNone, firstMarked,
                counted(marked, "sector is", "sectors are") +
                    " marked as FAT or DIFAT sectors but listed as neither (first: sector " +
                    std::to_string(firstMarked) + ")");
  }
  if (stray != 0) {
    report_.add(Severity::warning, "sector-orphan", kNone, firstStray,
                counted(stray, "sector is", "sectors are") + " in use in the FAT but in no chain (first: sector " +
                    std::to_string(firstStray) + ")");
  }
  std::uint64_t miniStray = 0;
  std::int64_t firstMini = -1;
  for (std::size_t m = 0; m < miniFat_.size(); ++m) {
    if (miniOwner_[m] != kNone || miniFat_[m] == kFreeSector) continue;
    if (miniStray++ == 0) firstMini = static_cast<std::int64_t>(m);
  }
  if (miniStray != 0) {
    report_.add(Severity::warning, "mini-sector-orphan", kNone, firstMini,
                counted(miniStray, "mini sector is", "mini sectors are") +
                    " in use in the mini FAT but in no chain (first: mini sector " + std::to_string(firstMini) + ")");
  }
}

}  // namespace

void checkSectors(const Image& image, const DirectoryScan& scan, Report& report) {
  SectorChecker(image, scan, report).run();
}

}  // namespace mox::detail::check
