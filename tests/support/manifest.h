// What an independent reader (olefile) saw in each corpus file, from the
// corpus's MANIFEST.tsv.
#ifndef MOXOLEFIO_TESTS_SUPPORT_MANIFEST_H_
#define MOXOLEFIO_TESTS_SUPPORT_MANIFEST_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace manifest {

struct Header {
  int64_t sectorSize = 0, miniSectorSize = 0, fatSectors = 0, difatSectors = 0;
  int64_t dirEntries = 0, reachable = 0;
};

struct Entry {
  std::string type;  // root, storage, stream or typeN
  int64_t size = 0;
  std::string sha;   // "-" unless a stream
  // Names from the root down, each as 8-bit bytes (the low byte of every
  // UTF-16 unit, as this library keeps them); empty for the root.
  std::vector<std::string> path;
  std::string note;  // "-" when olefile read a stream whole
  std::vector<std::u16string> names;  // the same names as whole UTF-16 units
};

struct File {
  std::string path;
  bool opens = false;
  bool flawed = false;  // olefile noted an issue
  bool hasHeader = false;
  Header header;
  std::vector<std::string> headerFields;  // the header line as it stands
  std::map<int, Entry> entries;  // by entry number
  bool damaged() const { return path.rfind("damaged/", 0) == 0; }
};

// The fields of one line.
std::vector<std::string> split(const std::string& line, char separator);

// Every file of the manifest in `corpusDir`; empty when it is missing.
std::vector<File> load(const std::string& corpusDir);

// A file's path as a test name: every character but letters and digits
// becomes '_'.
std::string testName(std::string path);

// One test of the TEST_P suite `suite` (its parameter an index into
// files(), a function returning files of the manifest) per file, named
// after the file.
#define MOX_TEST_EACH_FILE(prefix, suite, files)                                      \
  INSTANTIATE_TEST_SUITE_P(prefix, suite, ::testing::Range<std::size_t>(0, files().size()), \
                           [](const ::testing::TestParamInfo<std::size_t>& info) {  \
                             return manifest::testName(files()[info.param].path);   \
                           });                                                      \
  GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(suite)

}  // namespace manifest

#endif  // MOXOLEFIO_TESTS_SUPPORT_MANIFEST_H_
