// moxole on the real files of the shared corpus, with olefile
// (python3-olefile) as an independent reader: what extract, ls and cat
// give must be what olefile reads, and what info reports must be what the
// corpus manifest recorded.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/corpus_files.h"
#include "support/manifest.h"
#include "support/moxole_cli.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ProgramResult;

const char kMirror[] = MOX_SOURCE_DIR "/tests/support/olefile_mirror.py";

class MoxoleCorpus : public ::testing::Test {
 protected:
  // Manifest records of the well-formed files that olefile opened without
  // noting any defect, by path.
  void SetUp() override {
    if (corpus::directory().empty()) GTEST_SKIP() << "no corpus folder";
    python_ = moxtest::olefilePython();
    if (python_.empty()) GTEST_SKIP() << "python3-olefile is not installed";
    for (const manifest::File& f : manifest::load(corpus::directory())) {
      if (!f.damaged() && f.opens && !f.flawed && f.hasHeader) files_[f.path] = f.headerFields;
    }
    ASSERT_GT(files_.size(), 20u) << "the manifest lists too few clean files";
  }

  std::string pathOf(const std::string& file) const { return corpus::directory() + "/" + file; }

  std::map<std::string, std::vector<std::string>> files_;
  std::string python_;
};

// Per clean file: info says what the manifest recorded; extract writes
// the tree olefile reads; ls -R lists its paths and tree one line an
// entry; cat finds streams by the paths olefile lists.
TEST_F(MoxoleCorpus, CommandsReadWhatOlefileAndTheManifestRead) {
  int compared = 0, wide = 0;
  for (const auto& [file, h] : files_) {
    SCOPED_TRACE(file);
    // header PATH SECTOR MINI MAJOR MINOR CUTOFF FAT DIFAT DIR_ENTRIES REACHABLE
    ProgramResult r = moxole({"info", pathOf(file)});
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, std::string> info;
    std::stringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
      const size_t colon = line.find(':'), value = line.find_first_not_of(' ', colon + 1);
      if (colon != std::string::npos && value != std::string::npos) info[line.substr(0, colon)] = line.substr(value);
    }
    const std::pair<const char*, int> fields[] = {
        {"sector size", 2}, {"mini sector size", 3}, {"mini stream cutoff", 6}, {"FAT sectors", 7}, {"DIFAT sectors", 8}};
    for (const auto& [key, field] : fields) EXPECT_EQ(info[key], h[field]) << key << " in\n" << r.out;
    EXPECT_EQ(info["version"].substr(0, info["version"].find(' ')), h[4]);
    EXPECT_EQ(info["directory sectors"], std::to_string(std::stoull(h[9]) * 128 / std::stoull(h[2])));
    uint64_t entries = std::stoull(info["storages"]) + std::stoull(info["streams"]) +
                       (info.count("other entries") ? std::stoull(info["other entries"]) : 0);
    EXPECT_EQ(entries + 1, std::stoull(h[10]));
    ProgramResult tree = moxole({"tree", pathOf(file)});
    EXPECT_EQ(std::count(tree.out.begin(), tree.out.end(), '\n'), static_cast<long>(entries + 1)) << tree.out;

    // Trees of thousands of entries spend seconds creating files on both
    // sides and teach nothing new.
    if (entries > 2000) continue;
    // olefile's view of the tree; status 3 when its names cannot be file
    // names (surrogates) or two of them clash.
    moxtest::ScratchDir scratch;
    const ProgramResult mirrored = moxtest::runProgram({python_, kMirror, pathOf(file), scratch.file("olefile")});
    if (mirrored.status == 3) continue;
    ASSERT_EQ(mirrored.status, 0) << mirrored.err;
    ++compared;
    r = moxole({"extract", pathOf(file), scratch.file("moxole")});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::map<std::string, std::string> theirs = moxtest::snapshotTree(scratch.file("olefile"));
    EXPECT_TRUE(moxtest::snapshotTree(scratch.file("moxole")) == theirs) << "extract differs from olefile";

    std::set<std::string> listed;
    std::stringstream lsLines(moxole({"ls", "-l", "-R", pathOf(file)}).out);
    for (std::string line; std::getline(lsLines, line);) listed.insert(line.substr(23));  // after type and size

    // cat shares extract's reading; what it adds is finding the paths
    // olefile lists: every stream on a wide path (names past 8 bits come
    // out as UTF-8, empty ones as \x00), a few others.
    int catted = 0;
    for (const auto& [path, bytes] : theirs) {
      EXPECT_EQ(listed.erase(path), 1u) << path << " is not listed by ls";
      const bool widePath = path.find("\\x00") != std::string::npos ||
                            std::any_of(path.begin(), path.end(), [](char c) { return static_cast<unsigned char>(c) >= 0xC4; });
      if (bytes == "<dir>" || (!widePath && (bytes.empty() || ++catted > 3))) continue;
      wide += widePath;
      r = moxole({"cat", pathOf(file), path});
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(r.out == bytes) << path << " differs";
    }
    EXPECT_TRUE(listed.empty()) << *listed.begin() << " is listed by ls, not by olefile";
  }
  EXPECT_GT(compared, 20);
  EXPECT_GE(wide, 2);
}

// Every "_N" storage with a metafile, as olefile reads it: the metafile
// past its header, then with -p the picture record.
TEST_F(MoxoleCorpus, EmbeddedObjectsMatchOlefile) {
  const std::string file = "poi/20-Force-on-a-current-S00.doc";
  if (!files_.count(file)) GTEST_SKIP() << file << " is not in the corpus";
  moxtest::ScratchDir scratch;
  ProgramResult mirrored = moxtest::runProgram({python_, kMirror, pathOf(file), scratch.file("olefile")});
  ASSERT_EQ(mirrored.status, 0) << mirrored.err;
  ProgramResult list = moxole({"objects", pathOf(file)});
  ASSERT_EQ(list.status, 0) << list.err;
  const std::regex objectMeta("((?:.*/)?_([0-9]+))/\\\\x03META");
  int objects = 0;
  for (const auto& [path, meta] : moxtest::snapshotTree(scratch.file("olefile"))) {
    std::smatch match;
    if (!std::regex_match(path, match, objectMeta)) continue;
    const std::string storage = match[1], number = match[2];
    ++objects;
    EXPECT_NE(list.out.find(number + " "), std::string::npos) << list.out;
    const size_t skip = static_cast<unsigned char>(meta[0]) + 256 * static_cast<unsigned char>(meta[1]);
    const std::string wanted[] = {meta.substr(skip),
                                  moxtest::readFile(scratch.file("olefile/" + storage + "/\\x03PIC")).substr(0, 76)};
    for (const bool picture : {false, true}) {
      std::vector<std::string> args = {"object", pathOf(file), number, scratch.file("ours")};
      if (picture) args.insert(args.begin() + 1, "-p");
      ProgramResult r = moxole(args);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(moxtest::readFile(scratch.file("ours")) == wanted[picture]) << path << (picture ? " -p" : "");
    }
  }
  EXPECT_GT(objects, 0) << "olefile finds no objects in " << file;
}

}  // namespace
