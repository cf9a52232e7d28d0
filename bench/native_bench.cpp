// The native C++ interface against libgsf and memcpy: a 512 MiB stream read
// from a mapped file in 4 KiB and 1 MiB requests, 100000 mini streams
// opened by path and read, the open of a 100000-entry file, and 1000
// lookups among 100000 siblings.
//
// libgsf reads the large stream from memory (the bytes the mapping shows)
// and from its stdio input; memcpy copies the same bytes in the same
// requests, the bound no reader can pass.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "bench/doc_shapes.h"
#include "bench/gsf_peer.h"
#include "bench/sections.h"
#include "moxolefio/moxolefio.hpp"

namespace bench {

namespace {

const size_t kRequests[] = {4096, 1 << 20};

double rateOf(int64_t bytes, double seconds) {
  return seconds > 0 ? static_cast<double>(bytes) / kMiB / seconds : -1;
}

std::string requestName(size_t request) {
  return request >= (1u << 20) ? std::to_string(request >> 20) + " MiB" : std::to_string(request >> 10) + " KiB";
}

// Reads a stream to its end; negative when the bytes did not add up.
double nativeRead(const mox::CompoundFile& file, const std::string& path, uint8_t* buffer,
                  size_t request, int64_t expected) {
  const double start = now();
  mox::Stream s = file.open_stream(path);
  int64_t bytes = 0;
  uint64_t sum = 0;
  for (size_t n; (n = s.read(buffer, request)) > 0;) {
    bytes += static_cast<int64_t>(n);
    sum += buffer[0] + buffer[n - 1];
  }
  const double elapsed = now() - start;
  keep(sum);
  return bytes == expected ? elapsed : -1;
}

// Where the writer put the stream's (contiguous) bytes: found by content.
int64_t offsetOfStream(const Bytes& file, const mox::CompoundFile& doc, const std::string& path) {
  std::vector<uint8_t> head(4096);
  mox::Stream s = doc.open_stream(path);
  head.resize(s.read(head.data(), head.size()));
  for (size_t at = 0; at + head.size() <= file.size(); at += 512) {
    if (memcmp(file.data() + at, head.data(), head.size()) == 0) return static_cast<int64_t>(at);
  }
  return -1;
}

void bigStreamRows(const Options& options, Table* table, const ScratchDir& scratch) {
  const int64_t size = options.quick ? (int64_t{32} << 20) : (int64_t{512} << 20);
  const Bytes bytes = bigStreamDocument(size);
  const std::string path = scratch.file("native-big.doc");
  if (bytes.empty() || !writeCachedFile(path, bytes)) return;
  const mox::CompoundFile mapped = mox::CompoundFile::open(path);
  const int64_t offset = offsetOfStream(bytes, mapped, "Big");
  gsf::Doc* gsfMemory = gsf::openMemory(bytes.data(), bytes.size());
  gsf::Doc* gsfFile = gsf::openFile(path);
  std::vector<uint8_t> buffer(1 << 20);
  uint8_t* b = buffer.data();
  auto rate = [size](double seconds) { return rateOf(size, seconds); };
  for (size_t request : kRequests) {
    auto gsfRead = [&](gsf::Doc* doc) -> Work {
      if (doc == nullptr) return Work();
      return [&, doc, request] {
        const double start = now();
        int64_t n = 0;
        uint64_t sum = 0;
        if (!gsf::readStream(doc, nullptr, "Big", b, request, &n, &sum)) return -1.0;
        keep(sum);
        return n == size ? now() - start : -1.0;
      };
    };
    Work copy = [&, request] {
      const double start = now();
      uint64_t sum = 0;
      for (int64_t done = 0; done < size; done += static_cast<int64_t>(request)) {
        const size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(request), size - done));
        memcpy(b, bytes.data() + offset + done, n);
        sum += b[0] + b[n - 1];
      }
      keep(sum);
      return now() - start;
    };
    const std::string label = std::to_string(size >> 20) + " MiB stream, " + requestName(request);
    Row row("native", label + ", mapped file; gsf from memory", "MB/s", true);
    measureRow(&row, options.runs, [&] { return nativeRead(mapped, "Big", b, request, size); },
               gsfRead(gsfMemory), offset >= 0 ? copy : Work(), rate);
    table->add(row);
    Row fileRow("native", label + ", mapped file; gsf from its file input", "MB/s", true);
    measureRow(&fileRow, options.runs, [&] { return nativeRead(mapped, "Big", b, request, size); },
               gsfRead(gsfFile), Work(), rate);
    table->add(fileRow);
  }
  gsf::close(gsfMemory);
  gsf::close(gsfFile);
}

