#include "tools/moxole/progress.h"

#include <stdio.h>
#include <unistd.h>

#include <chrono>

namespace moxole {

namespace {

// Whether a progress line is on the terminal right now.
bool lineShown = false;

int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string megabytes(int64_t bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

}  // namespace

Progress::Progress(std::string verb, int64_t totalEntries, int64_t totalBytes)
    : verb_(std::move(verb)),
      totalEntries_(totalEntries),
      totalBytes_(totalBytes),
      enabled_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { clearLine(); }

void Progress::show(bool force) {
  if (!enabled_) return;
  int64_t now = nowMillis();
  if (!force && now - lastShown_ < 100) return;
  lastShown_ = now;
  std::string bytes = megabytes(bytes_);
  if (totalBytes_ > 0) bytes += " of " + megabytes(totalBytes_);
  if (totalEntries_ > 0) {
    fprintf(stderr, "\rmoxole: %s: %lld of %lld entries, %s\033[K",
            verb_.c_str(), static_cast<long long>(entries_),
            static_cast<long long>(totalEntries_), bytes.c_str());
  } else {
    fprintf(stderr, "\rmoxole: %s: %lld entries, %s\033[K", verb_.c_str(),
            static_cast<long long>(entries_), bytes.c_str());
  }
  fflush(stderr);
  lineShown = true;
}

void Progress::clearLine() {
  if (!lineShown) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  lineShown = false;
}

}  // namespace moxole
