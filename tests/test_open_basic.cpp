// Opening, cloning and closing handles: the contract with the host's I/O
// object and memory interface.
#include <gtest/gtest.h>

#include "host/moxhost.h"
#include "interface/mox_file.h"
#include "support/cfb_builder.h"

namespace {

cfb::Bytes sampleFile() {
  cfb::CfbBuilder b;
  int s = b.addStorage(0, "Sub");
  b.addStream(0, "Small", cfb::Bytes(100, 7));
  b.addStream(s, "Big", cfb::Bytes(5000, 9));
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
  EXPECT_EQ(h->iDirCount, 4);
  EXPECT_STREQ(h->pDir[0].szName, "Root Entry");
  EXPECT_EQ(h->pIo, io.io());
  EXPECT_EQ(h->pHostIo, io.io());
  EXPECT_EQ(h->pMemory, memory.memory());
  EXPECT_EQ(h->pTableMemory, memory.memory());
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(io.closeCalls(), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

}  // namespace
