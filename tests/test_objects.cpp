// Embedded objects of a word-processing document: lOLEopenObject and
// bOLEgetObject.
#include <stdio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/cfb_builder.h"
#include "support/open_doc.h"

namespace {

cfb::Bytes pattern(size_t n, uint8_t seed) {
  cfb::Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
  return b;
}

// A metafile stream: a header of `header` bytes whose first two bytes give
// its length, then `body`.
cfb::Bytes metafile(uint16_t storedLength, size_t header, const cfb::Bytes& body) {
  cfb::Bytes b(header, 0xAB);
  b[0] = static_cast<uint8_t>(storedLength);
  b[1] = static_cast<uint8_t>(storedLength >> 8);
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

struct WordSample {
  cfb::Bytes main = pattern(9000, 1);
  cfb::Bytes body1 = pattern(25000, 2);  // larger than the copy buffer
  cfb::Bytes pic1 = pattern(100, 3);
  cfb::Bytes pic2 = pattern(50, 4);      // too short for a picture header
  cfb::Bytes bytes;
  WordSample() {
    cfb::CfbBuilder b;
    b.addStream(0, "WordDocument", main);
    b.addStream(0, "1Table", pattern(300, 5));
    int pool = b.addStorage(0, "ObjectPool");
    int one = b.addStorage(pool, "_1");
    b.addStream(one, "\x03META", metafile(8, 8, body1));
    b.addStream(one, "\x03PIC", pic1);
    int two = b.addStorage(pool, "_2");
    b.addStream(two, "\x03META", metafile(1, 2, pattern(500, 6)));
    b.addStream(two, "\x03PIC", pic2);
    bytes = b.build();
  }
};

class TempFile {
 public:
  TempFile() {
    char name[] = "/tmp/moxobjXXXXXX";
    int fd = mkstemp(name);
    close(fd);
    path_ = name;
  }
  ~TempFile() { unlink(path_.c_str()); }
  const char* path() const { return path_.c_str(); }
  cfb::Bytes read() const {
    cfb::Bytes b;
    moxhost::readFile(path_, &b);
    return b;
  }

 private:
  std::string path_;
};

// Opens "WordDocument" and moves to `position`, as a reading host would be.
void readingMain(OpenDoc& doc, int64_t position) {
  ASSERT_EQ(bOLEopenStream(doc.handle(), "WordDocument"), 1);
  ASSERT_EQ(lOLEseek(doc.handle(), position, 0), position);
}

TEST(GetObject, MetafileIsWrittenAfterItsHeaderAndMainStreamComesBack) {
  WordSample sample;
  OpenDoc doc(sample.bytes);
  ASSERT_TRUE(doc.ok());
  readingMain(doc, 1234);
  TempFile out;
  EXPECT_EQ(bOLEgetObject(doc.handle(), 1, const_cast<char*>(out.path()), 3), 1);
  EXPECT_EQ(out.read(), sample.body1);
  EXPECT_EQ(doc->lStreamSize, 9000) << "WordDocument is current again";
  EXPECT_EQ(lOLEtell(doc.handle()), 1234);
  unsigned char next[4];
  ASSERT_EQ(iOLEread(doc.handle(), next, 4), 4u);
  EXPECT_EQ(cfb::Bytes(next, next + 4), cfb::Bytes(sample.main.begin() + 1234, sample.main.begin() + 1238));
}

TEST(GetObject, HeaderLengthBelowTwoCopiesNothing) {
  WordSample sample;
  OpenDoc doc(sample.bytes);
  ASSERT_TRUE(doc.ok());
  readingMain(doc, 0);
  TempFile out;
  EXPECT_EQ(bOLEgetObject(doc.handle(), 2, const_cast<char*>(out.path()), 3), 1);
  EXPECT_TRUE(out.read().empty());
}

TEST(GetObject, PictureHeaderIsSeventySixBytes) {
  WordSample sample;
  OpenDoc doc(sample.bytes);
  ASSERT_TRUE(doc.ok());
  readingMain(doc, 10);
  unsigned char target[100];
  memset(target, 0xEE, sizeof target);
  EXPECT_EQ(bOLEgetObject(doc.handle(), 1, target, 0), 1);
  EXPECT_EQ(cfb::Bytes(target, target + 76), cfb::Bytes(sample.pic1.begin(), sample.pic1.begin() + 76));
  EXPECT_EQ(target[76], 0xEE);
  EXPECT_EQ(lOLEtell(doc.handle()), 10);

  memset(target, 0xEE, sizeof target);
  EXPECT_EQ(bOLEgetObject(doc.handle(), 2, target, 0), 0) << "50 bytes are too few";
  EXPECT_EQ(cfb::Bytes(target, target + 50), sample.pic2);
  EXPECT_EQ(lOLEtell(doc.handle()), 10);
}

TEST(GetObject, FailuresStillRestoreTheMainStream) {
  WordSample sample;
  OpenDoc doc(sample.bytes);
  ASSERT_TRUE(doc.ok());
  unsigned char target[76];
  // Nothing open: nothing to come back to, but WordDocument is opened.
  EXPECT_EQ(bOLEgetObject(doc.handle(), 1, target, 0), 0);
  EXPECT_EQ(doc->lStreamSize, 9000);
  readingMain(doc, 77);
  EXPECT_EQ(bOLEgetObject(doc.handle(), 9, target, 0), 0) << "no storage _9";
  EXPECT_EQ(lOLEtell(doc.handle()), 77);
  // A full disk: the copy is cut short and the call fails.
  if (access("/dev/full", W_OK) == 0) {
    EXPECT_EQ(bOLEgetObject(doc.handle(), 1, const_cast<char*>("/dev/full"), 3), 0);
    EXPECT_EQ(lOLEtell(doc.handle()), 77);
  }
}

TEST(GetObject, UnopenableOutputTouchesNothing) {
  WordSample sample;
  OpenDoc doc(sample.bytes);
  ASSERT_TRUE(doc.ok());
  ASSERT_EQ(bOLEopenStream(doc.handle(), "1Table"), 1);
  ASSERT_EQ(lOLEseek(doc.handle(), 5, 0), 5);
  doc.io().record(true);
  EXPECT_EQ(bOLEgetObject(doc.handle(), 1, const_cast<char*>("/nonexistent/dir/out.wmf"), 3), 0);
  EXPECT_TRUE(doc.io().calls().empty());
  EXPECT_EQ(doc->lStreamSize, 300) << "1Table is still current";
  EXPECT_EQ(lOLEtell(doc.handle()), 5);
}

TEST(OpenObject, MetafileOrPresentationStream) {
  cfb::CfbBuilder b;
  int obj = b.addStorage(0, "_123");
  b.addStream(obj, "\x03META", pattern(700, 1));
  int pres = b.addStorage(0, "_7");
  int a = b.addStream(pres, "A", pattern(10, 1));
  int op = b.addStream(pres, "\x02OlePres000", pattern(20, 1));
  int z = b.addStream(pres, "ZZZZZZZZZZZZ", pattern(30, 1));
  cfb::CfbLayout l = b.layout();
  l.dir[pres].child = a;
  l.dir[a].left = cfb::kNone;
  l.dir[a].right = op;
  l.dir[op].left = cfb::kNone;
  l.dir[op].right = z;
  l.dir[z].left = l.dir[z].right = cfb::kNone;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(lOLEopenObject(doc.handle(), "_123", 3), 700);
  EXPECT_EQ(lOLEtell(doc.handle()), 0);
  EXPECT_EQ(lOLEopenObject(doc.handle(), "_7", 0), 20) << "\\x02OlePres000 has a right sibling";
  l.dir[op].right = cfb::kNone;
  OpenDoc last(l.serialize());
  ASSERT_TRUE(last.ok());
  EXPECT_EQ(lOLEopenObject(last.handle(), "_7", 0), 10) << "the entry before the last one";
  EXPECT_EQ(lOLEopenObject(last.handle(), "_8", 3), 0);
  bOLEcloseStream(doc.handle(), nullptr);
  bOLEcloseStream(last.handle(), nullptr);
}

}  // namespace
