// moxole's reading commands as processes, on a document made by the test
// builder from the shared sample tree: what they print and write is
// checked against the tree that went in.
#include <gtest/gtest.h>

#include "support/moxole_cli.h"
#include "support/sample_tree.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::slurp;
using moxtest::snapshotTree;

class MoxoleRead : public ::testing::Test {
 protected:
  void SetUp() override {
    MOXOLE_SKIP_WITHOUT(MOXOLE_READER_FUNCTIONS);
    cfb::Bytes bytes = moxtest::buildSampleDocument(tree_);
    ASSERT_TRUE(moxtest::spit(doc_, std::string(bytes.begin(), bytes.end())));
  }

  std::string at(const std::string& name) const { return scratch_.file(name); }
  const std::string& bytesOf(const std::string& name) const {
    for (const moxtest::SampleEntry& e : tree_) {
      if (e.name == name) return e.bytes;
    }
    static const std::string none = "(no such sample entry)";
    return none;
  }

  std::vector<moxtest::SampleEntry> tree_ = moxtest::sampleTree();
  moxtest::ScratchDir scratch_;
  std::string doc_ = scratch_.file("sample.doc");
};

TEST_F(MoxoleRead, ExtractWritesTheWholeTreeWithEscapedNames) {
  moxtest::ProgramResult r = moxole({"extract", doc_, at("out")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "") << "no progress line when stderr is not a terminal";
  EXPECT_TRUE(snapshotTree(at("out")) == moxtest::sampleSnapshot(tree_));
  // Nothing escaped the target: its parent holds only what we put there.
  std::map<std::string, std::string> around = snapshotTree(scratch_.path());
  for (const auto& [path, bytes] : around) {
    EXPECT_TRUE(path == "sample.doc" || path.rfind("out", 0) == 0) << path;
  }
}

TEST_F(MoxoleRead, ProgressIsDrawnOnATerminalAndWipedAtTheEnd) {
  // script(1) gives the program a terminal and copies what it draws.
  std::string command = std::string(MOXOLE_PROGRAM) + " extract " + doc_ + " " +
                        at("out");
  moxtest::ProgramOptions options;
  options.unsetEnv.push_back("MOXOLE_LIBRARY");
  moxtest::ProgramResult r =
      moxtest::runProgram({"script", "-qec", command, "/dev/null"}, options);
  if (r.status == 127 || r.err.find("script") != std::string::npos) {
    GTEST_SKIP() << "script(1) cannot run here: " << r.err;
  }
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\rmoxole: extract: "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" entries, "), std::string::npos) << r.out;
  // The last thing drawn wipes the line.
  EXPECT_EQ(r.out.substr(r.out.size() - 4), "\r\033[K") << r.out;
  EXPECT_TRUE(snapshotTree(at("out")) == moxtest::sampleSnapshot(tree_));
}

TEST_F(MoxoleRead, ExtractIntoAFolderThatIsNotEmptyIsRefused) {
  ASSERT_TRUE(moxtest::spit(at("WordDocument"), "mine"));
  moxtest::ProgramResult r = moxole({"extract", doc_, scratch_.path()});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "moxole: " + scratch_.path() + ": directory is not empty\n");
  EXPECT_EQ(slurp(at("WordDocument")), "mine");
}

TEST_F(MoxoleRead, CatFindsMiniAndRegularStreamsByEscapedPaths) {
  struct Case {
    const char* path;
    const char* name;
  } cases[] = {
      {"WordDocument", "WordDocument"},
      {"/Big", "Big"},
      {"Mini4095", "Mini4095"},
      {"Regular4096", "Regular4096"},
      {"\\x05SummaryInformation", "\x05SummaryInformation"},
      {"ObjectPool//_1/\\x03META", "\x03META"},
      {"A/B/C/deep", "deep"},
      {"A/a\\x2fb", "a/b"},
      {"A/\\x2e", "."},
      {"\\x2e.", ".."},
      {"A/caf\\xe9", "caf\xe9"},
      {"A/caf\\xE9", "caf\xe9"},
      {"\\x01CompObj", "\x01" "CompObj"},
      // A name that differs only in letter case, when it is the only one.
      {"worddocument", "WordDocument"},
  };
  for (const Case& c : cases) {
    moxtest::ProgramResult r = moxole({"cat", doc_, c.path});
    EXPECT_EQ(r.status, 0) << c.path << ": " << r.err;
    EXPECT_TRUE(r.out == bytesOf(c.name)) << c.path;
  }
}

