// Writes the seed inputs that no real file provides: compound files made
// with the test builder at the edges of the format (and a little past
// them), and programs for the writer and OS-layer targets that reach every
// operation.  Real files are added by scripts/fuzz.sh from the corpus.
//
//   make_fuzz_seeds OUTDIR   writes OUTDIR/read, OUTDIR/write, OUTDIR/vos
#include <stdio.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fuzz/vos_program.h"
#include "fuzz/write_program.h"
#include "support/cfb_builder.h"

namespace {

using cfb::Bytes;

std::string outDir;
int failures = 0;

void save(const char* target, const std::string& name, const Bytes& bytes) {
  const std::string path = outDir + "/" + target + "/" + name;
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) ++failures;
  if (f != nullptr && fclose(f) != 0) ++failures;
}

Bytes filled(size_t size, uint8_t seed) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 8));
  return b;
}

// --- Compound files ------------------------------------------------------

cfb::CfbBuilder streamsOfEverySize(unsigned shift = 9) {
  cfb::CfbBuilder b(shift);
  const size_t sizes[] = {0, 1, 63, 64, 65, 511, 512, 4095, 4096, 4097, 10000};
  int n = 0;
  for (size_t size : sizes) {
    b.addStream(0, "s" + std::to_string(n), filled(size, static_cast<uint8_t>(n)));
    ++n;
  }
  return b;
}

// A word-processing document with embedded objects, some of them broken.
cfb::CfbBuilder wordDocument() {
  cfb::CfbBuilder b;
  b.addStream(0, "WordDocument", filled(5000, 1));
  b.addStream(0, "1Table", filled(700, 2));
  const int pool = b.addStorage(0, "ObjectPool");
  for (int n = 1; n <= 4; ++n) {
    const int object = b.addStorage(n <= 2 ? pool : 0, "_" + std::to_string(n));
    Bytes meta = filled(300 + 50 * n, static_cast<uint8_t>(n));
    meta[0] = n == 4 ? 1 : 8;  // header length, below 2 for the last one
    meta[1] = 0;
    b.addStream(object, "\x03META", meta);
    b.addStream(object, "\x03PIC", filled(n == 3 ? 10 : 100, static_cast<uint8_t>(n)));
    b.addStream(object, "\x02OlePres000", filled(200, static_cast<uint8_t>(n)));
    b.addStream(object, "\x01" "CompObj", filled(80, static_cast<uint8_t>(n)));
  }
  return b;
}

cfb::CfbBuilder deepAndWide() {
  cfb::CfbBuilder b;
  int parent = 0;
  for (int depth = 0; depth < 12; ++depth) {
    parent = b.addStorage(parent, "level" + std::to_string(depth));
    b.addStream(parent, "data", filled(100 + depth, static_cast<uint8_t>(depth)));
  }
  const int wide = b.addStorage(0, "Wide");
  for (int n = 0; n < 300; ++n) b.addStream(wide, "n" + std::to_string(n), filled(n % 70, 3));
  return b;
}

// A document stored whole in a stream of another, the first child of its
// storage.
cfb::CfbBuilder nested() {
  cfb::CfbBuilder b;
  const int holder = b.addStorage(0, "Holder");
  b.addStream(holder, "\x01" "Ole10Native", streamsOfEverySize().build());
  b.addStream(0, "Inner", wordDocument().build());
  return b;
}

// 110 FAT sectors in a small file: the FAT says far more than the file
// holds, so the DIFAT is needed without megabytes of data.  With 240, two
// DIFAT sectors, the first linking to the second.
Bytes withDifat(uint32_t fatSectors, int difatSectors) {
  cfb::CfbLayout l = streamsOfEverySize().layout();
  uint32_t next = l.growFat(fatSectors);
  for (int k = 0; k < difatSectors; ++k) {
    l.fat[next] = cfb::kDifSect;
    l.difatSectors.push_back(next++);
  }
  return l.serialize();
}

// A stream whose chain runs through 16400 sectors of a FAT that describes
// them, far past the end of the file: its sector list needs both parts.
Bytes withLongChain() {
  cfb::CfbLayout l = streamsOfEverySize(12).layout();
  const uint32_t first = l.growFat(17) + 1;
  for (uint32_t k = 0; k < 16400; ++k) l.fat[first + k] = k + 1 < 16400 ? first + k + 1 : cfb::kEnd;
  l.dir[11].start = first;  // s10
  l.dir[11].sizeLow = 16400u * 4096u;
  return l.serialize();
}

