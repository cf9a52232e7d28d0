// Work in proportion to the file: crafted files whose chains run in
// circles or whose header claims the most every count field can hold, each
// opened and, when it opens, walked whole (tree, object lists, every stream
// read, a nested document, a clone) on a host whose allocator never
// refuses.  Peak host memory and host calls must stay within a constant
// times the file's size plus a small constant; both are printed.
#include <stdio.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "support/cfb_builder.h"
#include "support/document_walk.h"

namespace {

// A small document: a mini stream, a regular stream, a storage with a
// stream of its own.
cfb::CfbLayout document() {
  cfb::CfbBuilder b;
  b.addStream(0, "Small", cfb::Bytes(300, 1));
  b.addStream(0, "Large", cfb::Bytes(9000, 2));
  const int box = b.addStorage(0, "Box");
  b.addStream(box, "Inner", cfb::Bytes(700, 3));
  return b.layout();
}

struct Cost {
  bool opened = false;
  int64_t bytes = 0;
  int64_t peakMemory = 0;  // the document's allocator and the tree's pool
  int64_t hostCalls = 0;   // reads, seeks, allocations and pool requests
};

Cost measure(const cfb::Bytes& file) {
  Cost cost;
  cost.bytes = static_cast<int64_t>(file.size());
  moxhost::MemoryIo io(file);
  moxhost::CountingMemory memory;
  moxhost::PoolServices pools;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  cost.opened = h != nullptr;
  if (h != nullptr) {
    walkDocument(h, memory.memory());
    int status = 0;
    HostMemory* pool = pools.createPool(4096, 0, &status);
    _MoxOleTreeNode* root = nullptr;
    iOLEGetStreamTree(h, pool, &root);
    pools.destroyPool(pool);
    iOLEclose(h);
  }
  EXPECT_EQ(memory.liveBlocks(), 0);
  cost.peakMemory = memory.peakBytes() + pools.peakPoolBytes();
  cost.hostCalls = io.readCalls() + io.seekCalls() + memory.allocations() +
                   pools.poolAllocateCalls() + pools.poolArrayCalls();
  return cost;
}

// The bound: a sector of the file may fan out into one FAT sector per link
// it holds (a DIFAT sector lists 127), and the header lists 109 FAT sectors
// whatever the file's size.
constexpr int64_t kMemoryPerByte = 130;
constexpr int64_t kMemoryConstant = 128 << 10;
constexpr int64_t kCallsPerByte = 2;
constexpr int64_t kCallsConstant = 4096;

struct Case {
  const char* name;
  std::function<void(cfb::CfbLayout&)> craft;
  bool opens;
};

// A DIFAT sector appended to the file whose links all name `fat` and whose
// last slot leads to `next`; its sector number.
uint32_t appendDifatSector(cfb::CfbLayout& l, uint32_t fat, uint32_t next) {
  const uint32_t at = l.sectorCount();
  cfb::Bytes& s = l.sector(at);
  for (size_t k = 0; k + 4 <= s.size(); k += 4) {
    const uint32_t v = k + 4 == s.size() ? next : fat;
    for (int b = 0; b < 4; ++b) s[k + b] = static_cast<uint8_t>(v >> (8 * b));
  }
  return at;
}

const Case kCases[] = {
    {"DIFAT chain in a circle",
     [](cfb::CfbLayout& l) {
       l.deriveDifat = false;
       const uint32_t fat = l.fatSectors[0];
       for (uint32_t& slot : l.header.difat) slot = fat;
       const uint32_t first = appendDifatSector(l, fat, 0);
       const uint32_t second = appendDifatSector(l, fat, first);
       l.sector(first)[l.sectorSize() - 4] = static_cast<uint8_t>(second);
       l.header.fatSectors = 1u << 24;
       l.header.difatStart = first;
       l.header.difatSectors = 2;
     },
     false},
    {"mini FAT chain in a circle",
     [](cfb::CfbLayout& l) {
       l.fat[l.miniFatSectors[0]] = l.miniFatSectors[0];
       l.header.miniFatSectors = 2000000;
     },
     false},
    {"directory chain in a circle",
     [](cfb::CfbLayout& l) { l.fat[l.dirSectors.back()] = l.dirSectors[0]; }, false},
    {"FAT whose every entry points to itself",
     [](cfb::CfbLayout& l) {
       l.fat.resize(l.sectorSize() / 4 * l.fatSectors.size());
       for (uint32_t s = 0; s < l.fat.size(); ++s) l.fat[s] = s;
     },
     false},
    {"every entry points to itself but the directory's",
     [](cfb::CfbLayout& l) {
       l.fat.resize(l.sectorSize() / 4 * l.fatSectors.size());
       for (uint32_t s = 0; s < l.fat.size(); ++s) l.fat[s] = s;
       for (uint32_t s : l.fatSectors) l.fat[s] = cfb::kFatSect;
       l.fat[l.dirSectors.back()] = cfb::kEnd;
       for (size_t i = 0; i + 1 < l.dirSectors.size(); ++i) l.fat[l.dirSectors[i]] = l.dirSectors[i + 1];
       l.header.miniFatSectors = 0;
     },
     true},
};

TEST(BoundedWork, CircularChainsAndSelfLinksCostInProportionToTheFile) {
  for (const Case& c : kCases) {
    cfb::CfbLayout l = document();
    c.craft(l);
    const Cost cost = measure(l.serialize());
    printf("[ bounded  ] %-48s %6lld bytes, %-6s peak memory %8lld (%5.1fx), host calls %6lld\n",
           c.name, static_cast<long long>(cost.bytes), cost.opened ? "opens" : "fails",
           static_cast<long long>(cost.peakMemory), double(cost.peakMemory) / cost.bytes,
           static_cast<long long>(cost.hostCalls));
    EXPECT_EQ(cost.opened, c.opens) << c.name;
    EXPECT_LE(cost.peakMemory, kMemoryPerByte * cost.bytes + kMemoryConstant) << c.name;
    EXPECT_LE(cost.hostCalls, kCallsPerByte * cost.bytes + kCallsConstant) << c.name;
  }
}

// Each count and start of the header at 2^31 - 1, one at a time and all
// together: the file opens or fails, and either way within the bound.
TEST(BoundedWork, HeaderFieldsAtTheirLargestCostInProportionToTheFile) {
  using Field = uint32_t cfb::CfbHeader::*;
  const std::pair<const char*, Field> fields[] = {
      {"directory sectors", &cfb::CfbHeader::dirSectors},
      {"FAT sectors", &cfb::CfbHeader::fatSectors},
      {"directory start", &cfb::CfbHeader::dirStart},
      {"transaction", &cfb::CfbHeader::transaction},
      {"mini stream cutoff", &cfb::CfbHeader::miniCutoff},
      {"mini FAT start", &cfb::CfbHeader::miniFatStart},
      {"mini FAT sectors", &cfb::CfbHeader::miniFatSectors},
      {"DIFAT start", &cfb::CfbHeader::difatStart},
      {"DIFAT sectors", &cfb::CfbHeader::difatSectors},
  };
  // The header's FAT slots as the document has them, kept whatever the
  // DIFAT fields then say.
  auto fixed = [] {
    cfb::CfbLayout l = document();
    for (size_t i = 0; i < 109; ++i) {
      l.header.difat[i] = i < l.fatSectors.size() ? l.fatSectors[i] : cfb::kFree;
    }
    l.deriveDifat = false;
    return l;
  };
  cfb::CfbLayout all = fixed();
  for (const auto& field : fields) {
    cfb::CfbLayout l = fixed();
    l.header.*field.second = 0x7FFFFFFF;
    all.header.*field.second = 0x7FFFFFFF;
    for (int n = 0; n < 2; ++n) {
      const cfb::CfbLayout& file = n == 0 ? l : all;
      const Cost cost = measure(file.serialize());
      printf("[ bounded  ] %-26s %-6s %6lld bytes, %-6s peak memory %8lld, host calls %6lld\n",
             field.first, n == 0 ? "alone" : "so far", static_cast<long long>(cost.bytes),
             cost.opened ? "opens" : "fails", static_cast<long long>(cost.peakMemory),
             static_cast<long long>(cost.hostCalls));
      EXPECT_LE(cost.peakMemory, kMemoryPerByte * cost.bytes + kMemoryConstant) << field.first;
      EXPECT_LE(cost.hostCalls, kCallsPerByte * cost.bytes + kCallsConstant) << field.first;
    }
  }
}

}  // namespace
