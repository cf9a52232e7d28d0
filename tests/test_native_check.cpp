// check(): the structural scan over small files each breaking one rule
// (tests/test_native_corpus.cpp runs it over the shared corpus); strict
// opens, which fail on its errors; and `moxole check`, which prints it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_builder.h"
#include "support/moxole_cli.h"
#include "support/native_kit.h"

namespace {

using Defects = std::vector<mox::Defect>;
using moxtest::hasError;

// A defect a line, as `moxole check` prints them: control bytes of
// names escaped, "-" for no path or sector.
std::string listing(const Defects& defects) {
  std::string text;
  for (const mox::Defect& d : defects) {
    text += std::string(d.severity == mox::Severity::error ? "error" : "warning") + "\t" + d.code + "\t" +
            (d.path.empty() ? "-" : d.path) + "\t" + (d.sector < 0 ? "-" : std::to_string(d.sector)) + "\t" + d.message + "\n";
  }
  for (std::size_t at; (at = text.find('\x05')) != std::string::npos;) text.replace(at, 1, "\\x05");
  return text;
}

// --- Files broken one rule at a time -------------------------------------------

// Entries of the sample: a regular stream, a mini stream, and a storage
// holding another mini stream, whose name needs escaping when printed.  Three siblings under the root make a
// perfect all-black tree, so the unbroken file has no defect at all.
enum { kBig = 1, kSmall = 2, kStore = 3, kInner = 4 };

cfb::CfbLayout sample(unsigned shift = 9) {
  cfb::CfbBuilder b(shift);
  b.setPaddingSectors(1);  // a free sector after the directory
  b.addStream(0, "Big", cfb::Bytes(5000, 1));
  b.addStream(0, "Small", cfb::Bytes(100, 2));
  b.addStream(b.addStorage(0, "Store"), "\x05Inner", cfb::Bytes(200, 3));
  return b.layout();
}

Defects check(const cfb::Bytes& bytes) {
  return mox::CompoundFile::open_memory(bytes.data(), bytes.size()).check();
}

// The defects check() reports, which `moxole check` must print, exiting
// by the worst severity.
Defects checkPrinted(const cfb::Bytes& bytes) {
  const Defects defects = check(bytes);
  moxtest::ScratchDir scratch;
  EXPECT_TRUE(moxtest::writeBytes(scratch.file("f.cfb"), bytes));
  const moxtest::ProgramResult r = moxole({"check", scratch.file("f.cfb")});
  EXPECT_EQ(std::make_tuple(r.status, r.out, r.err), std::make_tuple(hasError(defects) ? 2 : 0, listing(defects), std::string()));
  return defects;
}

// Regular sector k of "Big", and the free padding sector.
std::uint32_t big(const cfb::CfbLayout& l, std::uint32_t k) { return l.dir[kBig].start + k; }
std::uint32_t spare(const cfb::CfbLayout& l) { return l.dirSectors.back() + 1; }

struct Broken {
  const char* code;
  mox::Severity severity;
  const char* path;
  // Breaks the rule; returns the sector the defect must name (-1: none).
  std::function<std::int64_t(cfb::CfbLayout&)> breakIt;
  const char* says = "";  // part of the message, when it names another entry
};

constexpr mox::Severity kError = mox::Severity::error;
constexpr mox::Severity kWarning = mox::Severity::warning;

const Broken kBroken[] = {
    // Chains of the FAT.
    {"sector-shared", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 1)] = l.dirSectors[0]; }},
    {"fat-cycle", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 4)] = big(l, 2); }},
    {"chain-broken", kError, "Big", [](cfb::CfbLayout& l) { l.fat[big(l, 3)] = cfb::kFree; return big(l, 3); }},
    {"sector-range", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 5)] = 100; }},
    {"chain-short", kError, "Big", [](cfb::CfbLayout& l) { l.fat[big(l, 6)] = cfb::kEnd; return big(l, 6); }},
    {"chain-long", kWarning, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].sizeLow = 4600; return big(l, 9); }},
    // The mini stream is the last sector; the file ends 300 bytes into
    // it, inside "Inner" (mini stream bytes 128..328).
    {"sector-truncated", kError, "Store/\x05Inner",
     [](cfb::CfbLayout& l) { l.truncateTo = (l.dir[0].start + 1) * 512 + 300; return l.dir[0].start; }},
    {"sector-orphan", kWarning, "", [](cfb::CfbLayout& l) { l.fat[spare(l)] = cfb::kEnd; return spare(l); }},
    {"table-mark", kWarning, "", [](cfb::CfbLayout& l) { l.fat[l.fatSectors[0]] = cfb::kFree; return l.fatSectors[0]; }},
    // The mini FAT and the mini stream ("Small" has mini sectors 0-1,
    // "Inner" 2-5).
    {"mini-sector-shared", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { return l.miniFat[3] = 1; }},
    {"minifat-cycle", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { return l.miniFat[4] = 2; }},
    {"mini-chain-short", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { l.miniFat[3] = cfb::kEnd; return 3; }},
    {"mini-sector-range", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { return l.miniFat[3] = 200; }},
    {"mini-beyond-stream", kError, "Small",
     [](cfb::CfbLayout& l) {
       l.miniFat.resize(8, cfb::kFree);
       l.miniFat[6] = 7;
       l.miniFat[7] = cfb::kEnd;
       return l.dir[kSmall].start = 6;
     }},
    {"ministream-chain", kError, "", [](cfb::CfbLayout& l) { l.dir[0].sizeLow += 512; return l.dir[0].start; }},
    {"ministream-cycle", kError, "",
     [](cfb::CfbLayout& l) { l.dir[0].sizeLow += 512; l.fat[l.dir[0].start] = l.dir[0].start; return -1; }},
    {"mini-sector-orphan", kWarning, "",
     [](cfb::CfbLayout& l) { l.miniFat.resize(11, cfb::kFree); l.miniFat[10] = cfb::kEnd; return 10; }},
    // The directory.
    {"dir-link-range", kError, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].left = 99; return -1; }},
    {"dir-link-shared", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { l.dir[kInner].left = kBig; return -1; },
     "already in the tree as 'Big'"},
    {"entry-empty", kError, "Store/\x05Inner", [](cfb::CfbLayout& l) { l.dir[kInner].type = 0; return -1; }},
    {"entry-child", kError, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].child = 99; return -1; }},
    {"sibling-order", kError, "Small", [](cfb::CfbLayout& l) { l.dir[kBig].name = cfb::units("Zzzzzz"); return -1; }},
    {"sibling-duplicate", kError, "SMALL", [](cfb::CfbLayout& l) { l.dir[kStore].name = cfb::units("SMALL"); return -1; }},
    {"name-length", kError, "Bi", [](cfb::CfbLayout& l) { l.dir[kBig].nameLength = 7; return -1; }},
    {"name-unterminated", kError, "B", [](cfb::CfbLayout& l) { l.dir[kBig].nameLength = 4; return -1; }},
    {"rb-red-red", kWarning, "",
     [](cfb::CfbLayout& l) { l.dir[kBig].colour = l.dir[kSmall].colour = l.dir[kStore].colour = 0; return -1; }},
    {"rb-black-height", kWarning, "", [](cfb::CfbLayout& l) { l.dir[kBig].colour = 0; return -1; }},
    {"entry-unreachable", kWarning, "", [](cfb::CfbLayout& l) { l.dir[kSmall].right = cfb::kNone; return -1; }},
    {"root-siblings", kWarning, "", [](cfb::CfbLayout& l) { l.dir[0].left = kInner; return -1; }},
    // The header and the DIFAT.
    {"header-byte-order", kError, "", [](cfb::CfbLayout& l) { l.bigEndian = true; return -1; }},
    {"header-version", kWarning, "", [](cfb::CfbLayout& l) { l.header.major[0] = 5; return -1; }},
    {"header-sector-size", kWarning, "", [](cfb::CfbLayout& l) { l.header.major[0] = 4; return -1; }},
    {"header-mini-cutoff", kWarning, "", [](cfb::CfbLayout& l) { l.header.miniCutoff = 2048; return -1; }},
    {"header-dir-count", kWarning, "", [](cfb::CfbLayout& l) { l.header.dirSectors = 2; return -1; }},
    {"fat-count", kError, "", [](cfb::CfbLayout& l) { l.header.fatSectors = 1000; return -1; }},
    // More FAT sectors than the header's slots hold, and no DIFAT.
    {"fat-count", kError, "", [](cfb::CfbLayout& l) { l.sector(200); l.header.fatSectors = 110; return -1; }},
    {"difat-slot", kWarning, "",
     [](cfb::CfbLayout& l) {
       l.deriveDifat = false;
       l.header.difat[0] = l.fatSectors[0];
       return l.header.difat[3] = 7;
     }},
    {"difat-cycle", kError, "",
     [](cfb::CfbLayout& l) {
       // Two DIFAT sectors declared though the header holds the whole
       // FAT; the first links to itself.
       const std::uint32_t p = l.header.difatStart = spare(l);
       l.deriveDifat = false;
       l.header.difat[0] = l.fatSectors[0];
       l.header.difatSectors = 2;
       cfb::Bytes& s = l.sector(p);
       std::fill(s.begin(), s.end(), 0xFF);
       for (int k = 0; k < 4; ++k) s[508 + k] = static_cast<std::uint8_t>(p >> (8 * k));
       l.fat[p] = cfb::kDifSect;
       return p;
     }},
};

