#include "support/cfb_audit.h"

#include <cstring>
#include <functional>

#include "format/names.h"

namespace cfbaudit {

namespace {

constexpr std::uint32_t kEnd = 0xFFFFFFFE, kFree = 0xFFFFFFFF, kFatMark = 0xFFFFFFFD,
                        kDifMark = 0xFFFFFFFC, kNone = 0xFFFFFFFF;

std::uint32_t u32(const std::uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | std::uint32_t(p[3]) << 24; }
std::uint16_t u16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint64_t u64(const std::uint8_t* p) { return u32(p) | std::uint64_t(u32(p + 4)) << 32; }

struct Entry {
  std::u16string name;
  std::uint8_t type, colour;
  std::uint32_t left, right, child, start;
  std::uint64_t size;
};

class Auditor {
 public:
  explicit Auditor(const std::vector<std::uint8_t>& f) : f_(f) {}

  std::string run() {
    if (f_.size() < 512) return "shorter than a header\n";
    const std::uint8_t* h = f_.data();
    const std::uint16_t major = u16(h + 0x1A), shift = u16(h + 0x1E);
    if (!((major == 3 && shift == 9) || (major == 4 && shift == 12))) return "version and sector size disagree\n";
    if (u16(h + 0x20) != 6 || u32(h + 0x38) != 4096 || u16(h + 0x1C) != 0xFFFE) problem("header constants");
    ss_ = 1u << shift;
    if (f_.size() % ss_ != 0) problem("file size is not whole sectors");
    sectors_ = static_cast<std::uint32_t>(f_.size() / ss_ - 1);
    owner_.assign(sectors_, 0);
    const std::uint32_t links = ss_ / 4;
    // DIFAT and FAT.
    const std::uint32_t fatCount = u32(h + 0x2C), difCount = u32(h + 0x48);
    std::vector<std::uint32_t> fatSectors;
    for (int i = 0; i < 109; ++i) {
      const std::uint32_t s = u32(h + 0x4C + 4 * i);
      if (fatSectors.size() < fatCount) fatSectors.push_back(s);
      else if (s != kFree) problem("unused header FAT slot not free");
    }
    std::uint32_t d = u32(h + 0x44);
    for (std::uint32_t k = 0; k < difCount; ++k) {
      if (!claim(d, 'D')) return out_;
      difSectors_.push_back(d);
      const std::uint8_t* p = sector(d);
      for (std::uint32_t i = 0; i + 1 < links; ++i) {
        if (fatSectors.size() < fatCount) fatSectors.push_back(u32(p + 4 * i));
        else if (u32(p + 4 * i) != kFree) problem("unused DIFAT slot not free");
      }
      d = u32(p + 4 * (links - 1));
    }
    if (d != kEnd && !(difCount == 0 && d == kEnd)) problem("DIFAT chain does not end");
    if (fatSectors.size() != fatCount) return out_ + "DIFAT lists too few FAT sectors\n";
    for (std::uint32_t s : fatSectors) {
      if (!claim(s, 'F')) return out_;
      for (std::uint32_t i = 0; i < links; ++i) fat_.push_back(u32(sector(s) + 4 * i));
    }
    for (std::uint32_t s : fatSectors) if (fat_[s] != kFatMark) problem("FAT sector not marked");
    for (std::uint32_t s : difSectors_) if (fat_[s] != kDifMark) problem("DIFAT sector not marked");
    for (std::size_t s = sectors_; s < fat_.size(); ++s) if (fat_[s] != kFree) problem("FAT entry past the file");
    // Directory.
    std::vector<std::uint32_t> dir;
    if (!chain(u32(h + 0x30), 0, 'd', &dir)) return out_;
    if (major == 4 && u32(h + 0x28) != dir.size()) problem("directory sector count");
    if (major == 3 && u32(h + 0x28) != 0) problem("directory sector count set in version 3");
    for (std::uint32_t s : dir) {
      for (std::uint32_t k = 0; k < ss_ / 128; ++k) entries_.push_back(entry(sector(s) + 128 * k));
    }
    if (entries_.empty() || entries_[0].type != 5) return out_ + "no root entry\n";
    // Mini FAT and mini stream.
    std::vector<std::uint32_t> miniFatSectors;
    if (u32(h + 0x3C) != kEnd || u32(h + 0x40) != 0) {
      if (!chain(u32(h + 0x3C), u32(h + 0x40), 'm', &miniFatSectors)) return out_;
    }
    for (std::uint32_t s : miniFatSectors) {
      for (std::uint32_t i = 0; i < links; ++i) miniFat_.push_back(u32(sector(s) + 4 * i));
    }
    std::vector<std::uint32_t> mini;
    const std::uint64_t miniSize = entries_[0].size;
    if (miniSize > 0 && !chain(entries_[0].start, (miniSize + ss_ - 1) / ss_, 'M', &mini)) return out_;
    miniOwner_.assign(miniFat_.size(), 0);
    // Trees, from the root.
    seen_.assign(entries_.size(), false);
    seen_[0] = true;
    storage(0);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (!seen_[i] && entries_[i].type != 0) problem("entry " + std::to_string(i) + " reachable from nothing");
    }
    for (std::uint32_t s = 0; s < sectors_; ++s) {
      // Free space is no fault (an edit in place keeps the old file's); a
      // sector in use that no chain reaches is.
      if (owner_[s] == 0 && (s >= fat_.size() || fat_[s] != kFree)) {
        problem("sector " + std::to_string(s) + " belongs to nothing");
      }
    }
    for (std::size_t s = 0; s < miniFat_.size(); ++s) {
      if (miniOwner_[s] == 0 && miniFat_[s] != kFree) problem("mini sector " + std::to_string(s) + " belongs to nothing");
    }
    return out_;
  }

