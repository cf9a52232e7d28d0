#include "support/cfb_builder.h"

#include <string.h>

#include <algorithm>
#include <functional>

namespace cfb {

namespace {

uint32_t ceilDiv(uint64_t a, uint64_t b) { return static_cast<uint32_t>((a + b - 1) / b); }

// `n` bytes of v at p, in the file's byte order.
void put(uint8_t* p, uint32_t v, int n, bool big) {
  for (int i = 0; i < n; ++i) p[big ? n - 1 - i : i] = static_cast<uint8_t>(v >> (8 * i));
}

uint16_t foldLower(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<uint16_t>(c + 32) : static_cast<uint16_t>(c);
}

void encodeHeader(const CfbHeader& h, bool big, uint8_t* out) {
  memcpy(out, h.signature, 8);
  memcpy(out + 0x1A, h.major, 2);
  headerFields(h, [&](int at, auto v) { put(out + at, v, sizeof v, big); });
}

void encodeEntry(const DirEntry& e, bool big, uint8_t* out) {
  memset(out, 0, 128);
  for (size_t i = 0; i < std::min<size_t>(e.name.size(), 32); ++i) put(out + 2 * i, e.name[i], 2, big);
  int length = e.nameLength >= 0 ? e.nameLength : static_cast<int>((e.name.size() + 1) * 2);
  put(out + 0x40, static_cast<uint16_t>(length), 2, big);
  entryFields(e, [&](int at, auto v) { put(out + at, v, sizeof v, big); });
  memcpy(out + 0x50, e.clsid, 16);
  put(out + 0x60, e.state, 4, big);
  memcpy(out + 0x64, e.created, 8);
  memcpy(out + 0x6C, e.modified, 8);
  put(out + 0x78, e.sizeLow, 4, big);
  put(out + 0x7C, e.sizeHigh, 4, big);
}

// Writes `table` into the sectors that hold it, 32-bit entries, free past
// its end.
void encodeTable(const std::vector<uint32_t>& table, const std::vector<uint32_t>& where,
                 bool big, std::map<uint32_t, Bytes>* sectors, uint32_t sectorSize) {
  const uint32_t perSector = sectorSize / 4;
  for (size_t i = 0; i < where.size(); ++i) {
    Bytes& s = (*sectors)[where[i]];
    s.assign(sectorSize, 0);
    for (uint32_t k = 0; k < perSector; ++k) {
      size_t at = i * perSector + k;
      put(s.data() + 4 * k, at < table.size() ? table[at] : kFree, 4, big);
    }
  }
}

}  // namespace

std::u16string units(const std::string& name) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(name.data());
  return std::u16string(bytes, bytes + name.size());
}

bool siblingLess(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return a.size() < b.size();
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char16_t x, char16_t y) { return foldLower(x) < foldLower(y); });
}

std::string hex(const Bytes& bytes, size_t offset, size_t count) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = offset; i < offset + count && i < bytes.size(); ++i) {
    out += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15], ' '};
  }
  return out;
}

CfbHeader::CfbHeader() {
  for (uint32_t& slot : difat) slot = kFree;
}

Bytes& CfbLayout::sector(uint32_t number) {
  Bytes& s = sectors[number];
  if (s.size() != sectorSize()) s.resize(sectorSize(), 0);
  return s;
}

uint32_t CfbLayout::growFat(uint32_t count) {
  uint32_t next = sectorCount();
  fat.resize(static_cast<size_t>(count) * (sectorSize() / 4), kFree);
  while (fatSectors.size() < count) {
    fat[next] = kFatSect;
    fatSectors.push_back(next++);
  }
  header.fatSectors = count;
  return next;
}

uint32_t CfbLayout::sectorCount() const {
  uint32_t count = 0;
  auto see = [&](uint32_t s) { count = s < 0xFFFFFFF0u ? std::max(count, s + 1) : count; };
  for (const auto& kv : sectors) see(kv.first);
  for (auto list : {&fatSectors, &difatSectors, &miniFatSectors, &dirSectors}) {
    for (uint32_t s : *list) see(s);
  }
  return count;
}

