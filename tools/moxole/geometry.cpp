#include "tools/moxole/geometry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "format/records.h"

namespace moxole {

namespace {

// Reads sector-numbered data of one open file in the file's byte order.
class SectorReader {
 public:
  SectorReader(int fd, moxfmt::ByteOrder order, uint64_t sectorSize)
      : fd_(fd), order_(order), sectorSize_(sectorSize) {}

  // The 32-bit entry `index` of sector `sector`; false past the file's end.
  bool entry(uint32_t sector, uint64_t index, uint32_t* value) const {
    unsigned char bytes[4];
    off_t at = static_cast<off_t>((sector + 1ull) * sectorSize_ + index * 4);
    if (pread(fd_, bytes, 4, at) != 4) return false;
    *value = moxfmt::get32(order_, bytes);
    return true;
  }

 private:
  int fd_;
  moxfmt::ByteOrder order_;
  uint64_t sectorSize_;
};

// Collects the sector numbers of the FAT: the header's slots, then the
// DIFAT chain.  False when the chain is broken.
bool fatSectorList(const SectorReader& reader, const moxfmt::HeaderRecord& header,
                   const Geometry& g, std::vector<uint32_t>* fat) {
  // A damaged count must not make us collect more than the file can hold.
  if (g.fatSectors > g.fileBytes / g.sectorSize + 1) return false;
  for (size_t i = 0; i < moxfmt::kHeaderFatSlots && fat->size() < g.fatSectors; ++i) {
    fat->push_back(header.fat_slots[i]);
  }
  uint64_t perSector = moxfmt::linksPerSector(static_cast<uint32_t>(g.sectorSize));
  uint32_t difat = header.difat_start;
  for (uint32_t n = 0; fat->size() < g.fatSectors; ++n) {
    if (n >= g.difatSectors || difat >= moxfmt::kMaxRegularSector) return false;
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
  uint64_t perSector = moxfmt::linksPerSector(static_cast<uint32_t>(g.sectorSize));
  uint64_t limit = g.fileBytes / g.sectorSize + 1;
  int64_t length = 0;
  for (uint32_t s = start; s != moxfmt::kEndOfChain;) {
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
  unsigned char bytes[moxfmt::kHeaderSize];
  struct stat st;
  bool ok = pread(fd, bytes, sizeof bytes, 0) == static_cast<ssize_t>(sizeof bytes) &&
            fstat(fd, &st) == 0;
  if (ok) {
    const moxfmt::HeaderRecord header = moxfmt::decodeHeader(bytes);
    g->littleEndian = header.order == moxfmt::ByteOrder::kLittle;
    g->minorVersion = header.minor_version;
    g->majorVersion = header.major_version;
    unsigned shift = header.sector_shift, miniShift = header.mini_sector_shift;
    ok = shift >= 7 && shift <= 20 && miniShift <= shift;
    if (ok) {
      g->sectorSize = 1ull << shift;
      g->miniSectorSize = 1ull << miniShift;
      g->miniCutoff = header.mini_cutoff;
      g->fatSectors = header.fat_sector_count;
      g->miniFatSectors = header.mini_fat_count;
      g->difatSectors = header.difat_count;
      g->fileBytes = static_cast<uint64_t>(st.st_size);
      if (header.dir_sector_count != 0) {
        g->directorySectors = header.dir_sector_count;
      } else {
        SectorReader reader(fd, header.order, g->sectorSize);
        std::vector<uint32_t> fat;
        if (fatSectorList(reader, header, *g, &fat)) {
          g->directorySectors = chainLength(reader, fat, *g, header.dir_start);
        }
      }
    }
  }
  close(fd);
  return ok;
}

}  // namespace moxole
