// Property sets against two independent readers.
//
// Every property stream of the shared corpus is read and compared with
// olefile's getproperties (run by tests/oracles/olefile_properties.py)
// and with what `gsf props` prints; then written back, put in a compound
// file of its own and read again by olefile, gsf and this library, which
// must all see what they saw in the original.  Hand-made streams cover
// the value types, code pages and layouts the corpus lacks, and damaged
// bytes must fail cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <type_traits>
#include <variant>

#include "format/names.h"
#include "host/scratch_dir.h"
#include "moxolefio/moxolefio.hpp"
#include "moxolefio/properties.hpp"
#include "support/moxole_cli.h"
#include "support/native_kit.h"
#include "support/program_run.h"

namespace {

using Sets = std::map<std::string, mox::PropertySet>;  // by stream path
using Streams = std::map<std::string, std::vector<std::uint8_t>>;  // path -> bytes

const std::string kOracle = std::string(MOX_SOURCE_DIR) + "/tests/oracles/olefile_properties.py";
const std::string kSi(mox::kSummaryInformationStream), kDsi(mox::kDocSummaryInformationStream);

// Little-endian fields, as the format stores them.
std::string le16(std::uint16_t v) { return {static_cast<char>(v), static_cast<char>(v >> 8)}; }
std::string le32(std::uint32_t v) { return le16(static_cast<std::uint16_t>(v)) + le16(static_cast<std::uint16_t>(v >> 16)); }

std::string hexOf(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return out;
}

// A FILETIME as an ISO date and time in UTC, to the second or the
// microsecond; "-" past year 9999.
std::string isoOf(std::uint64_t filetime, bool micros) {
  const std::time_t t = static_cast<std::time_t>(filetime / 10000000) - 11644473600;
  std::tm tm{};
  gmtime_r(&t, &tm);
  if (tm.tm_year + 1900 > 9999) return "-";
  char buffer[64];
  const std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &tm);
  if (micros) std::snprintf(buffer + n, sizeof buffer - n, ".%06u", static_cast<unsigned>(filetime / 10 % 1000000));
  return buffer;
}

// --- olefile ------------------------------------------------------------------

using OleValue = std::pair<std::string, std::string>;  // kind, text

// What olefile's getproperties makes of a value: it reads 32-bit integers
// as unsigned, 8-bit strings as their bytes without nulls, FILETIMEs as
// whole seconds, clipboard data as its bytes from the format tag on, and
// gives None for every type it does not decode.
OleValue olefileView(const mox::PropertyValue& value) {
  return std::visit([](const auto& v) -> OleValue {
    using T = std::decay_t<decltype(v)>;
    auto bytes = [](const std::string& b) { return OleValue{"bytes", hexOf(b)}; };
    if constexpr (std::is_same_v<T, bool>) return {"bool", v ? "1" : "0"};
    if constexpr (std::is_same_v<T, std::uint8_t> || std::is_same_v<T, std::int16_t> || std::is_same_v<T, std::uint16_t>) {
      return {"int", std::to_string(v)};
    }
    if constexpr (std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::uint32_t>) return {"int", std::to_string(std::uint32_t(v))};
    if constexpr (std::is_same_v<T, mox::StatusCode>) return {"int", std::to_string(v.value)};
    if constexpr (std::is_same_v<T, mox::FileTime>) return {"int", std::to_string(v.value / 10000000)};
    if constexpr (std::is_same_v<T, mox::CodePageString>) {
      std::string kept = v.bytes;
      kept.erase(std::remove(kept.begin(), kept.end(), '\0'), kept.end());
      return bytes(kept);
    }
    if constexpr (std::is_same_v<T, std::u16string>) return {"str", hexOf(moxfmt::utf16ToUtf8(v))};
    if constexpr (std::is_same_v<T, mox::Blob>) {
      return v.object ? OleValue{"none", ""} : bytes(std::string(v.data.begin(), v.data.end()));
    }
    if constexpr (std::is_same_v<T, mox::ClipboardData>) {
      return bytes(le32(static_cast<std::uint32_t>(v.format)) + std::string(v.data.begin(), v.data.end()));
    }
    if constexpr (std::is_same_v<T, mox::Guid>) return {"str", hexOf(v == mox::Guid{} ? "" : mox::guid_to_string(v))};
    return {"none", ""};
  }, value.variant());
}

// A stream's first section as olefile reads it: "P id" -> the value, and
// "T id" -> the date of a FILETIME (convert_time=True), of kind "".
using OleStream = std::map<std::string, OleValue>;

// By stream path, as this library names the entry numbers olefile gives.
std::map<std::string, OleStream> runOlefile(const std::string& path) {
  std::map<std::uint32_t, std::string> pathOf;
  for (const mox::Entry& e : mox::CompoundFile::open(path).walk()) pathOf[e.id] = e.path;
  const moxtest::ProgramResult r = moxtest::runProgram({moxtest::olefilePython(), kOracle, path});
  EXPECT_EQ(r.status, 0) << "olefile (python3-olefile): " << r.err;
  std::map<std::string, OleStream> out;
  OleStream* current = nullptr;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> f = manifest::split(line, '\t');
    if (f[0] == "S") current = &out[pathOf[static_cast<std::uint32_t>(std::stoul(f[1]))]];
    if (current != nullptr && (f[0] == "P" || f[0] == "T")) (*current)[f[0] + " " + f[1]] = {f[2], f.size() > 3 ? f[3] : ""};
  }
  return out;
}

