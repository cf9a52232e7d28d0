// Damaged variants of every real file: cut at sector boundaries, and
// hundreds of deterministic byte flips in the header, FAT, DIFAT and
// directory.  Each must open or fail cleanly, quickly, leaving nothing
// allocated.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "support/corpus_files.h"
#include "support/manifest.h"
#include "support/patched_io.h"
#include "support/document_walk.h"

namespace {

// Byte ranges of the structures a flip should hit: header, FAT sectors,
// DIFAT sectors and directory sectors, found by a plain reading of a
// little-endian file.
std::vector<std::pair<int64_t, int64_t>> structureRanges(const std::vector<uint8_t>& b) {
  std::vector<std::pair<int64_t, int64_t>> ranges = {{0, 512}};
  const unsigned shift = b.size() >= 512 ? b[0x1E] | (b[0x1F] << 8) : 0;
  if (shift < 7 || shift > 16) return ranges;
  const int64_t size = int64_t{1} << shift;
  const uint32_t per = static_cast<uint32_t>(size / 4);
  auto le32 = [&](int64_t at) {
    if (at + 4 > static_cast<int64_t>(b.size())) return 0xFFFFFFFFu;
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (uint32_t{b[at + 3]} << 24);
  };
  auto sector = [&](uint32_t s) {
    if (s < 0xFFFFFFF0u && (s + 1) * size < static_cast<int64_t>(b.size())) ranges.push_back({(s + 1) * size, size});
  };
  std::vector<uint32_t> fat;
  for (uint32_t i = 0; i < std::min<uint32_t>(le32(0x2C), 109); ++i) fat.push_back(le32(0x4C + 4 * i));
  for (uint32_t n = 0, difat = le32(0x44); n < le32(0x48) && n < 64 && difat < 0xFFFFFFF0u; ++n) {
    sector(difat);
    const int64_t at = (difat + 1) * size;
    for (uint32_t k = 0; k + 1 < per; ++k) fat.push_back(le32(at + 4 * k));
    difat = le32(at + size - 4);
  }
  for (uint32_t s : fat) sector(s);
  for (uint32_t n = 0, dir = le32(0x30); n < 4096 && dir < 0xFFFFFFF0u; ++n) {
    sector(dir);
    dir = dir / per < fat.size() ? le32((fat[dir / per] + 1) * size + 4 * (dir % per)) : 0xFFFFFFFEu;
  }
  return ranges;
}

// Opens one variant and, when `everything`, does everything a host can do
// with it; otherwise only builds the storage tree.  The work must stay in
// proportion to the file: a loop that never ends, or one that goes round a
// cycle millions of times, shows up as a flood of host calls.
void exercise(PatchedIo* io, bool everything) {
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io->io(), memory.memory());
  moxhost::PoolServices services;
  if (h != nullptr && everything) walkDocument(h, memory.memory());
  if (h != nullptr && !everything) (void)StreamTree(h, services);
  if (h != nullptr) iOLEclose(h);
  ASSERT_EQ(memory.liveBlocks(), 0);
  const int64_t calls = io->readCalls() + io->seekCalls();
  ASSERT_LT(calls, 64 * (io->size() / 64) + 200000) << "work out of proportion to the file";
}

class DamagedSweep : public ::testing::TestWithParam<std::string> {};

TEST_P(DamagedSweep, CutsAndFlipsOpenOrFailCleanly) {
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(moxhost::readFile(corpus::directory() + "/" + GetParam(), &bytes));
  const int64_t step = bytes.size() > 0x20 && bytes[0x1E] >= 7 && bytes[0x1E] <= 16 ? int64_t{1} << bytes[0x1E] : 512;
  // Cuts mostly break the loading steps; reading every stream of every
  // cut would only repeat the same reads.  Every boundary of the first 64
  // sectors (header, tables, directory of most files), then 64 spread over
  // the rest: a large file's 8000 cuts would each cost a full load.
  const int64_t sectors = static_cast<int64_t>(bytes.size()) / step + 1;
  const int64_t stride = std::max<int64_t>(1, (sectors - 64) / 64);
  for (int64_t s = 0, n = 0; s < sectors; s += s < 64 ? 1 : stride, ++n) {
    PatchedIo io(bytes, std::min<int64_t>(s * step, static_cast<int64_t>(bytes.size())));
    exercise(&io, n % 32 == 0);
    if (HasFatalFailure()) return;
  }
  auto ranges = structureRanges(bytes);
  std::mt19937 random(static_cast<uint32_t>(std::hash<std::string>()(GetParam())));
  // Every flip reads the whole document: fewer for the few large files.
  const int flips = bytes.size() > (1u << 20) ? 50 : 200;
  for (int n = 0; n < flips; ++n) {
    const auto& r = ranges[random() % ranges.size()];
    PatchedIo io(bytes, static_cast<int64_t>(bytes.size()));
    for (int k = 0; k <= static_cast<int>(random() % 3); ++k) {
      int64_t at = r.first + static_cast<int64_t>(random() % r.second);
      if (at < static_cast<int64_t>(bytes.size())) {
        io.replace(at, static_cast<uint8_t>(bytes[at] ^ (1 + random() % 255)));
      }
    }
    exercise(&io, true);
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, DamagedSweep, ::testing::ValuesIn(corpus::files()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return manifest::testName(info.param);
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(DamagedSweep);

}  // namespace
