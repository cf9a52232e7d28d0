// Property sets: the document metadata that Windows and Office keep in
// streams such as "\x05SummaryInformation" and
// "\x05DocumentSummaryInformation" (title, author, dates, counts, and the
// user-defined properties with their names).
//
// A PropertySet holds one or more sections, each tagged by a format id
// and holding (id, value) pairs; values are PropertyValue variants whose
// alternatives follow the stored types one to one, so that what is read
// can be written back unchanged.  The codec works on bytes too
// (parse_property_set, serialize_property_set), with no compound file.
#ifndef MOXOLEFIO_PROPERTIES_HPP_
#define MOXOLEFIO_PROPERTIES_HPP_

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "moxolefio/moxolefio.hpp"

namespace mox {

// A class or format id as stored: the first three fields little-endian.
using Guid = std::array<std::uint8_t, 16>;

// "F29F85E0-4FF9-1068-AB91-08002B27B3D9": upper-case hex, no braces.
MOX_CXX_API std::string guid_to_string(const Guid& guid);
// The reverse; braces are accepted.  Errc::invalid_argument otherwise.
MOX_CXX_API Guid guid_from_string(std::string_view text);

// Format ids of the well-known sections.
inline constexpr Guid kSummaryInformation = {0xE0, 0x85, 0x9F, 0xF2, 0xF9, 0x4F, 0x68, 0x10,
                                             0xAB, 0x91, 0x08, 0x00, 0x2B, 0x27, 0xB3, 0xD9};
inline constexpr Guid kDocSummaryInformation = {0x02, 0xD5, 0xCD, 0xD5, 0x9C, 0x2E, 0x1B, 0x10,
                                                0x93, 0x97, 0x08, 0x00, 0x2B, 0x2C, 0xF9, 0xAE};
// The second section of "\x05DocumentSummaryInformation".
inline constexpr Guid kUserDefinedProperties = {0x05, 0xD5, 0xCD, 0xD5, 0x9C, 0x2E, 0x1B, 0x10,
                                                0x93, 0x97, 0x08, 0x00, 0x2B, 0x2C, 0xF9, 0xAE};

inline constexpr std::string_view kSummaryInformationStream = "\x05SummaryInformation";
inline constexpr std::string_view kDocSummaryInformationStream = "\x05" "DocumentSummaryInformation";

// Ids every section may use.
namespace pid {
inline constexpr std::uint32_t dictionary = 0;
inline constexpr std::uint32_t code_page = 1;
inline constexpr std::uint32_t locale = 0x80000000;
inline constexpr std::uint32_t behavior = 0x80000003;  // 1: names compare case-sensitively
}  // namespace pid

// Ids of the summary information section (kSummaryInformation).
namespace summary {
inline constexpr std::uint32_t title = 2;
inline constexpr std::uint32_t subject = 3;
inline constexpr std::uint32_t author = 4;
inline constexpr std::uint32_t keywords = 5;
inline constexpr std::uint32_t comments = 6;
inline constexpr std::uint32_t template_name = 7;
inline constexpr std::uint32_t last_author = 8;
inline constexpr std::uint32_t revision_number = 9;
inline constexpr std::uint32_t edit_time = 10;  // a FILETIME holding a duration
inline constexpr std::uint32_t last_printed = 11;
inline constexpr std::uint32_t create_time = 12;
inline constexpr std::uint32_t last_save_time = 13;
inline constexpr std::uint32_t page_count = 14;
inline constexpr std::uint32_t word_count = 15;
inline constexpr std::uint32_t char_count = 16;
inline constexpr std::uint32_t thumbnail = 17;
inline constexpr std::uint32_t app_name = 18;
inline constexpr std::uint32_t security = 19;
}  // namespace summary

// Ids of the document summary section (kDocSummaryInformation).
namespace doc_summary {
inline constexpr std::uint32_t category = 2;
inline constexpr std::uint32_t presentation_format = 3;
inline constexpr std::uint32_t byte_count = 4;
inline constexpr std::uint32_t line_count = 5;
inline constexpr std::uint32_t paragraph_count = 6;
inline constexpr std::uint32_t slide_count = 7;
inline constexpr std::uint32_t note_count = 8;
inline constexpr std::uint32_t hidden_slide_count = 9;
inline constexpr std::uint32_t mm_clip_count = 10;
inline constexpr std::uint32_t scale = 11;
inline constexpr std::uint32_t heading_pairs = 12;
inline constexpr std::uint32_t titles_of_parts = 13;
inline constexpr std::uint32_t manager = 14;
inline constexpr std::uint32_t company = 15;
inline constexpr std::uint32_t links_dirty = 16;
inline constexpr std::uint32_t char_count_with_spaces = 17;
inline constexpr std::uint32_t shared_doc = 19;
inline constexpr std::uint32_t link_base = 20;
inline constexpr std::uint32_t hyperlinks = 21;
inline constexpr std::uint32_t hyperlinks_changed = 22;
inline constexpr std::uint32_t version = 23;
inline constexpr std::uint32_t digital_signature = 24;
inline constexpr std::uint32_t content_type = 26;
inline constexpr std::uint32_t content_status = 27;
inline constexpr std::uint32_t language = 28;
inline constexpr std::uint32_t doc_version = 29;
}  // namespace doc_summary

// The stored type tags.  A vector is `vt::vector | element`.
namespace vt {
inline constexpr std::uint16_t empty = 0, null = 1, i2 = 2, i4 = 3, r4 = 4, r8 = 5, cy = 6,
                               date = 7, bstr = 8, error = 10, boolean = 11, variant = 12,
                               decimal = 14, i1 = 16, ui1 = 17, ui2 = 18, ui4 = 19, i8 = 20,
                               ui8 = 21, int_ = 22, uint_ = 23, lpstr = 30, lpwstr = 31,
                               filetime = 64, blob = 65, stream = 66, storage = 67,
                               streamed_object = 68, stored_object = 69, blob_object = 70,
                               cf = 71, clsid = 72, versioned_stream = 73, vector = 0x1000,
                               array = 0x2000;
}  // namespace vt

// --- Values ---------------------------------------------------------------

struct Null {};
// Money in ten-thousandths.
struct Currency { std::int64_t value = 0; };
// An automation date: days since 1899-12-30, the fraction the time of day.
struct Date { double value = 0; };
// An HRESULT / SCODE.
struct StatusCode { std::uint32_t value = 0; };
// 100 ns ticks since 1601-01-01 UTC (to_time_point converts); some ids,
// such as summary::edit_time, hold a duration instead.
struct FileTime { std::uint64_t value = 0; };
struct Decimal {
  std::uint8_t scale = 0;  // power of ten dividing the 96-bit integer
  std::uint8_t sign = 0;   // 0x80 when negative
  std::uint32_t high = 0;
  std::uint64_t low = 0;
};

// An 8-bit string in the code page of its section.  `bytes` is what was
// stored before the terminator (the last character its size counts, as
// other readers take it), trailing nulls dropped: embedded nulls, bytes
// left by the writing program after a first null and bytes the code page
// cannot map stay there.  `text` is the part before the first null in
// UTF-8, with U+FFFD for what does not decode.  The writer stores `bytes`
// as long as they still decode to `text`; otherwise, as for a string made
// from text alone, it encodes `text`.
struct CodePageString {
  std::string text;
  std::string bytes;

