// The escaping that moxole uses for names on screen and on disk.
#include <gtest/gtest.h>

#include <set>

#include "tools/moxole/names.h"

namespace {

using moxole::escapeName;
using moxole::splitPath;
using moxole::unescapeName;

// Every name of one or two bytes, and an empty one, a backslash escape
// that must not be read as ours and a character past the BMP, gives a
// name safe as one file name inside a directory (not empty, not "." or
// "..", no '/', no control character, C1 ones included).  Not only UTF-8:
// whatever bytes a name holds, its file name gives them back.
TEST(MoxoleNames, NamesRoundTripSafelyAndUniquely) {
  std::vector<std::string> raws = {"", "\\x41", "\xf0\x9f\x98\x80"};
  for (int a = 1; a < 256; ++a) {  // names never hold a zero byte
    raws.push_back(std::string(1, static_cast<char>(a)));
    for (int b = 1; b < 256; ++b) raws.push_back({static_cast<char>(a), static_cast<char>(b)});
  }
  std::set<std::string> seen;
  for (const std::string& raw : raws) {
    const std::string escaped = escapeName(raw);
    ASSERT_TRUE(!escaped.empty() && escaped != "." && escaped != ".." && escaped.find('/') == std::string::npos)
        << escaped;
    for (size_t i = 0; i < escaped.size(); ++i) {
      unsigned char c = escaped[i], next = i + 1 < escaped.size() ? escaped[i + 1] : 0;
      ASSERT_TRUE(c >= 0x20 && c != 0x7F && !(c == 0xC2 && next < 0xA0 && next >= 0x80)) << escaped;
    }
    std::string back = "junk";
    ASSERT_TRUE(unescapeName(escaped, &back)) << escaped;
    ASSERT_EQ(back, raw) << escaped;
    ASSERT_TRUE(seen.insert(escaped).second) << "two names give " << escaped;
  }
}

// The sample names of test_moxole.cpp ("\x05...", ".", "..", "a/b") are
// checked there in what ls prints.
TEST(MoxoleNames, SpecialNamesStayReadable) {
  EXPECT_EQ(escapeName("b\\c"), "b\\x5cc");
  EXPECT_EQ(escapeName("..."), "...");
  EXPECT_EQ(escapeName("Root Entry"), "Root Entry");
  EXPECT_EQ(escapeName("caf\xc3\xa9\xc2\x85\xe4\xb8\xad"), "caf\xc3\xa9\\x85\xe4\xb8\xad");
}

// Upper-case \X is not ours, 8-bit escapes are as older listings showed
// them, and a short escape stays literal; only a zero byte is refused.
TEST(MoxoleNames, UnescapingAcceptsTypedNames) {
  std::string name;
  for (const auto& [typed, raw] : std::vector<std::pair<std::string, std::string>>{
           {"\\X05Sum", "\\X05Sum"}, {"\\x0ASum\\x4a", "\nSumJ"}, {"caf\\xe9", "caf\xc3\xa9"},
           {"trailing\\x4", "trailing\\x4"}}) {
    ASSERT_TRUE(unescapeName(typed, &name)) << typed;
    EXPECT_EQ(name, raw) << typed;
  }
  EXPECT_FALSE(unescapeName("a\\x00b", &name));
}

TEST(MoxoleNames, PathsSplitOnSlashesOnly) {
  std::vector<std::string> names;
  ASSERT_TRUE(splitPath("/ObjectPool//_12/\\x03META/", &names));
  EXPECT_EQ(names, (std::vector<std::string>{"ObjectPool", "_12", "\x03META"}));
  ASSERT_TRUE(splitPath("/", &names));
  EXPECT_TRUE(names.empty());
  EXPECT_FALSE(splitPath("ok/bad\\x00name", &names));
}

}  // namespace
