// Writes the seed inputs of the property set target: sets made with the
// library's own writer that reach every value type, code pages of one,
// two and four bytes a character, dictionaries, and two sections.
//
//   make_props_seeds OUTDIR   writes OUTDIR/props
#include <stdio.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "moxolefio/properties.hpp"

namespace {

int failures = 0;

void save(const std::string& dir, const std::string& name, const mox::PropertySet& set) {
  const std::vector<uint8_t> bytes = mox::serialize_property_set(set);
  const std::string path = dir + "/" + name;
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) ++failures;
  if (f != nullptr && fclose(f) != 0) ++failures;
}

std::vector<mox::PropertyValue> values() {
  using namespace mox;
  return {PropertyValue(), Null{}, true, std::int8_t(-5), std::uint8_t(200), std::int16_t(-300),
          std::uint16_t(60000), std::int32_t(-70000), std::uint32_t(4000000000u), std::int64_t(-5),
          std::uint64_t(5), 1.5f, -2.25, Currency{-123456}, Date{45000.5}, StatusCode{0x80004005u},
          Decimal{2, 0x80, 7, 12345}, FileTime{133000000000000000ULL}, CodePageString("text"),
          std::u16string(u"wide"), Blob{{1, 2, 3}, false}, Blob{{4}, true}, ClipboardData{-1, {3, 0, 1}},
          Guid{1, 2, 3}, IndirectName{vt::stream, CodePageString("Data")},
          VersionedStream{Guid{9}, CodePageString("V")}, RawValue{0x2003, {1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0}},
          std::vector<bool>{true, false}, std::vector<std::int8_t>{-1}, std::vector<std::uint8_t>{1, 2},
          std::vector<std::int16_t>{-1, 2, 3}, std::vector<std::uint16_t>{1}, std::vector<std::int32_t>{-1},
          std::vector<std::uint32_t>{1}, std::vector<std::int64_t>{-1}, std::vector<std::uint64_t>{1},
          std::vector<float>{0.5f}, std::vector<double>{0.25}, std::vector<Currency>{{1}}, std::vector<Date>{{1}},
          std::vector<StatusCode>{{5}}, std::vector<FileTime>{{1}}, std::vector<CodePageString>{"a", "bc"},
          std::vector<std::u16string>{u"x", u"yz"}, std::vector<ClipboardData>{{-3, {1, 2, 3, 4, 5}}},
          std::vector<Guid>{Guid{}}, std::vector<PropertyValue>{CodePageString("Pages"), std::int32_t(3)}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: make_props_seeds OUTDIR\n");
    return 2;
  }
  const std::string dir = std::string(argv[1]) + "/props";
  mkdir(argv[1], 0755);
  mkdir(dir.c_str(), 0755);
  int n = 0;
  for (const mox::PropertyValue& v : values()) {
    mox::PropertySet set;
    set.section_or_add(mox::kSummaryInformation).set(2, v);
    save(dir, "value-" + std::to_string(n++), set);
  }
  for (std::uint16_t code_page : {1252, 1200, 65001, 932, 12000}) {
    mox::PropertySet set;
    mox::PropertySection& s = set.section_or_add(mox::kDocSummaryInformation, code_page);
    s.set(mox::doc_summary::company, mox::CodePageString("Firma"));
    s.set(mox::doc_summary::titles_of_parts, std::vector<mox::CodePageString>{"Sheet1", "Sheet2"});
    s.set(mox::doc_summary::heading_pairs,
          std::vector<mox::PropertyValue>{mox::CodePageString("Worksheets"), std::int32_t(2)});
    mox::PropertySection& user = set.section_or_add(mox::kUserDefinedProperties, code_page);
    user.set_named("Client", mox::CodePageString("ACME"));
    user.set_named("Due", mox::FileTime{133000000000000000ULL});
    user.set(mox::pid::locale, std::uint32_t(1033));
    save(dir, "summary-" + std::to_string(code_page), set);
  }
  if (failures != 0) fprintf(stderr, "make_props_seeds: %d files not written\n", failures);
  return failures == 0 ? 0 : 1;
}