void saveDamaged() {
  // A stream whose chain returns to its start.
  cfb::CfbLayout loop = streamsOfEverySize().layout();
  const uint32_t start = loop.dir[9].start;  // s8, 4096 bytes
  loop.fat[start + 7] = start + 2;
  save("read", "fat-loop", loop.serialize());

  // A mini stream chain that loops, and one that runs off the mini FAT.
  cfb::CfbLayout mini = streamsOfEverySize().layout();
  mini.miniFat[mini.dir[3].start] = mini.dir[3].start;
  mini.miniFat[mini.dir[4].start] = 100000;
  save("read", "mini-loop", mini.serialize());

  // Sibling links that point back up and at themselves.
  cfb::CfbLayout siblings = deepAndWide().layout();
  siblings.dir[1].left = 0;
  siblings.dir[3].right = 3;
  siblings.dir[2].child = 1;
  save("read", "sibling-cycles", siblings.serialize());

  // A degenerate tree: 200 siblings each the left link of the one before.
  cfb::CfbBuilder chain;
  for (int n = 0; n < 200; ++n) chain.addStream(0, "c" + std::to_string(n), filled(10, 1));
  cfb::CfbLayout lean = chain.layout();
  for (int n = 1; n <= 200; ++n) {
    lean.dir[n].left = n < 200 ? n + 1 : cfb::kNone;
    lean.dir[n].right = cfb::kNone;
  }
  lean.dir[0].child = 1;
  save("read", "left-leaning", lean.serialize());

  // The directory chain running back to its start.
  cfb::CfbLayout dirLoop = deepAndWide().layout();
  dirLoop.fat[dirLoop.dirSectors.back()] = dirLoop.dirSectors[1];
  save("read", "directory-loop", dirLoop.serialize());

  // Chains ending in a free link, and one longer than its size needs.
  cfb::CfbLayout free = streamsOfEverySize().layout();
  free.fat[free.dir[10].start + 8] = cfb::kFree;
  free.dir[9].sizeLow = 3000;
  save("read", "free-end", free.serialize());

  // Cut in the middle of the streams, and in the middle of the FAT.
  cfb::CfbLayout cut = wordDocument().layout();
  cut.truncateTo = 6000;
  save("read", "truncated", cut.serialize());

  // Header values out of range: odd shifts, huge counts.
  cfb::CfbLayout shifts = streamsOfEverySize().layout();
  shifts.header.miniShift = 8;
  shifts.header.miniCutoff = 100;
  save("read", "odd-mini-shift", shifts.serialize());
  cfb::CfbLayout counts = streamsOfEverySize().layout();
  counts.header.miniFatSectors = 0x7FFFFF;
  save("read", "huge-mini-fat-count", counts.serialize());
  cfb::CfbLayout names = deepAndWide().layout();
  names.dir[5].nameLength = 64;
  names.dir[6].name = cfb::units(std::string(40, 'x'));
  names.dir[6].type = 0;
  names.dir[7].start = 0xFFFFFFF9u;
  save("read", "odd-entries", names.serialize());
}

void saveCompoundFiles() {
  save("read", "root-only", cfb::CfbBuilder().build());
  save("read", "every-size", streamsOfEverySize().build());
  cfb::CfbBuilder big = streamsOfEverySize();
  big.setBigEndian(true);
  save("read", "big-endian", big.build());
  save("read", "sectors-4096", streamsOfEverySize(12).build());
  save("read", "word-objects", wordDocument().build());
  save("read", "deep-and-wide", deepAndWide().build());
  save("read", "nested", nested().build());
  save("read", "difat", withDifat(110, 1));
  save("read", "difat-two-sectors", withDifat(240, 2));
  save("read", "long-chain", withLongChain());
  cfb::CfbBuilder spare = wordDocument();
  spare.setSpareDirEntries(9);
  spare.setMiniCutoff(512);
  save("read", "spare-entries-cutoff-512", spare.build());
  saveDamaged();
}

// --- Programs --------------------------------------------------------------

