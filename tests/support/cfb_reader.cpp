#include "support/cfb_reader.h"

#include <string.h>

#include <functional>
#include <type_traits>

#include "format/names.h"
#include "support/cfb_audit.h"

namespace cfb {

namespace {

// `n` little-endian bytes at p.
uint32_t get(const uint8_t* p, int n) {
  uint32_t v = 0;
  for (int i = n - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}
uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>(get(p, 2)); }
uint32_t get32(const uint8_t* p) { return get(p, 4); }
// Reads every field f(offset, field) visits at its own width.
auto fieldsFrom(const uint8_t* p) {
  return [p](int at, auto& v) {
    v = static_cast<std::remove_reference_t<decltype(v)>>(get(p + at, sizeof v));
  };
}

constexpr uint32_t kUnowned = 0xFFFFFFFFu;

// `lenient` is the audit's reading: free sectors may hold anything (an
// edit in place keeps the old file's), and unused DIFAT slots are free
// where the 22-slot writer leaves them at end-of-chain.
class Parser {
 public:
  Parser(const Bytes& file, ParsedFile* out, bool lenient = false)
      : file_(file), out_(*out), lenient_(lenient) {}

  bool run(std::string* error) {
    bool ok = header() && difat() && fat() && directory() && miniFat() && miniStream() &&
              streams() && leftovers();
    if (!ok) *error = error_;
    return ok;
  }

 private:
  bool fail(const std::string& why) {
    error_ = why;
    return false;
  }

  const uint8_t* sector(uint32_t n) const {
    return file_.data() + (static_cast<size_t>(n) + 1) * ss_;
  }

  // Marks a sector (of the file, or of the mini stream in `in`) as
  // belonging to `owner`; a sector may have one owner.
  bool own(uint32_t n, uint32_t owner, const std::string& what, std::vector<uint32_t>* in = nullptr) {
    std::vector<uint32_t>& by = in ? *in : owner_;
    if (n >= by.size()) return fail(what + ": sector past the end");
    if (by[n] != kUnowned) return fail(what + ": sector " + std::to_string(n) + " is used twice");
    by[n] = owner;
    return true;
  }

  // Follows a FAT (or mini FAT) chain, claiming each sector: exactly
  // `count` sectors, or with kToEnd as many as lead to the end mark.
  static constexpr uint64_t kToEnd = ~uint64_t{0};
  bool chain(uint32_t start, uint64_t count, uint32_t owner, const std::string& what,
             std::vector<uint32_t>* sectors, bool mini = false) {
    const std::vector<uint32_t>& table = mini ? out_.miniFat : out_.fat;
    uint32_t s = start;
    for (uint64_t i = 0; i < count && !(count == kToEnd && s == kEnd); ++i) {
      if (s >= table.size()) return fail(what + ": chain leaves its table");
      if (!own(s, owner, what, mini ? &miniOwner_ : nullptr)) return false;
      sectors->push_back(s);
      s = table[s];
    }
    return s == kEnd || fail(what + ": chain longer than its size");
  }
  // The 32-bit entries of table sectors, in order.
  void readTable(const std::vector<uint32_t>& sectors, std::vector<uint32_t>* table) const {
    for (uint32_t s : sectors) {
      for (uint32_t k = 0; k < ss_ / 4; ++k) table->push_back(get32(sector(s) + 4 * k));
    }
  }
  // The bytes of `sectors` (of the mini stream with `mini`), cut to `size`.
  Bytes gather(const std::vector<uint32_t>& sectors, uint64_t size, bool mini = false) const {
    const size_t unit = mini ? 64 : ss_;
    Bytes data;
    for (uint32_t s : sectors) {
      const uint8_t* p = mini ? out_.miniStream.data() + unit * s : sector(s);
      data.insert(data.end(), p, p + unit);
    }
    data.resize(size);
    return data;
  }
  // Every sector in `owners` claimed (leniently, or free), and no entry of
  // `table` past them other than free.
  bool allClaimed(const std::vector<uint32_t>& owners, const std::vector<uint32_t>& table,
                  const std::string& what) {
    for (size_t s = 0; s < owners.size(); ++s) {
      const bool free = s < table.size() && table[s] == kFree;
      if (owners[s] == kUnowned && !(lenient_ && free)) {
        return fail(what + " " + std::to_string(s) + " belongs to nothing");
      }
    }
    for (size_t s = owners.size(); s < table.size(); ++s) {
      if (table[s] != kFree) return fail(what + " table entry past the end is not free");
    }
    return true;
  }
  uint64_t sectorsFor(uint64_t size) const { return (size + ss_ - 1) / ss_; }

