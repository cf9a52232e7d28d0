// moxole props: the properties of the two summary streams, or of any
// property set stream, one a line.
//
// Like 'check', this command goes through the native interface: property
// sets are only decoded there.
#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "tools/moxole/commands.h"
#include "tools/moxole/document.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

// Text on one line: control characters, quotes and backslashes escaped,
// everything else (UTF-8) as it is.
std::string escaped(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string quoted(const std::string& text) { return "\"" + escaped(text) + "\""; }

std::string utf8Of(const std::u16string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    uint32_t c = s[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | c >> 12);
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | c >> 18);
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string hexBytes(const std::vector<uint8_t>& bytes) {
  // Thumbnails run to tens of kilobytes: the first 32 bytes say enough.
  std::string out = std::to_string(bytes.size()) + " bytes";
  if (bytes.empty()) return out;
  out += ' ';
  for (size_t i = 0; i < bytes.size() && i < 32; ++i) {
    char hex[4];
    snprintf(hex, sizeof hex, "%02x", bytes[i]);
    out += hex;
  }
  if (bytes.size() > 32) out += "...";
  return out;
}

// Seconds since 1970 as "YYYY-MM-DDTHH:MM:SSZ", with a fraction when
// there is one.
std::string isoTime(int64_t seconds, uint32_t nanos) {
  struct tm t;
  const time_t when = static_cast<time_t>(seconds);
  if (gmtime_r(&when, &t) == nullptr) return "?";
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &t);
  std::string out = text;
  if (nanos != 0) {
    snprintf(text, sizeof text, ".%07u", nanos / 100);
    out += text;
  }
  return out + "Z";
}

std::string fileTime(uint64_t ticks, bool duration) {
  if (duration) {
    const uint64_t s = ticks / 10000000;
    char text[64];
    snprintf(text, sizeof text, "%" PRIu64 ":%02u:%02u", s / 3600, static_cast<unsigned>(s / 60 % 60),
             static_cast<unsigned>(s % 60));
    return text;
  }
  if (ticks == 0) return "0 (unset)";
  // 100 ns ticks since 1601; 11644473600 s separate 1601 from 1970.
  const int64_t seconds = static_cast<int64_t>(ticks / 10000000) - 11644473600LL;
  return isoTime(seconds, static_cast<uint32_t>(ticks % 10000000) * 100);
}

std::string number(double v) {
  char text[64];
  snprintf(text, sizeof text, "%.17g", v);
  // The shortest form that reads back the same.
  for (int digits = 1; digits < 17; ++digits) {
    char shorter[64];
    snprintf(shorter, sizeof shorter, "%.*g", digits, v);
    if (strtod(shorter, nullptr) == v) return shorter;
  }
  return text;
}

std::string decimal(const mox::Decimal& d) {
  unsigned __int128 magnitude = (static_cast<unsigned __int128>(d.high) << 64) | d.low;
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(magnitude % 10)));
    magnitude /= 10;
  } while (magnitude != 0);
  if (d.scale > 0) {
    if (digits.size() <= d.scale) digits.insert(0, d.scale - digits.size() + 1, '0');
    digits.insert(digits.size() - d.scale, ".");
  }
  return (d.sign & 0x80 ? "-" : "") + digits;
}

struct Formatter {
  bool duration = false;  // a FILETIME holding an elapsed time

