// Strings of a property set: its code page to and from UTF-8 (through
// glibc's iconv), and UTF-16 to and from UTF-8.
#ifndef MOXOLEFIO_NATIVE_PROPERTIES_TEXT_CODEC_H_
#define MOXOLEFIO_NATIVE_PROPERTIES_TEXT_CODEC_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mox::props {

// Sections without a code page, or with one iconv does not know, are read
// and written as Windows-1252, the code page of nearly every such file.
inline constexpr std::uint16_t kDefaultCodePage = 1252;

// One code page's conversions.  Not for use by two threads at once.
class TextCodec {
 public:
  explicit TextCodec(std::uint16_t code_page);
  ~TextCodec();
  TextCodec(const TextCodec&) = delete;
  TextCodec& operator=(const TextCodec&) = delete;

  // Bytes per character unit: 2 for UTF-16, 4 for UTF-32, else 1.  A null
  // character is one unit of zeros.
  std::size_t unit() const { return unit_; }
  // The text before the first null unit, in UTF-8; what cannot be decoded
  // becomes U+FFFD.  A last partial unit counts as padded with zeros.
  std::string decode(std::string_view bytes);
  // UTF-8 to the code page, no terminator; nullopt when some character
  // has no encoding there or `utf8` is not UTF-8.
  std::optional<std::string> encode(std::string_view utf8);

 private:
  struct Handles;
  std::size_t unit_;
  std::unique_ptr<Handles> handles_;
};

}  // namespace mox::props

#endif  // MOXOLEFIO_NATIVE_PROPERTIES_TEXT_CODEC_H_
