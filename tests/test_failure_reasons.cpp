// Why a document does not open, or a call on it fails, as a host reads it:
// one damage per crafted file, and the line moxoleOpenFailure or
// moxoleFailure gives for it.
#include <string.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "support/cfb_builder.h"

namespace {

// A document with a mini stream, a regular stream and a storage.
cfb::CfbLayout document() {
  cfb::CfbBuilder b;
  b.addStream(0, "Small", cfb::Bytes(100, 1));
  b.addStream(0, "Large", cfb::Bytes(5000, 2));
  b.addStorage(0, "Box");
  return b.layout();
}

std::string openFailure(const cfb::Bytes& bytes) {
  moxhost::MemoryIo io(bytes);
  moxhost::CountingMemory memory;
  char text[120];
  int length = moxoleOpenFailure(io.io(), memory.memory(), text, sizeof text);
  EXPECT_EQ(memory.liveBlocks(), 0);
  EXPECT_EQ(io.openCalls() + io.closeCalls(), 0) << "the host's object is the host's";
  if (length == 0) return "";
  EXPECT_EQ(length, static_cast<int>(strlen(text)));
  return text;
}

struct OpenCase {
  const char* what;
  std::function<std::string(cfb::CfbLayout&)> damage;  // returns the expected line
};

TEST(FailureReasons, EachDamageToTheLoadedTablesIsNamed) {
  const OpenCase cases[] = {
      {"header cut", [](cfb::CfbLayout& l) {
         l.truncateTo = 300;
         return "the header cannot be read";
       }},
      {"signature", [](cfb::CfbLayout& l) {
         l.header.signature[2] = 0;
         return "not a compound file (no signature)";
       }},
      {"sector shift", [](cfb::CfbLayout& l) {
         l.header.sectorShift = 17;
         return "sector shifts 17 and 6 cannot be used";
       }},
      {"FAT sector past the end", [](cfb::CfbLayout& l) {
         // The first of two: a short last sector would be tolerated.
         l.deriveDifat = false;
         l.header.fatSectors = 2;
         l.header.difat[1] = l.header.difat[0];
         l.header.difat[0] = 5000;
         return "FAT sector 5000 cannot be read";
       }},
      {"DIFAT start", [](cfb::CfbLayout& l) {
         l.deriveDifat = false;
         l.header.fatSectors = 110;
         l.header.difatStart = cfb::kFatSect;
         l.header.difatSectors = 1;
         return "the DIFAT start -3 is no sector";
       }},
      {"mini FAT past the end", [](cfb::CfbLayout& l) {
         l.header.miniFatStart = 4000;
         return "mini FAT sector 4000 cannot be read";
       }},
      {"mini FAT chain short", [](cfb::CfbLayout& l) {
         l.header.miniFatSectors = 2;
         return "the mini FAT chain breaks after sector " + std::to_string(l.miniFatSectors[0]);
       }},
      {"directory link", [](cfb::CfbLayout& l) {
         l.fat[l.dirSectors[0]] = 1u << 20;
         return "the directory chain breaks at sector " + std::to_string(l.dirSectors[0]);
       }},
      {"name length", [](cfb::CfbLayout& l) {
         l.dir[2].nameLength = 70;
         return std::string("directory entry 2 has a name longer than its field");
       }},
  };
  for (const OpenCase& c : cases) {
    cfb::CfbLayout l = document();
    const std::string expected = c.damage(l);
    EXPECT_EQ(openFailure(l.serialize()), expected) << c.what;
  }
  EXPECT_EQ(openFailure(document().serialize()), "");
}

struct Session {
  explicit Session(const cfb::Bytes& bytes) : io(bytes) {
    h = hOLEopen(io.io(), memory.memory());
  }
  ~Session() {
    if (h != nullptr) {
      bOLEcloseStream(h, nullptr);
      iOLEclose(h);
    }
    EXPECT_EQ(memory.liveBlocks(), 0);
  }
  std::string failure() {
    char text[120];
    int length = moxoleFailure(h, text, sizeof text);
    return length > 0 ? std::string(text) : std::string();
  }
  moxhost::MemoryIo io;
  moxhost::CountingMemory memory;
  _MoxOleFile* h = nullptr;
};

TEST(FailureReasons, CallsOnAnOpenDocumentSayWhatWentWrong) {
  cfb::CfbLayout l = document();
  const int large = 2;  // entries: root, Small, Large, Box
  ASSERT_EQ(l.dir[large].name, u"Large");
  const uint32_t first = l.dir[large].start;
  l.fat[first] = first;  // Large's chain returns to itself
  Session s(l.serialize());
  ASSERT_NE(s.h, nullptr);
  EXPECT_EQ(s.failure(), "");
  char small[8];
  EXPECT_EQ(iOLEread(s.h, small, sizeof small), 0u);
  EXPECT_EQ(s.failure(), "no stream is open");
  EXPECT_EQ(bOLEopenStream(s.h, "Missing"), 0);
  EXPECT_EQ(s.failure(), "no such entry");
  EXPECT_EQ(bOLEopenStream(s.h, "Large"), 0);
  EXPECT_EQ(s.failure(), "the sector chain of entry 2 runs in a circle");
  EXPECT_EQ(iReadStreamChain(3, s.h), -1);
  EXPECT_EQ(s.failure(), "entry 3 is not a stream");
  EXPECT_EQ(iReadStreamChain(40, s.h), -1);
  EXPECT_EQ(s.failure(), "there is no entry 40");

  // A stream whose bytes the file no longer holds.
  cfb::CfbLayout cut = document();
  cut.truncateTo = (cut.dir[large].start + 1) * 512 + 700;
  Session t(cut.serialize());
  ASSERT_NE(t.h, nullptr);
  ASSERT_EQ(bOLEopenStream(t.h, "Large"), 1);
  cfb::Bytes buffer(5000);
  EXPECT_EQ(iOLEread(t.h, buffer.data(), 5000), 512u);
  EXPECT_EQ(t.failure(), "byte 512 of the stream cannot be read");
  // A line longer than the buffer is cut, and its whole length returned.
  char tiny[5];
  EXPECT_EQ(moxoleFailure(t.h, tiny, sizeof tiny), 37);
  EXPECT_STREQ(tiny, "byte");
}

TEST(FailureReasons, WriterRefusalsAreNamed) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 1);
  ASSERT_NE(h, nullptr);
  char text[120];
  EXPECT_EQ(iOLEopenStreamEx(h, "Missing\\S", 2, 1), MOXOLE_NOT_FOUND);
  ASSERT_GT(moxoleFailure(h, text, sizeof text), 0);
  EXPECT_STREQ(text, "no such storage, or the name is taken");
  EXPECT_EQ(iOLEopenStreamEx(h, "S", 7, 1), MOXOLE_BAD_ARGUMENT);
  ASSERT_GT(moxoleFailure(h, text, sizeof text), 0);
  EXPECT_STREQ(text, "invalid argument");
  iOLEclose(h);

  Session read(document().serialize());
  ASSERT_NE(read.h, nullptr);
  EXPECT_EQ(iOLEopenStreamEx(read.h, "Small", 2, 1), MOXOLE_NOT_FOUND);
  EXPECT_EQ(read.failure(), "the document is not open for writing");
}

}  // namespace
