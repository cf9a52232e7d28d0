#include "support/stream_kit.h"

#include <assert.h>

namespace streamkit {

cfb::Bytes readToEnd(_MoxOleFile* h, uint32_t chunk) {
  cfb::Bytes out;
  cfb::Bytes buffer(chunk);
  for (uint32_t n; (n = iOLEread(h, buffer.data(), chunk)) != 0;) {
    out.insert(out.end(), buffer.begin(), buffer.begin() + n);
  }
  return out;
}

std::vector<uint32_t> chainOf(const cfb::CfbLayout& layout, int entry) {
  std::vector<uint32_t> chain;
  // Bounded by the table's size, so that tests may build cycles.
  for (uint32_t s = layout.dir[entry].start;
       s < layout.fat.size() && chain.size() < layout.fat.size(); s = layout.fat[s]) {
    chain.push_back(s);
  }
  return chain;
}

void relocateChain(cfb::CfbLayout* layout, int entry, const std::vector<uint32_t>& sectors) {
  std::vector<uint32_t> old = chainOf(*layout, entry);
  assert(old.size() == sectors.size());
  std::vector<cfb::Bytes> payloads;
  for (uint32_t s : old) {
    payloads.push_back(layout->sector(s));
    layout->sectors.erase(s);
    layout->fat[s] = cfb::kFree;
  }
  for (size_t i = 0; i < sectors.size(); ++i) {
    layout->sector(sectors[i]) = payloads[i];
    layout->fat[sectors[i]] = i + 1 < sectors.size() ? sectors[i + 1] : cfb::kEnd;
  }
  layout->dir[entry].start = sectors.empty() ? cfb::kEnd : sectors[0];
}

uint32_t firstPaddingSector(const cfb::CfbLayout& layout) { return layout.dirSectors.back() + 1; }

}  // namespace streamkit