// olefile reads the first section only, and reads the dictionary (id 0)
// as if it were a value.
void expectOlefileAgrees(const mox::PropertySet& set, OleStream got) {
  OleStream expected;
  for (const mox::Property& p : set.sections.empty() ? std::vector<mox::Property>{} : set.sections[0].properties) {
    expected["P " + std::to_string(p.id)] = olefileView(p.value);
    if (const auto* t = std::get_if<mox::FileTime>(&p.value)) expected["T " + std::to_string(p.id)] = {isoOf(t->value, true), ""};
  }
  got.erase("P " + std::to_string(mox::pid::dictionary));
  for (auto& [key, v] : got) {
    // olefile keeps the terminating nulls of UTF-16 strings (no other
    // string it gives holds a null).
    std::string& text = v.second;
    while (v.first == "str" && text.size() >= 2 && text.compare(text.size() - 2, 2, "00") == 0) text.resize(text.size() - 2);
  }
  EXPECT_EQ(got, expected);
}

// --- gsf ------------------------------------------------------------------------

// gsf's printing of strings: C escapes, octal for bytes outside ASCII.
std::string gsfQuote(const std::string& text) {
  static const std::string escaped = "\b\f\n\r\t\v\\\"", letters = "bfnrtv\\\"";
  std::string out = "\"";
  for (unsigned char c : text) {
    char octal[8];
    std::snprintf(octal, sizeof octal, "\\%03o", c);
    const std::size_t at = escaped.find(static_cast<char>(c));
    if (at != std::string::npos) out += {'\\', letters[at]};
    else out += c < 0x20 || c >= 0x7F ? std::string(octal) : std::string(1, static_cast<char>(c));
  }
  return out + "\"";
}

template <class T> struct IsVector : std::false_type {};
template <class T> struct IsVector<std::vector<T>> : std::true_type {};

// How gsf prints a value: one string per item; nullopt for what it
// prints without a value (clipboard data, dates, GUIDs) or differently:
// FILETIMEs before 1970, which are durations or unset dates, come out as
// arbitrary dates there; it steps four bytes per boolean of a vector,
// where they take two, and prints the first amount of money of a vector
// only.
struct GsfVisitor {
  using R = std::optional<std::vector<std::string>>;
  template <class T>
  R operator()(const T& v) const {
    auto one = [](std::string s) { return R(std::vector<std::string>{std::move(s)}); };
    if constexpr (std::is_same_v<T, bool>) return one(v ? "TRUE" : "FALSE");
    // to_string prints floating-point numbers as "%f" does, as gsf does.
    if constexpr (std::is_integral_v<T> || std::is_floating_point_v<T>) return one(std::to_string(v));
    if constexpr (std::is_same_v<T, mox::Currency>) return one(std::to_string(v.value));
    if constexpr (std::is_same_v<T, mox::CodePageString>) return one(gsfQuote(v.text));
    if constexpr (std::is_same_v<T, std::u16string>) return one(gsfQuote(moxfmt::utf16ToUtf8(v)));
    if constexpr (std::is_same_v<T, mox::FileTime>) {
      return v.value < 116444736000000000ULL ? R() : one(isoOf(v.value, false) + "Z");
    }
    if constexpr (std::is_same_v<T, mox::PropertyValue>) return std::visit(*this, v.variant());
    if constexpr (IsVector<T>::value && !std::is_same_v<T, std::vector<bool>> &&
                  !std::is_same_v<T, std::vector<mox::Currency>>) {
      std::vector<std::string> out;
      for (const auto& item : v) {
        R r = (*this)(item);
        if (!r || r->size() != 1) return R();
        out.push_back(r->front());
      }
      return out;
    }
    return R();
  }
};

// gsf's names for the ids of the two summary sections, from id 2 on.
const std::vector<std::string> kGsfSummary = {
    "dc:title", "dc:subject", "dc:creator", "dc:keywords", "dc:description", "meta:template",
    "gsf:last-saved-by", "meta:editing-cycles", "meta:editing-duration", "gsf:last-printed",
    "meta:creation-date", "dc:date", "gsf:page-count", "gsf:word-count", "gsf:character-count",
    "gsf:thumbnail", "meta:generator", "gsf:security"};
const std::vector<std::string> kGsfDocSummary = {
    "gsf:category", "gsf:presentation-format", "gsf:byte-count", "gsf:line-count", "gsf:paragraph-count",
    "gsf:slide-count", "gsf:note-count", "gsf:hidden-slide-count", "gsf:MM-clip-count", "gsf:scale",
    "gsf:heading-pairs", "gsf:document-parts", "gsf:manager", "dc:publisher", "gsf:links-dirty"};

