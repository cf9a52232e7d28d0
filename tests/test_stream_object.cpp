// The current stream as an I/O object: its fixed fields and results, and
// a compound file stored in a stream opened as a document of its own.
#include <gtest/gtest.h>

#include "support/stream_kit.h"

namespace {

using cfb::Bytes;
using streamkit::OpenDocument;
using streamkit::pattern;
using streamkit::readToEnd;

TEST(StreamObject, FieldsAndFixedResults) {
  cfb::CfbBuilder b;
  const Bytes data = pattern(6000, 1), other = pattern(300, 2);
  b.addStream(0, "Data", data);
  b.addStream(0, "Other", other);
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  ASSERT_EQ(bOLEopenStream(h, "Data"), 1);
  _ZqTPIOobj* io = hSwitchToOLE(h);
  ASSERT_NE(io, nullptr);
  EXPECT_EQ(io->uiKind, 3u);
  EXPECT_EQ(io->uiKind2, 5u);
  EXPECT_EQ(io->ulWord, 0u);
  EXPECT_EQ(io->pPrivate, h);
  EXPECT_EQ(io->pParent, d.io().io());
  EXPECT_EQ(io->pReserved1, nullptr);
  EXPECT_EQ(io->pReserved2, nullptr);
  EXPECT_EQ(io->pReserved3, nullptr);
  for (void* reserved : io->apReserved) EXPECT_EQ(reserved, nullptr);

  EXPECT_EQ(io->open(io), 1);
  EXPECT_EQ(io->error(io), 0);
  EXPECT_EQ(io->write(io, "xyz", 3), 1);
  EXPECT_EQ(io->close(io), 1);
  EXPECT_EQ(io->seek(io, 0, 3), 0);
  EXPECT_EQ(io->seek(io, 100000, 0), 1);
  EXPECT_EQ(io->tell(io), 6000);
  EXPECT_EQ(io->seek(io, -1000, 1), 1);
  EXPECT_EQ(io->tell(io), lOLEtell(h));
  Bytes buffer(2000);
  EXPECT_EQ(io->read(io, buffer.data(), 2000), 1000);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 1000), Bytes(data.end() - 1000, data.end()));
  EXPECT_EQ(io->read(io, buffer.data(), -1), 0);
  // Writing changed nothing, and whatever stream is current is the one read.
  ASSERT_EQ(bOLEopenStream(h, "Data"), 1);
  EXPECT_EQ(readToEnd(h), data);
  ASSERT_EQ(bOLEopenStream(h, "Other"), 1);
  EXPECT_EQ(io->read(io, buffer.data(), 2000), 300);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 300), other);
  EXPECT_EQ(bOLEcloseStream(h, nullptr), 1);
  EXPECT_EQ(io->seek(io, 0, 0), 0);  // no stream: the seek fails
  EXPECT_EQ(io->read(io, buffer.data(), 10), 0);
}

TEST(StreamObject, SwitchingBackFreesOnceAndReturnsTheHostObject) {
  cfb::CfbBuilder b;
  b.addStream(0, "Data", pattern(10, 3));
  OpenDocument d(b.build());
  ASSERT_NE(d.h(), nullptr);
  _MoxOleFile* h = d.h();
  const int64_t before = d.memory().liveBlocks();
  EXPECT_EQ(hSwitchFromOLE(h), d.io().io());  // nothing made yet
  d.memory().faults().failAt(1);
  EXPECT_EQ(hSwitchToOLE(h), nullptr);
  ASSERT_NE(hSwitchToOLE(h), nullptr);
  EXPECT_EQ(d.memory().liveBlocks(), before + 1);
  EXPECT_EQ(hSwitchFromOLE(h), d.io().io());
  EXPECT_EQ(d.memory().liveBlocks(), before);
  EXPECT_EQ(hSwitchFromOLE(h), d.io().io());
  EXPECT_EQ(d.memory().liveBlocks(), before);
  EXPECT_EQ(hSwitchToOLE(nullptr), nullptr);
  EXPECT_EQ(hSwitchFromOLE(nullptr), nullptr);
}

// An outer document with a compound file stored in stream "Inner".
struct Nested {
  Bytes innerSmall = pattern(200, 4), innerBig = pattern(9000, 5), after = pattern(700, 6);
  Bytes inner;
  Bytes outer;
  explicit Nested(bool big) {
    cfb::CfbBuilder in;
    int storage = in.addStorage(0, "Deep");
    in.addStream(storage, "Small", innerSmall);
    if (big) in.addStream(0, "Big", innerBig);
    inner = in.build();
    cfb::CfbBuilder out;
    out.addStream(0, "Inner", inner);
    out.addStream(0, "After", after);
    outer = out.build();
  }
};

TEST(StreamObject, CompoundFileInsideAStreamOpensAsADocument) {
  // Without its big stream the inner file is small enough to be a mini
  // stream of the outer one.
  for (bool big : {false, true}) {
    Nested n(big);
    OpenDocument d(n.outer);
    ASSERT_NE(d.h(), nullptr);
    _MoxOleFile* h = d.h();
    ASSERT_EQ(bOLEopenStream(h, "Inner"), 1);
    EXPECT_EQ(h->iInMini, big ? 0 : 1);
    _ZqTPIOobj* io = hSwitchToOLE(h);
    ASSERT_NE(io, nullptr);
    moxhost::CountingMemory innerMemory;
    _MoxOleFile* inner = hOLEopen(io, innerMemory.memory());
    ASSERT_NE(inner, nullptr) << big;
    EXPECT_EQ(inner->pHostIo, io);
    ASSERT_EQ(bOLEopenStream(inner, "small"), 1);
    EXPECT_EQ(readToEnd(inner), n.innerSmall);
    if (big) {
      ASSERT_EQ(bOLEopenStream(inner, "Big"), 1);
      EXPECT_EQ(readToEnd(inner, 4000), n.innerBig);
    }
    EXPECT_EQ(bOLEcloseStream(inner, nullptr), 1);
    EXPECT_EQ(iOLEclose(inner), 1);
    EXPECT_EQ(innerMemory.liveBlocks(), 0);

    // The outer stream is still open and readable where the inner left it.
    ASSERT_NE(h->plChain, nullptr);
    ASSERT_EQ(lOLEseek(h, 0, 0), 0);
    EXPECT_EQ(readToEnd(h), n.inner);
    EXPECT_EQ(hSwitchFromOLE(h), d.io().io());
    ASSERT_EQ(bOLEopenStream(h, "After"), 1);
    EXPECT_EQ(readToEnd(h), n.after);
    EXPECT_TRUE(d.closeCleanly());
  }
}

}  // namespace
