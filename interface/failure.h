// Why an operation on a handle failed: a named reason and the sector,
// entry, count or position it is about, kept in the handle (never in a
// global) until the next failure replaces it, and described as one line of
// text for hosts and tools ("FAT sector 17 cannot be read").
//
// Results stay what the host functions have always returned; the reason
// only adds the why.  Every failure site of the reader records one with
// moxFail, which also returns the reader's failure result, -1.
#ifndef MOXOLEFIO_INTERFACE_FAILURE_H_
#define MOXOLEFIO_INTERFACE_FAILURE_H_

#include <stddef.h>
#include <stdint.h>

struct _MoxOleFile;

enum class MoxReason : int32_t {
  kNone = 0,
  kBadArgument,            // subject: unused
  kNoMemory,
  kCannotOpenInput,
  kHeaderUnreadable,
  kNotCompoundFile,
  kSectorShiftUnusable,    // subject: sector shift << 16 | mini sector shift
  kFatCountImpossible,     // subject: the count
  kFatSectorUnreadable,    // subject: sector number
  kDifatStartInvalid,      // subject: the start
  kDifatCountInvalid,      // subject: the count
  kDifatSectorUnreadable,  // subject: sector number
  kDifatCycle,             // subject: the sector the chain came back to
  kMiniFatCountImpossible, // subject: the count
  kMiniFatSectorUnreadable,// subject: sector number
  kMiniFatChainBroken,     // subject: the last sector read
  kMiniFatCycle,           // subject: the sector the chain came back to
  kDirectoryChainBroken,   // subject: the sector whose link fails
  kDirectoryTooLarge,      // subject: sectors
  kDirectorySectorUnreadable,  // subject: sector number
  kEntryNameTooLong,       // subject: entry number
  kNoSuchEntry,            // subject: entry number, or -1 for a name
  kNotAStream,             // subject: entry number, or -1 for one being written
  kNoMiniStream,           // subject: entry number
  kChainBroken,            // subject: entry number
  kChainCycle,             // subject: entry number
  kChainTooShort,          // subject: entry number
  kNoCurrentStream,
  kMiniStreamBroken,       // subject: stream position
  kSeekFailed,             // subject: file position
  kReadFailed,             // subject: stream position
  kTreeDamaged,            // subject: unused
  kNotWritable,
  kCannotCreate,           // subject: unused
};

// Records `reason` in h (when h is not null) and returns -1.
int moxFail(_MoxOleFile* h, MoxReason reason, int64_t subject = -1);

// Records `reason` in h (when h is not null) and returns `status`.
int moxFailWith(_MoxOleFile* h, int status, MoxReason reason, int64_t subject = -1);

// The reason as a line of text (no newline) in `text`, cut to `size`
// bytes with its terminator; the length of the whole line.
int moxDescribeFailure(MoxReason reason, int64_t subject, char* text, size_t size);

#endif  // MOXOLEFIO_INTERFACE_FAILURE_H_
