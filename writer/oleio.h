// CMoxOleIo: the writer's buffered, little-endian way to the output file.
//
// Every byte of a new compound file passes through here, strictly in file
// order: the writer never seeks and never reads back.  Bytes gather in one
// 65536-byte buffer taken from a pool and reach the host's I/O object in a
// few large writes.  Integers are stored byte by byte, least significant
// first, so the file is little-endian on any processor, and an integer is
// never split across two host writes.
//
// Calling order: constructor, open, any writes and getPos, destructor.  The
// destructor writes out what is still buffered and closes the I/O object;
// the host never sees a close from anywhere else while the writer runs.
//
// Status codes: 0 success, 2 no memory, 14 the I/O object cannot be opened
// for writing, 16 a host write failed or there is nothing to write to.
// A failed host write drops the buffered bytes; there is no sticky error,
// the next write starts on an empty buffer.
#ifndef MOXOLEFIO_WRITER_OLEIO_H_
#define MOXOLEFIO_WRITER_OLEIO_H_

#include <stdint.h>

#include "moxolefio.h"

constexpr int kOleIoBufferSize = 65536;

class CMoxOleIo {
 public:
  // Allocates nothing; services must stay valid for the object's life,
  // since open makes the buffer's pool from it.
  explicit CMoxOleIo(tag_TPVAPIServices* services);

  // Flushes what is buffered (a failure there is not reported), closes the
  // I/O object and releases the pool with the buffer.
  ~CMoxOleIo();

  CMoxOleIo(const CMoxOleIo&) = delete;
  CMoxOleIo& operator=(const CMoxOleIo&) = delete;

  // Attaches and opens io and makes the buffer: 0, 2 or 14.  Once io has
  // been opened it stays attached even when a later step fails, so that the
  // destructor closes it exactly once; an io that cannot write is closed and
  // detached right away.
  int open(_ZqTPIOobj* io);

  // The low 32 bits of value, least significant byte first: 0 or 16.
  // When the buffer lacks room the buffered bytes are handed to the host
  // first; if that fails the value is not stored.
  int write4ByteInt(long value);

  // count bytes in order: 0 or 16 (also for a negative count or null data).
  // The buffer goes to the host as soon as the copy fills it, so a long run
  // reaches the host as pieces of exactly the buffer's size.
  int writeBytes(unsigned char* data, int count);

  // A whole record (at most the buffer's size): when it does not fit, the
  // buffered bytes go to the host first.  The writer's records start at
  // multiples of their size, which divides the buffer's, so that is where
  // writing them field by field would hand the bytes over too.  The record
  // is kept even when the hand-over fails (the buffer is empty then); the
  // result is the hand-over's status.
  int writeRecord(const unsigned char* record, int count);

  // Hands the buffered bytes to the host, even when there are none: 0 or
  // 16.  The buffer is emptied whatever the outcome.
  int flush();

  // File offset of the next byte: the host's tell plus what is buffered.
  // -1 when no I/O object with a tell function is attached.
  int64_t getPos();

  // Closes and detaches the I/O object without flushing.
  void close();

  tag_TPVAPIServices* pServices;
  HostMemory* pPool;
  unsigned char* pBuffer;
  int32_t iBufferSize;
  int32_t iBufferUsed;
  _ZqTPIOobj* pIoObj;

 private:
  // Stores the `width` low-order bytes of value, flushing first when they
  // do not fit.
  int writeLittleEndian(uint64_t value, int width);
};

// Writes count zero bytes (padding) through io: 0 or io's status.
int moxWriteZeros(CMoxOleIo* io, int64_t count);

#endif  // MOXOLEFIO_WRITER_OLEIO_H_
