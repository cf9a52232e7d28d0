// Stream lookup by name among 1000, 10000 and 100000 siblings.
//
// A lookup descends the storage's sibling tree, so its cost should follow
// the tree's depth, not the number of siblings; the note column gives the
// mean depth of the tree the writer made, which is the number of names a
// descent compares.  Each name is looked up once, in a shuffled order.
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/doc_shapes.h"
#include "bench/gsf_peer.h"
#include "bench/sections.h"
#include "interface/mox_file.h"

namespace bench {

namespace {

// libgsf's lookup is measured on a sample: enough for a stable figure.
constexpr size_t kGsfSample = 2000;

std::vector<std::string> shuffledNames(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back(siblingName(i));
  uint64_t state = 12345;
  for (size_t i = names.size(); i > 1; --i) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    std::swap(names[i - 1], names[(state >> 33) % i]);
  }
  return names;
}

// Mean depth (the root's child at depth 1) of the root's sibling tree.
double meanDepth(const _MoxOleFile* h) {
  std::vector<std::pair<int64_t, int>> pending = {{h->pDir[0].lChild, 1}};
  int64_t nodes = 0, depths = 0;
  while (!pending.empty()) {
    auto [entry, depth] = pending.back();
    pending.pop_back();
    if (entry < 0 || entry >= h->iDirCount || nodes > h->iDirCount) continue;
    ++nodes;
    depths += depth;
    pending.push_back({h->pDir[entry].lLeft, depth + 1});
    pending.push_back({h->pDir[entry].lRight, depth + 1});
  }
  return nodes > 0 ? static_cast<double>(depths) / static_cast<double>(nodes) : 0;
}

// Seconds per call of `lookup` over the first `count` of `names`;
// negative when one fails.
template <typename Lookup>
Work perLookup(const std::vector<std::string>& names, size_t count, Lookup lookup) {
  return [&names, count, lookup] {
    double start = now();
    for (size_t i = 0; i < count; ++i) {
      if (!lookup(names[i])) return -1.0;
    }
    return (now() - start) / static_cast<double>(count);
  };
}

double microseconds(double seconds) { return seconds * 1e6; }

void siblingsCase(const Options& options, Table* table, int count) {
  moxhost::MemoryIo io(siblingsDocument(count));
  MoxDoc doc(io.io());
  _MoxOleFile* h = doc.h();
  if (h == nullptr) {
    fprintf(stderr, "lookup: could not open the document of %d siblings\n", count);
    return;
  }
  const std::vector<std::string> names = shuffledNames(count);
  char depth[64];
  snprintf(depth, sizeof depth, "mean tree depth %.1f", meanDepth(h));

  Row descent("lookup", "descent only, " + std::to_string(count) + " siblings", "us", false);
  measureRow(&descent, options.runs,
             perLookup(names, names.size(),
                       [h](const std::string& name) {
                         int entry = iFindIStreamGivenIStorage(h, name.c_str(), 0);
                         return entry > 0 && entry < h->iDirCount;
                       }),
             Work(), Work(), microseconds);
  descent.note = depth;
  table->add(descent);

  Row open("lookup", "open by name, " + std::to_string(count) + " siblings", "us", false);
  gsf::Doc* peer = gsf::openMemory(io.bytes().data(), io.bytes().size());
  const size_t sample = std::min(names.size(), kGsfSample);
  measureRow(&open, options.runs,
             perLookup(names, names.size(),
                       [h](const std::string& name) { return bOLEopenStream(h, name.c_str()) == 1; }),
             peer != nullptr ? perLookup(names, sample,
                                         [peer](const std::string& name) {
                                           return gsf::openChild(peer, name);
                                         })
                             : Work(),
             Work(), microseconds);
  bOLEcloseStream(h, nullptr);
  gsf::close(peer);
  open.note = "libgsf: first " + std::to_string(sample) + " names";
  table->add(open);
}

}  // namespace

void lookupSection(const Options& options, Table* table) {
  for (int count : {1000, 10000, options.quick ? 20000 : 100000}) {
    siblingsCase(options, table, count);
  }
}

}  // namespace bench
