// Real files: every stream of every corpus file read by entry number and
// compared with what olefile read (recorded in MANIFEST.tsv, and live on a
// few files).  Streams are built by entry number because files from other
// writers may order siblings by upper-case folding, where a descent by
// name can legitimately miss.  Damaged files, and streams olefile could
// not read whole, only have to come out cleanly.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>

#include "support/manifest.h"
#include "support/sha256.h"
#include "support/stream_kit.h"

namespace {

using cfb::Bytes;

const std::string kCorpus = MOX_CORPUS_DIR;

using ManifestFile = manifest::File;

std::vector<ManifestFile> loadManifest() { return manifest::load(kCorpus); }

bool corpusPresent() {
  struct stat st;
  return stat((kCorpus + "/MANIFEST.tsv").c_str(), &st) == 0;
}

// What the library read in one file: whether it opened, and the SHA-256
// of every stream entry it could read whole.
struct LibraryView {
  bool opened = false;
  std::map<int, std::string> streams;
  int64_t leakedBlocks = 0;
};

// Opens a file's bytes and reads every stream entry by entry number.
// `memory` may be armed to fail by the caller.
LibraryView readEveryStream(const Bytes& file, moxhost::CountingMemory& memory) {
  LibraryView view;
  moxhost::MemoryIo io(file);
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  view.opened = h != nullptr;
  if (h != nullptr) {
    for (int entry = 0; entry < h->iDirCount; ++entry) {
      if (h->pDir[entry].byType != 2) continue;
      if (iReadStreamChain(entry, h) != 0 || lOLEseek(h, 0, 0) != 0) continue;
      Bytes data = streamkit::readToEnd(h, 65536);
      if (static_cast<int64_t>(data.size()) != h->lStreamSize) continue;
      view.streams[entry] = sha256Hex(data.data(), data.size());
    }
    bOLEcloseStream(h, nullptr);
    iOLEclose(h);
  }
  view.leakedBlocks = memory.liveBlocks();
  return view;
}

LibraryView readCorpusFile(const std::string& path) {
  Bytes file;
  EXPECT_TRUE(moxhost::readFile(kCorpus + "/" + path, &file)) << path;
  moxhost::CountingMemory memory;
  return readEveryStream(file, memory);
}

TEST(StreamCorpus, Sha256MatchesKnownDigests) {
  EXPECT_EQ(sha256Hex("", 0), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex("abc", 3),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  EXPECT_EQ(sha256Hex(twoBlocks.data(), twoBlocks.size()),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(StreamCorpus, EveryStreamReadsAsOlefileReadIt) {
  if (!corpusPresent()) GTEST_SKIP() << "no corpus at " << kCorpus;
  int compared = 0;
  std::vector<std::string> differences;
  for (const ManifestFile& m : loadManifest()) {
    SCOPED_TRACE(m.path);
    const LibraryView view = readCorpusFile(m.path);
    EXPECT_EQ(view.leakedBlocks, 0);
    if (m.damaged()) continue;
    ASSERT_EQ(view.opened, m.opens);
    for (const auto& [sid, expected] : m.entries) {
      if (expected.type != "stream" || expected.note != "-") continue;
      auto found = view.streams.find(sid);
      const std::string got = found == view.streams.end() ? "unreadable" : found->second;
      if (got != expected.sha) {
        differences.push_back(m.path + " entry " + std::to_string(sid) + ": " + got);
      }
      ++compared;
    }
  }
  std::string report;
  for (const std::string& d : differences) report += d + "\n";
  EXPECT_TRUE(differences.empty()) << report;
  EXPECT_GT(compared, 1000);
}

// olefile's reading of one file, run now: entry number -> SHA-256.  False
// when olefile is not installed.
bool olefileView(const std::string& path, std::map<int, std::string>* streams) {
  const std::string command = "/usr/bin/python3 " MOX_SOURCE_DIR
                              "/tests/oracles/olefile_streams.py '" +
                              kCorpus + "/" + path + "' 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  char line[256];
  while (fgets(line, sizeof line, pipe) != nullptr) {
    std::vector<std::string> f = manifest::split(std::string(line, strcspn(line, "\n")), '\t');
    if (f.size() == 2) (*streams)[std::stoi(f[0])] = f[1];
  }
  const int status = pclose(pipe);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(StreamCorpus, LiveOlefileAgreesOnAFewFiles) {
  if (!corpusPresent()) GTEST_SKIP() << "no corpus at " << kCorpus;
  // Small and mini streams, 4096-byte sectors, a message with attachments,
  // a Word document with embedded objects, a file with DIFAT sectors.
  const char* files[] = {"openmcdf/TestStream_v3_4095.cfs", "poi/BlockSize4096.zvi",
                         "poi/attachment_msg_pdf.msg", "poi/20-Force-on-a-current-S00.doc",
                         "compoundfiles/strange_master_ext.dat"};
  for (const char* path : files) {
    SCOPED_TRACE(path);
    std::map<int, std::string> expected;
    if (!olefileView(path, &expected)) GTEST_SKIP() << "olefile (python3-olefile) not available";
    ASSERT_FALSE(expected.empty());
    const LibraryView view = readCorpusFile(path);
    ASSERT_TRUE(view.opened);
    for (const auto& [sid, sha] : expected) {
      auto found = view.streams.find(sid);
      ASSERT_NE(found, view.streams.end()) << "entry " << sid;
      EXPECT_EQ(found->second, sha) << "entry " << sid;
    }
  }
}

TEST(StreamCorpus, AllocationFailuresOnRealFilesAreClean) {
  if (!corpusPresent()) GTEST_SKIP() << "no corpus at " << kCorpus;
  for (const char* path : {"poi/Notes.ole2", "poi/BlockSize4096.zvi",
                           "damaged/rust-cfb/loop_in_minichain",
                           "damaged/compoundfiles/invalid_truncated.dat"}) {
    SCOPED_TRACE(path);
    Bytes file;
    ASSERT_TRUE(moxhost::readFile(kCorpus + "/" + path, &file));
    moxhost::CountingMemory clean;
    const LibraryView whole = readEveryStream(file, clean);
    const int64_t allocations = clean.allocations();
    int64_t n = 1;
    for (;; ++n) {
      moxhost::CountingMemory memory;
      memory.faults().failAt(n);
      const LibraryView view = readEveryStream(file, memory);
      ASSERT_EQ(view.leakedBlocks, 0) << n;
      // A failed allocation loses streams, it never changes one.
      for (const auto& [sid, sha] : view.streams) EXPECT_EQ(sha, whole.streams.at(sid)) << n;
      if (!memory.faults().fired()) break;
    }
    EXPECT_EQ(n, allocations + 1);  // every allocation was made to fail once
  }
}

}  // namespace
