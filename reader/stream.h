// The handle's current reader stream: finding it, its sector list, and
// seeking and reading in it.
//
// A sector list holds the stream's sectors in chain order (mini sectors
// when iInMini is 1) followed by one -2.  It is split in two arrays so that
// the first never exceeds kChainFirstPart entries: list entry i lies in
// plChain[i] below kChainFirstPart and in plChainMore[i - kChainFirstPart]
// from there on.  Once the list reaches kChainFirstPart entries the second
// array is always allocated, even with no entries.
#ifndef MOXOLEFIO_READER_STREAM_H_
#define MOXOLEFIO_READER_STREAM_H_

#include <stdint.h>

#include "interface/mox_file.h"
#include "reader/reader.h"

// How strictly a chain must agree with its directory entry.
enum MoxChainRules {
  // The plain opens: a free link (-1) ends a FAT chain, a mini chain falls
  // back to the FAT when the document has no mini FAT, and a chain longer
  // than the size needs is accepted.
  kChainLenient,
  // Opening by storage path: a free link is an error, a mini chain needs
  // the mini FAT, and the chain must have exactly the sectors the size needs.
  kChainExact,
};

// Makes directory entry `entry` the current stream: walks its chain into a
// new sector list and sets lStreamSize and iInMini; lPosition is left for
// the caller's seek.  The previous list is released first, whether or not
// the build then succeeds.  Reads no file data.  0, or -1.
int moxBuildChain(_MoxOleFile* h, int64_t entry, MoxChainRules rules);

// Frees both arrays of the sector list; true when there was one.
bool moxReleaseChain(_MoxOleFile* h);

// Entry `index` of the current sector list; the caller keeps index within
// the list.  Inline: every piece of every read looks one up.
inline int64_t moxChainEntry(const _MoxOleFile* h, int64_t index) {
  return index < kChainFirstPart ? h->plChain[index] : h->plChainMore[index - kChainFirstPart];
}

// Positions a freshly built stream at 0, closing it again when that fails.
// 1 when the stream is open, 0 when not.
int moxFinishOpen(_MoxOleFile* h);

// The entry a name lookup makes current: by name under the root; with a
// storage, by name among the children of the first entry of that name
// (without a stream name, the storage's presentation stream); ignoring
// storages, the first stream of that name anywhere.  -1 when there is
// none.  Changes nothing but iError.
int64_t moxLookUpStream(_MoxOleFile* h, const char* stream, const char* storage,
                        int ignoreStorage);

// moxLookUpStream, then the chain under the lenient rules and a seek to 0:
// 1 when the stream is open, 0 when not.
int moxOpenStream(_MoxOleFile* h, const char* stream, const char* storage, int ignoreStorage);

// The stream `stream` (not null) in the storage a path leads to, under the
// exact rules: 1 when open, 0 when not.
int moxOpenStreamByPath(_MoxOleFile* h, const char (*path)[36], int depth, const char* stream);

// Moves in the current stream: whence 0 from the start, 1 from the
// position, 2 from the end; the result is clamped to the stream.  The new
// position, or -1 without a current stream or when the host's seek fails.
int64_t moxSeek(_MoxOleFile* h, int64_t offset, int whence);

// Copies up to `count` bytes from the position on into `buffer`, one host
// seek and read per (mini) sector piece; the bytes copied.
uint32_t moxRead(_MoxOleFile* h, void* buffer, uint32_t count);

// The regular sector `steps` FAT links after lRootStart, the start of the
// mini stream; false when the chain breaks before.  A walk of more steps
// than the FAT has sectors can only be going round a cycle and fails too.
// The chain is walked once per handle and remembered.
bool moxMiniStreamSectorSlow(_MoxOleFile* h, int64_t steps, int64_t* sector);

// The same, inline for the case every read of a mini stream meets once per
// 64-byte piece: the chain already remembered.
inline bool moxMiniStreamSector(_MoxOleFile* h, int64_t steps, int64_t* sector) {
  if (h->plMiniStreamSectors == nullptr) return moxMiniStreamSectorSlow(h, steps, sector);
  if (steps < 0 || steps > moxFatSectorCapacity(h) || steps >= h->lMiniStreamSectors) {
    return false;
  }
  *sector = h->plMiniStreamSectors[steps];
  return true;
}

// Releases what moxMiniStreamSector remembered.
void moxForgetMiniStream(_MoxOleFile* h);

#endif  // MOXOLEFIO_READER_STREAM_H_
