#include "support/sample_tree.h"

namespace moxtest {

std::string patternBytes(size_t size, unsigned seed) {
  const cfb::Bytes bytes = cfb::pattern(size, seed);
  return std::string(bytes.begin(), bytes.end());
}

std::vector<SampleEntry> sampleTree() {
  std::vector<SampleEntry> t;
  auto add = [&t](int parent, std::string name, std::string fileName, bool storage, std::string bytes) {
    t.push_back({parent, std::move(name), std::move(fileName), storage, std::move(bytes)});
    return static_cast<int>(t.size()) - 1;
  };
  add(-1, "WordDocument", "WordDocument", false, patternBytes(6000, 1));
  add(-1, "\x05SummaryInformation", "\\x05SummaryInformation", false, patternBytes(300, 2));
  add(-1, "\x01" "CompObj", "\\x01CompObj", false, "");
  add(-1, "Big", "Big", false, patternBytes(5 * 1000 * 1000, 3));
  add(-1, "Mini4095", "Mini4095", false, patternBytes(4095, 4));
  add(-1, "Regular4096", "Regular4096", false, patternBytes(4096, 5));
  add(-1, "..", "\\x2e.", false, "dot dot");
  int pool = add(-1, "ObjectPool", "ObjectPool", true, "");
  int object = add(pool, "_1", "_1", true, "");
  // An object's metafile stream starts with a header whose first two bytes
  // give its length.
  add(object, "\x03META", "\\x03META", false, std::string("\x08\x00" "header", 8) + patternBytes(692, 6));
  add(object, "\x02OlePres000", "\\x02OlePres000", false, "");
  add(pool, "Empty", "Empty", true, "");
  int a = add(-1, "A", "A", true, "");
  int b = add(a, "B", "B", true, "");
  int c = add(b, "C", "C", true, "");
  add(c, "deep", "deep", false, patternBytes(10, 7));
  add(a, "a/b", "a\\x2fb", false, "slash");
  add(a, ".", "\\x2e", false, "dot");
  add(a, "caf\xe9", "caf\xc3\xa9", false, "e acute");
  return t;
}

std::map<std::string, std::string> sampleSnapshot(const std::vector<SampleEntry>& tree) {
  std::map<std::string, std::string> snapshot;
  for (size_t i = 0; i < tree.size(); ++i) {
    std::string path = tree[i].fileName;
    for (int p = tree[i].parent; p >= 0; p = tree[p].parent) path = tree[p].fileName + "/" + path;
    snapshot[path] = tree[i].storage ? "<dir>" : tree[i].bytes;
  }
  return snapshot;
}

cfb::Bytes buildSampleDocument(const std::vector<SampleEntry>& tree) {
  cfb::CfbBuilder builder;
  std::vector<int> entryOf(tree.size());
  for (size_t i = 0; i < tree.size(); ++i) {
    int parent = tree[i].parent < 0 ? 0 : entryOf[tree[i].parent];
    const cfb::Bytes bytes(tree[i].bytes.begin(), tree[i].bytes.end());
    entryOf[i] = tree[i].storage ? builder.addStorage(parent, tree[i].name)
                                 : builder.addStream(parent, tree[i].name, bytes);
  }
  return builder.build();
}

}  // namespace moxtest
