// Property sets as objects: types and their names, well-known ids, and
// edits of sections.
#include <algorithm>
#include <cstdio>
#include <type_traits>

#include "moxolefio/properties.hpp"

namespace mox {

namespace {

template <class T>
struct TypeOf;
#define MOX_TYPE_OF(T, tag) \
  template <>               \
  struct TypeOf<T> {        \
    static constexpr std::uint16_t value = tag; \
  };
MOX_TYPE_OF(std::monostate, vt::empty)
MOX_TYPE_OF(Null, vt::null)
MOX_TYPE_OF(bool, vt::boolean)
MOX_TYPE_OF(std::int8_t, vt::i1)
MOX_TYPE_OF(std::uint8_t, vt::ui1)
MOX_TYPE_OF(std::int16_t, vt::i2)
MOX_TYPE_OF(std::uint16_t, vt::ui2)
MOX_TYPE_OF(std::int32_t, vt::i4)
MOX_TYPE_OF(std::uint32_t, vt::ui4)
MOX_TYPE_OF(std::int64_t, vt::i8)
MOX_TYPE_OF(std::uint64_t, vt::ui8)
MOX_TYPE_OF(float, vt::r4)
MOX_TYPE_OF(double, vt::r8)
MOX_TYPE_OF(Currency, vt::cy)
MOX_TYPE_OF(Date, vt::date)
MOX_TYPE_OF(StatusCode, vt::error)
MOX_TYPE_OF(Decimal, vt::decimal)
MOX_TYPE_OF(FileTime, vt::filetime)
MOX_TYPE_OF(CodePageString, vt::lpstr)
MOX_TYPE_OF(std::u16string, vt::lpwstr)
MOX_TYPE_OF(ClipboardData, vt::cf)
MOX_TYPE_OF(Guid, vt::clsid)
MOX_TYPE_OF(VersionedStream, vt::versioned_stream)
MOX_TYPE_OF(PropertyValue, vt::variant)
#undef MOX_TYPE_OF

struct TypeVisitor {
  std::uint16_t operator()(const Blob& b) const { return b.object ? vt::blob_object : vt::blob; }
  std::uint16_t operator()(const IndirectName& n) const { return n.type; }
  std::uint16_t operator()(const RawValue& r) const { return r.type; }
  template <class T>
  std::uint16_t operator()(const std::vector<T>&) const {
    return vt::vector | TypeOf<T>::value;
  }
  template <class T>
  std::uint16_t operator()(const T&) const {
    return TypeOf<T>::value;
  }
};

const char* baseTypeName(std::uint16_t type) {
  switch (type) {
    case vt::empty: return "empty";
    case vt::null: return "null";
    case vt::i2: return "i2";
    case vt::i4: return "i4";
    case vt::r4: return "r4";
    case vt::r8: return "r8";
    case vt::cy: return "cy";
    case vt::date: return "date";
    case vt::bstr: return "bstr";
    case vt::error: return "error";
    case vt::boolean: return "bool";
    case vt::variant: return "variant";
    case vt::decimal: return "decimal";
    case vt::i1: return "i1";
    case vt::ui1: return "ui1";
    case vt::ui2: return "ui2";
    case vt::ui4: return "ui4";
    case vt::i8: return "i8";
    case vt::ui8: return "ui8";
    case vt::int_: return "int";
    case vt::uint_: return "uint";
    case vt::lpstr: return "lpstr";
    case vt::lpwstr: return "lpwstr";
    case vt::filetime: return "filetime";
    case vt::blob: return "blob";
    case vt::stream: return "stream";
    case vt::storage: return "storage";
    case vt::streamed_object: return "streamed_object";
    case vt::stored_object: return "stored_object";
    case vt::blob_object: return "blob_object";
    case vt::cf: return "cf";
    case vt::clsid: return "clsid";
    case vt::versioned_stream: return "versioned_stream";
    default: return nullptr;
  }
}

struct Named {
  std::uint32_t id;
  const char* name;
};

constexpr Named kCommonNames[] = {
    {pid::dictionary, "dictionary"}, {pid::code_page, "code_page"},
    {pid::locale, "locale"},         {pid::behavior, "behavior"},
};

constexpr Named kSummaryNames[] = {
    {summary::title, "title"},
    {summary::subject, "subject"},
    {summary::author, "author"},
    {summary::keywords, "keywords"},
    {summary::comments, "comments"},
    {summary::template_name, "template"},
    {summary::last_author, "last_author"},
    {summary::revision_number, "revision_number"},
    {summary::edit_time, "edit_time"},
    {summary::last_printed, "last_printed"},
    {summary::create_time, "create_time"},
    {summary::last_save_time, "last_save_time"},
    {summary::page_count, "page_count"},
    {summary::word_count, "word_count"},
    {summary::char_count, "char_count"},
    {summary::thumbnail, "thumbnail"},
    {summary::app_name, "app_name"},
    {summary::security, "security"},
};

constexpr Named kDocSummaryNames[] = {
    {doc_summary::category, "category"},
    {doc_summary::presentation_format, "presentation_format"},
    {doc_summary::byte_count, "byte_count"},
    {doc_summary::line_count, "line_count"},
    {doc_summary::paragraph_count, "paragraph_count"},
    {doc_summary::slide_count, "slide_count"},
    {doc_summary::note_count, "note_count"},
    {doc_summary::hidden_slide_count, "hidden_slide_count"},
    {doc_summary::mm_clip_count, "mm_clip_count"},
    {doc_summary::scale, "scale"},
    {doc_summary::heading_pairs, "heading_pairs"},
    {doc_summary::titles_of_parts, "titles_of_parts"},
    {doc_summary::manager, "manager"},
    {doc_summary::company, "company"},
    {doc_summary::links_dirty, "links_dirty"},
    {doc_summary::char_count_with_spaces, "char_count_with_spaces"},
    {doc_summary::shared_doc, "shared_doc"},
    {doc_summary::link_base, "link_base"},
    {doc_summary::hyperlinks, "hyperlinks"},
    {doc_summary::hyperlinks_changed, "hyperlinks_changed"},
    {doc_summary::version, "version"},
    {doc_summary::digital_signature, "digital_signature"},
    {doc_summary::content_type, "content_type"},
    {doc_summary::content_status, "content_status"},
    {doc_summary::language, "language"},
    {doc_summary::doc_version, "doc_version"},
};

template <std::size_t N>
const char* lookup(const Named (&table)[N], std::uint32_t id) {
  for (const Named& n : table) {
    if (n.id == id) return n.name;
  }
  return nullptr;
}

bool equalsAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

// --- Values -------------------------------------------------------------------

std::uint16_t PropertyValue::type() const { return std::visit(TypeVisitor{}, variant()); }

bool operator==(const PropertyValue& a, const PropertyValue& b) {
  return a.variant() == b.variant();
}

std::string type_name(std::uint16_t type) {
  std::string prefix;
  if ((type & 0xF000) == vt::vector) prefix = "vector|";
  if ((type & 0xF000) == vt::array) prefix = "array|";
  const char* base = baseTypeName(prefix.empty() ? type : type & 0x0FFF);
  if (base != nullptr) return prefix + base;
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "0x%04x", type);
  return buffer;
}

std::string guid_to_string(const Guid& g) {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", g[3],
                g[2], g[1], g[0], g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13],
                g[14], g[15]);
  return buffer;
}

