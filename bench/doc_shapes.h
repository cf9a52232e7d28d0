// The documents the benchmarks work on, generated in the shapes real files
// have: a word-processing file of a handful of entries, folders of small
// messages by the thousand, one very large stream, a storage with a huge
// number of siblings, and a file past 2 GB whose FAT needs DIFAT sectors.
//
// Everything but the 2 GB file is written by the library's own writer, so
// sibling trees are the red-black trees real writers produce.  The 2 GB
// file is laid out by the test-side builder and kept as runs of bytes with
// zeros between them, so it never needs 2 GB of memory.
#ifndef MOXOLEFIO_BENCH_DOC_SHAPES_H_
#define MOXOLEFIO_BENCH_DOC_SHAPES_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

// Bytes that differ from position to position and from seed to seed.
void fillPattern(uint8_t* out, size_t size, uint32_t seed);

// About `entries` directory entries: a word-processing shape for small
// counts, otherwise folders of 99 small messages each.
Bytes entriesDocument(int entries);

// One regular stream "Big" of `size` bytes beside two small streams.
Bytes bigStreamDocument(int64_t size);

// `folders` storages "F0000".. of `perFolder` mini streams "M00".. each,
// of sizes from 1 to 4095 bytes.
struct MiniDocument {
  Bytes bytes;
  int folders = 0;
  int perFolder = 0;
  std::vector<int> sizes;  // folder-major
  int64_t totalBytes = 0;
};
MiniDocument miniStreamsDocument(int folders, int perFolder);
std::string folderName(int folder);
std::string memberName(int member);

// `count` small streams directly under the root, named by siblingName.
Bytes siblingsDocument(int count);
std::string siblingName(int index);

// A document of about `bytes` bytes (below 2^31 + a few MB): one stream
// "Big" filling almost all of it, one small stream "Small".  Its bytes are
// runs at file offsets; everything between them reads as zeros.
struct SparseDocument {
  std::map<int64_t, Bytes> runs;
  int64_t size = 0;
  int64_t fatSectors = 0;
  int64_t difatSectors = 0;
};
SparseDocument difatDocument(int64_t bytes);

// Writes the runs into a sparse file of the document's size.
bool writeSparseFile(const std::string& path, const SparseDocument& doc);

}  // namespace bench

#endif  // MOXOLEFIO_BENCH_DOC_SHAPES_H_
