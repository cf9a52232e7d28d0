// The host kit's file-backed I/O object serves small reads from a window
// of the file held in memory.  Whatever the window holds, every read must
// give the file's bytes, a write through the object must be seen by the
// next read, and reopening starts from the file as it then is.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/native_kit.h"

namespace {

class FileIoWindow : public ::testing::Test {
 protected:
  void SetUp() override { store(moxtest::pattern(200000, 1)); }  // several windows, and a ragged end

  void store(const std::vector<uint8_t>& content) {
    bytes = content;
    ASSERT_TRUE(moxtest::writeBytes(path, bytes));
  }

  // Reads `count` bytes at `at` through `io` and compares with the file.
  void expectRead(moxhost::FileIo& io, int64_t at, int count) {
    std::vector<uint8_t> got(static_cast<size_t>(count) + 1, 0xEE);
    ASSERT_EQ(io.doSeek(at, 0), 1);
    const int expected = static_cast<int>(std::clamp<int64_t>(static_cast<int64_t>(bytes.size()) - at, 0, count));
    ASSERT_EQ(io.doRead(got.data(), count), expected) << "at " << at << " count " << count;
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + expected, bytes.begin() + std::min<int64_t>(at, bytes.size())))
        << "at " << at << " count " << count;
    EXPECT_EQ(got[static_cast<size_t>(expected)], 0xEE) << "wrote past what it returned";
  }

  moxtest::ScratchDir scratch;
  const std::string path = scratch.file("data");
  std::vector<uint8_t> bytes;
};

// Forward runs as a stream reader makes them, jumps back and forth as FAT
// and directory loads make them, reads straddling wherever a window may
// end, reads larger than a window, and reads running into the end.
TEST_F(FileIoWindow, EveryReadGivesTheFilesBytes) {
  moxhost::FileIo io(path, moxhost::FileIo::kRead);
  ASSERT_EQ(io.doOpen(), 1);
  for (int64_t at = 0; at < 70000; at += 64) expectRead(io, at, 64);
  for (int64_t at = 150000; at > 0; at -= 9000) expectRead(io, at, 512);
  for (int64_t at = 32700; at < 200000; at += 32768) expectRead(io, at, 100);
  expectRead(io, 1000, 100000);
  expectRead(io, 5, 3);  // after a large read, back inside the old window
  for (int64_t at : {199990, 200000, 250000, 0}) expectRead(io, at, 64);
  io.doClose();
  // Closing and opening again forgets the window, which now holds byte 0.
  store(moxtest::pattern(1000, 2));
  ASSERT_EQ(io.doOpen(), 1);
  expectRead(io, 0, 64);
  io.doClose();
}

TEST_F(FileIoWindow, AWriteThroughTheObjectIsSeenByTheNextRead) {
  moxhost::FileIo io(path, moxhost::FileIo::kReadWrite);
  ASSERT_EQ(io.doOpen(), 1);
  expectRead(io, 4096, 512);  // the window now holds these bytes
  const std::vector<uint8_t> fresh(300, 0x42);
  ASSERT_EQ(io.doSeek(4200, 0), 1);
  ASSERT_EQ(io.doWrite(fresh.data(), static_cast<int>(fresh.size())), 1);
  std::copy(fresh.begin(), fresh.end(), bytes.begin() + 4200);
  expectRead(io, 4096, 512);
  // Growing the file past its end is seen as well.
  ASSERT_EQ(io.doSeek(200000, 0), 1);
  ASSERT_EQ(io.doWrite(fresh.data(), 100), 1);
  bytes.insert(bytes.end(), fresh.begin(), fresh.begin() + 100);
  expectRead(io, 199950, 200);
  io.doClose();
}

}  // namespace
