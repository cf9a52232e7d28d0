// moxole on the real files of the shared corpus, with olefile
// (python3-olefile) as an independent reader: what extract, ls and cat
// give must be what olefile reads, and what info reports must be what the
// corpus manifest recorded.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
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
    std::map<std::string, std::string> ours = moxtest::snapshotTree(scratch.file("moxole"));
    std::map<std::string, std::string> theirs = moxtest::snapshotTree(scratch.file("olefile"));
    EXPECT_EQ(ours.size(), theirs.size());
    for (const auto& [path, bytes] : theirs) {
      EXPECT_TRUE(ours.count(path) && ours[path] == bytes) << path << " missing or different";
    }

    std::map<std::string, uint64_t> streams;  // olefile's listing: path -> size
    std::set<std::string> paths;
    std::stringstream mirroredLines(mirrored.out);
    bool wideNames = false;
    for (std::string line; std::getline(mirroredLines, line);) {
      std::vector<std::string> f = manifest::split(line, '\t');
      paths.insert(f.at(1));
      if (f[0] == "F") streams[f[1]] = std::stoull(f[2]);
      // Names past 8 bits come out as UTF-8; empty ones as \x00.
      wideNames |= std::any_of(f[1].begin(), f[1].end(), [](char c) { return static_cast<unsigned char>(c) >= 0xC4; }) ||
                   f[1].find("\\x00") != std::string::npos;
    }
    ProgramResult ls = moxole({"ls", "-l", "-R", pathOf(file)});
    std::set<std::string> listed;
    std::stringstream lsLines(ls.out);
    for (std::string line; std::getline(lsLines, line);) listed.insert(line.substr(23));  // after type and size
    EXPECT_TRUE(listed == paths) << ls.out << "olefile:\n" << mirrored.out;

    // cat shares extract's reading; what it adds is finding the paths
    // olefile lists: every stream where names are wide, a few elsewhere.
    wide += wideNames;
    int catted = 0;
    for (const auto& [path, size] : streams) {
      if (!wideNames && (size == 0 || ++catted > 3)) continue;
      r = moxole({"cat", pathOf(file), path});
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(r.out == moxtest::slurp(scratch.file("olefile/" + path))) << path << " differs";
    }
  }
  EXPECT_GT(compared, 20);
  EXPECT_GE(wide, 2);
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
  ProgramResult py = moxtest::runProgram({python_, "-c", script, pathOf(file), scratch.path()});
  ASSERT_EQ(py.status, 0) << py.err;
  ASSERT_FALSE(py.out.empty()) << "olefile finds no objects in " << file;

  ProgramResult list = moxole({"objects", pathOf(file)});
  ASSERT_EQ(list.status, 0) << list.err;
  std::stringstream objects(py.out);
  std::string number;
  uint64_t skip, size;
  while (objects >> number >> skip >> size) {
    EXPECT_NE(list.out.find(number + " "), std::string::npos) << list.out;
    ASSERT_GE(skip, 2u);
    // The metafile, then with -p the picture record.
    for (const std::string kind : {"wmf", "pic"}) {
      std::vector<std::string> args = {"object", pathOf(file), number, scratch.file("ours." + kind)};
      if (kind == "pic") args.insert(args.begin() + 1, "-p");
      ProgramResult r = moxole(args);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(moxtest::slurp(scratch.file("ours." + kind)) == moxtest::slurp(scratch.file("_" + number + "." + kind)))
          << kind << " of object " << number;
    }
  }
}

}  // namespace