  bool header() {
    if (file_.size() < 512) return fail("shorter than a header");
    const uint8_t* h = file_.data();
    CfbHeader& hd = out_.header;
    if (memcmp(h, hd.signature, 8) != 0) return fail("signature");
    memcpy(hd.major, h + 0x1A, 2);
    headerFields(hd, fieldsFrom(h));
    if (hd.byteOrder != 0xFFFE) return fail("byte order");
    v4_ = hd.major[0] == 4;
    if (hd.sectorShift != (v4_ ? 12 : 9) || (!v4_ && hd.major[0] != 3) || hd.miniShift != 6) {
      return fail("version and geometry");
    }
    if (hd.miniCutoff != 4096) return fail("mini stream cutoff");
    ss_ = 1u << hd.sectorShift;
    if (file_.size() % ss_ != 0) return fail("size not whole sectors");
    out_.sectorCount = static_cast<uint32_t>(file_.size() / ss_ - 1);
    owner_.assign(out_.sectorCount, kUnowned);
    return true;
  }

  bool difat() {
    const CfbHeader& hd = out_.header;
    for (uint32_t i = 0; i < 109 && i < hd.fatSectors; ++i) out_.fatSectors.push_back(hd.difat[i]);
    for (uint32_t i = hd.fatSectors; i < 109; ++i) {
      if (hd.difat[i] != kFree) return fail("header DIFAT slot past the FAT is not -1");
    }
    if ((hd.difatSectors == 0) != (hd.difatStart == kEnd)) return fail("DIFAT start/count");
    const uint32_t links = ss_ / 4, unused = lenient_ ? kFree : kEnd;
    uint32_t s = hd.difatStart;
    for (uint32_t j = 0; j < hd.difatSectors; ++j) {
      if (!own(s, kUnowned - 1, "DIFAT")) return false;
      out_.difatSectors.push_back(s);
      const uint8_t* p = sector(s);
      for (uint32_t k = 0; k + 1 < links; ++k) {
        uint32_t v = get32(p + 4 * k);
        if (out_.fatSectors.size() < hd.fatSectors) {
          out_.fatSectors.push_back(v);
        } else if (v != unused) {
          return fail("unused DIFAT slot is " + std::to_string(v));
        }
      }
      s = get32(p + 4 * (links - 1));
    }
    if (hd.difatSectors > 0 && s != kEnd) return fail("last DIFAT link is not -2");
    if (out_.fatSectors.size() != hd.fatSectors) return fail("DIFAT lists too few FAT sectors");
    return true;
  }

  bool fat() {
    for (uint32_t s : out_.fatSectors) {
      if (!own(s, kUnowned - 2, "FAT")) return false;
    }
    readTable(out_.fatSectors, &out_.fat);
    for (uint32_t s : out_.fatSectors) {
      if (out_.fat[s] != kFatSect) return fail("FAT sector not marked -3");
    }
    for (uint32_t s : out_.difatSectors) {
      if (s >= out_.fat.size() || out_.fat[s] != kDifSect) return fail("DIFAT sector not -4");
    }
    return true;
  }

