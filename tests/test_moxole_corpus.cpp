// moxole on the real files of the shared corpus, with olefile
// (python3-olefile) as an independent reader: what extract and cat write
// must be what olefile reads, and what info reports must be what the
// corpus manifest recorded.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "support/corpus_files.h"
#include "support/manifest.h"
#include "support/sha256.h"
#include "support/moxole_cli.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ProgramResult;

const char kMirror[] = MOX_SOURCE_DIR "/tests/support/olefile_mirror.py";

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream in(line);
  std::string field;
  while (std::getline(in, field, '\t')) fields.push_back(field);
  return fields;
}

// Manifest records of the well-formed files that olefile opened without
// noting any defect, by path.
std::map<std::string, std::vector<std::string>> cleanHeaders() {
  std::ifstream manifest(corpus::directory() + "/MANIFEST.tsv");
  std::map<std::string, std::vector<std::string>> headers;
  std::set<std::string> opened, flawed;
  std::string line;
  while (std::getline(manifest, line)) {
    std::vector<std::string> f = splitTabs(line);
    if (f.size() < 2 || f[1].rfind("damaged/", 0) == 0) continue;
    if (f[0] == "file" && f.size() > 4 && f[4] == "yes") opened.insert(f[1]);
    if (f[0] == "issue" || f[0] == "again") flawed.insert(f[1]);
    if (f[0] == "header") headers[f[1]] = f;
  }
  for (auto it = headers.begin(); it != headers.end();) {
    bool keep = opened.count(it->first) && !flawed.count(it->first);
    it = keep ? std::next(it) : headers.erase(it);
  }
  return headers;
}

class MoxoleCorpus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (corpus::directory().empty()) GTEST_SKIP() << "no corpus folder";
    python_ = moxtest::olefilePython();
    if (python_.empty()) GTEST_SKIP() << "python3-olefile is not installed";
    MOXOLE_SKIP_WITHOUT(MOXOLE_READER_FUNCTIONS);
    files_ = cleanHeaders();
    ASSERT_GT(files_.size(), 20u) << "the manifest lists too few clean files";
  }

  std::string pathOf(const std::string& file) const {
    return corpus::directory() + "/" + file;
  }

  // olefile's view of `file` under `dir`; false when its names cannot be
  // file names (surrogates) or two of them clash.
  bool mirror(const std::string& file, const std::string& dir,
              std::string* listing) {
    ProgramResult r = moxtest::runProgram({python_, kMirror, pathOf(file), dir});
    if (r.status == 3) return false;
    EXPECT_EQ(r.status, 0) << file << ": " << r.err;
    *listing = r.out;
    return r.status == 0;
  }

  std::map<std::string, std::vector<std::string>> files_;
  std::string python_;
};

TEST_F(MoxoleCorpus, ExtractWritesWhatOlefileReads) {
  int compared = 0;
  for (const auto& [file, header] : files_) {
    // Trees of thousands of entries spend seconds creating files on both
    // sides and teach nothing new; cat and info still read them.
    if (std::stoull(header[10]) > 2000) continue;
    moxtest::ScratchDir scratch;
    std::string listing;
    if (!mirror(file, scratch.file("olefile"), &listing)) continue;
    ProgramResult r = moxole({"extract", pathOf(file), scratch.file("moxole")});
    EXPECT_EQ(r.status, 0) << file << ": " << r.err;
    std::map<std::string, std::string> ours = moxtest::snapshotTree(scratch.file("moxole"));
    std::map<std::string, std::string> theirs = moxtest::snapshotTree(scratch.file("olefile"));
    EXPECT_EQ(ours.size(), theirs.size()) << file;
    for (const auto& [path, bytes] : theirs) {
      auto it = ours.find(path);
      if (it == ours.end()) {
        ADD_FAILURE() << file << ": no " << path;
      } else if (it->second != bytes) {
        ADD_FAILURE() << file << ": " << path << " differs (" << it->second.size()
                      << " bytes, olefile " << bytes.size() << ")";
      }
    }
    ++compared;
  }
  EXPECT_GT(compared, 20);
}

