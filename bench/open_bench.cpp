// Open latency: documents of 10, 1000 and 100000 directory entries, and a
// document past 2 GB whose FAT needs DIFAT sectors.
//
// Opening reads the header, every FAT sector (each one host seek and one
// host read), the mini FAT and every directory entry (one host read of 128
// bytes each), so the figures grow with the FAT and the directory; stream
// data is not touched.
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include "bench/bare_io.h"
#include "bench/doc_shapes.h"
#include "bench/gsf_peer.h"
#include "bench/sections.h"

namespace bench {

namespace {

// Opens a document and returns what closes it again, or an empty function
// when the open failed.
using Opener = std::function<std::function<void()>()>;

// Seconds of one open; the close that follows is not timed.
Work timedOpen(const Opener& open) {
  return [open] {
    double start = now();
    std::function<void()> close = open();
    double elapsed = now() - start;
    if (!close) return -1.0;
    close();
    return elapsed;
  };
}

double milliseconds(double seconds) { return seconds * 1000; }

Opener moxOpener(_ZqTPIOobj* io, moxhost::CountingMemory* memory) {
  return [io, memory]() -> std::function<void()> {
    _MoxOleFile* h = hOLEopen(io, memory->memory());
    if (h == nullptr) return {};
    return [h] { iOLEclose(h); };
  };
}

Opener gsfOpener(const std::function<gsf::Doc*()>& open) {
  return [open]() -> std::function<void()> {
    gsf::Doc* doc = open();
    if (doc == nullptr) return {};
    return [doc] { gsf::close(doc); };
  };
}

// A document held in memory (behind `memoryIo`, and for libgsf at
// `bytes`) and in the file `path`: one row for each.
void measure(const Options& options, Table* table, const std::string& label,
             _ZqTPIOobj* memoryIo, const uint8_t* bytes, size_t size,
             const std::string& path, const std::string& note) {
  // An open takes milliseconds at most: more rounds cost little and keep
  // a busy moment of the machine from deciding the median.
  const int rounds = std::max(20, 4 * options.runs);
  moxhost::CountingMemory memory;
  memory.setScribble(false);
  Row inMemory("open", label + ", memory", "ms", false);
  inMemory.note = note;
  const Work gsfMemory =
      gsf::available() ? timedOpen(gsfOpener([&] { return gsf::openMemory(bytes, size); })) : Work();
  measureRow(&inMemory, rounds, timedOpen(moxOpener(memoryIo, &memory)), gsfMemory, Work(),
             milliseconds);
  table->add(inMemory);

  moxhost::FileIo file(path, moxhost::FileIo::kRead);
  Row inFile("open", label + ", file", "ms", false);
  const Work gsfFile = gsf::available() ? timedOpen(gsfOpener([&] { return gsf::openFile(path); }))
                                         : Work();
  measureRow(&inFile, rounds, timedOpen(moxOpener(file.io(), &memory)), gsfFile, Work(),
             milliseconds);
  table->add(inFile);
}

void entriesCase(const Options& options, Table* table, const ScratchDir& scratch, int entries) {
  Bytes bytes = entriesDocument(entries);
  const std::string path = scratch.file("entries" + std::to_string(entries) + ".doc");
  if (bytes.empty() || !writeCachedFile(path, bytes)) {
    fprintf(stderr, "open: could not make the document of %d entries\n", entries);
    return;
  }
  char note[64];
  snprintf(note, sizeof note, "%.1f MB", static_cast<double>(bytes.size()) / kMiB);
  moxhost::MemoryIo io(bytes);
  measure(options, table, std::to_string(entries) + " entries", io.io(), io.bytes().data(),
          io.bytes().size(), path, note);
}

// The sparse file mapped into memory is what both libraries read "from
// memory": libgsf through a memory input, moxolefio through the bare
// memory object (the host kit's MemoryIo would need a copy of 2 GB).
// Only the pages an open touches are ever read.
void difatCase(const Options& options, Table* table, const ScratchDir& scratch) {
  const int64_t target = options.quick ? (int64_t{1} << 27) : int64_t{2047} << 20;
  SparseDocument doc = difatDocument(target);
  const std::string path = scratch.file("difat.doc");
  if (!writeSparseFile(path, doc)) {
    fprintf(stderr, "open: could not write the sparse document\n");
    return;
  }
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  void* mapped = fd < 0 ? MAP_FAILED
                        : mmap(nullptr, static_cast<size_t>(doc.size), PROT_READ, MAP_PRIVATE, fd, 0);
  if (fd >= 0) close(fd);
  if (mapped == MAP_FAILED) return;
  char label[64];
  snprintf(label, sizeof label, "%.2f GB, %lld FAT + %lld DIFAT sectors",
           static_cast<double>(doc.size) / 1e9, static_cast<long long>(doc.fatSectors),
           static_cast<long long>(doc.difatSectors));
  const uint8_t* bytes = static_cast<const uint8_t*>(mapped);
  BareMemoryIo io(bytes, doc.size);
  measure(options, table, label, io.io(), bytes, static_cast<size_t>(doc.size), path,
          "sparse file mapped; bare host object");
  munmap(mapped, static_cast<size_t>(doc.size));
}

}  // namespace

void openSection(const Options& options, Table* table) {
  ScratchDir scratch;
  for (int entries : {10, 1000, options.quick ? 10000 : 100000}) {
    entriesCase(options, table, scratch, entries);
  }
  difatCase(options, table, scratch);
}

}  // namespace bench
