// Every way moxole can fail: the exit status and the one line on standard
// error, with nothing on standard output.
#include <algorithm>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/moxole_cli.h"
#include "support/sample_tree.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ProgramResult;

void expectFailure(const ProgramResult& r, int status, const std::string& err) {
  EXPECT_EQ(r.status, status) << r.err;
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.out, "");
}

const char* const kReadingCommands[] = {"info", "ls", "tree", "objects"};

TEST(MoxoleUsage, MistakesOnTheCommandLineExitWithOne) {
  ProgramResult r = moxole({});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("usage: moxole COMMAND"), std::string::npos);

  expectFailure(moxole({"frobnicate", "x"}), 1,
                "moxole: unknown command 'frobnicate'\nTry 'moxole --help'.\n");
  expectFailure(moxole({"cat", "only-a-file"}), 1,
                "moxole: cat: missing operand\nusage: moxole cat FILE PATH\n");
  expectFailure(moxole({"tree", "a", "b"}), 1,
                "moxole: tree: too many operands\nusage: moxole tree FILE\n");
  expectFailure(moxole({"ls", "-lx", "a"}), 1,
                "moxole: ls: unknown option '-lx'\n"
                "usage: moxole ls [-l] [-R] FILE [PATH]\n");
  expectFailure(moxole({"object", "a.doc", "12x", "out"}), 1,
                "moxole: object: N must be a decimal object number\n");
}

