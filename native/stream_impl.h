// The inside of a mox::Stream: shared content and a position of its own.
#ifndef MOXOLEFIO_NATIVE_STREAM_IMPL_H_
#define MOXOLEFIO_NATIVE_STREAM_IMPL_H_

#include <memory>
#include <string>

#include "moxolefio/moxolefio.hpp"
#include "native/stream_data.h"

namespace mox {

struct __attribute__((visibility("hidden"))) Stream::Impl {
  std::shared_ptr<detail::StreamData> data;
  std::uint64_t position = 0;
  std::string path;
};

inline Stream makeStream(std::shared_ptr<detail::StreamData> data, std::string path) {
  auto impl = std::make_unique<Stream::Impl>();
  impl->data = std::move(data);
  impl->path = std::move(path);
  return Stream(std::move(impl));
}

}  // namespace mox

#endif  // MOXOLEFIO_NATIVE_STREAM_IMPL_H_
