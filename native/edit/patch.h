// A commit that changed only the bytes of streams, each keeping its
// number of sectors, and the fields of entries (class ids, state bits,
// times) is the old file with those sectors and entries overwritten.
// Written that way it costs a copy of the old file, made from its mapping
// at the speed of cp, instead of a new layout of every entry and stream;
// every byte not edited stays as it was.
//
// That keeps the old file's structure as it is, so it is done only for a
// file whose structure the writer would have made itself: one in which
// check() finds nothing.
#ifndef MOXOLEFIO_NATIVE_EDIT_PATCH_H_
#define MOXOLEFIO_NATIVE_EDIT_PATCH_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "format/records.h"
#include "native/edit/serializer.h"

namespace mox::detail {

class PatchedCopy : public FileWriter {
 public:
  // The copy of `image` with the edits of `tree` (a tree over that image
  // whose entries are all still where the image has them), or null when
  // an edit needs a new layout: a stream that changed its number of
  // sectors, or moved between the mini stream and the regular sectors.
  static std::unique_ptr<PatchedCopy> plan(const Tree& tree, std::shared_ptr<const Image> image);

  std::uint64_t fileSize() const override { return size_; }
  void write(Sink& sink) override;

 private:
  // Bytes that replace the old file's at `at`: from a stream, from
  // `bytes_` (re-encoded entries, header fields), or zeros (the rest of a
  // stream's last sector).
  enum class From { stream, bytes, zeros };
  struct Piece {
    std::uint64_t at;
    std::uint64_t count;
    From from;
    const StreamData* data;  // for From::stream
    std::uint64_t offset;    // in `data`, or the index in bytes_
  };

  explicit PatchedCopy(std::shared_ptr<const Image> image);
  bool addStream(const StreamData& data, const moxfmt::EntryRecord& old);
  void addEntry(std::uint32_t id, const moxfmt::EntryRecord& e);
  void addBytes(std::uint64_t at, std::vector<unsigned char> bytes);
  void mendHeader();
  bool finishPlan();

  std::shared_ptr<const Image> image_;
  std::uint64_t size_;
  std::vector<Piece> pieces_;
  std::vector<std::vector<unsigned char>> bytes_;
  std::vector<unsigned char> buffer_;
};

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_PATCH_H_
