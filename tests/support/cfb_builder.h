// A test-side compound-file builder.
//
// Two levels:
//   CfbLayout   every field of a file as data: header values, sector
//               payloads, the logical FAT, DIFAT, mini FAT and directory.
//               serialize() turns it into bytes mechanically, so a test can
//               break any one rule (a cyclic FAT, a wrong count, a bad name
//               length, a big-endian file) by editing one field.
//   CfbBuilder  a tree of storages and streams with their bytes, laid out
//               as a well-formed file: proper sibling trees, mini streams
//               below the cutoff, DIFAT sectors when the FAT needs them.
//
// Typical use:
//   CfbBuilder b;
//   int s = b.addStorage(0, "Obj");
//   b.addStream(s, "Data", bytes);
//   CfbLayout l = b.layout();
//   l.fat[5] = 5;                      // make a loop
//   std::vector<uint8_t> file = l.serialize();
#ifndef MOXOLEFIO_TESTS_SUPPORT_CFB_BUILDER_H_
#define MOXOLEFIO_TESTS_SUPPORT_CFB_BUILDER_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace cfb {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kFree = 0xFFFFFFFFu;
constexpr uint32_t kEnd = 0xFFFFFFFEu;
constexpr uint32_t kFatSect = 0xFFFFFFFDu;
constexpr uint32_t kDifSect = 0xFFFFFFFCu;
constexpr uint32_t kNone = 0xFFFFFFFFu;  // no sibling / child

// Bytes that depend on both position and seed, so that a piece read from
// the wrong offset, the wrong sector or the wrong stream never matches;
// cheap enough for the hundreds of megabytes the edit programs write.
inline Bytes pattern(size_t size, uint32_t seed) {
  Bytes out(size);
  uint32_t x = seed * 2654435761u + 1;
  for (uint8_t& v : out) {
    x = x * 1664525u + 1013904223u;
    v = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

// A name as UTF-16 code units; bytes of a std::string become units 0x00-0xFF.
std::u16string units(const std::string& name);

struct DirEntry {
  std::u16string name;
  int nameLength = -1;  // stored length in bytes; -1: (units + 1) * 2
  uint8_t type = 0;
  uint8_t colour = 1;
  uint32_t left = kNone, right = kNone, child = kNone;
  uint8_t clsid[16] = {};
  uint32_t state = 0;
  uint8_t created[8] = {}, modified[8] = {};
  uint32_t start = kEnd;
  uint32_t sizeLow = 0, sizeHigh = 0;
};

struct CfbHeader {
  uint8_t signature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  uint16_t minor = 0x3E;
  uint8_t major[2] = {3, 0};  // raw bytes at 0x1A
  uint16_t byteOrder = 0xFFFE;  // written in the file's byte order
  uint16_t sectorShift = 9, miniShift = 6;
  uint32_t dirSectors = 0, fatSectors = 0, dirStart = kEnd, transaction = 0;
  uint32_t miniCutoff = 4096, miniFatStart = kEnd, miniFatSectors = 0;
  uint32_t difatStart = kEnd, difatSectors = 0;
  uint32_t difat[109];
  CfbHeader();
};

// The numeric fields of a header and of a directory entry by offset, for
// writing and reading alike: f(offset, field) sees each at its own width.
template <class Header, class F>
void headerFields(Header& h, F f) {
  f(0x18, h.minor), f(0x1C, h.byteOrder), f(0x1E, h.sectorShift), f(0x20, h.miniShift);
  f(0x28, h.dirSectors), f(0x2C, h.fatSectors), f(0x30, h.dirStart), f(0x34, h.transaction);
  f(0x38, h.miniCutoff), f(0x3C, h.miniFatStart), f(0x40, h.miniFatSectors);
  f(0x44, h.difatStart), f(0x48, h.difatSectors);
  for (int i = 0; i < 109; ++i) f(0x4C + 4 * i, h.difat[i]);
}
template <class Entry, class F>
void entryFields(Entry& e, F f) {
  f(0x42, e.type), f(0x43, e.colour), f(0x44, e.left), f(0x48, e.right), f(0x4C, e.child);
  f(0x74, e.start);
}

struct CfbLayout {
  bool bigEndian = false;
  CfbHeader header;
  // Sector payloads by sector number; missing sectors serialize as zeros.
  std::map<uint32_t, Bytes> sectors;
  // Logical tables, written into the sectors listed beside them.  FAT
  // entries past the end of `fat` are written as free.
  std::vector<uint32_t> fat;
  std::vector<uint32_t> fatSectors;    // FAT sector i lives in fatSectors[i]
  std::vector<uint32_t> difatSectors;  // chain of DIFAT sectors
  std::vector<uint32_t> miniFat;
  std::vector<uint32_t> miniFatSectors;
  std::vector<DirEntry> dir;
  std::vector<uint32_t> dirSectors;
  // When false, header.difat/difatStart/difatSectors and the DIFAT sectors'
  // contents are left exactly as set instead of derived from fatSectors.
  bool deriveDifat = true;
  // Cut the serialized file to this many bytes (-1: no cut).
  int64_t truncateTo = -1;

  uint32_t sectorSize() const { return 1u << header.sectorShift; }
  // Number of the last sector in use plus one.
  uint32_t sectorCount() const;
  // The whole file.
  Bytes serialize() const;
  // The file as (offset, bytes) runs, for files too large to hold whole;
  // gaps read as zeros.
  std::map<int64_t, Bytes> serializeSparse() const;
  // The payload of one sector, created zero-filled on first use.
  Bytes& sector(uint32_t number);
  // Adds FAT sectors after the last sector in use until there are `count`
  // (a FAT that describes far more than the file holds) and returns the
  // first sector after them.
  uint32_t growFat(uint32_t count);
};

class CfbBuilder {
 public:
  explicit CfbBuilder(unsigned sectorShift = 9);

  // Adds a storage or stream under `parent` (0 is the root) and returns its
  // entry number.  Names are bytes; use units() for wider names.
  int addStorage(int parent, const std::string& name);
  int addStream(int parent, const std::string& name, const Bytes& data);
  int addEntry(int parent, const std::u16string& name, uint8_t type, const Bytes& data);

  DirEntry& entry(int index) { return entries_[index].entry; }
  void setBigEndian(bool on) { bigEndian_ = on; }
  void setMiniCutoff(uint32_t cutoff) { cutoff_ = cutoff; }
  // Reserve this many extra sectors (zeros, marked free) before the streams,
  // so that FAT and DIFAT grow without large payloads.
  void setPaddingSectors(uint32_t n) { padding_ = n; }

  CfbLayout layout() const;
  Bytes build() const { return layout().serialize(); }

 private:
  struct Node {
    DirEntry entry;
    Bytes data;
    std::vector<int> children;
  };
  std::vector<Node> entries_;
  unsigned sectorShift_;
  bool bigEndian_ = false;
  uint32_t cutoff_ = 4096;
  uint32_t padding_ = 0;
};

// The library's sibling order: shorter names first, then byte-wise with
// ASCII letters folded to lower case.
bool siblingLess(const std::u16string& a, const std::u16string& b);

// Hex dump of a sector-sized region, for failure messages.
std::string hex(const Bytes& bytes, size_t offset, size_t count);

}  // namespace cfb

#endif  // MOXOLEFIO_TESTS_SUPPORT_CFB_BUILDER_H_
