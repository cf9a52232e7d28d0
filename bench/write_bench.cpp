// Writer throughput and peak memory: one 1 GiB stream in 64 KiB writes,
// 100000 streams of 100 bytes and 100000 of 4 KiB (100 to a storage).
//
// The writer keeps every byte in memory until the handle is closed, then
// lays the file out and writes it front to back into a MemoryIo reserved
// up front.  Three figures per scenario:
//   - a fresh process per run, as a host writing one document sees it:
//     this includes the kernel's first touch of every page the writer's
//     pools and the output take (libgsf is measured the same way);
//   - repeated runs in one process whose memory is already mapped: the
//     library's own cost plus the host kit's copy into its buffer, beside
//     a plain memcpy of the file's bytes in the same pieces;
//   - peak memory: what the writer held in the host's pools and heap,
//     against the size of the file, and the processes' peak resident size.
#include <malloc.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/gsf_peer.h"
#include "bench/sections.h"

namespace bench {

namespace {

struct Result {
  double fileMB = -1;
  double seconds = -1;       // writes and close together
  double closeSeconds = -1;  // the close alone (layout and output)
  double writerMB = -1;      // pools plus heap, as the host counted them
};

struct Scenario {
  int count;       // streams
  int64_t size;    // bytes per stream
  int piece;       // bytes per iOLEwrite
};

std::string sizeText(int64_t bytes) {
  if (bytes >= (int64_t{1} << 30)) return std::to_string(bytes >> 30) + " GiB";
  if (bytes >= (1 << 20)) return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= (1 << 10)) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " B";
}

std::string describe(const Scenario& s) {
  if (s.count == 1) return sizeText(s.size) + " stream, " + sizeText(s.piece) + " writes";
  return std::to_string(s.count) + " streams of " + sizeText(s.size);
}

// One document per call into `io`, whose buffer is reused.
Result moxWrite(const Scenario& s, moxhost::MemoryIo* io) {
  moxhost::PoolServices host;
  host.setScribble(false);
  io->bytes().clear();
  std::vector<unsigned char> data(static_cast<size_t>(s.piece));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + 7);
  char path[64];

  double start = now();
  _MoxOleFile* h = hOLEopenEx(io->io(), host.services(), 1);
  if (h == nullptr) return Result();
  for (int i = 0; i < s.count; ++i) {
    if (s.count > 1) {
      if (i % 100 == 0) {
        snprintf(path, sizeof path, "Storage%d", i / 100);
        iOLEopenStreamEx(h, path, 1, 1);
      }
      snprintf(path, sizeof path, "Storage%d\\Stream%d", i / 100, i);
    } else {
      snprintf(path, sizeof path, "Large");
    }
    iOLEopenStreamEx(h, path, 2, 1);
    for (int64_t done = 0; done < s.size; done += s.piece) iOLEwrite(h, data.data(), s.piece);
  }
  double built = now();
  iOLEclose(h);
  double closed = now();
  Result r;
  r.fileMB = static_cast<double>(io->bytes().size()) / kMiB;
  r.seconds = closed - start;
  r.closeSeconds = closed - built;
  r.writerMB = static_cast<double>(host.peakPoolBytes() + host.heap().peakBytes()) / kMiB;
  return r;
}

Result gsfWrite(const Scenario& s) {
  Result r;
  int64_t fileBytes = 0;
  double start = now();
  bool ok = s.count > 1 ? gsf::writeManyStreams(s.count, static_cast<int>(s.size), &fileBytes)
                        : gsf::writeOneStream(s.size, s.piece, &fileBytes);
  if (!ok) return r;
  r.seconds = now() - start;
  r.fileMB = static_cast<double>(fileBytes) / kMiB;
  return r;
}

size_t reserveFor(const Scenario& s) {
  const int64_t total = static_cast<int64_t>(s.count) * (s.size + 200);
  return static_cast<size_t>(total + total / 100 + (1 << 20));
}

// One document written in a fresh child process.
struct Fresh {
  Result result;
  double rssMB = -1;
};

bool freshRun(const std::function<Result()>& work, Fresh* out) {
  return runInChild([&](void* to) { *static_cast<Result*>(to) = work(); }, &out->result,
                    sizeof out->result, &out->rssMB) &&
         out->result.seconds >= 0;
}

// The medians of several fresh runs.
Fresh medianFresh(const std::vector<Fresh>& runs) {
  if (runs.empty()) return Fresh();
  std::vector<double> seconds, closes, rss;
  for (const Fresh& f : runs) {
    seconds.push_back(f.result.seconds);
    closes.push_back(f.result.closeSeconds);
    rss.push_back(f.rssMB);
  }
  Fresh m = runs[0];
  m.result.seconds = median(seconds);
  m.result.closeSeconds = median(closes);
  m.rssMB = median(rss);
  return m;
}