  bool directory() {
    // The directory's length is not stored: follow the chain to its end.
    std::vector<uint32_t> sectors;
    if (!chain(out_.header.dirStart, kToEnd, kUnowned - 3, "directory", &sectors)) return false;
    if (out_.header.dirSectors != (v4_ ? sectors.size() : 0)) return fail("directory sector count");
    for (uint32_t d : sectors) {
      for (uint32_t k = 0; k < ss_ / 128; ++k) {
        const uint8_t* e = sector(d) + 128 * k;
        ParsedEntry entry;
        entry.nameLength = get16(e + 0x40);
        entryFields(entry, fieldsFrom(e));
        entry.size = get32(e + 0x78) | (static_cast<uint64_t>(get32(e + 0x7C)) << 32);
        if (entry.nameLength > 64 || entry.nameLength % 2 != 0 ||
            (entry.type != 0 && entry.nameLength < 2)) {
          return fail("name length");
        }
        for (int i = 0; i + 2 < entry.nameLength; i += 2) entry.name.push_back(get16(e + i));
        if (entry.nameLength > 0 && get16(e + entry.nameLength - 2) != 0) {
          return fail("name not terminated");
        }
        if (!v4_ && entry.type == 2 && (entry.size >> 32) != 0) return fail("version 3 size above 32 bits");
        out_.dir.push_back(entry);
      }
    }
    if (out_.dir.empty() || out_.dir[0].type != 5) return fail("no root entry");
    return true;
  }

  bool miniFat() {
    const CfbHeader& hd = out_.header;
    if (hd.miniFatSectors == 0) return hd.miniFatStart == kEnd || fail("mini FAT start without sectors");
    std::vector<uint32_t> sectors;
    if (!chain(hd.miniFatStart, hd.miniFatSectors, kUnowned - 4, "mini FAT", &sectors)) return false;
    readTable(sectors, &out_.miniFat);
    return true;
  }

  bool miniStream() {
    const ParsedEntry& root = out_.dir[0];
    if (root.size == 0) return root.start == kEnd || fail("root start without size");
    std::vector<uint32_t> sectors;
    if (!chain(root.start, sectorsFor(root.size), kUnowned - 5, "mini stream", &sectors)) return false;
    out_.miniStream = gather(sectors, root.size);
    miniOwner_.assign(root.size / 64, kUnowned);
    return true;
  }

  bool streams() {
    out_.streams.resize(out_.dir.size());
    for (uint32_t i = 1; i < out_.dir.size(); ++i) {
      const ParsedEntry& e = out_.dir[i];
      const bool storage = e.type != 2 && e.type != 0;
      if (storage && e.start != kEnd && !lenient_) return fail("storage with a start sector");
      if (e.type == 2 && e.size == 0 && e.start != kEnd) return fail("empty stream with a start sector");
      if (e.type != 2 || e.size == 0) continue;
      const bool mini = e.size < out_.header.miniCutoff;
      std::vector<uint32_t> sectors;
      if (!chain(e.start, mini ? (e.size + 63) / 64 : sectorsFor(e.size), i,
                 mini ? "mini stream" : "stream", &sectors, mini)) {
        return false;
      }
      out_.streams[i] = gather(sectors, e.size, mini);
    }
    return true;
  }

  bool leftovers() {
    return allClaimed(owner_, out_.fat, "sector") && allClaimed(miniOwner_, out_.miniFat, "mini sector");
  }

