#include "writer/header.h"

#include "writer/oleio.h"

namespace {

// The minor version this writer's files have always carried (not the
// format's usual 0x3E), so that its output stays what it was.
constexpr uint16_t kWriterMinorVersion = 0x21;

}  // namespace

CMoxOleHeader::CMoxOleHeader() {
  minor_version = kWriterMinorVersion;
  major_version = 3;
  sector_shift = 9;
  mini_sector_shift = 6;
  mini_cutoff = moxfmt::kMiniStreamCutoff;
}

int CMoxOleHeader::writeDisk(CMoxOleIo* io) {
  unsigned char bytes[moxfmt::kHeaderSize];
  moxfmt::encodeHeader(*this, bytes);
  return io->writeRecord(bytes, sizeof bytes);
}
