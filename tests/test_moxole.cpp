// moxole as processes, on a document made by the test builder from the
// shared sample tree: what the reading commands print and write is the
// tree that went in; pack and extract round-trip it; put, rm, mv and mkdir
// edit a document; and every way the program fails gives its exit status
// and one line on standard error.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <iostream>

#include "support/moxole_cli.h"
#include "support/sample_tree.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ProgramResult;
using moxtest::readFile;
using moxtest::snapshotTree;
using moxtest::writeFile;

class Moxole : public ::testing::Test {
 protected:
  void SetUp() override {
    cfb::Bytes bytes = moxtest::buildSampleDocument(tree_);
    ASSERT_TRUE(writeFile(doc_, std::string(bytes.begin(), bytes.end())));
  }

  std::string at(const std::string& name) const { return scratch_.file(name); }

  std::vector<moxtest::SampleEntry> tree_ = moxtest::sampleTree();
  moxtest::ScratchDir scratch_;
  std::string doc_ = scratch_.file("sample.doc");
};

// --- Reading ---------------------------------------------------------------

TEST_F(Moxole, ExtractAndPackRoundTripTheTreeExactlyAndDrawProgressOnATerminal) {
  // The sample, extracted and packed, then extract(pack(tree)) the same.
  // An entry written outside the target would be missing from it.
  const std::string one = at("one.doc"), two = at("two.doc");
  ProgramResult r;
  for (const auto& [from, to, doc] : {std::array<std::string, 3>{doc_, at("out1"), one}, {one, at("out2"), two}}) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{"extract", from, to}, {"pack", to, doc}}) {
      r = moxole(args);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(r.err, "") << "no progress line when stderr is not a terminal";
    }
    EXPECT_TRUE(snapshotTree(to) == moxtest::sampleSnapshot(tree_)) << from;
  }
  // Packing sorts names, so equal trees make equal files.
  EXPECT_TRUE(readFile(one) == readFile(two));

  // On a terminal, given by script(1), progress is drawn and the last
  // thing drawn wipes the line.
  moxtest::ProgramOptions options;
  options.unsetEnv.push_back("MOXOLE_LIBRARY");
  r = moxtest::runProgram({"script", "-qec", std::string(MOXOLE_PROGRAM) + " extract " + doc_ + " " + at("out3"),
                           "/dev/null"}, options);
  if (r.status == 127 || r.err.find("script") != std::string::npos) {
    std::cerr << "script(1) cannot run here, progress not checked: " << r.err << "\n";
  } else {
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("\rmoxole: extract: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(" entries, "), std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 4), "\r\033[K") << r.out;
  }
}

// Every stream by the path extract gives it, and some by other spellings:
// slashes leading or doubled, an 8-bit escape as older listings showed
// it, and letter case when the name is the only one that matches.
// Storages are refused.
TEST_F(Moxole, CatFindsEveryStreamByItsEscapedPathAndOtherSpellings) {
  std::map<std::string, std::string> paths = moxtest::sampleSnapshot(tree_);
  const std::pair<const char*, const char*> spellings[] = {{"/Big", "Big"},
                                                           {"ObjectPool//_1/\\x03META", "ObjectPool/_1/\\x03META"},
                                                           {"A/caf\\xe9", "A/caf\xc3\xa9"},
                                                           {"worddocument", "WordDocument"}};
  for (const auto& [typed, path] : spellings) paths[typed] = paths.at(path);
  for (const auto& [path, bytes] : paths) {
    ProgramResult r = moxole({"cat", doc_, path});
    const bool storage = bytes == "<dir>";
    EXPECT_EQ(r.status, storage ? 3 : 0) << path << ": " << r.err;
    EXPECT_TRUE(storage ? r.out.empty() && r.err == "moxole: " + doc_ + ": " + path + " is a storage\n" : r.out == bytes)
        << path;
  }
}

TEST_F(Moxole, ListingsShowTypesSizesAndEscapedNames) {
  ProgramResult ls = moxole({"ls", "-l", doc_});
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
  EXPECT_EQ(moxole({"ls", "-R", doc_, "A"}).out, "\\x2e\nB\nB/C\nB/C/deep\na\\x2fb\ncaf\xc3\xa9\n");
  EXPECT_EQ(moxole({"ls", "-l", doc_, "ObjectPool/_1/\\x03META"}).out, "stream            700  \\x03META\n");

  ProgramResult tree = moxole({"tree", doc_});
  ASSERT_EQ(tree.status, 0) << tree.err;
  EXPECT_EQ(tree.out.rfind("Root Entry/\n|-- \\x01CompObj  (0 bytes)\n", 0), 0u) << tree.out;
  EXPECT_NE(tree.out.find("|-- A/\n|   |-- \\x2e  (3 bytes)\n|   |-- B/\n"
                          "|   |   `-- C/\n|   |       `-- deep  (10 bytes)\n"),
            std::string::npos)
      << tree.out;
  EXPECT_NE(tree.out.find("|   |-- Empty/\n|   `-- _1/\n"), std::string::npos) << tree.out;
  EXPECT_EQ(tree.out.size() - tree.out.rfind("`-- WordDocument  (6000 bytes)\n"), 31u)
      << "WordDocument is not the last line";

  // The sample tree's counts below the root; the layout's numbers are
  // compared with the corpus manifest in test_moxole_corpus.cpp.
  ProgramResult info = moxole({"info", doc_});
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("\nstorages:            6\nstreams:             13\nstream bytes:        5015223\n"),
            std::string::npos)
      << info.out;

  ProgramResult objects = moxole({"objects", doc_});
  ASSERT_EQ(objects.status, 0) << objects.err;
  EXPECT_EQ(objects.out, "1          ObjectPool/_1  \\x02OlePres000 0, \\x03META 700\n");
  ProgramResult r = moxole({"object", doc_, "1", at("one.wmf")});
  ASSERT_EQ(r.status, 0) << r.err;
  // The metafile is what follows the 8-byte header the stream starts with.
  EXPECT_TRUE(readFile(at("one.wmf")) == moxtest::sampleSnapshot(tree_).at("ObjectPool/_1/\\x03META").substr(8));
}

