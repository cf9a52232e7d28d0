// CMoxOleIo: byte order, buffering and flushing as the host sees them, and
// the ways opening can fail.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "host/moxhost.h"
#include "support/leak_report.h"
#include "writer/oleio.h"

namespace {

using moxhost::IoCall;

constexpr int kBuffer = kOleIoBufferSize;

// One host call as the tests compare them: kind, position and count.
struct Call {
  IoCall::Kind kind;
  int64_t position;
  int64_t count;
  bool operator==(const Call& o) const {
    return kind == o.kind && position == o.position && count == o.count;
  }
};

std::ostream& operator<<(std::ostream& out, const Call& c) {
  static const char* kNames[] = {"open", "read", "write", "seek", "tell", "close"};
  return out << kNames[c.kind] << "(" << c.position << ", " << c.count << ")";
}

class OleIoTest : public ::testing::Test {
 protected:
  void SetUp() override { file.record(true); }
  void TearDown() override {
    out.reset();
    EXPECT_EQ(moxtest::leakReport(host), "");
  }

  // Opens a fresh output on file and forgets the open call.
  void openOutput() {
    out = std::make_unique<CMoxOleIo>(host.services());
    ASSERT_EQ(out->open(file.io()), 0);
    file.clearCalls();
  }

  // The host calls since the last clear, without tells.
  std::vector<Call> hostCalls() const {
    std::vector<Call> calls;
    for (const IoCall& c : file.calls()) {
      if (c.kind != IoCall::kTell) calls.push_back({c.kind, c.position, c.count});
    }
    return calls;
  }

  // Bytes 0, 1, 2, ... wrapping at 251 so that a shifted copy shows.
  static std::vector<unsigned char> pattern(size_t n) {
    std::vector<unsigned char> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(i % 251);
    return bytes;
  }

  moxhost::PoolServices host;
  moxhost::MemoryIo file;
  std::unique_ptr<CMoxOleIo> out;
};

TEST_F(OleIoTest, IntegersAreLittleEndianAndTruncated) {
  openOutput();
  EXPECT_EQ(out->write4ByteInt(-2), 0);
  EXPECT_EQ(out->write4ByteInt((1L << 32) + 0x12345), 0);
  out.reset();
  std::vector<uint8_t> expected = {0xFE, 0xFF, 0xFF, 0xFF, 0x45, 0x23, 0x01, 0x00};
  EXPECT_EQ(file.bytes(), expected);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, 8}, {IoCall::kClose, 8, 0}}));
}

// A record that does not fit sends the buffered bytes first and starts the
// next buffer; it is kept even when that hand-over fails.
TEST_F(OleIoTest, ARecordGoesWholeIntoTheBuffer) {
  openOutput();
  auto data = pattern(kBuffer - 100);
  auto record = pattern(128);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 100), 0);
  ASSERT_EQ(out->writeRecord(record.data(), 128), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer - 100}}));
  EXPECT_EQ(out->iBufferUsed, 128);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 200), 0);
  file.failWriteAt(1);  // the hand-over this record needs
  EXPECT_EQ(out->writeRecord(record.data(), 128), 16);
  EXPECT_EQ(out->iBufferUsed, 128);
  EXPECT_EQ(out->writeRecord(record.data(), kBuffer + 1), 16);
  EXPECT_EQ(out->iBufferUsed, 128);
  out.reset();
  ASSERT_EQ(file.bytes().size(), static_cast<size_t>(kBuffer - 100 + 128));
  EXPECT_TRUE(std::equal(record.begin(), record.end(), file.bytes().end() - 128));
}

TEST_F(OleIoTest, OpenMakesOneBufferFromItsOwnPool) {
  out = std::make_unique<CMoxOleIo>(host.services());
  EXPECT_EQ(host.poolsCreated(), 0);  // the constructor takes nothing
  ASSERT_EQ(out->open(file.io()), 0);
  EXPECT_EQ(file.openCalls(), 1);
  EXPECT_EQ(host.livePools(), 1);
  EXPECT_EQ(host.lastInitialSize(), 4096);
  EXPECT_EQ(host.lastFlags(), 0);
  EXPECT_EQ(host.poolAllocateCalls(), 1);
  EXPECT_EQ(out->iBufferSize, kBuffer);
  EXPECT_EQ(out->getPos(), 0);
  ASSERT_EQ(out->write4ByteInt(7), 0);
  EXPECT_EQ(out->getPos(), 4);
  EXPECT_EQ(file.writeCalls(), 0);
  out.reset();
  EXPECT_EQ(file.writeCalls(), 1);
  EXPECT_EQ(file.closeCalls(), 1);
  EXPECT_EQ(host.livePools(), 0);
}

