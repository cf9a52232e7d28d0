// Code pages through iconv.  Property sets name their code page by its
// Windows number; glibc knows most of them as "CPnnnn", the rest under
// their own names below.
#include "native/properties/text_codec.h"

#include <errno.h>
#include <iconv.h>

#include <algorithm>


namespace mox::props {

namespace {

const iconv_t kNoHandle = reinterpret_cast<iconv_t>(-1);

std::string iconvName(std::uint16_t code_page) {
  switch (code_page) {
    case 1200: return "UTF-16LE";
    case 1201: return "UTF-16BE";
    case 12000: return "UTF-32LE";
    case 12001: return "UTF-32BE";
    case 65000: return "UTF-7";
    case 65001: return "UTF-8";
    case 20127: return "ASCII";
    case 20866: return "KOI8-R";
    case 21866: return "KOI8-U";
    case 10000: return "MACINTOSH";
    case 10007: return "MAC-CYRILLIC";
    case 10017: return "MACUKRAINIAN";
    case 10029: return "MAC-CENTRALEUROPE";
    case 10079: return "MAC-IS";
    case 20932:
    case 51932: return "EUC-JP";
    case 51936: return "EUC-CN";
    case 51949: return "EUC-KR";
    case 50220:
    case 50221:
    case 50222: return "ISO-2022-JP";
    case 50225: return "ISO-2022-KR";
    case 54936: return "GB18030";
    default: break;
  }
  if (code_page >= 28591 && code_page <= 28599) {
    return "ISO-8859-" + std::to_string(code_page - 28590);
  }
  if (code_page == 28603) return "ISO-8859-13";
  if (code_page == 28605) return "ISO-8859-15";
  return "CP" + std::to_string(code_page);
}

std::size_t unitOf(std::uint16_t code_page) {
  switch (code_page) {
    case 1200:
    case 1201: return 2;
    case 12000:
    case 12001: return 4;
    default: return 1;
  }
}

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// Runs one conversion over all of `in`.  With `lenient`, input that does
// not convert becomes U+FFFD (a unit at a time); without, it fails.
bool convert(iconv_t cd, std::string_view in, std::string& out, std::size_t skip, bool lenient) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char* src = const_cast<char*>(in.data());
  std::size_t left = in.size();
  char buffer[1024];
  while (left > 0) {
    char* dst = buffer;
    std::size_t room = sizeof buffer;
    const std::size_t r = iconv(cd, &src, &left, &dst, &room);
    const int error = r == static_cast<std::size_t>(-1) ? errno : 0;
    out.append(buffer, static_cast<std::size_t>(dst - buffer));
    if (error == 0 || error == E2BIG) continue;
    if (!lenient) return false;
    out += kReplacement;
    const std::size_t n = error == EINVAL ? left : std::min(skip, left);
    src += n;
    left -= n;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
  }
  char* dst = buffer;
  std::size_t room = sizeof buffer;
  if (iconv(cd, nullptr, nullptr, &dst, &room) == static_cast<std::size_t>(-1) && !lenient) {
    return false;
  }
  out.append(buffer, static_cast<std::size_t>(dst - buffer));
  return true;
}

}  // namespace

struct TextCodec::Handles {
  std::string name;
  iconv_t to_utf8 = kNoHandle;
  iconv_t from_utf8 = kNoHandle;
  bool to_tried = false, from_tried = false;

  ~Handles() {
    if (to_utf8 != kNoHandle) iconv_close(to_utf8);
    if (from_utf8 != kNoHandle) iconv_close(from_utf8);
  }

};

TextCodec::TextCodec(std::uint16_t code_page) : handles_(std::make_unique<Handles>()) {
  handles_->name = iconvName(code_page);
  // A code page iconv cannot convert is treated as the default one, both
  // ways, so that what is read can be written back.
  iconv_t probe = iconv_open("UTF-8", handles_->name.c_str());
  if (probe == kNoHandle) {
    handles_->name = iconvName(kDefaultCodePage);
    code_page = kDefaultCodePage;
  } else {
    iconv_close(probe);
  }
  unit_ = unitOf(code_page);
}

TextCodec::~TextCodec() = default;

std::string TextCodec::decode(std::string_view bytes) {
  std::string padded;
  if (bytes.size() % unit_ != 0) {
    padded.assign(bytes);
    padded.append(unit_ - bytes.size() % unit_, '\0');
    bytes = padded;
  }
  std::size_t end = 0;
  for (; end < bytes.size(); end += unit_) {
    bool zero = true;
    for (std::size_t i = 0; i < unit_; ++i) zero = zero && bytes[end + i] == '\0';
    if (zero) break;
  }
  bytes = bytes.substr(0, end);
  std::string out;
  if (bytes.empty()) return out;
  if (!handles_->to_tried) {
    handles_->to_tried = true;
    handles_->to_utf8 = iconv_open("UTF-8", handles_->name.c_str());
  }
  if (handles_->to_utf8 == kNoHandle) {
    // Out of descriptors or memory: keep ASCII, mark the rest.
    for (char c : bytes) {
      if (static_cast<unsigned char>(c) < 0x80) out += c; else out += kReplacement;
    }
    return out;
  }
  out.reserve(bytes.size());
  convert(handles_->to_utf8, bytes, out, unit_, true);
  return out;
}

std::optional<std::string> TextCodec::encode(std::string_view utf8) {
  std::string out;
  if (utf8.empty()) return out;
  if (!handles_->from_tried) {
    handles_->from_tried = true;
    handles_->from_utf8 = iconv_open(handles_->name.c_str(), "UTF-8");
  }
  if (handles_->from_utf8 == kNoHandle) return std::nullopt;
  if (!convert(handles_->from_utf8, utf8, out, 1, false)) return std::nullopt;
  return out;
}

}  // namespace mox::props