// Name -> printed items.
using GsfPrint = std::map<std::string, std::vector<std::string>>;
GsfPrint runGsf(const std::string& path) {
  const moxtest::ProgramResult list = moxtest::runProgram({"gsf", "listprops", path});
  EXPECT_EQ(list.status, 0) << "gsf (libgsf-bin): " << list.err;
  std::vector<std::string> argv = {"gsf", "props", path};
  std::istringstream names(list.out);
  for (std::string name; std::getline(names, name);) argv.push_back(name);
  GsfPrint out;
  if (argv.size() == 3) return out;
  const moxtest::ProgramResult r = moxtest::runProgram(argv);
  EXPECT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::vector<std::string>* current = nullptr;
  for (std::string line; std::getline(lines, line);) {
    std::size_t from = 1;  // where "TYPE = VALUE" starts, past the tab of a continued line
    if (!line.empty() && line[0] != '\t') {
      const std::size_t colon = line.find(": \t");
      if (colon == std::string::npos) continue;
      // Properties printed without a value ("NAME: ") share the line.
      std::string names = line.substr(0, colon);
      for (std::size_t bare; (bare = names.find(": ")) != std::string::npos; names.erase(0, bare + 2)) out[names.substr(0, bare)];
      current = &out[names];
      current->clear();
      from = colon + 3;
    }
    const std::size_t eq = line.find("= ", from);
    if (current == nullptr || eq == std::string::npos) continue;
    // Objects print as their address, which changes from run to run.
    current->push_back(line.compare(eq + 2, 2, "((") == 0 ? "<object>" : line.substr(eq + 2));
  }
  return out;
}

// The value gsf names `name`, in the sets of the two summary streams.
const mox::PropertyValue* gsfSubject(const Sets& sets, const std::string& name) {
  auto get = [&](const std::string& stream, const mox::Guid& section, std::optional<std::uint32_t> id) {
    const auto it = sets.find(stream);
    const mox::PropertySection* s = it == sets.end() ? nullptr : it->second.section(section);
    if (s && !id) id = s->id_of(name);  // a user-defined name
    return s && id ? s->get(*id) : nullptr;
  };
  const auto summary = std::find(kGsfSummary.begin(), kGsfSummary.end(), name);
  const auto doc = std::find(kGsfDocSummary.begin(), kGsfDocSummary.end(), name);
  const std::string unknown = "msole:unknown-doc-";
  if (summary != kGsfSummary.end()) return get(kSi, mox::kSummaryInformation, summary - kGsfSummary.begin() + 2);
  if (doc != kGsfDocSummary.end()) return get(kDsi, mox::kDocSummaryInformation, doc - kGsfDocSummary.begin() + 2);
  if (name.rfind(unknown, 0) == 0) return get(kDsi, mox::kDocSummaryInformation, std::stoul(name.substr(unknown.size())));
  return get(kDsi, mox::kUserDefinedProperties, std::nullopt);
}

void expectGsfAgrees(const Sets& sets, const GsfPrint& printed) {
  for (const auto& [name, items] : printed) {
    SCOPED_TRACE("gsf " + name);
    if (name == "msole:codepage" || name == "gsf:default-locale") {
      // Printed once for both summary sets: it must be one of them.
      const std::uint32_t id = name == "msole:codepage" ? mox::pid::code_page : mox::pid::locale;
      bool found = false;
      for (const auto& [path, set] : sets) {
        for (const mox::PropertySection& s : set.sections) found |= s.get(id) && GsfVisitor()(*s.get(id)) == std::optional(items);
      }
      EXPECT_TRUE(found) << items.front();
      continue;
    }
    const mox::PropertyValue* v = gsfSubject(sets, name);
    ASSERT_NE(v, nullptr) << "gsf prints a property this library does not have";
    const auto expected = std::visit(GsfVisitor{}, v->variant());
    if (expected && !items.empty()) { EXPECT_EQ(items, *expected); }
  }
}

// --- Compound files of property streams -------------------------------------------

std::string save(const moxhost::ScratchDir& dir, const std::string& name, const Streams& streams) {
  mox::CompoundFile f = mox::CompoundFile::create(dir.file(name));
  for (const auto& [path, bytes] : streams) f.create_stream(path).write(bytes.data(), bytes.size());
  f.commit();
  return dir.file(name);
}

// Checks what olefile and gsf read in the compound file at `path`
// against `sets`, the sets this library reads there by stream path;
// returns what gsf printed.
GsfPrint expectOraclesAgree(const std::string& path, const Sets& sets, bool askGsf = true) {
  std::map<std::string, OleStream> seen = runOlefile(path);
  EXPECT_EQ(seen.size(), sets.size()) << "olefile reads property sets this library does not";
  for (const auto& [stream, set] : sets) {
    SCOPED_TRACE("olefile on " + path + ", " + stream);
    expectOlefileAgrees(set, seen[stream]);
  }
  if (!askGsf) return {};
  const GsfPrint printed = runGsf(path);
  SCOPED_TRACE("gsf on " + path);
  expectGsfAgrees(sets, printed);
  return printed;
}