TEST_F(OleIoTest, AnIntegerIsNeverSplitAcrossHostWrites) {
  openOutput();
  auto data = pattern(kBuffer - 2);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 2), 0);
  EXPECT_EQ(file.writeCalls(), 0);
  ASSERT_EQ(out->write4ByteInt(0x0A0B0C0D), 0);
  EXPECT_EQ(out->iBufferUsed, 4);
  EXPECT_EQ(out->getPos(), kBuffer + 2);
  out.reset();
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer - 2},
                                            {IoCall::kWrite, kBuffer - 2, 4},
                                            {IoCall::kClose, kBuffer + 2, 0}}));
  ASSERT_EQ(file.bytes().size(), static_cast<size_t>(kBuffer + 2));
  EXPECT_EQ(file.bytes()[kBuffer - 3], data.back());
  EXPECT_EQ(file.bytes()[kBuffer - 2], 0x0D);
  EXPECT_EQ(file.bytes()[kBuffer + 1], 0x0A);
}

TEST_F(OleIoTest, AnIntegerThatExactlyFitsStaysBufferedUntilMoreComes) {
  openOutput();
  auto data = pattern(kBuffer - 4);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 4), 0);
  ASSERT_EQ(out->write4ByteInt(1), 0);
  EXPECT_EQ(out->iBufferUsed, kBuffer);
  EXPECT_EQ(file.writeCalls(), 0);
  ASSERT_EQ(out->write4ByteInt(2), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer}}));
  EXPECT_EQ(out->iBufferUsed, 4);
}

TEST_F(OleIoTest, LongRunsReachTheHostInBufferSizedPieces) {
  openOutput();
  auto data = pattern(3 * kBuffer);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer + 10), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer}}));
  EXPECT_EQ(out->iBufferUsed, 10);

  // A partly filled buffer is completed first, then whole pieces follow.
  file.clearCalls();
  ASSERT_EQ(out->writeBytes(data.data() + kBuffer + 10, 2 * kBuffer - 10), 0);
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, kBuffer, kBuffer},
                                            {IoCall::kWrite, 2 * kBuffer, kBuffer}}));
  EXPECT_EQ(out->iBufferUsed, 0);
  out.reset();
  EXPECT_EQ(file.bytes(), std::vector<uint8_t>(data.begin(), data.end()));
}

TEST_F(OleIoTest, EmptyAndBadWrites) {
  openOutput();
  unsigned char byte = 1;
  EXPECT_EQ(out->writeBytes(&byte, 0), 0);
  EXPECT_EQ(out->writeBytes(nullptr, 1), 16);
  EXPECT_EQ(out->writeBytes(&byte, -1), 16);
  EXPECT_EQ(out->iBufferUsed, 0);
  EXPECT_EQ(file.writeCalls(), 0);

  // A zero-byte write on a full buffer hands the buffer over.
  auto data = pattern(kBuffer);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 4), 0);
  ASSERT_EQ(out->write4ByteInt(0), 0);
  EXPECT_EQ(out->writeBytes(&byte, -1), 16);
  EXPECT_EQ(out->iBufferUsed, kBuffer);
  EXPECT_EQ(out->writeBytes(&byte, 0), 0);
  EXPECT_EQ(out->iBufferUsed, 0);
  // flush hands over even an empty buffer; the destructor does not.
  EXPECT_EQ(out->flush(), 0);
  out.reset();
  EXPECT_EQ(hostCalls(), (std::vector<Call>{{IoCall::kWrite, 0, kBuffer},
                                            {IoCall::kWrite, kBuffer, 0},
                                            {IoCall::kClose, kBuffer, 0}}));
}

TEST_F(OleIoTest, AFailedHostWriteInARunLosesThatPieceOnly) {
  openOutput();
  file.failWriteAt(2);
  auto data = pattern(3 * kBuffer + 5);
  EXPECT_EQ(out->writeBytes(data.data(), 3 * kBuffer + 5), 16);
  EXPECT_EQ(out->iBufferUsed, 0);
  EXPECT_EQ(file.writeCalls(), 2);  // the third piece was never copied
  EXPECT_EQ(file.position(), kBuffer);

  // No lasting error: the next bytes go out after the first piece.
  ASSERT_EQ(out->writeBytes(data.data() + 3 * kBuffer, 5), 0);
  EXPECT_EQ(out->getPos(), kBuffer + 5);
  out.reset();
  ASSERT_EQ(file.bytes().size(), static_cast<size_t>(kBuffer + 5));
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + kBuffer, file.bytes().begin()));
  EXPECT_TRUE(std::equal(data.end() - 5, data.end(), file.bytes().end() - 5));
}

