// Fuzz target: the input is a compound file, opened permissively through
// the C++ interface from memory.  Its tree is walked, every entry found
// again by its path, every stream read whole and in pieces, and the file
// checked.  mox::Error is the only failure allowed; any other exception
// ends the run as a finding.
//
// The work is bounded by the input, and two bounds are asserted:
//  - the walk lists each directory entry at most once, and the entries
//    lie in distinct 128-byte slots of the file, so there are at most
//    size / 128 + 1 of them;
//  - a stream that reads at all reads at most the input's size: its chain
//    never visits a sector twice (a walk for a stream's sectors refuses
//    runs that overlap), and its mini sectors lie inside the mini stream,
//    a chain of the file itself.
// Distinct streams may still share sectors in a damaged file, so the sum
// over all streams is only bounded by entries times size.
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "moxolefio/moxolefio.hpp"

namespace {

using moxfuzz::require;

// Reads the stream whole, then a few pieces at other positions, which
// must agree with the whole.  Returns the bytes the whole read gave.
size_t readStream(mox::Stream& s) {
  const uint64_t size = s.size();
  const std::vector<uint8_t> all = s.read_all();
  require(all.size() == size, "read_all gave other than the stream's size");
  require(s.tell() == size, "read_all left the position elsewhere than the end");
  uint8_t piece[512];
  for (uint64_t at : {uint64_t{0}, size / 3, size > 7 ? size - 7 : 0, size + 10}) {
    require(s.seek(static_cast<int64_t>(at)) == at, "seek");
    const size_t n = s.read(piece, sizeof piece);
    const uint64_t left = at < size ? size - at : 0;
    require(n == (left < sizeof piece ? left : sizeof piece), "a piece read short of the end");
    require(n == 0 || memcmp(piece, all.data() + at, n) == 0, "a piece differs from the whole");
  }
  return all.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const mox::CompoundFile file = mox::CompoundFile::open_memory(data, size);
    const std::vector<mox::Entry> entries = file.walk();
    require(entries.size() <= size / 128 + 1, "the walk lists more entries than the file holds");
    require(!entries.empty() && entries[0].type == mox::EntryType::root, "the walk starts elsewhere");

    // A path cannot name an entry whose stored name holds '/', nor one of
    // two siblings of the same name (damaged files have them): a path
    // finds the first, and the second and everything below it have none.
    std::vector<std::string> unreachable;
    for (const mox::Entry& e : entries) {
      bool reachable = e.name.find('/') == std::string::npos;
      for (const std::string& bad : unreachable) {
        if (e.path.compare(0, bad.size() + 1, bad + "/") == 0) reachable = false;
      }
      const std::optional<mox::Entry> found = reachable ? file.entry(e.path) : std::nullopt;
      require(!reachable || found.has_value(), "a walked entry is not found by its path");
      require(!found || found->path == e.path, "a walked entry's path finds another path");
      if (!found || found->id != e.id) {
        unreachable.push_back(e.path);
        continue;
      }
      if (!e.is_stream()) continue;
      try {
        mox::Stream s = file.open_stream(e.path);
        require(readStream(s) <= size, "one stream read more bytes than the file holds");
      } catch (const mox::Error&) {
      }
    }
    (void)file.check();
  } catch (const mox::Error&) {
  }
  return 0;
}
