// The host kit's file-backed I/O object serves small reads from a window
// of the file held in memory.  Whatever the window holds, every read must
// give the file's bytes, a write through the object must be seen by the
// next read, and reopening starts from the file as it then is.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "support/native_kit.h"

namespace {

// Reads `count` bytes at `at` through `io` and compares with `file`.
void expectRead(moxhost::FileIo& io, const std::vector<uint8_t>& file, int64_t at, int count) {
  std::vector<uint8_t> got(static_cast<size_t>(count) + 1, 0xEE);
  ASSERT_EQ(io.doSeek(at, 0), 1);
  const int64_t size = static_cast<int64_t>(file.size());
  const int expected = static_cast<int>(std::clamp<int64_t>(size - at, 0, count));
  ASSERT_EQ(io.doRead(got.data(), count), expected) << "at " << at << " count " << count;
  EXPECT_TRUE(std::equal(got.begin(), got.begin() + expected, file.begin() + std::min(at, size)))
      << "at " << at << " count " << count;
  EXPECT_EQ(got[static_cast<size_t>(expected)], 0xEE) << "wrote past what it returned";
}

// Runs of small forward reads as a stream reader makes them, jumps as FAT
// and directory loads make them, steps back to just before the last read, reads larger than a
// window, reads running into or past the end, and now and then a write,
// sometimes growing the file, that the next reads must see.
TEST(FileIoWindow, EveryReadGivesTheFilesBytesWhateverTheWindowHolds) {
  moxtest::ScratchDir scratch;
  const std::string path = scratch.file("data");
  std::vector<uint8_t> file = moxtest::pattern(200000, 1);  // several windows, and a ragged end
  ASSERT_TRUE(moxtest::writeBytes(path, file));
  moxhost::FileIo io(path, moxhost::FileIo::kReadWrite);
  ASSERT_EQ(io.doOpen(), 1);
  std::mt19937 random(2024);
  int64_t at = 0, previous = 0;
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    const unsigned kind = random() % 16;
    if (kind == 0) at = random() % (file.size() + 1000);
    if (kind == 1) at = std::max<int64_t>(0, previous - 1 - random() % 2);  // just before a new window
    if (kind == 2) {
      const std::vector<uint8_t> fresh(random() % 300 + 1, static_cast<uint8_t>(step));
      ASSERT_EQ(io.doSeek(at, 0), 1);
      ASSERT_EQ(io.doWrite(fresh.data(), static_cast<int>(fresh.size())), 1);
      file.resize(std::max(file.size(), static_cast<size_t>(at) + fresh.size()));
      std::copy(fresh.begin(), fresh.end(), file.begin() + at);
      continue;
    }
    const int count = static_cast<int>(kind == 3 ? 32768 + random() % 70000 : random() % 600);
    expectRead(io, file, at, count);
    previous = at;
    at += count;
  }
  // Closing and opening again forgets the window, which now holds byte 0.
  expectRead(io, file, 0, 64);
  io.doClose();
  file = moxtest::pattern(1000, 2);
  ASSERT_TRUE(moxtest::writeBytes(path, file));
  ASSERT_EQ(io.doOpen(), 1);
  expectRead(io, file, 0, 64);
}

}  // namespace
