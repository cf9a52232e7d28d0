// Fuzz target: the input is the bytes of a property set stream.  It is
// parsed; what parses is looked at the way a program would (names, types,
// code page, named ids) and written back, and what was written must read
// back and write again to the same bytes.  The parser may only refuse
// with Errc::damaged, the writer only with Errc::invalid_argument (for
// text a code page cannot hold, or values a reader keeps but the format
// cannot store).
#include <vector>

#include "fuzz/fuzz_input.h"
#include "moxolefio/properties.hpp"

using moxfuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mox::PropertySet set;
  try {
    set = mox::parse_property_set(data, size, "fuzz");
  } catch (const mox::Error& e) {
    require(e.code() == mox::Errc::damaged, "the parser failed other than with damaged");
    return 0;
  }
  for (const mox::PropertySection& section : set.sections) {
    for (const mox::Property& p : section.properties) {
      require(!(mox::property_label(section, p.id) + mox::type_name(p.value.type())).empty(), "a property has no type name");
    }
    for (const auto& entry : section.dictionary.value_or(std::map<std::uint32_t, std::string>())) {
      require(section.id_of(entry.second).has_value(), "a dictionary name finds no id");
    }
  }

  std::vector<uint8_t> first;
  try {
    first = mox::serialize_property_set(set);
  } catch (const mox::Error& e) {
    require(e.code() == mox::Errc::invalid_argument, "the writer failed other than with invalid_argument");
    return 0;
  }
  // What the writer wrote must read back: an exception here aborts.
  const mox::PropertySet again = mox::parse_property_set(first.data(), first.size(), "rewritten");
  require(mox::serialize_property_set(again) == first, "writing what was written changed it");
  return 0;
}
