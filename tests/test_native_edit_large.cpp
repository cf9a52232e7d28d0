// Sizes that need the 64-bit fields and bounded memory: a version 4 file
// with a 5 GiB stream, and a 2 GiB stream written in 64 KiB pieces within
// 64 MiB of memory.  Labelled "large" (scripts/test.sh runs them apart);
// each is skipped with a message where the disk lacks room.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

#include "moxolefio/moxolefio.hpp"
#include "support/native_kit.h"

namespace {

using moxtest::pattern;

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

std::uint64_t freeBytes(const std::string& dir) {
  struct statvfs info;
  if (statvfs(dir.c_str(), &info) != 0) return 0;
  return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
}

// Marks at the start, across the 4 GiB line and at the end; zeros between,
// which the scratch file and the output keep as holes where the file
// system allows, so the test costs little disk and time.
TEST(LargeStreams, FiveGibibytesInVersion4) {
  moxtest::ScratchDir dir;
  if (freeBytes(dir.path()) < 12 * kGiB) GTEST_SKIP() << "needs 12 GiB free in " << dir.path() << " in case holes are not kept";
  const std::string path = dir.file("large.cfb");
  const std::uint64_t size = 5 * kGiB + 123;
  const std::vector<std::pair<std::uint64_t, std::vector<std::uint8_t>>> marks = {
      {0, pattern(100000, 1)}, {4 * kGiB - 5000, pattern(10000, 2)}, {size - 777, pattern(777, 3)}};
  {
    mox::CompoundFile f = mox::CompoundFile::create(path);
    mox::Stream s = f.create_stream("Big");
    for (const auto& [at, bytes] : marks) {
      s.seek(static_cast<std::int64_t>(at));
      s.write(bytes.data(), bytes.size());
    }
    f.create_stream("small").write("abc", 3);
    f.commit();
  }
  const mox::CompoundFile f = mox::CompoundFile::open(path);
  EXPECT_EQ(f.version(), 4);
  EXPECT_EQ(f.entry("Big")->size, size);
  EXPECT_TRUE(f.check().empty());
  mox::Stream s = f.open_stream("Big");
  std::vector<std::uint8_t> buffer(16 << 20);
  std::uint64_t at = 0, wrong = 0;
  for (std::size_t n; (n = s.read(buffer.data(), buffer.size())) > 0; at += n) {
    std::vector<std::uint8_t> want(n, 0);  // the marks' part of this piece over zeros
    for (const auto& [start, bytes] : marks) {
      const std::uint64_t from = std::max(start, at), to = std::min(start + bytes.size(), at + n);
      if (from < to) std::copy(bytes.begin() + (from - start), bytes.begin() + (to - start), want.begin() + (from - at));
    }
    wrong += !std::equal(want.begin(), want.end(), buffer.begin());
  }
  EXPECT_EQ(at, size);
  EXPECT_EQ(wrong, 0u) << "pieces of 16 MiB differ";
  EXPECT_EQ(f.open_stream("small").read_all(), (std::vector<std::uint8_t>{'a', 'b', 'c'}));
}

long residentKiB() {
  long pages = 0, resident = 0;
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  fclose(f);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// In a child, so that the peak resident size is this work's alone.
TEST(LargeStreams, TwoGibibytesInPiecesWithinSixtyFourMebibytes) {
  moxtest::ScratchDir dir;
  if (freeBytes(dir.path()) < 5 * kGiB) GTEST_SKIP() << "needs 5 GiB free in " << dir.path();
  const std::string path = dir.file("two.cfb");
  const long grown = moxtest::resultOfChild<long>([&] {
    const std::vector<std::uint8_t> piece = pattern(64 * 1024, 4);  // the caller's buffer
    const long start = residentKiB();
    try {
      mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{3});
      mox::Stream s = f.create_stream("Two");
      for (std::uint64_t done = 0; done < 2 * kGiB; done += piece.size()) s.write(piece.data(), piece.size());
      f.commit();
      struct rusage usage;
      getrusage(RUSAGE_SELF, &usage);
      return usage.ru_maxrss - start;
    } catch (...) {
      return -1L;
    }
  }, -1);
  ASSERT_GE(grown, 0) << "the child failed";
  EXPECT_LT(grown, 64 * 1024) << "KiB of peak resident memory beyond the start";
  RecordProperty("peak_growth_kib", std::to_string(grown));
  const mox::CompoundFile f = mox::CompoundFile::open(path);
  EXPECT_EQ(f.entry("Two")->size, 2 * kGiB);
  mox::Stream s = f.open_stream("Two");
  const std::vector<std::uint8_t> piece = pattern(64 * 1024, 4);
  std::vector<std::uint8_t> buffer(piece.size());
  std::uint64_t wrong = 0;
  for (std::uint64_t done = 0; done < 2 * kGiB; done += buffer.size()) {
    if (s.read(buffer.data(), buffer.size()) != buffer.size() || buffer != piece) ++wrong;
  }
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
