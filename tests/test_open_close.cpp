// Opening, cloning and closing handles: the contract with the host's I/O
// object and memory interface, including every failure path.
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

TEST(InterfaceTable, FillsTheSlotsInTableOrder) {
  void* slots[MOXOLE_INTERFACE_SLOTS + 1];
  for (void*& s : slots) s = &slots;  // sentinel: any slot left alone shows
  GetOLEInterface(slots);
  EXPECT_EQ(slots[MOXOLE_INTERFACE_SLOTS], &slots) << "wrote past slot 21";
  MoxOleInterface t;
  GetOLEInterface(reinterpret_cast<void**>(&t));
  EXPECT_EQ(reinterpret_cast<void*>(t.hOLEopen), slots[0]);
  EXPECT_EQ(t.hOLEopen, &hOLEopen);
  EXPECT_EQ(t.hOLEopenClone, &hOLEopenClone);
  EXPECT_EQ(reinterpret_cast<void*>(&lOLEtell), slots[6]);
  EXPECT_EQ(t.iOLEclose, &iOLEclose);
  EXPECT_EQ(reinterpret_cast<void*>(&iOLEcloseClone), slots[9]);
  EXPECT_EQ(reinterpret_cast<void*>(&iOLEGetStreamTree), slots[21]);
}

TEST(OpenClose, OpensAWellFormedFileAndClosesItsIoOnce) {
  moxhost::MemoryIo io(sampleFile());
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 0);
  EXPECT_EQ(lOLEtell(h), -1);
  EXPECT_EQ(h->iDirCount, 8);  // five entries, two sectors of four
  EXPECT_STREQ(h->pDir[0].szName, "Root Entry");
  EXPECT_EQ(h->pIo, io.io());
  EXPECT_EQ(h->pHostIo, io.io());
  EXPECT_EQ(h->pMemory, memory.memory());
  EXPECT_EQ(h->pTableMemory, memory.memory());
  EXPECT_EQ(h->plChain, nullptr);
  EXPECT_EQ(h->pSwitchIo, nullptr);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(OpenClose, NullHandlesAreRefused) {
  EXPECT_EQ(iOLEclose(nullptr), -1);
  EXPECT_EQ(iOLEcloseClone(nullptr), -1);
  EXPECT_EQ(hOLEopenClone(nullptr), nullptr);
}

TEST(OpenClose, CloneLoadsAgainAndNeverOpensOrClosesTheIo) {
  moxhost::MemoryIo io(sampleFile());
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  int64_t blocksWithOne = memory.liveBlocks();
  _MoxOleFile* clone = hOLEopenClone(h);
  ASSERT_NE(clone, nullptr);
  EXPECT_NE(clone->pDir, h->pDir);
  EXPECT_EQ(clone->iDirCount, h->iDirCount);
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

TEST(OpenClose, BadHeaderOpensAndClosesTheIoOnceButNotThroughAClone) {
  cfb::Bytes bytes = sampleFile();
  bytes[2] = 0x12;  // breaks the signature
  moxhost::MemoryIo io(bytes);
  moxhost::CountingMemory memory;
  EXPECT_EQ(hOLEopen(io.io(), memory.memory()), nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(hOLEopenEXT(io.io(), memory.memory(), 0), nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(OpenClose, FailingIoOpenStillClosesTheIoAndFreesTheHandle) {
  moxhost::MemoryIo io(sampleFile());
  io.failOpen(true);
  moxhost::CountingMemory memory;
  EXPECT_EQ(hOLEopen(io.io(), memory.memory()), nullptr);
  EXPECT_EQ(io.openCalls(), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

TEST(OpenClose, FailedHandleAllocationTouchesNothing) {
  moxhost::MemoryIo io(sampleFile());
  io.record(true);
  moxhost::CountingMemory memory;
  memory.faults().failAt(1);
  EXPECT_EQ(hOLEopen(io.io(), memory.memory()), nullptr);
  EXPECT_TRUE(io.calls().empty());
}

// Fail allocation 1, 2, 3, ... until the open succeeds: every failure must
// leave nothing allocated and close the I/O object once.
TEST(OpenClose, AllocationFailureSweepLeavesNothingBehind) {
  const cfb::Bytes bytes = sampleFile();
  for (int64_t n = 1;; ++n) {
    moxhost::MemoryIo io(bytes);
    moxhost::CountingMemory memory;
    memory.faults().failAt(n);
    _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
    if (h != nullptr) {
      EXPECT_FALSE(memory.faults().fired()) << "opened although allocation " << n << " failed";
      iOLEclose(h);
      EXPECT_EQ(memory.liveBlocks(), 0);
      EXPECT_GT(n, 4) << "the open allocates handle, FAT table and buffers, mini FAT, directory";
      break;
    }
    EXPECT_EQ(memory.liveBlocks(), 0) << "leak after failing allocation " << n;
    // Without a handle the I/O object is never touched; after that it is
    // opened and, on failure, closed once.
    EXPECT_EQ(io.closeCalls(), n == 1 ? 0 : 1);
  }
}

// Every read and every seek the open makes, cut short or refused in turn.
TEST(OpenClose, IoFaultSweepLeavesNothingBehind) {
  const cfb::Bytes bytes = sampleFile();
  moxhost::MemoryIo probe(bytes);
  moxhost::CountingMemory probeMemory;
  _MoxOleFile* h = hOLEopen(probe.io(), probeMemory.memory());
  ASSERT_NE(h, nullptr);
  iOLEclose(h);
  for (int64_t n = 1; n <= probe.readCalls(); ++n) {
    for (int bytesRead : {0, 1, 127}) {
      moxhost::MemoryIo io(bytes);
      io.shortReadAt(n, bytesRead);
      moxhost::CountingMemory memory;
      _MoxOleFile* got = hOLEopen(io.io(), memory.memory());
      // Read 2 is the only FAT sector, which may be cut short: the missing
      // entries read as free.  Every other short read fails the open.
      if (n != 2) {
        EXPECT_EQ(got, nullptr) << "short read " << n << " went unnoticed";
      }
      if (got) iOLEclose(got);
      EXPECT_EQ(memory.liveBlocks(), 0);
    }
  }
  for (int64_t n = 2; n <= probe.seekCalls(); ++n) {  // the header seek's result is ignored
    moxhost::MemoryIo io(bytes);
    io.failSeekAt(n);
    moxhost::CountingMemory memory;
    _MoxOleFile* got = hOLEopen(io.io(), memory.memory());
    EXPECT_EQ(got, nullptr) << "failed seek " << n << " went unnoticed";
    if (got) iOLEclose(got);
    EXPECT_EQ(memory.liveBlocks(), 0);
  }
}

}  // namespace
