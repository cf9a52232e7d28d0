// The writer's entry points as a host uses them: results of every call,
// creation order and refusals, and documents opened for reading by path.
// Failures of the host's output and of memory are swept in
// test_fault_sweeps.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "writer/writer.h"
#include "support/cfb_reader.h"
#include "support/leak_report.h"
#include "support/stream_kit.h"
#include "support/write_kit.h"
#include "writer/moxoledoc.h"

namespace {

using cfb::Bytes;
using writekit::NewFile;

std::map<std::string, cfb::Item> readBack(const Bytes& file) {
  cfb::ParsedFile parsed;
  std::string error;
  EXPECT_TRUE(cfb::parse(file, &parsed, &error)) << error;
  EXPECT_EQ(cfb::treeProblems(parsed), "");
  return cfb::contents(parsed);
}

// --- hOLEopenEx in create mode -------------------------------------------

TEST(WriterOpen, RefusesNoIoNoServicesAndFlagsWithoutBitZero) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  EXPECT_EQ(hOLEopenEx(nullptr, host.services(), 1), nullptr);
  EXPECT_EQ(hOLEopenEx(io.io(), nullptr, 1), nullptr);
  EXPECT_EQ(hOLEopenEx(io.io(), host.services(), 2), nullptr);
  EXPECT_EQ(hOLEopenEx(io.io(), host.services(), 4), nullptr);
  EXPECT_EQ(io.openCalls(), 0);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

TEST(WriterOpen, NewDocumentWritesNothingBeforeItsClose) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 1);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.writeCalls(), 0) << "nothing is written before the close";
  // A clone needs a host object the handle does not have.
  EXPECT_EQ(hOLEopenClone(h), nullptr);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(io.bytes().size(), 1536u);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

TEST(WriterOpen, FlagsThreeCreatesExactlyAsFlagsOne) {
  Bytes made[2];
  int flags[2] = {1, 3};
  for (int i = 0; i < 2; ++i) {
    moxhost::PoolServices host;
    moxhost::MemoryIo io;
    _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), flags[i]);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(iOLEopenStreamEx(h, "S", 2, 1), 0);
    unsigned char data[] = "payload";
    ASSERT_EQ(iOLEwrite(h, data, 7), 0);
    iOLEclose(h);
    made[i] = io.bytes();
  }
  EXPECT_EQ(made[0], made[1]);
}

// The output object opens the host's object first; when that or a later
// check fails, the host's object is closed exactly once and nothing stays.
TEST(WriterOpen, HostObjectThatCannotBeOpenedOrWrittenIsClosedOnce) {
  {
    moxhost::PoolServices host;
    moxhost::MemoryIo io;
    io.failOpen(true);
    EXPECT_EQ(hOLEopenEx(io.io(), host.services(), 1), nullptr);
    EXPECT_EQ(io.closeCalls(), 1);
    EXPECT_EQ(moxtest::leakReport(host), "");
  }
  {
    moxhost::PoolServices host;
    moxhost::MemoryIo io;
    io.setWritable(false);
    EXPECT_EQ(hOLEopenEx(io.io(), host.services(), 1), nullptr);
    EXPECT_EQ(io.openCalls(), 1);
    EXPECT_EQ(io.closeCalls(), 1);
    EXPECT_EQ(moxtest::leakReport(host), "");
  }
}

// --- Creating and writing --------------------------------------------------

TEST(WriterCalls, ArgumentsAreCheckedBeforeAnythingElse) {
  NewFile file;
  _MoxOleFile* h = file.h();
  EXPECT_EQ(iOLEopenStreamEx(nullptr, "A", 2, 1), 34);
  EXPECT_EQ(iOLEopenStreamEx(h, nullptr, 2, 1), 34);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 2, 2), 34);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 0, 1), 34);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 5, 1), 34);
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(nullptr, &byte, 1), 34);
  EXPECT_EQ(iOLEwrite(h, &byte, 1), 34) << "no current stream yet";
  EXPECT_EQ(iCloseWriterStream(nullptr), 34);
  EXPECT_EQ(file.close().size(), 1536u) << "refused calls create nothing";
}

TEST(WriterCalls, ParentsMustExistBeforeTheirChildren) {
  NewFile file;
  EXPECT_EQ(file.stream("Dir\\Data"), 6);
  EXPECT_EQ(file.storage("Dir"), 0);
  EXPECT_EQ(file.stream("Dir\\Data", {1, 2, 3}), 0);
  EXPECT_EQ(file.stream("\\Dir\\Other", {4}), 0) << "one leading backslash is allowed";
  EXPECT_EQ(file.stream("Missing\\Deeper\\X"), 6);
  auto items = readBack(file.close());
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items["Dir"].type, 1);
  EXPECT_EQ(items["Dir\\Data"].data, (Bytes{1, 2, 3}));
  EXPECT_EQ(items["Dir\\Other"].data, (Bytes{4}));
}

