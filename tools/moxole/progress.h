// A progress line on standard error for long extract and pack runs.
//
// Shown only when standard error is a terminal, redrawn at most ten times
// a second, and wiped before anything else is printed there, so logs and
// pipes never see it.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_PROGRESS_H_
#define MOXOLEFIO_TOOLS_MOXOLE_PROGRESS_H_

#include <stdint.h>

#include <string>

namespace moxole {

class Progress {
 public:
  // verb names the work ("extract", "pack"); the totals may be 0 when
  // unknown.
  Progress(std::string verb, int64_t totalEntries, int64_t totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void entryDone() { ++entries_; show(false); }
  void addBytes(int64_t bytes) { bytes_ += bytes; show(false); }

  // Wipes a progress line left on the terminal, if any.
  static void clearLine();

 private:
  void show(bool force);

  std::string verb_;
  int64_t totalEntries_, totalBytes_;
  int64_t entries_ = 0, bytes_ = 0;
  int64_t lastShown_ = 0;  // milliseconds, monotonic
  bool enabled_;
};

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_PROGRESS_H_
