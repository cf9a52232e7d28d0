// Read throughput: one 512 MiB regular stream, and 100000 mini streams in
// 1000 storages, each read to its end in 4 KiB and in 1 MiB requests,
// through the host kit's memory-backed object (the library's own cost),
// its file-backed object on a file in the page cache, and for the mini
// streams also through a bare memory object (see bare_io.h).
//
// The reader places the host object before every sector piece (512 bytes
// for a regular stream, 64 for a mini stream) and reads that piece alone.
// The memcpy column copies the same bytes: for the regular stream in whole
// requests (the bandwidth limit; the note gives 512-byte pieces), for the
// mini streams 64 bytes at a time (the per-piece limit).
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "bench/bare_io.h"
#include "bench/doc_shapes.h"
#include "bench/gsf_peer.h"
#include "bench/sections.h"

namespace bench {

namespace {

const uint32_t kRequests[] = {4096, 1 << 20};

std::string requestName(uint32_t request) {
  return request >= (1 << 20) ? std::to_string(request >> 20) + " MiB"
                              : std::to_string(request >> 10) + " KiB";
}

double throughput(int64_t bytes, double seconds) {
  return seconds > 0 ? static_cast<double>(bytes) / kMiB / seconds : -1;
}

// --- One large regular stream -------------------------------------------

struct BigCase {
  Bytes* file;
  std::string path;
  int64_t streamSize;
  int64_t streamOffset;  // where the writer put its (contiguous) sectors
};

double moxReadBig(_MoxOleFile* h, uint8_t* buffer, uint32_t request, int64_t expected) {
  double start = now();
  if (!bOLEopenStream(h, "Big")) return -1;
  int64_t bytes = 0;
  uint64_t sum = 0;
  readToEnd(h, buffer, request, &bytes, &sum);
  bOLEcloseStream(h, nullptr);
  double elapsed = now() - start;
  keep(sum);
  return bytes == expected ? elapsed : -1;
}

double gsfReadBig(gsf::Doc* doc, uint8_t* buffer, uint32_t request, int64_t expected) {
  if (doc == nullptr) return -1;
  double start = now();
  int64_t bytes = 0;
  uint64_t sum = 0;
  if (!gsf::readStream(doc, nullptr, "Big", buffer, request, &bytes, &sum)) return -1;
  double elapsed = now() - start;
  keep(sum);
  return bytes == expected ? elapsed : -1;
}

// The stream's bytes copied into the buffer request by request, each
// request in pieces of `piece` bytes.
double memcpyBig(const BigCase& c, uint8_t* buffer, uint32_t request, uint32_t piece) {
  const uint8_t* from = c.file->data() + c.streamOffset;
  double start = now();
  uint64_t sum = 0;
  for (int64_t done = 0; done < c.streamSize; done += request) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(request, c.streamSize - done));
    for (size_t at = 0; at < n; at += piece) {
      memcpy(buffer + at, from + done + at, std::min<size_t>(piece, n - at));
    }
    sum += buffer[0] + buffer[n - 1];
  }
  double elapsed = now() - start;
  keep(sum);
  return elapsed;
}

void bigRows(const Options& options, Table* table, BigCase& c, moxhost::MemoryIo* memoryIo) {
  std::vector<uint8_t> buffer(1 << 20);
  MoxDoc inMemory(memoryIo->io());
  moxhost::FileIo fileIo(c.path, moxhost::FileIo::kRead);
  MoxDoc inFile(fileIo.io());
  gsf::Doc* gsfMemory = gsf::openMemory(c.file->data(), c.file->size());
  gsf::Doc* gsfFile = gsf::openFile(c.path);
  const double mb = static_cast<double>(c.streamSize) / kMiB;
  const std::string what = std::to_string(static_cast<long long>(mb)) + " MiB stream, ";
  const int runs = options.runs;
  const int64_t size = c.streamSize;
  uint8_t* b = buffer.data();
  auto rate = [size](double seconds) { return throughput(size, seconds); };
  for (uint32_t request : kRequests) {
    const std::string label = what + requestName(request);
    Row memoryRow("read", label + ", memory", "MB/s", true);
    const double perPiece = rate(medianOf(runs, [&] { return memcpyBig(c, b, request, 512); }));
    measureRow(&memoryRow, runs, [&] { return moxReadBig(inMemory.h(), b, request, size); },
               gsfMemory ? Work([&] { return gsfReadBig(gsfMemory, b, request, size); }) : Work(),
               [&] { return memcpyBig(c, b, request, request); }, rate);
    char note[64];
    snprintf(note, sizeof note, "memcpy per 512 B piece %.0f MB/s", perPiece);
    memoryRow.note = note;
    table->add(memoryRow);

    Row fileRow("read", label + ", file", "MB/s", true);
    measureRow(&fileRow, runs, [&] { return moxReadBig(inFile.h(), b, request, size); },
               gsfFile ? Work([&] { return gsfReadBig(gsfFile, b, request, size); }) : Work(),
               Work(), rate);
    table->add(fileRow);
  }
  gsf::close(gsfMemory);
  gsf::close(gsfFile);
}