TEST_F(OleIoTest, AFailedFlushForAnIntegerDropsTheBufferAndTheValue) {
  openOutput();
  file.failWriteAt(1);
  auto data = pattern(kBuffer - 2);
  ASSERT_EQ(out->writeBytes(data.data(), kBuffer - 2), 0);
  EXPECT_EQ(out->write4ByteInt(0x11223344), 16);
  EXPECT_EQ(out->iBufferUsed, 0);
  EXPECT_EQ(out->write4ByteInt(0x5566), 0);
  out.reset();
  EXPECT_EQ(file.bytes(), (std::vector<uint8_t>{0x66, 0x55, 0, 0}));
}

TEST_F(OleIoTest, OpenRefusesMissingAndSecondObjects) {
  out = std::make_unique<CMoxOleIo>(host.services());
  EXPECT_EQ(out->open(nullptr), 14);
  EXPECT_EQ(out->pIoObj, nullptr);
  ASSERT_EQ(out->open(file.io()), 0);
  moxhost::MemoryIo other;
  EXPECT_EQ(out->open(other.io()), 14);
  EXPECT_EQ(out->pIoObj, file.io());
  EXPECT_EQ(host.poolsCreated(), 1);
  out.reset();
  EXPECT_EQ(file.closeCalls(), 1);
  EXPECT_EQ(other.openCalls() + other.closeCalls(), 0);
}

// Objects that cannot serve as output: open says 14, makes no buffer, and
// the object's close runs exactly once over open and destructor together:
// right away for one that cannot write, later for one that stays attached.
TEST_F(OleIoTest, UnfitObjectsAreRefusedAndClosedExactlyOnce) {
  struct Case {
    const char* what;
    void (*spoil)(moxhost::MemoryIo&);
    int closesAtOpen;
  } cases[] = {
      {"no write", [](moxhost::MemoryIo& io) { io.setWritable(false); }, 1},
      {"open fails", [](moxhost::MemoryIo& io) { io.failOpen(true); }, 0},
      {"no open", [](moxhost::MemoryIo& io) { io.io()->open = nullptr; }, 0},
  };
  for (const Case& c : cases) {
    moxhost::MemoryIo target;
    c.spoil(target);
    out = std::make_unique<CMoxOleIo>(host.services());
    EXPECT_EQ(out->open(target.io()), 14) << c.what;
    EXPECT_EQ(target.closeCalls(), c.closesAtOpen) << c.what;
    EXPECT_EQ(out->write4ByteInt(1), 16) << c.what;
    out.reset();
    EXPECT_EQ(target.closeCalls(), 1) << c.what;
    EXPECT_EQ(target.writeCalls(), 0) << c.what;
  }
  moxhost::MemoryIo noClose;  // stays attached; nothing to call at the end
  noClose.io()->close = nullptr;
  out = std::make_unique<CMoxOleIo>(host.services());
  EXPECT_EQ(out->open(noClose.io()), 14);
  EXPECT_EQ(out->pIoObj, noClose.io());
  out.reset();
  EXPECT_EQ(host.poolsCreated(), 0);
}

TEST_F(OleIoTest, MemoryFailuresInOpenKeepTheObjectForTheDestructor) {
  for (int attempt = 1; attempt <= 2; ++attempt) {  // the pool, then the buffer
    moxhost::MemoryIo target;
    out = std::make_unique<CMoxOleIo>(host.services());
    host.faults().failAt(attempt);
    EXPECT_EQ(out->open(target.io()), 2) << "attempt " << attempt;
    EXPECT_EQ(out->pBuffer, nullptr);
    EXPECT_EQ(out->write4ByteInt(1), 16);
    EXPECT_EQ(host.livePools(), attempt == 1 ? 0 : 1);
    out.reset();
    EXPECT_EQ(target.closeCalls(), 1);
    EXPECT_EQ(target.writeCalls(), 0);
    EXPECT_EQ(host.livePools(), 0);
  }
  host.faults().disarm();
}

TEST_F(OleIoTest, DetachedOutputHasNothingToWriteTo) {
  out = std::make_unique<CMoxOleIo>(host.services());
  unsigned char byte = 0;
  EXPECT_EQ(out->flush(), 16);
  EXPECT_EQ(out->writeBytes(&byte, 1), 16);
  EXPECT_EQ(out->getPos(), -1);
}

}  // namespace
