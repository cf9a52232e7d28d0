#include "support/cfb_builder.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace cfb {

namespace {

uint32_t ceilDiv(uint64_t a, uint64_t b) { return static_cast<uint32_t>((a + b - 1) / b); }

// `n` bytes of v at p, in the file's byte order.
void put(uint8_t* p, uint32_t v, int n, bool big) {
  for (int i = 0; i < n; ++i) p[big ? n - 1 - i : i] = static_cast<uint8_t>(v >> (8 * i));
}
void put16(uint8_t* p, uint16_t v, bool big) { put(p, v, 2, big); }
void put32(uint8_t* p, uint32_t v, bool big) { put(p, v, 4, big); }

uint16_t foldLower(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<uint16_t>(c + 32) : static_cast<uint16_t>(c);
}

void encodeHeader(const CfbHeader& h, bool big, uint8_t* out) {
  memcpy(out, h.signature, 8);
  put16(out + 0x18, h.minor, big);
  out[0x1A] = h.major[0];
  out[0x1B] = h.major[1];
  put16(out + 0x1C, h.byteOrder, big);
  put16(out + 0x1E, h.sectorShift, big);
  put16(out + 0x20, h.miniShift, big);
  put32(out + 0x28, h.dirSectors, big);
  put32(out + 0x2C, h.fatSectors, big);
  put32(out + 0x30, h.dirStart, big);
  put32(out + 0x34, h.transaction, big);
  put32(out + 0x38, h.miniCutoff, big);
  put32(out + 0x3C, h.miniFatStart, big);
  put32(out + 0x40, h.miniFatSectors, big);
  put32(out + 0x44, h.difatStart, big);
  put32(out + 0x48, h.difatSectors, big);
  for (int i = 0; i < 109; ++i) put32(out + 0x4C + 4 * i, h.difat[i], big);
}

void encodeEntry(const DirEntry& e, bool big, uint8_t* out) {
  memset(out, 0, 128);
  size_t units = std::min<size_t>(e.name.size(), 32);
  for (size_t i = 0; i < units; ++i) put16(out + 2 * i, e.name[i], big);
  int length = e.nameLength >= 0 ? e.nameLength
                                 : static_cast<int>((e.name.size() + 1) * 2);
  put16(out + 0x40, static_cast<uint16_t>(length), big);
  out[0x42] = e.type;
  out[0x43] = e.colour;
  put32(out + 0x44, e.left, big);
  put32(out + 0x48, e.right, big);
  put32(out + 0x4C, e.child, big);
  memcpy(out + 0x50, e.clsid, 16);
  put32(out + 0x60, e.state, big);
  memcpy(out + 0x64, e.created, 8);
  memcpy(out + 0x6C, e.modified, 8);
  put32(out + 0x74, e.start, big);
  put32(out + 0x78, e.sizeLow, big);
  put32(out + 0x7C, e.sizeHigh, big);
}

// Writes `table` into the sectors that hold it, 32-bit entries, free past
// its end.
void encodeTable(const std::vector<uint32_t>& table, const std::vector<uint32_t>& where,
                 uint32_t perSector, bool big, std::map<uint32_t, Bytes>* sectors,
                 uint32_t sectorSize) {
  for (size_t i = 0; i < where.size(); ++i) {
    Bytes& s = (*sectors)[where[i]];
    s.assign(sectorSize, 0);
    for (uint32_t k = 0; k < perSector; ++k) {
      size_t at = i * perSector + k;
      put32(s.data() + 4 * k, at < table.size() ? table[at] : kFree, big);
    }
  }
}

}  // namespace

std::u16string units(const std::string& name) {
  std::u16string out;
  for (unsigned char c : name) out.push_back(c);
  return out;
}

bool siblingLess(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return a.size() < b.size();
  for (size_t i = 0; i < a.size(); ++i) {
    uint16_t x = foldLower(a[i]), y = foldLower(b[i]);
    if (x != y) return x < y;
  }
  return false;
}

