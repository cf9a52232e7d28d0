// Read throughput: one 512 MiB regular stream, and 100000 mini streams in
// 1000 storages, each read to its end in 4 KiB and in 1 MiB requests,
// through the host kit's memory-backed object (the library's own cost) and
// its file-backed object on a file in the page cache.
//
// The reader places the host object before every sector piece (512 bytes
// for a regular stream, 64 for a mini stream) and reads that piece alone,
// so the memcpy column copies the same bytes in the same pieces: for the
// regular stream in whole requests (the bandwidth limit), for the mini
// streams 64 bytes at a time (the per-piece limit).
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

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

double memcpyBig(const BigCase& c, uint8_t* buffer, uint32_t request) {
  const uint8_t* from = c.file->data() + c.streamOffset;
  double start = now();
  uint64_t sum = 0;
  for (int64_t done = 0; done < c.streamSize; done += request) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(request, c.streamSize - done));
    memcpy(buffer, from + done, n);
    sum += buffer[0] + buffer[n - 1];
  }
  double elapsed = now() - start;
  keep(sum);
  return elapsed;
}

void bigRows(const Options& options, Table* table, BigCase& c, moxhost::MemoryIo* memoryIo) {
  std::vector<uint8_t> buffer(1 << 20);
  MoxDoc inMemory(memoryIo);
  moxhost::FileIo fileIo(c.path, moxhost::FileIo::kRead);
  MoxDoc inFile(&fileIo);
  gsf::Doc* gsfMemory = gsf::openMemory(c.file->data(), c.file->size());
  gsf::Doc* gsfFile = gsf::openFile(c.path);
  const double mb = static_cast<double>(c.streamSize) / kMiB;
  const std::string size = std::to_string(static_cast<long long>(mb)) + " MiB stream";
  for (uint32_t request : kRequests) {
    uint8_t* b = buffer.data();
    const int runs = options.runs;
    Row memoryRow("read", size + ", " + requestName(request) + ", memory", "MB/s", true);
    memoryRow.mox.value = throughput(
        c.streamSize, medianOf(runs, [&] { return moxReadBig(inMemory.h(), b, request, c.streamSize); }));
    memoryRow.gsf.value = throughput(
        c.streamSize, medianOf(runs, [&] { return gsfReadBig(gsfMemory, b, request, c.streamSize); }));
    memoryRow.physical.value =
        throughput(c.streamSize, medianOf(runs, [&] { return memcpyBig(c, b, request); }));
    table->add(memoryRow);

    Row fileRow("read", size + ", " + requestName(request) + ", file", "MB/s", true);
    fileRow.mox.value = throughput(
        c.streamSize, medianOf(runs, [&] { return moxReadBig(inFile.h(), b, request, c.streamSize); }));
    fileRow.gsf.value = throughput(
        c.streamSize, medianOf(runs, [&] { return gsfReadBig(gsfFile, b, request, c.streamSize); }));
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
    MoxDoc doc(&io);
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

void miniRows(const Options& options, Table* table, const MiniDocument& doc,
              moxhost::MemoryIo* memoryIo, const std::string& path, int64_t miniOffset) {
  std::vector<uint8_t> buffer(1 << 20);
  uint8_t* b = buffer.data();
  MoxDoc inMemory(memoryIo);
  moxhost::FileIo fileIo(path, moxhost::FileIo::kRead);
  MoxDoc inFile(&fileIo);
  gsf::Doc* gsfMemory = gsf::openMemory(memoryIo->bytes().data(), memoryIo->bytes().size());
  gsf::Doc* gsfFile = gsf::openFile(path);
  const int runs = options.runs;
  const std::string what = std::to_string(doc.folders * doc.perFolder) + " mini streams";
  const double perPiece =
      medianOf(runs, [&] { return memcpyMini(doc, memoryIo->bytes().data() + miniOffset, b); });
  const double opens = medianOf(runs, [&] { return moxReadMini(inMemory.h(), doc, b, 0, false); });
  for (uint32_t request : kRequests) {
    Row memoryRow("read", what + ", " + requestName(request) + ", memory", "MB/s", true);
    const double moxSeconds =
        medianOf(runs, [&] { return moxReadMini(inMemory.h(), doc, b, request); });
    memoryRow.mox.value = throughput(doc.totalBytes, moxSeconds);
    memoryRow.gsf.value = throughput(
        doc.totalBytes, medianOf(runs, [&] { return gsfReadMini(gsfMemory, doc, b, request); }));
    memoryRow.note = "each stream opened by path, then read";
    table->add(memoryRow);

    // The same reads with the opens' time taken out, beside memcpy of the
    // same bytes 64 at a time.
    Row readsRow("read", what + ", " + requestName(request) + ", memory, reads alone", "MB/s", true);
    if (moxSeconds > opens && opens >= 0) {
      readsRow.mox.value = throughput(doc.totalBytes, moxSeconds - opens);
    }
    readsRow.physical.value = throughput(doc.totalBytes, perPiece);
    char note[96];
    snprintf(note, sizeof note, "opens %.0f ns each; memcpy per 64 B piece",
             opens * 1e9 / (doc.folders * doc.perFolder));
    readsRow.note = note;
    table->add(readsRow);

    Row fileRow("read", what + ", " + requestName(request) + ", file", "MB/s", true);
    fileRow.mox.value = throughput(
        doc.totalBytes, medianOf(runs, [&] { return moxReadMini(inFile.h(), doc, b, request); }));
    fileRow.gsf.value = throughput(
        doc.totalBytes, medianOf(runs, [&] { return gsfReadMini(gsfFile, doc, b, request); }));
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
    MoxDoc opened(&io);
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
