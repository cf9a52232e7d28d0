// One tree of storages and streams that the moxole tests use both as a
// directory on disk (names escaped as moxole writes them) and as a compound
// file made by the test builder, so that reading and writing are checked
// against the same expectations.
//
// It holds nested storages, an empty storage, empty streams, streams on
// both sides of the mini stream cutoff, one of 5 MB, and names that only
// exist escaped (control bytes, '/', ".", "..") and one past ASCII,
// stored as a byte and written in UTF-8.
#ifndef MOXOLEFIO_TESTS_SUPPORT_SAMPLE_TREE_H_
#define MOXOLEFIO_TESTS_SUPPORT_SAMPLE_TREE_H_

#include <map>
#include <string>
#include <vector>

#include "support/cfb_builder.h"

namespace moxtest {

struct SampleEntry {
  int parent;            // index of the parent entry, -1 for the root
  std::string name;      // as stored in the document
  std::string fileName;  // as moxole writes it on disk
  bool storage;
  std::string bytes;     // stream content
};

std::vector<SampleEntry> sampleTree();

// The tree as snapshotTree() shows it on disk.
std::map<std::string, std::string> sampleSnapshot(const std::vector<SampleEntry>& tree);

// The tree as a compound file made by the test builder.
cfb::Bytes buildSampleDocument(const std::vector<SampleEntry>& tree);

// Deterministic bytes.
std::string patternBytes(size_t size, unsigned seed);

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_SAMPLE_TREE_H_