void bigStreamCase(const Options& options, Table* table, const ScratchDir& scratch) {
  const int64_t size = options.quick ? (int64_t{32} << 20) : (int64_t{512} << 20);
  moxhost::MemoryIo io(bigStreamDocument(size));
  BigCase c{&io.bytes(), scratch.file("big.doc"), size, 0};
  if (io.bytes().empty() || !writeCachedFile(c.path, io.bytes())) {
    fprintf(stderr, "read: could not make the large document\n");
    return;
  }
  {
    // The host object's position after the open's seek to 0 is where the
    // stream's first sector lies.
    MoxDoc doc(io.io());
    if (doc.h() == nullptr || !bOLEopenStream(doc.h(), "Big")) return;
    c.streamOffset = io.position();
  }
  bigRows(options, table, c, &io);
}

// --- Many mini streams ----------------------------------------------------

// Opens every stream of the document, storage by storage, and reads it
// when `read` is set (without, the time is that of the opens alone).
double moxReadMini(_MoxOleFile* h, const MiniDocument& doc, uint8_t* buffer, uint32_t request,
                   bool read = true) {
  double start = now();
  int64_t bytes = 0;
  uint64_t sum = 0;
  char path[1][36];
  for (int f = 0; f < doc.folders; ++f) {
    snprintf(path[0], sizeof path[0], "%s", folderName(f).c_str());
    for (int m = 0; m < doc.perFolder; ++m) {
      if (!bOLEopenEmbeddedStreamEx(h, path, 1, memberName(m).c_str())) return -1;
      if (read) readToEnd(h, buffer, request, &bytes, &sum);
    }
  }
  bOLEcloseStream(h, nullptr);
  double elapsed = now() - start;
  keep(sum);
  return !read || bytes == doc.totalBytes ? elapsed : -1;
}

double gsfReadMini(gsf::Doc* gsfDoc, const MiniDocument& doc, uint8_t* buffer,
                   uint32_t request) {
  if (gsfDoc == nullptr) return -1;
  double start = now();
  int64_t bytes = 0;
  uint64_t sum = 0;
  for (int f = 0; f < doc.folders; ++f) {
    gsf::Storage* storage = gsf::openStorage(gsfDoc, folderName(f));
    if (storage == nullptr) return -1;
    for (int m = 0; m < doc.perFolder; ++m) {
      if (!gsf::readStream(gsfDoc, storage, memberName(m), buffer, request, &bytes, &sum)) {
        gsf::close(storage);
        return -1;
      }
    }
    gsf::close(storage);
  }
  double elapsed = now() - start;
  keep(sum);
  return bytes == doc.totalBytes ? elapsed : -1;
}

// The same bytes copied 64 at a time from where the writer put them: one
// run of mini sectors per stream, streams one after another.
double memcpyMini(const MiniDocument& doc, const uint8_t* miniStream, uint8_t* buffer) {
  double start = now();
  uint64_t sum = 0;
  const uint8_t* from = miniStream;
  for (int size : doc.sizes) {
    for (int done = 0; done < size; done += 64) {
      const int n = size - done < 64 ? size - done : 64;
      memcpy(buffer + done, from + done, static_cast<size_t>(n));
    }
    sum += buffer[0] + buffer[size - 1];
    from += (size + 63) / 64 * 64;
  }
  double elapsed = now() - start;
  keep(sum);
  return elapsed;
}

// Throughput of reading every stream with the opens' time taken out.
double readsAlone(int64_t bytes, double total, double opens) {
  return total > opens && opens >= 0 ? throughput(bytes, total - opens) : -1;
}