  const Bytes& file_;
  ParsedFile& out_;
  const bool lenient_;
  bool v4_ = false;
  uint32_t ss_ = 512;
  std::vector<uint32_t> owner_;
  std::vector<uint32_t> miniOwner_;
  std::string error_;
};

// The low byte of every unit, as this library keeps names.
std::string narrow(const std::u16string& name) { return std::string(name.begin(), name.end()); }

std::string treeProblemsBy(const ParsedFile& file,
                           const std::function<bool(const std::u16string&, const std::u16string&)>& less) {
  const std::vector<ParsedEntry>& dir = file.dir;
  std::vector<int> seen(dir.size(), 0);
  std::string problems;
  auto note = [&problems](const std::string& p) {
    problems += p + "\n";
    return false;
  };
  for (uint32_t storage = 0; storage < dir.size(); ++storage) {
    const ParsedEntry& s = dir[storage];
    if (s.type == 2 && s.child != kNone) note("stream " + std::to_string(storage) + " has a child");
    if ((s.type != 1 && s.type != 5) || s.child == kNone) continue;
    // In order; a link out of range or an entry met again stops the walk.
    std::vector<uint32_t> inOrder;
    std::function<bool(uint32_t)> walk = [&](uint32_t at) {
      if (at == kNone) return true;
      if (at >= dir.size() || at == 0 || dir[at].type == 0) {
        return note("link out of range under " + std::to_string(storage));
      }
      if (seen[at]++ > 0) return note("entry " + std::to_string(at) + " reached twice");
      if (!walk(dir[at].left)) return false;
      inOrder.push_back(at);
      return walk(dir[at].right);
    };
    walk(s.child);
    for (size_t i = 1; i < inOrder.size(); ++i) {
      if (!less(dir[inOrder[i - 1]].name, dir[inOrder[i]].name)) {
        note("siblings out of order: " + narrow(dir[inOrder[i - 1]].name) + " / " +
             narrow(dir[inOrder[i]].name));
      }
    }
  }
  for (uint32_t i = 1; i < dir.size(); ++i) {
    if (dir[i].type != 0 && seen[i] == 0) note("entry " + std::to_string(i) + " unreachable");
  }
  return problems;
}

// Black height of the sibling tree under `at` (a tree: treeProblemsBy
// passed); -1 where a red entry has a red child or two heights differ.
int blackHeight(const std::vector<ParsedEntry>& dir, uint32_t at) {
  if (at == kNone) return 1;
  const ParsedEntry& e = dir[at];
  const int l = blackHeight(dir, e.left), r = blackHeight(dir, e.right);
  if (l < 0 || l != r || e.colour > 1) return -1;
  for (uint32_t c : {e.left, e.right}) {
    if (e.colour == 0 && c != kNone && dir[c].colour == 0) return -1;
  }
  return l + e.colour;
}

}  // namespace

bool parse(const Bytes& file, ParsedFile* out, std::string* error) {
  *out = ParsedFile();
  return Parser(file, out).run(error);
}

std::string treeProblems(const ParsedFile& file) { return treeProblemsBy(file, siblingLess); }

std::map<std::string, Item> contents(const ParsedFile& file) {
  std::map<std::string, Item> items;
  std::function<void(uint32_t, const std::string&)> visit = [&](uint32_t at,
                                                                const std::string& prefix) {
    if (at == kNone || at >= file.dir.size()) return;
    const ParsedEntry& e = file.dir[at];
    std::string path = prefix + narrow(e.name);
    items[path] = Item{e.type, file.streams[at]};
    visit(e.left, prefix);
    visit(e.right, prefix);
    if (e.type == 1) visit(e.child, path + "\\");
  };
  visit(file.dir[0].child, "");
  return items;
}

}  // namespace cfb

namespace cfbaudit {

// The reader's rules, leniently (free sectors, free unused DIFAT slots),
// then the sibling trees by the library's name order and colours.
std::string audit(const std::vector<std::uint8_t>& file) {
  cfb::ParsedFile parsed;
  std::string error;
  if (!cfb::Parser(file, &parsed, true).run(&error)) return error + "\n";
  std::string problems = cfb::treeProblemsBy(parsed, [](const std::u16string& a, const std::u16string& b) {
    return moxfmt::compareSiblingNames(a, b) < 0;
  });
  if (!problems.empty()) return problems;
  for (uint32_t i = 0; i < parsed.dir.size(); ++i) {
    const cfb::ParsedEntry& e = parsed.dir[i];
    if (i > 0 && e.type != 0 && e.type != 1 && e.type != 2) problems += "entry of unknown type\n";
    if (e.type != 1 && e.type != 5) continue;
    if (e.child != cfb::kNone && parsed.dir[e.child].colour != 1) problems += "red sibling root\n";
    if (cfb::blackHeight(parsed.dir, e.child) < 0) problems += "red-black rules broken under entry " + std::to_string(i) + "\n";
  }
  return problems;
}

}  // namespace cfbaudit
