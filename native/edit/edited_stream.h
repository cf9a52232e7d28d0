// A stream of a file being edited.  It starts as a view of the stream as
// stored (nothing is read or copied) and keeps only what was written:
// small streams whole in memory, others as scratch pages over the stored
// bytes, so that a changed stream of a large file costs the pages that
// changed.
#ifndef MOXOLEFIO_NATIVE_EDIT_EDITED_STREAM_H_
#define MOXOLEFIO_NATIVE_EDIT_EDITED_STREAM_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "native/edit/scratch.h"
#include "native/stream_data.h"

namespace mox::detail {

class EditedStream : public StreamData {
 public:
  // `base` (may be null: an empty stream) is the content until written.
  EditedStream(std::shared_ptr<Scratch> scratch, std::shared_ptr<StreamData> base,
               std::uint64_t maxSize, std::string name);
  ~EditedStream() override;

  std::uint64_t size() const override { return size_; }
  std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const override;
  bool writable() const override { return true; }
  void writeAt(std::uint64_t offset, const void* data, std::size_t count) override;
  void resize(std::uint64_t size) override;

  // Whether the content may differ from the base given last: written,
  // resized, or made without one.
  bool changed() const { return changed_; }
  // The content is now `base` again (after a commit wrote it, or a revert
  // went back to it); what was kept is given back.
  void rebase(std::shared_ptr<StreamData> base);
  // Where the bytes from `offset` on lie when they are in the scratch file:
  // its descriptor, the position there and how many stream bytes follow
  // contiguously; false when they lie elsewhere.  Lets a commit copy them
  // file to file.
  bool scratchRun(std::uint64_t offset, int* fd, std::uint64_t* at, std::uint64_t* count) const;
  // The stream left its file (removed, replaced, or gone at a revert):
  // it can still be read, no longer written.
  void detach();

 private:
  static constexpr std::uint64_t kNoPage = ~std::uint64_t{0};
  // Streams below this size are kept whole in memory: that is where
  // mini streams end up, and a page each would waste the scratch file.
  static constexpr std::uint64_t kInlineLimit = 4096;

  void readPaged(std::uint64_t offset, unsigned char* out, std::size_t count) const;
  void readBase(std::uint64_t offset, unsigned char* out, std::size_t count) const;
  void writePaged(std::uint64_t offset, const unsigned char* data, std::size_t count);
  void shrinkPaged(std::uint64_t size);
  void toInline();
  void toPaged();
  void releasePages(std::size_t from);
  void checkWritable(std::uint64_t end) const;

  std::shared_ptr<Scratch> scratch_;
  std::shared_ptr<StreamData> base_;
  std::uint64_t baseLimit_ = 0;  // bytes of the base still showing
  std::uint64_t size_ = 0;
  std::uint64_t maxSize_;
  bool inline_ = false;
  bool detached_ = false;
  bool changed_ = false;
  std::vector<unsigned char> small_;   // the content, when inline
  std::vector<std::uint64_t> pages_;   // scratch page of each page, or kNoPage
  std::string name_;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_EDITED_STREAM_H_
