// Reading a property set from bytes.
//
// The bytes are hostile: every count and offset is checked against the
// bytes before it is used, and nothing is reserved from a count that the
// bytes could not hold.  Because property tables may point many entries
// (or many sections) at the same bytes, the parser also keeps a budget of
// bytes visited, a small multiple of the input, so that neither time nor
// memory can grow faster than the input does.
//
// Where real writers disagree with each other the parser accepts both:
// strings in vectors with and without padding after them, sections whose
// stated size runs past the stream (read up to the stream's end), and
// values that are not aligned.
#include <algorithm>
#include <cstring>
#include <string>

#include "moxolefio/properties.hpp"
#include "native/properties/text_codec.h"

namespace mox {

namespace {

using props::TextCodec;

constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kSectionEntrySize = 20;

std::string hex(std::uint64_t v) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  do {
    s.insert(s.begin(), digits[v & 15]);
    v >>= 4;
  } while (v != 0);
  return "0x" + s;
}

class Parser {
 public:
  Parser(const std::uint8_t* data, std::size_t size, std::string_view where)
      : data_(data), size_(size), where_(where.empty() ? "property set" : std::string(where)),
        budget_(4 * static_cast<std::uint64_t>(size) + 4096) {}

  PropertySet run();

 private:
  // A window of the input: [begin, end) with a read position.
  struct Cursor {
    std::size_t pos, end;
    std::size_t left() const { return end - pos; }
  };

  [[noreturn]] void fail(const std::string& what) const {
    throw Error(Errc::damaged, where_ + ": " + context_ + what);
  }

  void spend(std::uint64_t bytes) {
    if (bytes > budget_) fail("values overlap each other too many times");
    budget_ -= bytes;
  }

  void need(const Cursor& c, std::uint64_t n, const char* what) const {
    if (n > c.left()) {
      fail(std::string(what) + " of " + std::to_string(n) + " bytes at offset " +
           std::to_string(c.pos) + " runs past the end (" + std::to_string(c.left()) +
           " bytes left)");
    }
  }

  std::uint8_t u8(Cursor& c) {
    need(c, 1, "a value");
    return data_[c.pos++];
  }
  std::uint16_t u16(Cursor& c) {
    need(c, 2, "a value");
    const std::uint16_t v = static_cast<std::uint16_t>(data_[c.pos] | data_[c.pos + 1] << 8);
    c.pos += 2;
    return v;
  }
  std::uint32_t u32(Cursor& c) {
    need(c, 4, "a value");
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | data_[c.pos + i];
    c.pos += 4;
    return v;
  }
  std::uint64_t u64(Cursor& c) {
    const std::uint64_t low = u32(c);
    return low | static_cast<std::uint64_t>(u32(c)) << 32;
  }
  Guid guid(Cursor& c) {
    need(c, 16, "a GUID");
    Guid g;
    std::memcpy(g.data(), data_ + c.pos, 16);
    c.pos += 16;
    return g;
  }
  std::string bytes(Cursor& c, std::uint64_t n, const char* what) {
    need(c, n, what);
    spend(n);
    std::string s(reinterpret_cast<const char*>(data_ + c.pos), static_cast<std::size_t>(n));
    c.pos += static_cast<std::size_t>(n);
    return s;
  }
  std::vector<std::uint8_t> blob(Cursor& c, std::uint64_t n, const char* what) {
    need(c, n, what);
    spend(n);
    std::vector<std::uint8_t> v(data_ + c.pos, data_ + c.pos + n);
    c.pos += static_cast<std::size_t>(n);
    return v;
  }

  // Some writers pad each string or element of a vector to four bytes, as
  // the format asks; others pack them.  Padding is skipped when the bytes
  // up to the boundary are zeros (a packed size or type is never zero in
  // its low byte but for an empty string).
  void skipPadding(Cursor& c, std::size_t origin) {
    const std::size_t misalign = (c.pos - origin) % 4;
    if (misalign == 0) return;
    const std::size_t pad = 4 - misalign;
    if (pad > c.left()) return;
    for (std::size_t i = 0; i < pad; ++i) {
      if (data_[c.pos + i] != 0) return;
    }
    c.pos += pad;
  }

  // Vectors: the count must fit in the bytes left at `min_size` each.
  std::uint32_t vectorCount(Cursor& c, std::size_t min_size) {
    const std::uint32_t n = u32(c);
    if (static_cast<std::uint64_t>(n) * min_size > c.left()) {
      fail("vector of " + std::to_string(n) + " elements does not fit in the " +
           std::to_string(c.left()) + " bytes left");
    }
    spend(static_cast<std::uint64_t>(n) * min_size);
    return n;
  }