TEST_F(MoxoleCorpus, CatOfMiniAndRegularStreamsMatchesOlefile) {
  int mini = 0, regular = 0;
  for (const auto& [file, header] : files_) {
    if (mini >= 20 && regular >= 20) break;
    moxtest::ScratchDir scratch;
    std::string listing;
    if (!mirror(file, scratch.path(), &listing)) continue;
    uint64_t cutoff = std::stoull(header[6]);
    int miniHere = 0, regularHere = 0;
    std::stringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
      std::vector<std::string> f = splitTabs(line);
      if (f.size() != 3 || f[0] != "F") continue;
      uint64_t size = std::stoull(f[2]);
      int& count = size < cutoff ? miniHere : regularHere;
      if (size == 0 || count >= 3) continue;
      ++count;
      ProgramResult r = moxole({"cat", pathOf(file), f[1]});
      EXPECT_EQ(r.status, 0) << file << ": " << r.err;
      EXPECT_TRUE(r.out == moxtest::slurp(scratch.file(f[1])))
          << file << ": " << f[1] << " differs";
    }
    mini += miniHere;
    regular += regularHere;
  }
  EXPECT_GE(mini, 20);
  EXPECT_GE(regular, 20);
}

// Names past 8 bits and empty names: every entry listed as olefile names
// it, and every stream read as the manifest has it.
TEST_F(MoxoleCorpus, WideAndEmptyNamesAreListedAndRead) {
  int files = 0;
  for (const manifest::File& f : manifest::load(corpus::directory())) {
    std::multiset<std::string> expectedSha, sha;
    bool wide = false;
    for (const auto& [sid, e] : f.entries) {
      for (const std::u16string& name : e.names) {
        wide |= name.empty() || std::any_of(name.begin(), name.end(), [](char16_t u) { return u > 0xFF; });
      }
      if (e.type == "stream") expectedSha.insert(e.sha);
    }
    if (!wide || f.damaged() || !f.opens) continue;
    ++files;
    SCOPED_TRACE(f.path);
    moxtest::ScratchDir scratch;
    std::string listing;
    ASSERT_TRUE(mirror(f.path, scratch.path(), &listing));
    std::set<std::string> theirs, ours;
    std::stringstream lines(listing);
    for (std::string line; std::getline(lines, line);) theirs.insert(splitTabs(line).at(1));
    ProgramResult ls = moxole({"ls", "-l", "-R", pathOf(f.path)});
    std::stringstream listed(ls.out);
    for (std::string line; std::getline(listed, line);) {
      const std::string path = line.substr(23);  // after the type and the size
      ours.insert(path);
      if (line.rfind("stream", 0) != 0) continue;
      ProgramResult r = moxole({"cat", pathOf(f.path), path});
      EXPECT_EQ(r.status, 0) << path << ": " << r.err;
      sha.insert(sha256Hex(r.out.data(), r.out.size()));
    }
    EXPECT_TRUE(ours == theirs) << ls.out << "olefile:\n" << listing;
    EXPECT_TRUE(sha == expectedSha);
    ProgramResult tree = moxole({"tree", pathOf(f.path)});
    EXPECT_EQ(std::count(tree.out.begin(), tree.out.end(), '\n'), static_cast<long>(f.entries.size())) << tree.out;
  }
  EXPECT_GE(files, 2);
}