// Checks a new compound file of property streams with olefile and gsf
// against what this library reads in it.
void expectOraclesAgreeOnNewFile(const Streams& streams, bool askGsf = true) {
  moxhost::ScratchDir scratch;
  Sets sets;
  for (const auto& [name, bytes] : streams) sets[name] = mox::parse_property_set(bytes.data(), bytes.size());
  expectOraclesAgree(save(scratch, "made.cfb", streams), sets, askGsf);
}

std::vector<std::uint8_t> bytesOf(const mox::PropertySet& set) { return mox::serialize_property_set(set); }

mox::PropertySet parsed(const std::vector<std::uint8_t>& bytes) { return mox::parse_property_set(bytes.data(), bytes.size()); }
mox::PropertySet reread(const mox::PropertySet& set) { return parsed(bytesOf(set)); }

// --- The corpus ----------------------------------------------------------------

// The files with a property stream.
const std::vector<manifest::File>& corpusFiles() {
  static const std::vector<manifest::File> files = [] {
    std::vector<manifest::File> with;
    const std::vector<manifest::File>& all = moxtest::corpusFiles();
    std::copy_if(all.begin(), all.end(), std::back_inserter(with), [](const manifest::File& f) {
      return std::any_of(f.entries.begin(), f.entries.end(), [](const auto& entry) {
        return entry.second.type == "stream" && !entry.second.names.empty() && entry.second.names.back()[0] == u'\x05';
      });
    });
    return with;
  }();
  return files;
}

class PropertyCorpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(PropertyCorpus, ReadAsOlefileAndGsfReadItAndWrittenBackTheSame) {
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + corpusFiles()[GetParam()].path;
  const mox::CompoundFile doc = mox::CompoundFile::open(full);
  Sets sets;
  Streams rewritten;
  for (const mox::Entry& e : doc.walk()) {
    if (!e.is_stream() || e.name.empty() || e.name[0] != '\x05') continue;
    SCOPED_TRACE(e.path);
    const mox::PropertySet& set = sets[e.path] = mox::read_property_set(doc, e.path);
    rewritten[e.path] = bytesOf(set);
    EXPECT_TRUE(parsed(rewritten[e.path]) == set) << "changed by a write and a read";
  }
  ASSERT_FALSE(sets.empty());

  moxhost::ScratchDir scratch;
  // gsf reads only the two summary streams at the top.
  EXPECT_EQ(expectOraclesAgree(save(scratch, "rewritten.cfb", rewritten), sets), expectOraclesAgree(full, sets));
}

MOX_TEST_EACH_FILE(Corpus, PropertyCorpus, corpusFiles);