// --- Editing ---------------------------------------------------------------

TEST(MoxoleEdit, CommandsBuildAndChangeADocument) {
  moxtest::ScratchDir dir;
  const std::string doc = dir.file("doc.cfb"), src = dir.file("src.bin");
  ASSERT_TRUE(writeFile(src, moxtest::patternBytes(100000, 7)));
  EXPECT_EQ(moxole({"put", doc, "Dir/Big", src}).status, 0);
  EXPECT_EQ(moxtest::runProgram({"sh", "-c", "printf 'from stdin' | \"$0\" put \"$1\" 'Dir/\\x05Small'",
                                 MOXOLE_PROGRAM, doc}).status, 0);
  EXPECT_EQ(moxole({"mkdir", doc, "Other/Deep"}).status, 0);
  EXPECT_EQ(moxole({"mv", doc, "Dir/Big", "Other"}).status, 0);                   // into a storage
  EXPECT_EQ(moxole({"mv", doc, "Dir/\\x05Small", "Other/Deep/tiny"}).status, 0);  // renamed and moved
  EXPECT_EQ(moxole({"put", doc, "Other/Big", "-"}).status, 0);                    // replaced, from empty stdin
  EXPECT_EQ(moxole({"rm", doc, "Dir"}).status, 0);
  EXPECT_EQ(snapshotTree(dir.path()).size(), 2u) << "temporary files left behind";
  EXPECT_EQ(moxole({"check", doc}).out, "") << "the edited document has defects";
  ASSERT_EQ(moxole({"extract", doc, dir.file("out")}).status, 0);
  const std::map<std::string, std::string> edited = {
      {"Other", "<dir>"}, {"Other/Big", ""}, {"Other/Deep", "<dir>"}, {"Other/Deep/tiny", "from stdin"}};
  EXPECT_TRUE(snapshotTree(dir.file("out")) == edited);
}

// --- Failures --------------------------------------------------------------