TEST_F(MoxoleRead, ListingsShowTypesSizesAndEscapedNames) {
  moxtest::ProgramResult ls = moxole({"ls", "-l", doc_});
  ASSERT_EQ(ls.status, 0) << ls.err;
  EXPECT_EQ(ls.out,
            "stream              0  \\x01CompObj\n"
            "stream            300  \\x05SummaryInformation\n"
            "stream              7  \\x2e.\n"
            "storage             -  A\n"
            "stream        5000000  Big\n"
            "stream           4095  Mini4095\n"
            "storage             -  ObjectPool\n"
            "stream           4096  Regular4096\n"
            "stream           6000  WordDocument\n");

  // Sorted by the names' bytes: '.' (0x2e) before 'B' before 'a'.
  ls = moxole({"ls", "-R", doc_, "A"});
  EXPECT_EQ(ls.out, "\\x2e\nB\nB/C\nB/C/deep\na\\x2fb\ncaf\xc3\xa9\n");
  ls = moxole({"ls", "-l", doc_, "ObjectPool/_1/\\x03META"});
  EXPECT_EQ(ls.out, "stream            700  \\x03META\n");

  moxtest::ProgramResult tree = moxole({"tree", doc_});
  ASSERT_EQ(tree.status, 0) << tree.err;
  EXPECT_EQ(tree.out.rfind("Root Entry/\n|-- \\x01CompObj  (0 bytes)\n", 0), 0u)
      << tree.out;
  EXPECT_NE(tree.out.find("|-- A/\n|   |-- \\x2e  (3 bytes)\n|   |-- B/\n"
                          "|   |   `-- C/\n|   |       `-- deep  (10 bytes)\n"),
            std::string::npos)
      << tree.out;
  EXPECT_NE(tree.out.find("|   |-- Empty/\n|   `-- _1/\n"), std::string::npos) << tree.out;
  EXPECT_EQ(tree.out.size() - tree.out.rfind("`-- WordDocument  (6000 bytes)\n"),
            31u)
      << "WordDocument is not the last line";
}

TEST_F(MoxoleRead, InfoCountsEntriesAndBytes) {
  size_t storages = 0, streams = 0, bytes = 0;
  for (const moxtest::SampleEntry& e : tree_) {
    if (e.storage) {
      ++storages;
    } else {
      ++streams;
      bytes += e.bytes.size();
    }
  }
  moxtest::ProgramResult info = moxole({"info", doc_});
  ASSERT_EQ(info.status, 0) << info.err;
  auto line = [](const char* key, size_t value) {
    std::string text = std::string(key) + ":";
    return text + std::string(21 - text.size(), ' ') + std::to_string(value) +
           "\n";
  };
  EXPECT_NE(info.out.find(line("storages", storages)), std::string::npos)
      << info.out;
  EXPECT_NE(info.out.find(line("streams", streams)), std::string::npos);
  EXPECT_NE(info.out.find(line("stream bytes", bytes)), std::string::npos);
  EXPECT_NE(info.out.find(line("sector size", 512)), std::string::npos);
  EXPECT_NE(info.out.find(line("mini sector size", 64)), std::string::npos);
  EXPECT_NE(info.out.find(line("mini stream cutoff", 4096)), std::string::npos);
  EXPECT_NE(info.out.find(line("DIFAT sectors", 0)), std::string::npos);
}

TEST_F(MoxoleRead, ObjectsAreListedAndTheirMetafilesExtracted) {
  moxtest::ProgramResult list = moxole({"objects", doc_});
  ASSERT_EQ(list.status, 0) << list.err;
  EXPECT_EQ(list.out, "1          ObjectPool/_1  \\x02OlePres000 0, \\x03META 700\n");

  MOXOLE_SKIP_WITHOUT("bOLEgetObject", "bOLEopenStream");
  moxtest::ProgramResult r = moxole({"object", doc_, "1", at("one.wmf")});
  ASSERT_EQ(r.status, 0) << r.err;
  // The metafile is what follows the 8-byte header the stream starts with.
  EXPECT_TRUE(slurp(at("one.wmf")) == bytesOf("\x03META").substr(8));

  r = moxole({"object", doc_, "2", at("two.wmf")});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "moxole: " + doc_ + ": no object 2\n");
  r = moxole({"object", "-p", doc_, "1", at("pic")});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "moxole: " + doc_ + ": object 1 has no \\x03PIC stream\n");
}

}  // namespace
