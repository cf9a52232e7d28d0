// Writing a property set to bytes.
//
// What is written is what the strictest readers expect and what the most
// lenient ones survive: every value starts on a four-byte boundary, and
// strings count their padding in their size (as Office does), so that
// readers that skip padding after strings in a vector and readers that do
// not both find the next one.
#include <cstring>
#include <string>
#include <type_traits>

#include "moxolefio/properties.hpp"
#include "native/properties/text_codec.h"

namespace mox {

namespace {

using props::TextCodec;

[[noreturn]] void refuse(const std::string& what) {
  throw Error(Errc::invalid_argument, "property set: " + what);
}

class Writer {
 public:
  std::vector<std::uint8_t> out;

  void u8(std::uint8_t v) { out.push_back(v); }
  void u16(std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
  }
  void u32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  void u64(std::uint64_t v) {
    u32(static_cast<std::uint32_t>(v));
    u32(static_cast<std::uint32_t>(v >> 32));
  }
  void raw(const void* p, std::size_t n) {
    const auto* b = static_cast<const std::uint8_t*>(p);
    out.insert(out.end(), b, b + n);
  }
  void pad(std::size_t from = 0) {
    while ((out.size() - from) % 4 != 0) out.push_back(0);
  }
  void put32(std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
  }
};

std::uint32_t count32(std::size_t n, const char* what) {
  if (n > 0xFFFFFFFFu) refuse(std::string(what) + " too large for the format");
  return static_cast<std::uint32_t>(n);
}

// One section's values.
class SectionWriter {
 public:
  SectionWriter(Writer& w, std::uint16_t code_page) : w_(w), codec_(code_page) {}

  void codePageString(const CodePageString& s) {
    // The stored bytes go back as they were unless the text was changed.
    std::string encoded;
    const std::string* data = &s.bytes;
    if (s.bytes.empty() || codec_.decode(s.bytes) != s.text) {
      std::optional<std::string> e = codec_.encode(s.text);
      if (!e) refuse("\"" + s.text + "\" cannot be written in the section's code page");
      encoded = std::move(*e);
      data = &encoded;
    }
    const std::size_t unit = codec_.unit();
    std::size_t size = data->size() + (unit - data->size() % unit) % unit + unit;
    size = (size + 3) / 4 * 4;
    w_.u32(count32(size, "a string"));
    w_.raw(data->data(), data->size());
    w_.out.resize(w_.out.size() + (size - data->size()), 0);
  }

  void unicodeString(const std::u16string& s) {
    // An even count of units keeps the next string aligned without
    // padding outside the count.
    const std::size_t count = (s.size() + 2) / 2 * 2;
    w_.u32(count32(count, "a string"));
    for (char16_t c : s) w_.u16(static_cast<std::uint16_t>(c));
    for (std::size_t i = s.size(); i < count; ++i) w_.u16(0);
  }

  void clipboard(const ClipboardData& d) {
    w_.u32(count32(d.data.size() + 4, "clipboard data"));
    w_.u32(static_cast<std::uint32_t>(d.format));
    w_.raw(d.data.data(), d.data.size());
  }

  void guid(const Guid& g) { w_.raw(g.data(), g.size()); }

  // The bytes of a value after its type, without the padding that follows
  // a whole value.
  void body(const PropertyValue& value) {
    std::visit([this](const auto& v) { element(v); }, value.variant());
  }

  // A whole typed value: type, padding, body, padding.
  void typed(const PropertyValue& value) {
    const std::size_t start = w_.out.size();
    w_.u16(value.type());
    w_.u16(0);
    body(value);
    w_.pad(start);
  }

  std::size_t size() const { return w_.out.size(); }
  TextCodec& codec() { return codec_; }

