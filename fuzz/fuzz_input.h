// Reads a fuzzer's input as a little program: bytes, small integers and
// strings taken from the front until the input runs out.  Once it is empty
// every read yields zero or an empty string, so a target never has to test
// for the end between two reads of the same step.
#ifndef MOXOLEFIO_FUZZ_FUZZ_INPUT_H_
#define MOXOLEFIO_FUZZ_FUZZ_INPUT_H_

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace moxfuzz {

// A failed property ends the run as a finding (libFuzzer and the replay
// programs both report an abort), naming the program, what failed, the
// case (a path, a message) when there is one, and errno.
inline void require(bool condition, const char* what, const std::string& detail = "") {
  if (condition) return;
  fprintf(stderr, "%s: %s %s (errno %d)\n", program_invocation_short_name, what, detail.c_str(), errno);
  abort();
}

}  // namespace moxfuzz

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return at_ >= size_; }

  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }

  uint16_t u16() {
    uint16_t low = byte();
    return static_cast<uint16_t>(low | (byte() << 8));
  }

  uint32_t u32() {
    uint32_t low = u16();
    return low | (static_cast<uint32_t>(u16()) << 16);
  }

  // A string whose length is the next byte (or u16 when `wide`), cut to
  // `limit` and to what is left.  Zero bytes become `zero`, so the result
  // is always a clean C string of the bytes chosen.
  std::string text(size_t limit, bool wide = false, char zero = '0') {
    size_t length = wide ? u16() : byte();
    return chars(length < limit ? length : limit, zero);
  }

  // The next `length` bytes (fewer when the input ends first) as a string,
  // zero bytes replaced by `zero`.
  std::string chars(size_t length, char zero = '0') {
    std::string out;
    for (size_t i = 0; i < length && !empty(); ++i) {
      char c = static_cast<char>(byte());
      out.push_back(c == 0 ? zero : c);
    }
    return out;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

#endif  // MOXOLEFIO_FUZZ_FUZZ_INPUT_H_
