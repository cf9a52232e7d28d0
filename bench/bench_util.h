// What every benchmark section shares: a clock, medians over repeated
// runs, a result table, child processes for peak-memory figures and a
// scratch folder for file-backed cases.
//
// Figures are medians because the machine is shared: one slow run says
// little, the middle of several says what the code costs.
#ifndef MOXOLEFIO_BENCH_BENCH_UTIL_H_
#define MOXOLEFIO_BENCH_BENCH_UTIL_H_

#include <stdint.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/scratch_dir.h"

namespace bench {

// Seconds on a monotonic clock.
double now();

// Runs `work` `runs` times and returns the median of its durations.  The
// work returns its own duration (so that set-up can stay untimed), or a
// negative value when it failed, which makes the whole result negative.
double medianOf(int runs, const std::function<double()>& work);

// Runs every one of `works` once per round, for `runs` rounds, and returns
// the median of each.  Taking turns puts the libraries under the same
// load from whatever else the machine runs, which back-to-back series of
// runs do not.  A work that fails (negative) gets -1.
std::vector<double> mediansOf(int runs, const std::vector<std::function<double()>>& works);

// Times `work` once.
double timeIt(const std::function<void()>& work);

double median(std::vector<double> values);

// A figure of one library, or nothing when it was not measured.
struct Figure {
  double value = -1;  // negative: not available
  bool known() const { return value >= 0; }
};

// One line of the result table.  Every figure is in `unit`; when
// `higherIsBetter` is set (throughput) the ratio column is mox / gsf,
// otherwise (a time) gsf / mox, so a ratio above 1 always means moxolefio
// did the work faster.  `physical` is the memcpy figure for the same bytes.
struct Row {
  Row(std::string section, std::string label, std::string unit, bool higherIsBetter)
      : section(std::move(section)),
        label(std::move(label)),
        unit(std::move(unit)),
        higherIsBetter(higherIsBetter) {}
  std::string section;
  std::string label;
  std::string unit;
  bool higherIsBetter = false;
  Figure mox;
  Figure gsf;
  Figure physical;
  std::string note;
};

class Table {
 public:
  void add(const Row& row);
  void print() const;
  // Also prints each row as it is added, so a long run shows progress.
  void echo(bool on) { echo_ = on; }

 private:
  void printRow(const Row& row) const;
  std::vector<Row> rows_;
  bool echo_ = false;
};

// A timed piece of work: its duration in seconds, negative on failure.
using Work = std::function<double()>;

// Fills the figures of `row` from its works, timed in turns (mediansOf);
// `unit` turns a median duration into the row's unit.  Empty works leave
// their figure out.
void measureRow(Row* row, int runs, const Work& mox, const Work& gsf, const Work& physical,
                const std::function<double(double)>& unit);

// Runs `work` in a child process and returns what it wrote into `out`
// (at most `size` bytes), plus the child's peak resident size in MiB.
// False when the child could not be run or died.
bool runInChild(const std::function<void(void* out)>& work, void* out, size_t size,
                double* peakRssMB);

using ScratchDir = moxhost::ScratchDir;

// Writes `bytes` to `path` and reads it back once so that it sits in the
// page cache.  False on any error.
bool writeCachedFile(const std::string& path, const std::vector<uint8_t>& bytes);

// Reads a file through once (page cache warm-up).
void touchFile(const std::string& path);

// A value the optimiser must assume is used.
void keep(uint64_t value);

constexpr double kMiB = 1048576.0;

}  // namespace bench

#endif  // MOXOLEFIO_BENCH_BENCH_UTIL_H_
