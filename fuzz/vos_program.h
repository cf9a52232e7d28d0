// The OS-layer target's input format, shared with the seed generator: a
// run of operations, each an opcode byte and its arguments.
//
// A path argument is a component count (byte, 1 to 12) and components,
// each a length byte and bytes; a length with bit 7 set means three times
// the low bits, for names too long for the file system.  The target turns
// every path into a relative one inside its scratch directory: '/' and
// zero bytes inside a component are replaced, a ".." component is
// renamed, and an empty first component gets a name.
#ifndef MOXOLEFIO_FUZZ_VOS_PROGRAM_H_
#define MOXOLEFIO_FUZZ_VOS_PROGRAM_H_

#include <stdint.h>

namespace moxfuzz {

// Descriptors and lock objects an input can hold at once.
constexpr int kVosSlots = 8;

enum VosOp : uint8_t {
  kVosMkdir,     // path, mode (u16)
  kVosTempnam,   // path (the directory), prefix (text), null-prefix flag (byte)
  kVosOpen,      // slot, path, flag set (byte), 64-bit variant (byte)
  kVosFopen,     // slot, path, mode (text), 64-bit variant (byte)
  kVosWrite,     // slot, element size (byte), element count (u16), pattern (byte)
  kVosRead,      // slot, element size (byte), element count (u16)
  kVosSeek,      // slot, offset (u32, signed), whence (byte), a byte (ignored)
  kVosFileOps,   // slot, operation (byte), length (u16)
  kVosStatus,    // path, a byte (ignored)
  kVosRemove,    // path, rmdir instead of unlink (byte)
  kVosRename,    // path, path
  kVosChmod,     // path, mode (u16)
  kVosListDir,   // path, entries to read (byte)
  kVosChdir,     // path, getcwd buffer size (u16)
  kVosLock,      // slot, path, flag set (byte), whence, start (u16), length (u16)
  kVosUmask,     // mask (u16)
  kVosMemory,    // operation (byte), size choice (byte), size (u16)
  kVosOpCount
};

}  // namespace moxfuzz

#endif  // MOXOLEFIO_FUZZ_VOS_PROGRAM_H_
