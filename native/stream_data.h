// A stream's bytes behind a mox::Stream: read from the file as stored, or
// (in a file being edited) held by the editor.  Positions belong to the
// Stream, so one StreamData serves any number of readers at once.
#ifndef MOXOLEFIO_NATIVE_STREAM_DATA_H_
#define MOXOLEFIO_NATIVE_STREAM_DATA_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "native/image.h"

namespace mox::detail {

class StreamData {
 public:
  virtual ~StreamData() = default;
  virtual std::uint64_t size() const = 0;
  // Copies up to `count` bytes from `offset`, fewer only at the end.
  virtual std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const = 0;
  virtual bool writable() const { return false; }
  virtual void writeAt(std::uint64_t offset, const void* data, std::size_t count);
  virtual void resize(std::uint64_t size);
};

// The stream of directory entry `id` as stored; `path` names it in errors.
// Throws Error(damaged) when its chain cannot give all its bytes.
std::shared_ptr<StreamData> openStoredStream(std::shared_ptr<const Image> image, std::uint32_t id,
                                             const std::string& path);
// The same for an entry already decoded.
std::shared_ptr<StreamData> openStoredStream(std::shared_ptr<const Image> image, const moxfmt::EntryRecord& entry,
                                             const std::string& path);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_STREAM_DATA_H_
