// The least a host's memory-backed I/O object can do: a position over
// bytes, nothing counted or recorded.
//
// The host kit's MemoryIo carries what tests need (call counts, recording,
// injected failures), and every call pays for it.  The reader makes one
// host seek and one host read per 64-byte piece of a mini stream, so those
// costs show in its figures; reading through this object instead shows
// what is left: the library's own cost plus two indirect calls.
#ifndef MOXOLEFIO_BENCH_BARE_IO_H_
#define MOXOLEFIO_BENCH_BARE_IO_H_

#include <stdint.h>
#include <string.h>

#include "moxolefio.h"

namespace bench {

class BareMemoryIo {
 public:
  BareMemoryIo(const uint8_t* data, int64_t size) : data_(data), size_(size) {
    memset(&io_, 0, sizeof io_);
    io_.pPrivate = this;
    io_.open = [](_ZqTPIOobj*) { return 1; };
    io_.read = read;
    io_.seek = seek;
    io_.tell = [](_ZqTPIOobj* io) { return self(io)->position_; };
    io_.close = [](_ZqTPIOobj*) { return 1; };
    io_.error = [](_ZqTPIOobj*) { return 0; };
  }
  BareMemoryIo(const BareMemoryIo&) = delete;
  BareMemoryIo& operator=(const BareMemoryIo&) = delete;
  _ZqTPIOobj* io() { return &io_; }

 private:
  static BareMemoryIo* self(_ZqTPIOobj* io) { return static_cast<BareMemoryIo*>(io->pPrivate); }
  static int read(_ZqTPIOobj* io, void* buffer, int count) {
    BareMemoryIo* s = self(io);
    const int64_t left = s->size_ - s->position_;
    const int n = count < left ? count : static_cast<int>(left < 0 ? 0 : left);
    memcpy(buffer, s->data_ + s->position_, static_cast<size_t>(n));
    s->position_ += n;
    return n;
  }
  static int seek(_ZqTPIOobj* io, int64_t offset, int whence) {
    BareMemoryIo* s = self(io);
    int64_t target = whence == 0 ? offset : whence == 1 ? s->position_ + offset : s->size_ + offset;
    if (whence < 0 || whence > 2 || target < 0) return 0;
    s->position_ = target;
    return 1;
  }

  _ZqTPIOobj io_;
  const uint8_t* data_;
  int64_t size_;
  int64_t position_ = 0;
};

}  // namespace bench

#endif  // MOXOLEFIO_BENCH_BARE_IO_H_
