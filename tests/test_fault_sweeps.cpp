// Every allocation and every host read, seek and write of a host's job
// made to fail in turn, one table row per job and kind of fault: nothing
// may leak or crash, the host's object is closed once if it was opened,
// and whatever is read or written is still right as far as it goes.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/corpus_files.h"
#include "support/fault_sweep.h"
#include "support/stream_kit.h"
#include "support/write_kit.h"

namespace {

using cfb::Bytes;
using moxtest::Fault;
using streamkit::pattern;
using streamkit::readToEnd;

struct SampleStream {
  std::string storage;  // empty: the root
  std::string name;
  Bytes data;
};

// The streams of the compound file in "Nested".
const std::vector<SampleStream> kInner = {{"", "InnerMini", pattern(150, 1)}, {"", "InnerBig", pattern(5000, 2)}};

struct Sample {
  std::vector<SampleStream> streams;
  Bytes file;
};

Sample makeSample(bool withSplitList) {
  Sample s;
  cfb::CfbBuilder inner;
  for (const SampleStream& stream : kInner) inner.addStream(0, stream.name, stream.data);
  Bytes meta = pattern(25008, 8);  // "_1" is an embedded object too
  meta[0] = 8;  // the metafile header's own length
  meta[1] = 0;
  s.streams = {{"", "Empty", {}},
               {"", "Mini", pattern(1000, 3)},
               {"", "WordDocument", pattern(6000, 4)},
               {"_1", "Data", pattern(4095, 5)},
               {"_1", "Wide", pattern(4096, 6)},
               {"_1", "\x03META", meta},
               {"", "Nested", inner.build()}};
  // Long enough for its sector list to be split in two.
  if (withSplitList) s.streams.push_back({"", "Long", pattern(16384 * 512, 7)});
  cfb::CfbBuilder b;
  int obj = b.addStorage(0, "_1");
  for (const SampleStream& stream : s.streams) b.addStream(stream.storage.empty() ? 0 : obj, stream.name, stream.data);
  s.file = b.build();
  return s;
}

// --- Reading every stream every way ------------------------------------------

// Faults while loading may leave tables that are wrong but tolerated (a
// short last FAT sector reads as zeros), so contents are only compared
// when faults start after the open.  Undisturbed, everything must come.
enum class Check { kNothing, kPrefix, kWhole };

void expectPrefix(Check check, const Bytes& read, const Bytes& data, const std::string& what) {
  if (check == Check::kNothing) return;
  const bool prefix = read.size() <= data.size() && std::equal(read.begin(), read.end(), data.begin());
  EXPECT_TRUE(prefix && (check == Check::kPrefix || read.size() == data.size()))
      << what << ": " << read.size() << " of " << data.size() << " bytes";
}

// Each of `streams` by name and by path, a nested document's streams too.
void readStreams(Check check, _MoxOleFile* h, const std::vector<SampleStream>& streams, HostMemory* memory) {
  for (const SampleStream& stream : streams) {
    const char* storage = stream.storage.empty() ? nullptr : stream.storage.c_str();
    char path[1][36] = {};
    strncpy(path[0], stream.storage.c_str(), 35);
    const bool byName = bOLEopenEmbeddedStream(h, stream.name.c_str(), storage);
    if (byName) expectPrefix(check, readToEnd(h, 5000), stream.data, stream.name);
    if (_ZqTPIOobj* io = byName && stream.name == "Nested" ? hSwitchToOLE(h) : nullptr) {
      _MoxOleFile* inner = hOLEopen(io, memory);
      EXPECT_TRUE(inner != nullptr || check != Check::kWhole);
      if (inner != nullptr) {
        readStreams(check, inner, kInner, memory);
        bOLEcloseStream(inner, nullptr);
        iOLEclose(inner);
      }
      hSwitchFromOLE(h);
    }
    const bool byPath = bOLEopenEmbeddedStreamEx(h, path, storage ? 1 : 0, stream.name.c_str());
    if (byPath) expectPrefix(check, readToEnd(h, 4096), stream.data, stream.name);
    EXPECT_TRUE((byName && byPath) || check != Check::kWhole) << stream.name;
  }
}

// Opens the document, reads `streams` in each of the ways there are and
// copies the object out, then reads every entry by number: a fault may
// lose an entry, never change one that still reads whole.
int64_t readJob(const Sample& s, Fault f, int64_t n, bool afterOpen) {
  moxhost::MemoryIo io(s.file);
  moxhost::CountingMemory memory;
  Check check = n == 0 ? Check::kWhole : Check::kPrefix;
  if (!afterOpen) {
    moxtest::arm(f, n, io, memory.faults());
    if (f != Fault::kAllocation && n > 0) check = Check::kNothing;
  }
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  static int64_t opening;  // occurrences of the fault an undisturbed open makes, for the row
  static std::map<int, Bytes> whole;  // entries as the row's undisturbed run reads them
  if (n == 0 && !afterOpen) opening = moxtest::occurrences(f, io, memory.faults());
  if (n == 0) whole.clear();
  // Read 2 is the only FAT sector, which may be cut short (the missing
  // entries read as free); the header seek's result is ignored.  Every
  // other failure in the open fails it.
  const bool tolerated =
      afterOpen || ((f == Fault::kEmptyRead || f == Fault::kShortRead) && n == 2) || (f == Fault::kSeek && n == 1);
  EXPECT_TRUE(tolerated || (h != nullptr) == (n == 0 || n > opening)) << "opened: " << (h != nullptr);
  if (h != nullptr) {
    if (afterOpen) moxtest::arm(f, n, io, memory.faults());
    readStreams(check, h, s.streams, memory.memory());
    // The sample's object copied out, succeeding or not, a host reading
    // WordDocument finds its stream where it was.
    if (!s.streams.empty()) {
      const bool placed = bOLEopenStream(h, "WordDocument") && lOLEseek(h, 100, 0) == 100;
      const int copied = placed ? bOLEgetObject(h, 1, const_cast<char*>("/dev/null"), 3) : 0;
      EXPECT_TRUE(copied == 1 || check != Check::kWhole);
      EXPECT_EQ(copied == 1 ? lOLEtell(h) : 100, 100);
    }
    for (int entry = 0; entry < h->iDirCount; ++entry) {
      if (iReadStreamChain(entry, h) != 0 || lOLEseek(h, 0, 0) != 0) continue;
      const Bytes data = readToEnd(h, 65536);
      if (n == 0) whole[entry] = data;
      const bool comparable = check != Check::kNothing && static_cast<int64_t>(data.size()) == h->lStreamSize;
      EXPECT_TRUE(!comparable || (whole.count(entry) && whole[entry] == data)) << "entry " << entry;
    }
    bOLEcloseStream(h, nullptr);
    EXPECT_EQ(iOLEclose(h), 1);
  }
  EXPECT_EQ(memory.liveBlocks(), 0);
  EXPECT_EQ(io.closeCalls(), io.openCalls());
  EXPECT_LE(io.openCalls(), 1);
  return moxtest::occurrences(f, io, memory.faults());
}

// --- Writing ------------------------------------------------------------------

writekit::Shape sessionShape() {
  writekit::Shape shape = {{"Store", 1, {}}, {"Store\\Big", 2, pattern(200000, 8)}};
  for (int i = 0; i < 40; ++i) shape.push_back({"Store\\s" + std::to_string(i), 2, pattern(100 + 37 * i, i)});
  return shape;
}

// A whole session (open, creates, writes, close) with the services'
// memory failing.  Each call works or reports 2.  A careful host retries a
// refused creation, which must then work and leave the document exactly
// as if nothing had failed; a refused write ends the session.  Or, with
// `reading`, the document that session writes opened read-only: lookups
// fail cleanly or find what it holds, and nothing is ever written.
int64_t sessionJob(Fault f, int64_t n, bool reading) {
  static const writekit::Shape shape = sessionShape();
  static const Bytes whole = writekit::write(shape);
  moxhost::PoolServices host;
  moxhost::MemoryIo io(reading ? whole : Bytes());
  moxtest::arm(f, n, io, host.faults());
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), reading ? 0 : 1);
  EXPECT_TRUE(h != nullptr || n > 0);
  bool failed = h == nullptr, retried = false;
  for (size_t i = 0; !failed && i < shape.size(); ++i) {
    const writekit::Part& p = shape[i];
    if (reading) {
      const int status = p.type == 2 ? iOLEopenStreamEx(h, p.path.c_str(), 0, 0) : 0;
      EXPECT_TRUE(status == 0 || (n > 0 && (status == 6 || status == -1))) << p.path << ": " << status;
      EXPECT_TRUE(status != 0 || readToEnd(h) == p.data) << p.path;
      continue;
    }
    int status = iOLEopenStreamEx(h, p.path.c_str(), p.type, 1);
    if (status == 2) {
      retried = true;
      status = iOLEopenStreamEx(h, p.path.c_str(), p.type, 1);
      EXPECT_EQ(status, 0) << p.path << ": the refused creation left something behind";
    }
    if (status == 0 && !p.data.empty()) {
      status = iOLEwrite(h, const_cast<unsigned char*>(p.data.data()), static_cast<int>(p.data.size()));
    }
    EXPECT_TRUE(status == 0 || status == 2) << p.path << ": " << status;
    failed = status != 0;
  }
  EXPECT_EQ(h == nullptr ? 1 : iOLEclose(h), 1);
  EXPECT_TRUE((n > 0 && !(retried && !failed)) || io.bytes() == whole) << "not as an undisturbed session writes it";
  EXPECT_TRUE(!reading || io.writeCalls() == 0);
  EXPECT_EQ(writekit::leakReport(host), "");
  EXPECT_EQ(io.closeCalls(), io.openCalls());
  EXPECT_LE(io.openCalls(), 1);
  return moxtest::occurrences(f, io, host.faults());
}