std::map<int64_t, Bytes> CfbLayout::serializeSparse() const {
  const uint32_t size = sectorSize();
  const uint32_t perSector = size / 4;
  std::map<uint32_t, Bytes> all = sectors;
  for (auto& kv : all) kv.second.resize(size, 0);
  CfbHeader h = header;
  encodeTable(fat, fatSectors, bigEndian, &all, size);
  encodeTable(miniFat, miniFatSectors, bigEndian, &all, size);
  if (deriveDifat) {
    for (size_t i = 0; i < 109; ++i) h.difat[i] = i < fatSectors.size() ? fatSectors[i] : kFree;
    h.difatSectors = static_cast<uint32_t>(difatSectors.size());
    h.difatStart = difatSectors.empty() ? kEnd : difatSectors[0];
    std::vector<uint32_t> table;
    for (size_t j = 0; j < difatSectors.size(); ++j) {
      for (uint32_t k = 0; k + 1 < perSector; ++k) {
        size_t at = 109 + j * (perSector - 1) + k;
        table.push_back(at < fatSectors.size() ? fatSectors[at] : kFree);
      }
      table.push_back(j + 1 < difatSectors.size() ? difatSectors[j + 1] : kEnd);
    }
    encodeTable(table, difatSectors, bigEndian, &all, size);
  }
  const uint32_t perDirSector = size / 128;
  for (size_t i = 0; i < dirSectors.size(); ++i) {
    Bytes& s = all[dirSectors[i]];
    s.assign(size, 0);
    for (size_t k = 0, at = i * perDirSector; k < perDirSector && at < dir.size(); ++k, ++at) {
      encodeEntry(dir[at], bigEndian, s.data() + 128 * k);
    }
  }
  std::map<int64_t, Bytes> out;
  Bytes head(size, 0);
  encodeHeader(h, bigEndian, head.data());
  out[0] = std::move(head);
  for (auto& kv : all) out[(static_cast<int64_t>(kv.first) + 1) * size] = std::move(kv.second);
  if (truncateTo >= 0) {
    out.erase(out.lower_bound(truncateTo), out.end());
    for (auto& [at, run] : out) run.resize(std::min<size_t>(run.size(), truncateTo - at));
  }
  return out;
}

Bytes CfbLayout::serialize() const {
  std::map<int64_t, Bytes> runs = serializeSparse();
  int64_t total = static_cast<int64_t>(sectorCount() + 1) * sectorSize();
  if (truncateTo >= 0) total = std::min(total, truncateTo);
  Bytes out(static_cast<size_t>(total), 0);
  for (const auto& kv : runs) {
    size_t n = std::min<size_t>(kv.second.size(), out.size() - static_cast<size_t>(kv.first));
    memcpy(out.data() + kv.first, kv.second.data(), n);
  }
  return out;
}

CfbBuilder::CfbBuilder(unsigned sectorShift) : sectorShift_(sectorShift) {
  entries_.push_back(Node{DirEntry(), {}, {}});
  entries_[0].entry.name = units("Root Entry");
  entries_[0].entry.type = 5;
}

int CfbBuilder::addEntry(int parent, const std::u16string& name, uint8_t type,
                         const Bytes& data) {
  const int index = static_cast<int>(entries_.size());
  entries_.push_back(Node{DirEntry(), data, {}});
  entries_[index].entry.name = name;
  entries_[index].entry.type = type;
  entries_[parent].children.push_back(index);
  return index;
}

int CfbBuilder::addStorage(int parent, const std::string& name) {
  return addEntry(parent, units(name), 1, {});
}

int CfbBuilder::addStream(int parent, const std::string& name, const Bytes& data) {
  return addEntry(parent, units(name), 2, data);
}