void miniRows(const Options& options, Table* table, const MiniDocument& doc,
              moxhost::MemoryIo* memoryIo, const std::string& path, int64_t miniOffset) {
  std::vector<uint8_t> buffer(1 << 20);
  uint8_t* b = buffer.data();
  MoxDoc inMemory(memoryIo->io());
  BareMemoryIo bare(memoryIo->bytes().data(), static_cast<int64_t>(memoryIo->bytes().size()));
  MoxDoc inBare(bare.io());
  moxhost::FileIo fileIo(path, moxhost::FileIo::kRead);
  MoxDoc inFile(fileIo.io());
  gsf::Doc* gsfMemory = gsf::openMemory(memoryIo->bytes().data(), memoryIo->bytes().size());
  gsf::Doc* gsfFile = gsf::openFile(path);
  const int runs = options.runs;
  const int streams = doc.folders * doc.perFolder;
  const std::string what = std::to_string(streams) + " mini streams, ";
  auto rate = [&](double seconds) { return throughput(doc.totalBytes, seconds); };
  const uint8_t* miniStream = memoryIo->bytes().data() + miniOffset;
  for (uint32_t request : kRequests) {
    const std::string label = what + requestName(request);
    Row memoryRow("read", label + ", memory", "MB/s", true);
    measureRow(&memoryRow, runs, [&] { return moxReadMini(inMemory.h(), doc, b, request); },
               gsfMemory ? Work([&] { return gsfReadMini(gsfMemory, doc, b, request); }) : Work(),
               Work(), rate);

    // The same reads with the opens' time taken out (the opens alone timed
    // in the same turns), beside memcpy of the same bytes 64 at a time;
    // then the same through the bare memory object.
    const std::vector<double> t = mediansOf(
        runs, {[&] { return moxReadMini(inMemory.h(), doc, b, request); },
               [&] { return moxReadMini(inMemory.h(), doc, b, 0, false); },
               [&] { return moxReadMini(inBare.h(), doc, b, request); },
               [&] { return moxReadMini(inBare.h(), doc, b, 0, false); },
               [&] { return memcpyMini(doc, miniStream, b); }});
    char note[96];
    snprintf(note, sizeof note, "each stream opened by path (%.0f ns), then read",
             t[1] * 1e9 / streams);
    memoryRow.note = note;
    table->add(memoryRow);

    Row readsRow("read", label + ", memory, reads alone", "MB/s", true);
    readsRow.mox.value = readsAlone(doc.totalBytes, t[0], t[1]);
    readsRow.physical.value = rate(t[4]);
    readsRow.note = "memcpy column: per 64 B piece";
    table->add(readsRow);

    Row bareRow("read", label + ", bare host object, reads alone", "MB/s", true);
    bareRow.mox.value = readsAlone(doc.totalBytes, t[2], t[3]);
    bareRow.physical.value = rate(t[4]);
    bareRow.note = "memcpy column: per 64 B piece";
    table->add(bareRow);

    Row fileRow("read", label + ", file", "MB/s", true);
    measureRow(&fileRow, runs, [&] { return moxReadMini(inFile.h(), doc, b, request); },
               gsfFile ? Work([&] { return gsfReadMini(gsfFile, doc, b, request); }) : Work(),
               Work(), rate);
    table->add(fileRow);
  }
  gsf::close(gsfMemory);
  gsf::close(gsfFile);
}

void miniStreamsCase(const Options& options, Table* table, const ScratchDir& scratch) {
  MiniDocument doc = miniStreamsDocument(options.quick ? 100 : 1000, 100);
  moxhost::MemoryIo io(std::move(doc.bytes));
  const std::string path = scratch.file("mini.doc");
  if (io.bytes().empty() || !writeCachedFile(path, io.bytes())) {
    fprintf(stderr, "read: could not make the mini-stream document\n");
    return;
  }
  int64_t miniOffset = 0;
  {
    MoxDoc opened(io.io());
    char folder[1][36] = {"F0000"};
    if (opened.h() == nullptr || !bOLEopenEmbeddedStreamEx(opened.h(), folder, 1, "M00")) return;
    miniOffset = io.position();
  }
  miniRows(options, table, doc, &io, path, miniOffset);
}

}  // namespace

void readToEnd(_MoxOleFile* h, uint8_t* buffer, uint32_t request, int64_t* bytes,
               uint64_t* checksum) {
  uint64_t sum = 0;
  for (;;) {
    const uint32_t n = iOLEread(h, buffer, request);
    if (n == 0) break;
    sum += buffer[0] + buffer[n - 1];
    *bytes += n;
  }
  *checksum += sum;
}

void readSection(const Options& options, Table* table) {
  ScratchDir scratch;
  bigStreamCase(options, table, scratch);
  miniStreamsCase(options, table, scratch);
}

}  // namespace bench
