// moxole put, rm, mv and mkdir end to end: what they leave in the
// document (read back through the native interface), their exit statuses
// and messages, and that a failing command leaves the file byte for byte
// as it was.
#include <gtest/gtest.h>

#include "moxolefio/moxolefio.hpp"
#include "support/moxole_cli.h"
#include "support/program_run.h"
#include "support/vos_scratch.h"

namespace {

std::string text(const mox::CompoundFile& f, const std::string& path) {
  const std::vector<std::uint8_t> b = f.open_stream(path).read_all();
  return std::string(b.begin(), b.end());
}

TEST(MoxoleEdit, CommandsBuildAndChangeADocument) {
  moxtest::ScratchDir dir;
  const std::string doc = dir.file("doc.cfb"), src = dir.file("src.bin");
  std::string big(100000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  ASSERT_TRUE(moxtest::spit(src, big));
  EXPECT_EQ(moxole({"put", doc, "Dir/Big", src}).status, 0);
  EXPECT_EQ(moxtest::runProgram({"sh", "-c", "printf 'from stdin' | \"$0\" put \"$1\" 'Dir/\\x05Small'", MOXOLE_PROGRAM, doc}).status, 0);
  EXPECT_EQ(moxole({"mkdir", doc, "Other/Deep"}).status, 0);
  EXPECT_EQ(moxole({"mv", doc, "Dir/Big", "Other"}).status, 0);           // into a storage
  EXPECT_EQ(moxole({"mv", doc, "Dir/\\x05Small", "Other/Deep/tiny"}).status, 0);  // renamed and moved
  EXPECT_EQ(moxole({"put", doc, "Other/Big", "-"}).status, 0);            // replaced, from empty stdin
  EXPECT_EQ(moxole({"rm", doc, "Dir"}).status, 0);
  const mox::CompoundFile f = mox::CompoundFile::open(doc);
  EXPECT_FALSE(f.exists("Dir"));
  EXPECT_EQ(text(f, "Other/Deep/tiny"), "from stdin");
  EXPECT_EQ(f.entry("Other/Big")->size, 0u);
  EXPECT_TRUE(f.check().empty());
  EXPECT_EQ(moxtest::snapshotTree(dir.path()).size(), 2u) << "temporary files left behind";
}

TEST(MoxoleEdit, FailuresReportAndLeaveTheFileAlone) {
  moxtest::ScratchDir dir;
  const std::string doc = dir.file("doc.cfb"), plain = dir.file("plain.txt");
  ASSERT_EQ(moxole({"mkdir", doc, "S"}).status, 0);
  ASSERT_TRUE(moxtest::spit(plain, "not a compound file"));
  const std::string before = moxtest::slurp(doc);
  const struct {
    std::vector<std::string> args;
    int status;
    const char* says;
  } cases[] = {
      {{"rm", doc, "missing"}, 3, "missing"},
      {{"mkdir", doc, "S"}, 1, "exists"},
      {{"mv", doc, "S", "nowhere/x"}, 3, "nowhere"},
      {{"put", doc, "S"}, 1, "exists"},
      {{"put", doc, "x", dir.file("no-such-source")}, 3, "no-such-source"},
      {{"put", doc, "bad!name", plain}, 1, "bad!name"},
      {{"rm", plain, "x"}, 2, "not a compound file"},
      {{"rm", dir.file("absent.cfb"), "x"}, 3, "absent.cfb"},
      {{"rm", doc}, 1, "missing operand"},
      {{"rm", doc, "/"}, 1, "root"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    const moxtest::ProgramResult r = moxole(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(r.err.rfind("moxole: ", 0), 0u) << r.err;
    EXPECT_EQ(moxtest::slurp(doc), before);
  }
}

}  // namespace