  std::string terminated(Cursor& c, std::uint64_t size, const char* what);
  CodePageString codePageString(Cursor& c);
  std::u16string unicodeString(Cursor& c);
  ClipboardData clipboard(Cursor& c);
  template <class T, class Read>
  PropertyValue vectorOf(Cursor& c, std::size_t min_size, Read read);
  PropertyValue scalar(std::uint16_t type, Cursor& c, std::size_t raw_end, bool in_vector);
  PropertyValue vector(std::uint16_t element, Cursor& c, std::size_t origin);
  PropertyValue value(Cursor& c, std::size_t raw_end);
  std::map<std::uint32_t, std::string> dictionary(Cursor& c);
  PropertySection section(const Guid& format_id, std::size_t offset);

  const std::uint8_t* data_;
  std::size_t size_;
  std::string where_;
  std::string context_;
  std::uint64_t budget_;
  TextCodec* codec_ = nullptr;
};

// The last character a size counts is the terminator, whatever it holds:
// readers that trust the size (and so this one) drop it.  Nulls before it
// are padding that some writers count in the size; the writer puts its
// own terminator and padding back.
std::string Parser::terminated(Cursor& c, std::uint64_t size, const char* what) {
  const std::size_t unit = codec_->unit();
  std::string s = bytes(c, size, what);
  s.resize(s.size() >= unit ? s.size() - unit : 0);
  while (!s.empty() && s.back() == '\0') s.pop_back();
  return s;
}

CodePageString Parser::codePageString(Cursor& c) {
  const std::uint32_t n = u32(c);
  CodePageString s;
  s.bytes = terminated(c, n, "a string");
  s.text = codec_->decode(s.bytes);
  return s;
}

std::u16string Parser::unicodeString(Cursor& c) {
  const std::uint32_t n = u32(c);
  need(c, 2 * static_cast<std::uint64_t>(n), "a UTF-16 string");
  spend(2 * static_cast<std::uint64_t>(n));
  std::u16string s(n, u'\0');
  for (std::uint32_t i = 0; i < n; ++i) {
    s[i] = static_cast<char16_t>(data_[c.pos] | data_[c.pos + 1] << 8);
    c.pos += 2;
  }
  while (!s.empty() && s.back() == u'\0') s.pop_back();
  return s;
}

ClipboardData Parser::clipboard(Cursor& c) {
  const std::uint32_t n = u32(c);
  if (n < 4) fail("clipboard data of " + std::to_string(n) + " bytes has no room for its format");
  ClipboardData d;
  d.format = static_cast<std::int32_t>(u32(c));
  d.data = blob(c, n - 4, "clipboard data");
  return d;
}

template <class T, class Read>
PropertyValue Parser::vectorOf(Cursor& c, std::size_t min_size, Read read) {
  const std::uint32_t n = vectorCount(c, min_size);
  std::vector<T> items;
  items.reserve(n);
  for (std::uint32_t i = 0; i < n; ++i) items.push_back(read(c));
  return PropertyValue(std::move(items));
}

PropertyValue Parser::scalar(std::uint16_t type, Cursor& c, std::size_t raw_end, bool in_vector) {
  switch (type) {
    case vt::empty: return PropertyValue();
    case vt::null: return Null{};
    case vt::boolean: return u16(c) != 0;
    case vt::i1: return static_cast<std::int8_t>(u8(c));
    case vt::ui1: return u8(c);
    case vt::i2: return static_cast<std::int16_t>(u16(c));
    case vt::ui2: return u16(c);
    case vt::i4:
    case vt::int_: return static_cast<std::int32_t>(u32(c));
    case vt::ui4:
    case vt::uint_: return u32(c);
    case vt::i8: return static_cast<std::int64_t>(u64(c));
    case vt::ui8: return u64(c);
    case vt::r4: {
      const std::uint32_t bits = u32(c);
      float f;
      std::memcpy(&f, &bits, 4);
      return f;
    }
    case vt::r8: {
      const std::uint64_t bits = u64(c);
      double d;
      std::memcpy(&d, &bits, 8);
      return d;
    }
    case vt::date: {
      const std::uint64_t bits = u64(c);
      Date d;
      std::memcpy(&d.value, &bits, 8);
      return d;
    }
    case vt::cy: return Currency{static_cast<std::int64_t>(u64(c))};
    case vt::error: return StatusCode{u32(c)};
    case vt::filetime: return FileTime{u64(c)};
    case vt::decimal: {
      need(c, 16, "a decimal");
      Decimal d;
      c.pos += 2;  // reserved
      d.scale = u8(c);
      d.sign = u8(c);
      d.high = u32(c);
      d.low = u64(c);
      return d;
    }
    case vt::lpstr:
    case vt::bstr: return codePageString(c);
    case vt::lpwstr: return unicodeString(c);
    case vt::blob:
    case vt::blob_object: {
      const std::uint32_t n = u32(c);
      return Blob{blob(c, n, "a blob"), type == vt::blob_object};
    }
    case vt::cf: return clipboard(c);
    case vt::clsid: return guid(c);
    case vt::stream:
    case vt::storage:
    case vt::streamed_object:
    case vt::stored_object: return IndirectName{type, codePageString(c)};
    case vt::versioned_stream: {
      VersionedStream v;
      v.version = guid(c);
      v.name = codePageString(c);
      return v;
    }
    default: break;
  }
  if (in_vector) fail("a vector element of type " + type_name(type) + " has no known size");
  RawValue raw;
  raw.type = type;
  raw.bytes = blob(c, raw_end - c.pos, "a value");
  return raw;
}

PropertyValue Parser::vector(std::uint16_t element, Cursor& c, std::size_t origin) {
  auto fixed = [&](auto tag, std::size_t size) {
    using T = decltype(tag);
    return vectorOf<T>(c, size, [&](Cursor& k) {
      return std::get<T>(scalar(element, k, k.pos, true));
    });
  };
  switch (element) {
    case vt::boolean: return fixed(bool(), 2);
    case vt::i1: return fixed(std::int8_t(), 1);
    case vt::ui1: return fixed(std::uint8_t(), 1);
    case vt::i2: return fixed(std::int16_t(), 2);
    case vt::ui2: return fixed(std::uint16_t(), 2);
    case vt::i4:
    case vt::int_: return fixed(std::int32_t(), 4);
    case vt::ui4:
    case vt::uint_: return fixed(std::uint32_t(), 4);
    case vt::i8: return fixed(std::int64_t(), 8);
    case vt::ui8: return fixed(std::uint64_t(), 8);
    case vt::r4: return fixed(float(), 4);
    case vt::r8: return fixed(double(), 8);
    case vt::cy: return fixed(Currency(), 8);
    case vt::date: return fixed(Date(), 8);
    case vt::error: return fixed(StatusCode(), 4);
    case vt::filetime: return fixed(FileTime(), 8);
    case vt::clsid: return fixed(Guid(), 16);
    case vt::lpstr:
    case vt::bstr:
      return vectorOf<CodePageString>(c, 4, [&](Cursor& k) {
        CodePageString s = codePageString(k);
        skipPadding(k, origin);
        return s;
      });
    case vt::lpwstr:
      return vectorOf<std::u16string>(c, 4, [&](Cursor& k) {
        std::u16string s = unicodeString(k);
        skipPadding(k, origin);
        return s;
      });
    case vt::cf:
      return vectorOf<ClipboardData>(c, 8, [&](Cursor& k) {
        ClipboardData d = clipboard(k);
        skipPadding(k, origin);
        return d;
      });
    case vt::variant:
      return vectorOf<PropertyValue>(c, 4, [&](Cursor& k) {
        const std::uint16_t type = u16(k);
        u16(k);  // padding
        if (type & (vt::vector | vt::array) || type == vt::variant) {
          fail("a variant in a vector is itself of type " + type_name(type));
        }
        PropertyValue v = scalar(type, k, k.pos, true);
        skipPadding(k, origin);
        return v;
      });
    default: break;
  }
  fail("vectors of " + type_name(element) + " cannot be read");
}

PropertyValue Parser::value(Cursor& c, std::size_t raw_end) {
  const std::size_t origin = c.pos;
  const std::uint16_t type = u16(c);
  u16(c);  // padding
  if ((type & 0xF000) == vt::vector) return vector(type & 0x0FFF, c, origin);
  return scalar(type, c, raw_end, false);
}

std::map<std::uint32_t, std::string> Parser::dictionary(Cursor& c) {
  const std::size_t origin = c.pos;
  const std::uint32_t n = vectorCount(c, 8);
  const std::size_t unit = codec_->unit();
  std::map<std::uint32_t, std::string> names;
  for (std::uint32_t i = 0; i < n; ++i) {
    const std::uint32_t id = u32(c);
    const std::uint32_t length = u32(c);
    names[id] = codec_->decode(terminated(c, static_cast<std::uint64_t>(length) * unit, "a name"));
    // Names in UTF-16 are padded to four bytes; 8-bit names are packed.
    if (unit > 1) {
      const std::size_t pad = (4 - (c.pos - origin) % 4) % 4;
      c.pos += std::min(pad, c.left());
    }
  }
  return names;
}

PropertySection Parser::section(const Guid& format_id, std::size_t offset) {
  Cursor head{offset, size_};
  const std::uint32_t stated = u32(head);
  const std::uint32_t count = u32(head);
  if (stated < 8) fail("its size " + std::to_string(stated) + " leaves no room for its header");
  // A size past the stream is read up to the stream's end.
  const std::size_t end = offset + std::min<std::uint64_t>(stated, size_ - offset);
  if (static_cast<std::uint64_t>(count) * 8 > end - head.pos) {
    fail(std::to_string(count) + " properties do not fit in a section of " +
         std::to_string(end - offset) + " bytes");
  }
  spend(8 + static_cast<std::uint64_t>(count) * 8);

  struct Slot {
    std::uint32_t id;
    std::size_t offset;
  };
  std::vector<Slot> slots(count);
  for (Slot& s : slots) {
    s.id = u32(head);
    const std::uint32_t at = u32(head);
    if (at < 8 || static_cast<std::uint64_t>(at) + 4 > end - offset) {
      fail("property " + hex(s.id) + " is at offset " + std::to_string(at) +
           ", outside the section's " + std::to_string(end - offset) + " bytes");
    }
    s.offset = offset + at;
  }

  // The code page comes first: the strings and names depend on it.  As
  // everywhere, the last of repeated ids counts.
  std::uint16_t code_page = props::kDefaultCodePage;
  for (auto it = slots.rbegin(); it != slots.rend(); ++it) {
    if (it->id != pid::code_page) continue;
    Cursor c{it->offset, end};
    const std::uint16_t type = u16(c);
    if (type == vt::i2 || type == vt::ui2) {
      u16(c);
      code_page = u16(c);
    }
    break;
  }
  TextCodec codec(code_page);
  codec_ = &codec;

  // Values of types without a known size reach up to the next value.
  std::vector<std::size_t> starts;
  starts.reserve(slots.size() + 1);
  for (const Slot& s : slots) starts.push_back(s.offset);
  starts.push_back(end);
  std::sort(starts.begin(), starts.end());

  PropertySection out;
  out.format_id = format_id;
  out.properties.reserve(slots.size());
  const std::string outer = context_;
  for (const Slot& s : slots) {
    context_ = outer + "property " + hex(s.id) + ": ";
    Cursor c{s.offset, end};
    if (s.id == pid::dictionary) {
      out.dictionary = dictionary(c);
      continue;
    }
    const std::size_t next = *std::upper_bound(starts.begin(), starts.end(), s.offset);
    out.properties.push_back(Property{s.id, value(c, std::max(next, s.offset + 4))});
  }
  context_ = outer;
  codec_ = nullptr;
  return out;
}

PropertySet Parser::run() {
  if (size_ < kHeaderSize) {
    fail("too short for a property set (" + std::to_string(size_) + " bytes)");
  }
  Cursor c{0, size_};
  if (u16(c) != 0xFFFE) fail("not a property set (no byte-order mark)");
  PropertySet set;
  set.version = u16(c);
  set.system_identifier = u32(c);
  set.clsid = guid(c);
  const std::uint32_t count = u32(c);
  if (static_cast<std::uint64_t>(count) * kSectionEntrySize > c.left()) {
    fail(std::to_string(count) + " sections do not fit in " + std::to_string(size_) + " bytes");
  }
  std::vector<std::pair<Guid, std::uint32_t>> table(count);
  for (auto& entry : table) {
    entry.first = guid(c);
    entry.second = u32(c);
  }
  set.sections.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    context_ = "section " + std::to_string(i) + ": ";
    const std::uint32_t offset = table[i].second;
    if (static_cast<std::uint64_t>(offset) + 8 > size_) {
      fail("starts at offset " + std::to_string(offset) + ", past the end (" +
           std::to_string(size_) + " bytes)");
    }
    set.sections.push_back(section(table[i].first, offset));
  }
  return set;
}

}  // namespace

PropertySet parse_property_set(const void* data, std::size_t size, std::string_view where) {
  if (data == nullptr && size != 0) throw Error(Errc::invalid_argument, "parse_property_set: no data");
  return Parser(static_cast<const std::uint8_t*>(data), size, where).run();
}

}  // namespace mox
