// Property sets in the streams of a compound file.  Kept apart from the
// codec so that the codec builds (and is fuzzed) on bytes alone.
#include <cstdio>

#include "moxolefio/properties.hpp"

namespace mox {

namespace {

// Control characters of stream names (the leading \x05) as escapes, for
// messages.
std::string printable(std::string_view path) {
  std::string out;
  for (char c : path) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, "\\x%02x", u);
      out += buffer;
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

PropertySet read_property_set(const CompoundFile& file, std::string_view path) {
  Stream stream = file.open_stream(path);
  const std::vector<std::uint8_t> bytes = stream.read_all();
  return parse_property_set(bytes.data(), bytes.size(), printable(path));
}

void write_property_set(CompoundFile& file, std::string_view path, const PropertySet& set) {
  // Serialised first: a set that cannot be written leaves the old stream.
  const std::vector<std::uint8_t> bytes = serialize_property_set(set);
  Stream stream = file.create_stream(path);
  stream.write(bytes.data(), bytes.size());
}

}  // namespace mox