 private:
  void element(std::monostate) {}
  void element(Null) {}
  void element(bool v) { w_.u16(v ? 0xFFFF : 0); }
  void element(std::int8_t v) { w_.u8(static_cast<std::uint8_t>(v)); }
  void element(std::uint8_t v) { w_.u8(v); }
  void element(std::int16_t v) { w_.u16(static_cast<std::uint16_t>(v)); }
  void element(std::uint16_t v) { w_.u16(v); }
  void element(std::int32_t v) { w_.u32(static_cast<std::uint32_t>(v)); }
  void element(std::uint32_t v) { w_.u32(v); }
  void element(std::int64_t v) { w_.u64(static_cast<std::uint64_t>(v)); }
  void element(std::uint64_t v) { w_.u64(v); }
  void element(float v) { w_.raw(&v, 4); }
  void element(double v) { w_.raw(&v, 8); }
  void element(Currency v) { w_.u64(static_cast<std::uint64_t>(v.value)); }
  void element(Date v) { w_.raw(&v.value, 8); }
  void element(StatusCode v) { w_.u32(v.value); }
  void element(FileTime v) { w_.u64(v.value); }
  void element(const Decimal& v) {
    w_.u16(0);
    w_.u8(v.scale);
    w_.u8(v.sign);
    w_.u32(v.high);
    w_.u64(v.low);
  }
  void element(const CodePageString& v) { codePageString(v); }
  void element(const std::u16string& v) { unicodeString(v); }
  void element(const Blob& v) {
    w_.u32(count32(v.data.size(), "a blob"));
    w_.raw(v.data.data(), v.data.size());
  }
  void element(const ClipboardData& v) { clipboard(v); }
  void element(const Guid& v) { guid(v); }
  void element(const IndirectName& v) {
    if (v.type != vt::stream && v.type != vt::storage && v.type != vt::streamed_object &&
        v.type != vt::stored_object) {
      refuse("an indirect name of type " + type_name(v.type));
    }
    codePageString(v.name);
  }
  void element(const VersionedStream& v) {
    guid(v.version);
    codePageString(v.name);
  }
  void element(const RawValue& v) {
    if ((v.type & 0xF000) == vt::vector) refuse("a raw value of type " + type_name(v.type));
    w_.raw(v.bytes.data(), v.bytes.size());
  }
  template <class T>
  void element(const std::vector<T>& items) {
    w_.u32(count32(items.size(), "a vector"));
    for (const auto& item : items) {
      if constexpr (std::is_same_v<T, PropertyValue>) {
        const std::uint16_t type = item.type();
        if (type & (vt::vector | vt::array) || std::holds_alternative<RawValue>(item)) {
          refuse("a vector of variants holding a value of type " + type_name(type));
        }
        typed(item);
      } else if constexpr (std::is_same_v<T, ClipboardData>) {
        clipboard(item);
        w_.pad();
      } else if constexpr (std::is_same_v<T, bool>) {
        element(static_cast<bool>(item));
      } else {
        element(item);
      }
    }
  }

  Writer& w_;
  TextCodec codec_;
};

void writeDictionary(SectionWriter& s, Writer& w, const std::map<std::uint32_t, std::string>& names) {
  const std::size_t start = w.out.size();
  w.u32(count32(names.size(), "a dictionary"));
  const std::size_t unit = s.codec().unit();
  for (const auto& [id, name] : names) {
    std::optional<std::string> encoded = s.codec().encode(name);
    if (!encoded) refuse("the name \"" + name + "\" cannot be written in the section's code page");
    if (encoded->size() % unit != 0) encoded->append(unit - encoded->size() % unit, '\0');
    w.u32(id);
    w.u32(count32(encoded->size() / unit + 1, "a name"));
    w.raw(encoded->data(), encoded->size());
    w.out.resize(w.out.size() + unit, 0);
    // Names in UTF-16 are padded; 8-bit ones are not.
    if (unit > 1) w.pad(start);
  }
}

}  // namespace

std::vector<std::uint8_t> serialize_property_set(const PropertySet& set) {
  Writer w;
  w.u16(0xFFFE);
  w.u16(set.version);
  w.u32(set.system_identifier);
  w.raw(set.clsid.data(), 16);
  w.u32(count32(set.sections.size(), "the section count"));
  const std::size_t table = w.out.size();
  for (const PropertySection& section : set.sections) {
    w.raw(section.format_id.data(), 16);
    w.u32(0);  // offset, filled in below
  }
  for (std::size_t i = 0; i < set.sections.size(); ++i) {
    const PropertySection& section = set.sections[i];
    const std::size_t start = w.out.size();
    w.put32(table + 20 * i + 16, count32(start, "the set"));
    const std::size_t count = section.properties.size() + (section.dictionary ? 1 : 0);
    w.u32(0);  // size, filled in below
    w.u32(count32(count, "the property count"));
    std::size_t slot = w.out.size();
    w.out.resize(w.out.size() + 8 * count, 0);
    SectionWriter values(w, section.code_page());
    auto entry = [&](std::uint32_t id) {
      w.put32(slot, id);
      w.put32(slot + 4, count32(w.out.size() - start, "a section"));
      slot += 8;
    };
    if (section.dictionary) {
      entry(pid::dictionary);
      writeDictionary(values, w, *section.dictionary);
      w.pad(start);
    }
    for (const Property& p : section.properties) {
      if (p.id == pid::dictionary) refuse("id 0 is the dictionary's and holds no value");
      entry(p.id);
      values.typed(p.value);
    }
    w.put32(start, count32(w.out.size() - start, "a section"));
  }
  return std::move(w.out);
}

}  // namespace mox
