// moxole pack and extract as processes: a directory tree survives
// extract(pack(tree)) byte for byte, twice, and olefile reads what pack
// wrote.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/moxole_cli.h"
#include "support/sample_tree.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::slurp;
using moxtest::snapshotTree;
using moxtest::spit;

class MoxolePackExtract : public ::testing::Test {
 protected:
  void SetUp() override {
    MOXOLE_SKIP_WITHOUT(MOXOLE_READER_FUNCTIONS, MOXOLE_WRITER_FUNCTIONS);
    ASSERT_EQ(mkdir(at("src").c_str(), 0777), 0);
    ASSERT_TRUE(moxtest::writeSampleTree(tree_, at("src")));
  }

  std::string at(const std::string& name) const { return scratch_.file(name); }

  std::vector<moxtest::SampleEntry> tree_ = moxtest::sampleTree();
  moxtest::ScratchDir scratch_;
};

TEST_F(MoxolePackExtract, TreesSurviveTwoRoundTripsExactly) {
  std::map<std::string, std::string> source = moxtest::sampleSnapshot(tree_);
  ASSERT_TRUE(snapshotTree(at("src")) == source);

  moxtest::ProgramResult packed = moxole({"pack", at("src"), at("one.doc")});
  ASSERT_EQ(packed.status, 0) << packed.err;
  // Not a terminal: no progress line may leak into logs.
  EXPECT_EQ(packed.err, "");
  moxtest::ProgramResult extracted =
      moxole({"extract", at("one.doc"), at("out1")});
  ASSERT_EQ(extracted.status, 0) << extracted.err;
  EXPECT_TRUE(snapshotTree(at("out1")) == source)
      << "first extraction differs from the packed tree";

  ASSERT_EQ(moxole({"pack", at("out1"), at("two.doc")}).status, 0);
  ASSERT_EQ(moxole({"extract", at("two.doc"), at("out2")}).status, 0);
  EXPECT_TRUE(snapshotTree(at("out2")) == source)
      << "second extraction differs from the packed tree";
  // Packing sorts names, so equal trees make equal files.
  EXPECT_TRUE(slurp(at("one.doc")) == slurp(at("two.doc")));
}

TEST_F(MoxolePackExtract, OlefileReadsWhatPackWrote) {
  std::string python_ = moxtest::olefilePython();
  if (python_.empty()) GTEST_SKIP() << "python3-olefile is not installed";
  ASSERT_EQ(moxole({"pack", at("src"), at("doc")}).status, 0);
  moxtest::ProgramResult mirror = moxtest::runProgram(
      {python_, MOX_SOURCE_DIR "/tests/support/olefile_mirror.py", at("doc"),
       at("mirror")});
  ASSERT_EQ(mirror.status, 0) << mirror.err;
  EXPECT_TRUE(snapshotTree(at("mirror")) == moxtest::sampleSnapshot(tree_))
      << mirror.out;
}

TEST_F(MoxolePackExtract, PackRefusesWhatTheFormatCannotHoldAndLeavesNoFile) {
  struct Case {
    const char* file;
    const char* reason;
  } cases[] = {
      {"ThisNameIsThirtyTwoCharactersLon", "longer than 31 characters"},
      {"a\\b", "holds a '\\'"},
      {"\\x00", "empty entry name"},
  };
  for (const Case& c : cases) {
    moxtest::ScratchDir dir;
    ASSERT_TRUE(spit(dir.file(c.file), "x"));
    moxtest::ProgramResult r = moxole({"pack", dir.path(), at("refused.doc")});
    EXPECT_EQ(r.status, 4) << c.file;
    // One line naming the offending file and the reason.
    EXPECT_EQ(r.err.rfind("moxole: " + dir.file(c.file) + ": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.reason), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_NE(access(at("refused.doc").c_str(), F_OK), 0) << "a file was left";
  }
  moxtest::ScratchDir dir;
  ASSERT_TRUE(spit(dir.file("Data"), "1"));
  ASSERT_TRUE(spit(dir.file("DATA"), "2"));
  moxtest::ProgramResult r = moxole({"pack", dir.path(), at("refused.doc")});
  EXPECT_EQ(r.status, 4);
  EXPECT_NE(r.err.find("only in letter case"), std::string::npos) << r.err;
}

TEST_F(MoxolePackExtract, PackReplacesAnExistingFileOnlyOnSuccess) {
  ASSERT_TRUE(spit(at("keep.doc"), "previous content"));
  std::string tooLong = at("src/ThisNameIsThirtyTwoCharactersLon");
  ASSERT_TRUE(spit(tooLong, ""));
  EXPECT_EQ(moxole({"pack", at("src"), at("keep.doc")}).status, 4);
  EXPECT_EQ(slurp(at("keep.doc")), "previous content");

  ASSERT_EQ(unlink(tooLong.c_str()), 0);
  EXPECT_EQ(moxole({"pack", at("src"), at("keep.doc")}).status, 0);
  EXPECT_EQ(moxole({"info", at("keep.doc")}).status, 0);
  // No temporary file is left beside it.
  for (const auto& [path, bytes] : snapshotTree(scratch_.path())) {
    EXPECT_EQ(path.find(".moxole-"), std::string::npos) << path;
  }
}

TEST_F(MoxolePackExtract, UnwritableOutputsFailWithTheirReason) {
  ASSERT_TRUE(spit(at("plain"), "a file, not a folder"));
  moxtest::ProgramResult r = moxole({"pack", at("src"), at("plain/out.doc")});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "moxole: " + at("plain/out.doc") + ": not a directory\n");
  r = moxole({"pack", at("src"), at("missing/out.doc")});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err,
            "moxole: " + at("missing/out.doc") + ": no such file or directory\n");
}

}  // namespace