  CodePageString() = default;
  CodePageString(const char* utf8) : text(utf8) {}
  CodePageString(std::string utf8) : text(std::move(utf8)) {}
};

struct Blob {
  std::vector<std::uint8_t> data;
  bool object = false;  // stored as a serialized object (vt::blob_object)
};

// Clipboard data such as a thumbnail: the format tag (-1: a Windows
// clipboard format, -2: a Macintosh one, -3: a format id, else the
// length of a format name) and the bytes after it.
struct ClipboardData {
  std::int32_t format = 0;
  std::vector<std::uint8_t> data;
};

// The name of a stream or storage of the same file that holds the value
// (vt::stream, vt::storage, vt::streamed_object, vt::stored_object).
struct IndirectName {
  std::uint16_t type = vt::stream;
  CodePageString name;
};

struct VersionedStream {
  Guid version{};
  CodePageString name;
};

// A value of a type this library does not decode (arrays and tags it does
// not know): its bytes as stored after the type, up to the next value.
struct RawValue {
  std::uint16_t type = 0;
  std::vector<std::uint8_t> bytes;
};

inline bool operator==(Null, Null) { return true; }
inline bool operator==(Currency a, Currency b) { return a.value == b.value; }
inline bool operator==(Date a, Date b) { return a.value == b.value; }
inline bool operator==(StatusCode a, StatusCode b) { return a.value == b.value; }
inline bool operator==(FileTime a, FileTime b) { return a.value == b.value; }
inline bool operator==(const Decimal& a, const Decimal& b) {
  return a.scale == b.scale && a.sign == b.sign && a.high == b.high && a.low == b.low;
}
inline bool operator==(const CodePageString& a, const CodePageString& b) {
  return a.text == b.text && a.bytes == b.bytes;
}
inline bool operator==(const Blob& a, const Blob& b) {
  return a.data == b.data && a.object == b.object;
}
inline bool operator==(const ClipboardData& a, const ClipboardData& b) {
  return a.format == b.format && a.data == b.data;
}
inline bool operator==(const IndirectName& a, const IndirectName& b) {
  return a.type == b.type && a.name == b.name;
}
inline bool operator==(const VersionedStream& a, const VersionedStream& b) {
  return a.version == b.version && a.name == b.name;
}
inline bool operator==(const RawValue& a, const RawValue& b) {
  return a.type == b.type && a.bytes == b.bytes;
}
struct PropertyValue;

using PropertyVariant = std::variant<
    std::monostate,   // vt::empty
    Null,             // vt::null
    bool,             // vt::boolean
    std::int8_t,      // vt::i1
    std::uint8_t,     // vt::ui1
    std::int16_t,     // vt::i2
    std::uint16_t,    // vt::ui2
    std::int32_t,     // vt::i4 (vt::int_ reads as this)
    std::uint32_t,    // vt::ui4 (vt::uint_ reads as this)
    std::int64_t,     // vt::i8
    std::uint64_t,    // vt::ui8
    float,            // vt::r4
    double,           // vt::r8
    Currency,         // vt::cy
    Date,             // vt::date
    StatusCode,       // vt::error
    Decimal,          // vt::decimal
    FileTime,         // vt::filetime
    CodePageString,   // vt::lpstr (vt::bstr reads as this)
    std::u16string,   // vt::lpwstr, without the terminating nulls
    Blob,             // vt::blob, vt::blob_object
    ClipboardData,    // vt::cf
    Guid,             // vt::clsid
    IndirectName,     // vt::stream, vt::storage, vt::streamed_object, vt::stored_object
    VersionedStream,  // vt::versioned_stream
    RawValue,         // anything else
    std::vector<bool>, std::vector<std::int8_t>, std::vector<std::uint8_t>,
    std::vector<std::int16_t>, std::vector<std::uint16_t>, std::vector<std::int32_t>,
    std::vector<std::uint32_t>, std::vector<std::int64_t>, std::vector<std::uint64_t>,
    std::vector<float>, std::vector<double>, std::vector<Currency>, std::vector<Date>,
    std::vector<StatusCode>, std::vector<FileTime>, std::vector<CodePageString>,
    std::vector<std::u16string>, std::vector<ClipboardData>, std::vector<Guid>,
    std::vector<PropertyValue>>;  // vt::vector | vt::variant

// A std::variant (std::get, std::holds_alternative and std::visit work on
// it) with the stored type at hand.
struct PropertyValue : PropertyVariant {
  using PropertyVariant::PropertyVariant;
  using PropertyVariant::operator=;
  PropertyValue() = default;