class Program {
 public:
  Program& byte(uint8_t b) {
    bytes_.push_back(b);
    return *this;
  }
  Program& u16(uint16_t v) { return byte(static_cast<uint8_t>(v)).byte(static_cast<uint8_t>(v >> 8)); }
  Program& text(const std::string& s) {
    byte(static_cast<uint8_t>(s.size()));
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  Program& wideText(const std::string& s) {
    u16(static_cast<uint16_t>(s.size()));
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

using namespace moxfuzz;

// Writer programs.  Entry choices count the root as 0, then entries in
// creation order.
Program& create(Program& p, WriteOp op, uint8_t parent, const std::string& name) {
  return p.byte(op).byte(parent).text(name);
}

void saveWriterPrograms() {
  Program basic;
  basic.byte(0);
  create(basic, kOpCreateStream, 0, "a").byte(kOpWrite).u16(100).byte(1);
  create(basic, kOpCreateStorage, 0, "Dir");
  create(basic, kOpCreateStream, 2, "b").byte(kOpWrite).u16(5000).byte(2);
  basic.byte(kOpWriteLarge).u16(40).byte(3);
  create(basic, kOpCreateStream, 0x82, "c").byte(kOpWrite).u16(4096).byte(4);
  basic.byte(kOpCloseStream).byte(kOpWrite).u16(10).byte(5);
  for (uint8_t kind = 0; kind < 8; ++kind) basic.byte(kOpOddCall).byte(kind);
  basic.byte(kOpOpenForReading).byte(3);
  save("write", "basic", basic.bytes());

  Program sizes;
  sizes.byte(1);
  const uint16_t lengths[] = {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 9000};
  int n = 0;
  for (uint16_t length : lengths) {
    create(sizes, kOpCreateStream, 0, "s" + std::to_string(n++));
    sizes.byte(kOpWrite).u16(length).byte(static_cast<uint8_t>(n));
    sizes.byte(kOpWrite).u16(length / 3).byte(static_cast<uint8_t>(n + 1));
  }
  save("write", "sizes", sizes.bytes());

  Program names;
  names.byte(0);
  create(names, kOpCreateStream, 0, "Data");
  create(names, kOpCreateStream, 0, "DATA");
  create(names, kOpCreateStream, 0, "");
  create(names, kOpCreateStream, 0, std::string(36, 'n'));
  create(names, kOpCreateStream, 0, std::string(31, 'n') + "xyz");
  create(names, kOpCreateStream, 0, std::string(40, 'm'));
  create(names, kOpCreateStorage, 0, "\xC4\xE9\x7F\x01");
  create(names, kOpCreateStream, 7, "_").byte(kOpWrite).u16(77).byte(9);
  create(names, kOpCreateStorage, 0, "Root Entry");
  create(names, kOpCreateStream, 1, "under a stream").byte(kOpWrite).u16(300).byte(8);
  save("write", "names", names.bytes());

  Program plain;
  plain.byte(0);
  for (int storage = 0; storage < 5; ++storage) {
    create(plain, kOpCreateStorage, static_cast<uint8_t>(storage == 0 ? 0 : 1 + (storage - 1) * 4),
           "st" + std::to_string(storage));
    for (int k = 0; k < 3; ++k) {
      create(plain, kOpCreateStream, static_cast<uint8_t>(1 + storage * 4), "x" + std::to_string(k));
      plain.byte(kOpWrite).u16(static_cast<uint16_t>(700 * k + 30)).byte(static_cast<uint8_t>(k));
    }
  }
  save("write", "plain-tree", plain.bytes());

  Program raw;
  raw.byte(0);
  raw.byte(kOpCreateRawPath).byte(1).wideText("\\");
  raw.byte(kOpCreateRawPath).byte(1).wideText("a\\b\\c");
  raw.byte(kOpCreateRawPath).byte(1).wideText("top");
  raw.byte(kOpCreateRawPath).byte(2).wideText("\\top\\\\x").byte(kOpWrite).u16(50).byte(1);
  raw.byte(kOpCreateRawPath).byte(2).wideText(std::string(1100, 'q'));
  raw.byte(kOpCreateRawPath).byte(2).wideText("top\\" + std::string(1030, 'r'));
  raw.byte(kOpCreateRawPath).byte(0).wideText("zero");
  raw.byte(kOpCreateRawPath).byte(3).wideText("three");
  save("write", "raw-paths", raw.bytes());

  // Over 13843 sectors: the FAT needs a DIFAT sector; over 29971, two.
  for (uint16_t units : {0x7200, 0xF200}) {
    Program difat;
    difat.byte(kWriteLargeDocument);
    create(difat, kOpCreateStream, 0, "big").byte(kOpWriteLarge).u16(units).byte(1);
    create(difat, kOpCreateStream, 0, "small").byte(kOpWrite).u16(100).byte(2);
    save("write", units == 0x7200 ? "difat" : "difat-two-sectors", difat.bytes());
  }

  Program faults = basic;
  Bytes failing = faults.bytes();
  failing[0] = kWriteFailAllocation;
  failing.insert(failing.begin() + 1, {5, 0});
  save("write", "failing-allocation", failing);
  failing = basic.bytes();
  failing[0] = kWriteFailOutput;
  failing.insert(failing.begin() + 1, {2, 0});
  save("write", "failing-output", failing);
  save("write", "flags-2", Program().byte(2).bytes());
  save("write", "output-refuses-open", Program().byte(kWriteRefuseOpen).bytes());
  save("write", "output-read-only", Program().byte(kWriteReadOnlyOutput).bytes());
}

// OS-layer programs.  A path is a count (minus one) and components.
Program& path(Program& p, std::initializer_list<std::string> components) {
  p.byte(static_cast<uint8_t>(components.size() - 1));
  for (const std::string& c : components) p.text(c);
  return p;
}

void saveVosPrograms() {
  Program files;
  path(files.byte(kVosMkdir), {"a", "b", "c"}).u16(0755);
  path(files.byte(kVosMkdir), {"a", "b", ""}).u16(0700);
  path(files.byte(kVosTempnam), {"a", "b"}).text("pre").byte(0);
  path(files.byte(kVosTempnam), {"a"}).text("").byte(1);
  path(files.byte(kVosFopen).byte(0), {"a", "f"}).text("w+").byte(0);
  files.byte(kVosWrite).byte(0).byte(3).u16(100).byte(7);
  files.byte(kVosSeek).byte(0).u16(10).u16(0).byte(0).byte(1);
  files.byte(kVosRead).byte(0).byte(1).u16(50);
  for (uint8_t op = 0; op < 5; ++op) files.byte(kVosFileOps).byte(0).byte(op).u16(40);
  path(files.byte(kVosOpen).byte(1), {"a", "g"}).byte(4).byte(1);
  files.byte(kVosWrite).byte(1).byte(1).u16(20).byte(1);
  path(files.byte(kVosFopen).byte(2), {"a", "f"}).text("r").byte(1);
  files.byte(kVosRead).byte(2).byte(4).u16(10);
  path(files.byte(kVosStatus), {"a", "f"}).byte(4);
  path(files.byte(kVosListDir), {"a"}).byte(10);
  path(path(files.byte(kVosRename), {"a", "g"}), {"a", "b", "h"});
  path(files.byte(kVosChmod), {"a", "f"}).u16(0600);
  path(files.byte(kVosLock).byte(3), {"a", "lock"}).byte(0).byte(0).u16(0).u16(0);
  path(files.byte(kVosLock).byte(4), {"e"}).byte(0).byte(0).u16(0).u16(0);
  path(files.byte(kVosChdir), {"a", "b"}).u16(300);
  path(files.byte(kVosChdir), {"c"}).u16(0);
  files.byte(kVosUmask).u16(077);
  path(files.byte(kVosTempnam), {"."}).text("t").byte(0);
  path(files.byte(kVosRemove), {"a", "f"}).byte(0);
  path(files.byte(kVosRemove), {"c"}).byte(1);
  for (uint8_t op = 0; op < 4; ++op) {
    files.byte(kVosMemory).byte(op).byte(0x10).u16(100);
    files.byte(kVosMemory).byte(op).byte(0x03).u16(0);
    files.byte(kVosMemory).byte(op).byte(0x00).u16(0);
  }
  save("vos", "files", files.bytes());

  Program odd;
  path(odd.byte(kVosMkdir), {"x", ".", "..", "y"}).u16(0777);
  path(odd.byte(kVosMkdir), {std::string(120, 'L'), std::string(120, 'M')}).u16(0777);
  path(odd.byte(kVosOpen).byte(0), {"x"}).byte(5).byte(0);
  path(odd.byte(kVosFopen).byte(1), {"x", "y"}).text("a+").byte(0);
  path(odd.byte(kVosFopen).byte(2), {"x", "z"}).text("q").byte(0);
  odd.byte(kVosSeek).byte(1).u16(0xFFFF).u16(0xFFFF).byte(2).byte(2);
  save("vos", "odd", odd.bytes());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: make_fuzz_seeds OUTDIR\n");
    return 2;
  }
  outDir = argv[1];
  for (const char* sub : {"", "/read", "/write", "/vos"}) mkdir((outDir + sub).c_str(), 0755);
  saveCompoundFiles();
  saveWriterPrograms();
  saveVosPrograms();
  if (failures != 0) fprintf(stderr, "make_fuzz_seeds: %d files not written\n", failures);
  return failures == 0 ? 0 : 1;
}
