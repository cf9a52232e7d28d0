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

#include <functional>
#include <string>

#include "bench/doc_shapes.h"
#include "bench/gsf_peer.h"
#include "bench/sections.h"
#include "support/sparse_io.h"

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

Opener moxOpener(moxhost::HostIo* io, moxhost::CountingMemory* memory) {
  return [io, memory]() -> std::function<void()> {
    _MoxOleFile* h = hOLEopen(io->io(), memory->memory());
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
             moxhost::HostIo* memoryIo, const uint8_t* bytes, size_t size,
             const std::string& path, const std::string& note) {
  moxhost::CountingMemory memory;
  memory.setScribble(false);
  Row inMemory("open", label + ", memory", "ms", false);
  inMemory.note = note;
  const Work gsfMemory =
      gsf::available() ? timedOpen(gsfOpener([&] { return gsf::openMemory(bytes, size); })) : Work();
  measureRow(&inMemory, options.runs, timedOpen(moxOpener(memoryIo, &memory)), gsfMemory, Work(),
             milliseconds);
  table->add(inMemory);

  moxhost::FileIo file(path, moxhost::FileIo::kRead);
  Row inFile("open", label + ", file", "ms", false);
  const Work gsfFile = gsf::available() ? timedOpen(gsfOpener([&] { return gsf::openFile(path); }))
                                         : Work();
  measureRow(&inFile, options.runs, timedOpen(moxOpener(&file, &memory)), gsfFile, Work(),
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
  measure(options, table, std::to_string(entries) + " entries", &io, io.bytes().data(),
          io.bytes().size(), path, note);
}

// Adjacent runs merged, so that the synthetic I/O object finds each read
// in one step of its map: its cost is the host's, not the library's.
std::map<int64_t, Bytes> mergeRuns(std::map<int64_t, Bytes> runs) {
  std::map<int64_t, Bytes> merged;
  for (auto& run : runs) {
    if (!merged.empty()) {
      auto& last = *merged.rbegin();
      if (last.first + static_cast<int64_t>(last.second.size()) == run.first) {
        last.second.insert(last.second.end(), run.second.begin(), run.second.end());
        continue;
      }
    }
    merged.emplace(run.first, std::move(run.second));
  }
  return merged;
}

void difatCase(const Options& options, Table* table, const ScratchDir& scratch) {
  const int64_t target = options.quick ? (int64_t{1} << 27) : int64_t{2047} << 20;
  SparseDocument doc = difatDocument(target);
  const std::string path = scratch.file("difat.doc");
  if (!writeSparseFile(path, doc)) {
    fprintf(stderr, "open: could not write the sparse document\n");
    return;
  }
  // libgsf reads memory through a pointer, so it gets the sparse file
  // mapped: only the pages it touches are ever read.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  void* mapped = fd < 0 ? MAP_FAILED
                        : mmap(nullptr, static_cast<size_t>(doc.size), PROT_READ, MAP_PRIVATE, fd, 0);
  if (fd >= 0) close(fd);
  if (mapped == MAP_FAILED) return;
  char label[64];
  snprintf(label, sizeof label, "%.2f GB, %lld FAT + %lld DIFAT sectors",
           static_cast<double>(doc.size) / 1e9, static_cast<long long>(doc.fatSectors),
           static_cast<long long>(doc.difatSectors));
  SparseIo io(mergeRuns(std::move(doc.runs)), doc.size);
  measure(options, table, label, &io, static_cast<const uint8_t*>(mapped),
          static_cast<size_t>(doc.size), path, "sparse");
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
