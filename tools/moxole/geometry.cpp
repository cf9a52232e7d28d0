#include "tools/moxole/geometry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace moxole {

namespace {

constexpr int kHeaderBytes = 512;
constexpr int kHeaderFatSlots = 109;
constexpr uint32_t kEndOfChain = 0xFFFFFFFEu;

// Reads sector-numbered data of one open file in the file's byte order.
class SectorReader {
 public:
  SectorReader(int fd, bool littleEndian, uint64_t sectorSize)
      : fd_(fd), little_(littleEndian), sectorSize_(sectorSize) {}

  uint32_t decode(const unsigned char* p) const {
    return little_ ? p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24
                   : p[3] | p[2] << 8 | p[1] << 16 | static_cast<uint32_t>(p[0]) << 24;
  }

  // The 32-bit entry `index` of sector `sector`; false past the file's end.
  bool entry(uint32_t sector, uint64_t index, uint32_t* value) const {
    unsigned char bytes[4];
    off_t at = static_cast<off_t>((sector + 1ull) * sectorSize_ + index * 4);
    if (pread(fd_, bytes, 4, at) != 4) return false;
    *value = decode(bytes);
    return true;
  }

 private:
  int fd_;
  bool little_;
  uint64_t sectorSize_;
};

// Collects the sector numbers of the FAT: the header's 109 slots, then the
// DIFAT chain.  False when the chain is broken.
bool fatSectorList(const SectorReader& reader, const unsigned char* header,
                   const Geometry& g, uint32_t difatStart,
                   std::vector<uint32_t>* fat) {
  // A damaged count must not make us collect more than the file can hold.
  if (g.fatSectors > g.fileBytes / g.sectorSize + 1) return false;
  for (int i = 0; i < kHeaderFatSlots && fat->size() < g.fatSectors; ++i) {
    fat->push_back(reader.decode(header + 0x4C + 4 * i));
  }
  uint64_t perSector = g.sectorSize / 4;
  uint32_t difat = difatStart;
  for (uint32_t n = 0; fat->size() < g.fatSectors; ++n) {
    if (n >= g.difatSectors || difat >= 0xFFFFFFFAu) return false;
    for (uint64_t k = 0; k + 1 < perSector && fat->size() < g.fatSectors; ++k) {
      uint32_t sector;
      if (!reader.entry(difat, k, &sector)) return false;
      fat->push_back(sector);
    }
    if (!reader.entry(difat, perSector - 1, &difat)) return false;
  }
  return true;
}

// Length of the chain from `start`, or -1 when it is broken or loops.
int64_t chainLength(const SectorReader& reader, const std::vector<uint32_t>& fat,
                    const Geometry& g, uint32_t start) {
  uint64_t perSector = g.sectorSize / 4;
  uint64_t limit = g.fileBytes / g.sectorSize + 1;
  int64_t length = 0;
  for (uint32_t s = start; s != kEndOfChain;) {
    if (static_cast<uint64_t>(length) >= limit) return -1;
    uint64_t slot = s / perSector;
    if (slot >= fat.size() || !reader.entry(fat[slot], s % perSector, &s)) {
      return -1;
    }
    ++length;
  }
  return length;
}

}  // namespace

bool readGeometry(const std::string& path, Geometry* g) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char header[kHeaderBytes];
  struct stat st;
  bool ok = pread(fd, header, sizeof header, 0) == kHeaderBytes &&
            fstat(fd, &st) == 0;
  if (ok) {
    // A mark stored FE FF reads little-endian; anything else big-endian.
    g->littleEndian = header[0x1C] == 0xFE && header[0x1D] == 0xFF;
    SectorReader decoder(fd, g->littleEndian, 0);
    auto u16 = [&](int at) {
      return g->littleEndian ? header[at] | header[at + 1] << 8
                             : header[at] << 8 | header[at + 1];
    };
    auto u32 = [&](int at) { return decoder.decode(header + at); };
    g->minorVersion = u16(0x18);
    g->majorVersion = u16(0x1A);
    unsigned shift = u16(0x1E), miniShift = u16(0x20);
    ok = shift >= 7 && shift <= 20 && miniShift <= shift;
    if (ok) {
      g->sectorSize = 1ull << shift;
      g->miniSectorSize = 1ull << miniShift;
      g->miniCutoff = u32(0x38);
      g->fatSectors = u32(0x2C);
      g->miniFatSectors = u32(0x40);
      g->difatSectors = u32(0x48);
      g->fileBytes = static_cast<uint64_t>(st.st_size);
      uint32_t recorded = u32(0x28);
      if (recorded != 0) {
        g->directorySectors = recorded;
      } else {
        SectorReader reader(fd, g->littleEndian, g->sectorSize);
        std::vector<uint32_t> fat;
        if (fatSectorList(reader, header, *g, u32(0x44), &fat)) {
          g->directorySectors = chainLength(reader, fat, *g, u32(0x30));
        }
      }
    }
  }
  close(fd);
  return ok;
}

}  // namespace moxole
