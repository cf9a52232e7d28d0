// The document handle and the reader's in-memory directory record.
//
// A handle holds everything the reader knows about one open document: the
// header values, the FAT sectors as read, the mini FAT, the directory, the
// one current stream, and the host objects that all I/O and memory go
// through.  Every field is plain data so that a handle can be zero-filled
// and freed through the host's memory interface.
#ifndef MOXOLEFIO_INTERFACE_MOX_FILE_H_
#define MOXOLEFIO_INTERFACE_MOX_FILE_H_

#include <stdint.h>

#include "format/records.h"
#include "moxolefio.h"

class CMoxOleDocument;
class CMoxOleEntry;

// Sector numbers with a meaning of their own, as the handle holds them:
// the stored 32-bit values widened with sign.
enum : int64_t {
  kSectorFree = static_cast<int32_t>(moxfmt::kFreeSector),
  kSectorEndOfChain = static_cast<int32_t>(moxfmt::kEndOfChain),
  kSectorFat = static_cast<int32_t>(moxfmt::kFatSector),
  kSectorDifat = static_cast<int32_t>(moxfmt::kDifatSector),
};

// Entry types of the directory.
enum : uint8_t {
  kEntryEmpty = moxfmt::kTypeEmpty,
  kEntryStorage = moxfmt::kTypeStorage,
  kEntryStream = moxfmt::kTypeStream,
  kEntryRoot = moxfmt::kTypeRoot,
};

// The sector list of the current stream is split: plChain never holds more
// than this many entries, plChainMore holds the rest.
constexpr int64_t kChainFirstPart = 16383;

// The chain loop guard remembers this many backward jumps.
constexpr int kLoopGuardSlots = 128;

struct _MoxOleDirInfo {
  uint32_t uiNameLen;   // stored name length in bytes
  char szName[33];      // low byte of each UTF-16 unit
  uint8_t byType;
  uint8_t byColour;
  int64_t lIndex;
  int64_t lLeft;
  int64_t lRight;
  int64_t lChild;
  char szClsid[17];
  int64_t lState;
  char szCreated[9];
  char szModified[9];
  int64_t lStart;
  int64_t lSize;
};

struct _MoxOleFile {
  _ZqTPIOobj* pIo;
  uint32_t iByteOrder;  // 1 little-endian, 0 big-endian
  char szVersion[12];
  uint32_t iSectorShift;
  uint32_t iMiniSectorShift;
  int64_t lDirStart;
  int64_t lTransaction;
  int64_t lMiniCutoff;
  int64_t lMiniFatStart;
  int64_t lMiniFatCount;
  int64_t lDifatStart;
  int64_t lDifatCount;
  int64_t lFatCount;
  unsigned char** ppFat;
  int64_t* plMiniFat;
  int64_t lSectorSize;
  int64_t lMiniSectorSize;
  int64_t lMiniPerSector;
  int32_t iFatPerSector;
  int32_t iDirCount;
  _MoxOleDirInfo* pDir;
  int64_t lRootStart;
  int32_t iCheckCount;
  int64_t alCheck[kLoopGuardSlots];
  HostMemory* pTableMemory;
  int32_t iError;
  int64_t* plChain;
  int64_t* plChainMore;
  int64_t lStreamSize;
  int32_t iInMini;
  int64_t lPosition;
  HostMemory* pMemory;
  _ZqTPIOobj* pHostIo;
  _ZqTPIOobj* pSwitchIo;
  CMoxOleDocument* pDocument;
  CMoxOleEntry* pWriterStream;
  // Not part of the handle's published shape: the regular sectors of the
  // mini stream in chain order (entry k lies k FAT steps after lRootStart),
  // found once on the first mini-stream seek so that later seeks need no
  // walk.  Null until then, or when it could not be allocated.
  int64_t* plMiniStreamSectors;
  int64_t lMiniStreamSectors;
  // Not part of the published shape either: why the last failure happened
  // (a MoxReason) and the sector, entry or position it is about.
  int32_t iFailure;
  int64_t lFailureSubject;
};

// A zero-filled handle from `memory` that knows nothing but its allocator;
// the one place handles are made.  Null when memory refuses.
_MoxOleFile* moxNewHandle(HostMemory* memory);

#endif  // MOXOLEFIO_INTERFACE_MOX_FILE_H_
