// Fuzz target: the input is a compound file.  It is opened the two ways a
// host can open an existing document, and everything a host can do with it
// is done: the storage tree, object lists and types, every stream opened
// each way and read in uneven pieces, nested documents, clones, embedded
// objects extracted to a file, and streams opened by path through the
// writer's entry.  Whatever the bytes, nothing may crash, hang or leak: the
// target aborts when an allocation of the host's memory interface or a
// pool is still live after an input, or when the library did not close
// the I/O object it opened.
//
// The work is bounded by the input, within the bound BoundedWork in tests/test_loading.cpp
// holds crafted files to (a constant times the input's size plus a small
// constant): host calls (reads, seeks, allocations) of the plain open, and
// peak host memory of the open and the whole walk.  The walk's calls are
// not bounded so: the storage tree of a damaged directory may list one
// entry thousands of times (up to 16 nodes an entry and 7002 more, see
// reader/stream_tree.cpp), and the walk reads each listed stream each
// time; openmcdf's damaged _thumbs_bug_24.db makes 3.6 calls a byte so.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_dir.h"
#include "host/moxhost.h"
#include "moxolefio.h"
#include "support/document_walk.h"

namespace {

// What the host has to give: far more than any input of the target's
// size needs, far less than the machine has.  The loading rules let a
// damaged file make the loader read the same few sectors again and again
// up to a count in the millions (a DIFAT or mini FAT chain that runs in a
// circle is followed to the count the header gives), keeping memory for
// each; a host that says no at some point must then see a clean failure.
constexpr int64_t kHostMemory = 256 << 20;

// A sector may fan out into one FAT sector per link it holds, and the
// header lists 109 FAT sectors whatever the file's size.
constexpr int64_t kMemoryPerByte = 130;
constexpr int64_t kMemoryConstant = 128 << 10;
constexpr int64_t kCallsPerByte = 2;
constexpr int64_t kCallsConstant = 4096;

using moxfuzz::require;

void readToEnd(MoxOleInterface& api, _MoxOleFile* h) {
  unsigned char buffer[4096];
  for (int i = 0; i < 1 << 14; ++i) {
    if (api.iOLEread(h, buffer, sizeof buffer) == 0) break;
  }
}

// Every entry of the tree by its backslash path, opened for reading.
void openPaths(MoxOleInterface& api, _MoxOleFile* h, const _MoxOleTreeNode* node,
               const std::string& prefix, int depth) {
  if (depth > 16) return;
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    std::string path = prefix + "\\" + child->szName;
    if (api.iOLEopenStreamEx(h, path.c_str(), 0, 0) == 0) {
      readToEnd(api, h);
      api.bOLEcloseStream(h, nullptr);
    }
    openPaths(api, h, child, path, depth + 1);
  }
}

// The document opened through the writer's entry, which mirrors its tree
// and serves streams by path.  Skipped when this build has no writer.
void walkThroughWriter(const std::vector<uint8_t>& bytes) {
  MoxOleInterface api;
  GetOLEInterface(reinterpret_cast<void**>(&api));
  if (api.hOLEopenEx == nullptr || api.iOLEopenStreamEx == nullptr) return;
  moxhost::MemoryIo io(bytes);
  moxhost::PoolServices services;
  services.heap().setLimit(kHostMemory);
  _MoxOleFile* h = api.hOLEopenEx(io.io(), services.services(), 0);
  if (h != nullptr) {
    const StreamTree tree(h, services);
    if (tree.root() != nullptr) openPaths(api, h, tree.root(), "", 0);
    require(api.iOLEclose(h) == 1, "iOLEclose of a document opened through hOLEopenEx");
  }
  require(services.liveObjects() == 0, "hOLEopenEx left allocations or pools live");
  require(io.openCalls() == io.closeCalls(), "hOLEopenEx: I/O object opened and closed unevenly");
  require(io.writeCalls() == 0, "a document opened for reading was written to");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string objectFile = moxfuzz::scratchDir("read") + "/object";
  std::vector<uint8_t> bytes(data, data + size);
  moxhost::MemoryIo io(bytes);
  moxhost::CountingMemory memory;
  memory.setLimit(kHostMemory);
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  const auto length = static_cast<int64_t>(size);
  const int64_t calls = io.readCalls() + io.seekCalls() + memory.allocations();
  require(calls <= kCallsPerByte * length + kCallsConstant, "the open made host calls beyond the bound",
          std::to_string(calls) + " reads, seeks and allocations for " + std::to_string(size) + " bytes");
  if (h != nullptr) {
    walkDocument(h, memory.memory(), 0, objectFile.c_str());
    require(iOLEclose(h) == 1, "iOLEclose");
  }
  require(memory.liveBlocks() == 0, "the reader left allocations live");
  require(io.openCalls() == 1 && io.closeCalls() == 1, "hOLEopen: I/O object not closed once");
  require(memory.peakBytes() <= kMemoryPerByte * length + kMemoryConstant, "peak host memory beyond the bound",
          std::to_string(memory.peakBytes()) + " bytes for " + std::to_string(size) + " bytes");
  walkThroughWriter(bytes);
  return 0;
}
