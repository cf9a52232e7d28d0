// A document opened from bytes in memory, closed (and checked for leaks)
// when the test is done with it.
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
  ~OpenDoc() {
    if (h_ != nullptr) iOLEclose(h_);
    EXPECT_EQ(memory_.liveBlocks(), 0) << "the document leaked";
  }
  OpenDoc(const OpenDoc&) = delete;
  OpenDoc& operator=(const OpenDoc&) = delete;

  _MoxOleFile* handle() const { return h_; }
  _MoxOleFile* operator->() const { return h_; }
  bool ok() const { return h_ != nullptr; }
  moxhost::MemoryIo& io() { return io_; }
  moxhost::CountingMemory& memory() { return memory_; }

 private:
  moxhost::MemoryIo io_;
  moxhost::CountingMemory memory_;
  _MoxOleFile* h_ = nullptr;
};

#endif  // MOXOLEFIO_TESTS_SUPPORT_OPEN_DOC_H_