// `runs` fresh processes for each library, taking turns.
void freshRuns(int runs, const Scenario& s, Fresh* mox, Fresh* peer) {
  std::vector<Fresh> moxRuns, peerRuns;
  for (int i = 0; i < runs; ++i) {
    Fresh f;
    if (freshRun([&] {
          moxhost::MemoryIo io;
          io.bytes().reserve(reserveFor(s));
          return moxWrite(s, &io);
        }, &f)) {
      moxRuns.push_back(f);
    }
    if (gsf::available() && freshRun([&] { return gsfWrite(s); }, &f)) peerRuns.push_back(f);
  }
  *mox = medianFresh(moxRuns);
  *peer = medianFresh(peerRuns);
}

// `runs` documents in one child after one untimed warm-up, with freed
// memory kept in the process: the median of the timed ones.
Result warmRuns(int runs, const Scenario& s) {
  Result m;
  runInChild(
      [&](void* out) {
        mallopt(M_TRIM_THRESHOLD, 0x7fffffff);
        mallopt(M_MMAP_THRESHOLD, 32 << 20);
        moxhost::MemoryIo io;
        io.bytes().reserve(reserveFor(s));
        Result last = moxWrite(s, &io);
        std::vector<double> seconds;
        for (int i = 0; i < runs && last.seconds >= 0; ++i) {
          last = moxWrite(s, &io);
          seconds.push_back(last.seconds);
        }
        last.seconds = last.seconds < 0 ? -1 : median(seconds);
        *static_cast<Result*>(out) = last;
      },
      &m, sizeof m, nullptr);
  return m;
}

// memcpy of the file's bytes in the writer's pieces into mapped memory.
double memcpySeconds(double fileMB, int piece) {
  const size_t total = static_cast<size_t>(fileMB * kMiB);
  std::vector<uint8_t> from(static_cast<size_t>(piece), 0x5A);
  std::vector<uint8_t> to(total);
  memset(to.data(), 1, to.size());
  return medianOf(3, [&] {
    return timeIt([&] {
      for (size_t done = 0; done + from.size() <= total; done += from.size()) {
        memcpy(to.data() + done, from.data(), from.size());
      }
    });
  });
}

// Throughput for the single large stream, seconds for the many small ones.
Figure figureOf(const Scenario& s, const Result& r) {
  if (r.seconds < 0) return Figure();
  return Figure{s.count > 1 ? r.seconds : r.fileMB / r.seconds};
}

void scenarioRows(const Options& options, Table* table, const Scenario& s) {
  const bool rate = s.count == 1;
  const char* unit = rate ? "MB/s" : "s";
  Fresh moxFresh, gsfFresh;
  freshRuns(options.runs, s, &moxFresh, &gsfFresh);
  const Result& mox = moxFresh.result;
  const Result& peer = gsfFresh.result;

  Row fresh("write", describe(s) + ", fresh process", unit, rate);
  fresh.mox = figureOf(s, mox);
  fresh.gsf = figureOf(s, peer);
  char note[96];
  snprintf(note, sizeof note, "file %.0f MB, close %.2f of %.2f s", mox.fileMB, mox.closeSeconds,
           mox.seconds);
  fresh.note = note;
  table->add(fresh);

  Result warm = warmRuns(options.runs, s);
  Row mapped("write", describe(s) + ", memory mapped", unit, rate);
  mapped.mox = figureOf(s, warm);
  // For many small streams the work is entry keeping, not copying: a
  // memcpy figure would say nothing.
  if (rate && mox.fileMB > 0) {
    Result copy;
    copy.fileMB = mox.fileMB;
    copy.seconds = memcpySeconds(mox.fileMB, std::min<int64_t>(s.piece, 65536));
    mapped.physical = figureOf(s, copy);
  }
  snprintf(note, sizeof note, "close %.2f of %.2f s", warm.closeSeconds, warm.seconds);
  mapped.note = note;
  table->add(mapped);

  Row memory("write", describe(s) + ", peak RSS", "MB", false);
  memory.mox.value = moxFresh.rssMB;
  memory.gsf.value = gsfFresh.rssMB;
  snprintf(note, sizeof note, "writer %.0f MB = %.2fx file", mox.writerMB,
           mox.fileMB > 0 ? mox.writerMB / mox.fileMB : 0);
  memory.note = note;
  table->add(memory);
}

}  // namespace

void writeSection(const Options& options, Table* table) {
  const int streams = options.quick ? 10000 : 100000;
  const Scenario scenarios[] = {
      {1, options.quick ? (int64_t{64} << 20) : (int64_t{1} << 30), 65536},
      {streams, 100, 100},
      {streams, 4096, 4096},
  };
  for (const Scenario& s : scenarios) scenarioRows(options, table, s);
}

}  // namespace bench