// Every region of the close outgrows the 64 KiB output buffer, so that
// host writes happen inside each: DIFAT and a FAT of 170 sectors, 296 mini
// FAT sectors, 151 directory sectors, an 8 MiB stream, 2.3 MiB of mini
// stream.  A refused write is never retried: the file comes out short.
int64_t closeJob(Fault f, int64_t n) {
  writekit::NewFile file;
  EXPECT_EQ(file.stream("Big", pattern(16384 * 512, 1)), 0);
  for (int i = 0; i < 600; ++i) EXPECT_EQ(file.stream("m" + std::to_string(i), pattern(4000, i)), 0);
  moxtest::arm(f, n, file.io(), file.host().faults());
  const Bytes& got = file.close();  // checks leaks and the one close
  static const size_t wholeSize = got.size();  // the undisturbed run comes first
  EXPECT_TRUE(n == 0 ? writekit::u32(got, 0x48) == 1u : got.size() < wholeSize)
      << (n == 0 ? "not one DIFAT sector" : "a refused write did not cut the file short");
  return file.io().writeCalls();
}

// --- The table ------------------------------------------------------------------

struct Case {
  std::string job;
  Fault fault;
  std::function<int64_t(Fault, int64_t)> run;
  int64_t minimum = 1;  // occurrences the undisturbed job must make
  int64_t thin = 1;
};