std::string hex(const Bytes& bytes, size_t offset, size_t count) {
  std::string out;
  char buf[4];
  for (size_t i = offset; i < offset + count && i < bytes.size(); ++i) {
    snprintf(buf, sizeof buf, "%02x ", bytes[i]);
    out += buf;
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
  auto see = [&](uint32_t s) {
    if (s < 0xFFFFFFF0u) count = std::max(count, s + 1);
  };
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
  encodeTable(fat, fatSectors, perSector, bigEndian, &all, size);
  encodeTable(miniFat, miniFatSectors, perSector, bigEndian, &all, size);
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
    encodeTable(table, difatSectors, perSector, bigEndian, &all, size);
  }
  const uint32_t perDirSector = size / 128;
  for (size_t i = 0; i < dirSectors.size(); ++i) {
    Bytes& s = all[dirSectors[i]];
    s.assign(size, 0);
    for (uint32_t k = 0; k < perDirSector; ++k) {
      size_t at = i * perDirSector + k;
      if (at < dir.size()) encodeEntry(dir[at], bigEndian, s.data() + 128 * k);
    }
  }
  std::map<int64_t, Bytes> out;
  Bytes head(size, 0);
  encodeHeader(h, bigEndian, head.data());
  out[0] = std::move(head);
  for (auto& kv : all) out[(static_cast<int64_t>(kv.first) + 1) * size] = std::move(kv.second);
  if (truncateTo >= 0) {
    for (auto it = out.begin(); it != out.end();) {
      int64_t end = it->first + static_cast<int64_t>(it->second.size());
      if (it->first >= truncateTo) {
        it = out.erase(it);
        continue;
      }
      if (end > truncateTo) it->second.resize(static_cast<size_t>(truncateTo - it->first));
      ++it;
    }
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
  Node root;
  root.entry.name = units("Root Entry");
  root.entry.type = 5;
  entries_.push_back(root);
}

int CfbBuilder::addEntry(int parent, const std::u16string& name, uint8_t type,
                         const Bytes& data) {
  Node node;
  node.entry.name = name;
  node.entry.type = type;
  node.data = data;
  entries_.push_back(node);
  int index = static_cast<int>(entries_.size()) - 1;
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
  const uint32_t size = 1u << sectorShift_;
  const uint32_t perSector = size / 4;
  const uint32_t miniSize = 64;

  // Directory entries with balanced sibling trees.
  for (const Node& n : entries_) l.dir.push_back(n.entry);
  for (const Node& n : entries_) {
    std::vector<int> kids = n.children;
    std::sort(kids.begin(), kids.end(), [&](int a, int b) {
      return siblingLess(entries_[a].entry.name, entries_[b].entry.name);
    });
    struct Balance {
      static uint32_t build(CfbLayout& l, const std::vector<int>& kids, int lo, int hi) {
        if (lo >= hi) return kNone;
        int mid = (lo + hi) / 2;
        DirEntry& e = l.dir[kids[mid]];
        e.left = build(l, kids, lo, mid);
        e.right = build(l, kids, mid + 1, hi);
        return static_cast<uint32_t>(kids[mid]);
      }
    };
    l.dir[&n - &entries_[0]].child = Balance::build(l, kids, 0, static_cast<int>(kids.size()));
  }
  for (int i = 0; i < spareEntries_; ++i) l.dir.push_back(DirEntry());

  // Mini stream contents and chains.
  Bytes mini;
  for (size_t i = 1; i < entries_.size(); ++i) {
    const Bytes& data = entries_[i].data;
    DirEntry& e = l.dir[i];
    e.sizeLow = static_cast<uint32_t>(data.size());
    if (entries_[i].entry.type != 2 || data.empty() || data.size() >= cutoff_) continue;
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
  uint64_t regular = 0;
  for (size_t i = 1; i < entries_.size(); ++i) {
    if (entries_[i].entry.type == 2 && entries_[i].data.size() >= cutoff_) {
      regular += ceilDiv(entries_[i].data.size(), size);
    }
  }
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
  auto take = [&](uint32_t count, std::vector<uint32_t>* list, bool chain) {
    uint32_t first = next;
    for (uint32_t k = 0; k < count; ++k) {
      if (list) list->push_back(next);
      if (chain) l.fat[next] = k + 1 < count ? next + 1 : kEnd;
      ++next;
    }
    return count ? first : kEnd;
  };
  l.fat.assign(static_cast<size_t>(f) * perSector, kFree);
  take(f, &l.fatSectors, false);
  for (uint32_t s : l.fatSectors) l.fat[s] = kFatSect;
  take(d, &l.difatSectors, false);
  for (uint32_t s : l.difatSectors) l.fat[s] = kDifSect;
  l.header.miniFatStart = take(miniFatN, &l.miniFatSectors, true);
  l.header.miniFatSectors = miniFatN;
  l.header.dirStart = take(dirN, &l.dirSectors, true);
  if (sectorShift_ == 12) l.header.dirSectors = dirN;
  next += padding_;
  for (size_t i = 1; i < entries_.size(); ++i) {
    const Bytes& data = entries_[i].data;
    if (entries_[i].entry.type != 2 || data.size() < cutoff_) continue;
    uint32_t count = ceilDiv(data.size(), size);
    uint32_t first = take(count, nullptr, true);
    l.dir[i].start = first;
    for (uint32_t k = 0; k < count; ++k) {
      Bytes& s = l.sector(first + k);
      size_t n = std::min<size_t>(size, data.size() - static_cast<size_t>(k) * size);
      memcpy(s.data(), data.data() + static_cast<size_t>(k) * size, n);
    }
  }
  uint32_t miniFirst = take(miniStreamN, nullptr, true);
  for (uint32_t k = 0; k < miniStreamN; ++k) {
    Bytes& s = l.sector(miniFirst + k);
    size_t n = std::min<size_t>(size, mini.size() - static_cast<size_t>(k) * size);
    memcpy(s.data(), mini.data() + static_cast<size_t>(k) * size, n);
  }
  l.dir[0].start = miniFirst;
  l.dir[0].sizeLow = static_cast<uint32_t>(mini.size());
  l.header.fatSectors = f;
  return l;
}

}  // namespace cfb