Guid guid_from_string(std::string_view text) {
  if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, 36);
  }
  // Byte i of the stored form comes from the hex pair at this position.
  static constexpr int kPairAt[16] = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
  auto bad = [&] {
    return Error(Errc::invalid_argument, "not a GUID: " + std::string(text));
  };
  if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
      text[23] != '-') {
    throw bad();
  }
  auto digit = [&](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw bad();
  };
  Guid g{};
  for (int i = 0; i < 16; ++i) {
    g[i] = static_cast<std::uint8_t>(digit(text[kPairAt[i]]) << 4 | digit(text[kPairAt[i] + 1]));
  }
  return g;
}

// --- Sections and sets --------------------------------------------------------------

const PropertyValue* PropertySection::get(std::uint32_t id) const {
  for (auto it = properties.rbegin(); it != properties.rend(); ++it) {
    if (it->id == id) return &it->value;
  }
  return nullptr;
}

PropertyValue* PropertySection::get(std::uint32_t id) {
  return const_cast<PropertyValue*>(static_cast<const PropertySection*>(this)->get(id));
}

void PropertySection::set(std::uint32_t id, PropertyValue value) {
  if (id == pid::dictionary) {
    throw Error(Errc::invalid_argument, "property set: id 0 is the dictionary's and holds no value");
  }
  if (PropertyValue* existing = get(id)) {
    *existing = std::move(value);
  } else {
    properties.push_back(Property{id, std::move(value)});
  }
}

