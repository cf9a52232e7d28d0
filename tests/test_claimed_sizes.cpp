// Headers and chains that claim tables far larger than the file holds.
// The loader must take memory for what it reads, not for what is claimed:
// each case here once made a file of a few kilobytes ask the host for
// hundreds of megabytes or more before failing at its first missing
// sector.  The first was found by the reader fuzz target (a header with a
// FAT count of 218959117 and a DIFAT start past the end of the file).
//
// A host here refuses any request above 64 MB, so a loader that takes
// memory ahead of the file fails fast instead of filling the machine, and
// reports the largest request it saw.
#include <gtest/gtest.h>

#include "host/moxhost.h"
#include "interface/mox_file.h"
#include "support/cfb_builder.h"

namespace {

constexpr int kRefusedAbove = 64 << 20;

class GuardedMemory {
 public:
  GuardedMemory() {
    face_.memory.unused = [](HostMemory*) -> void* { return nullptr; };
    face_.memory.allocate = [](HostMemory* self, int size) { return of(self)->allocate(size); };
    face_.memory.free = [](HostMemory* self, void* block) { of(self)->counting_.release(block); };
    face_.memory.reallocate = [](HostMemory* self, void* block, int size) {
      return of(self)->counting_.reallocate(block, size);
    };
    face_.memory.allocateArray = [](HostMemory* self, int element, int count) {
      return of(self)->counting_.allocateArray(element, count);
    };
    face_.owner = this;
  }
  HostMemory* memory() { return &face_.memory; }
  int largestRequest() const { return largest_; }
  int64_t liveBlocks() const { return counting_.liveBlocks(); }

 private:
  struct Face {
    HostMemory memory;
    GuardedMemory* owner;
  };
  static GuardedMemory* of(HostMemory* self) { return reinterpret_cast<Face*>(self)->owner; }
  void* allocate(int size) {
    if (size > largest_) largest_ = size;
    return size > kRefusedAbove ? nullptr : counting_.allocate(size);
  }