  // The tag the writer stores this value with.
  MOX_CXX_API std::uint16_t type() const;
  const PropertyVariant& variant() const { return *this; }
};

MOX_CXX_API bool operator==(const PropertyValue& a, const PropertyValue& b);
inline bool operator!=(const PropertyValue& a, const PropertyValue& b) { return !(a == b); }

// "lpstr", "filetime", "vector|variant", "0x0123" for a tag without a name.
MOX_CXX_API std::string type_name(std::uint16_t type);

// --- Sets ---------------------------------------------------------------

struct Property {
  std::uint32_t id = 0;
  PropertyValue value;
};

struct MOX_CXX_API PropertySection {
  Guid format_id{};
  // In stored order; the dictionary (id 0) is kept apart.
  std::vector<Property> properties;
  // Names of ids, mostly the user-defined ones, in UTF-8; absent when the
  // section has no dictionary.
  std::optional<std::map<std::uint32_t, std::string>> dictionary;

  // The value of an id (the last one when a damaged set repeats an id);
  // null when absent.
  const PropertyValue* get(std::uint32_t id) const;
  PropertyValue* get(std::uint32_t id);
  // Replaces the value of an id, or appends it.
  void set(std::uint32_t id, PropertyValue value);
  // Removes every value of an id and its name; false when there was none.
  bool remove(std::uint32_t id);

