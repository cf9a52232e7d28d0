// A strict test-side reader of little-endian compound files, independent of
// the library, to check files the writer made.
//
// parse() refuses anything that is not exactly consistent: every sector of
// the file must belong to exactly one region or chain (DIFAT, FAT, mini FAT,
// directory, one stream, the mini stream), every chain must be as long as
// its size needs, FAT entries past the file must be free.  treeProblems()
// walks every storage's sibling tree from the parsed directory and checks
// name order and shape (not colour).  contents() turns the file into a map
// from backslash path to entry, for comparison with what a test wrote.
#ifndef MOXOLEFIO_TESTS_SUPPORT_CFB_READER_H_
#define MOXOLEFIO_TESTS_SUPPORT_CFB_READER_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "support/cfb_builder.h"

namespace cfb {

struct ParsedEntry {
  std::u16string name;
  uint16_t nameLength = 0;
  uint8_t type = 0;
  uint8_t colour = 0;
  uint32_t left = kNone, right = kNone, child = kNone;
  uint32_t start = kEnd;
  uint64_t size = 0;
};

struct ParsedFile {
  CfbHeader header;
  std::vector<uint32_t> fatSectors;    // FAT sector i is fatSectors[i]
  std::vector<uint32_t> difatSectors;  // in chain order
  std::vector<uint32_t> fat;
  std::vector<uint32_t> miniFat;
  std::vector<ParsedEntry> dir;
  Bytes miniStream;
  // Sectors after the header.
  uint32_t sectorCount = 0;
  // Raw bytes of every stream entry, by entry number (empty for others).
  std::vector<Bytes> streams;
};

// Parses and audits file; on failure returns false with a reason in error.
bool parse(const Bytes& file, ParsedFile* out, std::string* error);

// Sibling-tree problems, one per line; empty when every storage's tree is
// ordered (length first, then ASCII letters folded to lower case), every
// entry is reached exactly once, and streams have no children.
std::string treeProblems(const ParsedFile& file);

struct Item {
  uint8_t type = 0;  // 1 storage, 2 stream
  Bytes data;
  bool operator==(const Item& o) const { return type == o.type && data == o.data; }
};

// Every entry below the root by backslash path ("Dir\\Data"), names as
// 8-bit text; walks the child links, so treeProblems() should pass first.
std::map<std::string, Item> contents(const ParsedFile& file);

}  // namespace cfb

#endif  // MOXOLEFIO_TESTS_SUPPORT_CFB_READER_H_
