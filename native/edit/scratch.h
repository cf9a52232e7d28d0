// Where the bytes of new and changed streams wait for the next commit:
// fixed-size pages in an unlinked file beside the document (or in memory
// for documents without a file), handed out and taken back by the edited
// streams.  Keeping them out of the heap is what lets a stream of many
// gigabytes be written with a few megabytes of tables.
#ifndef MOXOLEFIO_NATIVE_EDIT_SCRATCH_H_
#define MOXOLEFIO_NATIVE_EDIT_SCRATCH_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace mox::detail {

class Scratch {
 public:
  static constexpr std::size_t kPageSize = 64 * 1024;

  // Pages in the heap.
  static std::shared_ptr<Scratch> inMemory();
  // Pages in an unlinked file made on first use in `folder`, else in
  // $TMPDIR or /tmp.
  static std::shared_ptr<Scratch> inFolder(std::filesystem::path folder);

  virtual ~Scratch() = default;

  struct Page {
    std::uint64_t number;
    bool zeroed;  // never used before: it reads as zeros
  };
  Page allocate();
  // Gives pages back.  Neighbours go back to the file system as one piece,
  // and a scratch file left without a page in use is emptied at once: a
  // committed gigabyte stream would otherwise cost a call per page.
  void release(std::vector<std::uint64_t> pages);

  virtual void write(std::uint64_t page, std::size_t at, const void* data, std::size_t count) = 0;
  virtual void read(std::uint64_t page, std::size_t at, void* out, std::size_t count) const = 0;
  // The file the pages are in (page n at n * kPageSize), or -1.
  virtual int descriptor() const { return -1; }

  // Pages handed out and not given back.
  std::uint64_t pagesInUse() const { return next_ - first_ - free_.size(); }
  // One past the highest page handed out so far.
  std::uint64_t pageLimit() const { return next_; }

  // A commit may make the scratch file itself the new document, its pages
  // where they lie, when the file is one that can be given a name in the
  // document's folder.  Page 0 is never handed out by such a file: it is
  // where the header goes.
  bool canBecomeDocument() const { return !refusedName_ && nameable(); }
  // The file could not be given a name after all: later commits copy.
  void refuseName() { refusedName_ = true; }
  // The file is the document's now: its descriptor goes to the caller,
  // and pages given back until resume() are forgotten, not freed (they
  // are the document's sectors).  Later pages go to a new file.
  int handOver();
  void resume();

 protected:
  explicit Scratch(std::uint64_t firstPage = 0) : first_(firstPage), next_(firstPage) {}
  virtual bool nameable() const { return false; }
  // The descriptor leaves this object; the next write makes a new file.
  virtual int giveUpFile() { return -1; }
  // Pages [first, first + count) are no longer in use.
  virtual void dropped(std::uint64_t first, std::uint64_t count) = 0;
  // No page is in use: the next ones start from 0 again.
  virtual void droppedAll() = 0;
  // Whether a released page comes back with its old bytes (else zeroed).
  virtual bool keepsReleased() const = 0;

 private:
  // No page handed out: the next one is the first again.
  void startOver();

  std::uint64_t first_;
  std::uint64_t next_;
  std::vector<std::uint64_t> free_;
  bool handedOver_ = false;
  bool refusedName_ = false;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_SCRATCH_H_
