// What the writer target expects a document to hold: every entry created,
// in creation order (which is directory order), with its parent, name,
// type and bytes.  Entries made from raw paths have a known index, type
// and bytes but no known place or name.
#ifndef MOXOLEFIO_FUZZ_WRITE_MODEL_H_
#define MOXOLEFIO_FUZZ_WRITE_MODEL_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace moxfuzz {

// Names are kept by the writer up to this many bytes, and stored in the
// file up to the shorter length.
constexpr size_t kKeptName = 36;
constexpr size_t kStoredName = 31;
// Paths longer than this are cut by the writer before they are split.
constexpr size_t kLongestPath = 1023;

struct ModelEntry {
  int type = 0;          // 1 storage, 2 stream, 5 root
  bool placed = false;   // parent and name known
  int parent = -1;
  std::string name;      // as the writer keeps it
  std::vector<uint8_t> data;
  bool dataKnown = true; // false once a write failed part way
};

class WriteModel {
 public:
  WriteModel();

  std::vector<ModelEntry> entries;  // entry 0 is the root
  int current = -1;                 // the current writer stream, or -1
  bool allPlaced = true;

  int add(int type, bool placed, int parent, const std::string& name);

  // The path of entry k with every name cut to `cut` bytes, with a leading
  // backslash; false when some entry on the way is not placed.
  bool pathOf(int k, size_t cut, std::string* path) const;

  // True when a sibling under `parent` has the same name, compared the way
  // the writer compares names (ASCII letters without case).
  bool nameTaken(int parent, const std::string& name) const;

  // True when every name from the root down to k is distinct among its
  // siblings once cut to what the file stores: a path then leads to k in
  // a copy of the tree read back from the file.
  bool reachableOnDisk(int k) const;

  // True when every name fits the file and has no upper-case ASCII letter:
  // exact and case-blind comparisons then order and match names alike.
  bool plainNames() const;
};

// ASCII letters folded to lower case, bytes otherwise as they are.
bool sameNameIgnoringCase(const std::string& a, const std::string& b);

}  // namespace moxfuzz

#endif  // MOXOLEFIO_FUZZ_WRITE_MODEL_H_