TEST(MoxoleUsage, HelpIsShownForTheProgramAndEveryCommand) {
  ProgramResult r = moxole({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const char* commands[] = {"info", "ls",   "tree",    "cat",
                            "extract", "pack", "objects", "object"};
  for (const char* command : commands) {
    EXPECT_NE(r.out.find(std::string("  moxole ") + command + " "),
              std::string::npos)
        << command;
    ProgramResult help = moxole({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: moxole ") + command + " ", 0),
              0u)
        << help.out;
    EXPECT_GT(help.out.size(), 60u) << "no description for " << command;
  }
  // Help needs no library: it works even when none can be loaded.
  moxtest::ProgramOptions noLibrary;
  noLibrary.setEnv["MOXOLE_LIBRARY"] = "/nonexistent/libmoxolefio.so";
  ProgramResult help = moxtest::runProgram({MOXOLE_PROGRAM, "cat", "-h"}, noLibrary);
  EXPECT_EQ(help.status, 0);
}

TEST(MoxoleLibrary, AnUnloadableLibraryIsNamedAndExitsWithFour) {
  moxtest::ScratchDir dir;
  ASSERT_TRUE(moxtest::spit(dir.file("text.so"), "not a shared object\n"));
  for (const std::string& library :
       {std::string("/nonexistent/libmoxolefio.so"), dir.file("text.so")}) {
    moxtest::ProgramOptions options;
    options.setEnv["MOXOLE_LIBRARY"] = library;
    ProgramResult r = moxtest::runProgram(
        {MOXOLE_PROGRAM, "info", MOX_SOURCE_DIR "/samples/sample.doc"}, options);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err.rfind("moxole: " + library + ": ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
  // The variable wins over the library beside the program.
  moxtest::ProgramOptions options;
  options.setEnv["MOXOLE_LIBRARY"] = MOX_LIBRARY_PATH;
  MOXOLE_SKIP_WITHOUT("iOLEGetStreamTree");
  EXPECT_EQ(moxtest::runProgram({MOXOLE_PROGRAM, "tree",
                                 MOX_SOURCE_DIR "/samples/sample.doc"},
                                options)
                .status,
            0);
}

class MoxoleBadInput : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return scratch_.file(name); }
  moxtest::ScratchDir scratch_;
};

TEST_F(MoxoleBadInput, MissingTextEmptyAndFolderInputsAreNamed) {
  ASSERT_TRUE(moxtest::spit(at("notes.txt"), "Dear diary, today I wrote a test.\n"));
  ASSERT_TRUE(moxtest::spit(at("empty"), ""));
  std::vector<std::string> commands(std::begin(kReadingCommands),
                                    std::end(kReadingCommands));
  for (const std::string& command : commands) {
    expectFailure(moxole({command, at("missing.doc")}), 3,
                  "moxole: " + at("missing.doc") + ": no such file or directory\n");
    expectFailure(moxole({command, at("notes.txt")}), 2,
                  "moxole: " + at("notes.txt") + ": not a compound file\n");
    expectFailure(moxole({command, at("empty")}), 2,
                  "moxole: " + at("empty") + ": not a compound file\n");
    expectFailure(moxole({command, scratch_.path()}), 2,
                  "moxole: " + scratch_.path() + ": is a directory\n");
  }
  expectFailure(moxole({"cat", at("missing.doc"), "WordDocument"}), 3,
                "moxole: " + at("missing.doc") + ": no such file or directory\n");
  expectFailure(moxole({"extract", at("notes.txt"), at("out")}), 2,
                "moxole: " + at("notes.txt") + ": not a compound file\n");
  expectFailure(moxole({"pack", at("missing"), at("out.doc")}), 3,
                "moxole: " + at("missing") + ": no such file or directory\n");
  expectFailure(moxole({"pack", at("notes.txt"), at("out.doc")}), 4,
                "moxole: " + at("notes.txt") + ": not a directory\n");
}

class MoxoleDocumentErrors : public MoxoleBadInput {
 protected:
  void SetUp() override {
    MOXOLE_SKIP_WITHOUT(MOXOLE_READER_FUNCTIONS);
    layout_ = builder().layout();
    write(at("doc"), layout_);
  }

  // A small tree: one storage, a mini stream and two regular streams,
  // laid out by the builder in this order, the mini stream last of all.
  static cfb::CfbBuilder builder() {
    cfb::CfbBuilder b;
    int storage = b.addStorage(0, "Storage");
    b.addStream(storage, "Inner", cfb::Bytes(100, 'i'));
    b.addStream(0, "Early", cfb::Bytes(5000, 'E'));
    b.addStream(0, "Large", cfb::Bytes(40 * 512, 'L'));
    return b;
  }
  static void write(const std::string& path, const cfb::CfbLayout& layout) {
    cfb::Bytes bytes = layout.serialize();
    ASSERT_TRUE(moxtest::spit(path, std::string(bytes.begin(), bytes.end())));
  }
  // The directory entry and first sector of the stream named `name`.
  uint32_t startOf(const std::string& name) const {
    for (const cfb::DirEntry& e : layout_.dir) {
      if (e.name == cfb::units(name)) return e.start;
    }
    return cfb::kEnd;
  }

  cfb::CfbLayout layout_;
};

TEST_F(MoxoleDocumentErrors, MissingEntriesExitWithThree) {
  std::string doc = at("doc");
  expectFailure(moxole({"cat", doc, "Nothing"}), 3,
                "moxole: " + doc + ": no entry Nothing\n");
  expectFailure(moxole({"cat", doc, "Storage/Large"}), 3,
                "moxole: " + doc + ": no entry Storage/Large\n");
  expectFailure(moxole({"cat", doc, "Large/Inner"}), 3,
                "moxole: " + doc + ": no entry Large/Inner\n");
  expectFailure(moxole({"cat", doc, "Storage"}), 3,
                "moxole: " + doc + ": Storage is a storage\n");
  expectFailure(moxole({"ls", doc, "Nope"}), 3,
                "moxole: " + doc + ": no entry Nope\n");
  expectFailure(moxole({"object", doc, "7", at("out")}), 3,
                "moxole: " + doc + ": no object 7\n");
}

TEST_F(MoxoleDocumentErrors, TruncatedDocumentsAreReportedAsDamaged) {
  // Cut inside the directory: the document cannot be loaded at all.
  cfb::CfbLayout cut = layout_;
  ASSERT_FALSE(cut.dirSectors.empty());
  cut.truncateTo = static_cast<int64_t>(cut.dirSectors[0] + 1) * 512 + 100;
  write(at("no-directory.doc"), cut);
  // Every reading command names the damage (whichever engine it reads with).
  const std::string prefix = "moxole: " + at("no-directory.doc") + ": damaged compound file: ";
  ProgramResult r;
  for (const char* command : kReadingCommands) {
    r = moxole({command, at("no-directory.doc")});
    EXPECT_EQ(r.status, 2) << command;
    EXPECT_EQ(r.err.rfind(prefix, 0), 0u) << command << ": " << r.err;
    EXPECT_GT(r.err.size(), prefix.size() + 8) << command << ": no reason given";
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }

  // Cut inside the large stream's last sectors, after every table: the
  // document opens, the stream comes out short.
  uint32_t tablesEnd = 0;
  for (uint32_t s : cut.dirSectors) tablesEnd = std::max(tablesEnd, s + 1);
  for (uint32_t s : cut.fatSectors) tablesEnd = std::max(tablesEnd, s + 1);
  for (uint32_t s : cut.miniFatSectors) tablesEnd = std::max(tablesEnd, s + 1);
  uint32_t last = startOf("Large");
  while (layout_.fat[last] != cfb::kEnd) last = layout_.fat[last];
  ASSERT_GT(last, tablesEnd + 1) << "the builder put a table after the stream";
  ASSERT_LT(startOf("Early"), startOf("Large"));
  cut = layout_;
  cut.truncateTo = static_cast<int64_t>(last + 1) * 512 + 10;  // 10 bytes in
  write(at("short.doc"), cut);
  ASSERT_EQ(moxole({"cat", at("short.doc"), "Early"}).out, std::string(5000, 'E'));
  r = moxole({"cat", at("short.doc"), "Large"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "moxole: " + at("short.doc") +
                       ": stream Large is cut short (19968 of 20480 bytes)\n");
  EXPECT_EQ(r.out.size(), 19968u) << "the bytes before the cut still come out";

  r = moxole({"extract", at("short.doc"), at("out")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "moxole: " + at("short.doc") +
                       ": stream Large is cut short (19968 of 20480 bytes)\n");
}

TEST_F(MoxoleDocumentErrors, UnwritableOutputsExitWithFour) {
  std::string doc = at("doc");
  ASSERT_TRUE(moxtest::spit(at("plain"), "x"));
  expectFailure(moxole({"extract", doc, at("plain/out")}), 4,
                "moxole: " + at("plain/out") + ": not a directory\n");
  expectFailure(moxole({"extract", doc, at("plain")}), 4,
                "moxole: " + at("plain") + ": exists and is not a directory\n");
  expectFailure(moxole({"extract", doc, at("a/b/c")}), 4,
                "moxole: " + at("a/b/c") + ": no such file or directory\n");

  moxtest::ProgramOptions full;
  full.stdoutPath = "/dev/full";
  ProgramResult r = moxole({"cat", doc, "Large"}, full);
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "moxole: standard output: no space left on device\n");
  r = moxole({"ls", "-l", doc}, full);
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "moxole: standard output: no space left on device\n");
}

}  // namespace
