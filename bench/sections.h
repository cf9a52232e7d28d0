// The benchmark sections and the pieces of moxolefio driving they share.
//
// Each section generates its documents, measures moxolefio and (when it is
// built in) libgsf on the same bytes in the same run, and adds rows to the
// table.
#ifndef MOXOLEFIO_BENCH_SECTIONS_H_
#define MOXOLEFIO_BENCH_SECTIONS_H_

#include <stdint.h>

#include <string>

#include "bench/bench_util.h"
#include "host/moxhost.h"
#include "moxolefio.h"

namespace bench {

struct Options {
  int runs = 5;          // repetitions per figure; the median is reported
  bool quick = false;    // smaller documents, for a smoke run
};

void openSection(const Options& options, Table* table);
void readSection(const Options& options, Table* table);
void lookupSection(const Options& options, Table* table);
void writeSection(const Options& options, Table* table);
// Writing and committing through the native interface (edit_bench.cpp).
void editSection(const Options& options, Table* table);
void nativeSection(const Options& options, Table* table);

// A document opened by moxolefio on one of the host kit's I/O objects,
// with a counting memory interface; closed (with its I/O object) when the
// object goes.  The host kit's test pattern in new memory is off, as it is
// in every benchmark: a real host's allocator hands memory out untouched.
class MoxDoc {
 public:
  explicit MoxDoc(_ZqTPIOobj* io) {
    memory_.setScribble(false);
    h_ = hOLEopen(io, memory_.memory());
  }
  ~MoxDoc() {
    if (h_ != nullptr) iOLEclose(h_);
  }
  MoxDoc(const MoxDoc&) = delete;
  MoxDoc& operator=(const MoxDoc&) = delete;
  _MoxOleFile* h() const { return h_; }

 private:
  moxhost::CountingMemory memory_;
  _MoxOleFile* h_ = nullptr;
};

// Reads the current stream to its end in requests of `request` bytes.
// Adds the bytes read to *bytes and a sample of them to *checksum (the
// same sample the libgsf peer takes).
void readToEnd(_MoxOleFile* h, uint8_t* buffer, uint32_t request, int64_t* bytes,
               uint64_t* checksum);

}  // namespace bench

#endif  // MOXOLEFIO_BENCH_SECTIONS_H_