  std::string operator()(std::monostate) const { return "empty"; }
  std::string operator()(mox::Null) const { return "null"; }
  std::string operator()(bool v) const { return v ? "true" : "false"; }
  std::string operator()(int8_t v) const { return std::to_string(v); }
  std::string operator()(uint8_t v) const { return std::to_string(v); }
  std::string operator()(int16_t v) const { return std::to_string(v); }
  std::string operator()(uint16_t v) const { return std::to_string(v); }
  std::string operator()(int32_t v) const { return std::to_string(v); }
  std::string operator()(uint32_t v) const { return std::to_string(v); }
  std::string operator()(int64_t v) const { return std::to_string(v); }
  std::string operator()(uint64_t v) const { return std::to_string(v); }
  std::string operator()(float v) const { return number(v); }
  std::string operator()(double v) const { return number(v); }
  std::string operator()(mox::Currency v) const {
    char text[64];
    const uint64_t magnitude = v.value < 0 ? 0 - static_cast<uint64_t>(v.value) : static_cast<uint64_t>(v.value);
    snprintf(text, sizeof text, "%s%" PRIu64 ".%04u", v.value < 0 ? "-" : "", magnitude / 10000,
             static_cast<unsigned>(magnitude % 10000));
    return text;
  }
  std::string operator()(mox::Date v) const {
    // Days since 1899-12-30, which is 25569 days before 1970.
    if (!std::isfinite(v.value) || std::fabs(v.value) > 3e6) return number(v.value);
    return isoTime(std::llround((v.value - 25569.0) * 86400.0), 0);
  }
  std::string operator()(mox::StatusCode v) const {
    char text[16];
    snprintf(text, sizeof text, "0x%08x", v.value);
    return text;
  }
  std::string operator()(const mox::Decimal& v) const { return decimal(v); }
  std::string operator()(mox::FileTime v) const { return fileTime(v.value, duration); }
  std::string operator()(const mox::CodePageString& v) const { return quoted(v.text); }
  std::string operator()(const std::u16string& v) const { return quoted(utf8Of(v)); }
  std::string operator()(const mox::Blob& v) const { return hexBytes(v.data); }
  std::string operator()(const mox::ClipboardData& v) const {
    return "format " + std::to_string(v.format) + ", " + hexBytes(v.data);
  }
  std::string operator()(const mox::Guid& v) const { return "{" + mox::guid_to_string(v) + "}"; }
  std::string operator()(const mox::IndirectName& v) const { return quoted(v.name.text); }
  std::string operator()(const mox::VersionedStream& v) const {
    return "{" + mox::guid_to_string(v.version) + "} " + quoted(v.name.text);
  }
  std::string operator()(const mox::RawValue& v) const { return hexBytes(v.bytes); }
  std::string operator()(const mox::PropertyValue& v) const { return std::visit(*this, v.variant()); }
  template <class T>
  std::string operator()(const std::vector<T>& items) const {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) {
      if (i > 0) out += ", ";
      out += (*this)(static_cast<const T&>(items[i]));
    }
    return out + "]";
  }
};

std::string sectionName(const mox::Guid& id) {
  if (id == mox::kSummaryInformation) return "summary";
  if (id == mox::kDocSummaryInformation) return "doc_summary";
  if (id == mox::kUserDefinedProperties) return "user_defined";
  return "{" + mox::guid_to_string(id) + "}";
}

// A moxole path (UTF-8 names, escaped, '/'-separated) as the native
// interface writes it.
bool nativePath(const std::string& shown, std::string* path) {
  std::vector<std::string> names;
  if (!splitPath(shown, &names)) return false;
  path->clear();
  for (const std::string& name : names) *path = joinPath(*path, name);
  return true;
}

void printSet(const std::string& shown, const mox::PropertySet& set) {
  for (const mox::PropertySection& section : set.sections) {
    const std::string name = sectionName(section.format_id);
    for (const mox::Property& p : section.properties) {
      Formatter format;
      format.duration = section.format_id == mox::kSummaryInformation && p.id == mox::summary::edit_time;
      const std::string label = mox::property_label(section, p.id);
      printf("%s\t%s\t%" PRIu32 "\t%s\t%s\t%s\n", shown.c_str(), name.c_str(), p.id,
             label.empty() ? "-" : escaped(label).c_str(),
             mox::type_name(p.value.type()).c_str(), std::visit(format, p.value.variant()).c_str());
    }
  }
}

int statusOf(mox::Errc code) {
  switch (code) {
    case mox::Errc::not_found: return kExitNotFound;
    case mox::Errc::not_a_compound_file:
    case mox::Errc::damaged:
    case mox::Errc::invalid_argument: return kExitBadDocument;
    default: return kExitIo;
  }
}

}  // namespace

int runProps(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  int status = checkInputFile(file);
  if (status != kExitOk) return status;
  std::vector<std::string> shown;
  if (call.operands.size() > 1) {
    shown.push_back(call.operands[1]);
  } else {
    shown = {escapeName(std::string(mox::kSummaryInformationStream)),
             escapeName(std::string(mox::kDocSummaryInformationStream))};
  }
  try {
    const mox::CompoundFile doc = mox::CompoundFile::open(file);
    for (const std::string& s : shown) {
      std::string path;
      if (!nativePath(s, &path)) return fail(kExitUsage, s, "not a valid path");
      // Without PATH, a file lacking one of the two streams is no error.
      if (call.operands.size() == 1 && !doc.exists(path)) continue;
      const std::optional<mox::Entry> entry = doc.entry(path);
      if (!entry) return fail(kExitNotFound, file, "no entry " + s);
      if (!entry->is_stream()) return fail(kExitNotFound, file, s + " is not a stream");
      printSet(s, mox::read_property_set(doc, path));
    }
  } catch (const mox::Error& e) {
    return fail(statusOf(e.code()), "", e.what());
  } catch (const std::bad_alloc&) {
    return fail(kExitIo, file, "out of memory");
  }
  return finishOutput(kExitOk);
}

}  // namespace moxole
