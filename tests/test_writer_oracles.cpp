// Files this writer makes, read by three independent readers (olefile,
// libgsf's gsf, libolecf's olecfexport) used as black boxes: each must
// list the same storages and streams and extract the same bytes.  A file
// large enough to need DIFAT sectors is among them.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/program_run.h"
#include "support/sha256.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"
#include "support/write_kit.h"

namespace {

using cfb::Bytes;
using writekit::Shape;

struct Run {
  int status;  // the script's exit status; 2: the tool is missing
  std::string output;
};

Run listing(const std::string& python, const std::string& tool, const std::string& file,
            const std::string& scratch) {
  moxtest::ProgramResult result = moxtest::runProgram(
      {python, MOX_SOURCE_DIR "/tests/oracles/listing.py", tool, file, scratch});
  return {result.status, result.out};
}

enum class Kinds { kAll, kNotForEmptyItems, kNone };

// The listing a reader must produce, in the script's format.  Where the
// tool cannot tell a storage from a stream, the kind column is "-": for
// every item with olecf, for empty streams and childless storages with gsf.
std::string expectedListing(const Shape& shape, Kinds kinds) {
  std::set<std::string> parents;
  for (const writekit::Part& p : shape) {
    size_t cut = p.path.rfind('\\');
    if (cut != std::string::npos) parents.insert(p.path.substr(0, cut));
  }
  std::vector<std::string> lines;
  for (const writekit::Part& p : shape) {
    std::string path = p.path;
    std::replace(path.begin(), path.end(), '\\', '/');
    std::string kind = p.type == 1 ? "d" : "f";
    const bool empty = p.type == 1 ? parents.count(p.path) == 0 : p.data.empty();
    if (kinds == Kinds::kNone || (kinds == Kinds::kNotForEmptyItems && empty)) kind = "-";
    lines.push_back(kind + " " + std::to_string(p.data.size()) + " " +
                    sha256Hex(p.data.data(), p.data.size()) + " " + path);
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

void checkWithOracles(const Shape& shape) {
  const std::string python = moxtest::olefilePython();
  if (python.empty()) GTEST_SKIP() << "no Python with olefile";
  const Bytes file = writekit::write(shape);
  moxtest::ScratchDir scratch;
  const std::string path = scratch.file("written.cfb");
  ASSERT_TRUE(moxtest::spit(path, std::string(file.begin(), file.end())));
  int skipped = 0;
  const struct {
    const char* tool;
    Kinds kinds;
  } readers[] = {{"olefile", Kinds::kAll}, {"gsf", Kinds::kNotForEmptyItems}, {"olecf", Kinds::kNone}};
  for (const auto& reader : readers) {
    SCOPED_TRACE(reader.tool);
    Run run = listing(python, reader.tool, path, scratch.path());
    if (run.status == 2) {
      ++skipped;
      continue;
    }
    ASSERT_EQ(run.status, 0) << "the reader refused the file";
    EXPECT_EQ(run.output, expectedListing(shape, reader.kinds));
  }
  if (skipped > 0) GTEST_SKIP() << skipped << " of the readers are not installed";
}

TEST(WriterOracles, MixedDocumentWithStoragesAndEveryKindOfStream) {
  Shape shape = {{"Doc", 1, {}},
                 {"Doc\\Body", 2, streamkit::pattern(9000, 1)},
                 {"Doc\\Notes", 2, streamkit::pattern(100, 2)},
                 {"Doc\\Inner", 1, {}},
                 {"Doc\\Inner\\Deep", 2, streamkit::pattern(4096, 3)},
                 {"Doc\\Inner\\Mini", 2, streamkit::pattern(4095, 4)},
                 {"Doc\\EmptyStorage", 1, {}},
                 {"Thumbnail", 2, streamkit::pattern(64, 5)},
                 {"Zero", 2, {}},
                 {"Name_with_thirty_one_characters", 2, streamkit::pattern(1, 6)}};
  checkWithOracles(shape);
}

// gsf extracts each stream with a process of its own, so a hundred will do.
TEST(WriterOracles, HundredSiblingsInOneStorage) {
  Shape shape = {{"Many", 1, {}}};
  for (int i = 0; i < 100; ++i) {
    shape.push_back({"Many\\n" + std::to_string(i * 37 % 1000), 2,
                     streamkit::pattern(static_cast<size_t>(i * 13 % 600), i)});
  }
  checkWithOracles(shape);
}

// One directory sector and 13843 stream sectors make T = 13844: one DIFAT
// sector and 110 FAT sectors.  A second stream and a few mini streams make
// it a little larger still.
TEST(WriterOracles, FileLargeEnoughForDifatSectors) {
  Shape shape = {{"Large", 2, streamkit::pattern(13843u * 512 + 100000, 7)},
                 {"Second", 2, streamkit::pattern(300000, 8)},
                 {"a", 2, streamkit::pattern(10, 9)},
                 {"b", 2, streamkit::pattern(3000, 10)}};
  const Bytes file = writekit::write(shape);
  ASSERT_GT(writekit::u32(file, 0x48), 0u) << "the file should need DIFAT sectors";
  checkWithOracles(shape);
}

}  // namespace