TEST_F(Moxole, EveryFailureGivesItsStatusAndOneLineAndNothingElse) {
  const std::string doc = doc_, dir = scratch_.path();
  ASSERT_TRUE(writeFile(at("notes.txt"), "Dear diary, today I wrote a test.\n"));
  ASSERT_TRUE(writeFile(at("empty"), ""));
  ASSERT_TRUE(writeFile(at("plain"), "x"));
  ASSERT_EQ(mkdir(at("full").c_str(), 0777), 0);
  ASSERT_TRUE(writeFile(at("full/WordDocument"), "mine"));
  ASSERT_TRUE(writeFile(at("previous.doc"), "previous content"));
  // A mini stream and two regular streams, laid out by the builder in this
  // order, the mini stream last of all; cut inside the directory (nothing
  // can be loaded), and 10 bytes into the large stream's last sector,
  // after every table (the document opens, the stream comes out short).
  cfb::CfbBuilder b;
  b.addStream(b.addStorage(0, "Storage"), "Inner", cfb::Bytes(100, 'i'));
  b.addStream(0, "Early", cfb::Bytes(5000, 'E'));
  const int large = b.addStream(0, "Large", cfb::Bytes(40 * 512, 'L'));
  cfb::CfbLayout cut = b.layout();
  uint32_t last = cut.dir[large].start;
  while (cut.fat[last] != cfb::kEnd) last = cut.fat[last];
  const std::string noDirectory = at("no-directory.doc"), shortDoc = at("short.doc");
  for (const auto& [path, size] :
       {std::pair{noDirectory, (cut.dirSectors[0] + 1) * 512 + 100}, {shortDoc, (last + 1) * 512 + 10}}) {
    cut.truncateTo = size;
    const cfb::Bytes bytes = cut.serialize();
    ASSERT_TRUE(writeFile(path, std::string(bytes.begin(), bytes.end())));
  }
  const std::string damaged = "moxole: " + noDirectory + ": damaged compound file: ";
  moxtest::ScratchDir partial;  // what extract wrote before the cut stays there
  const std::string cutShort = "moxole: " + shortDoc + ": stream Large is cut short (19968 of 20480 bytes)\n";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  std::vector<Case> cases = {
      // Mistakes on the command line.
      {{"frobnicate", "x"}, 1, "moxole: unknown command 'frobnicate'\nTry 'moxole --help'.\n"},
      {{"cat", "only-a-file"}, 1, "moxole: cat: missing operand\nusage: moxole cat FILE PATH\n"},
      {{"tree", "a", "b"}, 1, "moxole: tree: too many operands\nusage: moxole tree FILE\n"},
      {{"ls", "-lx", "a"}, 1, "moxole: ls: unknown option '-lx'\nusage: moxole ls [-l] [-R] FILE [PATH]\n"},
      {{"object", "a.doc", "12x", "out"}, 1, "moxole: object: N must be a decimal object number\n"},
      // Inputs that are not documents.
      {{"extract", at("notes.txt"), at("out")}, 2, "moxole: " + at("notes.txt") + ": not a compound file\n"},
      {{"pack", at("missing"), at("out.doc")}, 3, "moxole: " + at("missing") + ": no such file or directory\n"},
      {{"pack", at("notes.txt"), at("out.doc")}, 4, "moxole: " + at("notes.txt") + ": not a directory\n"},
      // Entries and objects the document lacks.
      {{"cat", doc, "Nothing"}, 3, "moxole: " + doc + ": no entry Nothing\n"},
      {{"cat", doc, "A/Big"}, 3, "moxole: " + doc + ": no entry A/Big\n"},
      {{"cat", doc, "Big/deep"}, 3, "moxole: " + doc + ": no entry Big/deep\n"},
      {{"ls", doc, "Nope"}, 3, "moxole: " + doc + ": no entry Nope\n"},
      {{"object", doc, "2", at("two.wmf")}, 3, "moxole: " + doc + ": no object 2\n"},
      {{"object", "-p", doc, "1", at("pic")}, 3, "moxole: " + doc + ": object 1 has no \\x03PIC stream\n"},
      // Outputs that cannot be written.
      {{"extract", doc, at("full")}, 4, "moxole: " + at("full") + ": directory is not empty\n"},
      {{"extract", doc, at("plain")}, 4, "moxole: " + at("plain") + ": exists and is not a directory\n"},
      {{"extract", doc, at("a/b/c")}, 4, "moxole: " + at("a/b/c") + ": no such file or directory\n"},
      {{"pack", at("full"), at("missing/out.doc")}, 4,
       "moxole: " + at("missing/out.doc") + ": no such file or directory\n"},
      {{"props", doc, "Nothing"}, 3, "moxole: " + doc + ": no entry Nothing\n"},
      {{"props", doc, "A/B/C/deep"}, 2, "moxole: A/B/C/deep: too short for a property set (10 bytes)\n"},
      // Damaged documents, whichever engine reads them.
      {{"info", noDirectory}, 2, damaged + "directory sector 2 cannot be read\n"},
      {{"ls", noDirectory}, 2, damaged + "the directory cannot be read\n"},
      {{"tree", noDirectory}, 2, damaged + "the directory cannot be read\n"},
      {{"objects", noDirectory}, 2, damaged + "directory sector 2 cannot be read\n"},
      {{"extract", shortDoc, partial.file("out")}, 2, cutShort},
      // Edits that cannot be made, which leave the document as it was.
      {{"rm", doc, "missing"}, 3, "moxole: " + doc + ": missing: no such entry\n"},
      {{"mkdir", doc, "A"}, 1, "moxole: " + doc + ": A exists\n"},
      {{"mv", doc, "A", "nowhere/x"}, 3, "moxole: " + doc + ": no storage nowhere\n"},
      {{"put", doc, "A"}, 1, "moxole: " + doc + ": A: exists\n"},
      {{"put", doc, "x", at("no-such-source")}, 3, "moxole: " + at("no-such-source") + ": no such file or directory\n"},
      {{"put", doc, "bad!name", at("notes.txt")}, 1,
       "moxole: " + doc + ": bad!name: names cannot hold '/', '\\', ':' or '!'\n"},
      {{"rm", at("notes.txt"), "x"}, 2, "moxole: " + at("notes.txt") + ": not a compound file\n"},
      {{"rm", at("missing.doc"), "x"}, 3, "moxole: " + at("missing.doc") + ": cannot open: No such file or directory\n"},
      {{"rm", doc}, 1, "moxole: rm: missing operand\nusage: moxole rm FILE PATH\n"},
      {{"rm", doc, "/"}, 1, "moxole: " + doc + ": the root cannot be changed this way\n"},
  };
  // Folders pack refuses, over an existing file: a name too long, one
  // holding '\', an empty one, two that differ only in letter case.
  const std::pair<std::string, std::string> refused[] = {
      {"ThisNameIsThirtyTwoCharactersLon", "name is longer than 31 characters"},
      {"a\\b", "name holds a '\\', which a compound file path cannot carry"},
      {"\\x00", "an empty entry name cannot be packed"},
      {"Data", "differs from DATA only in letter case, which siblings may not"}};
  for (const auto& [name, reason] : refused) {
    const std::string src = at("src-" + std::to_string(cases.size()));
    ASSERT_EQ(mkdir(src.c_str(), 0777), 0);
    ASSERT_TRUE(writeFile(src + "/" + name, "x") && (name != "Data" || writeFile(src + "/DATA", "x")));
    cases.push_back({{"pack", src, at("previous.doc")}, 4, "moxole: " + src + "/" + name + ": " + reason + "\n"});
  }
  for (const char* command : {"info", "ls", "tree", "objects", "check", "props"}) {
    cases.push_back({{command, at("missing.doc")}, 3, "moxole: " + at("missing.doc") + ": no such file or directory\n"});
    cases.push_back({{command, at("notes.txt")}, 2, "moxole: " + at("notes.txt") + ": not a compound file\n"});
    cases.push_back({{command, at("empty")}, 2, "moxole: " + at("empty") + ": not a compound file\n"});
    cases.push_back({{command, dir}, 2, "moxole: " + dir + ": is a directory\n"});
  }
  // A failure changes no file and leaves none behind: no output, no
  // temporary file, an existing one it was to replace as it was.
  const std::map<std::string, std::string> files = snapshotTree(dir);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    const ProgramResult r = moxole(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(snapshotTree(dir) == files);
  }
  // On success it is replaced.
  ASSERT_EQ(moxole({"pack", at("full"), at("previous.doc")}).status, 0);
  EXPECT_EQ(moxole({"cat", at("previous.doc"), "WordDocument"}).out, "mine");

  ASSERT_EQ(moxole({"cat", shortDoc, "Early"}).out, std::string(5000, 'E'));
  ProgramResult r = moxole({"cat", shortDoc, "Large"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, cutShort);
  EXPECT_EQ(r.out.size(), 19968u) << "the bytes before the cut still come out";

  moxtest::ProgramOptions full;
  full.stdoutPath = "/dev/full";
  for (const std::vector<std::string>& args : {std::vector<std::string>{"cat", doc, "Big"}, {"ls", "-l", doc}}) {
    r = moxole(args, full);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "moxole: standard output: no space left on device\n");
  }
}