void miniStreamRows(const Options& options, Table* table) {
  const MiniDocument doc = miniStreamsDocument(options.quick ? 100 : 1000, 100);
  const mox::CompoundFile file = mox::CompoundFile::open_memory(doc.bytes.data(), doc.bytes.size());
  gsf::Doc* gsfDoc = gsf::openMemory(doc.bytes.data(), doc.bytes.size());
  std::vector<uint8_t> buffer(1 << 20);
  uint8_t* b = buffer.data();
  std::vector<std::string> paths;
  for (int f = 0; f < doc.folders; ++f) {
    for (int m = 0; m < doc.perFolder; ++m) paths.push_back(folderName(f) + "/" + memberName(m));
  }
  Work mox = [&] {
    const double start = now();
    int64_t bytes = 0;
    uint64_t sum = 0;
    for (const std::string& p : paths) {
      mox::Stream s = file.open_stream(p);
      for (size_t n; (n = s.read(b, 4096)) > 0;) {
        bytes += static_cast<int64_t>(n);
        sum += b[0] + b[n - 1];
      }
    }
    keep(sum);
    return bytes == doc.totalBytes ? now() - start : -1.0;
  };
  Work peer;
  if (gsfDoc != nullptr) {
    peer = [&] {
      const double start = now();
      int64_t bytes = 0;
      uint64_t sum = 0;
      for (int f = 0; f < doc.folders; ++f) {
        gsf::Storage* storage = gsf::openStorage(gsfDoc, folderName(f));
        if (storage == nullptr) return -1.0;
        for (int m = 0; m < doc.perFolder; ++m) {
          if (!gsf::readStream(gsfDoc, storage, memberName(m), b, 4096, &bytes, &sum)) return -1.0;
        }
        gsf::close(storage);
      }
      keep(sum);
      return bytes == doc.totalBytes ? now() - start : -1.0;
    };
  }
  Row row("native", std::to_string(paths.size()) + " mini streams opened by path and read, 4 KiB",
          "MB/s", true);
  measureRow(&row, options.runs, mox, peer, Work(), [&](double s) { return rateOf(doc.totalBytes, s); });
  table->add(row);
  gsf::close(gsfDoc);
}

void openRows(const Options& options, Table* table) {
  const int entries = options.quick ? 10000 : 100000;
  const Bytes bytes = entriesDocument(entries);
  Work mox = [&] {
    const double start = now();
    mox::CompoundFile file = mox::CompoundFile::open_memory(bytes.data(), bytes.size());
    const double elapsed = now() - start;
    keep(file.root().size);
    return elapsed;
  };
  Work peer;
  if (gsf::available()) {
    peer = [&] {
      const double start = now();
      gsf::Doc* doc = gsf::openMemory(bytes.data(), bytes.size());
      const double elapsed = now() - start;
      if (doc == nullptr) return -1.0;
      gsf::close(doc);
      return elapsed;
    };
  }
  Row row("native", "open: " + std::to_string(entries) + " entries, memory", "ms", false);
  measureRow(&row, options.runs, mox, peer, Work(), [](double s) { return s * 1e3; });
  row.note = "libgsf builds its whole tree at the open";
  table->add(row);
  // The fair comparison with libgsf's open: every entry made and listed.
  Work moxWalk = [&] {
    const double start = now();
    mox::CompoundFile file = mox::CompoundFile::open_memory(bytes.data(), bytes.size());
    const size_t listed = file.walk().size();
    const double elapsed = now() - start;
    return listed > static_cast<size_t>(entries) / 2 ? elapsed : -1.0;
  };
  Row walkRow("native", "open and walk: " + std::to_string(entries) + " entries, memory", "ms", false);
  measureRow(&walkRow, options.runs, moxWalk, peer, Work(), [](double s) { return s * 1e3; });
  walkRow.note = "every entry made and listed with its path";
  table->add(walkRow);
}

void lookupRows(const Options& options, Table* table) {
  const int count = options.quick ? 10000 : 100000;
  const Bytes bytes = siblingsDocument(count);
  const mox::CompoundFile file = mox::CompoundFile::open_memory(bytes.data(), bytes.size());
  std::vector<std::string> names;
  for (int i = 0; i < 1000; ++i) names.push_back(siblingName((i * 7919) % count));
  Work mox = [&] {
    const double start = now();
    size_t found = 0;
    for (const std::string& n : names) found += file.exists(n) ? 1 : 0;
    const double elapsed = now() - start;
    return found == names.size() ? elapsed : -1.0;
  };
  Row row("native", "1000 lookups among " + std::to_string(count) + " siblings", "ms", false);
  measureRow(&row, options.runs, mox, Work(), Work(), [](double s) { return s * 1e3; });
  table->add(row);
}

}  // namespace

void nativeSection(const Options& options, Table* table) {
  ScratchDir scratch;
  openRows(options, table);
  lookupRows(options, table);
  miniStreamRows(options, table);
  bigStreamRows(options, table, scratch);
}

}  // namespace bench
