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
  void release(std::uint64_t page);

  virtual void write(std::uint64_t page, std::size_t at, const void* data, std::size_t count) = 0;
  virtual void read(std::uint64_t page, std::size_t at, void* out, std::size_t count) const = 0;
  // The file the pages are in (page n at n * kPageSize), or -1.
  virtual int descriptor() const { return -1; }

 protected:
  virtual void dropped(std::uint64_t page) = 0;
  // Whether a released page comes back with its old bytes (else zeroed).
  virtual bool keepsReleased() const = 0;

 private:
  std::uint64_t next_ = 0;
  std::vector<std::uint64_t> free_;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_SCRATCH_H_