std::vector<Case> cases() {
  std::vector<Case> all;
  static const Sample plain = makeSample(false), split = makeSample(true);
  auto reads = [](const Sample& s, bool afterOpen) {
    return [&s, afterOpen](Fault f, int64_t n) { return readJob(s, f, n, afterOpen); };
  };
  all.push_back({"ReadEverything", Fault::kAllocation, reads(split, false), 100});
  for (Fault f : {Fault::kEmptyRead, Fault::kShortRead, Fault::kSeek, Fault::kSeeksFrom}) {
    all.push_back({"ReadEverythingFromOpen", f, reads(plain, false), 11});
    all.push_back({"ReadEverythingAfterOpen", f, reads(plain, true), 11});
  }
  all.push_back({"WriterSession", Fault::kAllocation, [](Fault f, int64_t n) { return sessionJob(f, n, false); }, 50});
  all.push_back({"WriterClose", Fault::kWrite, closeJob, 150, 5});
  all.push_back({"OpenForReading", Fault::kAllocation, [](Fault f, int64_t n) { return sessionJob(f, n, true); }, 5});
  int i = 0;
  for (const char* path : {"poi/Notes.ole2", "poi/BlockSize4096.zvi", "damaged/rust-cfb/loop_in_minichain",
                           "damaged/compoundfiles/invalid_truncated.dat"}) {
    all.push_back({"Corpus" + std::to_string(i++), Fault::kAllocation, [path](Fault f, int64_t n) {
                     Sample file;  // every entry by number
                     EXPECT_TRUE(moxhost::readFile(corpus::directory() + "/" + path, &file.file)) << path;
                     return readJob(file, f, n, false);
                   }});
  }
  return all;
}

class FaultSweep : public ::testing::TestWithParam<Case> {};

TEST_P(FaultSweep, EveryFailureIsClean) {
  const Case& c = GetParam();
  if (c.job.rfind("Corpus", 0) == 0 && corpus::directory().empty()) GTEST_SKIP() << "no corpus";
  const int64_t total = moxtest::sweep([&c](int64_t n) { return c.run(c.fault, n); }, c.thin);
  EXPECT_GE(total, c.minimum) << "the sweep did not reach far into the job";
}

INSTANTIATE_TEST_SUITE_P(Jobs, FaultSweep, ::testing::ValuesIn(cases()),
                         [](const testing::TestParamInfo<Case>& info) {
                           return info.param.job + moxtest::faultName(info.param.fault);
                         });

}  // namespace
