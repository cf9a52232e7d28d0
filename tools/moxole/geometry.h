// The layout facts of a compound file that only its header (and, for old
// files, its FAT) records: versions, sector sizes and table sizes.  The
// document handle is opaque to hosts, so `info` reads these itself.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_GEOMETRY_H_
#define MOXOLEFIO_TOOLS_MOXOLE_GEOMETRY_H_

#include <stdint.h>

#include <string>

namespace moxole {

struct Geometry {
  unsigned majorVersion = 0;
  unsigned minorVersion = 0;
  bool littleEndian = true;
  uint64_t sectorSize = 0;
  uint64_t miniSectorSize = 0;
  uint32_t miniCutoff = 0;
  uint32_t fatSectors = 0;
  uint32_t miniFatSectors = 0;
  uint32_t difatSectors = 0;
  // Counted along the directory's chain when the header does not record it
  // (major version 3); -1 when that chain is broken.
  int64_t directorySectors = -1;
  uint64_t fileBytes = 0;
};

// Reads the geometry of the compound file at `path`; false when its header
// cannot be read or makes no sense.  The caller has already checked that the
// file is a compound file.
bool readGeometry(const std::string& path, Geometry* geometry);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_GEOMETRY_H_
