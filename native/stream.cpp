// mox::Stream (a position over a StreamData) and mox::istream.
#include <string.h>

#include <algorithm>

#include "moxolefio/moxolefio.hpp"
#include "native/stream_impl.h"

namespace mox {

Stream::Stream() = default;
Stream::Stream(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Stream::Stream(Stream&&) noexcept = default;
Stream& Stream::operator=(Stream&&) noexcept = default;
Stream::~Stream() = default;

namespace {
const Stream::Impl& live(const std::unique_ptr<Stream::Impl>& impl) {
  if (!impl) throw Error(Errc::invalid_argument, "the stream is not open");
  return *impl;
}
}  // namespace

std::uint64_t Stream::size() const { return live(impl_).data->size(); }

std::size_t Stream::read(void* buffer, std::size_t count) {
  live(impl_);
  if (count == 0) return 0;
  if (buffer == nullptr) throw Error(Errc::invalid_argument, impl_->path + ": null buffer");
  const std::size_t n = impl_->data->readAt(impl_->position, buffer, count);
  impl_->position += n;
  return n;
}

std::uint64_t Stream::seek(std::int64_t offset, std::ios_base::seekdir dir) {
  live(impl_);
  std::int64_t base = 0;
  if (dir == std::ios_base::cur) base = static_cast<std::int64_t>(impl_->position);
  if (dir == std::ios_base::end) base = static_cast<std::int64_t>(impl_->data->size());
  if ((offset < 0 && base + offset < 0) || (offset > 0 && base > INT64_MAX - offset)) {
    throw Error(Errc::invalid_argument, impl_->path + ": seek before the start of the stream");
  }
  impl_->position = static_cast<std::uint64_t>(base + offset);
  return impl_->position;
}

std::uint64_t Stream::tell() const { return live(impl_).position; }

std::vector<std::uint8_t> Stream::read_all() {
  live(impl_);
  const std::uint64_t size = impl_->data->size();
  std::vector<std::uint8_t> bytes;
  if (impl_->position >= size) return bytes;
  const std::uint64_t left = size - impl_->position;
  if (left > SIZE_MAX / 2) throw Error(Errc::no_memory, impl_->path + ": too large to read whole");
  bytes.resize(static_cast<std::size_t>(left));
  bytes.resize(read(bytes.data(), bytes.size()));
  return bytes;
}

bool Stream::writable() const { return impl_ && impl_->data->writable(); }

void Stream::write(const void* data, std::size_t count) {
  live(impl_);
  if (!impl_->data->writable()) throw Error(Errc::read_only, impl_->path + ": the file is open for reading");
  if (count == 0) return;
  if (data == nullptr) throw Error(Errc::invalid_argument, impl_->path + ": null buffer");
  impl_->data->writeAt(impl_->position, data, count);
  impl_->position += count;
}

void Stream::set_size(std::uint64_t size) {
  live(impl_);
  if (!impl_->data->writable()) throw Error(Errc::read_only, impl_->path + ": the file is open for reading");
  impl_->data->resize(size);
}

const std::string& Stream::path() const { return live(impl_).path; }

// --- istream ---------------------------------------------------------------

class istream::Buffer : public std::streambuf {
 public:
  explicit Buffer(Stream stream) : stream_(std::move(stream)) {}

 protected:
  int_type underflow() override {
    const std::size_t n = stream_.read(buffer_, sizeof buffer_);
    if (n == 0) return traits_type::eof();
    setg(buffer_, buffer_, buffer_ + n);
    return traits_type::to_int_type(buffer_[0]);
  }

  std::streamsize xsgetn(char* out, std::streamsize count) override {
    // Large reads skip the buffer: what is buffered first, then the stream.
    std::streamsize done = std::min<std::streamsize>(count, egptr() - gptr());
    memcpy(out, gptr(), static_cast<std::size_t>(done));
    gbump(static_cast<int>(done));
    if (done < count) done += static_cast<std::streamsize>(stream_.read(out + done, static_cast<std::size_t>(count - done)));
    return done;
  }

  pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode) override {
    if (dir == std::ios_base::cur) offset -= egptr() - gptr();
    setg(buffer_, buffer_, buffer_);
    try {
      return pos_type(static_cast<off_type>(stream_.seek(offset, dir)));
    } catch (const Error&) {
      return pos_type(off_type(-1));
    }
  }

  pos_type seekpos(pos_type position, std::ios_base::openmode mode) override {
    return seekoff(off_type(position), std::ios_base::beg, mode);
  }

 private:
  Stream stream_;
  char buffer_[64 * 1024];
};

istream::istream(Stream stream) : std::istream(nullptr), buffer_(std::make_unique<Buffer>(std::move(stream))) {
  rdbuf(buffer_.get());
}

istream::~istream() = default;

}  // namespace mox