TEST(PropertyCorpusPresence, CorpusHasPropertyStreams) {
  if (manifest::load(MOX_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus at " << MOX_CORPUS_DIR;
  EXPECT_GE(corpusFiles().size(), 20u);
}

// --- Hand-made sets -------------------------------------------------------------

// An 8-bit string as it reads back in Windows-1252: with its bytes.
mox::CodePageString ascii(const char* text) {
  mox::CodePageString s(text);
  s.bytes = text;
  return s;
}

// One value of every kind the format has, most of which no corpus file uses.
std::vector<mox::PropertyValue> everyKindOfValue() {
  using namespace mox;
  return {
      PropertyValue(), Null{}, true, std::int8_t(-5), std::uint8_t(200), std::int16_t(-300),
      std::uint16_t(60000), std::int32_t(-70000), std::uint32_t(4000000000u),
      std::int64_t(-5000000000LL), std::uint64_t(10000000000000000000ULL), 1.5f, -2.25,
      Currency{-123456}, Date{45000.5}, StatusCode{0x80004005u}, Decimal{2, 0x80, 7, 12345},
      FileTime{133000000000000000ULL}, ascii("text"), std::u16string(u"wide \u00e9\U0001F600"),
      Blob{{1, 2, 3}, false}, Blob{{4, 5}, true}, ClipboardData{-1, {3, 0, 1, 2, 9}},
      Guid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
      IndirectName{vt::storage, ascii("Data")},
      VersionedStream{Guid{9, 9, 9}, ascii("Versioned")},
      RawValue{0x2003, {1, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 8, 0, 0, 0}},
      std::vector<bool>{false, true, false}, std::vector<std::int8_t>{-1, 2, 3},
      std::vector<std::uint8_t>{1, 2, 255}, std::vector<std::int16_t>{-1, 2, 3},
      std::vector<std::uint16_t>{1, 65535}, std::vector<std::int32_t>{-1, 2},
      std::vector<std::uint32_t>{1, 0xFFFFFFFFu}, std::vector<std::int64_t>{-1, 2},
      std::vector<std::uint64_t>{1, 2}, std::vector<float>{0.5f, -8.0f},
      std::vector<double>{0.25}, std::vector<Currency>{{10000}, {-1}}, std::vector<Date>{{1.0}},
      std::vector<StatusCode>{{5}}, std::vector<FileTime>{{133000000000000000ULL}, {0}},
      std::vector<CodePageString>{ascii("a"), ascii(""), ascii("three")}, std::vector<std::u16string>{u"x", u"", u"yz"},
      std::vector<ClipboardData>{{-1, {1}}, {-3, {1, 2, 3, 4, 5, 6}}}, std::vector<Guid>{Guid{}, Guid{1}},
      std::vector<PropertyValue>{ascii("h"), std::int32_t(3), 2.5, std::u16string(u"w"),
                                 true, ClipboardData{-2, {1}}},
      std::vector<CodePageString>{}, std::vector<PropertyValue>{},
  };
}

// Read from a stream, damaged bytes fail naming it as 'ls' shows it.
void expectParsesOrDamaged(const std::vector<std::uint8_t>& bytes, const std::string& what) {
  mox::CompoundFile doc = mox::CompoundFile::create_memory();
  doc.create_stream(kSi).write(bytes.data(), bytes.size());
  try {
    (void)bytesOf(mox::read_property_set(doc, kSi));
  } catch (const mox::Error& e) {
    // The writer may refuse what the reader kept (a raw vector, say).
    const bool named = std::string(e.what()).rfind("\\x05SummaryInformation: ", 0) == 0;
    EXPECT_TRUE(e.code() == mox::Errc::invalid_argument || (e.code() == mox::Errc::damaged && named)) << what << ": " << e.what();
  }
}

TEST(HandMadeSets, EveryKindOfValueReadsBackAsOlefileAndGsfReadItAndFailsCleanlyWhenDamaged) {
  mox::PropertySet set;
  // olefile reads the first section of any stream; gsf reads named
  // values of the user-defined section.
  mox::PropertySection& plain = set.section_or_add(mox::guid_from_string("{6D1A3C58-A7F2-4C3B-9E0D-3F5B2A1C7E90}"));
  mox::PropertySet summary;
  summary.section_or_add(mox::kDocSummaryInformation);
  mox::PropertySection& named = summary.section_or_add(mox::kUserDefinedProperties);
  std::uint32_t id = 2;
  for (const mox::PropertyValue& v : everyKindOfValue()) {
    plain.set(id++, v);
    named.set_named("v" + std::to_string(id) + " " + mox::type_name(v.type()), v);
  }
  for (const mox::PropertySet* s : {&set, &summary}) EXPECT_TRUE(reread(*s) == *s);
  expectOraclesAgreeOnNewFile({{"\x05" "AllKinds", bytesOf(set)}, {kDsi, bytesOf(summary)}});

  // Every cut, and every field set to an odd value, parses or fails
  // cleanly; with 8-bit strings in UTF-16 too.
  set.sections[0].set_code_page(1200);
  for (const mox::PropertySet* s : {&set, &summary}) {
    const std::vector<std::uint8_t> whole = bytesOf(*s);
    for (std::size_t at = 0; at < whole.size(); ++at) {
      expectParsesOrDamaged(std::vector<std::uint8_t>(whole.begin(), whole.begin() + at), "cut at " + std::to_string(at));
      for (std::uint32_t v : {0xFFFFFFFFu, 0x7FFFFFF0u, 0x00010000u, 0x00001000u}) {
        std::vector<std::uint8_t> broken = whole;
        for (std::size_t i = at; i < at + 4 && i < whole.size(); ++i) broken[i] = static_cast<std::uint8_t>(v >> (8 * (i - at)));
        expectParsesOrDamaged(broken, std::to_string(v) + " at " + std::to_string(at));
      }
    }
  }
}

TEST(HandMadeSets, TextInEachCodePageReadsAsGsfReadsIt) {
  const std::vector<std::pair<std::uint16_t, std::string>> texts = {
      {1252, "Ünïcödé € “quoted”"}, {1251, "Привет, мир"}, {1253, "Καλημέρα"},
      {10000, "Café crème"},        {932, "日本語のテキスト"},   {936, "中文文本"},
      {65001, "UTF-8 ✓ 日本 😀"},   {1200, "UTF-16 in 8-bit strings, Ελληνικά"},
  };
  for (const auto& [code_page, text] : texts) {
    SCOPED_TRACE("code page " + std::to_string(code_page));
    mox::PropertySet dsi;
    dsi.section_or_add(mox::kDocSummaryInformation, code_page)
        .set(mox::doc_summary::titles_of_parts, std::vector<mox::CodePageString>{text, text + "2"});
    mox::PropertySection& user = dsi.section_or_add(mox::kUserDefinedProperties, code_page);
    user.set_named(text, mox::CodePageString(text));
    user.set_named("ASCII name", std::int32_t(7));
    const mox::PropertySection back = reread(dsi).sections.at(1);
    EXPECT_EQ(back.dictionary, user.dictionary);
    EXPECT_EQ(std::get<mox::CodePageString>(*back.get(*user.id_of(text))).text, text);
    expectOraclesAgreeOnNewFile({{kDsi, bytesOf(dsi)}});
  }
  // A character the code page lacks is refused, not replaced.
  mox::PropertySet set;
  set.section_or_add(mox::kSummaryInformation, 1252).set(mox::summary::title, mox::CodePageString("Привет"));
  EXPECT_EQ(moxtest::errorOf([&] { bytesOf(set); }), mox::Errc::invalid_argument);
}

// Bytes built field by field, for layouts this library's writer never
// produces but other writers do.
std::string lpstr(const std::string& s) { return le32(static_cast<std::uint32_t>(s.size())) + s; }
std::string lpsz(const std::string& s) { return lpstr(s + '\0'); }
std::string codePage(std::uint16_t cp) { return le16(mox::vt::i2) + le16(0) + le16(cp) + le16(0); }

std::vector<std::uint8_t> rawSet(const std::vector<std::pair<mox::Guid, std::vector<std::pair<std::uint32_t, std::string>>>>& sections) {
  std::string out = le16(0xFFFE) + le16(0) + le32(0x00020005) + std::string(16, '\0') +
                    le32(static_cast<std::uint32_t>(sections.size()));
  std::string body;
  const std::size_t start = out.size() + 20 * sections.size();
  for (const auto& [id, props] : sections) {
    out += std::string(id.begin(), id.end()) + le32(static_cast<std::uint32_t>(start + body.size()));
    std::string values, table;
    const std::size_t head = 8 + 8 * props.size();
    std::size_t at = head;
    for (const auto& [pid, bytes] : props) {
      if (!bytes.empty()) at = head + values.size();  // no bytes: the value before it, shared
      table += le32(pid) + le32(static_cast<std::uint32_t>(at));
      values += bytes;
    }
    body += le32(static_cast<std::uint32_t>(head + values.size())) +
            le32(static_cast<std::uint32_t>(props.size())) + table + values;
  }
  out += body;
  return std::vector<std::uint8_t>(out.begin(), out.end());
}

// A summary section in code page `cp` with `bytes` as its title, and the
// title read back.
std::vector<std::uint8_t> titled(std::uint16_t cp, const std::string& bytes) {
  return rawSet({{mox::kSummaryInformation, {{1, codePage(cp)}, {2, le32(30) + lpsz(bytes)}}}});
}
mox::CodePageString titleOf(const mox::PropertySet& set) {
  return std::get<mox::CodePageString>(*set.sections.at(0).get(2));
}

TEST(HandMadeSets, LayoutsOfOtherWritersReadAsGsfReadsThem) {
  const std::string cp1252 = codePage(1252);
  // Strings and variants of a vector packed without padding (older
  // Office), sizes counting their padding (newer Office, Visio), padding
  // outside the size (as the format says), values not on a four-byte
  // boundary, and a dictionary of packed 8-bit names.
  const std::string packedStrings = le32(0x101E) + le32(3) + lpsz("Tahoma") + lpsz("Arial") + lpsz("X");
  const std::string packedVariants = le32(0x100C) + le32(4) + le32(30) + lpsz("Fonts") + le32(3) + le32(2) + le32(30) +
                                     lpsz("Slide Titles") + le32(3) + le32(40);
  const std::string paddedOutside =
      le32(0x101E) + le32(2) + lpsz("Page-1") + std::string(1, '\0') + lpsz("Tracking Text") + std::string(2, '\0');
  const std::string sizedWithPadding = le32(0x101E) + le32(2) + lpstr(std::string("Page-1\0c", 8)) +
                                       lpstr(std::string("View\0ase", 8));
  const std::string dictionary = le32(3) + le32(2) + le32(6) + std::string("Cost\0\0", 6) + le32(3) + le32(8) +
                                 std::string("Finish\0", 7) + "x" + le32(4) + le32(3) + std::string("go\0", 3);
  const std::string odd = le32(30) + lpsz("\xA3" "0.00");  // 10 bytes: the next value is unaligned
  const std::vector<std::uint8_t> dsi = rawSet(
      {{mox::kDocSummaryInformation, {{1, cp1252}, {13, packedStrings}, {12, packedVariants}}},
       {mox::kUserDefinedProperties, {{0, dictionary}, {1, cp1252}, {2, odd}, {4, sizedWithPadding}}}});
  // gsf prints every item of the two vectors and both names.
  const mox::PropertySet set = parsed(dsi);
  EXPECT_TRUE(reread(set) == set);
  expectOraclesAgreeOnNewFile({{kDsi, dsi}});
  // gsf does not skip the padding after a string of a vector.
  const mox::PropertySet padded = parsed(rawSet({{mox::kSummaryInformation, {{1, cp1252}, {5, paddedOutside}}}}));
  EXPECT_TRUE(*padded.sections[0].get(5) == (std::vector<mox::CodePageString>{ascii("Page-1"), ascii("Tracking Text")}));
  // Bytes the code page does not map read as U+FFFD and are written back
  // as they were; gsf gives up on the whole string.
  const mox::PropertySet odd1252 = parsed(titled(1252, "a\x81z"));
  EXPECT_EQ(titleOf(odd1252).text, "a\xEF\xBF\xBDz");
  EXPECT_EQ(titleOf(reread(odd1252)).bytes, "a\x81z");
  expectOraclesAgreeOnNewFile({{kSi, bytesOf(odd1252)}}, false);
  // Mac Cyrillic goes by a name of its own; a code page iconv lacks (Mac
  // Simplified Chinese) reads as Windows-1252.
  EXPECT_EQ(titleOf(parsed(titled(10007, "\xC0"))).text, "\xD1\x98");
  EXPECT_EQ(titleOf(parsed(titled(10008, "\xC0"))).text, "\xC3\x80");
}

// --- Damaged bytes -----------------------------------------------------------------

// A set of one section whose `entries` ids all point at one value.
std::vector<std::uint8_t> sharedValue(std::uint32_t entries, const std::string& value) {
  std::vector<std::pair<std::uint32_t, std::string>> props = {{2, value}};
  for (std::uint32_t id = 3; id < entries + 2; ++id) props.push_back({id, ""});
  return rawSet({{mox::Guid{}, props}});
}

TEST(DamagedSets, ValuesSharedByManyEntriesDoNotMultiplyMemory) {
  // 200000 entries pointing at one 64 KiB blob would be 13 GB of copies.
  const std::vector<std::uint8_t> many = sharedValue(200000, le32(mox::vt::blob) + le32(65536) + std::string(65536, 'b'));
  EXPECT_EQ(moxtest::errorOf([&] { parsed(many); }), mox::Errc::damaged);
  // Three sharing a UTF-16 string of 20000 units stay within the bound.
  const mox::PropertySet set = parsed(sharedValue(3, le32(mox::vt::lpwstr) + le32(20000) + std::string(40000, 'w')));
  EXPECT_EQ(std::get<std::u16string>(set.sections.at(0).properties.at(2).value).size(), 20000u);
}

// --- Editing sections ----------------------------------------------------------------

TEST(SectionEdits, NamedPropertiesGetFreshIdsAndNamesFollowCaseRules) {
  mox::PropertySet set;
  mox::PropertySection& user = set.section_or_add(mox::kUserDefinedProperties, 65001);
  user.set(0x80000000u, std::uint32_t(1033));
  const std::uint32_t a = user.set_named("Client", mox::CodePageString("ACME"));
  user.set_named("Ärger", std::int32_t(3));
  EXPECT_GE(a, 2u);
  EXPECT_EQ(user.set_named("CLIENT", mox::CodePageString("Other")), a);  // ASCII case ignored
  EXPECT_EQ(user.properties.size(), 4u);
  EXPECT_EQ(mox::property_label(user, a), "Client");
  user.set(mox::pid::behavior, std::uint32_t(1));  // names now compare exactly
  EXPECT_FALSE(user.id_of("CLIENT").has_value());
  EXPECT_EQ(user.id_of("Client"), a);

  EXPECT_TRUE(user.remove(a));
  EXPECT_FALSE(user.id_of("Client").has_value());
  EXPECT_FALSE(user.remove(a));

  EXPECT_STREQ(mox::property_name(mox::kSummaryInformation, mox::summary::author), "author");
  EXPECT_STREQ(mox::property_name(mox::kDocSummaryInformation, mox::doc_summary::company), "company");
  EXPECT_STREQ(mox::property_name(mox::kUserDefinedProperties, mox::pid::code_page), "code_page");
  EXPECT_EQ(mox::property_name(mox::kUserDefinedProperties, 5), nullptr);
  EXPECT_EQ(mox::guid_from_string(mox::guid_to_string(mox::kDocSummaryInformation)), mox::kDocSummaryInformation);
  const std::pair<std::uint16_t, const char*> types[] = {
      {mox::vt::boolean, "bool"}, {mox::vt::i4, "i4"}, {mox::vt::vector | mox::vt::lpstr, "vector|lpstr"},
      {mox::vt::array | mox::vt::variant, "array|variant"}, {0x0123, "0x0123"}};
  for (const auto& [type, name] : types) EXPECT_EQ(mox::type_name(type), name);
}

// --- Writing into a document ----------------------------------------------------------

// How POI prints the values it decodes the same way as this library;
// nullopt for the rest (dates, vectors, dictionaries...).
std::optional<std::string> poiView(const mox::PropertyValue& value) {
  const mox::PropertyVariant& v = value.variant();
  if (auto p = std::get_if<mox::CodePageString>(&v)) return "str\t" + p->text;
  if (auto p = std::get_if<std::int32_t>(&v)) return "int\t" + std::to_string(*p);
  if (auto p = std::get_if<std::int16_t>(&v)) return "int\t" + std::to_string(*p);
  if (auto p = std::get_if<bool>(&v)) return std::string("bool\t") + (*p ? "true" : "false");
  return std::nullopt;
}

// Checks what Apache POI reads in the top-level streams `sets` holds
// against them: each property it decodes as this library does must be
// among its "id\tname\tkind\tvalue" lines for that section, with its name
// from the dictionary.  Says so when POI or a Java compiler is missing.
void expectPoiAgrees(const std::string& file, const Sets& sets) {
  static const moxhost::ScratchDir classes;
  static const bool compiled =
      moxtest::readFile("/usr/share/java/poi.jar").size() > 0 &&
      moxtest::runProgram({"javac", "-cp", "/usr/share/java/poi.jar", "-d", classes.path(),
                           std::string(MOX_SOURCE_DIR) + "/tests/oracles/PoiProperties.java"}).status == 0;
  if (!compiled) {
    std::cerr << "POI or javac missing: POI's view not compared\n";
    return;
  }
  const std::string jars = ":/usr/share/java/poi.jar:/usr/share/java/commons-collections4.jar:/usr/share/java/commons-math3.jar";
  std::vector<std::string> argv = {"java", "-cp", classes.path() + jars, "PoiProperties", file};
  for (const auto& [path, set] : sets) argv.push_back(path);
  const moxtest::ProgramResult r = moxtest::runProgram(argv);
  EXPECT_EQ(r.status, 0) << r.err;
  std::map<std::string, std::vector<std::vector<std::string>>> seen;  // stream -> sections -> lines
  std::istringstream lines(r.out);
  std::vector<std::vector<std::string>>* sections = nullptr;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("F ", 0) == 0) sections = &seen[line.substr(2)];
    if (line.rfind("S ", 0) == 0 && sections) sections->emplace_back();
    if (line.rfind("P\t", 0) == 0 && sections && !sections->empty()) sections->back().push_back(line.substr(2));
  }
  for (const auto& [path, set] : sets) {
    SCOPED_TRACE("POI, " + path);
    ASSERT_EQ(seen[path].size(), set.sections.size());
    for (std::size_t s = 0; s < set.sections.size(); ++s) {
      const mox::PropertySection& section = set.sections[s];
      for (const mox::Property& p : section.properties) {
        const std::optional<std::string> view = poiView(p.value);
        const bool named = section.dictionary && section.dictionary->count(p.id);
        const std::string line = std::to_string(p.id) + "\t" + (named ? section.dictionary->at(p.id) : "-") + "\t" + view.value_or("");
        EXPECT_TRUE(!view || std::count(seen[path][s].begin(), seen[path][s].end(), line) == 1) << line;
      }
    }
  }
}