  // Property 1: what 8-bit strings and names are written in.  1200 is
  // UTF-16LE, 65001 UTF-8, others Windows and ISO code pages; sections
  // without one read and write Windows-1252.
  std::uint16_t code_page() const;
  void set_code_page(std::uint16_t code_page);

  // The id a name has in the dictionary (ASCII case ignored unless
  // pid::behavior says otherwise).
  std::optional<std::uint32_t> id_of(std::string_view name) const;
  // Sets a named (user-defined) property: the id the name has, else a new
  // one, entered in the dictionary.  Returns the id.
  std::uint32_t set_named(std::string_view name, PropertyValue value);
};

struct MOX_CXX_API PropertySet {
  // 0, or 1 for sets using types that version 0 lacks (vt::i1, vt::decimal,
  // vectors of unsigned integers...); kept as read, never changed.
  std::uint16_t version = 0;
  // The writing system: its kind (2: Windows) in the high word, its
  // version in the low one.
  std::uint32_t system_identifier = 0x0002000A;
  Guid clsid{};
  std::vector<PropertySection> sections;

  const PropertySection* section(const Guid& format_id) const;
  PropertySection* section(const Guid& format_id);
  // The section with that format id, appended (with `code_page`) when absent.
  PropertySection& section_or_add(const Guid& format_id, std::uint16_t code_page = 1252);
};

MOX_CXX_API bool operator==(const PropertySection& a, const PropertySection& b);
MOX_CXX_API bool operator==(const PropertySet& a, const PropertySet& b);
inline bool operator!=(const PropertySection& a, const PropertySection& b) { return !(a == b); }
inline bool operator!=(const PropertySet& a, const PropertySet& b) { return !(a == b); }

// The well-known name of an id in a section of that format id, or of the
// ids every section shares ("title", "company", "code_page"...); null when
// it has none.
MOX_CXX_API const char* property_name(const Guid& format_id, std::uint32_t id);
// What to call a property of a section: its dictionary name, else its
// well-known name, else "".
MOX_CXX_API std::string property_label(const PropertySection& section, std::uint32_t id);

// --- Reading and writing --------------------------------------------------

// Errc::damaged (naming `where`, when given) on bytes that are not a
// property set or whose offsets or counts leave them.
MOX_CXX_API PropertySet parse_property_set(const void* data, std::size_t size,
                                           std::string_view where = {});
// Errc::invalid_argument when a string cannot be written in its section's
// code page or a value does not fit the format.
MOX_CXX_API std::vector<std::uint8_t> serialize_property_set(const PropertySet& set);

// The set in a stream of the file (kSummaryInformationStream...).
MOX_CXX_API PropertySet read_property_set(const CompoundFile& file, std::string_view path);
// Creates or replaces the stream; the file changes on its next commit.
MOX_CXX_API void write_property_set(CompoundFile& file, std::string_view path,
                                    const PropertySet& set);

inline bool operator==(const Property& a, const Property& b) {
  return a.id == b.id && a.value == b.value;
}
inline bool operator!=(const Property& a, const Property& b) { return !(a == b); }

}  // namespace mox

#endif  // MOXOLEFIO_PROPERTIES_HPP_
