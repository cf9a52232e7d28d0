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

#include <cinttypes>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <sstream>

#include "format/names.h"
#include "host/scratch_dir.h"
#include "moxolefio/moxolefio.hpp"
#include "moxolefio/properties.hpp"
#include "support/cfb_builder.h"
#include "support/manifest.h"
#include "support/program_run.h"

namespace {

using Sets = std::map<std::string, mox::PropertySet>;  // by stream path

const std::string kOracle = std::string(MOX_SOURCE_DIR) + "/tests/oracles/olefile_properties.py";

bool isPropertyStream(const std::string& name) { return !name.empty() && name[0] == '\x05'; }

std::string hexOf(const void* data, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < size; ++i) {
    const auto b = static_cast<const std::uint8_t*>(data)[i];
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

std::string utf8(const std::u16string& s) { return moxfmt::utf16ToUtf8(s); }

// A FILETIME as a civil date and time in UTC; nullopt past year 9999.
struct Civil {
  std::int64_t year;
  unsigned month, day, hour, minute, second, micro;
};
std::optional<Civil> civilOf(std::uint64_t filetime) {
  const std::uint64_t micros = filetime / 10;
  std::int64_t days = static_cast<std::int64_t>(micros / 86400000000ULL);
  std::uint64_t rest = micros % 86400000000ULL;
  // Days from 1601-01-01 to a proleptic Gregorian date.
  days += 584694;  // 0000-03-01 to 1601-01-01
  const std::int64_t era = days / 146097;
  const std::int64_t doe = days - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  Civil c;
  c.day = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
  c.month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
  c.year = yoe + era * 400 + (c.month <= 2 ? 1 : 0);
  if (c.year > 9999) return std::nullopt;
  c.micro = static_cast<unsigned>(rest % 1000000);
  rest /= 1000000;
  c.second = rest % 60;
  c.minute = (rest / 60) % 60;
  c.hour = static_cast<unsigned>(rest / 3600);
  return c;
}

std::string isoOf(const Civil& c, bool micros) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04" PRId64 "-%02u-%02uT%02u:%02u:%02u", c.year, c.month,
                c.day, c.hour, c.minute, c.second);
  std::string out = buffer;
  if (micros) {
    std::snprintf(buffer, sizeof buffer, ".%06u", c.micro);
    out += buffer;
  }
  return out;
}

// --- olefile ------------------------------------------------------------------

struct OleValue {
  std::string kind, text;
  bool operator==(const OleValue& o) const { return kind == o.kind && text == o.text; }
};
std::ostream& operator<<(std::ostream& os, const OleValue& v) { return os << v.kind << ":" << v.text; }

// What olefile's getproperties makes of a value: it reads 32-bit integers
// as unsigned, 8-bit strings as their bytes without nulls, FILETIMEs as
// whole seconds, clipboard data as its bytes from the format tag on, and
// gives None for every type it does not decode.
struct OlefileVisitor {
    OleValue operator()(bool b) const { return {"bool", b ? "1" : "0"}; }
    OleValue operator()(std::uint8_t v) const { return {"int", std::to_string(v)}; }
    OleValue operator()(std::int16_t v) const { return {"int", std::to_string(v)}; }
    OleValue operator()(std::uint16_t v) const { return {"int", std::to_string(v)}; }
    OleValue operator()(std::int32_t v) const {
      return {"int", std::to_string(static_cast<std::uint32_t>(v))};
    }
    OleValue operator()(std::uint32_t v) const { return {"int", std::to_string(v)}; }
    OleValue operator()(mox::StatusCode v) const { return {"int", std::to_string(v.value)}; }
    OleValue operator()(mox::FileTime v) const {
      return {"int", std::to_string(v.value / 10000000)};
    }
    OleValue operator()(const mox::CodePageString& s) const {
      std::string kept;
      for (char c : s.bytes) {
        if (c != '\0') kept += c;
      }
      return {"bytes", hexOf(kept.data(), kept.size())};
    }
    OleValue operator()(const std::u16string& s) const {
      const std::string text = utf8(s);
      return {"str", hexOf(text.data(), text.size())};
    }
    OleValue operator()(const mox::Blob& b) const {
      if (b.object) return {"none", ""};
      return {"bytes", hexOf(b.data.data(), b.data.size())};
    }
    OleValue operator()(const mox::ClipboardData& d) const {
      std::string bytes;
      for (int i = 0; i < 4; ++i) bytes += static_cast<char>(static_cast<std::uint32_t>(d.format) >> (8 * i));
      bytes.append(d.data.begin(), d.data.end());
      return {"bytes", hexOf(bytes.data(), bytes.size())};
    }
    OleValue operator()(const mox::Guid& g) const {
      const std::string text = g == mox::Guid{} ? "" : mox::guid_to_string(g);
      return {"str", hexOf(text.data(), text.size())};
    }
    template <class T>
    OleValue operator()(const T&) const { return {"none", ""}; }
};
OleValue olefileView(const mox::PropertyValue& value) {
  return std::visit(OlefileVisitor{}, value.variant());
}