TEST(NativeCheck, UnbrokenFilesHaveNoDefectsAndEachBrokenRuleIsReportedWithItsPathAndSector) {
  for (unsigned shift : {9u, 12u}) EXPECT_EQ(listing(checkPrinted(sample(shift).serialize())), "") << "shift " << shift;
  for (const Broken& b : kBroken) {
    SCOPED_TRACE(b.code);
    cfb::CfbLayout l = sample();
    const std::int64_t sector = b.breakIt(l);
    const cfb::Bytes bytes = l.serialize();
    const Defects defects = checkPrinted(bytes);
    const auto d = std::find_if(defects.begin(), defects.end(), [&](const mox::Defect& x) { return x.code == b.code; });
    ASSERT_NE(d, defects.end()) << listing(defects);
    EXPECT_EQ(std::make_tuple(d->severity, d->path, d->sector), std::make_tuple(b.severity, std::string(b.path), sector));
    EXPECT_TRUE(!d->message.empty() && d->message.find(b.says) != std::string::npos) << d->message;
    // A warning is all a tolerated oddity brings.
    EXPECT_EQ(hasError(defects), b.severity == kError) << listing(defects);
    // A strict open fails exactly on an error, as a damaged file.
    EXPECT_EQ(moxtest::errorOf([&] { mox::CompoundFile::open_memory(bytes.data(), bytes.size(), mox::OpenOptions{true}); }),
              hasError(defects) ? mox::Errc::damaged : mox::Errc{});
  }
}

