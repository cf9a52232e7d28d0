// Documents of many shapes written and read back: by the strict test-side
// reader (which also audits every sector and walks every sibling tree from
// the file) and by the library's own reader.
#include <gtest/gtest.h>

#include <stdint.h>

#include <random>
#include <set>
#include <string>

#include "support/cfb_reader.h"
#include "support/stream_kit.h"
#include "support/write_kit.h"

namespace {

using cfb::Bytes;
using writekit::Part;
using writekit::Shape;

void roundTrip(const Shape& shape, size_t piece = 0) {
  const Bytes file = writekit::write(shape, piece);
  const auto want = writekit::expected(shape);
  cfb::ParsedFile parsed;
  std::string error;
  ASSERT_TRUE(cfb::parse(file, &parsed, &error)) << error;
  ASSERT_EQ(cfb::treeProblems(parsed), "");
  EXPECT_TRUE(cfb::contents(parsed) == want) << "the file holds another tree";
  EXPECT_EQ(parsed.dir.size() % 4, 0u);
  writekit::checkWithLibrary(file, want);
}

TEST(WriterRoundTrip, EmptyDocument) { roundTrip({}); }

TEST(WriterRoundTrip, StreamSizesAroundEveryBoundary) {
  Shape shape;
  uint32_t seed = 1;
  for (size_t size : {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 65536, 65537}) {
    shape.push_back({"s" + std::to_string(size), 2, streamkit::pattern(size, seed++)});
  }
  roundTrip(shape);
  roundTrip(shape, 100);
}

TEST(WriterRoundTrip, ThousandsOfSmallStreamsInTenStorages) {
  Shape shape;
  for (int s = 0; s < 10; ++s) shape.push_back({"Store" + std::to_string(s), 1, {}});
  for (int i = 0; i < 3000; ++i) {
    size_t size = static_cast<size_t>((i * 7919) % 700);
    shape.push_back({"Store" + std::to_string(i % 10) + "\\item" + std::to_string(i), 2,
                     streamkit::pattern(size, static_cast<uint32_t>(i))});
  }
  roundTrip(shape);
}

TEST(WriterRoundTrip, DeepStoragePath) {
  Shape shape;
  std::string path;
  for (int depth = 0; depth < 60; ++depth) {
    path += (depth ? "\\L" : "L") + std::to_string(depth);
    shape.push_back({path, 1, {}});
    if (depth % 10 == 9) {
      shape.push_back({path + "\\data", 2, streamkit::pattern(100 * depth, depth)});
    }
  }
  shape.push_back({path + "\\bottom", 2, streamkit::pattern(5000, 99)});
  roundTrip(shape);
}

// Names of every length and letter case, with underscores (which sort
// before letters once letters are folded to lower case).
TEST(WriterRoundTrip, ThreeHundredSiblingsInOneStorage) {
  Shape shape = {{"Many", 1, {}}};
  std::set<std::string> taken;
  std::mt19937 random(3);
  const std::string alphabet = "abcXYZ_019";
  while (shape.size() < 301) {
    std::string name;
    size_t length = 1 + random() % 12;
    for (size_t i = 0; i < length; ++i) name += alphabet[random() % alphabet.size()];
    std::string folded = name;
    for (char& c : folded) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!taken.insert(folded).second) continue;
    shape.push_back({"Many\\" + name, 2, streamkit::pattern(random() % 300, random())});
  }
  roundTrip(shape);
}

// Random trees: storages and streams anywhere, sizes drawn around the
// interesting boundaries, names unique per storage.
TEST(WriterRoundTrip, RandomShapes) {
  for (uint32_t seed = 1; seed <= 25; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<std::string> storages = {""};
    std::set<std::string> taken;
    Shape shape;
    const size_t sizes[] = {0, 1, 64, 100, 4095, 4096, 4097, 9000, 70000};
    const int count = 1 + static_cast<int>(random() % 120);
    for (int i = 0; i < count; ++i) {
      const std::string& parent = storages[random() % storages.size()];
      std::string name = std::string(1, "aBc_"[random() % 4]) + std::to_string(random() % 50);
      std::string path = parent.empty() ? name : parent + "\\" + name;
      std::string key = path;
      for (char& c : key) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      if (!taken.insert(key).second) continue;
      if (random() % 4 == 0) {
        shape.push_back({path, 1, {}});
        storages.push_back(path);
      } else {
        size_t size = sizes[random() % 9] + random() % 3;
        shape.push_back({path, 2, streamkit::pattern(size, random())});
      }
    }
    roundTrip(shape, 1 + random() % 2000);
  }
}

TEST(WriterRoundTrip, HundredMegabyteStream) {
  Shape shape = {{"Huge", 2, streamkit::pattern(100u << 20, 42)}, {"Tail", 2, {1, 2, 3}}};
  roundTrip(shape, 65536);
}

}  // namespace