  moxhost::CountingMemory counting_;
  Face face_;
  int largest_ = 0;
};

// Opens bytes on a guarded host; the handle (or null) and the host.
struct GuardedOpen {
  explicit GuardedOpen(cfb::Bytes bytes) : io(std::move(bytes)) {
    h = hOLEopen(io.io(), memory.memory());
  }
  ~GuardedOpen() {
    if (h != nullptr) iOLEclose(h);
    EXPECT_EQ(memory.liveBlocks(), 0);
  }
  moxhost::MemoryIo io;
  GuardedMemory memory;
  _MoxOleFile* h = nullptr;
};

cfb::CfbBuilder smallDocument(unsigned shift = 9) {
  cfb::CfbBuilder b(shift);
  b.addStream(0, "Small", cfb::Bytes(100, 1));
  b.addStream(0, "Large", cfb::Bytes(5000, 2));
  return b;
}

TEST(ClaimedSizes, FatCountFarPastTheFileTakesMemoryOnlyForWhatIsRead) {
  cfb::CfbLayout l = smallDocument().layout();
  // The fuzzer's file: a FAT count whose table alone is 1.7 GB, the
  // header's 109 slots all readable, a DIFAT sector past the end.
  l.deriveDifat = false;
  for (int i = 0; i < 109; ++i) l.header.difat[i] = i == 0 ? l.fatSectors[0] : cfb::kFree;
  l.header.fatSectors = 218959117;
  l.header.difatStart = 100000;
  l.header.difatSectors = 1;
  GuardedOpen doc(l.serialize());
  EXPECT_EQ(doc.h, nullptr);
  EXPECT_LE(doc.memory.largestRequest(), 4096);
}

TEST(ClaimedSizes, FatCountWhoseTableCannotBeAskedForStillFails) {
  cfb::CfbLayout l = smallDocument().layout();
  l.deriveDifat = false;
  for (int i = 0; i < 109; ++i) l.header.difat[i] = i == 0 ? l.fatSectors[0] : cfb::kFree;
  l.header.fatSectors = 0x7FFFFFFF;  // 16 GB of pointers: past 31 bits
  l.header.difatStart = 0;
  l.header.difatSectors = 1;
  GuardedOpen doc(l.serialize());
  EXPECT_EQ(doc.h, nullptr);
  EXPECT_EQ(doc.io.readCalls(), 1) << "refused before any FAT sector is read";
}

TEST(ClaimedSizes, MiniFatCountFarPastTheFileTakesMemoryOnlyForWhatIsRead) {
  cfb::CfbLayout l = smallDocument().layout();
  ASSERT_EQ(l.miniFatSectors.size(), 1u);
  // 1.5 GB of mini FAT claimed; the chain ends after its one sector.
  l.header.miniFatSectors = 1000000;
  GuardedOpen doc(l.serialize());
  EXPECT_EQ(doc.h, nullptr);
  EXPECT_LE(doc.memory.largestRequest(), 4096);
}

TEST(ClaimedSizes, CyclicMiniFatChainFailsAtItsFirstReturn) {
  cfb::CfbLayout l = smallDocument().layout();
  const uint32_t sector = l.miniFatSectors[0];
  l.fat[sector] = sector;  // the mini FAT chain returns to itself
  l.header.miniFatSectors = 3000;
  GuardedOpen doc(l.serialize());
  EXPECT_EQ(doc.h, nullptr);
  EXPECT_LE(doc.io.readCalls(), 3) << "header, FAT sector, the mini FAT sector once";
  // A one-sector mini FAT whose link leads back to itself reads no further
  // and is kept: its chain is not followed.
  l.header.miniFatSectors = 1;
  GuardedOpen single(l.serialize());
  EXPECT_NE(single.h, nullptr);
}

TEST(ClaimedSizes, DirectoryChainFarPastTheFileTakesMemoryOnlyForWhatIsRead) {
  // 4096-byte sectors and 20 FAT sectors: the FAT describes 20480 sectors,
  // and the directory's chain runs through nearly all of them, past the
  // end of a file of some 90 kB.  Counted, that is 650000 records.
  cfb::CfbLayout l = smallDocument(12).layout();
  uint32_t next = l.sectorCount();
  l.fat.resize(20 * 1024, cfb::kFree);
  while (l.fatSectors.size() < 20) {
    l.fat[next] = cfb::kFatSect;
    l.fatSectors.push_back(next++);
  }
  l.header.fatSectors = 20;
  uint32_t at = l.dirSectors.back();
  for (uint32_t s = next + 1; s < 20300; at = s++) l.fat[at] = s;
  l.fat[at] = cfb::kEnd;
  GuardedOpen doc(l.serialize());
  EXPECT_EQ(doc.h, nullptr);
  EXPECT_LE(doc.memory.largestRequest(), 2 * 32 * static_cast<int>(sizeof(_MoxOleDirInfo)));
}

TEST(ClaimedSizes, LongDirectoriesStillLoadWhole) {
  cfb::CfbBuilder b;
  for (int n = 0; n < 1500; ++n) b.addStream(0, "e" + std::to_string(n), cfb::Bytes(n % 9, 3));
  GuardedOpen doc(b.build());
  ASSERT_NE(doc.h, nullptr);
  ASSERT_EQ(doc.h->iDirCount, 1504);  // root, 1500 streams, 3 empty slots
  EXPECT_EQ(doc.h->pDir[1500].szName, std::string("e1499"));
  EXPECT_EQ(doc.h->pDir[1503].byType, 0);
  EXPECT_EQ(bOLEopenStream(doc.h, "e1498"), 1);
  unsigned char buffer[16];
  EXPECT_EQ(iOLEread(doc.h, buffer, sizeof buffer), 1498u % 9);
  bOLEcloseStream(doc.h, nullptr);
}

}  // namespace