TEST(WriterCalls, CurrentStreamEndsWithStorageCloseAndTheNextOpen) {
  NewFile file;
  unsigned char byte = 7;
  ASSERT_EQ(file.storage("S"), 0);
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 6) << "a storage holds no bytes";
  ASSERT_EQ(file.stream("T", {1}), 0);
  EXPECT_EQ(iCloseWriterStream(file.h()), 0);
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 34);
  EXPECT_EQ(iCloseWriterStream(file.h()), 34);
  // The host's stream close reaches the writer when no reader stream is open.
  ASSERT_EQ(file.stream("U", {2}), 0);
  EXPECT_EQ(bOLEcloseStream(file.h(), nullptr), 1);
  EXPECT_EQ(bOLEcloseStream(file.h(), nullptr), 0);
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 34);
  auto items = readBack(file.close());
  EXPECT_EQ(items["T"].data, (Bytes{1}));
  EXPECT_EQ(items["U"].data, (Bytes{2}));
}

TEST(WriterCalls, RecreatingAStreamFailsButKeepsEveryByteWritten) {
  NewFile file;
  ASSERT_EQ(file.stream("A", {'a', 'a'}), 0);
  ASSERT_EQ(file.stream("B", {'b'}), 0);
  EXPECT_EQ(file.stream("A"), 6);
  EXPECT_EQ(file.stream("a"), 6) << "names differ only in case";
  unsigned char byte = 'x';
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 34) << "the failed call ended B";
  auto items = readBack(file.close());
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items["A"].data, (Bytes{'a', 'a'}));
  EXPECT_EQ(items["B"].data, (Bytes{'b'}));
}

TEST(WriterCalls, EmptyAndNegativeWrites) {
  NewFile file;
  ASSERT_EQ(file.stream("A"), 0);
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 0), 0);
  EXPECT_EQ(iOLEwrite(file.h(), nullptr, 5), 34) << "no bytes to take the length from";
  EXPECT_EQ(iOLEwrite(file.h(), &byte, -1), 34);
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 0) << "the stream is still current";
  auto items = readBack(file.close());
  EXPECT_EQ(items["A"].data, (Bytes{1}));
}

TEST(WriterCalls, PiecesOfAnySizeMakeTheSameFileAsOneWrite) {
  Bytes data = streamkit::pattern(70000, 5);
  Bytes small = streamkit::pattern(3000, 6);
  writekit::Shape shape = {{"Big", 2, data}, {"Small", 2, small}};
  Bytes whole = writekit::write(shape);
  for (size_t piece : {size_t{1}, size_t{63}, size_t{512}, size_t{513}, size_t{65536}}) {
    EXPECT_EQ(writekit::write(shape, piece), whole) << piece;
  }
}

TEST(WriterCalls, OpeningForReadingInCreateModeFindsNoStream) {
  NewFile file;
  ASSERT_EQ(file.stream("A", {1, 2}), 0);
  EXPECT_EQ(iOLEopenStreamEx(file.h(), "A", 0, 0), -1) << "entries have no index yet";
  EXPECT_EQ(iOLEopenStreamEx(file.h(), "Nope", 0, 0), 6);
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(file.h(), &byte, 1), 34) << "any open ends the writer stream";
}

TEST(WriterCalls, ReaderHandleHasNoWriterDocument) {
  Bytes made = NewFile().close();
  moxhost::CountingMemory memory;
  moxhost::MemoryIo io(made);
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 2, 1), 6);
  EXPECT_EQ(iOLEopenStreamEx(h, "A", 2, 0), 6);
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(h, &byte, 1), 34);
  iOLEclose(h);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

// --- copyStreamTree --------------------------------------------------------

struct TreeSource {
  std::vector<_MoxOleTreeNode> nodes;
  std::vector<std::vector<_MoxOleTreeNode*>> kids;
  explicit TreeSource(size_t n) : nodes(n), kids(n) { memset(nodes.data(), 0, n * sizeof nodes[0]); }
  void set(size_t i, const char* name, int type, int index) {
    memcpy(nodes[i].szName, name, std::min(strlen(name), sizeof nodes[i].szName));
    nodes[i].iType = type;
    nodes[i].iIndex = index;
  }
  void link(size_t parent, size_t child) {
    kids[parent].push_back(&nodes[child]);
    nodes[parent].ppChildren = kids[parent].data();
    nodes[parent].iChildCount = static_cast<int>(kids[parent].size());
    nodes[child].pParent = &nodes[parent];
  }
};

