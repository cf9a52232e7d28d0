// Files opened with pread (OpenOptions::map = false) read exactly as
// mapped files do: the same tree, the same bytes in every stream, whole
// or in uneven pieces, and the same failures on damaged files.
#include <gtest/gtest.h>

#include <optional>

#include "moxolefio/moxolefio.hpp"
#include "support/manifest.h"

namespace {

const std::vector<manifest::File>& corpusFiles() {
  static const std::vector<manifest::File> files = manifest::load(MOX_CORPUS_DIR);
  return files;
}

// A stream's bytes in pieces of 1, 7, 4093 ... bytes, or the error code.
std::vector<std::uint8_t> readInPieces(const mox::CompoundFile& doc, const std::string& path, int* code) {
  std::vector<std::uint8_t> bytes;
  try {
    mox::Stream s = doc.open_stream(path);
    const std::size_t pieces[] = {1, 7, 4093, 65536, 1 << 20};
    // One buffer for the run: zeroing 1 MiB for each of 8000 streams was
    // most of the suite's time.
    static std::vector<std::uint8_t> buffer(1 << 20);
    for (std::size_t k = 0;; ++k) {
      const std::size_t n = s.read(buffer.data(), pieces[k % 5]);
      if (n == 0) break;
      bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
    }
    *code = 0;
  } catch (const mox::Error& e) {
    *code = static_cast<int>(e.code());
  }
  return bytes;
}

class NativePread : public ::testing::TestWithParam<std::size_t> {};

TEST_P(NativePread, ReadsWhatTheMappingReads) {
  const manifest::File& file = corpusFiles()[GetParam()];
  SCOPED_TRACE(file.path);
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + file.path;
  mox::OpenOptions unmapped;
  unmapped.map = false;
  std::optional<mox::CompoundFile> mapped, read;
  int mappedFailure = 0, readFailure = 0;
  try {
    mapped.emplace(mox::CompoundFile::open(full));
  } catch (const mox::Error& e) {
    mappedFailure = static_cast<int>(e.code());
  }
  try {
    read.emplace(mox::CompoundFile::open(full, unmapped));
  } catch (const mox::Error& e) {
    readFailure = static_cast<int>(e.code());
  }
  ASSERT_EQ(mappedFailure, readFailure);
  if (mappedFailure != 0) return;
  const std::vector<mox::Entry> a = mapped->walk();
  const std::vector<mox::Entry> b = read->walk();
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(a[i].path, b[i].path);
    EXPECT_EQ(a[i].size, b[i].size);
    if (!a[i].is_stream()) continue;
    int codeA = 0, codeB = 0;
    const auto bytesA = readInPieces(*mapped, a[i].path, &codeA);
    const auto bytesB = readInPieces(*read, b[i].path, &codeB);
    EXPECT_EQ(codeA, codeB) << a[i].path;
    EXPECT_TRUE(bytesA == bytesB) << a[i].path;
  }
  EXPECT_EQ(mapped->check().size(), read->check().size());
}

MOX_TEST_EACH_FILE(Corpus, NativePread, corpusFiles);

}  // namespace