// Help needs no library; any other command names a library that cannot be
// loaded, or is not this library, and exits with 4; the variable wins over
// the library beside the program.
TEST(MoxoleUsage, HelpIsShownForEveryCommandAndAnUnloadableLibraryIsNamed) {
  ProgramResult r = moxole({});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("usage: moxole COMMAND"), std::string::npos);
  r = moxole({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  for (const char* command : {"info", "ls", "tree", "cat", "extract", "pack", "objects", "object"}) {
    EXPECT_NE(r.out.find(std::string("  moxole ") + command + " "), std::string::npos) << command;
    ProgramResult help = moxole({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.rfind(std::string("usage: moxole ") + command + " ", 0), 0u) << help.out;
    EXPECT_GT(help.out.size(), 60u) << "no description for " << command;
  }
  moxtest::ProgramOptions options;
  for (const std::string library : {"/nonexistent/libmoxolefio.so", "libm.so.6"}) {
    options.setEnv["MOXOLE_LIBRARY"] = library;
    EXPECT_EQ(moxtest::runProgram({MOXOLE_PROGRAM, "cat", "-h"}, options).status, 0);
    r = moxtest::runProgram({MOXOLE_PROGRAM, "info", MOX_SOURCE_DIR "/samples/sample.doc"}, options);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err.rfind("moxole: " + library + ": ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
  options.setEnv["MOXOLE_LIBRARY"] = MOX_LIBRARY_PATH;
  EXPECT_EQ(moxtest::runProgram({MOXOLE_PROGRAM, "tree", MOX_SOURCE_DIR "/samples/sample.doc"}, options).status, 0);
}

}  // namespace