TEST(CopyStreamTree, MirrorsNamesAndIndexesAndDropsDuplicatesWithTheirSubtrees) {
  moxhost::PoolServices host;
  {
    CMoxOleDocument doc(host.services());
    ASSERT_EQ(doc.init(nullptr, 0), 0);
    EXPECT_EQ(doc.pOleIo, nullptr);
    TreeSource t(7);
    t.set(0, "Root Entry", 5, 0);
    t.set(1, "Dir", 1, 3);
    t.set(2, "Data", 2, 4);
    t.set(3, "DIR", 1, 5);   // same name as "Dir": dropped with its child
    t.set(4, "Lost", 2, 6);
    t.set(5, "Top", 2, 1);
    t.set(6, "A_name_that_fills_all_36_bytes_here!", 2, 2);  // no terminator
    t.link(0, 1);
    t.link(1, 2);
    t.link(0, 3);
    t.link(3, 4);
    t.link(0, 5);
    t.link(0, 6);
    EXPECT_EQ(copyStreamTree(host.services(), nullptr, doc.pRootEntry), 4);
    EXPECT_EQ(copyStreamTree(host.services(), &t.nodes[0], doc.pRootEntry), 0);
    ASSERT_NE(doc.findEntry("Dir\\Data"), nullptr);
    EXPECT_EQ(doc.findEntry("dir\\DATA")->lIndex, 4);
    EXPECT_EQ(doc.findEntry("Dir")->lIndex, 3);
    EXPECT_EQ(doc.findEntry("Top")->lIndex, 1);
    ASSERT_NE(doc.findEntry("A_name_that_fills_all_36_bytes_here!"), nullptr);
    EXPECT_EQ(doc.findEntry("A_name_that_fills_all_36_bytes_here!")->lIndex, 2);
    EXPECT_EQ(doc.findEntry("DIR\\Lost"), nullptr);
    EXPECT_EQ(doc.vEntries.size(), 0) << "copies are never laid out";
    CMoxOleEntry* created = nullptr;
    EXPECT_EQ(doc.addEntry("New", 2, created), 6) << "a mirror refuses creation";
  }
  EXPECT_EQ(moxtest::leakReport(host), "");
}

// --- Open mode ---------------------------------------------------------------

writekit::Shape sourceShape() {
  return {{"Dir", 1, {}},
          {"Dir\\Data", 2, streamkit::pattern(5000, 1)},
          {"Dir\\Small", 2, streamkit::pattern(300, 2)},
          {"Top", 2, streamkit::pattern(10, 3)},
          {"Empty", 2, {}}};
}

TEST(WriterOpenForReading, OpensStreamsByPathAndWritesNothing) {
  const writekit::Shape shape = sourceShape();
  const Bytes source = writekit::write(shape);
  moxhost::PoolServices host;
  moxhost::MemoryIo io(source);
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 0);
  ASSERT_NE(h, nullptr);

  EXPECT_EQ(iOLEopenStreamEx(h, "Dir\\Data", 0, 0), 0);
  EXPECT_EQ(lOLEtell(h), 0);
  EXPECT_EQ(streamkit::readToEnd(h, 777), shape[1].data);
  EXPECT_EQ(iOLEopenStreamEx(h, "\\dir\\small", 7, 0), 0) << "case and type do not matter";
  EXPECT_EQ(streamkit::readToEnd(h, 777), shape[2].data);
  EXPECT_EQ(iOLEopenStreamEx(h, "Top", 0, 0), 0);
  EXPECT_EQ(streamkit::readToEnd(h, 777), shape[3].data);
  EXPECT_EQ(iOLEopenStreamEx(h, "Empty", 0, 0), 0);
  EXPECT_EQ(streamkit::readToEnd(h, 777), Bytes());
  EXPECT_EQ(iOLEopenStreamEx(h, "Dir", 0, 0), -1) << "a storage is no stream";
  EXPECT_EQ(iOLEopenStreamEx(h, "Dir\\Missing", 0, 0), 6);
  EXPECT_EQ(iOLEopenStreamEx(h, "Root Entry\\Top", 0, 0), 6);

  EXPECT_EQ(iOLEopenStreamEx(h, "New", 2, 1), 6);
  EXPECT_EQ(iOLEopenStreamEx(h, "Dir\\New", 1, 1), 6);
  unsigned char byte = 1;
  EXPECT_EQ(iOLEwrite(h, &byte, 1), 34);

  EXPECT_EQ(iOLEopenStreamEx(h, "Top", 0, 0), 0);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 0);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.writeCalls(), 0);
  EXPECT_EQ(io.bytes(), source);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

TEST(WriterOpenForReading, DocumentThatDoesNotOpenGivesNullAndClosesOnce) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io(Bytes(1536, 0x11));
  EXPECT_EQ(hOLEopenEx(io.io(), host.services(), 0), nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(moxtest::leakReport(host), "");
}

}  // namespace
