// Writer throughput and peak memory.
//
//   write_bench            runs every scenario, each in a child process so
//                          that the peak resident size is its own
//   write_bench NAME       runs one scenario in this process
//
// Each scenario builds a document through hOLEopenEx / iOLEopenStreamEx /
// iOLEwrite into a MemoryIo (reserved up front, so the host's buffer does
// not grow while the writer runs) and closes it with iOLEclose, which lays
// out and writes the file.  Reported: time to take the bytes (writes),
// time of the close (layout and output), throughput over the file size,
// the most memory the writer held in the host's pools and heap at once,
// and the process's peak resident size.
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/moxhost.h"
#include "interface/mox_file.h"

namespace {

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec * 1e-9;
}

struct Result {
  double fileMB;
  double buildSeconds;
  double closeSeconds;
  double writerPeakMB;  // pools plus heap blocks, as the host counted them
};

// One stream of `total` bytes in writes of `piece` bytes.
Result oneLargeStream(int64_t total, int piece) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  io.bytes().reserve(static_cast<size_t>(total + total / 100 + (1 << 20)));
  std::vector<unsigned char> data(static_cast<size_t>(piece));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + 7);

  double start = now();
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 1);
  iOLEopenStreamEx(h, "Large", 2, 1);
  for (int64_t done = 0; done < total; done += piece) iOLEwrite(h, data.data(), piece);
  double built = now();
  iOLEclose(h);
  double closed = now();
  return {io.bytes().size() / 1048576.0, built - start, closed - built,
          (host.peakPoolBytes() + host.heap().peakBytes()) / 1048576.0};
}

// `count` streams of `size` bytes, 100 to a storage.
Result manySmallStreams(int count, int size) {
  moxhost::PoolServices host;
  moxhost::MemoryIo io;
  io.bytes().reserve(static_cast<size_t>(count) * (size + 200) + (1 << 20));
  std::vector<unsigned char> data(static_cast<size_t>(size), 0x5A);
  char path[64];

  double start = now();
  _MoxOleFile* h = hOLEopenEx(io.io(), host.services(), 1);
  for (int i = 0; i < count; ++i) {
    if (i % 100 == 0) {
      snprintf(path, sizeof path, "Storage%d", i / 100);
      iOLEopenStreamEx(h, path, 1, 1);
    }
    snprintf(path, sizeof path, "Storage%d\\Stream%d", i / 100, i);
    iOLEopenStreamEx(h, path, 2, 1);
    iOLEwrite(h, data.data(), size);
  }
  double built = now();
  iOLEclose(h);
  double closed = now();
  return {io.bytes().size() / 1048576.0, built - start, closed - built,
          (host.peakPoolBytes() + host.heap().peakBytes()) / 1048576.0};
}

struct Scenario {
  const char* name;
  const char* description;
  Result (*run)();
};

const Scenario kScenarios[] = {
    {"large", "1 GiB stream, 64 KiB writes",
     [] { return oneLargeStream(int64_t{1} << 30, 65536); }},
    {"small", "100000 streams of 100 bytes",
     [] { return manySmallStreams(100000, 100); }},
    {"small4k", "100000 streams of 4 KiB",
     [] { return manySmallStreams(100000, 4096); }},
};

void print(const Scenario& s, const Result& r, double rssMB) {
  double total = r.buildSeconds + r.closeSeconds;
  printf("%-30s %9.1f %8.3f %8.3f %9.1f %10.1f %10.1f\n", s.description, r.fileMB,
         r.buildSeconds, r.closeSeconds, r.fileMB / total, r.writerPeakMB, rssMB);
}

// Runs a scenario in a child; its peak resident size is then its own.
bool runInChild(const Scenario& s) {
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return false;
  pid_t child = fork();
  if (child == 0) {
    close(pipeEnds[0]);
    Result r = s.run();
    ssize_t ignored = write(pipeEnds[1], &r, sizeof r);
    (void)ignored;
    _exit(0);
  }
  close(pipeEnds[1]);
  Result r;
  bool got = read(pipeEnds[0], &r, sizeof r) == static_cast<ssize_t>(sizeof r);
  close(pipeEnds[0]);
  int status = 0;
  rusage usage;
  wait4(child, &status, 0, &usage);
  if (!got) return false;
  print(s, r, usage.ru_maxrss / 1024.0);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  printf("%-30s %9s %8s %8s %9s %10s %10s\n", "scenario", "file MB", "write s", "close s",
         "MB/s", "writer MB", "peak RSS");
  for (const Scenario& s : kScenarios) {
    if (argc > 1) {
      if (strcmp(argv[1], s.name) != 0) continue;
      Result r = s.run();
      rusage usage;
      getrusage(RUSAGE_SELF, &usage);
      print(s, r, usage.ru_maxrss / 1024.0);
    } else if (!runInChild(s)) {
      fprintf(stderr, "%s failed\n", s.name);
      return 1;
    }
  }
  return 0;
}
