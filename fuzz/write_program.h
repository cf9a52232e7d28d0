// The writer target's input format, shared with the seed generator.
//
// Byte 0 chooses how the document is made:
//   bits 0-1  flags given to hOLEopenEx: 0 and 3 give 1, 1 gives 3 (bit 0
//             set with another bit: still a new document), 2 gives 2 (no
//             document at all)
//   bit 2     a u16 follows: the allocation attempt that fails (host
//             memory, pool creation and pool allocations counted together)
//   bit 3     a u16 follows: the host write call that fails
//   bit 4     the document may grow to 16 MB, enough to need two DIFAT
//             sectors; otherwise the bytes written stop at 512 kB, which
//             keeps most inputs fast
//   bit 5     the host I/O object refuses to open
//   bit 6     the host I/O object cannot be written (no write function)
// Then operations until the input ends, each an opcode byte and its
// arguments.  Names and paths are bytes; a zero byte in them becomes '0'.
#ifndef MOXOLEFIO_FUZZ_WRITE_PROGRAM_H_
#define MOXOLEFIO_FUZZ_WRITE_PROGRAM_H_

#include <stdint.h>

namespace moxfuzz {

constexpr uint8_t kWriteFlagsMask = 3;
constexpr uint8_t kWriteFailAllocation = 4;
constexpr uint8_t kWriteFailOutput = 8;
constexpr uint8_t kWriteLargeDocument = 16;
constexpr uint8_t kWriteRefuseOpen = 32;
constexpr uint8_t kWriteReadOnlyOutput = 64;

enum WriteOp : uint8_t {
  // parent (byte: index among the entries made so far, the root first),
  // name (byte length, bytes; backslashes become '/')
  kOpCreateStorage,
  kOpCreateStream,
  // length (u16), pattern (byte): appends to the current stream
  kOpWrite,
  // length in 256-byte units (u16), pattern (byte)
  kOpWriteLarge,
  // type (byte), path (u16 length, bytes as given, backslashes included)
  kOpCreateRawPath,
  // entry (byte): opens its path for reading, as a host would
  kOpOpenForReading,
  // closes the current stream through bOLEcloseStream
  kOpCloseStream,
  // kind (byte): a call with an argument the writer must refuse or ignore
  kOpOddCall,
  kWriteOpCount
};

// Fills `out` with `length` bytes for stream `entry`, written with
// `pattern`, starting at stream offset `offset`: each byte a hash of its
// offset, the stream and the pattern, so that a byte read back from the
// wrong place, or from another stream, is caught.
inline void fillPattern(uint8_t* out, uint64_t length, uint32_t entry, uint8_t pattern,
                        uint64_t offset) {
  const uint64_t seed = (entry * 7919ull + pattern * 104729ull) << 32;
  for (uint64_t i = 0; i < length; ++i) {
    const uint64_t x = ((offset + i) ^ seed) * 0x9E3779B97F4A7C15ull;
    out[i] = static_cast<uint8_t>((x ^ (x >> 31)) >> 24);
  }
}

}  // namespace moxfuzz

#endif  // MOXOLEFIO_FUZZ_WRITE_PROGRAM_H_
