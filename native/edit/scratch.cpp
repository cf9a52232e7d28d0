#include "native/edit/scratch.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "moxolefio/moxolefio.hpp"
#include "native/edit/file_ops.h"

namespace mox::detail {

Scratch::Page Scratch::allocate() {
  if (!free_.empty()) {
    const std::uint64_t page = free_.back();
    free_.pop_back();
    return Page{page, !keepsReleased()};
  }
  return Page{next_++, true};
}

void Scratch::release(std::vector<std::uint64_t> pages) {
  if (pages.empty() || handedOver_) return;
  if (free_.size() + pages.size() == next_ - first_) {
    droppedAll();
    startOver();
    return;
  }
  std::sort(pages.begin(), pages.end());
  for (std::size_t i = 0, j; i < pages.size(); i = j) {
    for (j = i + 1; j < pages.size() && pages[j] == pages[j - 1] + 1;) ++j;
    dropped(pages[i], j - i);
  }
  free_.insert(free_.end(), pages.begin(), pages.end());
}

void Scratch::startOver() {
  free_.clear();
  next_ = first_;
}

int Scratch::handOver() {
  const int fd = giveUpFile();
  handedOver_ = true;
  startOver();
  return fd;
}

void Scratch::resume() {
  handedOver_ = false;
  refusedName_ = false;
}

namespace {

class MemoryScratch : public Scratch {
 public:
  void write(std::uint64_t page, std::size_t at, const void* data, std::size_t count) override {
    memcpy(bytes(page) + at, data, count);
  }
  void read(std::uint64_t page, std::size_t at, void* out, std::size_t count) const override {
    if (page < pages_.size() && pages_[page]) {
      memcpy(out, pages_[page].get() + at, count);
    } else {
      memset(out, 0, count);
    }
  }

 protected:
  void dropped(std::uint64_t first, std::uint64_t count) override {
    for (std::uint64_t page = first; page < first + count && page < pages_.size(); ++page) pages_[page].reset();
  }
  void droppedAll() override { pages_.clear(); }
  bool keepsReleased() const override { return false; }

 private:
  unsigned char* bytes(std::uint64_t page) {
    if (page >= pages_.size()) pages_.resize(page + 1);
    if (!pages_[page]) {
      pages_[page].reset(new (std::nothrow) unsigned char[kPageSize]());
      if (!pages_[page]) throw Error(Errc::no_memory, "<memory>: no memory for stream data");
    }
    return pages_[page].get();
  }
  std::vector<std::unique_ptr<unsigned char[]>> pages_;
};

[[noreturn]] void scratchFailed(const std::string& what) {
  const int err = errno;
  throw Error(err == ENOMEM ? Errc::no_memory : Errc::io,
              "scratch file for stream data: " + what + ": " + strerror(err));
}

class FileScratch : public Scratch {
 public:
  explicit FileScratch(std::filesystem::path folder) : Scratch(1), folder_(std::move(folder)) {}
  ~FileScratch() override {
    if (fd_ >= 0) ::close(fd_);
  }

  void write(std::uint64_t page, std::size_t at, const void* data, std::size_t count) override {
    const std::size_t written = count;
    const int fd = open();
    const auto* from = static_cast<const unsigned char*>(data);
    off_t offset = static_cast<off_t>(page * kPageSize + at);
    while (count > 0) {
      const ssize_t n = ::pwrite(fd, from, count, offset);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) scratchFailed("write");
      from += n;
      offset += n;
      count -= static_cast<std::size_t>(n);
    }
    if (inFolder_) startWriteback(written);
  }

  void read(std::uint64_t page, std::size_t at, void* out, std::size_t count) const override {
    auto* to = static_cast<unsigned char*>(out);
    if (fd_ < 0) {
      memset(to, 0, count);
      return;
    }
    off_t offset = static_cast<off_t>(page * kPageSize + at);
    while (count > 0) {
      const ssize_t n = ::pread(fd_, to, count, offset);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) scratchFailed("read");
      if (n == 0) {
        // Past the end of the file: a page allocated but never written.
        memset(to, 0, count);
        return;
      }
      to += n;
      offset += n;
      count -= static_cast<std::size_t>(n);
    }
  }

 protected:
  void dropped(std::uint64_t first, std::uint64_t count) override {
    // Give the disk space back; a failure only costs space.
    if (fd_ >= 0) {
      fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(first * kPageSize),
                static_cast<off_t>(count * kPageSize));
    }
  }
  void droppedAll() override {
    // Pages past the end read as zeros, as new pages must; a failure only
    // costs space.
    if (fd_ >= 0) (void)::ftruncate(fd_, 0);
  }
  // A hole may not have been punched (file systems without it).
  bool keepsReleased() const override { return true; }

 public:
  int descriptor() const override { return fd_; }

 protected:
  bool nameable() const override { return fd_ >= 0 && inFolder_; }
  int giveUpFile() override {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int open() {
    if (fd_ >= 0) return fd_;
    std::vector<std::string> folders;
    if (!folder_.empty()) folders.push_back(folder_.string());
    const char* tmp = getenv("TMPDIR");
    if (tmp != nullptr && *tmp != 0) folders.emplace_back(tmp);
    folders.emplace_back("/tmp");
    for (const std::string& folder : folders) {
      // Without O_EXCL, so that a commit can give the file a name.
      fd_ = fileOps().open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
      if (fd_ >= 0) {
        inFolder_ = !folder_.empty() && folder == folders.front();
        return fd_;
      }
      std::string name = folder + "/.moxolefio-scratch-XXXXXX";
      fd_ = fileOps().mkostemp(name.data(), O_CLOEXEC);
      if (fd_ >= 0) {
        fileOps().unlink(name.c_str());
        return fd_;
      }
    }
    scratchFailed("cannot create one in " + folders.front());
  }

  void startWriteback(std::size_t written) {
    // Pages here will most likely become the document's sectors at the
    // next commit: the disk may start on them now, so that the commit's
    // flush finds little left to do.  Advice only.
    constexpr std::size_t kStep = 16 << 20;
    unsent_ += written;
    if (unsent_ < kStep) return;
    (void)::sync_file_range(fd_, 0, 0, SYNC_FILE_RANGE_WRITE);
    unsent_ = 0;
  }

  std::filesystem::path folder_;
  std::size_t unsent_ = 0;
  int fd_ = -1;
  bool inFolder_ = false;  // made with O_TMPFILE in the document's folder
};

}  // namespace

std::shared_ptr<Scratch> Scratch::inMemory() { return std::make_shared<MemoryScratch>(); }

std::shared_ptr<Scratch> Scratch::inFolder(std::filesystem::path folder) {
  return std::make_shared<FileScratch>(std::move(folder));
}

}  // namespace mox::detail
