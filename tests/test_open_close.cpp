// Opening, cloning and closing handles: the contract with the host's I/O
// object and memory interface (failures of memory and host calls at each
// step are swept in test_fault_sweeps).
#include <gtest/gtest.h>

#include "host/moxhost.h"
#include "interface/mox_file.h"
#include "support/cfb_builder.h"

namespace {

// A file with every table the loader reads: mini FAT, two directory
// sectors, a regular stream and a mini stream.
cfb::Bytes sampleFile() {
  cfb::CfbBuilder b;
  int s = b.addStorage(0, "Sub");
  b.addStream(0, "Small", cfb::Bytes(100, 7));
  b.addStream(s, "Big", cfb::Bytes(5000, 9));
  b.addStream(s, "Tiny", cfb::Bytes(1, 1));
  return b.build();
}

TEST(OpenClose, OpensAWellFormedFileAndClosesItsIoOnce) {
  moxhost::MemoryIo io(sampleFile());
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 0);
  EXPECT_EQ(lOLEtell(h), -1);
  EXPECT_EQ(bOLEopenStream(h, "Small"), 1);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(OpenClose, CloneLoadsAgainAndNeverOpensOrClosesTheIo) {
  moxhost::MemoryIo io(sampleFile());
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  int64_t blocksWithOne = memory.liveBlocks();
  _MoxOleFile* clone = hOLEopenClone(h);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(bOLEopenEmbeddedStream(clone, "Big", "Sub"), 1);
  EXPECT_EQ(bOLEcloseStream(clone, nullptr), 1);
  EXPECT_EQ(memory.liveBlocks(), 2 * blocksWithOne);
  EXPECT_EQ(iOLEcloseClone(clone), 1);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 0);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(OpenClose, CloneOfAHandleWithoutHostIoIsNull) {
  moxhost::CountingMemory memory;
  _MoxOleFile handle = {};
  handle.pMemory = memory.memory();
  EXPECT_EQ(hOLEopenClone(&handle), nullptr);
  EXPECT_EQ(memory.allocations(), 0);
}

// A bad header, or an I/O object that will not open: the object is opened
// and closed once, or not at all when the host asked for no open.
TEST(OpenClose, FailedOpenClosesTheIoOnceAndOnlyIfItOpenedIt) {
  for (bool failOpen : {false, true}) {
    cfb::Bytes bytes = sampleFile();
    if (!failOpen) bytes[2] = 0x12;  // breaks the signature
    moxhost::MemoryIo io(bytes);
    io.failOpen(failOpen);
    moxhost::CountingMemory memory;
    EXPECT_EQ(hOLEopen(io.io(), memory.memory()), nullptr);
    EXPECT_EQ(io.openCalls(), 1);
    EXPECT_EQ(io.closeCalls(), 1);
    if (!failOpen) {
      EXPECT_EQ(hOLEopenEXT(io.io(), memory.memory(), 0), nullptr);
    }
    EXPECT_EQ(io.openCalls(), 1);
    EXPECT_EQ(io.closeCalls(), 1);
    EXPECT_EQ(memory.liveBlocks(), 0);
  }
}

}  // namespace
