// Every allocation and every host call of opening and reading all streams
// of a document made to fail in turn: nothing may leak or crash, and what
// is read must still be the stream's own bytes.
#include <gtest/gtest.h>

#include <functional>
#include <string.h>

#include "support/stream_kit.h"

namespace {

using cfb::Bytes;
using streamkit::pattern;
using streamkit::readToEnd;

struct SampleStream {
  std::string storage;  // empty: the root
  std::string name;
  Bytes data;
};

struct Sample {
  std::vector<SampleStream> streams;
  std::vector<SampleStream> innerStreams;  // of the compound file in "Nested"
  Bytes file;
};

Sample makeSample(bool withSplitList) {
  Sample s;
  s.innerStreams = {{"", "InnerMini", pattern(150, 1)}, {"", "InnerBig", pattern(5000, 2)}};
  cfb::CfbBuilder inner;
  for (const SampleStream& stream : s.innerStreams) inner.addStream(0, stream.name, stream.data);
  const Bytes nested = inner.build();
  s.streams = {{"", "Empty", {}},
               {"", "Mini", pattern(1000, 3)},
               {"", "Regular", pattern(6000, 4)},
               {"Obj", "Data", pattern(4095, 5)},
               {"Obj", "Wide", pattern(4096, 6)},
               {"", "Nested", nested}};
  if (withSplitList) s.streams.push_back({"", "Long", pattern(16384 * 512, 7)});
  cfb::CfbBuilder b;
  int obj = b.addStorage(0, "Obj");
  for (const SampleStream& stream : s.streams) {
    b.addStream(stream.storage.empty() ? 0 : obj, stream.name, stream.data);
  }
  s.file = b.build();
  return s;
}

// A run of the job: what may fail, and whether what is read can still be
// checked.  Faults while loading may leave tables that are wrong but
// tolerated (a short last FAT sector reads as zeros), so stream contents
// are only compared when the faults start after the open.
struct FaultRun {
  std::function<void(moxhost::HostIo&)> armAfterOpen;
  enum Check { kNothing, kPrefix, kWhole } check = kPrefix;
};

// What was read must be a prefix of the stream: faults may cut a read
// short, never change its bytes.  Undisturbed, it must be all of it.
void expectPrefix(const FaultRun& run, const Bytes& read, const Bytes& data,
                  const std::string& what) {
  if (run.check == FaultRun::kWhole) {
    EXPECT_EQ(read.size(), data.size()) << what;
  }
  if (run.check == FaultRun::kNothing) return;
  ASSERT_LE(read.size(), data.size()) << what;
  EXPECT_TRUE(std::equal(read.begin(), read.end(), data.begin())) << what;
}

void readInner(const Sample& s, const FaultRun& run, _MoxOleFile* outer, HostMemory* memory) {
  _ZqTPIOobj* io = hSwitchToOLE(outer);
  if (io == nullptr) return;
  _MoxOleFile* inner = hOLEopen(io, memory);
  if (run.check == FaultRun::kWhole) {
    EXPECT_NE(inner, nullptr);
  }
  if (inner != nullptr) {
    for (const SampleStream& stream : s.innerStreams) {
      if (bOLEopenStream(inner, stream.name.c_str())) {
        expectPrefix(run, readToEnd(inner, 3000), stream.data, stream.name);
      }
    }
    bOLEcloseStream(inner, nullptr);
    iOLEclose(inner);
  }
  hSwitchFromOLE(outer);
}

// Opens the document and every stream in each of the ways there are,
// reading each whole, the nested document included.
void openAndReadEverything(const Sample& s, const FaultRun& run, moxhost::HostIo& io,
                           HostMemory* memory) {
  _MoxOleFile* h = hOLEopen(io.io(), memory);
  if (h == nullptr) return;
  if (run.armAfterOpen) run.armAfterOpen(io);
  for (const SampleStream& stream : s.streams) {
    const char* storage = stream.storage.empty() ? nullptr : stream.storage.c_str();
    char path[1][36] = {};
    strncpy(path[0], stream.storage.c_str(), 35);
    const bool byName = bOLEopenEmbeddedStream(h, stream.name.c_str(), storage);
    if (byName) {
      expectPrefix(run, readToEnd(h, 5000), stream.data, stream.name);
      if (stream.name == "Nested") readInner(s, run, h, memory);
    }
    const bool byPath = bOLEopenEmbeddedStreamEx(h, path, storage ? 1 : 0, stream.name.c_str());
    if (byPath) expectPrefix(run, readToEnd(h, 4096), stream.data, stream.name);
    if (run.check == FaultRun::kWhole) {
      EXPECT_TRUE(byName && byPath) << stream.name;
    }
  }
  for (int entry = 0; entry < h->iDirCount; ++entry) {
    if (iReadStreamChain(entry, h) == 0 && lOLEseek(h, 0, 0) == 0) readToEnd(h, 70000);
  }
  bOLEcloseStream(h, nullptr);
  iOLEclose(h);
}

TEST(StreamFaults, EveryAllocationFailureIsClean) {
  const Sample s = makeSample(true);
  int64_t n = 1;
  for (;; ++n) {
    SCOPED_TRACE(n);
    moxhost::MemoryIo io(s.file);
    moxhost::CountingMemory memory;
    memory.faults().failAt(n);
    openAndReadEverything(s, FaultRun(), io, memory.memory());
    EXPECT_EQ(memory.liveBlocks(), 0);
    if (!memory.faults().fired()) break;
    ASSERT_LT(n, 1000);
  }
  // Loading alone allocates a buffer per FAT sector: the sweep got past it.
  EXPECT_GT(n, 100);
}

using Arm = std::function<void(moxhost::HostIo&, int64_t)>;
using Count = std::function<int64_t(const moxhost::HostIo&)>;

// Runs the job once per call number of one kind of host call, with that
// call failing, counting calls from the start or from after the open.
void sweepHostCalls(const Sample& s, bool fromOpen, const Arm& arm, const Count& calls) {
  int64_t total = 0;
  {
    moxhost::MemoryIo io(s.file);
    moxhost::CountingMemory memory;
    FaultRun undisturbed;
    undisturbed.check = FaultRun::kWhole;
    openAndReadEverything(s, undisturbed, io, memory.memory());
    total = calls(io);
  }
  ASSERT_GT(total, 10);
  for (int64_t n = 1; n <= total; ++n) {
    SCOPED_TRACE(testing::Message() << "call " << n << (fromOpen ? " from open" : ""));
    moxhost::MemoryIo io(s.file);
    moxhost::CountingMemory memory;
    FaultRun run;
    if (fromOpen) {
      arm(io, n);
      run.check = FaultRun::kNothing;
    } else {
      run.armAfterOpen = [&](moxhost::HostIo& opened) { arm(opened, n); };
    }
    openAndReadEverything(s, run, io, memory.memory());
    ASSERT_EQ(memory.liveBlocks(), 0);
  }
}

TEST(StreamFaults, EveryFailedHostSeekIsClean) {
  const Sample s = makeSample(false);
  const Count seeks = [](const moxhost::HostIo& io) { return io.seekCalls(); };
  for (bool fromOpen : {true, false}) {
    sweepHostCalls(s, fromOpen, [](moxhost::HostIo& io, int64_t n) { io.failSeekAt(n); }, seeks);
    sweepHostCalls(s, fromOpen, [](moxhost::HostIo& io, int64_t n) { io.failSeeksFrom(n); },
                   seeks);
  }
}

TEST(StreamFaults, EveryShortHostReadIsClean) {
  const Sample s = makeSample(false);
  const Count reads = [](const moxhost::HostIo& io) { return io.readCalls(); };
  for (bool fromOpen : {true, false}) {
    for (int bytes : {0, 37}) {
      sweepHostCalls(s, fromOpen,
                     [bytes](moxhost::HostIo& io, int64_t n) { io.shortReadAt(n, bytes); }, reads);
    }
  }
}

}  // namespace