// Repeated defects are listed up to a limit of their count and of the
// bytes of their paths; one without a path counts the rest.
TEST(NativeCheck, RepeatedDefectsAreListedUpToALimitThenCounted) {
  // Storages nested 151 deep, all but the first with a bad name length;
  // and 30000 deep, the deepest 1000 broken, whose paths run to 60 KB so
  // that fewer fit.
  const std::tuple<int, int, std::size_t> cases[] = {{151, 150, 100}, {30000, 1000, 0}};  // listed 0: as many as fit
  for (const auto& [depth, broken, expected] : cases) {
    cfb::CfbBuilder b;
    for (int i = 0, at = 0; i < depth; ++i) at = b.addStorage(at, "a");
    cfb::CfbLayout l = b.layout();
    for (int i = depth - broken + 1; i <= depth; ++i) l.dir[i].nameLength = 1;
    std::size_t listed = 0, counted = 0, pathBytes = 0;
    for (const mox::Defect& d : check(l.serialize())) {
      ASSERT_EQ(d.code, "name-length");
      if (d.path.empty()) {
        counted = std::stoul(d.message);
        continue;
      }
      ++listed;
      pathBytes += d.path.size();
      EXPECT_GE(d.path.size(), 2u * (depth - broken));
    }
    EXPECT_EQ(listed + counted, static_cast<std::size_t>(broken));
    EXPECT_EQ(listed, expected ? expected : std::clamp<std::size_t>(listed, 1, 100));
    EXPECT_LE(pathBytes, std::size_t{4} << 20);
  }
}

}  // namespace