bool PropertySection::remove(std::uint32_t id) {
  const auto end = std::remove_if(properties.begin(), properties.end(),
                                  [id](const Property& p) { return p.id == id; });
  bool removed = end != properties.end();
  properties.erase(end, properties.end());
  if (dictionary) removed = dictionary->erase(id) > 0 || removed;
  return removed;
}

std::uint16_t PropertySection::code_page() const {
  const PropertyValue* v = get(pid::code_page);
  if (v != nullptr) {
    if (const auto* i = std::get_if<std::int16_t>(v)) return static_cast<std::uint16_t>(*i);
    if (const auto* u = std::get_if<std::uint16_t>(v)) return *u;
  }
  return 1252;
}

void PropertySection::set_code_page(std::uint16_t code_page) {
  set(pid::code_page, static_cast<std::int16_t>(code_page));
}

std::optional<std::uint32_t> PropertySection::id_of(std::string_view name) const {
  if (!dictionary) return std::nullopt;
  const PropertyValue* behavior = get(pid::behavior);
  const auto* flags = behavior ? std::get_if<std::uint32_t>(behavior) : nullptr;
  const bool exact = flags != nullptr && (*flags & 1) != 0;
  for (const auto& [id, n] : *dictionary) {
    if (exact ? n == name : equalsAsciiCase(n, name)) return id;
  }
  return std::nullopt;
}

std::uint32_t PropertySection::set_named(std::string_view name, PropertyValue value) {
  std::optional<std::uint32_t> id = id_of(name);
  if (!id) {
    // Ids 0 and 1 and those from 0x80000000 have fixed meanings.
    std::uint32_t highest = 1;
    for (const Property& p : properties) {
      if (p.id < 0x80000000u) highest = std::max(highest, p.id);
    }
    if (dictionary) {
      for (const auto& entry : *dictionary) {
        if (entry.first < 0x80000000u) highest = std::max(highest, entry.first);
      }
    }
    if (highest + 1 >= 0x80000000u) {
      throw Error(Errc::invalid_argument, "property set: no free id for \"" + std::string(name) + "\"");
    }
    id = highest + 1;
    if (!dictionary) dictionary.emplace();
    (*dictionary)[*id] = std::string(name);
  }
  set(*id, std::move(value));
  return *id;
}

const PropertySection* PropertySet::section(const Guid& format_id) const {
  for (const PropertySection& s : sections) {
    if (s.format_id == format_id) return &s;
  }
  return nullptr;
}

PropertySection* PropertySet::section(const Guid& format_id) {
  return const_cast<PropertySection*>(static_cast<const PropertySet*>(this)->section(format_id));
}

PropertySection& PropertySet::section_or_add(const Guid& format_id, std::uint16_t code_page) {
  if (PropertySection* s = section(format_id)) return *s;
  PropertySection& s = sections.emplace_back();
  s.format_id = format_id;
  s.set_code_page(code_page);
  return s;
}

bool operator==(const PropertySection& a, const PropertySection& b) {
  return a.format_id == b.format_id && a.properties == b.properties &&
         a.dictionary == b.dictionary;
}

bool operator==(const PropertySet& a, const PropertySet& b) {
  return a.version == b.version && a.system_identifier == b.system_identifier &&
         a.clsid == b.clsid && a.sections == b.sections;
}

const char* property_name(const Guid& format_id, std::uint32_t id) {
  if (const char* name = lookup(kCommonNames, id)) return name;
  if (format_id == kSummaryInformation) return lookup(kSummaryNames, id);
  if (format_id == kDocSummaryInformation) return lookup(kDocSummaryNames, id);
  return nullptr;
}

std::string property_label(const PropertySection& section, std::uint32_t id) {
  if (section.dictionary) {
    const auto it = section.dictionary->find(id);
    if (it != section.dictionary->end()) return it->second;
  }
  const char* name = property_name(section.format_id, id);
  return name != nullptr ? name : "";
}

}  // namespace mox
