// Seeking and reading in the current stream.
//
// No file position is cached between calls: every seek derives the file
// position afresh from the sector list, and every read places the host
// object before each piece.  A clone shares the host object, so its reads
// may have moved it in between.
//
// Without a current stream there is nothing to place the host object in:
// the seek returns -1 and the read returns 0.  A stream without sectors
// (its list is only the terminator) has no file position at all; seeking in
// it only sets the stream position, which can then be nothing but 0.
#include "reader/reader.h"
#include "reader/stream.h"

namespace {

// base + offset, saturated instead of overflowing: any result outside the
// stream is clamped afterwards anyway.
int64_t addSaturated(int64_t base, int64_t offset) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(base, offset, &sum)) return sum;
  return offset > 0 ? INT64_MAX : INT64_MIN;
}

// log2 of the bytes per sector of the current stream.  Sector sizes are
// powers of two (the header step accepts nothing else), and a read costs
// one seek per 64-byte piece of a mini stream, so the position arithmetic
// below shifts and masks rather than divides: a 64-bit division costs more
// than the rest of the seek together.
uint32_t unitShift(const _MoxOleFile* h) {
  return h->iInMini ? h->iMiniSectorShift : h->iSectorShift;
}

// The file position of byte `within` of mini sector `mini`, or -1 when the
// mini stream's chain cannot be followed that far.
int64_t miniFilePosition(_MoxOleFile* h, int64_t mini, int64_t within) {
  int64_t steps = 0;
  int64_t offset = 0;
  if (mini >= 0) {
    const uint32_t perSectorShift = h->iSectorShift - h->iMiniSectorShift;
    steps = mini >> perSectorShift;
    offset = (mini & (h->lMiniPerSector - 1)) << h->iMiniSectorShift;
  } else {
    // Lists hold no negative sector but the terminator; kept exact anyway.
    steps = mini / h->lMiniPerSector;
    offset = (mini % h->lMiniPerSector) * h->lMiniSectorSize;
  }
  int64_t sector = 0;
  if (!moxMiniStreamSector(h, steps, &sector)) return -1;
  return (sector + 1) * h->lSectorSize + offset + within;
}

// The file position of stream position `position` (0 to the size, the
// list not only the terminator), or -1 when the mini stream's chain cannot
// be followed that far.
int64_t filePosition(_MoxOleFile* h, int64_t position) {
  const uint32_t shift = unitShift(h);
  int64_t at = position;
  int64_t past = 0;
  int64_t listed = moxChainEntry(h, at >> shift);
  if (listed == kSectorEndOfChain) {
    // The end of a stream that fills its last sector: no sector follows,
    // so aim just past the last byte of the last one.  Position 0 cannot
    // get here, since the list holds more than the terminator.
    at = position - 1;
    past = 1;
    listed = moxChainEntry(h, at >> shift);
  }
  const int64_t within = (at & ((int64_t{1} << shift) - 1)) + past;
  if (h->iInMini) return miniFilePosition(h, listed, within);
  return (listed + 1) * h->lSectorSize + within;
}

// moxSeek once the new position is known and clamped.
int64_t seekTo(_MoxOleFile* h, int64_t position) {
  h->lPosition = position;
  if (h->plChain[0] == kSectorEndOfChain) return position;
  const int64_t target = filePosition(h, position);
  if (target < 0) return moxFail(h, MoxReason::kMiniStreamBroken, position);
  if (!h->pHostIo->seek(h->pHostIo, target, 0)) return moxFail(h, MoxReason::kSeekFailed, target);
  return position;
}

}  // namespace

int64_t moxSeek(_MoxOleFile* h, int64_t offset, int whence) {
  if (h->plChain == nullptr) return moxFail(h, MoxReason::kNoCurrentStream);
  int64_t position = 0;
  switch (whence) {
    case 0: position = offset; break;
    case 1: position = addSaturated(h->lPosition, offset); break;
    case 2: position = addSaturated(h->lStreamSize, offset); break;
    default: return moxFail(h, MoxReason::kBadArgument);
  }
  if (position < 0) position = 0;
  if (position > h->lStreamSize) position = h->lStreamSize;
  return seekTo(h, position);
}

uint32_t moxRead(_MoxOleFile* h, void* buffer, uint32_t count) {
  // A stream built but never positioned has no place to read from.
  if (h->plChain == nullptr || h->lPosition < 0) {
    return moxFailWith(h, 0, MoxReason::kNoCurrentStream);
  }
  const int64_t left = h->lStreamSize - h->lPosition;
  int64_t wanted = count < left ? count : left;
  if (wanted <= 0) return 0;
  const int64_t unit = int64_t{1} << unitShift(h);
  int64_t room = unit - (h->lPosition & (unit - 1));
  unsigned char* out = static_cast<unsigned char*>(buffer);
  uint32_t total = 0;
  // One piece per (mini) sector: consecutive sectors of a stream need not
  // be adjacent in the file.
  while (wanted > 0) {
    // The same seek as moxSeek (h, lPosition, 0): the position already
    // lies within the stream.
    if (seekTo(h, h->lPosition) == -1) break;
    const int piece = static_cast<int>(room < wanted ? room : wanted);
    if (h->pHostIo->read(h->pHostIo, out + total, piece) != piece) {
      moxFail(h, MoxReason::kReadFailed, h->lPosition);
      break;
    }
    total += piece;
    h->lPosition += piece;
    wanted -= piece;
    room = unit;
  }
  return total;
}
