#include "bench/doc_shapes.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "support/cfb_builder.h"

namespace bench {

namespace {

// A document built through the library's writer into memory.
class DocWriter {
 public:
  DocWriter() {
    host_.setScribble(false);
    h_ = hOLEopenEx(io_.io(), host_.services(), 1);
  }
  bool ok() const { return h_ != nullptr && ok_; }

  void storage(const std::string& path) {
    if (h_ != nullptr && iOLEopenStreamEx(h_, path.c_str(), 1, 1) != 0) ok_ = false;
  }
  void stream(const std::string& path, const uint8_t* data, size_t size) {
    if (h_ == nullptr || iOLEopenStreamEx(h_, path.c_str(), 2, 1) != 0) {
      ok_ = false;
      return;
    }
    // iOLEwrite takes an int count; large streams go in pieces.
    const size_t piece = 1 << 20;
    for (size_t done = 0; done < size; done += piece) {
      const int n = static_cast<int>(std::min(piece, size - done));
      if (iOLEwrite(h_, const_cast<uint8_t*>(data) + done, n) != 0) ok_ = false;
    }
  }
  void patterned(const std::string& path, size_t size, uint32_t seed) {
    Bytes data(size);
    fillPattern(data.data(), size, seed);
    stream(path, data.data(), size);
  }
  Bytes finish() {
    if (h_ != nullptr) iOLEclose(h_);
    h_ = nullptr;
    if (!ok_) return Bytes();
    return std::move(io_.bytes());
  }

 private:
  moxhost::PoolServices host_;
  moxhost::MemoryIo io_;
  _MoxOleFile* h_ = nullptr;
  bool ok_ = true;
};

// A small deterministic generator, so every run sees the same documents.
class Lcg {
 public:
  explicit Lcg(uint32_t seed) : state_(seed) {}
  uint32_t next() {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state_ >> 33);
  }

 private:
  uint64_t state_;
};

Bytes wordLikeDocument() {
  DocWriter w;
  w.patterned("WordDocument", 300000, 1);
  w.patterned("1Table", 40000, 2);
  w.patterned("Data", 9000, 3);
  w.patterned("\x05SummaryInformation", 4000, 4);
  w.patterned("\x05""DocumentSummaryInformation", 500, 5);
  w.patterned("\x01""CompObj", 106, 6);
  w.storage("ObjectPool");
  w.storage("ObjectPool\\_1");
  w.patterned("ObjectPool\\_1\\\x03META", 2500, 7);
  return w.finish();  // with the root: 10 entries
}

}  // namespace

void fillPattern(uint8_t* out, size_t size, uint32_t seed) {
  uint32_t x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    out[i] = static_cast<uint8_t>(x >> 24);
  }
}

std::string folderName(int folder) {
  char name[16];
  snprintf(name, sizeof name, "F%04d", folder);
  return name;
}

std::string memberName(int member) {
  char name[16];
  snprintf(name, sizeof name, "M%02d", member);
  return name;
}

std::string siblingName(int index) {
  // Lengths vary, as real names do, so that both halves of the sibling
  // order (length, then letters) are exercised.
  char name[32];
  snprintf(name, sizeof name, "Item%d", index);
  return name;
}

Bytes entriesDocument(int entries) {
  if (entries <= 10) return wordLikeDocument();
  DocWriter w;
  Lcg random(entries);
  int made = 1;  // the root
  Bytes data(1000);
  fillPattern(data.data(), data.size(), 9);
  for (int folder = 0; made < entries; ++folder) {
    const std::string name = folderName(folder);
    w.storage(name);
    ++made;
    for (int m = 0; m < 99 && made < entries; ++m, ++made) {
      w.stream(name + "\\" + memberName(m), data.data(), 64 + random.next() % 900);
    }
  }
  return w.finish();
}

Bytes bigStreamDocument(int64_t size) {
  DocWriter w;
  w.patterned("\x05SummaryInformation", 4000, 4);
  Bytes data(static_cast<size_t>(size));
  fillPattern(data.data(), data.size(), 11);
  w.stream("Big", data.data(), data.size());
  Bytes().swap(data);
  w.patterned("Small", 1000, 12);
  return w.finish();
}

MiniDocument miniStreamsDocument(int folders, int perFolder) {
  MiniDocument doc;
  doc.folders = folders;
  doc.perFolder = perFolder;
  DocWriter w;
  Lcg random(77);
  Bytes data(4096);
  for (int f = 0; f < folders; ++f) {
    const std::string folder = folderName(f);
    w.storage(folder);
    for (int m = 0; m < perFolder; ++m) {
      const int size = 1 + static_cast<int>(random.next() % 4095);
      fillPattern(data.data(), static_cast<size_t>(size), static_cast<uint32_t>(f * 1000 + m));
      w.stream(folder + "\\" + memberName(m), data.data(), static_cast<size_t>(size));
      doc.sizes.push_back(size);
      doc.totalBytes += size;
    }
  }
  doc.bytes = w.finish();
  return doc;
}

Bytes siblingsDocument(int count) {
  DocWriter w;
  uint8_t data[16];
  for (int i = 0; i < count; ++i) {
    fillPattern(data, sizeof data, static_cast<uint32_t>(i));
    w.stream(siblingName(i), data, sizeof data);
  }
  return w.finish();
}

SparseDocument difatDocument(int64_t bytes) {
  cfb::CfbBuilder b;
  b.addStream(0, "Small", cfb::Bytes(100, 0x5A));
  const int big = b.addStream(0, "Big", cfb::Bytes(4096, 0x33));
  // The padding sectors become the front of "Big": the builder reserves
  // them free after the directory, and linking them in front of the
  // stream's own chain costs no memory for their contents.
  const uint32_t padding = static_cast<uint32_t>(bytes / 512);
  b.setPaddingSectors(padding);
  cfb::CfbLayout l = b.layout();
  const uint32_t first = *std::max_element(l.dirSectors.begin(), l.dirSectors.end()) + 1;
  for (uint32_t k = 0; k + 1 < padding; ++k) l.fat[first + k] = first + k + 1;
  l.fat[first + padding - 1] = l.dir[big].start;
  l.dir[big].start = first;
  l.dir[big].sizeLow = static_cast<uint32_t>((static_cast<uint64_t>(padding) + 8) * 512);

  SparseDocument doc;
  doc.runs = l.serializeSparse();
  doc.size = (static_cast<int64_t>(l.sectorCount()) + 1) * 512;
  doc.fatSectors = static_cast<int64_t>(l.fatSectors.size());
  doc.difatSectors = static_cast<int64_t>(l.difatSectors.size());
  return doc;
}

bool writeSparseFile(const std::string& path, const SparseDocument& doc) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ftruncate(fd, doc.size) == 0;
  for (const auto& run : doc.runs) {
    if (!ok) break;
    const Bytes& b = run.second;
    ok = pwrite(fd, b.data(), b.size(), run.first) == static_cast<ssize_t>(b.size());
  }
  close(fd);
  return ok;
}

}  // namespace bench