// Title, author and a user-defined property set in a real document: the
// file committed in place holds the new values as olefile, gsf, POI and
// `moxole props` read them.
TEST(PropertyEdits, TitleAuthorAndAUserPropertyOfACorpusDocument) {
  const std::string original = std::string(MOX_CORPUS_DIR) + "/poi/Bug50936_1.doc";
  if (moxtest::readFile(original).empty()) GTEST_SKIP() << "no corpus at " << MOX_CORPUS_DIR;
  moxhost::ScratchDir scratch;
  const std::string copy = scratch.file("edited.doc");
  ASSERT_TRUE(moxtest::writeFile(copy, moxtest::readFile(original)));
  Sets sets;
  {
    mox::CompoundFile f = mox::CompoundFile::open_rw(copy);
    for (const std::string& path : {kSi, kDsi}) sets[path] = mox::read_property_set(f, path);
    mox::PropertySection& summary = sets[kSi].sections.at(0);
    summary.set(mox::summary::title, mox::CodePageString("A title written here"));
    summary.set(mox::summary::author, mox::CodePageString("Zoë Ørsted"));
    sets[kDsi].section_or_add(mox::kUserDefinedProperties, 1252).set_named("Client", mox::CodePageString("ACME"));
    for (auto& [path, set] : sets) {
      mox::write_property_set(f, path, set);
      set = reread(set);  // strings made from text gain their stored bytes
    }
    f.commit();
  }

  // That a commit keeps every other entry: tests/test_native_edit_corpus.cpp.
  const mox::CompoundFile after = mox::CompoundFile::open(copy);
  for (const auto& [path, set] : sets) EXPECT_TRUE(mox::read_property_set(after, path) == set) << path;

  const auto printed = expectOraclesAgree(copy, sets);
  EXPECT_EQ(printed.count("dc:title"), 1u);
  EXPECT_EQ(printed.count("Client"), 1u);
  expectPoiAgrees(copy, sets);

  // `moxole props` prints a line a property with the id, name and type
  // the interface gives.
  const moxtest::ProgramResult r = moxole({"props", copy});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> expected, got;
  for (const std::string& path : {kSi, kDsi}) {
    for (const mox::PropertySection& s : sets.at(path).sections) {
      for (const mox::Property& p : s.properties) {
        const std::string label = mox::property_label(s, p.id);
        expected.push_back("\\x05" + path.substr(1) + "\t" + std::to_string(p.id) + "\t" + (label.empty() ? "-" : label) +
                           "\t" + mox::type_name(p.value.type()));
      }
    }
  }
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> f = manifest::split(line, '\t');
    ASSERT_EQ(f.size(), 6u) << line;
    got.push_back(f[0] + "\t" + f[2] + "\t" + f[3] + "\t" + f[4]);
  }
  EXPECT_EQ(got, expected);
  // A PATH goes through the lookup these two do; its failures: tests/test_moxole.cpp.
}

}  // namespace