struct OleStream {
  std::map<std::uint32_t, OleValue> values;
  std::map<std::uint32_t, std::string> times;  // convert_time=True
};

// By directory entry number.
std::map<std::uint32_t, OleStream> runOlefile(const std::string& python, const std::string& path) {
  const moxtest::ProgramResult r = moxtest::runProgram({python, kOracle, path});
  EXPECT_EQ(r.status, 0) << r.err;
  std::map<std::uint32_t, OleStream> out;
  OleStream* current = nullptr;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> f = manifest::split(line, '\t');
    if (f[0] == "S") current = &out[static_cast<std::uint32_t>(std::stoul(f[1]))];
    if (current == nullptr) continue;
    if (f[0] == "P") current->values[static_cast<std::uint32_t>(std::stoul(f[1]))] = {f[2], f.size() > 3 ? f[3] : ""};
    if (f[0] == "T") current->times[static_cast<std::uint32_t>(std::stoul(f[1]))] = f[2];
  }
  return out;
}

// olefile reads the first section only, and reads the dictionary (id 0)
// as if it were a value.
void expectOlefileAgrees(const mox::PropertySet& set, const OleStream& seen) {
  std::map<std::uint32_t, OleValue> expected;
  std::map<std::uint32_t, std::string> times;
  if (!set.sections.empty()) {
    for (const mox::Property& p : set.sections[0].properties) {
      expected[p.id] = olefileView(p.value);
      if (const auto* t = std::get_if<mox::FileTime>(&p.value)) {
        const std::optional<Civil> c = civilOf(t->value);
        times[p.id] = c ? isoOf(*c, true) : "-";
      }
    }
  }
  std::map<std::uint32_t, OleValue> got = seen.values;
  got.erase(mox::pid::dictionary);
  for (auto& [id, v] : got) {
    // olefile keeps the terminating nulls of UTF-16 strings.
    const mox::PropertyValue* mine = set.sections.empty() ? nullptr : set.sections[0].get(id);
    if (v.kind != "str" || mine == nullptr || !std::holds_alternative<std::u16string>(*mine)) continue;
    while (v.text.size() >= 2 && v.text.compare(v.text.size() - 2, 2, "00") == 0) v.text.resize(v.text.size() - 2);
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(seen.times, times);
}

// --- gsf ------------------------------------------------------------------------

bool haveGsf() { return moxtest::runProgram({"sh", "-c", "command -v gsf"}).status == 0; }

// gsf's printing of strings: C escapes, octal for bytes outside ASCII.
std::string gsfQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\v': out += "\\v"; break;
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      default:
        if (c < 0x20 || c >= 0x7F) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\%03o", c);
          out += buffer;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

// How gsf prints a value: one string per item; nullopt for what it
// prints without a value (clipboard data) or differently by design:
// FILETIMEs before 1970, which are durations or unset dates, come out as
// arbitrary dates there.
struct GsfVisitor {
    using R = std::optional<std::vector<std::string>>;
    R one(std::string s) const { return std::vector<std::string>{std::move(s)}; }
    R operator()(bool b) const { return one(b ? "TRUE" : "FALSE"); }
    R operator()(std::int16_t v) const { return one(std::to_string(v)); }
    R operator()(std::uint16_t v) const { return one(std::to_string(v)); }
    R operator()(std::int32_t v) const { return one(std::to_string(v)); }
    R operator()(std::uint32_t v) const { return one(std::to_string(v)); }
    R operator()(const mox::CodePageString& s) const { return one(gsfQuote(s.text)); }
    R operator()(const std::u16string& s) const { return one(gsfQuote(utf8(s))); }
    R operator()(mox::FileTime t) const {
      if (t.value < 116444736000000000ULL) return std::nullopt;
      return one(isoOf(*civilOf(t.value), false) + "Z");
    }
    template <class T>
    R operator()(const std::vector<T>& items) const {
      std::vector<std::string> out;
      for (const auto& item : items) {
        R r = (*this)(static_cast<const T&>(item));
        if (!r || r->size() != 1) return std::nullopt;
        out.push_back(r->front());
      }
      return out;
    }
    R operator()(const mox::PropertyValue& v) const { return std::visit(*this, v.variant()); }
    template <class T>
    R operator()(const T&) const { return std::nullopt; }
};
std::optional<std::vector<std::string>> gsfView(const mox::PropertyValue& value) {
  return std::visit(GsfVisitor{}, value.variant());
}

// gsf's names for the ids of the two summary sections.
const std::map<std::string, std::pair<bool, std::uint32_t>>& gsfNames() {
  static const std::map<std::string, std::pair<bool, std::uint32_t>> names = {
      {"dc:title", {false, 2}}, {"dc:subject", {false, 3}}, {"dc:creator", {false, 4}},
      {"dc:keywords", {false, 5}}, {"dc:description", {false, 6}}, {"meta:template", {false, 7}},
      {"gsf:last-saved-by", {false, 8}}, {"meta:editing-cycles", {false, 9}},
      {"meta:editing-duration", {false, 10}}, {"gsf:last-printed", {false, 11}},
      {"meta:creation-date", {false, 12}}, {"dc:date", {false, 13}},
      {"gsf:page-count", {false, 14}}, {"gsf:word-count", {false, 15}},
      {"gsf:character-count", {false, 16}}, {"gsf:thumbnail", {false, 17}},
      {"meta:generator", {false, 18}}, {"gsf:security", {false, 19}},
      {"gsf:category", {true, 2}}, {"gsf:presentation-format", {true, 3}},
      {"gsf:byte-count", {true, 4}}, {"gsf:line-count", {true, 5}},
      {"gsf:paragraph-count", {true, 6}}, {"gsf:slide-count", {true, 7}},
      {"gsf:note-count", {true, 8}}, {"gsf:hidden-slide-count", {true, 9}},
      {"gsf:MM-clip-count", {true, 10}}, {"gsf:scale", {true, 11}},
      {"gsf:heading-pairs", {true, 12}}, {"gsf:document-parts", {true, 13}},
      {"gsf:manager", {true, 14}}, {"dc:publisher", {true, 15}}, {"gsf:links-dirty", {true, 16}},
  };
  return names;
}

// Name -> printed items.
std::map<std::string, std::vector<std::string>> runGsf(const std::string& path) {
  const moxtest::ProgramResult list = moxtest::runProgram({"gsf", "listprops", path});
  EXPECT_EQ(list.status, 0) << list.err;
  std::vector<std::string> argv = {"gsf", "props", path};
  std::istringstream names(list.out);
  for (std::string name; std::getline(names, name);) argv.push_back(name);
  std::map<std::string, std::vector<std::string>> out;
  if (argv.size() == 3) return out;
  const moxtest::ProgramResult r = moxtest::runProgram(argv);
  EXPECT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::vector<std::string>* current = nullptr;
  for (std::string line; std::getline(lines, line);) {
    std::string rest;
    if (!line.empty() && line[0] != '\t') {
      const std::size_t colon = line.find(": \t");
      if (colon == std::string::npos) continue;
      current = &out[line.substr(0, colon)];
      current->clear();
      rest = line.substr(colon + 3);
    } else if (current != nullptr) {
      rest = line.substr(1);
    } else {
      continue;
    }
    const std::size_t eq = rest.find("= ");
    if (eq == std::string::npos) continue;
    // Objects print as their address, which changes from run to run.
    const std::string item = rest.substr(eq + 2);
    current->push_back(item.rfind("((", 0) == 0 ? "<object>" : item);
  }
  return out;
}

// The value gsf names `name`, in the sets of the two summary streams.
const mox::PropertyValue* gsfSubject(const Sets& sets, const std::string& name) {
  auto sectionOf = [&](bool doc, const mox::Guid& id) -> const mox::PropertySection* {
    auto it = sets.find(std::string(doc ? mox::kDocSummaryInformationStream
                                        : mox::kSummaryInformationStream));
    return it == sets.end() ? nullptr : it->second.section(id);
  };
  const mox::PropertySection* si = sectionOf(false, mox::kSummaryInformation);
  const mox::PropertySection* dsi = sectionOf(true, mox::kDocSummaryInformation);
  const mox::PropertySection* user = sectionOf(true, mox::kUserDefinedProperties);
  if (name == "msole:codepage" || name == "gsf:default-locale") {
    // Both sets have one; gsf prints one of them.
    return nullptr;
  }
  const auto known = gsfNames().find(name);
  if (known != gsfNames().end()) {
    const mox::PropertySection* s = known->second.first ? dsi : si;
    return s ? s->get(known->second.second) : nullptr;
  }
  const std::string unknown = "msole:unknown-doc-";
  if (name.rfind(unknown, 0) == 0) {
    return dsi ? dsi->get(static_cast<std::uint32_t>(std::stoul(name.substr(unknown.size())))) : nullptr;
  }
  if (user == nullptr) return nullptr;
  const std::optional<std::uint32_t> id = user->id_of(name);
  return id ? user->get(*id) : nullptr;
}

void expectGsfAgrees(const Sets& sets, const std::map<std::string, std::vector<std::string>>& printed) {
  for (const auto& [name, items] : printed) {
    SCOPED_TRACE("gsf " + name);
    if (name == "msole:codepage" || name == "gsf:default-locale") {
      // Printed once for both summary sets: it must be one of them.
      const std::uint32_t id = name == "msole:codepage" ? mox::pid::code_page : mox::pid::locale;
      bool found = false;
      for (const auto& entry : sets) {
        for (const mox::PropertySection& s : entry.second.sections) {
          const mox::PropertyValue* v = s.get(id);
          if (v != nullptr && gsfView(*v) == std::optional<std::vector<std::string>>(items)) found = true;
        }
      }
      EXPECT_TRUE(found) << items.front();
      continue;
    }
    const mox::PropertyValue* v = gsfSubject(sets, name);
    ASSERT_NE(v, nullptr) << "gsf prints a property this library does not have";
    const auto expected = gsfView(*v);
    if (expected) {
      EXPECT_EQ(items, *expected);
    }
  }
}

// --- Compound files of property streams -------------------------------------------

// A new compound file holding `streams` (path -> bytes) and nothing else.
std::vector<std::uint8_t> fileWith(const std::map<std::string, std::vector<std::uint8_t>>& streams) {
  cfb::CfbBuilder b;
  std::map<std::string, int> storages = {{"", 0}};
  for (const auto& [path, bytes] : streams) {
    int parent = 0;
    std::size_t from = 0;
    for (std::size_t slash; (slash = path.find('/', from)) != std::string::npos; from = slash + 1) {
      const std::string prefix = path.substr(0, slash);
      auto it = storages.find(prefix);
      if (it == storages.end()) {
        it = storages.emplace(prefix, b.addEntry(parent, moxfmt::utf8ToUtf16(path.substr(from, slash - from)), 1, {})).first;
      }
      parent = it->second;
    }
    b.addEntry(parent, moxfmt::utf8ToUtf16(path.substr(from)), 2, bytes);
  }
  return b.build();
}

std::string save(const moxhost::ScratchDir& dir, const std::string& name,
                 const std::vector<std::uint8_t>& bytes) {
  const std::string path = dir.file(name);
  EXPECT_TRUE(moxtest::spit(path, std::string(bytes.begin(), bytes.end())));
  return path;
}

// --- The corpus ----------------------------------------------------------------

const std::vector<manifest::File>& corpusFiles() {
  static const std::vector<manifest::File> files = [] {
    std::vector<manifest::File> with;
    for (manifest::File& f : manifest::load(MOX_CORPUS_DIR)) {
      for (const auto& entry : f.entries) {
        const auto& names = entry.second.names;
        if (entry.second.type == "stream" && !names.empty() && !names.back().empty() &&
            names.back()[0] == u'\x05') {
          with.push_back(f);
          break;
        }
      }
    }
    return with;
  }();
  return files;
}

class PropertyCorpus : public ::testing::TestWithParam<std::size_t> {};

TEST_P(PropertyCorpus, ReadAsOlefileAndGsfReadItAndWrittenBackTheSame) {
  const manifest::File& file = corpusFiles()[GetParam()];
  const std::string full = std::string(MOX_CORPUS_DIR) + "/" + file.path;
  const mox::CompoundFile doc = mox::CompoundFile::open(full);

  Sets sets;
  std::map<std::uint32_t, std::string> pathOf;  // entry number -> path
  std::map<std::string, std::vector<std::uint8_t>> rewritten;
  for (const mox::Entry& e : doc.walk()) {
    if (!e.is_stream() || !isPropertyStream(e.name)) continue;
    SCOPED_TRACE(e.path);
    const mox::PropertySet& set = sets[e.path] = mox::read_property_set(doc, e.path);
    pathOf[e.id] = e.path;
    const std::vector<std::uint8_t> bytes = mox::serialize_property_set(set);
    const mox::PropertySet again = mox::parse_property_set(bytes.data(), bytes.size());
    EXPECT_TRUE(again == set) << "changed by a write and a read";
    EXPECT_EQ(mox::serialize_property_set(again), bytes);
    rewritten[e.path] = bytes;
  }
  ASSERT_FALSE(sets.empty());

  moxhost::ScratchDir scratch;
  const std::string copy = save(scratch, "rewritten.cfb", fileWith(rewritten));
  {
    const mox::CompoundFile back = mox::CompoundFile::open(copy);
    for (const auto& [path, set] : sets) EXPECT_TRUE(mox::read_property_set(back, path) == set) << path;
  }

  const std::string python = moxtest::olefilePython();
  if (!python.empty()) {
    const auto original = runOlefile(python, full);
    EXPECT_EQ(original.size(), sets.size());
    for (const auto& [id, seen] : original) {
      SCOPED_TRACE("olefile, " + pathOf[id]);
      ASSERT_EQ(pathOf.count(id), 1u);
      expectOlefileAgrees(sets.at(pathOf[id]), seen);
    }
    // The rewritten file numbers its entries differently: match by path.
    const mox::CompoundFile back = mox::CompoundFile::open(copy);
    std::map<std::uint32_t, std::string> backPath;
    for (const mox::Entry& e : back.walk()) backPath[e.id] = e.path;
    const auto reread = runOlefile(python, copy);
    EXPECT_EQ(reread.size(), sets.size());
    for (const auto& [id, seen] : reread) {
      SCOPED_TRACE("olefile on the rewritten file, " + backPath[id]);
      expectOlefileAgrees(sets.at(backPath[id]), seen);
    }
  } else {
    ADD_FAILURE() << "olefile is not installed (python3-olefile)";
  }

  if (haveGsf()) {
    const auto printed = runGsf(full);
    expectGsfAgrees(sets, printed);
    // gsf reads only the two summary streams at the top.
    EXPECT_EQ(runGsf(copy), printed);
  } else {
    ADD_FAILURE() << "gsf is not installed (libgsf-bin)";
  }
}

std::vector<std::size_t> corpusIndexes() {
  std::vector<std::size_t> indexes;
  for (std::size_t i = 0; i < corpusFiles().size(); ++i) indexes.push_back(i);
  return indexes;
}

INSTANTIATE_TEST_SUITE_P(Corpus, PropertyCorpus, ::testing::ValuesIn(corpusIndexes()),
                         [](const ::testing::TestParamInfo<std::size_t>& info) {
                           std::string name = corpusFiles()[info.param].path;
                           for (char& c : name) {
                             if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PropertyCorpus);

TEST(PropertyCorpusPresence, CorpusHasPropertyStreams) {
  if (manifest::load(MOX_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus at " << MOX_CORPUS_DIR;
  EXPECT_GE(corpusFiles().size(), 20u);
}

}  // namespace