TEST_F(MoxoleCorpus, InfoMatchesTheManifest) {
  for (const auto& [file, h] : files_) {
    // header PATH SECTOR MINI MAJOR MINOR CUTOFF FAT DIFAT DIR_ENTRIES REACHABLE
    ProgramResult r = moxole({"info", pathOf(file)});
    ASSERT_EQ(r.status, 0) << file << ": " << r.err;
    std::map<std::string, std::string> info;
    std::stringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
      size_t colon = line.find(':');
      size_t value = line.find_first_not_of(' ', colon + 1);
      if (colon != std::string::npos && value != std::string::npos) {
        info[line.substr(0, colon)] = line.substr(value);
      }
    }
    SCOPED_TRACE(file + "\n" + r.out);
    uint64_t sector = std::stoull(h[2]);
    EXPECT_EQ(info["sector size"], h[2]);
    EXPECT_EQ(info["mini sector size"], h[3]);
    EXPECT_EQ(info["version"].substr(0, info["version"].find(' ')), h[4]);
    EXPECT_EQ(info["mini stream cutoff"], h[6]);
    EXPECT_EQ(info["FAT sectors"], h[7]);
    EXPECT_EQ(info["DIFAT sectors"], h[8]);
    EXPECT_EQ(info["directory sectors"],
              std::to_string(std::stoull(h[9]) * 128 / sector));
    uint64_t entries = std::stoull(info["storages"]) + std::stoull(info["streams"]) +
                       (info.count("other entries") ? std::stoull(info["other entries"]) : 0);
    EXPECT_EQ(entries + 1, std::stoull(h[10]));
  }
}

TEST_F(MoxoleCorpus, EmbeddedObjectsMatchOlefile) {
  const std::string file = "poi/20-Force-on-a-current-S00.doc";
  if (!files_.count(file)) GTEST_SKIP() << file << " is not in the corpus";
  // Every "_N" storage with a metafile: N, then the metafile past its
  // header, then the picture record.
  const char* script =
      "import olefile, sys, re\n"
      "ole = olefile.OleFileIO(sys.argv[1])\n"
      "for e in ole.listdir(streams=True):\n"
      "    if len(e) >= 2 and re.fullmatch(r'_[0-9]+', e[-2]) and e[-1] == '\\x03META':\n"
      "        meta = ole.openstream(e).read()\n"
      "        skip = meta[0] + 256 * meta[1]\n"
      "        pic = ole.openstream(e[:-1] + ['\\x03PIC']).read()[:76]\n"
      "        sys.stdout.buffer.write(b'%s %d %d\\n' % (e[-2][1:].encode(), skip, len(meta)))\n"
      "        open(sys.argv[2] + '/' + e[-2] + '.wmf', 'wb').write(meta[skip:])\n"
      "        open(sys.argv[2] + '/' + e[-2] + '.pic', 'wb').write(pic)\n";
  moxtest::ScratchDir scratch;
  ProgramResult py = moxtest::runProgram({python_, "-c", script, pathOf(file),
                                          scratch.path()});
  ASSERT_EQ(py.status, 0) << py.err;
  ASSERT_FALSE(py.out.empty()) << "olefile finds no objects in " << file;

  ProgramResult list = moxole({"objects", pathOf(file)});
  ASSERT_EQ(list.status, 0) << list.err;
  MOXOLE_SKIP_WITHOUT("bOLEgetObject", "bOLEopenStream");
  std::stringstream objects(py.out);
  std::string number;
  uint64_t skip, size;
  while (objects >> number >> skip >> size) {
    EXPECT_NE(list.out.find(number + " "), std::string::npos) << list.out;
    ASSERT_GE(skip, 2u);
    ProgramResult r = moxole({"object", pathOf(file), number, scratch.file("ours.wmf")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(moxtest::slurp(scratch.file("ours.wmf")) ==
                moxtest::slurp(scratch.file("_" + number + ".wmf")))
        << "object " << number;
    r = moxole({"object", "-p", pathOf(file), number, scratch.file("ours.pic")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(moxtest::slurp(scratch.file("ours.pic")) ==
                moxtest::slurp(scratch.file("_" + number + ".pic")))
        << "picture of object " << number;
  }
}

}  // namespace
