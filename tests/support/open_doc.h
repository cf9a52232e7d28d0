// A document opened from bytes in memory.  The destructor ends whatever
// the test left open (stream, stream object, handle) and checks that
// nothing of the memory interface is left.
#ifndef MOXOLEFIO_TESTS_SUPPORT_OPEN_DOC_H_
#define MOXOLEFIO_TESTS_SUPPORT_OPEN_DOC_H_

#include <gtest/gtest.h>

#include "host/moxhost.h"
#include "interface/mox_file.h"

class OpenDoc {
 public:
  explicit OpenDoc(std::vector<uint8_t> bytes) : io_(std::move(bytes)) {
    h_ = hOLEopen(io_.io(), memory_.memory());
  }
  ~OpenDoc() { EXPECT_TRUE(closeCleanly()) << "the document leaked"; }
  OpenDoc(const OpenDoc&) = delete;
  OpenDoc& operator=(const OpenDoc&) = delete;

  _MoxOleFile* handle() const { return h_; }
  _MoxOleFile* operator->() const { return h_; }
  bool ok() const { return h_ != nullptr; }
  moxhost::MemoryIo& io() { return io_; }
  moxhost::CountingMemory& memory() { return memory_; }

  // Ends the stream, the stream object and the handle; true when no block
  // of the memory interface is left.
  bool closeCleanly() {
    if (h_ != nullptr) {
      bOLEcloseStream(h_, nullptr);
      hSwitchFromOLE(h_);
      iOLEclose(h_);
      h_ = nullptr;
    }
    return memory_.liveBlocks() == 0;
  }

 private:
  moxhost::MemoryIo io_;
  moxhost::CountingMemory memory_;
  _MoxOleFile* h_ = nullptr;
};

#endif  // MOXOLEFIO_TESTS_SUPPORT_OPEN_DOC_H_
