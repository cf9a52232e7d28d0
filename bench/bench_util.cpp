#include "bench/bench_util.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace bench {

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double medianOf(int runs, const std::function<double()>& work) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    double t = work();
    if (t < 0) return -1;
    times.push_back(t);
  }
  return median(times);
}

std::vector<double> mediansOf(int runs, const std::vector<std::function<double()>>& works) {
  std::vector<std::vector<double>> times(works.size());
  std::vector<bool> failed(works.size(), false);
  for (int round = 0; round < runs; ++round) {
    for (size_t i = 0; i < works.size(); ++i) {
      if (failed[i]) continue;
      double t = works[i]();
      if (t < 0) failed[i] = true;
      times[i].push_back(t);
    }
  }
  std::vector<double> medians;
  for (size_t i = 0; i < works.size(); ++i) medians.push_back(failed[i] ? -1 : median(times[i]));
  return medians;
}

void measureRow(Row* row, int runs, const Work& mox, const Work& gsf, const Work& physical,
                const std::function<double(double)>& unit) {
  std::vector<Work> works;
  std::vector<Figure*> figures;
  const std::pair<const Work*, Figure*> all[] = {
      {&mox, &row->mox}, {&gsf, &row->gsf}, {&physical, &row->physical}};
  for (const auto& [work, figure] : all) {
    if (!*work) continue;
    works.push_back(*work);
    figures.push_back(figure);
  }
  const std::vector<double> medians = mediansOf(runs, works);
  for (size_t i = 0; i < figures.size(); ++i) {
    figures[i]->value = medians[i] > 0 ? unit(medians[i]) : -1;
  }
}

double timeIt(const std::function<void()>& work) {
  double start = now();
  work();
  return now() - start;
}

namespace {

std::string formatValue(const Figure& f) {
  if (!f.known()) return "-";
  char text[32];
  if (f.value >= 100) {
    snprintf(text, sizeof text, "%.0f", f.value);
  } else if (f.value >= 10) {
    snprintf(text, sizeof text, "%.1f", f.value);
  } else if (f.value >= 0.1) {
    snprintf(text, sizeof text, "%.2f", f.value);
  } else {
    snprintf(text, sizeof text, "%.4f", f.value);
  }
  return text;
}

// How many times faster moxolefio did the work than `other`.
std::string formatRatio(const Figure& mox, const Figure& other, bool higherIsBetter) {
  if (!mox.known() || !other.known() || mox.value <= 0 || other.value <= 0) return "-";
  double ratio = higherIsBetter ? mox.value / other.value : other.value / mox.value;
  char text[32];
  snprintf(text, sizeof text, "%.2fx", ratio);
  return text;
}

}  // namespace

void Table::add(const Row& row) {
  rows_.push_back(row);
  if (echo_) {
    printRow(row);
    fflush(stdout);
  }
}

void Table::printRow(const Row& row) const {
  std::string label = row.section + ": " + row.label;
  // The memcpy column reads as "moxolefio takes this many times memcpy's
  // time", which is the ratio the throughput targets are stated in.
  char line[512];
  snprintf(line, sizeof line, "%-52s %-6s %10s %10s %8s %10s %8s  %s", label.c_str(),
           row.unit.c_str(), formatValue(row.mox).c_str(), formatValue(row.gsf).c_str(),
           formatRatio(row.mox, row.gsf, row.higherIsBetter).c_str(),
           formatValue(row.physical).c_str(),
           formatRatio(row.physical, row.mox, row.higherIsBetter).c_str(), row.note.c_str());
  size_t end = strlen(line);
  while (end > 0 && line[end - 1] == ' ') --end;
  printf("%.*s\n", static_cast<int>(end), line);
}

void Table::print() const {
  printf("%-52s %-6s %10s %10s %8s %10s %8s  %s\n", "case", "unit", "moxolefio", "libgsf",
         "mox/gsf", "memcpy", "x memcpy", "note");
  for (const Row& row : rows_) printRow(row);
}

bool runInChild(const std::function<void(void* out)>& work, void* out, size_t size,
                double* peakRssMB) {
  int ends[2];
  if (pipe(ends) != 0) return false;
  fflush(stdout);
  pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    close(ends[0]);
    std::vector<char> result(size);
    work(result.data());
    ssize_t ignored = write(ends[1], result.data(), size);
    (void)ignored;
    _exit(0);
  }
  close(ends[1]);
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(ends[0], static_cast<char*>(out) + got, size - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(ends[0]);
  int status = 0;
  rusage usage;
  if (wait4(child, &status, 0, &usage) < 0) return false;
  if (peakRssMB != nullptr) *peakRssMB = static_cast<double>(usage.ru_maxrss) / 1024.0;
  return got == size && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool writeCachedFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  touchFile(path);
  return true;
}

void touchFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  std::vector<char> buffer(1 << 20);
  while (read(fd, buffer.data(), buffer.size()) > 0) {
  }
  close(fd);
}

void keep(uint64_t value) {
  static volatile uint64_t sink;
  sink = sink + value;
}

}  // namespace bench
