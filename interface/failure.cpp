#include "interface/failure.h"

#include <stdio.h>

#include "interface/mox_file.h"

namespace {

// The line for each reason; "%lld" stands for the subject where it has one.
const char* pattern(MoxReason reason) {
  switch (reason) {
    case MoxReason::kNone: return "no failure";
    case MoxReason::kBadArgument: return "invalid argument";
    case MoxReason::kNoMemory: return "the host's memory refused a request";
    case MoxReason::kCannotOpenInput: return "the input cannot be opened";
    case MoxReason::kHeaderUnreadable: return "the header cannot be read";
    case MoxReason::kNotCompoundFile: return "not a compound file (no signature)";
    case MoxReason::kSectorShiftUnusable: return nullptr;  // two numbers, below
    case MoxReason::kFatCountImpossible: return "a FAT of %lld sectors is impossible";
    case MoxReason::kFatSectorUnreadable: return "FAT sector %lld cannot be read";
    case MoxReason::kDifatStartInvalid: return "the DIFAT start %lld is no sector";
    case MoxReason::kDifatCountInvalid: return "a DIFAT of %lld sectors is impossible";
    case MoxReason::kDifatSectorUnreadable: return "DIFAT sector %lld cannot be read";
    case MoxReason::kDifatCycle: return "the DIFAT chain comes back to sector %lld";
    case MoxReason::kMiniFatCountImpossible: return "a mini FAT of %lld sectors is impossible";
    case MoxReason::kMiniFatSectorUnreadable: return "mini FAT sector %lld cannot be read";
    case MoxReason::kMiniFatChainBroken: return "the mini FAT chain breaks after sector %lld";
    case MoxReason::kMiniFatCycle: return "the mini FAT chain comes back to sector %lld";
    case MoxReason::kDirectoryChainBroken: return "the directory chain breaks at sector %lld";
    case MoxReason::kDirectoryTooLarge: return "a directory of %lld sectors is too large";
    case MoxReason::kDirectorySectorUnreadable: return "directory sector %lld cannot be read";
    case MoxReason::kEntryNameTooLong:
      return "directory entry %lld has a name longer than its field";
    case MoxReason::kNoSuchEntry: return nullptr;  // with or without a number, below
    case MoxReason::kNotAStream: return nullptr;  // with or without a number, below
    case MoxReason::kNoMiniStream: return "entry %lld lies in a mini stream the file lacks";
    case MoxReason::kChainBroken: return "the sector chain of entry %lld is broken";
    case MoxReason::kChainCycle: return "the sector chain of entry %lld runs in a circle";
    case MoxReason::kChainTooShort: return "entry %lld does not fit its sector chain";
    case MoxReason::kNoCurrentStream: return "no stream is open";
    case MoxReason::kMiniStreamBroken: return "the mini stream ends before stream byte %lld";
    case MoxReason::kSeekFailed: return "the input cannot be positioned at byte %lld";
    case MoxReason::kReadFailed: return "byte %lld of the stream cannot be read";
    case MoxReason::kTreeDamaged: return "the storage tree is damaged";
    case MoxReason::kNotWritable: return "the document is not open for writing";
    case MoxReason::kCannotCreate: return "no such storage, or the name is taken";
  }
  return "unknown failure";
}

}  // namespace

int moxFailWith(_MoxOleFile* h, int status, MoxReason reason, int64_t subject) {
  if (h != nullptr) {
    h->iFailure = static_cast<int32_t>(reason);
    h->lFailureSubject = subject;
  }
  return status;
}

int moxFail(_MoxOleFile* h, MoxReason reason, int64_t subject) {
  return moxFailWith(h, -1, reason, subject);
}

int moxDescribeFailure(MoxReason reason, int64_t subject, char* text, size_t size) {
  const long long value = subject;
  if (reason == MoxReason::kSectorShiftUnusable) {
    return snprintf(text, size, "sector shifts %lld and %lld cannot be used", value >> 16,
                    value & 0xFFFF);
  }
  if (reason == MoxReason::kNoSuchEntry) {
    if (subject < 0) return snprintf(text, size, "no such entry");
    return snprintf(text, size, "there is no entry %lld", value);
  }
  if (reason == MoxReason::kNotAStream) {
    if (subject < 0) return snprintf(text, size, "the entry is not a stream");
    return snprintf(text, size, "entry %lld is not a stream", value);
  }
  return snprintf(text, size, pattern(reason), value);
}