CfbLayout CfbBuilder::layout() const {
  CfbLayout l;
  l.bigEndian = bigEndian_;
  l.header.sectorShift = static_cast<uint16_t>(sectorShift_);
  if (sectorShift_ == 12) l.header.major[0] = 4;
  l.header.miniCutoff = cutoff_;
  const uint32_t size = 1u << sectorShift_, perSector = size / 4, miniSize = 64;

  // Directory entries with balanced sibling trees.
  for (const Node& n : entries_) l.dir.push_back(n.entry);
  std::function<uint32_t(const std::vector<int>&, int, int)> balance =
      [&](const std::vector<int>& kids, int lo, int hi) -> uint32_t {
    if (lo >= hi) return kNone;
    int mid = (lo + hi) / 2;
    l.dir[kids[mid]].left = balance(kids, lo, mid);
    l.dir[kids[mid]].right = balance(kids, mid + 1, hi);
    return static_cast<uint32_t>(kids[mid]);
  };
  for (size_t i = 0; i < entries_.size(); ++i) {
    std::vector<int> kids = entries_[i].children;
    std::sort(kids.begin(), kids.end(), [&](int a, int b) {
      return siblingLess(entries_[a].entry.name, entries_[b].entry.name);
    });
    l.dir[i].child = balance(kids, 0, static_cast<int>(kids.size()));
  }

  // Mini stream contents and chains; regular streams only counted here.
  Bytes mini;
  uint64_t regular = 0;
  for (size_t i = 1; i < entries_.size(); ++i) {
    const Bytes& data = entries_[i].data;
    DirEntry& e = l.dir[i];
    e.sizeLow = static_cast<uint32_t>(data.size());
    if (entries_[i].entry.type != 2 || data.empty()) continue;
    if (data.size() >= cutoff_) {
      regular += ceilDiv(data.size(), size);
      continue;
    }
    uint32_t first = static_cast<uint32_t>(mini.size() / miniSize);
    uint32_t count = ceilDiv(data.size(), miniSize);
    e.start = first;
    for (uint32_t k = 0; k < count; ++k) l.miniFat.push_back(k + 1 < count ? first + k + 1 : kEnd);
    mini.insert(mini.end(), data.begin(), data.end());
    mini.resize(static_cast<size_t>(first + count) * miniSize, 0);
  }

  // Sector counts, then FAT and DIFAT sizes solved by iteration.
  const uint32_t miniFatN = ceilDiv(l.miniFat.size(), perSector);
  const uint32_t dirN = ceilDiv(l.dir.size(), size / 128);
  const uint32_t miniStreamN = ceilDiv(mini.size(), size);
  const uint64_t other = miniFatN + dirN + padding_ + regular + miniStreamN;
  uint32_t f = 1, d = 0;
  for (;;) {
    uint32_t nd = f > 109 ? ceilDiv(f - 109, perSector - 1) : 0;
    uint32_t nf = ceilDiv(other + f + nd, perSector);
    if (nf == f && nd == d) break;
    f = std::max(f, nf);
    d = nd;
  }

  uint32_t next = 0;
  // The next `count` sectors, listed in `list`, as a chain or all marked `mark`.
  auto take = [&](uint32_t count, std::vector<uint32_t>* list, uint32_t mark = 0) {
    uint32_t first = next;
    for (uint32_t k = 0; k < count; ++k) {
      if (list) list->push_back(next);
      l.fat[next] = mark ? mark : k + 1 < count ? next + 1 : kEnd;
      ++next;
    }
    return count ? first : kEnd;
  };
  l.fat.assign(static_cast<size_t>(f) * perSector, kFree);
  take(f, &l.fatSectors, kFatSect);
  take(d, &l.difatSectors, kDifSect);
  l.header.miniFatStart = take(miniFatN, &l.miniFatSectors);
  l.header.miniFatSectors = miniFatN;
  l.header.dirStart = take(dirN, &l.dirSectors);
  if (sectorShift_ == 12) l.header.dirSectors = dirN;
  next += padding_;
  auto place = [&](uint32_t first, const Bytes& data) {
    for (size_t at = 0; at < data.size(); at += size) {
      memcpy(l.sector(first + static_cast<uint32_t>(at / size)).data(), data.data() + at,
             std::min<size_t>(size, data.size() - at));
    }
  };
  for (size_t i = 1; i < entries_.size(); ++i) {
    const Bytes& data = entries_[i].data;
    if (entries_[i].entry.type != 2 || data.size() < cutoff_) continue;
    l.dir[i].start = take(ceilDiv(data.size(), size), nullptr);
    place(l.dir[i].start, data);
  }
  uint32_t miniFirst = take(miniStreamN, nullptr);
  place(miniFirst, mini);
  l.dir[0].start = miniFirst;
  l.dir[0].sizeLow = static_cast<uint32_t>(mini.size());
  l.header.fatSectors = f;
  return l;
}

}  // namespace cfb