 private:
  const std::uint8_t* sector(std::uint32_t s) const { return f_.data() + (std::uint64_t(s) + 1) * ss_; }
  void problem(const std::string& what) { out_ += what + "\n"; }
  bool claim(std::uint32_t s, char who) {
    if (s >= sectors_) {
      problem(std::string("sector past the file, for ") + who);
      return false;
    }
    if (owner_[s] != 0) {
      problem("sector " + std::to_string(s) + " claimed twice");
      return false;
    }
    owner_[s] = who;
    return true;
  }
  // A FAT chain of exactly `count` sectors (any length when 0).
  bool chain(std::uint32_t s, std::uint64_t count, char who, std::vector<std::uint32_t>* out) {
    while (s != kEnd) {
      if (!claim(s, who)) return false;
      out->push_back(s);
      if (s >= fat_.size()) return false;
      s = fat_[s];
    }
    if (count != 0 && out->size() != count) {
      problem(std::string("chain length for ") + who);
      return false;
    }
    return true;
  }
  Entry entry(const std::uint8_t* p) {
    Entry e;
    const std::uint16_t bytes = u16(p + 0x40);
    e.type = p[0x42];
    e.colour = p[0x43];
    e.left = u32(p + 0x44);
    e.right = u32(p + 0x48);
    e.child = u32(p + 0x4C);
    e.start = u32(p + 0x74);
    e.size = u64(p + 0x78);
    if (e.type != 0) {
      if (bytes < 2 || bytes > 64 || bytes % 2 != 0) {
        problem("name length");
      } else {
        for (int i = 0; i < bytes / 2 - 1; ++i) e.name.push_back(static_cast<char16_t>(u16(p + 2 * i)));
        if (u16(p + bytes - 2) != 0) problem("name not terminated");
      }
    }
    if (e.type == 2 && ss_ == 512 && (e.size >> 32) != 0) problem("version 3 size above 32 bits");
    return e;
  }
  int compare(const Entry& a, const Entry& b) {
    return moxfmt::compareSiblingNames(a.name, b.name);
  }
  // Checks the red-black tree under `at`; returns its black height, -1 on failure.
  int siblings(std::uint32_t at, std::vector<std::uint32_t>* inOrder) {
    if (at == kNone) return 1;
    if (at >= entries_.size() || seen_[at]) {
      problem("sibling link to a bad or repeated entry");
      return -1;
    }
    seen_[at] = true;
    const Entry& e = entries_[at];
    if (e.colour == 0) {
      for (std::uint32_t c : {e.left, e.right}) {
        if (c != kNone && c < entries_.size() && entries_[c].colour == 0) problem("red entry with a red child");
      }
    }
    const int l = siblings(e.left, inOrder);
    inOrder->push_back(at);
    const int r = siblings(e.right, inOrder);
    if (l < 0 || r < 0) return -1;
    if (l != r) problem("black heights differ under " + moxfmt::utf16ToUtf8(e.name));
    return l + (e.colour == 1 ? 1 : 0);
  }
  void storage(std::uint32_t at) {
    const Entry& parent = entries_[at];
    if (parent.child == kNone) return;
    if (parent.child < entries_.size() && entries_[parent.child].colour != 1) problem("red sibling root");
    std::vector<std::uint32_t> kids;
    if (siblings(parent.child, &kids) < 0) return;
    for (std::size_t i = 1; i < kids.size(); ++i) {
      if (compare(entries_[kids[i - 1]], entries_[kids[i]]) >= 0) problem("siblings out of order: " + moxfmt::utf16ToUtf8(entries_[kids[i]].name));
    }
    for (std::uint32_t k : kids) {
      const Entry& e = entries_[k];
      if (e.type == 1) {
        storage(k);
      } else if (e.type == 2) {
        if (e.child != kNone) problem("stream with children");
        stream(e);
      } else {
        problem("entry of unknown type");
      }
    }
  }
  void stream(const Entry& e) {
    if (e.size == 0) return;
    if (e.size >= 4096) {
      std::vector<std::uint32_t> s;
      chain(e.start, (e.size + ss_ - 1) / ss_, 'S', &s);
      return;
    }
    std::uint64_t want = (e.size + 63) / 64, got = 0;
    for (std::uint32_t m = e.start; m != kEnd; m = miniFat_[m]) {
      if (m >= miniFat_.size() || miniOwner_[m] != 0 || (m + 1) * 64ull > entries_[0].size) {
        problem("bad mini chain");
        return;
      }
      miniOwner_[m] = 1;
      ++got;
    }
    if (got != want) problem("mini chain length");
  }

  const std::vector<std::uint8_t>& f_;
  std::uint32_t ss_ = 512, sectors_ = 0;
  std::vector<char> owner_;
  std::vector<char> miniOwner_;
  std::vector<std::uint32_t> fat_, miniFat_, difSectors_;
  std::vector<Entry> entries_;
  std::vector<bool> seen_;
  std::string out_;
};

}  // namespace

std::string audit(const std::vector<std::uint8_t>& file) { return Auditor(file).run(); }

}  // namespace cfbaudit
